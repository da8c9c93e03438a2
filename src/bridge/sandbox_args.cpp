#include "bridge/sandbox_args.h"

std::string joinPath(const std::string& parent, const std::string& name) {
  if (!parent.empty() && parent.back() == '/') return parent + name;
  return parent + "/" + name;
}

bool isSameOrInside(const std::string& path, const std::string& folder) {
  if (folder == "/") return !path.empty() && path.front() == '/';
  if (path.compare(0, folder.size(), folder) != 0) return false;
  return path.size() == folder.size() || path[folder.size()] == '/';
}

std::vector<std::string> protectedFolders(const std::string& home) {
  return {joinPath(home, ".ssh"), joinPath(home, ".gnupg")};
}

bool tmpDirIsUsable(const std::string& tmpDir, const std::string& home) {
  if (tmpDir.empty() || tmpDir == "/") return false;
  for (const auto& folder : protectedFolders(home))
    if (isSameOrInside(tmpDir, folder)) return false;
  return true;
}

std::vector<std::string> buildSandboxArgs(const SandboxPaths& paths, const std::string& command, int statusFd) {
  std::vector<std::string> args = {kBubblewrapPath};
  auto add = [&args](std::initializer_list<std::string> items) { args.insert(args.end(), items); };

  add({"--ro-bind", "/", "/", "--dev", "/dev", "--proc", "/proc"});
  add({"--bind", paths.home, paths.home});
  add({"--bind", "/tmp", "/tmp", "--bind", "/var/tmp", "/var/tmp"});
  if (paths.tmpDir && tmpDirIsUsable(*paths.tmpDir, paths.home)) add({"--bind", *paths.tmpDir, *paths.tmpDir});
  add({"--bind", paths.workDir, paths.workDir});
  for (const auto& folder : protectedFolders(paths.home)) add({"--ro-bind", folder, folder});
  for (const auto& path : paths.readOnly) add({"--ro-bind", path, path});
  for (const auto& socket : paths.doors.sockets) add({"--ro-bind", "/dev/null", socket});
  for (const auto& folder : paths.doors.folders) add({"--tmpfs", folder, "--remount-ro", folder});
  for (const char* variable : kDesktopVariables) add({"--unsetenv", variable});
  // bubblewrap means to cover /proc/sys but skips it when the folder itself
  // is not writable, which it never is; yet a command run by root could then
  // write kernel settings such as core_pattern and run anything outside.
  add({"--ro-bind", "/proc/sys", "/proc/sys"});

  // A new user namespace without capabilities and without the right to make
  // another: nothing inside can remount, unmount or reach other processes'
  // /proc/<pid>/root. No PID namespace, so a background process that keeps
  // standard output open outlives the shell, as callers expect.
  add({"--unshare-user", "--disable-userns", "--cap-drop", "ALL", "--new-session", "--die-with-parent"});
  // Also the only way to close abstract sockets, such as X11's.
  if (!paths.network) add({"--unshare-net"});
  if (statusFd >= 0) add({"--json-status-fd", std::to_string(statusFd)});
  add({"--chdir", paths.workDir, "--", kSandboxShell, "-lc", command});
  return args;
}
