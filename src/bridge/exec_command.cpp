#include "bridge/exec_command.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <thread>
#include <utility>

#include "base/main_thread.h"
#include "base/paths.h"
#include "base/settings.h"
#include "base/text.h"
#include "update/bundle_search.h"

namespace {

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

std::string errnoText(const std::string& what, int err) { return what + ": " + g_strerror(err); }

std::optional<std::string> realPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  if (!resolved) return std::nullopt;
  std::string out(resolved);
  free(resolved);
  return out;
}

std::optional<std::string> userHome(const std::string& name) {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found || !found->pw_dir)
    return std::nullopt;
  return std::string(found->pw_dir);
}

// Names seen per inode inside the protected folders, to compare with the
// inode's link count.
struct LinkCensus {
  std::map<std::pair<dev_t, ino_t>, nlink_t> seen;
  std::map<std::pair<dev_t, ino_t>, std::pair<nlink_t, std::string>> linked;  // nlink > 1
  std::vector<std::string> symlinks;
  size_t entries = 0;
};

constexpr size_t kMaxCensusEntries = 20000;
constexpr int kMaxCensusDepth = 32;

// False when the folder holds more than the census is willing to look at.
bool takeCensus(int dirFd, const std::string& path, int depth, LinkCensus& census) {
  DIR* dir = fdopendir(dirFd);
  if (!dir) {
    close(dirFd);
    return true;  // unreadable: nothing we could list is in there
  }
  bool complete = true;
  while (dirent* entry = readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    if (++census.entries > kMaxCensusEntries) {
      complete = false;
      break;
    }
    struct stat st {};
    if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    std::string child = joinPath(path, entry->d_name);
    if (S_ISDIR(st.st_mode)) {
      if (depth >= kMaxCensusDepth) {
        complete = false;
        break;
      }
      int childFd = openat(dirfd(dir), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (childFd >= 0 && !takeCensus(childFd, child, depth + 1, census)) {
        complete = false;
        break;
      }
      continue;
    }
    if (S_ISLNK(st.st_mode)) {
      census.symlinks.push_back(child);
      continue;
    }
    if (st.st_nlink <= 1) continue;
    auto key = std::make_pair(st.st_dev, st.st_ino);
    ++census.seen[key];
    census.linked.emplace(key, std::make_pair(st.st_nlink, child));
  }
  closedir(dir);
  return complete;
}

std::optional<std::string> prepareFolder(const std::string& folder) {
  struct stat st {};
  if (lstat(folder.c_str(), &st) != 0) {
    if (errno != ENOENT) return errnoText(folder, errno);
    // Created here so that it exists to be mounted read-only; otherwise the
    // command could create it and put keys or configuration in it.
    if (g_mkdir_with_parents(folder.c_str(), 0700) != 0) return errnoText("cannot create " + folder, errno);
    if (lstat(folder.c_str(), &st) != 0) return errnoText(folder, errno);
  }
  if (S_ISLNK(st.st_mode))
    return "exec refused: " + folder +
           " is a symbolic link, which a command could replace; make it a real folder to run commands";
  return std::nullopt;
}

void appendAvailable(int fd, std::string& to) {
  char buffer[65536];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n > 0) {
      to.append(buffer, static_cast<size_t>(n));
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    return;
  }
}

// Reads both pipes until both are at end of file. A writer that fills one
// pipe while we would be blocked on the other can never stall. Past the
// limit a stream is still read, so that its writer is never blocked, but
// what it says is dropped: a command such as `yes` must not grow the app.
void drainBoth(int outFd, int errFd, ChildRun& run) {
  pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
  std::string* sinks[2] = {&run.out, &run.err};
  bool* cut[2] = {&run.outCut, &run.errCut};
  char buffer[65536];
  int open = 2;
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        const size_t room = kExecOutputLimit - std::min(sinks[i]->size(), kExecOutputLimit);
        sinks[i]->append(buffer, std::min(static_cast<size_t>(n), room));
        if (static_cast<size_t>(n) > room) *cut[i] = true;
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        fds[i].fd = -1;  // poll skips negative descriptors
        --open;
      }
    }
  }
}

// A cut can fall inside a character; what came before it is still text.
void dropPartialCharacter(std::string& text) {
  size_t start = text.size();
  for (size_t back = 0; back < 4 && start > 0; ++back) {
    auto c = static_cast<unsigned char>(text[start - 1]);
    if ((c & 0xC0) != 0x80) {
      size_t need = c < 0x80 ? 1 : c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
      if (text.size() - (start - 1) < need) text.resize(start - 1);
      return;
    }
    --start;
  }
}

int waitForExit(pid_t pid, bool* signaled) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  *signaled = WIFSIGNALED(status);
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return WTERMSIG(status);
  return -1;
}

// A pipe whose ends are never 0-2 (so they cannot collide with the child's
// standard descriptors or with descriptor 3) and never leak into other
// children spawned meanwhile by other threads.
bool makePipe(Fd& readEnd, Fd& writeEnd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  for (int& fd : fds) {
    if (fd <= 3) {
      int moved = fcntl(fd, F_DUPFD_CLOEXEC, 10);
      close(fd);
      if (moved < 0) {
        close(fds[0] == fd ? fds[1] : fds[0]);
        return false;
      }
      fd = moved;
    }
  }
  readEnd.reset(fds[0]);
  writeEnd.reset(fds[1]);
  return true;
}

// The same wording as GLib's spawn errors, so a launch failure reads the
// same whichever way the child was started.
std::string launchError(const std::string& program, const std::string& cwd, int err) {
  struct stat st {};
  if (stat(cwd.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || access(cwd.c_str(), X_OK) != 0)
    return "Failed to change to directory \u201c" + cwd + "\u201d (" + g_strerror(err) + ")";
  return "Failed to execute child process \u201c" + program + "\u201d (" + g_strerror(err) + ")";
}

// statusFd, when >= 0, reaches the child as descriptor 3; nothing else
// beyond 0-2 does. posix_spawn starts the child without copying the app's
// (large) address space, which a fork would, and puts every signal back to
// its default: the app ignores SIGPIPE, and a command that inherited that
// would see "Broken pipe" errors where a shell user sees none.
ChildRun spawnAndCollect(const std::vector<std::string>& argv, const std::string& cwd, int statusFd,
                         bool* signaled) {
  ChildRun run;
  *signaled = false;
  for (const auto& arg : argv) {
    if (arg.find('\0') != std::string::npos) {
      run.error = "exec cannot pass a NUL character to the command";
      return run;
    }
  }
  if (cwd.find('\0') != std::string::npos) {
    run.error = "exec cannot use a working directory that contains a NUL character";
    return run;
  }
  Fd outRead, outWrite, errRead, errWrite;
  if (!makePipe(outRead, outWrite) || !makePipe(errRead, errWrite)) {
    run.error = errnoText("cannot create a pipe", errno);
    return run;
  }
  std::vector<char*> cargv;
  for (const auto& arg : argv) cargv.push_back(const_cast<char*>(arg.c_str()));
  cargv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  // A command that reads its input gets end of file, never the app's.
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, outWrite.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errWrite.get(), STDERR_FILENO);
  if (statusFd >= 0) posix_spawn_file_actions_adddup2(&actions, statusFd, 3);
  posix_spawn_file_actions_addclosefrom_np(&actions, statusFd >= 0 ? 4 : 3);
  posix_spawn_file_actions_addchdir_np(&actions, cwd.c_str());
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  pid_t pid = 0;
  int err = posix_spawn(&pid, cargv[0], &actions, &attr, cargv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  // Only the child may hold the write ends, or the reads would never end.
  outWrite.reset();
  errWrite.reset();
  if (err != 0) {
    run.error = launchError(argv[0], cwd, err);
    return run;
  }
  drainBoth(outRead.get(), errRead.get(), run);
  if (run.outCut) dropPartialCharacter(run.out);
  if (run.errCut) dropPartialCharacter(run.err);
  bool childSignaled = false;
  run.exitStatus = waitForExit(pid, &childSignaled);
  *signaled = childSignaled;
  run.launched = true;
  return run;
}

}  // namespace

std::string runtimeDir() {
  if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir && dir[0] == '/') return dir;
  std::string fallback = "/run/user/" + std::to_string(getuid());
  return access(fallback.c_str(), F_OK) == 0 ? fallback : std::string();
}

bool networkAllowed(const std::optional<Json>& config) {
  if (!config) return true;
  auto it = config->find("sandboxNetwork");
  return it == config->end() || !it->is_boolean() || it->get<bool>();
}

std::string expandTilde(const std::string& path, const std::string& home) {
  if (path.empty() || path[0] != '~') return path;
  size_t slash = path.find('/');
  std::string user = path.substr(1, slash == std::string::npos ? std::string::npos : slash - 1);
  std::string rest = slash == std::string::npos ? "" : path.substr(slash);
  if (user.empty()) return home + rest;
  if (auto other = userHome(user)) return *other + rest;
  return path;
}

std::string resolveWorkDir(const std::string& dir, const std::string& home) {
  std::string expanded = expandTilde(dir, home);
  if (expanded.find('\0') != std::string::npos) return expanded;
  return realPath(expanded).value_or(expanded);
}

std::optional<std::string> prepareProtectedFolders(const std::string& home, std::vector<std::string>& binds) {
  const auto folders = protectedFolders(home);
  for (const auto& folder : folders)
    if (auto refusal = prepareFolder(folder)) return refusal;

  LinkCensus census;
  for (const auto& folder : folders) {
    int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) continue;  // not a folder (a plain file is mounted read-only as it is)
    if (!takeCensus(fd, folder, 0, census))
      return "exec refused: " + folder + " holds too many files to check them for hard links";
  }
  for (const auto& [key, info] : census.linked) {
    if (census.seen[key] < info.first)
      return "exec refused: " + info.second +
             " has a hard link outside the protected folders, through which a command could change it";
  }
  // A dotfile manager's ~/.ssh/config -> ~/dotfiles/ssh/config: the link
  // cannot change, but its target would be writable.
  for (const auto& link : census.symlinks) {
    auto target = realPath(link);
    if (!target)
      return "exec refused: " + link + " points to something that does not exist, which a command could create";
    bool inside = std::any_of(folders.begin(), folders.end(),
                              [&](const std::string& folder) { return isSameOrInside(*target, folder); });
    if (!inside && std::find(binds.begin(), binds.end(), *target) == binds.end()) binds.push_back(*target);
  }
  return std::nullopt;
}

std::optional<std::string> prepareReadOnlyPaths(const ReadOnlyPlan& plan, std::vector<std::string>& binds) {
  for (const auto& folder : plan.folders) {
    if (auto refusal = prepareFolder(folder)) return refusal;
    binds.push_back(realPath(folder).value_or(folder));
  }
  for (const auto& path : plan.ifPresent) {
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) continue;  // nothing there to protect
    if (S_ISLNK(st.st_mode))
      return "exec refused: " + path +
             " is a symbolic link, which a command could replace; make it a real file or folder to run commands";
    if (!S_ISDIR(st.st_mode) && st.st_nlink > 1)
      return "exec refused: " + path + " has a hard link elsewhere, through which a command could change it";
    binds.push_back(realPath(path).value_or(path));
  }
  return std::nullopt;
}

ReadOnlyPlan currentReadOnlyPlan(const std::string& home, const std::optional<Json>& config) {
  std::string configHome = joinPath(home, ".config");
  if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') configHome = realPath(xdg).value_or(xdg);
  std::error_code ignored;
  auto appDir = ondrelBundleOfExecutable(std::filesystem::read_symlink("/proc/self/exe", ignored).string());
  std::vector<std::string> userPaths;
  for (const auto& entry : userReadOnlyEntries(config)) userPaths.push_back(expandTilde(entry, home));
  return readOnlyPlan(home, configHome, appDir, userPaths);
}

Json execResultValue(ChildRun&& run) {
  Json value = Json::object();
  value["exit"] = run.exitStatus;
  value["stdout"] = isValidUtf8(run.out) ? std::move(run.out) : std::string();
  value["stderr"] = isValidUtf8(run.err) ? std::move(run.err) : std::string();
  if (run.outCut || run.errCut) {
    Json cut = Json::array();
    if (run.outCut) cut.push_back("stdout");
    if (run.errCut) cut.push_back("stderr");
    value["truncated"] = std::move(cut);
  }
  return value;
}

ChildRun runChild(const std::vector<std::string>& argv, const std::string& cwd) {
  bool signaled = false;
  return spawnAndCollect(argv, cwd, -1, &signaled);
}

ChildRun runSandboxed(const SandboxPaths& paths, const std::string& command) {
  Fd statusRead, statusWrite;
  if (!makePipe(statusRead, statusWrite)) {
    ChildRun run;
    run.error = errnoText("cannot create a pipe", errno);
    return run;
  }
  bool signaled = false;
  ChildRun run = spawnAndCollect(buildSandboxArgs(paths, command, 3), paths.workDir, statusWrite.get(), &signaled);
  statusWrite.reset();
  if (!run.launched) return run;

  // bubblewrap has exited, so whatever it wrote is waiting in the pipe; a
  // non-blocking read cannot hang on a writer that never closes.
  fcntl(statusRead.get(), F_SETFL, O_NONBLOCK);
  std::string report;
  appendAvailable(statusRead.get(), report);
  // "exit-code" is written only once the command itself was executed; a
  // bubblewrap that was killed never got to say anything.
  if (report.find("\"exit-code\"") == std::string::npos && !signaled) {
    run.launched = false;
    std::string text = run.err;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    run.error = text.empty() ? "the sandbox could not be set up" : text;
  }
  return run;
}

void execCommand(const Json& args, ExecReply reply) {
  // The directory is checked too: a non-string would otherwise be read as
  // some arbitrary text.
  if (!args.is_array() || args.size() < 2 || !args[0].is_string() || !args[1].is_string()) {
    reply(false, kExecUsage);
    return;
  }
  const std::string home = ondrelHomeDir();
  SandboxPaths paths;
  paths.home = realPath(home).value_or(home);
  paths.workDir = resolveWorkDir(args[0].get<std::string>(), home);
  if (const char* tmp = std::getenv("TMPDIR"); tmp && *tmp) paths.tmpDir = realPath(tmp);
  std::string command = args[1].get<std::string>();

  auto shared = std::make_shared<ExecReply>(std::move(reply));
  auto work = [paths = std::move(paths), command = std::move(command), shared]() mutable {
    bool ok = false;
    Json value;
    try {
      const auto config = ondrelReadConfig();
      auto refusal = prepareProtectedFolders(paths.home, paths.readOnly);
      if (!refusal) refusal = prepareReadOnlyPaths(currentReadOnlyPlan(paths.home, config), paths.readOnly);
      paths.doors = findDesktopDoors(runtimeDir(), std::getenv("DBUS_SESSION_BUS_ADDRESS") ?: "");
      paths.network = networkAllowed(config);
      if (refusal) {
        value = *refusal;
      } else {
        ChildRun run = runSandboxed(paths, command);
        ok = run.launched;
        value = ok ? execResultValue(std::move(run)) : Json(run.error);
      }
    } catch (const std::exception& e) {
      ok = false;
      value = std::string("exec failed: ") + e.what();
    }
    // Failure texts quote paths and bubblewrap's messages, which need not be
    // UTF-8; the reply must be valid JSON text.
    if (value.is_string() && !isValidUtf8(value.get_ref<const std::string&>())) {
      const auto& text = value.get_ref<const std::string&>();
      g_autofree gchar* valid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
      value = std::string(valid);
    }
    runOnMain([shared, ok, value = std::move(value)] { (*shared)(ok, value); });
  };
  try {
    // Detached: the thread ends when its child has been reaped, and it must
    // live that long because bubblewrap's --die-with-parent follows it.
    std::thread(std::move(work)).detach();
  } catch (const std::system_error& e) {
    (*shared)(false, std::string("exec failed: ") + e.what());
  }
}
