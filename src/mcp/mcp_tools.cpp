// McpTask: listing the server's tools (cached) and calling one.

#include "mcp/mcp_task.h"
#include "mcp/tool_result.h"

// The steps hold the server until they have answered: a server stopped
// meanwhile (a reload, the app quitting) answers with why, never with
// silence.

void McpTask::listToolsWithCompletion(ToolsHandler completion) {
  if (_tools) {
    completion(true, *_tools, nullptr);
    return;
  }
  ensureReady([self = shared_from_this(), completion](bool ok, const Json& error) {
    if (!ok) {
      completion(false, nullptr, error);
      return;
    }
    // Only the first page: no cursor is sent, and one in the answer is ignored.
    auto listed = [self, completion](const Json& response) {
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
    };
    self->sendRequest("tools/list", Json::object(), self->_timeouts.listTools, std::move(listed));
  });
}

void McpTask::callTool(const std::string& tool, const Json& args, CallHandler completion) {
  Json params = {{"name", tool}, {"arguments", args.is_object() ? args : Json::object()}};
  ensureReady([self = shared_from_this(), completion, params = std::move(params)](bool ok, const Json& error) {
    if (!ok) {
      completion(false, nullptr, error);
      return;
    }
    self->sendRequest("tools/call", params, self->_timeouts.callTool, [completion](const Json& response) {
      if (auto error = response.find("error"); error != response.end()) {
        completion(false, nullptr, *error);
        return;
      }
      auto result = response.find("result");
      completion(true, ondrelConvertToolResult(result != response.end() ? *result : Json()), nullptr);
    });
  });
}
