#include "mcp/child_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <thread>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Reaped state of every child, and the count of those still unreaped, share
// one lock: waiting for one child and waiting for all use the same signal.
std::mutex gReapMutex;
std::condition_variable gReapChanged;
int gLiveChildren = 0;

constexpr auto kKillGrace = std::chrono::seconds(2);
// After the child is reaped, standard error can only be held open by a
// process that left the group; read what it still says for a moment, then
// let go.
constexpr auto kStderrLinger = std::chrono::milliseconds(200);
// While a terminated group still has members after its leader exited, look
// again this often until they are gone or the grace period ends.
constexpr int kGroupRecheckMs = 50;
// Standard error is kept for one log line at exit; past this it is still
// drained, but no longer kept.
constexpr size_t kStderrKeep = 8u << 20;

void closeFd(int& fd) {
  if (fd >= 0) ::close(fd);
  fd = -1;
}

// Moves a descriptor out of the 0..2 range, keeping close-on-exec, so the
// child's dup2 onto 0, 1 and 2 cannot overwrite a source it still needs.
bool liftAbove2(int& fd) {
  if (fd > 2) return true;
  int lifted = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (lifted < 0) return false;
  ::close(fd);
  fd = lifted;
  return true;
}

bool makePipe(int fds[2]) {
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  if (liftAbove2(fds[0]) && liftAbove2(fds[1])) return true;
  ::close(fds[0]);
  ::close(fds[1]);
  return false;
}

std::string describeErrno(const std::string& path, int err) { return path + ": " + std::strerror(err); }

// Runs in the forked child: only async-signal-safe calls from here on.
[[noreturn]] void execChild(pid_t parent, int in, int out, int err, int report, const char* dir, const char* path,
                            char* const* argv, char* const* envp) {
  // A session of its own: its own process group, and no controlling
  // terminal that an interactive shell could try to take (and be stopped for).
  setsid();
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The parent may have died between fork and prctl; then no signal comes.
  if (getppid() != parent) _exit(127);

  // Dispositions the app set (SIGPIPE ignored, GLib's handlers) must not
  // leak into the server; ignored signals survive exec otherwise.
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  for (int sig = 1; sig < NSIG; ++sig) sigaction(sig, &dfl, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  int fail = 0;
  if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) fail = errno;
  if (!fail && dir && *dir && chdir(dir) != 0) fail = errno;
  if (!fail) {
    // Descriptors the rest of the app opened without close-on-exec (GTK,
    // WebKit, other children's pipes) must not reach the server.
    if (syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
      for (int fd = 3; fd < 65536; ++fd) fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    execve(path, argv, envp);
    fail = errno;
  }
  ssize_t ignored = write(report, &fail, sizeof fail);
  (void)ignored;
  _exit(127);
}

}  // namespace

// ---- PipeWriter ----

PipeWriter::PipeWriter(int fd) : fd_(fd), closed_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  // Non-blocking, so the main thread can write what fits without ever
  // waiting on a server that stopped reading; writeAll waits in poll.
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
}

PipeWriter::~PipeWriter() {
  if (fd_ >= 0) ::close(fd_);
  if (closed_ >= 0) ::close(closed_);
}

int PipeWriter::acquire(std::string* error) {
  std::lock_guard lock(mutex_);
  if (fd_ < 0 || closeRequested_) {
    if (error) *error = "standard input is closed";
    return -1;
  }
  ++users_;
  return fd_;
}

void PipeWriter::release() {
  std::lock_guard lock(mutex_);
  if (--users_ == 0 && closeRequested_ && fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

ssize_t PipeWriter::writeSome(std::string_view bytes, std::string* error) {
  int fd = acquire(error);
  if (fd < 0) return -1;
  size_t done = 0;
  ssize_t result = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else if (n < 0 && errno == EAGAIN) {
      break;
    } else {
      if (error) *error = std::strerror(n < 0 ? errno : EIO);
      result = -1;
      break;
    }
  }
  release();
  return result < 0 ? -1 : static_cast<ssize_t>(done);
}

bool PipeWriter::writeAll(std::string_view bytes, std::string* error) {
  int fd = acquire(error);
  if (fd < 0) return false;
  bool ok = true;
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n > 0) {
      done += static_cast<size_t>(n);
    } else if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
      if (errno == EAGAIN) {
        // Full: wait until the server reads, is gone (which poll reports) or
        // is let go.
        pollfd p[2] = {{fd, POLLOUT, 0}, {closed_, POLLIN, 0}};
        while (poll(p, closed_ >= 0 ? 2 : 1, -1) < 0 && errno == EINTR) {
        }
        if (p[1].revents) {
          if (error) *error = "standard input is closed";
          ok = false;
          break;
        }
      }
    } else {
      if (error) *error = std::strerror(n < 0 ? errno : EIO);
      ok = false;
      break;
    }
  }
  release();
  return ok;
}

void PipeWriter::close() {
  std::lock_guard lock(mutex_);
  closeRequested_ = true;
  uint64_t one = 1;
  if (closed_ >= 0 && write(closed_, &one, sizeof one) < 0) {
    // Already signalled; the count only grows.
  }
  if (users_ == 0 && fd_ >= 0) {
    ::close(fd_);
    fd_ = -1;
  }
}

// ---- ChildProcess ----

std::shared_ptr<ChildProcess> ChildProcess::spawn(const SpawnRequest& request, StderrSink stderrSink,
                                                  std::string* error) {
  auto fail = [&](const std::string& text) {
    if (error) *error = text;
    return std::shared_ptr<ChildProcess>();
  };
  if (request.executable.empty() || request.executable[0] != '/')
    return fail(request.executable + ": not an absolute path");

  // Everything the child needs is built before fork: after it, no allocation.
  std::vector<std::string> argvStrings;
  argvStrings.reserve(request.args.size() + 1);
  argvStrings.push_back(request.executable);
  argvStrings.insert(argvStrings.end(), request.args.begin(), request.args.end());
  std::vector<char*> argv;
  for (auto& s : argvStrings) argv.push_back(s.data());
  argv.push_back(nullptr);
  std::vector<std::string> envStrings = request.environment;
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);

  int in[2], out[2], err[2], report[2];
  if (!makePipe(in)) return fail(describeErrno(request.executable, errno));
  if (!makePipe(out)) {
    int e = errno;
    ::close(in[0]), ::close(in[1]);
    return fail(describeErrno(request.executable, e));
  }
  if (!makePipe(err)) {
    int e = errno;
    ::close(in[0]), ::close(in[1]), ::close(out[0]), ::close(out[1]);
    return fail(describeErrno(request.executable, e));
  }
  if (!makePipe(report)) {
    int e = errno;
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) ::close(fd);
    return fail(describeErrno(request.executable, e));
  }
  int stopEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);

  // No signal handler of the app may run in the child before exec.
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &saved);
  pid_t parent = getpid();
  pid_t pid = stopEvent >= 0 ? fork() : -1;
  if (pid == 0)
    execChild(parent, in[0], out[1], err[1], report[1], request.workingDirectory.c_str(), request.executable.c_str(),
              argv.data(), envp.data());
  int forkErr = errno;
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);

  for (int fd : {in[0], out[1], err[1], report[1]}) ::close(fd);
  if (pid < 0) {
    for (int fd : {in[1], out[0], err[0], report[0]}) ::close(fd);
    if (stopEvent >= 0) ::close(stopEvent);
    return fail(describeErrno(request.executable, stopEvent < 0 ? errno : forkErr));
  }

  int childErr = 0;
  ssize_t n;
  do n = read(report[0], &childErr, sizeof childErr);
  while (n < 0 && errno == EINTR);
  ::close(report[0]);
  int pidFd = n == 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1;
  if (n != 0 || pidFd < 0) {
    int why = n != 0 ? childErr : errno;
    if (n == 0) kill(pid, SIGKILL);  // exec'd, but cannot be watched
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    for (int fd : {in[1], out[0], err[0], stopEvent}) ::close(fd);
    return fail(describeErrno(request.executable, why ? why : EIO));
  }

  std::shared_ptr<ChildProcess> child(new ChildProcess());
  child->pid_ = pid;
  child->pidFd_ = pidFd;
  child->stdout_ = out[0];
  child->stderr_ = err[0];
  child->stopEvent_ = stopEvent;
  child->stdin_ = std::make_shared<PipeWriter>(in[1]);
  child->stderrSink_ = std::move(stderrSink);
  {
    std::lock_guard lock(gReapMutex);
    ++gLiveChildren;
  }
  // The watcher keeps the object alive until the child is reaped.
  try {
    std::thread([child] { child->watch(); }).detach();
  } catch (const std::exception& e) {
    kill(pid, SIGKILL);
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    child->markReaped(status);
    return fail(request.executable + ": " + e.what());
  }
  return child;
}

ChildProcess::~ChildProcess() {
  closeFd(pidFd_);
  closeFd(stdout_);
  closeFd(stderr_);
  closeFd(stopEvent_);
}

int ChildProcess::takeStdout() {
  int fd = stdout_;
  stdout_ = -1;
  return fd;
}

void ChildProcess::terminate() {
  if (terminating_.exchange(true)) return;
  stdin_->close();
  // Signalling is left to the watcher: it alone reaps, so it alone knows the
  // group id still belongs to this child.
  uint64_t one = 1;
  ssize_t ignored = write(stopEvent_, &one, sizeof one);
  (void)ignored;
}

bool ChildProcess::reaped() const {
  std::lock_guard lock(gReapMutex);
  return reaped_;
}

int ChildProcess::waitStatus() const {
  std::lock_guard lock(gReapMutex);
  return status_;
}

bool ChildProcess::waitUntilReaped(double seconds) {
  std::unique_lock lock(gReapMutex);
  return gReapChanged.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return reaped_; });
}

bool ChildProcess::waitUntilExited(double seconds) {
  std::unique_lock lock(gReapMutex);
  return gReapChanged.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return exited_; });
}

bool ChildProcess::waitUntilFinished(double seconds) {
  std::unique_lock lock(gReapMutex);
  return gReapChanged.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return finished_; });
}

int ChildProcess::liveChildren() {
  std::lock_guard lock(gReapMutex);
  return gLiveChildren;
}

bool ChildProcess::waitForAllReaped(double seconds) {
  std::unique_lock lock(gReapMutex);
  return gReapChanged.wait_for(lock, std::chrono::duration<double>(seconds), [] { return gLiveChildren == 0; });
}

void ChildProcess::markExited() {
  {
    std::lock_guard lock(gReapMutex);
    exited_ = true;
  }
  gReapChanged.notify_all();
}

void ChildProcess::markReaped(int status) {
  {
    std::lock_guard lock(gReapMutex);
    exited_ = true;
    reaped_ = true;
    status_ = status;
    --gLiveChildren;
  }
  gReapChanged.notify_all();
}

bool ChildProcess::groupHasLiveMembers(pid_t pgid) {
  DIR* proc = opendir("/proc");
  if (!proc) return false;
  bool found = false;
  while (dirent* entry = readdir(proc)) {
    if (entry->d_name[0] < '1' || entry->d_name[0] > '9') continue;
    char path[300];
    std::snprintf(path, sizeof path, "/proc/%s/stat", entry->d_name);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    char buf[512];
    ssize_t n = read(fd, buf, sizeof buf - 1);
    ::close(fd);
    if (n <= 0) continue;
    buf[n] = '\0';
    // "pid (comm) state ppid pgrp ...": comm may hold anything, so parse
    // from the last ')'.
    const char* rest = std::strrchr(buf, ')');
    if (!rest) continue;
    char state = 0;
    int ppid = 0, pgrp = 0;
    if (std::sscanf(rest + 1, " %c %d %d", &state, &ppid, &pgrp) != 3) continue;
    if (pgrp == pgid && state != 'Z' && state != 'X') {
      found = true;
      break;
    }
  }
  closedir(proc);
  return found;
}

void ChildProcess::watch() {
  std::string text;
  bool errOpen = stderr_ >= 0;
  bool leaderExited = false, isReaped = false, stopping = false, killed = false;
  Clock::time_point killAt{}, lingerUntil{};

  auto finishStderr = [&] {
    closeFd(stderr_);
    errOpen = false;
    if (!text.empty() && stderrSink_) {
      try {
        stderrSink_(std::move(text));
      } catch (...) {
      }
    }
    text.clear();
  };
  auto reap = [&] {
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    isReaped = true;
    lingerUntil = Clock::now() + kStderrLinger;
    markReaped(status);
  };

  while (!isReaped || errOpen) {
    pollfd fds[3];
    int count = 0, errIdx = -1, pidIdx = -1, stopIdx = -1;
    if (errOpen) fds[errIdx = count++] = {stderr_, POLLIN, 0};
    if (!leaderExited) fds[pidIdx = count++] = {pidFd_, POLLIN, 0};
    if (!stopping) fds[stopIdx = count++] = {stopEvent_, POLLIN, 0};

    auto now = Clock::now();
    auto msUntil = [&](Clock::time_point t) {
      auto ms = std::chrono::ceil<std::chrono::milliseconds>(t - now).count();
      return static_cast<int>(std::max<long long>(0, ms));
    };
    int timeout = -1;
    auto lower = [&](int ms) { timeout = timeout < 0 ? ms : std::min(timeout, ms); };
    if (stopping && !killed) lower(msUntil(killAt));
    if (stopping && leaderExited && !isReaped) lower(kGroupRecheckMs);
    if (isReaped && errOpen) lower(msUntil(lingerUntil));

    int r = poll(fds, static_cast<nfds_t>(count), timeout);
    if (r < 0 && errno != EINTR) {
      // Cannot happen with valid descriptors; never leave the child unreaped.
      if (!isReaped) {
        if (stopping) killpg(pid_, SIGKILL);
        reap();
      }
      if (errOpen) finishStderr();
      break;
    }
    if (r > 0) {
      if (errIdx >= 0 && fds[errIdx].revents) {
        char buf[65536];
        ssize_t n = read(stderr_, buf, sizeof buf);
        if (n > 0) {
          if (text.size() < kStderrKeep) text.append(buf, std::min<size_t>(n, kStderrKeep - text.size()));
        } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
          finishStderr();
        }
      }
      if (stopIdx >= 0 && fds[stopIdx].revents) {
        stopping = true;
        killAt = Clock::now() + kKillGrace;
        if (!isReaped) killpg(pid_, SIGTERM);
      }
      if (pidIdx >= 0 && fds[pidIdx].revents) {
        leaderExited = true;
        markExited();
      }
    }

    now = Clock::now();
    if (stopping && !killed && now >= killAt) {
      // The leader is not reaped yet, so the group id cannot have been reused.
      if (!isReaped) killpg(pid_, SIGKILL);
      killed = true;
    }
    if (leaderExited && !isReaped) {
      // An unreaped leader keeps its id, and so the group's, reserved; it is
      // reaped once nothing else is left to signal. A leader that died on its
      // own with members left waits (as a zombie) for terminate().
      if (killed || !groupHasLiveMembers(pid_)) reap();
    }
    if (isReaped && errOpen && now >= lingerUntil) finishStderr();
  }
  {
    std::lock_guard lock(gReapMutex);
    finished_ = true;
  }
  gReapChanged.notify_all();
}
