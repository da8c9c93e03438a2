#pragma once

#include <optional>
#include <string>

// Whole-file reads and atomic writes. Failures come back as the message of
// the failing call (with the path), never as exceptions.
struct FileResult {
  bool ok = false;
  std::string error;
};

std::optional<std::string> readWholeFile(const std::string& path, std::string* error = nullptr);

// Writes to a temporary file beside the target and renames it over, so a
// reader sees the old or the new content, never a mix.
FileResult writeFileAtomically(const std::string& path, std::string_view data);

// Creates the folder and every missing parent; true when it exists afterwards.
FileResult makeDirectories(const std::string& path);

std::string parentDirectory(const std::string& path);
