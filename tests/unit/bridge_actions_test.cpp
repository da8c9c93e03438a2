#include <sys/stat.h>

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <tuple>

#include "bridge/platform_info.h"
#include "bridge_fakes.h"

namespace fs = std::filesystem;

namespace {

const Json kOk = Json{{"ok", true}};

TEST_F(BridgeTest, ArgumentErrorsAndUnknownActionsFailWithFixedTexts) {
  const std::tuple<Json, Json, std::string> cases[] = {  // name, arguments, error
      {"setProjectDir", {"p", 5}, "setProjectDir expects [projectId, path]"},
      {"setProjectDir", {5, "/x"}, "setProjectDir expects [projectId, path]"},
      {"readFile", {3}, "readFile expects [path]"},
      {"readFileBase64", {nullptr}, "readFileBase64 expects [path]"},
      {"writeFile", {Json::object(), "text"}, "writeFile expects [path, content]"},
      {"ReadFile", {"/etc/hostname"}, "unknown native action 'ReadFile'"},
      {nullptr, Json::array(), "unknown native action '(null)'"},
  };
  for (const auto& [name, args, error] : cases) {
    Reply reply = call(name, args);
    EXPECT_TRUE(!reply.ok && reply.value == error) << name << args << reply.value;
  }
  EXPECT_FALSE(fs::exists(home_.path() / ".local/share/ondrel/defaults.json")) << "failed sets store nothing";
}

TEST_F(BridgeTest, ProjectDirsAreStoredAsGivenAndOutliveTheBridge) {
  Reply empty = call("getProjectDirs", Json::array());
  EXPECT_TRUE(empty.ok);
  EXPECT_EQ(empty.value, Json::object()) << "an empty dictionary, not null";

  for (const Json& args : {Json{"a", "/first"}, Json{"b", "~/not/expanded/../x"}, Json{"a", "/second"}})
    EXPECT_EQ(call("setProjectDir", args).value, kOk);
  const Json expected = {{"a", "/second"}, {"b", "~/not/expanded/../x"}};
  EXPECT_EQ(call("getProjectDirs", Json::array()).value, expected);

  FakeHost otherHost;
  Bridge(otherHost, kPageOrigin, nullptr).handleNativeAction("r", "getProjectDirs", Json::array());
  ASSERT_EQ(otherHost.scripts.size(), 1u);
  EXPECT_EQ(parseReply(otherHost.scripts[0])->value, expected);
}

TEST_F(BridgeTest, ReadFileRefusesWhatIsNotUtf8TextWithTheSystemsError) {
  const fs::path dir = home_.path() / "files";
  writeText(dir / "latin1.txt", "caf\xe9");
  // A device never ends and a FIFO without a writer would block the open: both are refused at once.
  ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
  for (const fs::path& bad : {dir / "latin1.txt", dir / "missing.txt", dir, dir / "fifo", fs::path("/dev/zero")}) {
    Reply reply = call("readFile", {bad.string()});
    EXPECT_FALSE(reply.ok) << bad;
    EXPECT_NE(reply.value.dump().find(bad.string()), std::string::npos) << reply.value;
  }
  EXPECT_EQ(call("readFileBase64", {(dir / "missing.txt").string()}).ok, false);
}

// A read of exactly 16 MiB, which reaches the page in pieces, the end-to-end
// test makes.
TEST_F(BridgeTest, ReadsRefuseFilesPastSixteenMebibytes) {
  const fs::path file = home_.path() / "big.txt";
  std::ofstream(file, std::ios::binary) << std::string(16777217, 'x');
  for (const char* action : {"readFile", "readFileBase64"}) {
    Reply tooLarge = call(action, {file.string()});
    EXPECT_FALSE(tooLarge.ok) << action;
    EXPECT_EQ(tooLarge.value, "file too large to present (max 16 MB)") << action;
  }
}

TEST_F(BridgeTest, FileActionsRunAndReplyInTheOrderAsked) {
  // Work off the main thread must not let a read overtake the write before it.
  // Writes make the folders, replace the whole file, and write nothing for
  // missing or non-text content.
  const std::string path = (home_.path() / "a/b/file.txt").string();
  const std::string text = "Grüße \"quoted\"\n\ttab \\ end\r\x01\x1f\x7f</script> 😀";
  const Json requests[][2] = {
      {"writeFile", {path, text}}, {"readFile", {path}},       {"writeFile", {path, "tw"}},
      {"readFile", {path}},        {"readFileBase64", {path}}, {"writeFile", {path}},
      {"readFile", {path}},        {"writeFile", {path, 42}},  {"readFileBase64", {path}},
  };
  const Json values[] = {kOk, text, kOk, "tw", "dHc=", kOk, "", kOk, ""};
  for (size_t i = 0; i < std::size(requests); ++i) bridge_.handleNativeAction(i, requests[i][0], requests[i][1]);
  pumpUntil([&] { return host_.scripts.size() >= std::size(requests); });
  ASSERT_EQ(host_.scripts.size(), std::size(requests));
  for (size_t i = 0; i < std::size(requests); ++i) {
    auto reply = parseReply(host_.scripts[i]);
    EXPECT_TRUE(reply && reply->id == std::to_string(i) && reply->ok && reply->value == values[i])
        << requests[i][0] << ": " << host_.scripts[i];
  }
}

TEST_F(BridgeTest, WriteFileTakesBareNamesFromTheWorkingDirectoryAndReportsErrors) {
  const fs::path saved = fs::current_path();
  fs::current_path(home_.path());
  EXPECT_TRUE(call("writeFile", {"bare.txt", "here"}).ok);
  fs::current_path(saved);
  EXPECT_EQ(readText(home_.path() / "bare.txt"), "here");

  writeText(home_.path() / "plain", "a file, not a folder");
  for (const fs::path& bad : {home_.path() / "plain/inside.txt", home_.path()}) {
    Reply reply = call("writeFile", {bad.string(), "x"});
    EXPECT_TRUE(!reply.ok && reply.value.is_string() && reply.value != "") << bad << reply.value;
  }
}

TEST_F(BridgeTest, PlatformDescribesLinuxAndTheKernel) {
  Reply reply = call("platform", Json::array());
  ASSERT_TRUE(reply.ok);
  EXPECT_EQ(reply.value["name"], "Linux");
  EXPECT_TRUE(std::regex_match(reply.value["version"].get<std::string>(), std::regex(R"(\d+\.\d+\.\d+)")))
      << reply.value;
  const passwd* pw = getpwuid(getuid());
  ASSERT_NE(pw, nullptr);
  EXPECT_EQ(reply.value["user"], pw->pw_name);
  EXPECT_EQ(reply.value["home"], pw->pw_dir) << "the account's home, whatever HOME says";

  const std::pair<std::string, std::string> releases[] = {
      {"6.1.0-18-amd64", "6.1.0"}, {"5.10", "5.10.0"}, {"4.19-rc1", "4.19.0"},
      {"6.8.12.3", "6.8.12"},      {"weird", "0.0.0"}, {"6-2.3", "6.0.0"},
  };
  for (const auto& [release, triple] : releases) EXPECT_EQ(kernelVersionTriple(release), triple) << release;
}

// The action hands the colour to the window, which the end-to-end test sees.
TEST(ScrimColour, FollowsTheFourNumbersAndNoPositiveAlphaRemovesIt) {
  const std::pair<Json, std::vector<double>> cases[] = {  // {}: no tint
      {{0, 0, 0, 0.5}, {0, 0, 0, 0.5}},         {{255, 255, 255}, {}},
      {{255, 51, 510, 3}, {1, 0.2, 2, 1}},      {{10, 20, 30, 0}, {}},
      {{10, 20, 30, "1"}, {}},                  {{"255", nullptr, Json::object(), 1}, {0, 0, 0, 1}},
      {{51, 102, 153, 0.25, "x"}, {0.2, 0.4, 0.6, 0.25}}, {Json::array(), {}},
  };
  for (const auto& [args, rgba] : cases) {
    const auto c = scrimColorFromArgs(args);
    EXPECT_EQ(c ? std::vector<double>({c->r, c->g, c->b, c->a}) : std::vector<double>(), rgba) << args;
  }
}

TEST_F(BridgeTest, PlaySoundAnswersAtOnceAndSynthesisesEachChimeOnce) {
  for (const Json& args : {Json::array(), Json{7}, Json{"Complete"}, Json{"beep"}, Json{"error"}})
    EXPECT_EQ(call("playSound", args).value, kOk);
  ASSERT_EQ(played_.size(), 3u) << "no name and a non-string name play \"complete\"; others are ignored";
  EXPECT_EQ(played_[0], played_[1]);
  for (const auto& [path, name] : {std::pair(played_[0], "complete"), std::pair(played_[2], "error")}) {
    EXPECT_EQ(readText(path), ondrelSynthesizeTones(agentSoundTable(name)).value_or("")) << name;
    fs::remove(path);
  }
  // Cached: the removed file is neither written again nor replaced.
  call("playSound", {"complete"});
  ASSERT_EQ(played_.size(), 4u);
  EXPECT_EQ(played_[3], played_[0]);
  EXPECT_FALSE(fs::exists(played_[3]));
}

}  // namespace
