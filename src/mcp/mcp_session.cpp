// McpTask: the JSON-RPC 2.0 exchange, one compact object per line.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "base/log.h"
#include "base/main_thread.h"
#include "mcp/child_process.h"
#include "mcp/mcp_finish.h"
#include "mcp/mcp_task.h"
#include "mcp/serial_queue.h"

namespace {

// The client's ids are integers; a response's id matches when it is the same
// number, whatever its JSON spelling (3 or 3.0). Strings never match.
std::optional<int64_t> numericId(const Json& id) {
  if (id.is_number_integer()) return id.get<int64_t>();
  if (id.is_number_unsigned()) {
    auto value = id.get<uint64_t>();
    if (value > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return std::nullopt;
    return static_cast<int64_t>(value);
  }
  if (id.is_number_float()) {
    double value = id.get<double>();
    if (!std::isfinite(value) || value != std::floor(value) || std::fabs(value) > 9.0e15) return std::nullopt;
    return static_cast<int64_t>(value);
  }
  return std::nullopt;
}

bool echoable(const Json& id) {
  if (id.is_string()) return id.get_ref<const std::string&>().size() <= McpTask::kMaxEchoedId;
  if (id.is_structured()) return id.dump().size() <= McpTask::kMaxEchoedId;
  return true;
}

}  // namespace

Json McpTask::clientError(const std::string& message) { return Json{{"error", {{"message", message}}}}; }

void McpTask::sendRequest(const std::string& method, const std::optional<Json>& params, double timeout,
                          ResponseHandler completion) {
  int64_t id = _context->nextRequestId();

  auto finish = std::make_shared<Finish>(std::move(completion));
  bool wantsAnswer = static_cast<bool>(finish->completion);
  std::weak_ptr<McpTask> weak = weak_from_this();

  // Armed before the request is entered: the time-out counts from the call,
  // and the handle is in place before any other thread can finish it.
  if (wantsAnswer)
    finish->timer = runOnMainAfterCancellable(timeout, [weak, id, method, timeout] {
      auto self = weak.lock();
      if (!self) return;
      std::lock_guard lock(self->_lock);
      auto it = self->_pending.find(id);
      if (it == self->_pending.end()) return;
      FinishPtr expired = std::move(it->second);
      self->_pending.erase(it);
      char seconds[64];
      std::snprintf(seconds, sizeof seconds, "%.0fs", timeout);
      expired->finish(clientError("MCP server '" + self->_name + "' did not respond to '" + method + "' within " +
                                  seconds));
    });

  // The line is built here rather than through a Json wrapper, which would
  // copy the parameters (a tool call's arguments) once more.
  std::optional<std::string> line;
  try {
    std::string text = "{\"jsonrpc\":\"2.0\",\"method\":" + Json(method).dump() + ",\"id\":" + std::to_string(id);
    if (params) text += ",\"params\":" + params->dump();
    text += "}\n";
    line = std::move(text);
  } catch (...) {
    // Not representable (invalid UTF-8): nothing is sent; the time-out answers.
  }

  // Entered at once rather than when the line is written, so that stop()
  // finds every request it has to answer, queued ones included.
  std::optional<std::string> notRunning;
  {
    std::lock_guard lock(_lock);
    if (_died || !_stdin)
      notRunning = _stopMessage.empty() ? "MCP server '" + _name + "' is not running" : _stopMessage;
    else if (wantsAnswer)
      _pending[id] = finish;
  }
  if (notRunning) {
    finish->finish(clientError(*notRunning));
    return;
  }
  if (line) writeInOrder(std::move(*line));
}

void McpTask::writeInOrder(std::string line) {
  std::shared_ptr<PipeWriter> input;
  size_t waiting = 0;
  {
    std::lock_guard lock(_lock);
    if (_died || !_stdin) return;
    if (!_writing) {
      _writing = true;
      input = _stdin;
    } else {
      // Someone else writes: the line waits its turn in the outbox.
      waiting = _outbox.size() + line.size();
      if (_outbox.empty() || waiting <= _limits.writeBacklog) {
        _outbox += line;
        return;
      }
    }
  }
  if (!input) {
    if (stop("stopped: it does not read its input"))
      logLine("[MCP " + _name + "] stopped: " + std::to_string(waiting) +
              " bytes waiting to be written — the server does not read its input");
    return;
  }

  // Nothing is being written: do it here and spare the hop to the write
  // thread, as far as the pipe takes the bytes without waiting.
  std::string reason;
  ssize_t written = input->writeSome(line, &reason);
  if (written < 0) logLine("[MCP " + _name + "] write failed: " + reason);
  {
    std::lock_guard lock(_lock);
    // The rest of this line goes before whatever was queued meanwhile.
    if (written >= 0 && static_cast<size_t>(written) < line.size())
      _outbox.insert(0, line, static_cast<size_t>(written));
    if (_outbox.empty()) {
      _writing = false;
      return;
    }
  }
  // The write queue takes over (and keeps _writing) until the outbox is empty.
  _writeQueue->async([weak = weak_from_this(), name = _name] { drainOutbox(weak, name); });
}

void McpTask::drainOutbox(const std::weak_ptr<McpTask>& weak, const std::string& name) {
  for (;;) {
    std::string bytes;
    std::shared_ptr<PipeWriter> input;
    {
      auto self = weak.lock();
      if (!self) return;
      std::lock_guard lock(self->_lock);
      if (self->_outbox.empty() || self->_died || !self->_stdin) {
        self->_outbox.clear();
        self->_writing = false;
        return;
      }
      bytes.swap(self->_outbox);
      input = self->_stdin;
    }
    // Not holding the server meanwhile: stop() closes the input, which ends
    // a write that waits for a server that does not read.
    std::string reason;
    if (!input->writeAll(bytes, &reason)) {
      auto self = weak.lock();
      if (!(self && self->_stopped)) logLine("[MCP " + name + "] write failed: " + reason);
    }
  }
}

void McpTask::sendMessage(const Json& message) {
  try {
    writeInOrder(message.dump() + "\n");
  } catch (...) {
    // Not representable (invalid UTF-8): nothing is sent, nothing reported.
  }
}

void McpTask::sendNotification(const std::string& method, const std::optional<Json>& params) {
  Json message = {{"jsonrpc", "2.0"}, {"method", method}};
  if (params) message["params"] = *params;
  sendMessage(message);
}

void McpTask::sendErrorReply(const Json& id, int code, const std::string& message) {
  sendMessage(Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}});
}

std::optional<std::string> McpTask::processLine(std::string_view line) {
  auto parsed = parseJson(line);
  if (!parsed || !parsed->is_object()) return std::nullopt;
  Json& message = *parsed;
  auto version = message.find("jsonrpc");
  if (version == message.end() || !version->is_string() || version->get_ref<const std::string&>() != "2.0")
    return std::nullopt;

  auto idIt = message.find("id");
  if (idIt != message.end()) {
    if (auto id = numericId(*idIt)) {
      FinishPtr finish;
      {
        std::lock_guard lock(_lock);
        auto it = _pending.find(*id);
        if (it != _pending.end()) {
          finish = std::move(it->second);
          _pending.erase(it);
        }
      }
      if (finish) {
        finish->finish(std::move(message));
        return std::nullopt;
      }
    }
    // The client offers no capabilities, so every request from the server
    // (ping included) is answered as unknown, its id echoed as sent. An id
    // too long to echo makes the request unreadable instead: a server that
    // fills its ids could otherwise make each reply as big as it likes.
    if (message.contains("method")) {
      if (echoable(*idIt)) sendErrorReply(*idIt, -32601, "Method not found");
      else sendErrorReply(nullptr, -32600, "Invalid Request");
    }
    return std::nullopt;
  }

  if (!message.contains("method")) return std::nullopt;
  auto params = message.find("params");
  if (params == message.end() || !params->is_object()) return std::nullopt;
  auto text = params->find("message");
  if (text == params->end() || !text->is_string() || text->get_ref<const std::string&>().empty()) return std::nullopt;
  return std::move(text->get_ref<std::string&>());
}

void McpTask::ensureReady(ReadyHandler completion) {
  if (_ready) {
    if (completion) completion(true, nullptr);
    return;
  }
  Json params = {{"protocolVersion", "2024-11-05"},
                 {"capabilities", Json::object()},
                 {"clientInfo", {{"name", "ondrel-linux"}, {"version", "0.1.0"}}}};
  // No queue of waiting callers: each caller that finds the handshake
  // missing runs one of its own. The answer comes even when the server has
  // been let go meanwhile: a stopped server answers every request.
  auto initialized = [self = shared_from_this(), completion](const Json& response) {
    if (auto error = response.find("error"); error != response.end()) {
      if (completion) completion(false, *error);
      return;
    }
    self->sendNotification("notifications/initialized", Json::object());
    self->_ready = true;
    if (completion) completion(true, nullptr);
  };
  sendRequest("initialize", params, _timeouts.initialize, std::move(initialized));
}
