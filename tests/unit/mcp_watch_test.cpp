// The settings-folder watch and its throttle.

#include <functional>

#include "base/files.h"
#include "mcp/config_watch.h"
#include "mcp_test_support.h"

TEST(McpThrottle, ChangesCloserThanTheIntervalGiveOneCheck) {
  const std::pair<std::vector<double>, std::vector<double>> cases[] = {
      {{3.0, 3.001, 3.002, 3.003, 3.49}, {3.5}},  // a save is a burst: temporary file, writes, rename
      {{0.0, 0.3, 0.6, 0.9}, {0.5, 1.1}},         // the window runs from the last accepted change
      {{0.0, 0.5}, {0.5, 1.0}},                   // exactly one interval later is a new burst
  };
  for (const auto& [changes, expected] : cases) {
    ChangeThrottle throttle(0.5);
    std::vector<double> checks;
    for (double t : changes)
      if (throttle.accept(t)) checks.push_back(t + throttle.interval());
    EXPECT_EQ(checks, expected);
  }
}

TEST(McpWatch, EveryKindOfChangeInTheFolderGetsExactlyOneCheck) {
  TempDir dir;
  const auto folder = dir.path() / "ondrel";
  size_t checks = 0;
  auto watch = ConfigWatch::start(folder.string(), [&] { ++checks; }, 0.1);  // creates the folder
  ASSERT_TRUE(watch);
  // Each change is made once the previous one's check came; a burst that
  // gave more than one check would overshoot the count waited for. An edit
  // in place is the end-to-end test's.
  const std::vector<std::function<void()>> changes = {
      [&] { ASSERT_TRUE(writeFileAtomically((folder / "config.json").string(), "{}").ok); },
      [&] { writeText(folder / "unrelated.txt", "x"); },
      [&] { std::filesystem::rename(folder / "unrelated.txt", folder / "renamed.txt"); },
      [&] { std::filesystem::remove(folder / "renamed.txt"); },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    changes[i]();
    ASSERT_TRUE(pumpUntil([&] { return checks >= i + 1; }, 5)) << "change " << i;
    EXPECT_EQ(checks, i + 1) << "change " << i;
  }

  writeText(dir.path() / "file", "x");
  EXPECT_FALSE(ConfigWatch::start((dir.path() / "file").string(), [] {})) << "a file where the folder should be";
}
