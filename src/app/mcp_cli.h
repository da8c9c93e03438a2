#pragma once

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "base/json.h"

class ClientMcp;

// `ondrel mcp list` and `ondrel mcp call SERVER TOOL [JSON-ARGS]`: the
// window's MCP client in a terminal, so a server that will not start can be
// looked into without opening the window and its log. The same settings
// file, PATH probe, client and result conversion; the servers are stopped
// and reaped before it returns. No display is needed.
//
// args are those after "mcp"; mcp is the registry the command runs. Returns
// the exit status: 0 done, 1 a server or tool failed, 2 the command line was
// wrong, 130 interrupted.
int ondrelMcpCommand(ClientMcp& mcp, const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

// What `list` knows about one configured server once the listing is over.
struct McpServerReport {
  std::string name;                     // as configured
  std::string ns;                       // what `call` and the web application address it by
  std::optional<Json> tools;            // the listing's tool descriptors when it answered
  bool launched = true;                 // false: no process was started
  std::string failure;                  // why not: the launch failure, or the client's error
  std::optional<int> exitStatus;        // waitpid status, when it ended by itself
  std::string standardError;            // what it wrote there
};

// The report of `list`, one block per server in configuration order.
std::string ondrelFormatServerReports(const std::vector<McpServerReport>& servers);

// A converted tool result for a terminal: text as text, each image as a line
// naming its type and size, structured content as JSON when there is no
// text. The status is 1 when the tool reported an error.
struct McpCallOutput {
  std::string text;
  int status = 0;
};
McpCallOutput ondrelFormatToolResult(const Json& result);
