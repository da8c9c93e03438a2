#include "mcp/shell_path.h"

#include <dirent.h>
#include <glib.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "mcp/child_process.h"

extern char** environ;

std::vector<std::string> ondrelSplit(std::string_view text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t end = text.find(separator, start);
    if (end == std::string_view::npos) {
      parts.emplace_back(text.substr(start));
      return parts;
    }
    parts.emplace_back(text.substr(start, end - start));
    start = end + 1;
  }
}

std::string ondrelLoginShell(const char* envShell, const char* passwdShell) {
  if (envShell && envShell[0] == '/') return envShell;
  if (passwdShell && passwdShell[0] == '/') return passwdShell;
  return "/bin/sh";
}

std::optional<std::string> ondrelShellPathFromOutput(std::string_view output) {
  if (output.empty() || !g_utf8_validate(output.data(), static_cast<gssize>(output.size()), nullptr))
    return std::nullopt;
  auto lines = ondrelSplit(output, '\n');
  for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
    const char* blanks = " \t\r\n\v\f";
    size_t first = it->find_first_not_of(blanks);
    if (first == std::string::npos) continue;
    std::string candidate = it->substr(first, it->find_last_not_of(blanks) - first + 1);
    if (candidate.find('/') == std::string::npos) return std::nullopt;
    return candidate;
  }
  return std::nullopt;
}

namespace {

using Clock = std::chrono::steady_clock;

// Reads until end of file or the deadline; true at end of file.
bool readUntil(int fd, std::string& into, Clock::time_point deadline) {
  for (;;) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return true;
    if (r == 0) return false;
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) into.append(buf, static_cast<size_t>(n));
    else if (n == 0 || errno != EINTR) return true;
  }
}

}  // namespace

std::optional<std::string> ondrelProbeShellPath(const std::string& shell, ShellProbeLimits limits) {
  SpawnRequest request;
  request.executable = shell;
  request.args = {"-l", "-i", "-c", "printf '\\n%s' \"$PATH\""};
  for (char** e = environ; e && *e; ++e) request.environment.emplace_back(*e);
  std::string error;
  auto child = ChildProcess::spawn(request, nullptr, &error);
  if (!child) return std::nullopt;

  int out = child->takeStdout();
  std::string output;
  auto seconds = [](double s) { return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s)); };
  bool ended = readUntil(out, output, Clock::now() + seconds(limits.firstWait));
  if (!ended) {
    child->terminate();
    readUntil(out, output, Clock::now() + seconds(limits.afterTerminate));
  } else {
    child->waitUntilExited(limits.afterTerminate);
  }
  ::close(out);
  // Whatever the start-up files left running in the shell's group goes too;
  // this also reaps the shell.
  child->terminate();
  return ondrelShellPathFromOutput(output);
}

bool ondrelIsExecutableFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::vector<std::string> ondrelSearchDirs(const std::optional<std::string>& shellPath, const char* processPath,
                                          const std::string& home) {
  std::vector<std::string> dirs;
  auto add = [&](const std::string& dir) {
    if (!dir.empty() && std::find(dirs.begin(), dirs.end(), dir) == dirs.end()) dirs.push_back(dir);
  };
  if (shellPath)
    for (auto& d : ondrelSplit(*shellPath, ':')) add(d);
  if (processPath)
    for (auto& d : ondrelSplit(processPath, ':')) add(d);
  for (const char* d : {"/home/linuxbrew/.linuxbrew/bin", "/home/linuxbrew/.linuxbrew/sbin", "/usr/local/bin",
                        "/usr/local/sbin", "/snap/bin"})
    add(d);
  for (const char* d : {".local/bin", ".bun/bin", ".cargo/bin", ".volta/bin", ".pyenv/shims"}) add(home + "/" + d);
  std::string nvm = home + "/.nvm/versions/node";
  if (DIR* dir = opendir(nvm.c_str())) {
    // Listing order, no sorting and no filtering: the first version the file
    // system happens to list wins.
    while (dirent* entry = readdir(dir)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      add(nvm + "/" + name + "/bin");
    }
    closedir(dir);
  }
  return dirs;
}

std::optional<std::string> ondrelResolveIn(const std::string& command, const std::vector<std::string>& dirs) {
  if (command.empty()) return std::nullopt;
  if (command[0] == '/') {
    if (ondrelIsExecutableFile(command)) return command;
    return std::nullopt;
  }
  for (const auto& dir : dirs) {
    std::string candidate = dir.back() == '/' ? dir + command : dir + "/" + command;
    if (ondrelIsExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}
