#include "app/command_line.h"

#include <gtest/gtest.h>

#include <sstream>

#include "build_config.h"

namespace {

struct Case {
  std::vector<std::string> args;
  std::optional<int> status;
  std::string outStart;  // what standard output begins with
};

TEST(CommandLine, AnswersWithoutAWindowOrLeavesItToTheWindow) {
  const std::string version =
      std::string("Ondrel ") + ondrel::build::kVersion + " (build " + ondrel::build::kBuild + ")\n";
  const Case cases[] = {
      {{}, std::nullopt, ""},
      {{"team"}, std::nullopt, ""},
      {{"--gdk-debug=events"}, std::nullopt, ""},  // GTK's own options
      {{"--version"}, 0, version},
      {{"team", "--version"}, 0, version},
      {{"--help"}, 0, "Usage: ondrel [SERVER]\n"},
      {{"-h", "--version"}, 0, "Usage: ondrel [SERVER]\n"},
  };
  for (const auto& c : cases) {
    std::ostringstream out, err;
    EXPECT_EQ(ondrelRunCommandLine(c.args, out, err), c.status) << testing::PrintToString(c.args);
    EXPECT_EQ(out.str().substr(0, c.outStart.size()), c.outStart) << testing::PrintToString(c.args);
    if (!c.status) {
      EXPECT_EQ(out.str(), "");
    }
    EXPECT_EQ(err.str(), "");
  }
}

}  // namespace
