// McpTask: listing the server's tools (cached) and calling one.

#include "mcp/mcp_task.h"
#include "mcp/tool_result.h"

void McpTask::listToolsWithCompletion(ToolsHandler completion) {
  if (_tools) {
    completion(true, *_tools, nullptr);
    return;
  }
  std::weak_ptr<McpTask> weak = weak_from_this();
  ensureReady([weak, completion](bool ok, const Json& error) {
    if (!ok) {
      completion(false, nullptr, error);
      return;
    }
    auto self = weak.lock();
    if (!self) return;
    // Only the first page: no cursor is sent, and one in the answer is ignored.
    self->sendRequest("tools/list", Json::object(), self->_timeouts.listTools, [weak, completion](const Json& response) {
      auto self = weak.lock();
      if (!self) return;
      if (auto error = response.find("error"); error != response.end()) {
        completion(false, nullptr, *error);
        return;
      }
      Json tools = Json::array();
      auto result = response.find("result");
      if (result != response.end() && result->is_object()) {
        auto list = result->find("tools");
        if (list != result->end() && list->is_array()) tools = *list;
      }
      self->_tools = tools;
      completion(true, tools, nullptr);
    });
  });
}

void McpTask::callTool(const std::string& tool, const Json& args, CallHandler completion) {
  std::weak_ptr<McpTask> weak = weak_from_this();
  Json params = {{"name", tool}, {"arguments", args.is_object() ? args : Json::object()}};
  ensureReady([weak, completion, params = std::move(params)](bool ok, const Json& error) {
    if (!ok) {
      completion(false, nullptr, error);
      return;
    }
    auto self = weak.lock();
    if (!self) return;
    self->sendRequest("tools/call", params, self->_timeouts.callTool, [weak, completion](const Json& response) {
      if (weak.expired()) return;
      if (auto error = response.find("error"); error != response.end()) {
        completion(false, nullptr, *error);
        return;
      }
      auto result = response.find("result");
      completion(true, ondrelConvertToolResult(result != response.end() ? *result : Json()), nullptr);
    });
  });
}
