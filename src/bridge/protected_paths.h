#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/json.h"

// Everything outside the key folders that a sandboxed command may read but
// never change: whatever the app or the desktop later runs or trusts
// outside the sandbox. Pure; the caller checks and prepares the paths.
struct ReadOnlyPlan {
  // Made (mode 0700) when missing, so that nothing can be put there.
  std::vector<std::string> folders;
  // Files or folders bound only when they exist. Start-up files are not
  // made: an empty ~/.bash_profile would hide ~/.profile from bash.
  std::vector<std::string> ifPresent;
};

// configHome is where the desktop reads per-user configuration
// ($XDG_CONFIG_HOME, normally ~/.config); appDir the AppDir the app runs
// from; userPaths the "sandboxReadOnly" entries, "~" already expanded.
ReadOnlyPlan readOnlyPlan(const std::string& home, const std::string& configHome,
                          const std::optional<std::string>& appDir, const std::vector<std::string>& userPaths);

// The "sandboxReadOnly" entries of the settings: strings only, others
// skipped. They can only ever add protection.
std::vector<std::string> userReadOnlyEntries(const std::optional<Json>& config);
