// McpTask: the server's child process, its output reader and its end.

#include "mcp/mcp_task.h"

#include <glib.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <thread>

#include "base/log.h"
#include "base/main_thread.h"
#include "base/paths.h"
#include "mcp/child_process.h"
#include "mcp/line_buffer.h"
#include "mcp/log_rate_limit.h"
#include "mcp/mcp_finish.h"
#include "mcp/serial_queue.h"
#include "mcp/shell_path.h"

extern char** environ;

namespace {

std::string passwdShell() {
  long size = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::string buf(size > 0 ? static_cast<size_t>(size) : 16384, '\0');
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buf.data(), buf.size(), &found) != 0 || !found || !found->pw_shell) return {};
  return found->pw_shell;
}

// A server's notifications reach the log at this pace at most; a burst of
// progress messages passes, a flood is counted instead.
constexpr double kNotesPerSecond = 5;
constexpr double kNoteBurst = 20;
constexpr double kNoteReportAfter = 1;

double steadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::string validUtf8(const std::string& bytes) {
  g_autofree gchar* valid = g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size()));
  return valid;
}

}  // namespace

std::optional<std::string> McpServerContext::shellDerivedPath() {
  std::call_once(shellProbed_, [this] {
    try {
      std::string pw = passwdShell();
      std::string shell = ondrelLoginShell(g_getenv("SHELL"), pw.c_str());
      auto path = ondrelProbeShellPath(shell);
      if (!path) return;
      shellPath_ = path;
      logLine("[MCP] using shell PATH from " + shell + " (" + std::to_string(ondrelSplit(*path, ':').size()) +
              " entries)");
    } catch (...) {
      // No shell PATH; the other directories still apply.
    }
  });
  return shellPath_;
}

std::vector<std::string> McpServerContext::searchDirs() {
  return ondrelSearchDirs(shellDerivedPath(), g_getenv("PATH"), ondrelHomeDir());
}

std::optional<std::string> McpServerContext::resolveExecutable(const std::string& command) {
  if (command.empty()) return std::nullopt;
  if (command[0] == '/') return ondrelResolveIn(command, {});
  return ondrelResolveIn(command, searchDirs());
}

std::shared_ptr<McpTask> McpTask::create(std::shared_ptr<McpServerContext> context, std::string name,
                                         std::string command, std::vector<std::string> args,
                                         std::map<std::string, std::string> env) {
  return std::shared_ptr<McpTask>(
      new McpTask(std::move(context), std::move(name), std::move(command), std::move(args), std::move(env)));
}

McpTask::McpTask(std::shared_ptr<McpServerContext> context, std::string name, std::string command,
                 std::vector<std::string> args, std::map<std::string, std::string> env)
    : _context(std::move(context)),
      _command(std::move(command)),
      _args(std::move(args)),
      _env(std::move(env)),
      _writeQueue(std::make_unique<SerialQueue>()),
      _name(std::move(name)) {}

McpTask::~McpTask() {
  // A server that is let go without stop() must not run on unowned.
  stop();
  _writeQueue->close();
}

bool McpTask::isRunning() const {
  std::lock_guard lock(_lock);
  return _task && !_died;
}

std::shared_ptr<ChildProcess> McpTask::child() const {
  std::lock_guard lock(_lock);
  return _task;
}

std::string McpTask::standardError() const {
  std::lock_guard lock(_lock);
  return _standardError;
}

void McpTask::start() {
  if (child()) return;
  auto fail = [this](const std::string& reason) {
    _launchFailure = reason;
    logLine("[MCP " + _name + "] " + reason);
  };
  _launchFailure.clear();
  auto resolved = _context->resolveExecutable(_command);
  if (!resolved) {
    fail("command not found: " + _command);
    return;
  }

  SpawnRequest request;
  request.executable = *resolved;
  request.args = _args;
  request.workingDirectory = ondrelHomeDir();
  request.environment = launchEnvironment();
  {
    std::lock_guard lock(_lock);
    _standardError.clear();
  }
  std::string error;
  auto child = ChildProcess::spawn(request, standardErrorSink(), &error);
  if (!child) {
    fail("launch failed: " + error);
    return;
  }
  if (!adopt(child)) {
    fail("launch failed: no thread for its output");
    stop();
    return;
  }

  std::string joined;
  for (size_t i = 0; i < _args.size(); ++i) joined += (i ? " " : "") + _args[i];
  logLine("[MCP " + _name + "] started " + *resolved + " " + joined);
}

std::vector<std::string> McpTask::launchEnvironment() {
  // A configured PATH is taken as it is; otherwise the search list comes
  // first so the server finds the same tools (node for npx, python for uvx)
  // that its own command was found with.
  std::vector<std::pair<std::string, std::string>> env;
  for (char** e = environ; e && *e; ++e) {
    std::string entry = *e;
    size_t eq = entry.find('=');
    if (eq == std::string::npos) continue;
    env.emplace_back(entry.substr(0, eq), entry.substr(eq + 1));
  }
  auto set = [&env](const std::string& key, const std::string& value) {
    for (auto& [k, v] : env)
      if (k == key) {
        v = value;
        return;
      }
    env.emplace_back(key, value);
  };
  for (const auto& [key, value] : _env) set(key, value);
  if (!_env.count("PATH")) {
    std::string path;
    for (const auto& dir : _context->searchDirs()) path += (path.empty() ? "" : ":") + dir;
    const char* inherited = g_getenv("PATH");
    if (inherited && *inherited) path += std::string(":") + inherited;
    set("PATH", path);
  }
  std::vector<std::string> entries;
  for (const auto& [key, value] : env) entries.push_back(key + "=" + value);
  return entries;
}

std::function<void(std::string)> McpTask::standardErrorSink() {
  // Logged from the watcher thread (the log hops to the main thread for
  // the panel itself): at quit the main loop no longer runs, and what a
  // server said on its way out must still reach the system log.
  return [name = _name, weak = weak_from_this()](std::string text) {
    std::string said = validUtf8(text);
    logLine("[MCP " + name + "] stderr: " + said);
    if (auto self = weak.lock()) {
      std::lock_guard lock(self->_lock);
      self->_standardError = std::move(said);
    }
  };
}

bool McpTask::adopt(const std::shared_ptr<ChildProcess>& child) {
  // Nothing is pending here: requests are only entered while a child runs,
  // and its end (stop or exit) answers them all.
  {
    std::lock_guard lock(_lock);
    _task = child;
    _stdin = child->stdinWriter();
    _died = false;
    _stopMessage.clear();
  }
  _ready = false;
  _stopped = false;
  _tools.reset();

  // A thread of its own rather than a pool's: it waits on the server's
  // output for the server's whole life.
  int out = child->takeStdout();
  try {
    std::thread(&McpTask::readLoop, weak_from_this(), _name, out, _limits.outputLine, child).detach();
    return true;
  } catch (...) {
    ::close(out);
    return false;
  }
}

namespace {

// The reader thread's side of one server's standard output: splits it into
// lines, hands each to the server object while one exists, and keeps the
// log of its notifications within bounds.
class OutputReader {
 public:
  OutputReader(std::weak_ptr<McpTask> weak, std::string name, size_t maxLine)
      : weak_(std::move(weak)), name_(std::move(name)), maxLine_(maxLine), buffer_(maxLine) {}

  // Reads until end of file, a read error, a terminate request or the
  // server object is gone; then hands over what is left.
  void run(int fd, ChildProcess& child) {
    while (!gone_ && !child.terminateRequested()) {
      pollfd fds[2] = {{fd, POLLIN, 0}, {child.terminateEventFd(), POLLIN, 0}};
      int r = poll(fds, 2, nextReportMs());
      if (r < 0) {
        if (errno == EINTR) continue;
        break;
      }
      // A flood that has ended is still owed its count.
      reportHeldBack(notes_.takeDue(steadySeconds()));
      if (fds[1].revents) break;
      if (fds[0].revents && !readChunk(fd)) break;
    }
    std::string rest = buffer_.takeRest();
    if (!rest.empty()) deliver(rest);
    reportHeldBack(notes_.takeAll());
  }

 private:
  // -1, or the milliseconds until held-back notifications are to be counted.
  int nextReportMs() {
    auto due = notes_.due();
    if (!due) return -1;
    return static_cast<int>(std::clamp(std::ceil((*due - steadySeconds()) * 1000), 0.0, 60000.0));
  }

  // False at end of file or on a read error.
  bool readChunk(int fd) {
    char chunk[4096];
    ssize_t n = read(fd, chunk, sizeof chunk);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<size_t>(n), [this](std::string_view line) { deliver(line); });
    if (size_t dropped = buffer_.takeDropped())
      logLine("[MCP " + name_ + "] skipped " + std::to_string(dropped) + " output line(s) longer than " +
              std::to_string(maxLine_) + " bytes");
    return true;
  }

  void deliver(std::string_view line) {
    if (gone_) return;
    auto self = weak_.lock();
    if (!self) {
      gone_ = true;
      return;
    }
    try {
      auto note = self->processLine(line);
      if (!note) return;
      double now = steadySeconds();
      reportHeldBack(notes_.takeDue(now));
      if (notes_.admit(now)) logLine("[MCP " + name_ + "] " + abbreviateForLog(*note));
    } catch (...) {
      // A line that trips the parser or the allocator is dropped like any
      // other malformed line.
    }
  }

  void reportHeldBack(size_t count) {
    if (count)
      logLine("[MCP " + name_ + "] " + std::to_string(count) + " more notification(s) not logged: too many at once");
  }

  std::weak_ptr<McpTask> weak_;
  std::string name_;
  size_t maxLine_;
  LineBuffer buffer_;
  LogRateLimit notes_{kNotesPerSecond, kNoteBurst, kNoteReportAfter};
  bool gone_ = false;
};

}  // namespace

void McpTask::readLoop(std::weak_ptr<McpTask> weak, std::string name, int fd, size_t maxLine,
                       std::shared_ptr<ChildProcess> child) {
  pthread_setname_np(pthread_self(), "ondrel.mcp.read");
  if (weak.expired()) {
    ::close(fd);
    return;
  }
  // stop() ends the child's group; the terminate event ends the reading at
  // once, even when something outside the group still holds the pipe open.
  OutputReader(weak, name, maxLine).run(fd, *child);
  ::close(fd);
  if (child->terminateRequested()) return;
  if (auto self = weak.lock()) self->handleChildExit();
}

void McpTask::handleChildExit() {
  logLine("[MCP " + _name + "] subprocess exited / closed stdout");
  std::map<int64_t, FinishPtr> moved;
  std::shared_ptr<PipeWriter> input;
  {
    std::lock_guard lock(_lock);
    _died = true;
    moved.swap(_pending);
    input = _stdin;
  }
  for (auto& [id, finish] : moved) finish->finish(clientError("MCP server '" + _name + "' exited unexpectedly"));
  if (input) input->close();
}

bool McpTask::stop(const std::string& outcome) {
  if (_stopped.exchange(true)) return false;
  std::string message = "MCP server '" + _name + "' " + outcome;
  std::shared_ptr<ChildProcess> child;
  std::shared_ptr<PipeWriter> input;
  std::map<int64_t, FinishPtr> outstanding;
  {
    std::lock_guard lock(_lock);
    child = std::move(_task);
    input = std::move(_stdin);
    outstanding.swap(_pending);
    _outbox.clear();
    _stopMessage = message;
  }
  if (child) child->terminate();
  if (input) input->close();
  for (auto& [id, finish] : outstanding) finish->finish(clientError(message));
  return true;
}
