#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/json.h"

class ConfigWatch;
class McpServerContext;
class McpTask;

// The registry of local MCP servers: owns the "mcpServers" entries of
// ~/.config/ondrel/config.json, runs one McpTask per entry, restarts them
// all when the file changes, and offers the web application listing and
// calling under namespaced server names. Main thread only. The app keeps
// one for its whole run; destroying it ends its servers.
class ClientMcp {
 public:
  // Starts nothing: loadConfig() starts the servers, watchConfigFile() the
  // settings watch.
  ClientMcp();
  // shutdown().
  ~ClientMcp();
  ClientMcp(const ClientMcp&) = delete;
  ClientMcp& operator=(const ClientMcp&) = delete;

  // The settings file's path, after creating it ("mcpServers": {}) when it
  // is missing or empty.
  static std::string ensureConfigFile();
  // {"path": ..., "content": the text, or "" when it cannot be read}.
  static Json readConfig();
  // nullopt when saved (and the servers restarted), else the reason.
  std::optional<std::string> writeConfig(const Json& content);
  // Stops every server and starts the configured ones. Calls and listings
  // in flight on the old servers answer "MCP server '<name>' restarted".
  void loadConfig();
  // Stops every server and waits (2.5 s at most) until each one's process
  // group is gone and its standard error logged, so no server outlives the
  // app and its last words are kept. What was in flight answers
  // "MCP server '<name>' stopped".
  void shutdown();
  // Reloads on changes in the settings directory, from the main loop; only
  // the first call acts.
  void watchConfigFile();

  // The servers of the current configuration, in the order they were
  // created. Replaced wholesale by every load.
  const std::vector<std::shared_ptr<McpTask>>& tasks() const { return mcpTasks_; }

  static std::string namespaceFor(const std::string& name);
  // The first server in registry order whose name maps to the namespace.
  std::shared_ptr<McpTask> taskNamed(const std::optional<std::string>& ns) const;

  // Completion later on the main thread with one descriptor per server:
  // {"name", "command", "tools"} or {"name", "command", "error"}.
  void listServersWithCompletion(std::function<void(Json servers)> completion);
  // Completion on the main thread (at once for an unknown server) with the
  // converted result or {"error": text}.
  void callTool(const std::optional<std::string>& server, const std::optional<std::string>& tool, const Json& args,
                std::function<void(Json result)> completion);

  // The check the settings watch runs after a change: reload when the file
  // parses to an object.
  void configDidChange();

  // The descriptor the listing gives for one of a server's tools.
  static Json toolDescriptor(const Json& tool);

 private:
  std::vector<std::shared_ptr<McpTask>> mcpTasks_;
  std::shared_ptr<McpServerContext> context_;
  std::unique_ptr<ConfigWatch> watch_;
};
