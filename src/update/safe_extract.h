#pragma once

#include <string>

struct ExtractResult {
  int status = 0;      // 0 when every entry was unpacked, 1 otherwise
  std::string output;  // "(no output)" on success, else what went wrong
};

// Unpacks a zip archive into stageDir, which must exist. Nothing is ever
// written outside stageDir: an entry with an absolute path or a ".."
// component, or one that would be written through a symbolic link, stops
// the extraction.
ExtractResult ondrelExtractArchive(const std::string& archivePath, const std::string& stageDir);
