#pragma once

#include <functional>
#include <optional>
#include <string>

// The first command-line argument when it may be a server address (set by
// main before anything else runs).
extern std::optional<std::string> gCmdlineServer;

// Runs the first-run prompt modally and returns the accepted address.
using InstancePromptRunner = std::function<std::optional<std::string>()>;

// Resolves the server address once per process: command line, then "server"
// in the settings file, then the prompt (whose choice is saved into the
// file). Later calls return the first answer; the runner is only used on the
// first call.
const std::optional<std::string>& ondrelServerURL(const InstancePromptRunner& runPrompt = {});

// One resolution without the once-only guard, for callers that manage their
// own state (and for tests).
std::optional<std::string> ondrelResolveServer(const std::optional<std::string>& cmdline,
                                               const std::string& configPath,
                                               const InstancePromptRunner& runPrompt);
