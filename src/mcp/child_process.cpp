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
#include <utility>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

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

// A descriptor that is closed when it goes out of scope unless released.
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  ~OwnedFd() { reset(); }
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  OwnedFd& operator=(int fd) {
    reset();
    fd_ = fd;
    return *this;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset() { closeFd(fd_); }

 private:
  int fd_ = -1;
};

struct Pipe {
  OwnedFd read, write;
};

// False with errno set.
bool makePipe(Pipe& pipe) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  bool lifted = liftAbove2(fds[0]) && liftAbove2(fds[1]);
  pipe.read = fds[0];
  pipe.write = fds[1];
  return lifted;
}

// Standard input, output and error, the pipe on which the child reports a
// failed exec (it closes on exec), and the event that asks the watcher to
// end the group.
struct ChildPipes {
  Pipe in, out, err, report;
  OwnedFd stopEvent;

  // 0, or the errno of what failed.
  int open() {
    if (!makePipe(in) || !makePipe(out) || !makePipe(err) || !makePipe(report)) return errno;
    stopEvent = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return stopEvent.get() < 0 ? errno : 0;
  }
  // The parent keeps none of the child's ends.
  void closeChildEnds() {
    in.read.reset();
    out.write.reset();
    err.write.reset();
    report.write.reset();
  }
};

// argv and the environment as execve takes them, built before fork: after
// it, the child may not allocate.
struct ExecImage {
  std::vector<std::string> argvStrings, envStrings;
  std::vector<char*> argv, envp;

  explicit ExecImage(const SpawnRequest& request) : envStrings(request.environment) {
    argvStrings.reserve(request.args.size() + 1);
    argvStrings.push_back(request.executable);
    argvStrings.insert(argvStrings.end(), request.args.begin(), request.args.end());
    for (auto& s : argvStrings) argv.push_back(s.data());
    argv.push_back(nullptr);
    for (auto& s : envStrings) envp.push_back(s.data());
    envp.push_back(nullptr);
  }
};

int waitForExit(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
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

// Forks the child, which execs the request; the app's signal handlers are
// held off until then. The pid, or -1 with errno set.
pid_t forkChild(const SpawnRequest& request, ExecImage& image, ChildPipes& pipes) {
  sigset_t all, saved;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &saved);
  pid_t parent = getpid();
  pid_t pid = fork();
  if (pid == 0)
    execChild(parent, pipes.in.read.get(), pipes.out.write.get(), pipes.err.write.get(), pipes.report.write.get(),
              request.workingDirectory.c_str(), request.executable.c_str(), image.argv.data(), image.envp.data());
  int forkErr = errno;
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  errno = forkErr;
  return pid;
}

// 0 once the child has exec'd (the report pipe closed empty), else the
// errno it reported (EIO when the pipe could not be read).
int awaitExec(OwnedFd& report) {
  int childErr = 0;
  ssize_t n;
  do n = read(report.get(), &childErr, sizeof childErr);
  while (n < 0 && errno == EINTR);
  report.reset();
  if (n == 0) return 0;
  return childErr ? childErr : EIO;
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

// The watcher thread's state while the child runs: which descriptors are
// still open, and the deadlines of a terminate in progress.
struct ChildProcess::Watcher {
  ChildProcess& child;
  std::string text;  // standard error so far
  bool errOpen;
  bool leaderExited = false, isReaped = false, stopping = false, killed = false;
  Clock::time_point killAt{}, lingerUntil{};

  void run() {
    while (!isReaped || errOpen) {
      if (!waitForEvents()) {
        // Cannot happen with valid descriptors; never leave the child unreaped.
        if (!isReaped) {
          if (stopping) killpg(child.pid_, SIGKILL);
          reap();
        }
        if (errOpen) finishStderr();
        break;
      }
      applyDeadlines();
    }
    child.markFinished();
  }

  // Waits for output, the leader's exit, a terminate request or the next
  // deadline, and takes in what came. False when poll itself failed.
  bool waitForEvents() {
    pollfd fds[3];
    int count = 0, errIdx = -1, pidIdx = -1, stopIdx = -1;
    if (errOpen) fds[errIdx = count++] = {child.stderr_, POLLIN, 0};
    if (!leaderExited) fds[pidIdx = count++] = {child.pidFd_, POLLIN, 0};
    if (!stopping) fds[stopIdx = count++] = {child.stopEvent_, POLLIN, 0};
    int r = poll(fds, static_cast<nfds_t>(count), nextTimeoutMs());
    if (r < 0) return errno == EINTR;
    if (r == 0) return true;
    if (errIdx >= 0 && fds[errIdx].revents) readStderr();
    if (stopIdx >= 0 && fds[stopIdx].revents) beginStopping();
    if (pidIdx >= 0 && fds[pidIdx].revents) {
      leaderExited = true;
      child.markExited();
    }
    return true;
  }

  // -1 (none) or the milliseconds until the nearest deadline.
  int nextTimeoutMs() const {
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
    return timeout;
  }

  void readStderr() {
    char buf[65536];
    ssize_t n = read(child.stderr_, buf, sizeof buf);
    if (n > 0) {
      if (text.size() < kStderrKeep) text.append(buf, std::min<size_t>(n, kStderrKeep - text.size()));
    } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
      finishStderr();
    }
  }

  void beginStopping() {
    stopping = true;
    killAt = Clock::now() + kKillGrace;
    if (!isReaped) killpg(child.pid_, SIGTERM);
  }

  void applyDeadlines() {
    auto now = Clock::now();
    if (stopping && !killed && now >= killAt) {
      // The leader is not reaped yet, so the group id cannot have been reused.
      if (!isReaped) killpg(child.pid_, SIGKILL);
      killed = true;
    }
    // An unreaped leader keeps its id, and so the group's, reserved; it is
    // reaped once nothing else is left to signal. A leader that died on its
    // own with members left waits (as a zombie) for terminate().
    if (leaderExited && !isReaped && (killed || !groupHasLiveMembers(child.pid_))) reap();
    if (isReaped && errOpen && now >= lingerUntil) finishStderr();
  }

  void reap() {
    int status = waitForExit(child.pid_);
    isReaped = true;
    lingerUntil = Clock::now() + kStderrLinger;
    child.markReaped(status);
  }

  void finishStderr() {
    closeFd(child.stderr_);
    errOpen = false;
    if (!text.empty() && child.stderrSink_) {
      try {
        child.stderrSink_(std::move(text));
      } catch (...) {
      }
    }
    text.clear();
  }
};


std::shared_ptr<ChildProcess> ChildProcess::spawn(const SpawnRequest& request, StderrSink stderrSink,
                                                  std::string* error) {
  auto fail = [&](int err) {
    if (error) *error = describeErrno(request.executable, err);
    return std::shared_ptr<ChildProcess>();
  };
  if (request.executable.empty() || request.executable[0] != '/') {
    if (error) *error = request.executable + ": not an absolute path";
    return nullptr;
  }

  ExecImage image(request);
  ChildPipes pipes;
  if (int err = pipes.open()) return fail(err);
  pid_t pid = forkChild(request, image, pipes);
  int forkErr = errno;
  pipes.closeChildEnds();
  if (pid < 0) return fail(forkErr);

  int execErr = awaitExec(pipes.report.read);
  int pidFd = execErr ? -1 : static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (execErr || pidFd < 0) {
    int why = execErr ? execErr : errno;
    if (!execErr) kill(pid, SIGKILL);  // exec'd, but cannot be watched
    waitForExit(pid);
    return fail(why ? why : EIO);
  }

  std::shared_ptr<ChildProcess> child(new ChildProcess());
  child->pid_ = pid;
  child->pidFd_ = pidFd;
  child->stdout_ = pipes.out.read.release();
  child->stderr_ = pipes.err.read.release();
  child->stopEvent_ = pipes.stopEvent.release();
  child->stdin_ = std::make_shared<PipeWriter>(pipes.in.write.release());
  child->stderrSink_ = std::move(stderrSink);
  std::string reason;
  if (child->startWatcher(&reason)) return child;
  if (error) *error = request.executable + ": " + reason;
  return nullptr;
}

bool ChildProcess::startWatcher(std::string* reason) {
  // The watcher keeps the object alive until the child is reaped.
  try {
    std::thread([self = shared_from_this()] { Watcher{*self, {}, self->stderr_ >= 0}.run(); }).detach();
    return true;
  } catch (const std::exception& e) {
    kill(pid_, SIGKILL);
    markReaped(waitForExit(pid_));
    *reason = e.what();
    return false;
  }
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
  std::lock_guard lock(stateMutex_);
  return reaped_;
}

int ChildProcess::waitStatus() const {
  std::lock_guard lock(stateMutex_);
  return status_;
}

bool ChildProcess::waitFor(double seconds, const bool& flag) {
  std::unique_lock lock(stateMutex_);
  return stateChanged_.wait_for(lock, std::chrono::duration<double>(seconds), [&flag] { return flag; });
}

bool ChildProcess::waitUntilReaped(double seconds) { return waitFor(seconds, reaped_); }
bool ChildProcess::waitUntilExited(double seconds) { return waitFor(seconds, exited_); }
bool ChildProcess::waitUntilFinished(double seconds) { return waitFor(seconds, finished_); }

void ChildProcess::markExited() {
  {
    std::lock_guard lock(stateMutex_);
    exited_ = true;
  }
  stateChanged_.notify_all();
}

void ChildProcess::markReaped(int status) {
  {
    std::lock_guard lock(stateMutex_);
    exited_ = true;
    reaped_ = true;
    status_ = status;
  }
  stateChanged_.notify_all();
}

void ChildProcess::markFinished() {
  {
    std::lock_guard lock(stateMutex_);
    finished_ = true;
  }
  stateChanged_.notify_all();
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
