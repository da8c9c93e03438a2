// McpTask: the JSON-RPC 2.0 exchange, one compact object per line.

#include <cmath>
#include <cstdio>
#include <limits>

#include "base/log.h"
#include "base/main_thread.h"
#include "mcp/child_process.h"
#include "mcp/mcp_finish.h"
#include "mcp/mcp_task.h"
#include "mcp/serial_queue.h"

int64_t gMcpSeq = 0;

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

}  // namespace

Json McpTask::clientError(const std::string& message) { return Json{{"error", {{"message", message}}}}; }

int64_t McpTask::nextId() { return ++gMcpSeq; }

void McpTask::sendRequest(const std::string& method, const std::optional<Json>& params, double timeout,
                          ResponseHandler completion) {
  int64_t id = nextId();

  auto finish = std::make_shared<Finish>(std::move(completion));
  bool wantsAnswer = static_cast<bool>(finish->completion);
  std::weak_ptr<McpTask> weak = weak_from_this();

  // Armed before the request is queued: the time-out counts from the call.
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
  writeInOrder([id, finish, wantsAnswer, line = std::move(line)](McpTask& self) mutable -> std::optional<std::string> {
    std::unique_lock lock(self._lock);
    if (self._died || !self._stdin) {
      finish->finish(clientError("MCP server '" + self._name + "' is not running"));
      return std::nullopt;
    }
    if (wantsAnswer) self._pending[id] = finish;
    return std::move(line);
  });
}

std::optional<std::string> McpTask::serialize(const Json& message) {
  try {
    std::string bytes = message.dump();
    bytes.push_back('\n');
    return bytes;
  } catch (...) {
    return std::nullopt;  // not representable (invalid UTF-8): nothing is sent
  }
}

void McpTask::writeBytes(const std::string& bytes) {
  std::shared_ptr<PipeWriter> input;
  {
    std::lock_guard lock(_lock);
    input = _stdin;
  }
  if (!input) return;
  std::string reason;
  if (!input->writeAll(bytes, &reason)) logLine("[MCP " + _name + "] write failed: " + reason);
}

void McpTask::writeInOrder(std::function<std::optional<std::string>(McpTask&)> prepare) {
  std::weak_ptr<McpTask> weak = weak_from_this();
  if (_writeQueue->tryBeginInline()) {
    // Nothing is waiting to be written: do it here and spare the hop to the
    // write thread, as far as the pipe takes the bytes without waiting.
    std::function<void()> rest;
    try {
      if (auto bytes = prepare(*this)) {
        std::shared_ptr<PipeWriter> input;
        {
          std::lock_guard lock(_lock);
          input = _stdin;
        }
        std::string reason;
        ssize_t written = input ? input->writeSome(*bytes, &reason) : static_cast<ssize_t>(bytes->size());
        if (written < 0) {
          logLine("[MCP " + _name + "] write failed: " + reason);
        } else if (static_cast<size_t>(written) < bytes->size()) {
          rest = [input, name = _name, tail = bytes->substr(static_cast<size_t>(written))] {
            std::string reason;
            if (!input->writeAll(tail, &reason)) logLine("[MCP " + name + "] write failed: " + reason);
          };
        }
      }
    } catch (...) {
    }
    _writeQueue->endInline(std::move(rest));
    return;
  }
  _writeQueue->async([weak, prepare = std::move(prepare)] {
    auto self = weak.lock();
    if (!self) return;
    if (auto bytes = prepare(*self)) self->writeBytes(*bytes);
  });
}

void McpTask::sendMessageBlocking(const Json& message) {
  if (auto bytes = serialize(message)) writeBytes(*bytes);
}

void McpTask::sendMessage(Json message) {
  writeInOrder([message = std::move(message)](McpTask& self) -> std::optional<std::string> {
    {
      std::lock_guard lock(self._lock);
      if (self._died) return std::nullopt;
    }
    return serialize(message);
  });
}

void McpTask::sendNotification(const std::string& method, const std::optional<Json>& params) {
  Json message = {{"jsonrpc", "2.0"}, {"method", method}};
  if (params) message["params"] = *params;
  sendMessage(std::move(message));
}

void McpTask::sendErrorReply(const Json& id, int code, const std::string& message) {
  sendMessage(Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}});
}

void McpTask::processLine(std::string_view line) {
  auto parsed = parseJson(line);
  if (!parsed || !parsed->is_object()) return;
  Json& message = *parsed;
  auto version = message.find("jsonrpc");
  if (version == message.end() || !version->is_string() || version->get_ref<const std::string&>() != "2.0") return;

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
        return;
      }
    }
    // The client offers no capabilities, so every request from the server
    // (ping included) is answered as unknown, its id echoed as sent.
    if (message.contains("method")) sendErrorReply(*idIt, -32601, "Method not found");
    return;
  }

  if (message.contains("method")) {
    auto params = message.find("params");
    if (params == message.end() || !params->is_object()) return;
    auto text = params->find("message");
    if (text != params->end() && text->is_string() && !text->get_ref<const std::string&>().empty())
      logLine("[MCP " + _name + "] " + text->get<std::string>());
  }
}

void McpTask::ensureReady(ReadyHandler completion) {
  if (_ready) {
    if (completion) completion(true, nullptr);
    return;
  }
  Json params = {{"protocolVersion", "2024-11-05"},
                 {"capabilities", Json::object()},
                 {"clientInfo", {{"name", "ondrel-linux"}, {"version", "0.1.0"}}}};
  std::weak_ptr<McpTask> weak = weak_from_this();
  // No queue of waiting callers: each caller that finds the handshake
  // missing runs one of its own.
  sendRequest("initialize", params, _timeouts.initialize, [weak, completion](const Json& response) {
    auto self = weak.lock();
    if (!self) return;
    if (auto error = response.find("error"); error != response.end()) {
      if (completion) completion(false, *error);
      return;
    }
    self->sendNotification("notifications/initialized", Json::object());
    self->_ready = true;
    if (completion) completion(true, nullptr);
  });
}
