#include "mcp/client_mcp.h"

#include <sys/stat.h>

#include "base/files.h"
#include "base/log.h"
#include "base/main_thread.h"
#include "base/paths.h"
#include "base/text.h"
#include "mcp/child_process.h"
#include "mcp/config_watch.h"
#include "mcp/mcp_task.h"
#include "mcp/server_config.h"

namespace {

constexpr const char* kDefaultConfig = "{\n  \"mcpServers\": {\n  }\n}\n";

// Text for a log line or an error member: strings as they are, anything
// else as compact JSON.
std::string asText(const Json& value) { return value.is_string() ? value.get<std::string>() : describeJson(value); }

}  // namespace

ClientMcp::ClientMcp() : context_(std::make_shared<McpServerContext>()) {}

ClientMcp::~ClientMcp() { shutdown(); }

std::string ClientMcp::ensureConfigFile() {
  std::string path = ondrelConfigPath();
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && st.st_size != 0) return path;
  makeDirectories(parentDirectory(path));
  writeFileAtomically(path, kDefaultConfig);
  logLine("[MCP] created default config at ~/.config/ondrel/config.json");
  return path;
}

Json ClientMcp::readConfig() {
  std::string path = ensureConfigFile();
  auto text = readWholeFile(path);
  return Json{{"path", path}, {"content", text && isValidUtf8(*text) ? *text : std::string()}};
}

std::optional<std::string> ClientMcp::writeConfig(const Json& content) {
  if (!content.is_string() || content.get_ref<const std::string&>().empty())
    return std::string("Config content must be a non-empty string");
  const auto& text = content.get_ref<const std::string&>();
  auto parsed = parseJson(text);
  if (!parsed || !parsed->is_object()) return std::string("Invalid JSON — the file must contain a JSON object");

  std::string path = ondrelConfigPath();
  auto dir = makeDirectories(parentDirectory(path));
  if (!dir.ok) return dir.error.empty() ? std::string("Could not write the config file") : dir.error;
  // The user's text is written as given: their formatting and key order stay.
  auto written = writeFileAtomically(path, text);
  if (!written.ok) return written.error.empty() ? std::string("Could not write the config file") : written.error;

  logLine("[MCP] config saved — restarting local MCP servers");
  loadConfig();
  return std::nullopt;
}

void ClientMcp::loadConfig() {
  // What is in flight on the old servers answers at once, with the reason.
  for (auto& task : mcpTasks_) task->stop("restarted");
  mcpTasks_.clear();

  std::string path = ensureConfigFile();
  auto bytes = readWholeFile(path);
  if (!bytes) {
    logLine("[MCP] could not read " + path + " — skipping client MCP");
    return;
  }
  auto config = parseJson(*bytes);
  if (!config || !config->is_object()) {
    logLine("[MCP] ~/.config/ondrel/config.json is not a JSON object");
    return;
  }

  auto servers = config->find("mcpServers");
  if (servers == config->end() || !servers->is_object() || servers->empty()) {
    logLine("[MCP] no mcpServers configured");
    return;
  }
  for (const auto& [name, entry] : servers->items()) {
    if (!entry.is_object()) continue;
    auto command = entry.find("command");
    if (command == entry.end() || !command->is_string() || command->get_ref<const std::string&>().empty()) {
      logLine("[MCP] server '" + name + "' has no command — skipped");
      continue;
    }
    auto args = entry.find("args");
    auto env = entry.find("env");
    auto task = McpTask::create(context_, name, command->get<std::string>(), ondrelMcpArgs(args != entry.end() ? *args : Json()),
                                ondrelMcpEnv(env != entry.end() ? *env : Json()));
    mcpTasks_.push_back(task);
    task->start();
  }
  logLine("[MCP] loaded " + std::to_string(mcpTasks_.size()) + " server(s) from " + path);
}

void ClientMcp::shutdown() {
  std::vector<std::shared_ptr<ChildProcess>> children;
  for (auto& task : mcpTasks_) {
    if (auto child = task->child()) children.push_back(child);
    task->stop();
  }
  // Past SIGKILL's 2 s nothing of the group can be left; a little slack for
  // the watcher to see it and to log what the server said on its way out.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
  for (auto& child : children) {
    double left = std::chrono::duration<double>(deadline - std::chrono::steady_clock::now()).count();
    if (left <= 0 || !child->waitUntilFinished(left)) break;
  }
}

void ClientMcp::configDidChange() {
  auto bytes = readWholeFile(ondrelConfigPath());
  if (!bytes) return;
  auto config = parseJson(*bytes);
  if (config && config->is_object()) {
    logLine("[MCP] config.json changed on disk — reloading servers");
    loadConfig();
  } else {
    logLine("[MCP] config.json changed on disk but is not valid JSON — keeping current servers");
  }
}

void ClientMcp::watchConfigFile() {
  if (!watch_) watch_ = ConfigWatch::start(parentDirectory(ondrelConfigPath()), [this] { configDidChange(); });
}

std::string ClientMcp::namespaceFor(const std::string& name) { return ondrelMcpNamespace(name); }

std::shared_ptr<McpTask> ClientMcp::taskNamed(const std::optional<std::string>& ns) const {
  if (!ns) return nullptr;
  for (auto& task : mcpTasks_)
    if (namespaceFor(task->name()) == *ns) return task;
  return nullptr;
}

Json ClientMcp::toolDescriptor(const Json& tool) {
  Json descriptor = Json::object();
  auto name = tool.find("name");
  descriptor["name"] = name != tool.end() && name->is_string() ? *name : Json("tool");
  auto description = tool.find("description");
  if (description != tool.end() && description->is_string()) descriptor["description"] = *description;
  auto schema = tool.find("inputSchema");
  descriptor["inputSchema"] = schema != tool.end() && schema->is_object()
                                  ? *schema
                                  : Json{{"type", "object"}, {"properties", Json::object()}};
  return descriptor;
}

void ClientMcp::listServersWithCompletion(std::function<void(Json servers)> completion) {
  // A group: one count per server plus one held while servers are still
  // being asked, so cached answers (given at once) cannot finish it early.
  struct Group {
    Json results = Json::array();
    size_t outstanding = 1;
    std::function<void(Json)> completion;
    void leave() {
      if (--outstanding == 0) runOnMain([c = std::move(completion), r = std::move(results)]() mutable { c(std::move(r)); });
    }
  };
  auto group = std::make_shared<Group>();
  group->completion = std::move(completion);

  for (auto& task : mcpTasks_) {
    ++group->outstanding;
    std::string ns = namespaceFor(task->name());
    std::string name = task->name();
    std::string command = task->command();
    task->listToolsWithCompletion([group, ns, name, command](bool ok, const Json& tools, const Json& error) {
      Json descriptor = {{"name", ns}, {"command", command}};
      if (ok) {
        Json list = Json::array();
        if (tools.is_array())
          for (const auto& tool : tools)
            if (tool.is_object()) list.push_back(toolDescriptor(tool));
        descriptor["tools"] = std::move(list);
      } else {
        const Json* message = ondrelErrorMessage(error);
        std::string said = message ? asText(*message) : error.is_null() ? std::string("error") : asText(error);
        logLine("[MCP " + name + "] tools/list failed: " + said);
        descriptor["error"] = message ? *message : Json("MCP server failed");
      }
      group->results.push_back(std::move(descriptor));
      group->leave();
    });
  }
  group->leave();
}

void ClientMcp::callTool(const std::optional<std::string>& server, const std::optional<std::string>& tool,
                         const Json& args, std::function<void(Json result)> completion) {
  auto task = taskNamed(server);
  if (!task) {
    completion(Json{{"error", "unknown MCP server '" + server.value_or("") + "'"}});
    return;
  }
  task->callTool(tool.value_or(""), args, [completion](bool ok, const Json& result, const Json& error) {
    if (ok) {
      completion(result.is_null() ? Json::object() : result);
      return;
    }
    const Json* message = ondrelErrorMessage(error);
    Json reason = message ? *message : error.is_null() ? Json("MCP call failed") : error;
    completion(Json{{"error", reason}});
  });
}
