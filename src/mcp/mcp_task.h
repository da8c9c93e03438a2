#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/json.h"

class ChildProcess;
class MainTimer;
class PipeWriter;
class SerialQueue;

// What the servers of one registry share: the counter their request ids
// come from, so that an id is never used twice, and the search list for
// their commands.
class McpServerContext {
 public:
  // Main thread; the first id is 1.
  int64_t nextRequestId() { return ++mcpSeq_; }

  // The login shell's PATH, asked for once (the first caller waits up to
  // 3 s, 8 s when the shell hangs). Any thread.
  std::optional<std::string> shellDerivedPath();
  std::vector<std::string> searchDirs();
  std::optional<std::string> resolveExecutable(const std::string& command);

 private:
  int64_t mcpSeq_ = 0;
  std::once_flag shellProbed_;
  std::optional<std::string> shellPath_;
};

// One local MCP server: its child process, the newline-delimited JSON-RPC
// exchange over its standard input and output, and its tools. Created,
// started and stopped by the registry on the main thread; always held by
// shared_ptr. Background threads and timers keep only weak references; a
// request in progress holds the object until it has been answered, which
// stop() makes happen at once.
//
// Threads: requests, timers and every completion on the main thread; one
// reader of standard output that hands lines over in arrival order; one
// serial write queue; the child's watcher drains standard error.
class McpTask : public std::enable_shared_from_this<McpTask> {
 public:
  // Longer request ids from a server are not echoed: the error reply then
  // carries a null id, as JSON-RPC does for a request it cannot read.
  static constexpr size_t kMaxEchoedId = 1024;

  using ResponseHandler = std::function<void(const Json& response)>;
  using ReadyHandler = std::function<void(bool ok, const Json& error)>;
  // tools: the cached array on success; error: the response's "error" member
  // or one of the client's own error objects on failure.
  using ToolsHandler = std::function<void(bool ok, const Json& tools, const Json& error)>;
  using CallHandler = std::function<void(bool ok, const Json& result, const Json& error)>;

  // Seconds; tests shorten them.
  struct Timeouts {
    double initialize = 45;
    double listTools = 30;
    double callTool = 120;
  };

  // What one server may cost the app; tests lower them.
  struct Limits {
    // Bytes waiting for the server's standard input behind the write in
    // progress. A server that stops reading is stopped past this, rather
    // than holding on to every reply and request for it. A line is always
    // taken when nothing else waits, however long it is.
    size_t writeBacklog = size_t(4) << 20;
    // Longest line read from the server: four images at the 8,000,000
    // characters a result may carry, with room for the rest of the answer.
    size_t outputLine = size_t(32) << 20;
  };

  // Stores the configuration; starts nothing.
  static std::shared_ptr<McpTask> create(std::shared_ptr<McpServerContext> context, std::string name,
                                         std::string command, std::vector<std::string> args = {},
                                         std::map<std::string, std::string> env = {});
  ~McpTask();
  McpTask(const McpTask&) = delete;
  McpTask& operator=(const McpTask&) = delete;

  const std::string& name() const { return _name; }
  const std::string& command() const { return _command; }
  void setTimeouts(const Timeouts& timeouts) { _timeouts = timeouts; }
  // Before start().
  void setLimits(const Limits& limits) { _limits = limits; }

  // ---- process ----
  // Launches the child unless one is held. Failures are logged and leave the
  // object without a child.
  void start();
  // The reader saw standard output end without stop(): every outstanding
  // request fails with "exited unexpectedly".
  void handleChildExit();
  // Ends the child (standard input closed, SIGTERM to its group, SIGKILL 2 s
  // later). Outstanding requests, and any made later, fail with "MCP server
  // '<name>' <outcome>", so every caller hears back. Only the first call
  // acts; returns whether this one did. Any thread.
  bool stop(const std::string& outcome = "stopped");

  bool isRunning() const;
  std::shared_ptr<ChildProcess> child() const;
  // Why the last start() left the server without a child ("command not
  // found: …", "launch failed: …"); empty when it launched.
  const std::string& launchFailure() const { return _launchFailure; }
  // What the child wrote to standard error, complete once its watcher has
  // finished (ChildProcess::waitUntilFinished).
  std::string standardError() const;

  // ---- JSON-RPC session ----
  // Returns at once; the completion (may be empty) runs exactly once, on the
  // main thread, with the server's response object or a client-made one
  // whose "error" is {"message": text}.
  void sendRequest(const std::string& method, const std::optional<Json>& params, double timeout,
                   ResponseHandler completion);
  // Writes one message in write order, never waiting on the calling thread.
  void sendMessage(const Json& message);
  void sendNotification(const std::string& method, const std::optional<Json>& params);
  void sendErrorReply(const Json& id, int code, const std::string& message);
  // One line of the server's output, on the reader thread. Returns the text
  // of a notification that asks to be logged; the reader decides whether it
  // is.
  std::optional<std::string> processLine(std::string_view line);
  // Runs the initialize handshake unless it succeeded before (then the
  // completion runs at once, on the calling thread). Concurrent callers each
  // send their own initialize.
  void ensureReady(ReadyHandler completion);
  bool isReady() const { return _ready; }

  // ---- tools ----
  // A cached listing answers at once on the calling thread; otherwise the
  // completion runs on the main thread.
  void listToolsWithCompletion(ToolsHandler completion);
  // result: the converted tool result (text, images, isError, structuredContent).
  void callTool(const std::string& tool, const Json& args, CallHandler completion);

 private:
  struct Finish;
  using FinishPtr = std::shared_ptr<Finish>;

  McpTask(std::shared_ptr<McpServerContext> context, std::string name, std::string command,
          std::vector<std::string> args, std::map<std::string, std::string> env);
  // This process's environment with the configured entries laid over it.
  std::vector<std::string> launchEnvironment();
  // Keeps what the child wrote to standard error and logs it.
  std::function<void(std::string)> standardErrorSink();
  // Takes a launched child on as this server's; false when its output cannot
  // be read (the server is then stopped).
  bool adopt(const std::shared_ptr<ChildProcess>& child);
  static void readLoop(std::weak_ptr<McpTask> weak, std::string name, int fd, size_t maxLine,
                       std::shared_ptr<ChildProcess> child);
  static Json clientError(const std::string& message);
  // Writes one line to the server in order, unless it died. When nothing is
  // being written it goes out at once on the calling thread, as far as the
  // pipe takes it without waiting; otherwise, and for the rest, the write
  // thread sends it. Past the backlog limit the server is stopped instead.
  void writeInOrder(std::string line);
  // On the write queue: writes the outbox, waiting for room, until it is
  // empty or the server is gone.
  static void drainOutbox(const std::weak_ptr<McpTask>& weak, const std::string& name);

  std::shared_ptr<McpServerContext> _context;
  std::string _command;
  std::vector<std::string> _args;
  std::map<std::string, std::string> _env;
  std::shared_ptr<ChildProcess> _task;  // guarded by _lock (the write queue reads it)
  std::shared_ptr<PipeWriter> _stdin;   // guarded by _lock
  std::map<int64_t, FinishPtr> _pending;  // guarded by _lock
  std::string _outbox;                    // guarded by _lock: bytes waiting behind the write in progress
  bool _writing = false;                  // guarded by _lock: a line or the outbox is being written
  std::string _stopMessage;               // guarded by _lock: what requests hear after stop()
  std::unique_ptr<SerialQueue> _writeQueue;
  bool _ready = false;                  // main thread
  std::atomic<bool> _stopped{false};    // set by stop(), read by the reader and the writer
  bool _died = false;                   // guarded by _lock
  std::optional<Json> _tools;           // main thread
  std::string _launchFailure;           // main thread
  std::string _standardError;           // guarded by _lock
  std::string _name;

  Timeouts _timeouts;
  Limits _limits;
  mutable std::mutex _lock;
};
