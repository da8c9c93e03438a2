#pragma once

#include <optional>
#include <string>

// Finds the application bundle (an AppDir) in an unpacked archive: first
// among the names directly in the folder, in listing order, one whose
// usr/bin holds a visible entry; failing that, the first AppDir anywhere
// below (skipping top-level "._" companions) that has a usr/bin folder.
// A symbolic link never counts as a bundle. Returns the full path.
std::optional<std::string> ondrelFindBundle(const std::string& stageDir);

// Why an unpacked AppDir could not be started once it is in place, or ""
// when it can: AppRun (what the swap starts) and usr/bin/ondrel (what then
// runs) must each be a regular file its owner may execute. A link does not
// count: it could lead out of the bundle, to whatever lies there.
std::string ondrelBundleDefect(const std::string& bundle);

// The AppDir that holds an executable at <X>.AppDir/usr/bin/<name>, or
// nullopt when the executable does not run from one.
std::optional<std::string> ondrelBundleOfExecutable(const std::string& executablePath);
