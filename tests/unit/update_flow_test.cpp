#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <string>

#include "home_override.h"
#include "http_test_server.h"
#include "log_capture.h"
#include "base/main_thread.h"
#include "main_loop.h"
#include "update/about.h"
#include "update/begin_update.h"
#include "update/downloader.h"
#include "update/install.h"
#include "update/pending_update.h"
#include "update/update_paths.h"
#include "update/update_transfer.h"
#include "update/update_host.h"
#include "update/updater.h"
#include "update/version.h"

namespace fs = std::filesystem;

namespace {

TEST(UpdateDownload, DestinationIsTheLastUrlComponent) {
  for (const auto& [url, file] : std::vector<std::pair<std::string, std::string>>{
           {"https://h/r/Ondrel-2.0-x86_64.zip", "Ondrel-2.0-x86_64.zip"}, {"https://h/r/", "Ondrel.zip"},
           {"https://h/r/..", "Ondrel.zip"}, {"https://h/r/a.zip?sig=x/y#top", "a.zip"}})
    EXPECT_EQ(ondrelUpdateDestination("/u", url), "/u/" + file) << url;
}

TEST(UpdateTransport, PlainHttpOnlyFromThisMachine) {
  // The refusal's start; "" when the URL may be fetched.
  for (const auto& [url, refusal] : std::vector<std::pair<std::string, std::string>>{
           {"HTTPS://Updates.Example.org:8443/a.zip", ""}, {"http://[::1]:9/a.zip.minisig", ""},
           {"http://updates.example.org/rel/latest.txt", "is plain http"},
           {"http://127.0.0.1@updates.example.org/a.zip", "is plain http"},  // the host comes after the @
           {"http://updates.example.org#@127.0.0.1/a.zip", "is plain http"},
           {"ftp://127.0.0.1/a.zip", "is not an https address"}, {"127.0.0.1/a.zip", "is not an https address"}}) {
    auto got = ondrelUpdateURLRefusal(url);
    EXPECT_EQ(got.has_value(), !refusal.empty()) << url;
    EXPECT_TRUE(!got || got->rfind("“" + url + "” " + refusal, 0) == 0) << *got;
  }
}

// Records what the updater asks of the UI. Like a user, it answers the
// alerts later, from the main loop. No archive here installs, so swapping
// or exiting is a fault (a real exit would end the test as if it passed).
class FakeUpdateHost : public UpdateHost {
 public:
  Choice choice = Choice::Later;
  std::vector<std::string> asked, progressLabels, failures;
  int loopRuns = 0, loopStops = 0;

  void askToUpdate(const std::string& remote, const std::string& current,
                   std::function<void(Choice)> answered) override {
    asked.push_back(remote + " over " + current);
    runOnMain([answered, c = choice] { answered(c); });
  }
  void showProgress(const std::string& label) override { progressLabels.push_back(label); }
  void setProgress(double) override {}
  void hideProgress() override {}
  void showFailure(const std::string& text, std::function<void()> dismissed) override {
    failures.push_back(text);
    runOnMain(dismissed);
  }
  void showAbout(const std::string&) override {}
  void runEventLoop() override {
    ++loopRuns;
    int stopsBefore = loopStops;
    pumpUntil([&] { return loopStops > stopsBefore; }, 20);
  }
  void stopEventLoop() override { ++loopStops; }
  bool launchSwapScript(const std::string& script) override {
    ADD_FAILURE() << "swap " << script;
    return false;
  }
  void exitProcess(int status) override { ADD_FAILURE() << "exit " << status; }
};

// The check → choice → download → install path against a real socket, with
// a fake UI.
class UpdateFlowTest : public ::testing::Test {
 protected:
  struct Outcome {
    std::optional<std::string> error;
    std::vector<double> fractions;
  };
  void SetUp() override {
    LogCapture::instance().clear();
    fs::create_directories(home_.dataDir());
    fs::create_directories(downloads_);
  }
  // The downloader alone. Its callbacks run on the transfer's thread,
  // progress always before done.
  Outcome download(const std::string& url) {
    auto outcome = std::make_shared<Outcome>();
    auto done = std::make_shared<std::promise<void>>();
    auto finished = done->get_future();
    OndrelDownloader::startWithURL(
        url, dest_.string(), [outcome](double f) { outcome->fractions.push_back(f); },
        [outcome, done](const std::optional<std::string>& error) {
          outcome->error = error;
          done->set_value();
        });
    EXPECT_EQ(finished.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    return *outcome;
  }

  HomeOverride home_;
  const fs::path downloads_ = home_.path() / "downloads";
  fs::path dest_ = downloads_ / "Ondrel.zip";
  HttpTestServer server_;
  FakeUpdateHost host_;
  Updater updater_{host_};
};

TEST_F(UpdateFlowTest, DownloadedBodyLandsOnDiskAndTheBarMovesOnlyForAKnownLength) {
  const std::string body(3 << 20, 'z');
  server_.route("/known.zip", {200, body});
  server_.route("/unknown.zip", {200, body, false});
  writeText(dest_, "an earlier download");
  for (bool known : {true, false}) {
    auto outcome = download(server_.url(known ? "/known.zip" : "/unknown.zip"));
    EXPECT_EQ(outcome.error, std::nullopt);
    EXPECT_TRUE(readText(dest_) == body);
    ASSERT_FALSE(outcome.fractions.empty());
    EXPECT_TRUE(std::is_sorted(outcome.fractions.begin(), outcome.fractions.end()));
    EXPECT_EQ(outcome.fractions.front() > 0, known);
    EXPECT_EQ(outcome.fractions.back(), known ? 1.0 : 0.0);
    EXPECT_EQ(std::distance(fs::directory_iterator(downloads_), {}), 1) << "no partial file left";
  }
}

TEST_F(UpdateFlowTest, RefusedAndFailedDownloadsLeaveNothing) {
  server_.route("/a.zip", {200, "PK"});
  server_.route("/moved.zip", {302, "", true, server_.url("/target.zip")});
  const struct {
    std::string url;
    fs::path dest;
    std::string inError;
  } cases[] = {
      {"http://updates.example.org/a.zip", dest_, "“http://updates.example.org/a.zip” is plain http"},
      {server_.url("/moved.zip"), dest_, "refused a redirect to “" + server_.url("/target.zip")},
      {server_.url("/a.zip"), downloads_ / "missing-folder/a.zip", "missing-folder"},
  };
  for (const auto& c : cases) {
    dest_ = c.dest;
    auto outcome = download(c.url);
    ASSERT_TRUE(outcome.error) << c.url;
    EXPECT_NE(outcome.error->find(c.inError), std::string::npos) << *outcome.error;
    EXPECT_TRUE(fs::is_empty(downloads_)) << c.url;
  }
}

TEST_F(UpdateFlowTest, OnlyAnEnabledAcceptedSourceIsAskedUncachedAndEachAnswerIsKept) {
  const std::string url = server_.url("/rel/latest.txt");
  for (const std::string& config : {R"({"updateEnabled": false, "updateUrl": ")" + url + "\"}",
                                   std::string(R"({"updateBaseUrl": "ftp://nowhere"})"),
                                   std::string(R"({"updateBaseUrl": "http://updates.example.org"})")}) {
    LogCapture::instance().clear();
    home_.writeConfig(config);
    updater_.checkForUpdates();
    const auto lines = LogCapture::instance().lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](auto& l) { return l.find("skipping") != l.npos; }))
        << config;
  }
  EXPECT_TRUE(server_.requests().empty());

  server_.route("/rel/latest.txt", {200, "99.1\nOndrel-99.1-x86_64.zip\n"});
  home_.writeConfig(R"({"updateUrl": ")" + server_.url("/rel/latest.txt") + R"("})");
  updater_.checkForUpdates();
  ASSERT_TRUE(pumpUntil([&] { return !host_.asked.empty(); }));
  const std::string request = server_.requests().at(0);
  EXPECT_NE(request.find("User-Agent: ondrel-linux-updater\r\n"), std::string::npos);
  EXPECT_NE(request.find("Cache-Control: no-cache\r\n"), std::string::npos);
  EXPECT_EQ(host_.asked, (std::vector<std::string>{"99.1 over " + ondrelCurrentVersion()}));
  EXPECT_TRUE(pumpUntil([] { return LogCapture::instance().countStartingWith("[Update] deferred by user") > 0; }));
  EXPECT_FALSE(fs::exists(ondrelPendingUpdatePath()));

  host_.choice = UpdateHost::Choice::NextRestart;
  updater_.checkForUpdates();
  ASSERT_TRUE(pumpUntil([&] { return fs::exists(ondrelPendingUpdatePath()); }));
  auto record = ondrelReadPendingUpdate(ondrelPendingUpdatePath());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->version, "99.1");
  EXPECT_EQ(record->url, server_.url("/rel/Ondrel-99.1-x86_64.zip"));
  EXPECT_TRUE(host_.progressLabels.empty()) << "nothing is downloaded now";
}

TEST_F(UpdateFlowTest, AScheduledUpdateIsRemovedFirstAndAFailureGoesOnWithTheStart) {
  const std::string path = ondrelPendingUpdatePath();
  for (const char* text : {R"({"version": "2.0", "url": ""})", R"({"version": "2.0", "url": 7})",
                           R"({"version": "2.0"})", R"(["url", "http://x/a.zip"])", "{broken"}) {
    writeText(path, text);
    updater_.applyScheduledUpdate();
    EXPECT_EQ(readText(path), text) << "a record without a URL is left alone";
  }
  EXPECT_EQ(host_.loopRuns, 0);
  EXPECT_FALSE(updater_.isDeferred());
  writeText(path, R"({"url": "http://x/a.zip", "version": 5})");
  EXPECT_EQ(ondrelReadPendingUpdate(path).value_or(PendingUpdate{"x", ""}).version, "");

  const std::pair<std::string, std::string> cases[] = {  // the URL, and how the alert's text begins
      {server_.url("/gone/Ondrel.zip"), ondrelNotAZipText(25)},
      {"http://127.0.0.1:1/Ondrel.zip", "Could not download the update:\n"}};
  for (size_t i = 0; i < std::size(cases); ++i) {
    const auto& [url, failure] = cases[i];
    SCOPED_TRACE(url);
    ASSERT_TRUE(ondrelWritePendingUpdate(path, "3.0", url));
    updater_.applyScheduledUpdate();
    EXPECT_FALSE(fs::exists(path));
    EXPECT_TRUE(updater_.isDeferred());
    EXPECT_EQ(host_.loopRuns, static_cast<int>(i + 1));
    EXPECT_EQ(host_.loopStops, static_cast<int>(i + 1));
    ASSERT_EQ(host_.failures.size(), i + 1);
    EXPECT_EQ(host_.failures[i].rfind(failure, 0), 0u) << host_.failures[i];
  }
}

TEST_F(UpdateFlowTest, AboutTextShowsVersionServerAndUpdateSource) {
  // What follows the tagline, with a settings file of config.
  const auto details = [&](const char* config, const char* version, const char* build,
                           const std::optional<std::string>& server, bool updatesSigned) {
    home_.writeConfig(config);
    const std::string text = ondrelAboutText(version, build, server, updatesSigned);
    return text.substr(text.find("\n\n") + 2);
  };
  EXPECT_EQ(details(R"({"updateUrl": "https://Updates.Example.org:8443/m/latest.txt"})", "1.4", "12",
                    "https://Team.on.x.example/", true),
            "Version 1.4 (build 12)\nInstance Server: team.on.x.example\nUpdate Source: updates.example.org");
  EXPECT_EQ(details(R"({"updateEnabled": false, "updateUrl": "https://u.example/latest.txt"})", "", "", std::nullopt,
                    true),
            "Version 0.0.0 (build )\nInstance Server: —\nUpdate Source: disabled");
  EXPECT_EQ(details(R"({"updateBaseUrl": "ftp://x"})", "1", "1", "not a url", false),
            "Version 1 (build 1)\nInstance Server: —\nUpdate Source: disabled\nUpdates are not signature-checked.");
}

}  // namespace
