// ClientMcp: the settings file, loading, namespaces, listing and calling.

#include <functional>
#include <map>

#include "base/json.h"
#include "mcp/child_process.h"
#include "mcp/client_mcp.h"
#include "mcp/server_config.h"
#include "mcp_test_support.h"

namespace fs = std::filesystem;

TEST(McpNamespace, ReplacesThenLowerCasesThenTrims) {
  const std::pair<const char*, const char*> cases[] = {
      {"Git Hub", "it--ub"},  // capitals are replaced before lower-casing
      {"git-hub", "git-hub"},     {"--git hub--", "git-hub"}, {"files_v2", "files_v2"},
      {"_under_", "_under_"},     {"a..b", "a--b"},           {"@#$ %", "server"},
      {"", "server"},             {"caf\xC3\xA9x", "caf-x"},  // one '-' per UTF-16 unit
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
  void writeConfig(const std::string& text) { writeText(configPath(), text); }
  // A config with fake servers; each entry: name → fake-server options.
  std::string fakeConfig(const std::vector<std::pair<std::string, Json>>& servers) {
    Json entries = Json::object();
    for (const auto& [name, opts] : servers)
      entries[name] = {{"command", fakeServer()}, {"args", {opts.is_null() ? "{}" : opts.dump()}},
                       {"env", {{"FAKE_LOG", serverLog().string()}}}};
    return Json{{"mcpServers", entries}}.dump(2);
  }
  void load(const std::string& config) {
    writeConfig(config);
    LogCapture::instance().clear();
    mcp_.loadConfig();
  }
  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (auto& t : mcp_.tasks()) out.push_back(t->name());
    return out;
  }
  // By name, and the names in the order given.
  std::pair<std::map<std::string, Json>, std::vector<std::string>> listAll() {
    std::optional<Json> result;
    mcp_.listServersWithCompletion([&](Json servers) { result = std::move(servers); });
    EXPECT_FALSE(result.has_value()) << "the listing always completes later";
    EXPECT_TRUE(pumpUntil([&] { return result.has_value(); }));
    std::pair<std::map<std::string, Json>, std::vector<std::string>> out;
    for (const auto& s : result.value_or(Json::array())) {
      out.first[s["name"]] = s;
      out.second.push_back(s["name"]);
    }
    return out;
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
  EXPECT_TRUE(logged(created));
  EXPECT_TRUE(logged("[MCP] no mcpServers configured"));

  load("{\"server\": \"x\"}");
  EXPECT_EQ(ClientMcp::ensureConfigFile(), configPath().string());
  EXPECT_EQ(readText(configPath()), "{\"server\": \"x\"}") << "a file with content is left alone";
  EXPECT_FALSE(logged(created));

  writeConfig("{\"a\": \"\xff\"}");
  EXPECT_EQ(ClientMcp::readConfig()["content"], "") << "text that is not UTF-8 reads as empty";
}

TEST_F(McpRegistry, WriteRefusesWhatIsNotAJsonObjectAndKeepsTheTextItTakes) {
  const std::pair<Json, const char*> refused[] = {
      {Json(42), "Config content must be a non-empty string"},
      {Json(""), "Config content must be a non-empty string"},
      {Json("{oops"), "Invalid JSON — the file must contain a JSON object"},
      {Json("[1, 2]"), "Invalid JSON — the file must contain a JSON object"},
  };
  for (const auto& [content, error] : refused) EXPECT_EQ(mcp_.writeConfig(content), error) << content;
  EXPECT_FALSE(fs::exists(configPath())) << "nothing written";

  load(fakeConfig({{"one", {}}}));
  auto before = mcp_.tasks().at(0);
  std::string text = "{\"mcpServers\":{\"two\":{\"command\":\"" + fakeServer() + "\"}},   \"z\": 1}";
  EXPECT_EQ(mcp_.writeConfig(Json(text)), std::nullopt);
  EXPECT_EQ(readText(configPath()), text) << "not re-serialised";
  EXPECT_TRUE(logged("[MCP] config saved — restarting local MCP servers"));
  EXPECT_EQ(names(), std::vector<std::string>{"two"});
  EXPECT_FALSE(before->child()) << "the old server was stopped";
  EXPECT_TRUE(mcp_.tasks()[0]->isRunning());

  fs::remove_all(home() / ".config/ondrel");
  writeText(home() / ".config/ondrel", "a file where the folder should be");
  auto error = mcp_.writeConfig(Json("{}"));
  EXPECT_NE(error.value_or("").find("Not a directory"), std::string::npos) << error.value_or("");
}

TEST_F(McpRegistry, LoadStartsEveryUsableEntryAndSaysWhatItSkipped) {
  load(R"({"mcpServers": {
      "alpha": {"command": ")" + fakeServer() + R"(", "args": ["{}", 5]},
      "no-command": {"args": []},
      "empty": {"command": ""},
      "numeric": {"command": 12},
      "not-an-object": "npx",
      "ghost": {"command": "ondrel-no-such-server-command"}
  }})");
  EXPECT_EQ(names(), (std::vector<std::string>{"alpha", "ghost"}));
  for (const char* skipped : {"no-command", "empty", "numeric"})
    EXPECT_TRUE(logged(std::string("[MCP] server '") + skipped + "' has no command — skipped")) << skipped;
  EXPECT_EQ(LogCapture::instance().countStartingWith("[MCP] server 'not-an-object'"), 0u) << "skipped silently";
  EXPECT_TRUE(logged("[MCP] loaded 2 server(s) from " + configPath().string())) << "a failed launch still counts";
  EXPECT_TRUE(mcp_.tasks()[0]->isRunning());
}

TEST_F(McpRegistry, AFileWithoutServersLeavesNoneRunningAndAChangeOnDiskReloadsOnlyAValidOne) {
  const struct {
    std::function<void()> change;
    std::string says;
  } cases[] = {
      {[&] { writeConfig("[\"not\", \"an object\"]"); }, "[MCP] ~/.config/ondrel/config.json is not a JSON object"},
      {[&] { writeConfig(R"({"mcpServers": []})"); }, "[MCP] no mcpServers configured"},
      {[&] { writeConfig(R"({"mcpServers": {}})"); }, "[MCP] no mcpServers configured"},
      {[&] { writeConfig(R"({"server": "x"})"); }, "[MCP] no mcpServers configured"},
      {[&] {
         fs::remove(configPath());
         fs::create_directories(configPath());
       },
       "[MCP] could not read " + configPath().string() + " — skipping client MCP"},
  };
  for (const auto& c : cases) {
    fs::remove_all(configPath());
    load(fakeConfig({{"one", {}}}));
    auto running = mcp_.tasks().at(0);
    c.change();
    LogCapture::instance().clear();
    mcp_.loadConfig();
    EXPECT_TRUE(logged(c.says)) << c.says;
    EXPECT_TRUE(mcp_.tasks().empty()) << c.says;
    EXPECT_FALSE(running->child()) << c.says;
  }

  fs::remove_all(configPath());
  load(fakeConfig({{"a", {}}}));
  auto first = mcp_.tasks().at(0);
  writeConfig("{ not json");
  mcp_.configDidChange();
  EXPECT_TRUE(logged("[MCP] config.json changed on disk but is not valid JSON — keeping current servers"));
  EXPECT_EQ(mcp_.tasks(), std::vector{first});
  EXPECT_TRUE(first->isRunning());

  fs::remove(configPath());
  LogCapture::instance().clear();
  mcp_.configDidChange();
  EXPECT_TRUE(LogCapture::instance().lines().empty()) << "an unreadable file changes nothing";

  writeConfig(fakeConfig({{"b", {}}}));
  mcp_.configDidChange();
  EXPECT_TRUE(logged("[MCP] config.json changed on disk — reloading servers"));
  EXPECT_EQ(names(), std::vector<std::string>{"b"});
}

TEST_F(McpRegistry, ListingGivesOneEntryPerServerEvenWhenOneFailsAndCachedOnesComeFirst) {
  load(fakeConfig({{"broken", {{"initError", {{"code", -1}, {"message", "handshake refused"}}}}},
                   {"Good One", {{"tools", {{{"name", "echo"}}, "junk"}}}},
                   {"coded", {{"listError", {{"code", 5}}}}},
                   {"dead", {{"initSilent", true}}}}));
  mcp_.tasks()[3]->stop();  // the client's own error
  auto [servers, order] = listAll();
  ASSERT_EQ(servers.size(), 4u);
  const Json descriptor = ClientMcp::toolDescriptor({{"name", "echo"}});
  EXPECT_EQ(servers["ood--ne"], (Json{{"name", "ood--ne"}, {"command", fakeServer()}, {"tools", {descriptor}}}));
  EXPECT_EQ(servers["broken"], (Json{{"name", "broken"}, {"command", fakeServer()}, {"error", "handshake refused"}}));
  EXPECT_EQ(servers["coded"]["error"], "MCP server failed");
  EXPECT_EQ(servers["dead"]["error"], "MCP server 'dead' stopped");
  EXPECT_TRUE(logged("[MCP broken] tools/list failed: handshake refused"));
  EXPECT_TRUE(logged("[MCP coded] tools/list failed: {\"code\":5}"));
  EXPECT_EQ(receivedCount("tools/list"), 2u) << "arguments and environment from the file reach the servers";

  std::tie(servers, order) = listAll();
  EXPECT_EQ(order.front(), "ood--ne") << "the cached listing comes first";
  EXPECT_EQ(servers["ood--ne"]["tools"], Json::array({descriptor}));
}

TEST_F(McpRegistry, CallingByNamespaceWhereTheFirstServerOfASharedOneWins) {
  load(fakeConfig({{"Files", {}}, {"iles", {{"tools", Json::array()}}}}));
  EXPECT_EQ(mcp_.taskNamed("iles"), mcp_.tasks().at(0));
  EXPECT_EQ(mcp_.taskNamed("Files"), nullptr) << "looked up by namespace, not by name";
  EXPECT_EQ(mcp_.taskNamed(std::nullopt), nullptr);
  bool atOnce = false;
  Json unknown;
  mcp_.callTool("files", "echo", Json::object(), [&](Json r) {
    atOnce = true;
    unknown = r;
  });
  EXPECT_TRUE(atOnce) << "an unknown server answers before the call returns";
  EXPECT_EQ(unknown, (Json{{"error", "unknown MCP server 'files'"}})) << "'Files' is 'iles'";
  EXPECT_EQ(call(std::nullopt, "echo", Json::object()), (Json{{"error", "unknown MCP server ''"}}));

  auto echoed = [&](const std::optional<std::string>& tool, const Json& args) {
    Json r = call("iles", tool, args);
    return r["text"].is_string() ? Json::parse(r["text"].get<std::string>()) : r;
  };
  EXPECT_EQ(echoed("echo", {{"m", 1}}), (Json{{"name", "echo"}, {"arguments", {{"m", 1}}}}));
  EXPECT_EQ(echoed(std::nullopt, Json::array({1, 2})), (Json{{"name", ""}, {"arguments", Json::object()}}))
      << "arguments that are not an object become {}";

  const std::pair<Json, Json> scripts[] = {
      {{{"error", {{"code", 1}, {"message", "tool blew up"}}}}, {{"error", "tool blew up"}}},
      {{{"error", {{"code", 1}}}}, {{"error", {{"code", 1}}}}},  // without a message: passed on whole
      {{{"error", nullptr}}, {{"error", "MCP call failed"}}},
      {{{"respond", {{"content", Json::array()}, {"isError", true}}}}, {{"isError", true}}},
  };
  for (const auto& [step, expected] : scripts) EXPECT_EQ(call("iles", "t", {{"script", {step}}}), expected) << step;
}

TEST_F(McpRegistry, ReloadOrQuitAnswersCallsAndListingsInFlight) {
  const struct {
    const char* what;
    std::function<void(const std::string& config)> end;
    const char* outcome;
  } cases[] = {
      {"saved from the page", [this](const std::string& config) { mcp_.writeConfig(Json(config)); }, "restarted"},
      {"edited on disk", [this](const std::string&) { mcp_.configDidChange(); }, "restarted"},
      {"the app quits", [this](const std::string&) { mcp_.shutdown(); }, "stopped"},
  };
  for (const auto& c : cases) {
    // "mute" never finishes its handshake; "busy" would take its time with the call.
    std::string config = fakeConfig({{"busy", {}}, {"mute", {{"initSilent", true}}}});
    load(config);
    std::vector<std::shared_ptr<ChildProcess>> children;
    for (auto& task : mcp_.tasks()) children.push_back(task->child());
    std::optional<Json> called, listed;
    mcp_.callTool("busy", "t", {{"script", {{{"sleep", 30}}}}}, [&](Json r) { called = std::move(r); });
    mcp_.listServersWithCompletion([&](Json r) { listed = std::move(r); });
    c.end(config);  // both still in their handshakes
    ASSERT_TRUE(pumpUntil([&] { return called && listed; }, 5)) << c.what;
    EXPECT_EQ(*called, (Json{{"error", std::string("MCP server 'busy' ") + c.outcome}})) << c.what;
    ASSERT_EQ(listed->size(), 2u) << c.what;
    for (const auto& server : *listed)
      EXPECT_EQ(server["error"], "MCP server '" + server["name"].get<std::string>() + "' " + c.outcome) << c.what;
    if (std::string(c.outcome) == "stopped") {
      EXPECT_EQ(mcp_.tasks().size(), 2u) << "shutdown keeps the list";
      for (auto& child : children) EXPECT_TRUE(child->reaped()) << "shutdown waits for the processes to end";
    }
  }
}
