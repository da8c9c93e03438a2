#include "app/server_selection.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

#include "base/json.h"
#include "log_capture.h"
#include "service_domain.h"
#include "test_files.h"

namespace {

const std::string kChosen = "https://chosen.on." + D, kTeam = "https://team.on." + D;

class ServerSelectionTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }
  std::optional<std::string> resolve(const std::optional<std::string>& cmdline,
                                     const std::optional<std::string>& answer = kChosen) {
    return ondrelResolveServer(cmdline, path_, [&] {
      ++prompts_;
      return answer;
    });
  }

  TempDir dir_;
  std::string path_ = (dir_.path() / "config/ondrel/config.json").string();
  int prompts_ = 0;
};

TEST_F(ServerSelectionTest, CommandLineThenFileThenPromptWhichIsSaved) {
  const std::string team = R"({"server": " team "})", fromFile = "from \"server\" in " + path_,
                    prompt = "chosen in the first-run prompt";
  // The command line, the settings file, the address loaded, where the loading line says it came from.
  using Maybe = std::optional<std::string>;
  const std::tuple<Maybe, Maybe, std::string, std::string> cases[] = {
      {"demo", team, "https://demo.on." + D, "from command line"},
      {"https://example.com", team, kTeam, fromFile},
      {std::nullopt, team, kTeam, fromFile},
      {std::nullopt, std::nullopt, kChosen, prompt},
      {std::nullopt, "{broken", kChosen, prompt},
      {std::nullopt, R"({"server": true})", kChosen, prompt},
  };
  for (const auto& [cmdline, file, url, from] : cases) {
    SCOPED_TRACE(cmdline.value_or("(none)") + " / " + file.value_or("(no file)"));
    std::filesystem::remove(path_);
    if (file) writeText(path_, *file);
    prompts_ = 0;
    EXPECT_EQ(resolve(cmdline), url);
    EXPECT_EQ(LogCapture::instance().lines().back(), "[Server] loading " + url + " (" + from + ")");
    EXPECT_EQ(prompts_, from == prompt ? 1 : 0);
    if (from == prompt) {
      EXPECT_EQ(parseJson(readText(path_)), (Json{{"server", kChosen}}));
    } else {
      EXPECT_EQ(readText(path_), *file);
    }
  }
}

TEST_F(ServerSelectionTest, ChoiceIsMergedIntoThePrettyFileWithSortedKeys) {
  writeText(path_, R"({"updateEnabled": true, "server": "https://example.com",
                      "mcpServers": {"fs": {"command": "npx", "args": ["-y"]}}})");
  EXPECT_EQ(resolve(std::nullopt), kChosen);
  const std::string text = readText(path_);
  // ordered_json compares key order too, so this checks nested sorting.
  EXPECT_EQ(parseJson(text), (Json{{"mcpServers", {{"fs", {{"args", {"-y"}}, {"command", "npx"}}}}},
                                   {"server", kChosen}, {"updateEnabled", true}}));
  EXPECT_NE(text.find("\n  \"server\""), std::string::npos) << text;
}

TEST_F(ServerSelectionTest, CancelWritesNothingAndAFailedSaveGoesOn) {
  EXPECT_EQ(resolve(std::nullopt, std::nullopt), std::nullopt);
  EXPECT_EQ(LogCapture::instance().lines().back(), "[Server] no server chosen — startup cancelled");
  EXPECT_FALSE(std::filesystem::exists(dir_.path() / "config"));

  std::filesystem::create_directories(path_);  // a folder where the file should be
  LogCapture::instance().clear();
  EXPECT_EQ(resolve(std::nullopt), kChosen);
  EXPECT_EQ(LogCapture::instance().countStartingWith("[Server] could not save the chosen server to " + path_), 1u);
}

}  // namespace
