// ClientMcp: the settings file, loading, namespaces, listing and calling.

#include <map>

#include "mcp/client_mcp.h"
#include "mcp/server_config.h"
#include "mcp_test_support.h"

namespace fs = std::filesystem;

TEST(McpNamespace, ReplacesThenLowerCasesThenTrims) {
  const std::pair<const char*, const char*> cases[] = {
      {"Git Hub", "it--ub"},  // capitals are replaced before lower-casing
      {"--git hub--", "git-hub"}, {"_v2_", "_v2_"},  {"a..b", "a--b"},
      {"@#$ %", "server"},        {"", "server"},    {"caf\xC3\xA9x", "caf-x"},  // one '-' per UTF-16 unit
      {"a\xF0\x9F\x98\x80z", "a--z"},
  };
  for (const auto& [name, ns] : cases) EXPECT_EQ(ondrelMcpNamespace(name), ns) << name;
}

TEST(McpServerEntry, ArgsAndEnvKeepOnlyStringsAndToolDescriptorsFillInDefaults) {
  EXPECT_EQ(ondrelMcpArgs(Json::parse(R"(["-y", 3, "pkg", null])")), (std::vector<std::string>{"-y", "pkg"}));
  EXPECT_TRUE(ondrelMcpArgs(Json("-y pkg")).empty());
  EXPECT_EQ(ondrelMcpEnv(Json::parse(R"({"TOKEN": "abc", "PORT": 8080, "ON": true})")),
            (std::map<std::string, std::string>{{"TOKEN", "abc"}}));
  EXPECT_TRUE(ondrelMcpEnv(Json::parse(R"(["TOKEN"])")).empty());

  const Json schema = {{"type", "object"}, {"required", {"m"}}};
  EXPECT_EQ(ClientMcp::toolDescriptor({{"name", "echo"}, {"description", "Echo"}, {"inputSchema", schema}, {"title", "x"}}),
            (Json{{"name", "echo"}, {"description", "Echo"}, {"inputSchema", schema}}));
  EXPECT_EQ(ClientMcp::toolDescriptor({{"name", 7}, {"description", nullptr}, {"inputSchema", "any"}}),
            Json::parse(R"({"name":"tool","inputSchema":{"type":"object","properties":{}}})"));
}

class McpRegistry : public HomeFixture {
 protected:
  ClientMcp mcp_;
  // A config with fake servers; each entry: name → fake-server options.
  std::string fakeConfig(const std::vector<std::pair<std::string, Json>>& servers) {
    Json entries = Json::object();
    for (const auto& [name, opts] : servers)
      entries[name] = {{"command", fakeServer()}, {"args", {opts.is_null() ? "{}" : opts.dump()}},
                       {"env", {{"FAKE_LOG", serverLog().string()}}}};
    return Json{{"mcpServers", entries}}.dump(2);
  }
  void load(const std::string& config) {
    writeText(configPath(), config);
    LogCapture::instance().clear();
    mcp_.loadConfig();
  }
  Json call(const std::optional<std::string>& server, const std::optional<std::string>& tool, const Json& args) {
    std::optional<Json> result;
    mcp_.callTool(server, tool, args, [&](Json r) { result = std::move(r); });
    EXPECT_TRUE(pumpUntil([&] { return result.has_value(); }));
    return result.value_or(Json());
  }
};

TEST_F(McpRegistry, MissingOrEmptyFileIsCreatedWithAnEmptyServerListAndAnyOtherIsLeftAlone) {
  const std::string created = "[MCP] created default config at ~/.config/ondrel/config.json";
  Json read = ClientMcp::readConfig();
  EXPECT_EQ(read["path"], configPath().string());
  EXPECT_EQ(Json::parse(read["content"].get<std::string>()), (Json{{"mcpServers", Json::object()}}));
  EXPECT_EQ(readText(configPath()), read["content"]);
  EXPECT_TRUE(logged(created));

  load("");
  EXPECT_EQ(readText(configPath()), read["content"]) << "an empty file is replaced";

  load("{\"server\": \"x\"}");
  EXPECT_EQ(readText(configPath()), "{\"server\": \"x\"}") << "a file with content is left alone";
  EXPECT_FALSE(logged(created));

  writeText(configPath(), "{\"a\": \"\xff\"}");
  EXPECT_EQ(ClientMcp::readConfig()["content"], "") << "text that is not UTF-8 reads as empty";
}

// Saving a good file, and the restart that follows, is the end-to-end test's.
TEST_F(McpRegistry, WriteRefusesWhatIsNotAJsonObjectAndSaysWhyItCouldNotWrite) {
  const std::pair<Json, const char*> refused[] = {
      {Json(42), "Config content must be a non-empty string"},
      {Json(""), "Config content must be a non-empty string"},
      {Json("{oops"), "Invalid JSON — the file must contain a JSON object"},
      {Json("[1, 2]"), "Invalid JSON — the file must contain a JSON object"},
  };
  for (const auto& [content, error] : refused) EXPECT_EQ(mcp_.writeConfig(content), error) << content;
  EXPECT_FALSE(fs::exists(configPath())) << "nothing written";

  writeText(home() / ".config/ondrel", "a file where the folder should be");
  auto error = mcp_.writeConfig(Json("{}"));
  EXPECT_NE(error.value_or("").find("Not a directory"), std::string::npos) << error.value_or("");
}

TEST_F(McpRegistry, LoadStartsEveryUsableEntryAndKeepsThoseThatCouldNotLaunch) {
  const std::string garbage = writeExecutable(home() / "garbage", "\x01\x02 not a program");
  load(R"({"mcpServers": {
      "alpha": {"command": ")" + fakeServer() + R"(", "args": ["{}", 5]},
      "no-command": {"args": []},
      "empty": {"command": ""},
      "numeric": {"command": 12},
      "not-an-object": "npx",
      "ghost": {"command": "ondrel-no-such-server-command"},
      "garbage": {"command": ")" + garbage + R"("}
  }})");
  for (const char* skipped : {"no-command", "empty", "numeric"})
    EXPECT_TRUE(logged(std::string("[MCP] server '") + skipped + "' has no command — skipped")) << skipped;
  EXPECT_EQ(LogCapture::instance().countStartingWith("[MCP] server 'not-an-object'"), 0u) << "skipped silently";
  ASSERT_EQ(mcp_.tasks().size(), 3u) << "a failed launch still counts";
  EXPECT_TRUE(mcp_.tasks()[0]->isRunning());
  EXPECT_EQ(mcp_.tasks()[1]->launchFailure(), "command not found: ondrel-no-such-server-command");
  EXPECT_EQ(mcp_.tasks()[2]->launchFailure(), "launch failed: " + garbage + ": Exec format error");
  EXPECT_FALSE(mcp_.tasks()[1]->child() || mcp_.tasks()[2]->child());
  EXPECT_EQ(call("ghost", "echo", Json::object()), (Json{{"error", "MCP server 'ghost' is not running"}}));
}

// An edit on disk that reloads is the end-to-end test's.
TEST_F(McpRegistry, AReloadRestartsTheServersAndOnlyAValidEditOnDiskReloads) {
  const std::pair<const char*, std::string> cases[] = {
      {"[\"not\", \"an object\"]", "[MCP] ~/.config/ondrel/config.json is not a JSON object"},
      {R"({"mcpServers": []})", "[MCP] no mcpServers configured"},
      {R"({"mcpServers": {}})", "[MCP] no mcpServers configured"},
      {R"({"server": "x"})", "[MCP] no mcpServers configured"},
      {nullptr, "[MCP] could not read " + configPath().string() + " — skipping client MCP"},  // a folder instead
  };
  for (const auto& [text, says] : cases) {
    fs::remove_all(configPath());
    load(fakeConfig({{"one", {}}}));
    auto running = mcp_.tasks().at(0);
    std::optional<Json> called;
    mcp_.callTool("one", "echo", Json::object(), [&](Json r) { called = std::move(r); });
    fs::remove(configPath());
    if (text) writeText(configPath(), text);
    else fs::create_directories(configPath());
    LogCapture::instance().clear();
    mcp_.loadConfig();
    EXPECT_TRUE(logged(says)) << says;
    EXPECT_TRUE(mcp_.tasks().empty()) << says;
    EXPECT_FALSE(running->child()) << says;
    ASSERT_TRUE(pumpUntil([&] { return called.has_value(); }));
    EXPECT_EQ(*called, (Json{{"error", "MCP server 'one' restarted"}})) << "a call in flight hears why";
  }

  fs::remove_all(configPath());
  load(fakeConfig({{"a", {}}}));
  auto first = mcp_.tasks().at(0);
  writeText(configPath(), "{ not json");
  mcp_.configDidChange();
  EXPECT_EQ(mcp_.tasks(), std::vector{first});
  EXPECT_TRUE(first->isRunning());
  fs::remove(configPath());
  LogCapture::instance().clear();
  mcp_.configDidChange();
  EXPECT_TRUE(LogCapture::instance().lines().empty()) << "an unreadable file changes nothing";
}

TEST_F(McpRegistry, ListingGivesOneEntryPerServerEvenWhenOneFailsAndCachesOnlyWhatSucceeded) {
  load(fakeConfig({{"broken", {{"initialize", {{"error", {{"code", -1}, {"message", "handshake refused"}}}}}}},
                   {"Good One", {{"tools/list", {{"result", {{"tools", {{{"name", "echo"}}, "junk"}}}}}}}},
                   {"coded", {{"tools/list", {{"error", {{"code", 5}}}}}}},
                   {"dead", {{"initialize", nullptr}}}}));
  mcp_.tasks()[3]->stop();  // the client's own error
  auto listAll = [&] {
    std::optional<Json> result;
    mcp_.listServersWithCompletion([&](Json servers) { result = std::move(servers); });
    EXPECT_FALSE(result.has_value()) << "the listing always completes later";
    EXPECT_TRUE(pumpUntil([&] { return result.has_value(); }));
    return result.value_or(Json::array());
  };
  std::map<std::string, Json> servers;
  for (const auto& s : listAll()) servers[s["name"]] = s;
  ASSERT_EQ(servers.size(), 4u);
  const Json descriptor = ClientMcp::toolDescriptor({{"name", "echo"}});
  EXPECT_EQ(servers["ood--ne"], (Json{{"name", "ood--ne"}, {"command", fakeServer()}, {"tools", {descriptor}}}));
  EXPECT_EQ(servers["broken"], (Json{{"name", "broken"}, {"command", fakeServer()}, {"error", "handshake refused"}}));
  EXPECT_EQ(servers["coded"]["error"], "MCP server failed");
  EXPECT_EQ(servers["dead"]["error"], "MCP server 'dead' stopped");

  EXPECT_EQ(listAll()[0], servers["ood--ne"]) << "the cached listing comes first";
  EXPECT_EQ(receivedCount("tools/list"), 3u) << "a failed listing is asked again, a good one is not";
  EXPECT_EQ(receivedCount("initialize"), 4u) << "a handshake that succeeded holds, a refused one does not";
  EXPECT_EQ(receivedCount("notifications/initialized"), 2u) << "none after a refusal";
}

TEST_F(McpRegistry, CallingByNamespaceWhereTheFirstServerOfASharedOneWins) {
  load(fakeConfig({{"Files", {}}, {"iles", {}}}));
  EXPECT_EQ(mcp_.taskNamed("iles"), mcp_.tasks().at(0)) << "looked up by namespace, not by name";
  EXPECT_EQ(call("files", "echo", {}), (Json{{"error", "unknown MCP server 'files'"}})) << "'Files' is 'iles'";
  EXPECT_EQ(call(std::nullopt, "echo", Json::object()), (Json{{"error", "unknown MCP server ''"}}));

  auto echoed = [&](const std::optional<std::string>& tool, const Json& args) {
    Json r = call("iles", tool, args);
    return r["text"].is_string() ? Json::parse(r["text"].get<std::string>()) : r;
  };
  EXPECT_EQ(echoed("echo", {{"m", 1}}), (Json{{"name", "echo"}, {"arguments", {{"m", 1}}}}));
  EXPECT_EQ(echoed(std::nullopt, Json::array({1, 2})), (Json{{"name", ""}, {"arguments", Json::object()}}))
      << "arguments that are not an object become {}";

  const std::pair<Json, Json> answers[] = {
      {{{"error", {{"code", 1}, {"message", "tool blew up"}}}}, {{"error", "tool blew up"}}},
      {{{"error", {{"code", 1}}}}, {{"error", {{"code", 1}}}}},  // without a message: passed on whole
      {{{"error", nullptr}}, {{"error", "MCP call failed"}}},
  };
  for (const auto& [answer, expected] : answers)
    EXPECT_EQ(call("iles", "t", {{"script", {answer}}}), expected) << answer;
}
