#include "app/command_line.h"

#include <gtest/gtest.h>

#include <sstream>

#include "build_config.h"

namespace {

struct Case {
  std::vector<std::string> args;
  std::optional<int> status;
  std::string outStart;  // what standard output begins with
  std::string errStart;  // what standard error begins with
};

TEST(CommandLine, AnswersWithoutAWindowOrLeavesItToTheWindow) {
  const std::string version =
      std::string("Ondrel ") + ondrel::build::kVersion + " (build " + ondrel::build::kBuild + ")\n";
  const Case cases[] = {
      {{"team"}, std::nullopt, "", ""},
      {{"--gdk-debug=events"}, std::nullopt, "", ""},  // GTK's own options
      {{"team", "--version"}, 0, version, ""},
      {{"--help"}, 0, "Usage: ondrel [SERVER]\n", ""},
      {{"-h", "--version"}, 0, "Usage: ondrel [SERVER]\n", ""},
      // The mcp commands' own mistakes are told before any server starts.
      {{"mcp"}, 2, "", "ondrel mcp: list or call?\nUsage: ondrel mcp [-v] list\n"},
      {{"mcp", "-v", "lists"}, 2, "", "ondrel mcp: unknown command 'lists'\n"},
      {{"mcp", "list", "fs"}, 2, "", "ondrel mcp: list takes no arguments\n"},
      {{"mcp", "call", "fs"}, 2, "", "ondrel mcp: call takes SERVER TOOL [JSON-ARGS]\n"},
      {{"mcp", "call", "fs", "read", "[\"/tmp\"]"}, 2, "", "ondrel mcp: JSON-ARGS must be a JSON object"},
  };
  for (const auto& c : cases) {
    std::ostringstream out, err;
    EXPECT_EQ(ondrelRunCommandLine(c.args, out, err), c.status) << testing::PrintToString(c.args);
    EXPECT_EQ(out.str().substr(0, c.outStart.size()), c.outStart) << testing::PrintToString(c.args);
    EXPECT_EQ(err.str().substr(0, c.errStart.size()), c.errStart) << testing::PrintToString(c.args);
    EXPECT_TRUE(!c.errStart.empty() || err.str().empty()) << err.str();
    EXPECT_TRUE(c.status || out.str().empty()) << out.str();
  }
}

}  // namespace
