// The settings-directory watch and its half-second throttle.

#include <atomic>
#include <chrono>
#include <thread>

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

class McpWatch : public ::testing::Test {
 protected:
  TempDir dir_;
  std::atomic<int> checks_{0};
  std::vector<std::chrono::steady_clock::time_point> when_;
  std::mutex mutex_;

  std::unique_ptr<ConfigWatch> watch(const std::filesystem::path& directory) {
    return ConfigWatch::start(directory.string(), [this] {
      std::lock_guard lock(mutex_);
      when_.push_back(std::chrono::steady_clock::now());
      ++checks_;
    });
  }
};

TEST_F(McpWatch, AnAtomicSaveGivesOneCheckHalfASecondLater) {
  auto dir = dir_.path() / "ondrel";
  auto w = watch(dir);  // creates the folder
  ASSERT_TRUE(w);
  auto saved = std::chrono::steady_clock::now();
  ASSERT_TRUE(writeFileAtomically((dir / "config.json").string(), "{}").ok);
  ASSERT_TRUE(pumpUntil([&] { return checks_ == 1; }, 5));
  pumpFor(0.8);
  EXPECT_EQ(checks_, 1);
  std::lock_guard lock(mutex_);
  EXPECT_GE(std::chrono::duration<double>(when_[0] - saved).count(), 0.45);
}

TEST_F(McpWatch, SavesFarEnoughApartEachGetACheck) {
  auto w = watch(dir_.path());
  ASSERT_TRUE(w);
  writeText(dir_.path() / "config.json", "{\"a\":1}");
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  writeText(dir_.path() / "config.json", "{\"a\":2}");
  ASSERT_TRUE(pumpUntil([&] { return checks_ == 2; }, 5));
  // Other entries of the folder count as well (the check decides what to
  // do), and so do renames and removals.
  writeText(dir_.path() / "unrelated.txt", "x");
  ASSERT_TRUE(pumpUntil([&] { return checks_ == 3; }, 5));
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  std::filesystem::rename(dir_.path() / "unrelated.txt", dir_.path() / "renamed.txt");
  ASSERT_TRUE(pumpUntil([&] { return checks_ == 4; }, 5));
  std::this_thread::sleep_for(std::chrono::milliseconds(600));
  std::filesystem::remove(dir_.path() / "renamed.txt");
  EXPECT_TRUE(pumpUntil([&] { return checks_ == 5; }, 5));
}

TEST_F(McpWatch, UnwatchableDirectoryGivesNoWatch) {
  writeText(dir_.path() / "file", "x");
  EXPECT_FALSE(watch(dir_.path() / "file")) << "a file where the folder should be";
}
