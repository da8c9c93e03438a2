#pragma once

#include <string>

#include "update/update_signature.h"

// What the install step decided, before anything visible happens.
struct InstallPlan {
  std::string failure;        // the "Update Failed" text; empty when the swap can go ahead
  std::string scriptPath;     // the swap script, written
  std::string runningBundle;  // the AppDir being replaced
};

// The file work of an install: zip test, signature check (when trust holds
// a key), staging, unpacking, bundle search and check, the swap script.
// Logs as it goes. Any thread but the main one: it may fetch the signature.
InstallPlan ondrelPrepareInstall(const std::string& archivePath, const std::string& runningExecutable,
                                 const ArchiveTrust& trust);

// Texts of the install step's failure alerts.
std::string ondrelNotAZipText(unsigned long long length);
std::string ondrelNoBundleText(int unpackStatus);
std::string ondrelUnstartableBundleText(const std::string& defect);
extern const char* const kNotInstalledText;
