#include "app/server_selection.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "app/instance_prompt_model.h"
#include "base/json.h"
#include "build_config.h"
#include "log_capture.h"
#include "test_files.h"

namespace {

using Lines = std::vector<std::string>;
const std::string D = ondrel::build::kServiceDomain;
const std::string kRefused = "(only *." + D + " or localhost servers are allowed)";
const std::string kInvalid = "(expected an http/https URL)";
const std::string kChosen = "https://chosen.on." + D;

struct FakePrompt {
  std::optional<std::string> answer;
  int calls = 0;
  InstancePromptRunner runner() {
    return [this] {
      ++calls;
      return answer;
    };
  }
};

class ServerSelectionTest : public ::testing::Test {
 protected:
  void SetUp() override { LogCapture::instance().clear(); }

  std::optional<std::string> resolve(const std::optional<std::string>& cmdline) {
    auto result = ondrelResolveServer(cmdline, path_, prompt_.runner());
    EXPECT_LE(LogCapture::instance().countStartingWith("[Server] loading"), 1u);
    return result;
  }
  Lines lines() const { return LogCapture::instance().lines(); }
  std::string notObjectLine() const {
    return "[Server] " + path_ + " is not a JSON object — ignoring its \"server\" entry, if any";
  }
  std::string fromFileLine(const std::string& url) const {
    return "[Server] loading " + url + " (from \"server\" in " + path_ + ")";
  }
  Lines promptedLines(const std::string& url) const {
    return {"[Server] saved \"server\" to " + path_, "[Server] loading " + url + " (chosen in the first-run prompt)"};
  }

  TempDir dir_;
  std::string path_ = (dir_.path() / "config/ondrel/config.json").string();
  FakePrompt prompt_{kChosen};
};

TEST_F(ServerSelectionTest, CommandLineWinsWithoutTouchingTheFile) {
  for (std::string file : {R"({"server": "https://other.on.)" + D + "\"}", std::string(R"(["not", "an object"])")}) {
    LogCapture::instance().clear();
    writeText(path_, file);
    EXPECT_EQ(resolve("demo"), "https://demo.on." + D);
    EXPECT_EQ(lines(), Lines{"[Server] loading https://demo.on." + D + " (from command line)"}) << file;
    EXPECT_EQ(readText(path_), file);
    EXPECT_EQ(prompt_.calls, 0);
  }
}

TEST_F(ServerSelectionTest, UnusableCommandLineFallsThroughToTheFile) {
  writeText(path_, R"({"server": " team "})");
  const std::pair<std::string, Lines> cases[] = {
      {"https://example.com", {"[Server] ignoring command-line URL " + kRefused}},
      {"ftp://x." + D, {"[Server] ignoring invalid command-line URL " + kInvalid}},
      {"  ", {"[Server] ignoring invalid command-line URL " + kInvalid}},
      {"", {}},
  };
  for (const auto& [cmdline, expected] : cases) {
    LogCapture::instance().clear();
    EXPECT_EQ(resolve(cmdline), "https://team.on." + D);
    Lines want = expected;
    want.push_back(fromFileLine("https://team.on." + D));
    EXPECT_EQ(lines(), want) << cmdline;
  }
  LogCapture::instance().clear();
  EXPECT_EQ(resolve(std::nullopt), "https://team.on." + D);
  EXPECT_EQ(prompt_.calls, 0);
}

TEST_F(ServerSelectionTest, UnusableFileFallsThroughToPromptAndIsRewritten) {
  struct Case {
    std::optional<std::string> file;
    Lines firstLines;
    Json saved;
  };
  const Case cases[] = {
      {std::nullopt, {}, {{"server", kChosen}}},
      {R"([{"server": "https://a.)" + D + "\"}]", {notObjectLine()}, {{"server", kChosen}}},
      {"{broken", {notObjectLine()}, {{"server", kChosen}}},
      {"", {notObjectLine()}, {{"server", kChosen}}},
      {R"({"server": true})", {"[Server] ignoring \"server\" value in " + path_ + " " + kInvalid},
       {{"server", kChosen}}},
      {R"({"updateEnabled": false, "server": "https://example.com"})",
       {"[Server] ignoring \"server\" value in " + path_ + " " + kRefused},
       {{"server", kChosen}, {"updateEnabled", false}}},
  };
  for (const auto& c : cases) {
    LogCapture::instance().clear();
    std::filesystem::remove(path_);
    if (c.file) writeText(path_, *c.file);
    prompt_.calls = 0;
    EXPECT_EQ(resolve(std::nullopt), kChosen);
    EXPECT_EQ(prompt_.calls, 1);
    Lines want = c.firstLines;
    for (auto& line : promptedLines(kChosen)) want.push_back(line);
    EXPECT_EQ(lines(), want) << c.file.value_or("(missing)");
    EXPECT_EQ(parseJson(readText(path_)), c.saved) << c.file.value_or("(missing)");
  }
}

TEST_F(ServerSelectionTest, ChoiceIsMergedIntoFileWithSortedKeys) {
  writeText(path_, R"({"updateEnabled": true, "mcpServers": {"fs": {"command": "npx", "args": ["-y"]}}})");
  EXPECT_EQ(resolve(std::nullopt), kChosen);
  EXPECT_EQ(lines(), promptedLines(kChosen));
  const std::string text = readText(path_);
  auto saved = parseJson(text);
  ASSERT_TRUE(saved);
  // Content kept; ordered_json compares key order too, so this checks nested sorting.
  EXPECT_EQ((*saved)["mcpServers"], (Json{{"fs", {{"args", {"-y"}}, {"command", "npx"}}}}));
  EXPECT_EQ((*saved)["updateEnabled"], true);
  EXPECT_EQ((*saved)["server"], kChosen);
  // Pretty-printed with sorted keys.
  EXPECT_NE(text.find("\n  \"server\""), std::string::npos) << text;
  EXPECT_LT(text.find("\"mcpServers\""), text.find("\"server\""));
  EXPECT_LT(text.find("\"server\""), text.find("\"updateEnabled\""));
}

TEST_F(ServerSelectionTest, CancelLogsAndWritesNothing) {
  prompt_.answer = std::nullopt;
  EXPECT_EQ(resolve(std::nullopt), std::nullopt);
  EXPECT_EQ(lines(), Lines{"[Server] no server chosen — startup cancelled"});
  EXPECT_FALSE(std::filesystem::exists(dir_.path() / "config"));

  LogCapture::instance().clear();
  writeText(path_, "[1]");
  EXPECT_EQ(resolve(std::nullopt), std::nullopt);
  EXPECT_EQ(lines(), (Lines{notObjectLine(), "[Server] no server chosen — startup cancelled"}));
  EXPECT_EQ(readText(path_), "[1]");
}

TEST_F(ServerSelectionTest, SavesTheNormalisedAddressNotTheTypedText) {
  for (const auto& [typed, url] : {std::pair<std::string, std::string>{"  team ", "https://team.on." + D},
                                   {"http://localhost:3000/", "http://localhost:3000"}}) {
    LogCapture::instance().clear();
    std::filesystem::remove_all(dir_.path() / "config");
    InstancePromptModel model;
    auto runner = [&] {
      model.confirm(typed);
      return model.result();
    };
    EXPECT_EQ(ondrelResolveServer(std::nullopt, path_, runner), url);
    EXPECT_EQ(parseJson(readText(path_)), (Json{{"server", url}})) << typed;
    EXPECT_EQ(lines(), promptedLines(url));
  }
}

TEST_F(ServerSelectionTest, FailedSaveIsLoggedAndStartupGoesOn) {
  std::filesystem::create_directories(path_);  // a folder where the file should be
  EXPECT_EQ(resolve(std::nullopt), kChosen);
  auto got = lines();
  ASSERT_EQ(got.size(), 2u);
  const std::string prefix = "[Server] could not save the chosen server to " + path_ + " (";
  EXPECT_EQ(got[0].rfind(prefix, 0), 0u) << got[0];
  EXPECT_GT(got[0].size(), prefix.size() + 1) << "the error is described";
  EXPECT_EQ(got[0].back(), ')');
  EXPECT_EQ(got[1], "[Server] loading " + kChosen + " (chosen in the first-run prompt)");
}

}  // namespace
