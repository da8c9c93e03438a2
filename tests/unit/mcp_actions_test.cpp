// How the MCP actions take the page's arguments apart and answer through the
// bridge; what they answer when all goes well is the end-to-end test's.

#include "bridge/mcp_actions.h"

#include "bridge_fakes.h"
#include "mcp/client_mcp.h"

using McpActions = BridgeTest;

TEST_F(McpActions, WriteFailuresAreRefusedWhileAFailedCallTravelsInsideTheValue) {
  ClientMcp mcp;
  registerMcpActions(bridge_, mcp);
  auto ask = [&](const char* name, const Json& args) {
    Reply reply = call(name, args);
    return std::make_pair(reply.ok, reply.value);
  };
  EXPECT_EQ(ask("mcpWriteConfig", Json::array({"[]"})),
            std::make_pair(false, Json("Invalid JSON — the file must contain a JSON object")));
  for (const Json& args : {Json::array(), Json::array({42}), Json::array({Json::object()})})
    EXPECT_EQ(ask("mcpWriteConfig", args), std::make_pair(false, Json("mcpWriteConfig expects [content]"))) << args;
  EXPECT_EQ(ask("mcpCall", Json::array({7, "echo"})), std::make_pair(true, Json{{"error", "unknown MCP server ''"}}));
}
