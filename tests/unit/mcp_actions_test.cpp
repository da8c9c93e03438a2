// How the MCP actions take the page's arguments apart and answer through the bridge.

#include "bridge/mcp_actions.h"

#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "bridge_fakes.h"
#include "mcp/client_mcp.h"
#include "mcp_test_support.h"

class McpActions : public HomeFixture {
 protected:
  void SetUp() override {
    HomeFixture::SetUp();
    registerMcpActions(bridge_, mcp_);
  }
  // The one reply to the request.
  std::pair<bool, Json> ask(const std::string& name, const Json& args) {
    const std::string id = std::to_string(host_.scripts.size());
    bridge_.didReceiveScriptMessage(Json{{"__reqId", id}, {"name", name}, {"args", args}});
    std::vector<std::pair<bool, Json>> replies;
    EXPECT_TRUE(pumpUntil([&] {
      replies.clear();
      for (const auto& script : host_.scripts)
        if (auto reply = parseReply(script); reply && reply->id == id) replies.emplace_back(reply->ok, reply->value);
      return !replies.empty();
    })) << name;
    EXPECT_EQ(replies.size(), 1u) << name;
    return replies.empty() ? std::make_pair(false, Json()) : replies[0];
  }

  ClientMcp mcp_;
  FakeHost host_;
  Bridge bridge_{host_, kPageOrigin, [](const std::string&) {}};
};

TEST_F(McpActions, ArgumentsAreCheckedAndFailuresOfACallTravelInsideTheValue) {
  EXPECT_EQ(ask("mcpReadConfig", Json::array()), std::make_pair(true, ClientMcp::readConfig()));
  EXPECT_EQ(ask("mcpWriteConfig", Json::array({"{\"mcpServers\": {}}"})), std::make_pair(true, Json{{"ok", true}}));
  EXPECT_EQ(readText(configPath()), "{\"mcpServers\": {}}");
  EXPECT_EQ(ask("mcpWriteConfig", Json::array({"[]"})),
            std::make_pair(false, Json("Invalid JSON — the file must contain a JSON object")));
  for (const Json& args : {Json::array(), Json::array({42}), Json::array({{{"mcpServers", Json::object()}}})})
    EXPECT_EQ(ask("mcpWriteConfig", args), std::make_pair(false, Json("mcpWriteConfig expects [content]"))) << args;

  writeText(configPath(), Json{{"mcpServers", {{"Echo Box", {{"command", fakeServer()}}}}}}.dump());
  mcp_.loadConfig();
  auto [listed, servers] = ask("mcpServers", nullptr);
  EXPECT_TRUE(listed);
  EXPECT_EQ(servers[0]["name"], "cho--ox");
  auto [called, result] = ask("mcpCall", Json::array({"cho--ox", "echo", "not an object"}));
  EXPECT_TRUE(called);
  EXPECT_EQ(Json::parse(result["text"].get<std::string>()), (Json{{"name", "echo"}, {"arguments", Json::object()}}));
  EXPECT_EQ(ask("mcpCall", Json::array({7, "echo"})), std::make_pair(true, Json{{"error", "unknown MCP server ''"}}));
}
