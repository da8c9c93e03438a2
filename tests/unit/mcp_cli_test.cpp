// What `ondrel mcp` prints for a tool's result and for the servers' states.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <tuple>

#include "app/mcp_cli.h"

namespace {

TEST(McpCliOutput, ToolResultsReadAsTextWithImagesNamedAndErrorsInTheStatus) {
  // Text that ends in a newline is the end-to-end test's.
  const std::tuple<const char*, std::string, int> cases[] = {
      {R"({"text": "Echo: hi"})", "Echo: hi\n", 0},
      {R"({"text": ""})", "", 0},
      {R"({"isError": true, "text": "Access denied"})", "Access denied\n", 1},
      // The PNG signature (8 bytes) once padded, once not, and 4 bytes with two "=".
      {R"({"text": "logo", "images": [{"mimeType": "image/png", "data": "iVBORw0KGgo="},
                                      {"mimeType": "image/gif", "data": "R0lGODlh"},
                                      {"mimeType": "image/png", "data": "AAAAAA=="}]})",
       "logo\n[image: image/png, 8 bytes]\n[image: image/gif, 6 bytes]\n[image: image/png, 4 bytes]\n", 0},
      {R"({"structuredContent": {"temperature": 21}})", "{\n  \"temperature\": 21\n}\n", 0},
      {R"({"structuredContent": {"temperature": 21}, "text": "21 degrees"})", "21 degrees\n", 0},
  };
  for (const auto& [result, text, status] : cases) {
    McpCallOutput output = ondrelFormatToolResult(Json::parse(result));
    EXPECT_EQ(std::make_pair(output.text, output.status), std::make_pair(text, status)) << result;
  }
}

TEST(McpCliOutput, EachServerSaysWhetherItRunsOrWhyNot) {
  McpServerReport running{"Files", "iles", Json::parse(R"([
      {"name": "read", "description": "Reads a file. Only inside the allowed folders.\nMore."},
      {"name": "stat"}])"), true, "", std::nullopt, ""};
  McpServerReport missing{"gh", "gh", std::nullopt, false, "command not found: gh-mcp", std::nullopt, ""};
  std::string stderrText;
  for (int i = 1; i <= 12; ++i) stderrText += "line " + std::to_string(i) + "\n\n";
  McpServerReport crashed{"db", "db", std::nullopt, true, "MCP server 'db' exited unexpectedly", W_EXITCODE(3, 0),
                          stderrText};
  McpServerReport killed{"k", "k", std::nullopt, true, "MCP server 'k' exited unexpectedly", SIGKILL, ""};
  McpServerReport silent{"slow", "slow", std::nullopt, true,
                         "MCP server 'slow' did not respond to 'initialize' within 45s", std::nullopt, "ignored\n"};

  std::string expected = "iles (\"Files\"): running, 2 tools\n"
                         "  read — Reads a file.\n"
                         "  stat\n"
                         "gh: not running: command not found: gh-mcp\n"
                         "db: not running: MCP server 'db' exited unexpectedly (exit status 3)\n";
  for (int i = 3; i <= 12; ++i) expected += "  stderr: line " + std::to_string(i) + "\n";
  expected += "k: not running: MCP server 'k' exited unexpectedly (killed by signal 9 (Killed))\n"
              "slow: no answer: MCP server 'slow' did not respond to 'initialize' within 45s\n"
              "  stderr: ignored\n";
  EXPECT_EQ(ondrelFormatServerReports({running, missing, crashed, killed, silent}), expected);
  EXPECT_EQ(ondrelFormatServerReports({}),
            "No MCP servers are configured under \"mcpServers\" in ~/.config/ondrel/config.json.\n");
}

}  // namespace
