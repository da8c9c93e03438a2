#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

// The write end of a child's standard input (non-blocking underneath).
// Writers and the closer may be on different threads: the descriptor is
// closed only once no write is using it, so a late write can never land in a
// descriptor number that was reused. Closing ends a write that waits for
// room at once, even when something else still holds the pipe's read end.
class PipeWriter {
 public:
  explicit PipeWriter(int fd);
  ~PipeWriter();
  PipeWriter(const PipeWriter&) = delete;
  PipeWriter& operator=(const PipeWriter&) = delete;

  // Writes every byte, waiting while the pipe is full. False with the reason
  // when the pipe was closed on either side, close() included. The calling
  // thread must have SIGPIPE blocked or ignored.
  bool writeAll(std::string_view bytes, std::string* error);
  // Writes what fits without waiting: the number of bytes written, or -1
  // with the reason when the pipe was closed on either side.
  ssize_t writeSome(std::string_view bytes, std::string* error);
  void close();

 private:
  int acquire(std::string* error);
  void release();

  std::mutex mutex_;
  int fd_;
  int closed_;  // eventfd: readable once close() was called
  int users_ = 0;
  bool closeRequested_ = false;
};

struct SpawnRequest {
  std::string executable;               // absolute path, also argv[0]
  std::vector<std::string> args;        // after argv[0]
  std::vector<std::string> environment; // "NAME=value" entries
  std::string workingDirectory;         // empty: the caller's
};

// One child process with three pipes, in a session (and so a process group)
// of its own so that a tree (npx → npm → sh → node) ends as a whole. The child gets SIGKILL if
// the spawning thread dies, so spawn from a thread that lives as long as the
// child may (the main thread). A watcher thread per child drains standard
// error all the time, reaps the child, and carries out terminate():
// SIGTERM to the group, SIGKILL to whatever is left of it 2 s later. The
// watcher is a thread of its own, not a pool's: it lives as long as the
// child, and it must go on while the main thread waits at quit.
class ChildProcess : public std::enable_shared_from_this<ChildProcess> {
 public:
  // Called once on the watcher thread with everything the child wrote to
  // standard error, when that pipe closes (normally at exit).
  using StderrSink = std::function<void(std::string text)>;

  // nullptr with error set ("<path>: <reason>") when the launch fails.
  static std::shared_ptr<ChildProcess> spawn(const SpawnRequest& request, StderrSink stderrSink,
                                             std::string* error);

  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  std::shared_ptr<PipeWriter> stdinWriter() const { return stdin_; }
  // Hands the read end of standard output to its one reader, which closes it.
  int takeStdout();
  // Readable (for poll) from the moment terminate() was called.
  int terminateEventFd() const { return stopEvent_; }
  bool terminateRequested() const { return terminating_.load(); }

  // Closes standard input and ends the group as described above; only the
  // first call acts. Returns at once.
  void terminate();

  // Blocks until the child was reaped or the time ran out; true if reaped.
  bool waitUntilReaped(double seconds);
  // Blocks until the child itself ended (it may be kept unreaped while other
  // members of its group live on) or the time ran out; true if it ended.
  bool waitUntilExited(double seconds);
  // Blocks until the watcher is done: the child reaped and everything it
  // wrote to standard error handed to the sink. True if done in time.
  bool waitUntilFinished(double seconds);
  bool reaped() const;
  // Exit status as waitpid reports it; meaningful once reaped.
  int waitStatus() const;

  // Exposed for tests: whether some process other than a zombie is in the group.
  static bool groupHasLiveMembers(pid_t pgid);

 private:
  struct Watcher;

  ChildProcess() = default;
  // False with the reason when no watcher thread could be started; the
  // child is then killed and reaped.
  bool startWatcher(std::string* reason);
  void markExited();
  void markReaped(int status);
  void markFinished();
  bool waitFor(double seconds, const bool& flag);

  pid_t pid_ = -1;
  int pidFd_ = -1;
  int stdout_ = -1;
  int stderr_ = -1;
  int stopEvent_ = -1;
  std::shared_ptr<PipeWriter> stdin_;
  StderrSink stderrSink_;
  std::atomic<bool> terminating_{false};

  // The watcher's progress, for the waits above.
  mutable std::mutex stateMutex_;
  std::condition_variable stateChanged_;
  bool exited_ = false;
  bool reaped_ = false;
  bool finished_ = false;
  int status_ = 0;
};
