// The four MCP actions as the page reaches them through the bridge.

#include "bridge/mcp_actions.h"

#include <string>
#include <vector>

#include "bridge/bridge.h"
#include "mcp/client_mcp.h"
#include "bridge_fakes.h"
#include "mcp_test_support.h"

namespace {

std::vector<Reply> repliesOf(const FakeHost& host) {
  std::vector<Reply> out;
  for (const auto& script : host.scripts)
    if (auto reply = parseReply(script)) out.push_back(*reply);
  return out;
}

}  // namespace

class McpActions : public HomeFixture {
 protected:
  void SetUp() override {
    HomeFixture::SetUp();
    registerMcpActions(bridge_, mcp_);
  }
  void post(const std::string& id, const std::string& name, const Json& args) {
    bridge_.didReceiveScriptMessage(Json{{"__reqId", id}, {"name", name}, {"args", args}});
  }
  // Waits for the request's reply and checks it is the only one.
  Reply replyTo(const std::string& id) {
    auto mine = [&] {
      std::vector<Reply> found;
      for (auto& r : repliesOf(host_))
        if (r.id == id) found.push_back(r);
      return found;
    };
    EXPECT_TRUE(pumpUntil([&] { return !mine().empty(); })) << "no reply to " << id;
    pumpFor(0.05);
    auto found = mine();
    EXPECT_EQ(found.size(), 1u) << "exactly one reply to " << id;
    return found.empty() ? Reply{id, false, "no reply"} : found[0];
  }

  ClientMcp mcp_;
  FakeHost host_;
  Bridge bridge_{host_, kPageOrigin, [](const std::string&) {}};
};

TEST_F(McpActions, ReadAndWriteConfig) {
  post("r1", "mcpReadConfig", Json::array());
  Reply read = replyTo("r1");
  EXPECT_TRUE(read.ok);
  EXPECT_EQ(read.value, (Json{{"path", configPath().string()}, {"content", "{\n  \"mcpServers\": {\n  }\n}\n"}}));

  post("w1", "mcpWriteConfig", Json::array({"{\"mcpServers\": {}}"}));
  Reply saved = replyTo("w1");
  EXPECT_TRUE(saved.ok);
  EXPECT_EQ(saved.value, (Json{{"ok", true}}));
  EXPECT_EQ(readText(configPath()), "{\"mcpServers\": {}}");

  post("w2", "mcpWriteConfig", Json::array({"[]"}));
  Reply invalid = replyTo("w2");
  EXPECT_FALSE(invalid.ok);
  EXPECT_EQ(invalid.value, "Invalid JSON — the file must contain a JSON object");

  post("w3", "mcpWriteConfig", Json::array({""}));
  EXPECT_EQ(replyTo("w3").value, "Config content must be a non-empty string");

  for (const Json& args : {Json::array(), Json::array({42}), Json::array({{{"mcpServers", Json::object()}}})}) {
    post("w4", "mcpWriteConfig", args);
    Reply wrong = replyTo("w4");
    EXPECT_FALSE(wrong.ok);
    EXPECT_EQ(wrong.value, "mcpWriteConfig expects [content]") << args;
    host_.scripts.clear();
  }
}

TEST_F(McpActions, ListAndCallThroughTheBridge) {
  Json config = {{"mcpServers", {{"Echo Box", {{"command", fakeServer()}, {"args", {"{}"}}}}}}};
  writeText(configPath(), config.dump());
  mcp_.loadConfig();

  post("l1", "mcpServers", nullptr);
  Reply list = replyTo("l1");
  EXPECT_TRUE(list.ok);
  EXPECT_EQ(list.value, Json::parse(R"([{"name":"cho--ox","command":")" + fakeServer() +
                                     R"(","tools":[{"name":"echo","inputSchema":{"type":"object"}}]}])"));

  post("c1", "mcpCall", Json::array({"cho--ox", "echo", {{"m", "hi"}}}));
  Reply called = replyTo("c1");
  EXPECT_TRUE(called.ok);
  EXPECT_EQ(Json::parse(called.value["text"].get<std::string>()),
            (Json{{"name", "echo"}, {"arguments", {{"m", "hi"}}}}));

  post("c2", "mcpCall", Json::array({"cho--ox", "echo", "not a dictionary"}));
  EXPECT_EQ(Json::parse(replyTo("c2").value["text"].get<std::string>())["arguments"], Json::object());

  post("c3", "mcpCall", Json::array({"nobody", "echo"}));
  Reply unknown = replyTo("c3");
  EXPECT_TRUE(unknown.ok) << "failures travel inside the value";
  EXPECT_EQ(unknown.value, (Json{{"error", "unknown MCP server 'nobody'"}}));

  post("c4", "mcpCall", Json::array({7, "echo"}));
  EXPECT_EQ(replyTo("c4").value, (Json{{"error", "unknown MCP server ''"}})) << "a server that is not a string";
}

TEST_F(McpActions, ListingWithNoServersIsAnEmptyArray) {
  mcp_.loadConfig();
  post("l0", "mcpServers", Json::array());
  Reply list = replyTo("l0");
  EXPECT_TRUE(list.ok);
  EXPECT_EQ(list.value, Json::array());
}
