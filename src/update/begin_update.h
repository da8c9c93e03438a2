#pragma once

#include <string>

// Shows the progress window and downloads the archive into the updates
// folder; a finished download goes on to the install step. version may be
// empty. Main thread.
void ondrelBeginUpdate(const std::string& version, const std::string& zipUrl);

// Where the archive of zipUrl is saved: the updates folder plus the URL's
// last component, "Ondrel.zip" when that is empty (or names no file).
std::string ondrelUpdateDestination(const std::string& updatesDir, const std::string& zipUrl);

// "Updating to <version>…", or "Downloading update…" without a version.
std::string ondrelProgressLabel(const std::string& version);
