// The settings-directory watch and its half-second throttle.

#include <functional>

#include "base/files.h"
#include "mcp/config_watch.h"
#include "mcp_test_support.h"

namespace {

// Feeds change times to a throttle; returns when the checks would run.
std::vector<double> checksFor(const std::vector<double>& changes) {
  ChangeThrottle throttle(0.5);
  std::vector<double> checks;
  for (double t : changes)
    if (throttle.accept(t)) checks.push_back(t + throttle.interval());
  return checks;
}

}  // namespace

TEST(McpThrottle, SavesCloserThanHalfASecondGiveOneCheck) {
  EXPECT_EQ(checksFor({10.0, 10.2}), std::vector<double>{10.5}) << "two saves 0.2 s apart";
  EXPECT_EQ(checksFor({10.0, 10.7}), (std::vector<double>{10.5, 11.2})) << "two saves 0.7 s apart";
  // A save is a burst of events (temporary file, writes, rename): one check.
  EXPECT_EQ(checksFor({3.0, 3.001, 3.002, 3.003, 3.49}), std::vector<double>{3.5});
  // The window runs from the last accepted event, not from the last event.
  EXPECT_EQ(checksFor({0.0, 0.3, 0.6, 0.9}), (std::vector<double>{0.5, 1.1}));
  EXPECT_EQ(checksFor({0.0, 0.5}), (std::vector<double>{0.5, 1.0})) << "exactly 0.5 s later is a new burst";
}

// The watch reports on the main context, as the app's main loop runs it.
class McpWatch : public ::testing::Test {
 protected:
  TempDir dir_;
  std::vector<double> checks_;  // seconds on the monotonic clock

  std::unique_ptr<ConfigWatch> watch(const std::filesystem::path& directory, double interval = 0.5) {
    return ConfigWatch::start(
        directory.string(), [this] { checks_.push_back(now()); }, interval);
  }
  static double now() { return static_cast<double>(g_get_monotonic_time()) / G_USEC_PER_SEC; }
};

TEST_F(McpWatch, AnAtomicSaveGivesOneCheckHalfASecondLater) {
  auto dir = dir_.path() / "ondrel";
  auto w = watch(dir);  // creates the folder
  ASSERT_TRUE(w);
  double saved = now();
  ASSERT_TRUE(writeFileAtomically((dir / "config.json").string(), "{}").ok);
  ASSERT_TRUE(pumpUntil([&] { return checks_.size() == 1; }, 5));
  pumpFor(0.8);
  EXPECT_EQ(checks_.size(), 1u);
  EXPECT_GE(checks_[0] - saved, 0.45);
}

TEST_F(McpWatch, EveryKindOfChangeAfterTheLastCheckGetsOneOfItsOwn) {
  // Each check comes a full interval after the change it answers, so the
  // next change always starts a new burst.
  auto w = watch(dir_.path(), 0.1);
  ASSERT_TRUE(w);
  const std::vector<std::function<void()>> changes = {
      [&] { writeText(dir_.path() / "config.json", "{\"a\":1}"); },
      [&] { writeText(dir_.path() / "config.json", "{\"a\":2}"); },
      // Other entries of the folder count as well (the check decides what
      // to do), and so do renames and removals.
      [&] { writeText(dir_.path() / "unrelated.txt", "x"); },
      [&] { std::filesystem::rename(dir_.path() / "unrelated.txt", dir_.path() / "renamed.txt"); },
      [&] { std::filesystem::remove(dir_.path() / "renamed.txt"); },
  };
  for (size_t i = 0; i < changes.size(); ++i) {
    changes[i]();
    EXPECT_TRUE(pumpUntil([&] { return checks_.size() == i + 1; }, 5)) << "change " << i;
  }
}

TEST_F(McpWatch, UnwatchableDirectoryGivesNoWatch) {
  writeText(dir_.path() / "file", "x");
  EXPECT_FALSE(watch(dir_.path() / "file")) << "a file where the folder should be";
}
