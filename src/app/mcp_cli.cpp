// `ondrel mcp list|call`: runs the registry on the GLib main loop, without
// GTK, and reports what it saw.

#include "app/mcp_cli.h"

#include <glib-unix.h>
#include <glib.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <memory>

#include "base/settings.h"
#include "mcp/child_process.h"
#include "mcp/client_mcp.h"
#include "mcp/mcp_task.h"
#include "mcp/server_config.h"

namespace {

constexpr const char* kMcpUsage =
    "Usage: ondrel mcp [-v] list\n"
    "       ondrel mcp [-v] call SERVER TOOL [JSON-ARGS]\n"
    "\n"
    "  list   start the servers under \"mcpServers\" in ~/.config/ondrel/config.json,\n"
    "         show whether each one runs (or why not) and its tools, stop them\n"
    "  call   call TOOL of SERVER (its name as \"list\" shows it) with a JSON object\n"
    "         of arguments (default {}) and print the result\n"
    "  -v     also print the log lines the window's log panel would show\n";

constexpr int kUsageStatus = 2;
constexpr int kInterruptedStatus = 130;

struct Command {
  bool list = true;
  bool verbose = false;
  std::string server, tool;
  Json args = Json::object();
};

// nullopt with a reason written to err when the command line is wrong.
std::optional<Command> parse(std::vector<std::string> args, std::ostream& err) {
  Command command;
  if (!args.empty() && (args[0] == "-v" || args[0] == "--verbose")) {
    command.verbose = true;
    args.erase(args.begin());
  }
  auto usage = [&err](const std::string& problem) {
    err << "ondrel mcp: " << problem << "\n" << kMcpUsage;
    return std::nullopt;
  };
  if (args.empty()) return usage("list or call?");
  if (args[0] == "list") {
    if (args.size() != 1) return usage("list takes no arguments");
    return command;
  }
  if (args[0] != "call") return usage("unknown command '" + args[0] + "'");
  if (args.size() < 3 || args.size() > 4) return usage("call takes SERVER TOOL [JSON-ARGS]");
  command.list = false;
  command.server = args[1];
  command.tool = args[2];
  if (args.size() == 4) {
    auto parsed = parseJson(args[3]);
    if (!parsed || !parsed->is_object()) return usage("JSON-ARGS must be a JSON object, e.g. '{\"path\": \"/tmp\"}'");
    command.args = std::move(*parsed);
  }
  return command;
}

// The report is the answer; the log (the same lines as the window's log
// panel) only reaches standard error when asked for.
GLogWriterOutput writeLog(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer verbose) {
  if (!verbose) {
    for (gsize i = 0; i < count; ++i)
      if (std::strcmp(fields[i].key, "GLIB_DOMAIN") == 0 && std::strcmp(static_cast<const char*>(fields[i].value), "ondrel") == 0)
        return G_LOG_WRITER_HANDLED;
  }
  return g_log_writer_default(level, fields, count, nullptr);
}

// Runs the main loop until done() holds; false when SIGINT or SIGTERM came first.
bool runUntil(const std::function<bool()>& done) {
  bool interrupted = false;
  auto onSignal = +[](gpointer flag) -> gboolean {
    *static_cast<bool*>(flag) = true;
    return G_SOURCE_CONTINUE;
  };
  guint sigint = g_unix_signal_add(SIGINT, onSignal, &interrupted);
  guint sigterm = g_unix_signal_add(SIGTERM, onSignal, &interrupted);
  while (!done() && !interrupted) g_main_context_iteration(nullptr, TRUE);
  g_source_remove(sigint);
  g_source_remove(sigterm);
  return !interrupted;
}

std::string errorText(const Json& value) { return value.is_string() ? value.get<std::string>() : describeJson(value); }

// One configured server as the registry started it.
struct Started {
  std::shared_ptr<McpTask> task;
  std::shared_ptr<ChildProcess> child;  // kept past stop(), for its exit status
  bool endedByItself = false;           // noted before the servers are stopped
};

std::vector<Started> startServers(ClientMcp& mcp) {
  mcp.loadConfig();
  std::vector<Started> started;
  for (auto& task : mcp.tasks()) started.push_back({task, task->child()});
  return started;
}

// Stops every server and waits until each has been reaped and has said its
// last words, noting first which ones had already ended by themselves.
void stopServers(ClientMcp& mcp, std::vector<Started>& started) {
  for (auto& s : started) s.endedByItself = s.child && !s.task->isRunning();
  mcp.shutdown();
}

McpServerReport reportFor(const Started& s, const std::string& failure) {
  McpServerReport report;
  report.name = s.task->name();
  report.ns = ClientMcp::namespaceFor(report.name);
  report.launched = s.task->launchFailure().empty();
  report.failure = report.launched ? failure : s.task->launchFailure();
  if (s.endedByItself && s.child->reaped()) report.exitStatus = s.child->waitStatus();
  report.standardError = s.task->standardError();
  return report;
}

int list(ClientMcp& mcp, std::ostream& out, std::ostream& err) {
  auto started = startServers(mcp);
  auto listing = std::make_shared<std::optional<Json>>();
  mcp.listServersWithCompletion([listing](Json servers) { *listing = std::move(servers); });
  bool completed = runUntil([&] { return listing->has_value(); });
  stopServers(mcp, started);
  if (!completed) {
    err << "ondrel mcp: interrupted\n";
    return kInterruptedStatus;
  }
  auto config = ondrelReadConfig();
  if (!config) {
    err << "ondrel mcp: ~/.config/ondrel/config.json is not a JSON object\n";
    return 1;
  }

  // In the file's order, with the entries the registry skipped: a server
  // that does not start for want of a command is what this is for.
  std::vector<McpServerReport> reports;
  std::vector<bool> taken((*listing)->size());
  auto servers = config->find("mcpServers");
  if (servers != config->end() && servers->is_object()) {
    for (const auto& [name, entry] : servers->items()) {
      if (!entry.is_object()) continue;
      auto s = std::find_if(started.begin(), started.end(), [&](const Started& s) { return s.task->name() == name; });
      if (s == started.end()) {
        McpServerReport skipped;
        skipped.name = name;
        skipped.ns = ClientMcp::namespaceFor(name);
        skipped.launched = false;
        skipped.failure = "its entry has no \"command\"";
        reports.push_back(std::move(skipped));
        continue;
      }
      // The listing names servers by namespace, in the order they answered.
      const Json* descriptor = nullptr;
      for (size_t i = 0; i < taken.size() && !descriptor; ++i) {
        const Json& candidate = (**listing)[i];
        if (!taken[i] && candidate.value("name", std::string()) == ClientMcp::namespaceFor(name)) {
          taken[i] = true;
          descriptor = &candidate;
        }
      }
      auto error = descriptor ? descriptor->find("error") : Json::const_iterator();
      bool failed = !descriptor || error != descriptor->end();
      McpServerReport report = reportFor(*s, failed && descriptor ? errorText(*error) : std::string());
      if (!failed) report.tools = descriptor->at("tools");
      reports.push_back(std::move(report));
    }
  }
  out << ondrelFormatServerReports(reports);
  bool allRunning = std::all_of(reports.begin(), reports.end(), [](const McpServerReport& r) { return r.tools; });
  return allRunning ? 0 : 1;
}

int call(ClientMcp& mcp, const Command& command, std::ostream& out, std::ostream& err) {
  auto started = startServers(mcp);
  auto result = std::make_shared<std::optional<Json>>();
  mcp.callTool(command.server, command.tool, command.args, [result](Json r) { *result = std::move(r); });
  bool completed = runUntil([&] { return result->has_value(); });
  stopServers(mcp, started);
  if (!completed) {
    err << "ondrel mcp: interrupted\n";
    return kInterruptedStatus;
  }

  const Json& answer = **result;
  auto error = answer.find("error");
  if (error == answer.end()) {
    McpCallOutput output = ondrelFormatToolResult(answer);
    out << output.text;
    return output.status;
  }
  auto s = std::find_if(started.begin(), started.end(),
                        [&](const Started& s) { return ClientMcp::namespaceFor(s.task->name()) == command.server; });
  if (s != started.end() && (!s->task->launchFailure().empty() || s->endedByItself)) {
    // Why the server was not there to answer, with its last words.
    err << ondrelFormatServerReports({reportFor(*s, errorText(*error))});
    return 1;
  }
  err << "ondrel mcp: " << errorText(*error) << "\n";
  if (s == started.end()) {
    std::string names;
    for (const auto& other : started) names += (names.empty() ? "" : ", ") + ClientMcp::namespaceFor(other.task->name());
    err << "Configured servers: " << (names.empty() ? "none" : names) << "\n";
  }
  return 1;
}

}  // namespace

int ondrelMcpCommand(ClientMcp& mcp, const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  auto command = parse(args, err);
  if (!command) return kUsageStatus;
  g_log_set_writer_func(writeLog, command->verbose ? GINT_TO_POINTER(1) : nullptr, nullptr);
  return command->list ? list(mcp, out, err) : call(mcp, *command, out, err);
}
