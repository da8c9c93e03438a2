#pragma once

#include <optional>
#include <string>

#include "base/json.h"

// The per-project working folders the page remembers, kept in the app's own
// defaults file. Paths are stored exactly as given.
std::optional<Json> projectDirs();  // nullopt when never written
bool setProjectDir(const std::string& projectId, const std::string& path);
