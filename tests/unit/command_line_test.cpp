#include "app/command_line.h"

#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "build_config.h"

namespace {

TEST(CommandLine, AnswersWithoutAWindowOrLeavesItToTheWindow) {
  const std::string version =
      std::string("Ondrel ") + ondrel::build::kVersion + " (build " + ondrel::build::kBuild + ")\n";
  // The arguments, the status (none: the window's turn), what standard output and standard error begin with.
  const std::tuple<std::vector<std::string>, std::optional<int>, std::string, std::string> cases[] = {
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
  for (const auto& [args, status, outStart, errStart] : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    std::ostringstream out, err;
    EXPECT_EQ(ondrelRunCommandLine(args, out, err), status);
    EXPECT_EQ(out.str().substr(0, outStart.size()), outStart);
    EXPECT_EQ(err.str().substr(0, errStart.size()), errStart);
    EXPECT_TRUE(!errStart.empty() || err.str().empty()) << err.str();
    EXPECT_TRUE(status || out.str().empty()) << out.str();
  }
}

}  // namespace
