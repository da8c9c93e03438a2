#include "app/command_line.h"

#include <algorithm>

#include "app/mcp_cli.h"
#include "mcp/client_mcp.h"
#include "update/version.h"

namespace {

constexpr const char* kUsage =
    "Usage: ondrel [SERVER]\n"
    "       ondrel mcp list\n"
    "       ondrel mcp call SERVER TOOL [JSON-ARGS]\n"
    "\n"
    "Opens the Ondrel window on SERVER: an instance name, a host or a URL.\n"
    "Without it, \"server\" from ~/.config/ondrel/config.json is used, and\n"
    "failing that a small window asks for it.\n"
    "\n"
    "  mcp list    start the MCP servers of ~/.config/ondrel/config.json, show\n"
    "              whether each one runs (or why not) and its tools, then stop them\n"
    "  mcp call    call one tool of a server (named as \"mcp list\" shows it) with\n"
    "              a JSON object of arguments, and print the result\n"
    "  --version   print the version and exit\n"
    "  --help      print this help and exit\n";

bool has(const std::vector<std::string>& args, std::initializer_list<const char*> options) {
  return std::any_of(args.begin(), args.end(), [&](const std::string& arg) {
    return std::any_of(options.begin(), options.end(), [&](const char* option) { return arg == option; });
  });
}

}  // namespace

std::optional<int> ondrelRunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  // "mcp" first: its own arguments (a JSON text, a tool name) may be anything.
  if (!args.empty() && args[0] == "mcp") {
    ClientMcp mcp;
    return ondrelMcpCommand(mcp, {args.begin() + 1, args.end()}, out, err);
  }
  if (has(args, {"--help", "-h"})) {
    out << kUsage;
    return 0;
  }
  if (has(args, {"--version"})) {
    out << "Ondrel " << ondrelCurrentVersion() << " (build " << ondrelCurrentBuild() << ")\n";
    return 0;
  }
  return std::nullopt;
}
