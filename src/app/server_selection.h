#pragma once

#include <functional>
#include <optional>
#include <string>

// Runs the first-run prompt modally and returns the accepted address.
using InstancePromptRunner = std::function<std::optional<std::string>()>;

// The server address to load: command line, then "server" in the settings
// file, then the prompt (whose choice is saved into the file); nullopt when
// the prompt was cancelled.
std::optional<std::string> ondrelResolveServer(const std::optional<std::string>& cmdline,
                                               const std::string& configPath,
                                               const InstancePromptRunner& runPrompt);

// A command-line argument as an address to load, under the same rules as at
// start-up; nullopt (with a log line saying why) when it is not one.
std::optional<std::string> ondrelCommandLineServer(const std::string& argument);
