#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Where MCP server commands are looked for. Servers are usually configured by
// bare name ("npx", "uvx"), and an app started from a desktop launcher has a
// poorer PATH than the user's terminal, so the login shell is asked for its
// PATH once and the usual tool folders are added.

// SHELL when it is an absolute path, else the passwd entry's shell when that
// is, else "/bin/sh".
std::string ondrelLoginShell(const char* envShell, const char* passwdShell);

// The last non-blank line of the probe's output when it holds a "/" (start-up
// files may print anything before it, or after it).
std::optional<std::string> ondrelShellPathFromOutput(std::string_view output);

struct ShellProbeLimits {
  double firstWait = 3.0;       // for the shell's output to end
  double afterTerminate = 5.0;  // once more, after it was told to stop
};

// Runs `shell -l -i -c "printf '\n%s' \"$PATH\""` and returns the PATH it
// printed. Blocks the calling thread for at most the two limits.
std::optional<std::string> ondrelProbeShellPath(const std::string& shell, ShellProbeLimits limits = {});

// The ordered, duplicate-free search list: the shell's PATH, this process's
// PATH, fixed tool folders, the home folder's tool folders, and every nvm
// node version's bin folder.
std::vector<std::string> ondrelSearchDirs(const std::optional<std::string>& shellPath, const char* processPath,
                                          const std::string& home);

// An absolute command is taken when it names an executable file; anything
// else is looked up below each directory in order.
std::optional<std::string> ondrelResolveIn(const std::string& command, const std::vector<std::string>& dirs);

bool ondrelIsExecutableFile(const std::string& path);

std::vector<std::string> ondrelSplit(std::string_view text, char separator);
