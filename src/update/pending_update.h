#pragma once

#include <optional>
#include <string>

// The update chosen for the next start ("Update on Next Restart"): a JSON
// object with "version" and "url" in ~/.local/share/ondrel.
struct PendingUpdate {
  std::string version;  // may be empty
  std::string url;      // never empty
};

// The record, when the file holds an object whose "url" is a non-empty
// string; a missing "version" (or one that is no string) reads as "".
std::optional<PendingUpdate> ondrelReadPendingUpdate(const std::string& path);

// Writes the record atomically. The folder is not created: it exists once
// the app has run (and any download makes it).
bool ondrelWritePendingUpdate(const std::string& path, const std::string& version, const std::string& url);
