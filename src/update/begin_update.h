#pragma once

#include <string>

// Where the archive of zipUrl is saved: the updates folder plus the last
// component of the URL's path (as it is written there, percent escapes
// included), "Ondrel.zip" when that is empty (or names no file).
std::string ondrelUpdateDestination(const std::string& updatesDir, const std::string& zipUrl);

// "Updating to <version>…", or "Downloading update…" without a version.
std::string ondrelProgressLabel(const std::string& version);
