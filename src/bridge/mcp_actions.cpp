#include "bridge/mcp_actions.h"

#include <optional>
#include <string>

#include "bridge/action_args.h"
#include "bridge/bridge.h"
#include "mcp/client_mcp.h"

void registerMcpActions(Bridge& bridge, ClientMcp& mcp) {
  // The bridge lives as long as the process, so the replies may hold it.
  Bridge* b = &bridge;
  ClientMcp* m = &mcp;

  bridge.addAction("mcpServers", [b, m](const Json& reqId, const Json&) {
    m->listServersWithCompletion([b, reqId](Json servers) {
      b->replyToJS(reqId, true, servers.is_array() ? servers : Json::array());
    });
  });

  bridge.addAction("mcpReadConfig",
                   [b](const Json& reqId, const Json&) { b->replyToJS(reqId, true, ClientMcp::readConfig()); });

  bridge.addAction("mcpWriteConfig", [b, m](const Json& reqId, const Json& args) {
    auto content = stringArg(args, 0);
    if (!content) {
      b->replyToJS(reqId, false, "mcpWriteConfig expects [content]");
      return;
    }
    if (auto error = m->writeConfig(*content)) b->replyToJS(reqId, false, *error);
    else b->replyToJS(reqId, true, Json{{"ok", true}});
  });

  bridge.addAction("mcpCall", [b, m](const Json& reqId, const Json& args) {
    const Json* arguments = argAt(args, 2);
    // Failures travel inside the value; the reply itself always succeeds.
    m->callTool(stringArg(args, 0), stringArg(args, 1), arguments && arguments->is_object() ? *arguments : Json::object(),
                [b, reqId](Json result) { b->replyToJS(reqId, true, result.is_object() ? result : Json::object()); });
  });
}
