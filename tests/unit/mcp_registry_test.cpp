// ClientMcp: the settings file, loading, namespaces, listing and calling.

#include <sys/stat.h>

#include <set>

#include "base/json.h"
#include "mcp/child_process.h"
#include "mcp/client_mcp.h"
#include "mcp/mcp_task.h"
#include "mcp/server_config.h"
#include "mcp_test_support.h"

namespace fs = std::filesystem;

namespace {
constexpr const char* kDefault = "{\n  \"mcpServers\": {\n  }\n}\n";
}

TEST(McpNamespace, ReplacesThenLowerCasesThenTrims) {
  EXPECT_EQ(ondrelMcpNamespace("Git Hub"), "it--ub") << "capitals are replaced before lower-casing";
  EXPECT_EQ(ondrelMcpNamespace("git-hub"), "git-hub");
  EXPECT_EQ(ondrelMcpNamespace("--git hub--"), "git-hub");
  EXPECT_EQ(ondrelMcpNamespace("files_v2"), "files_v2");
  EXPECT_EQ(ondrelMcpNamespace("_under_"), "_under_") << "only '-' is trimmed";
  EXPECT_EQ(ondrelMcpNamespace("a..b"), "a--b") << "runs are not collapsed";
  EXPECT_EQ(ondrelMcpNamespace("@#$ %"), "server");
  EXPECT_EQ(ondrelMcpNamespace(""), "server");
  EXPECT_EQ(ondrelMcpNamespace("caf\xC3\xA9x"), "caf-x") << "one '-' per UTF-16 unit";
  EXPECT_EQ(ondrelMcpNamespace("a\xF0\x9F\x98\x80z"), "a--z") << "outside the BMP: two units";
}

TEST(McpServerEntry, ArgsAndEnvKeepOnlyStrings) {
  EXPECT_EQ(ondrelMcpArgs(Json::parse(R"(["-y", 3, "pkg", null])")), (std::vector<std::string>{"-y", "pkg"}));
  EXPECT_TRUE(ondrelMcpArgs(Json("-y pkg")).empty()) << "not an array: none";
  EXPECT_EQ(ondrelMcpEnv(Json::parse(R"({"TOKEN": "abc", "PORT": 8080, "ON": true})")),
            (std::map<std::string, std::string>{{"TOKEN", "abc"}}));
  EXPECT_TRUE(ondrelMcpEnv(Json::parse(R"(["TOKEN"])")).empty());
}

TEST(McpServerEntry, ToolDescriptorsFillInDefaults) {
  EXPECT_EQ(ClientMcp::toolDescriptor(Json::parse(R"({"name":"echo","description":"Echo","inputSchema":{"type":"object","required":["m"]},"title":"x"})")),
            Json::parse(R"({"name":"echo","description":"Echo","inputSchema":{"type":"object","required":["m"]}})"));
  EXPECT_EQ(ClientMcp::toolDescriptor(Json::parse(R"({"name":7,"description":null,"inputSchema":"any"})")),
            Json::parse(R"({"name":"tool","inputSchema":{"type":"object","properties":{}}})"));
}

class McpRegistry : public HomeFixture {
 protected:
  ClientMcp mcp_;
  void writeConfig(const std::string& text) { writeText(configPath(), text); }
  // A config with fake servers; each entry: name → fake-server options.
  std::string fakeConfig(const std::vector<std::pair<std::string, Json>>& servers) {
    Json entries = Json::object();
    std::string script = fakeServer();
    for (const auto& [name, opts] : servers)
      entries[name] = {{"command", script}, {"args", {opts.is_null() ? "{}" : opts.dump()}}};
    return Json{{"mcpServers", entries}}.dump(2);
  }
  std::vector<std::string> names() {
    std::vector<std::string> out;
    for (auto& t : mcp_.tasks()) out.push_back(t->name());
    return out;
  }
  Json listAll() {
    std::optional<Json> result;
    mcp_.listServersWithCompletion([&](Json servers) { result = std::move(servers); });
    EXPECT_FALSE(result.has_value()) << "the listing always completes later";
    EXPECT_TRUE(pumpUntil([&] { return result.has_value(); }));
    return result.value_or(Json());
  }
  Json call(const std::optional<std::string>& server, const std::optional<std::string>& tool, const Json& args) {
    std::optional<Json> result;
    mcp_.callTool(server, tool, args, [&](Json r) { result = std::move(r); });
    EXPECT_TRUE(pumpUntil([&] { return result.has_value(); }));
    return result.value_or(Json());
  }
};

TEST_F(McpRegistry, MissingOrEmptyFileIsCreatedWithTheDefaultContent) {
  Json read = ClientMcp::readConfig();
  EXPECT_EQ(read, (Json{{"path", configPath().string()}, {"content", kDefault}}));
  EXPECT_EQ(readText(configPath()), kDefault);
  EXPECT_TRUE(logged("[MCP] created default config at ~/.config/ondrel/config.json"));

  writeConfig("");
  LogCapture::instance().clear();
  mcp_.loadConfig();
  EXPECT_EQ(readText(configPath()), kDefault) << "an empty file is replaced";
  EXPECT_TRUE(logged("[MCP] created default config at ~/.config/ondrel/config.json"));
  EXPECT_TRUE(logged("[MCP] no mcpServers configured"));

  writeConfig("{\"server\": \"x\"}");
  LogCapture::instance().clear();
  EXPECT_EQ(ClientMcp::ensureConfigFile(), configPath().string());
  EXPECT_EQ(readText(configPath()), "{\"server\": \"x\"}") << "a file with content is left alone";
  EXPECT_FALSE(logged("[MCP] created default config at ~/.config/ondrel/config.json"));

  writeConfig("{\"a\": \"\xff\"}");
  EXPECT_EQ(ClientMcp::readConfig()["content"], "") << "text that is not UTF-8 reads as empty";
}

TEST_F(McpRegistry, WriteRefusesWhatIsNotAJsonObject) {
  EXPECT_EQ(mcp_.writeConfig(Json(42)), "Config content must be a non-empty string");
  EXPECT_EQ(mcp_.writeConfig(Json("")), "Config content must be a non-empty string");
  EXPECT_EQ(mcp_.writeConfig(Json("{oops")), "Invalid JSON — the file must contain a JSON object");
  EXPECT_EQ(mcp_.writeConfig(Json("[1, 2]")), "Invalid JSON — the file must contain a JSON object");
  EXPECT_FALSE(fs::exists(configPath())) << "nothing written";
}

TEST_F(McpRegistry, WriteReportsTheFileSystemsReason) {
  writeText(home() / ".config/ondrel", "a file where the folder should be");
  auto error = mcp_.writeConfig(Json("{}"));
  ASSERT_TRUE(error);
  EXPECT_NE(error->find("Not a directory"), std::string::npos) << *error;
}

TEST_F(McpRegistry, WriteKeepsTheTextAsGivenAndRestartsTheServers) {
  writeConfig(fakeConfig({{"one", {}}}));
  mcp_.loadConfig();
  ASSERT_EQ(mcp_.tasks().size(), 1u);
  auto before = mcp_.tasks()[0];

  std::string text = "{\"mcpServers\":{\"two\":{\"command\":\"" + fakeServer() + "\"}},   \"z\": 1}";
  EXPECT_EQ(mcp_.writeConfig(Json(text)), std::nullopt);
  EXPECT_EQ(readText(configPath()), text) << "not re-serialised";
  EXPECT_TRUE(logged("[MCP] config saved — restarting local MCP servers"));
  EXPECT_EQ(names(), std::vector<std::string>{"two"});
  EXPECT_FALSE(before->child()) << "the old server was stopped";
  EXPECT_TRUE(mcp_.tasks()[0]->isRunning());
}

TEST_F(McpRegistry, LoadStartsEveryUsableEntryAndSaysWhatItSkipped) {
  std::string script = fakeServer();
  writeConfig(R"({"mcpServers": {
      "alpha": {"command": ")" + script + R"(", "args": ["{}", 5]},
      "no-command": {"args": []},
      "empty": {"command": ""},
      "numeric": {"command": 12},
      "not-an-object": "npx",
      "ghost": {"command": "ondrel-no-such-server-command"}
  }})");
  mcp_.loadConfig();
  EXPECT_EQ(names(), (std::vector<std::string>{"alpha", "ghost"}));
  for (const char* skipped : {"no-command", "empty", "numeric"})
    EXPECT_TRUE(logged(std::string("[MCP] server '") + skipped + "' has no command — skipped")) << skipped;
  EXPECT_EQ(LogCapture::instance().countStartingWith("[MCP] server 'not-an-object'"), 0u) << "skipped silently";
  EXPECT_TRUE(logged("[MCP] loaded 2 server(s) from " + configPath().string())) << "a failed launch still counts";
  EXPECT_TRUE(mcp_.tasks()[0]->isRunning());
}

TEST_F(McpRegistry, BrokenFileLeavesNoServerRunning) {
  writeConfig(fakeConfig({{"one", {}}}));
  mcp_.loadConfig();
  ASSERT_EQ(mcp_.tasks().size(), 1u);
  auto running = mcp_.tasks()[0];

  writeConfig("[\"not\", \"an object\"]");
  mcp_.loadConfig();
  EXPECT_TRUE(logged("[MCP] ~/.config/ondrel/config.json is not a JSON object"));
  EXPECT_TRUE(mcp_.tasks().empty());
  EXPECT_FALSE(running->child());

  for (const char* text : {R"({"mcpServers": []})", R"({"mcpServers": {}})", R"({"server": "x"})"}) {
    LogCapture::instance().clear();
    writeConfig(text);
    mcp_.loadConfig();
    EXPECT_TRUE(logged("[MCP] no mcpServers configured")) << text;
  }
}

TEST_F(McpRegistry, UnreadableFileSkipsTheClient) {
  fs::create_directories(configPath());  // a folder: exists, not empty-sized, unreadable as a file
  mcp_.loadConfig();
  EXPECT_TRUE(logged("[MCP] could not read " + configPath().string() + " — skipping client MCP"));
  EXPECT_TRUE(mcp_.tasks().empty());
}

TEST_F(McpRegistry, NamespacesFindTheFirstServerInRegistryOrder) {
  writeConfig(fakeConfig({{"Git Hub", {}}, {"git-hub", {}}, {"--git hub--", {}}}));
  mcp_.loadConfig();
  ASSERT_EQ(mcp_.tasks().size(), 3u);
  EXPECT_EQ(mcp_.taskNamed("it--ub"), mcp_.tasks()[0]);
  EXPECT_EQ(mcp_.taskNamed("git-hub"), mcp_.tasks()[1]) << "the later collision loses";
  EXPECT_EQ(mcp_.taskNamed("Git Hub"), nullptr) << "looked up by namespace, not by name";
  EXPECT_EQ(mcp_.taskNamed(std::nullopt), nullptr);
}

TEST_F(McpRegistry, ArgsAndEnvFromTheFileReachTheServer) {
  auto out = home() / "seen.txt";
  std::string script = writeExecutable(home() / "server.sh", R"(#!/bin/sh
{ printf '%s\n' "$@"; echo "TOKEN=$TOKEN"; echo "PORT=${PORT-unset}"; } > "$OUT.tmp" && mv "$OUT.tmp" "$OUT"
while read -r line; do :; done
)");
  Json config = {{"mcpServers",
                  {{"s", {{"command", script},
                          {"args", Json::parse(R"(["one", 2, "three"])")},
                          {"env", {{"TOKEN", "abc"}, {"PORT", 8080}, {"OUT", out.string()}}}}}}}};
  writeConfig(config.dump());
  unsetenv("PORT");
  mcp_.loadConfig();
  ASSERT_TRUE(pumpUntil([&] { return fs::exists(out); }));
  EXPECT_EQ(readText(out), "one\nthree\nTOKEN=abc\nPORT=unset\n");
}

TEST_F(McpRegistry, ListingGivesOneDescriptorPerServerEvenWhenOneFails) {
  Json tools = Json::parse(R"([{"name":"echo","description":"Echo","inputSchema":{"type":"object"}}, "junk", {"name":"bare"}])");
  writeConfig(fakeConfig({{"Good One", {{"tools", tools}}},
                          {"broken", {{"initError", {{"code", -1}, {"message", "handshake refused"}}}}},
                          {"other", {{"tools", Json::array()}}}}));
  mcp_.loadConfig();
  Json servers = listAll();
  ASSERT_EQ(servers.size(), 3u);
  std::map<std::string, Json> byName;
  for (const auto& s : servers) byName[s["name"]] = s;
  std::string script = fakeServer();
  EXPECT_EQ(byName["ood--ne"], (Json{{"name", "ood--ne"}, {"command", script},
                                    {"tools", Json::parse(R"([{"name":"echo","description":"Echo","inputSchema":{"type":"object"}},
                                                               {"name":"bare","inputSchema":{"type":"object","properties":{}}}])")}}));
  EXPECT_EQ(byName["broken"], (Json{{"name", "broken"}, {"command", script}, {"error", "handshake refused"}}));
  EXPECT_EQ(byName["other"]["tools"], Json::array());
  EXPECT_TRUE(logged("[MCP broken] tools/list failed: handshake refused"));

  // Now cached (and the broken one fails again): cached listings come first.
  Json again = listAll();
  ASSERT_EQ(again.size(), 3u);
  EXPECT_EQ(again[0]["name"], "ood--ne");
  EXPECT_EQ(again[1]["name"], "other");
  EXPECT_EQ(again[2]["name"], "broken");
}

TEST_F(McpRegistry, ListingErrorsWithoutAMessage) {
  writeConfig(fakeConfig({{"coded", {{"listError", {{"code", 5}}}}}, {"dead", {{"initSilent", true}}}}));
  mcp_.loadConfig();
  mcp_.tasks()[1]->stop();  // the client's own error
  Json servers = listAll();
  std::map<std::string, Json> byName;
  for (const auto& s : servers) byName[s["name"]] = s;
  EXPECT_EQ(byName["coded"]["error"], "MCP server failed");
  EXPECT_TRUE(logged("[MCP coded] tools/list failed: {\"code\":5}"));
  EXPECT_EQ(byName["dead"]["error"], "MCP server 'dead' stopped");
}

TEST_F(McpRegistry, CallingByNamespace) {
  writeConfig(fakeConfig({{"Files", {}}}));
  mcp_.loadConfig();

  bool atOnce = false;
  Json unknown;
  mcp_.callTool("files", "echo", Json::object(), [&](Json r) {
    atOnce = true;
    unknown = r;
  });
  EXPECT_TRUE(atOnce) << "an unknown server answers before the call returns";
  EXPECT_EQ(unknown, (Json{{"error", "unknown MCP server 'files'"}})) << "'Files' is 'iles'";
  EXPECT_EQ(call(std::nullopt, "echo", Json::object()), (Json{{"error", "unknown MCP server ''"}}));

  Json ok = call("iles", "echo", Json{{"m", 1}});
  ASSERT_TRUE(ok["text"].is_string()) << ok;
  EXPECT_EQ(Json::parse(ok["text"].get<std::string>()), (Json{{"name", "echo"}, {"arguments", {{"m", 1}}}}));
  Json noTool = call("iles", std::nullopt, Json::object());
  EXPECT_EQ(Json::parse(noTool["text"].get<std::string>())["name"], "");

  EXPECT_EQ(call("iles", "t", {{"script", {{{"error", {{"code", 1}, {"message", "tool blew up"}}}}}}}),
            (Json{{"error", "tool blew up"}}));
  EXPECT_EQ(call("iles", "t", {{"script", {{{"error", {{"code", 1}}}}}}}), (Json{{"error", {{"code", 1}}}}))
      << "an error without a message is passed on whole";
  EXPECT_EQ(call("iles", "t", {{"script", {{{"error", nullptr}}}}}), (Json{{"error", "MCP call failed"}}));
  EXPECT_EQ(call("iles", "t", {{"script", {{{"respond", {{"content", Json::array()}, {"isError", true}}}}}}}),
            (Json{{"isError", true}}));
}

TEST_F(McpRegistry, ReloadOrQuitAnswersCallsAndListingsInFlight) {
  struct Case {
    const char* what;
    std::function<void(const std::string& config)> end;
    const char* outcome;
  };
  const Case cases[] = {
      {"saved from the page", [this](const std::string& config) { mcp_.writeConfig(Json(config)); }, "restarted"},
      {"edited on disk", [this](const std::string&) { mcp_.configDidChange(); }, "restarted"},
      {"the app quits", [this](const std::string&) { mcp_.shutdown(); }, "stopped"},
  };
  for (const auto& c : cases) {
    // "mute" never finishes its handshake; "busy" would take its time with the call.
    std::string config = fakeConfig({{"busy", {}}, {"mute", {{"initSilent", true}}}});
    writeConfig(config);
    mcp_.loadConfig();
    std::optional<Json> called, listed;
    mcp_.callTool("busy", "t", {{"script", {{{"sleep", 30}}}}}, [&](Json r) { called = std::move(r); });
    mcp_.listServersWithCompletion([&](Json r) { listed = std::move(r); });
    c.end(config);  // both still in their handshakes
    ASSERT_TRUE(pumpUntil([&] { return called && listed; }, 5)) << c.what;
    EXPECT_EQ(*called, (Json{{"error", std::string("MCP server 'busy' ") + c.outcome}})) << c.what;
    ASSERT_EQ(listed->size(), 2u) << c.what;
    for (const auto& server : *listed)
      EXPECT_EQ(server["error"], "MCP server '" + server["name"].get<std::string>() + "' " + c.outcome) << c.what;
  }
}

TEST_F(McpRegistry, ShutdownEndsEveryServerAndKeepsTheList) {
  writeConfig(fakeConfig({{"a", {}}, {"b", {}}}));
  mcp_.loadConfig();
  std::vector<std::shared_ptr<ChildProcess>> children;
  for (auto& task : mcp_.tasks()) children.push_back(task->child());
  mcp_.shutdown();
  EXPECT_EQ(mcp_.tasks().size(), 2u);
  for (auto& child : children) EXPECT_TRUE(child->reaped()) << "shutdown waits for the processes to end";
}

TEST_F(McpRegistry, ChangeOnDiskReloadsOnlyAValidFile) {
  writeConfig(fakeConfig({{"a", {}}}));
  mcp_.loadConfig();
  auto first = mcp_.tasks().at(0);

  writeConfig("{ not json");
  mcp_.configDidChange();
  EXPECT_TRUE(logged("[MCP] config.json changed on disk but is not valid JSON — keeping current servers"));
  pumpFor(0.1);
  EXPECT_EQ(mcp_.tasks().at(0), first);

  writeConfig(fakeConfig({{"b", {}}}));
  mcp_.configDidChange();
  EXPECT_TRUE(logged("[MCP] config.json changed on disk — reloading servers"));
  ASSERT_TRUE(pumpUntil([&] { return names() == std::vector<std::string>{"b"}; }));

  fs::remove(configPath());
  LogCapture::instance().clear();
  mcp_.configDidChange();
  EXPECT_TRUE(LogCapture::instance().lines().empty()) << "an unreadable file changes nothing";
}
