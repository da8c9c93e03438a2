#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "fake_update_host.h"
#include "home_override.h"
#include "http_test_server.h"
#include "log_capture.h"
#include "update/about.h"
#include "update/begin_update.h"
#include "update/downloader.h"
#include "update/http_get.h"
#include "update/pending_update.h"
#include "update/update_paths.h"
#include "update/update_transfer.h"
#include "update/updater.h"
#include "update/version.h"
#include "zip_builder.h"

namespace fs = std::filesystem;

namespace {

bool logged(const std::string& line) {
  for (const auto& l : LogCapture::instance().lines())
    if (l == line) return true;
  return false;
}

bool loggedPrefix(const std::string& prefix) { return LogCapture::instance().countStartingWith(prefix) > 0; }

TEST(UpdateDownload, DestinationIsTheLastUrlComponent) {
  EXPECT_EQ(ondrelUpdateDestination("/u", "https://h/r/Ondrel-2.0-x86_64.zip"), "/u/Ondrel-2.0-x86_64.zip");
  EXPECT_EQ(ondrelUpdateDestination("/u", "https://h/r/"), "/u/Ondrel.zip");
  EXPECT_EQ(ondrelUpdateDestination("/u", "https://h/r/.."), "/u/Ondrel.zip");
  EXPECT_EQ(ondrelUpdateDestination("/u", "https://h/r/a.zip?sig=x/y#top"), "/u/a.zip") << "query and fragment go";
  EXPECT_EQ(ondrelUpdateDestination("/u", "https://h/r/?name=a.zip"), "/u/Ondrel.zip");
  EXPECT_EQ(ondrelProgressLabel("2.1"), "Updating to 2.1…");
  EXPECT_EQ(ondrelProgressLabel(""), "Downloading update…");
}

TEST(UpdateTransport, PlainHttpOnlyFromThisMachine) {
  struct Case {
    const char* url;
    const char* refusal;  // "" when the URL may be fetched
  };
  for (const Case& c : std::vector<Case>{
           {"https://updates.example.org/rel/latest.txt", ""},
           {"HTTPS://Updates.Example.org:8443/a.zip", ""},
           {"http://127.0.0.1:8080/rel/latest.txt", ""},
           {"http://LocalHost/a.zip", ""},
           {"http://[::1]:9/a.zip.minisig", ""},
           {"http://updates.example.org/rel/latest.txt", "is plain http"},
           {"http://127.0.0.1.nip.io/a.zip", "is plain http"},
           {"http://localhost.example.org/a.zip", "is plain http"},
           {"http://127.0.0.1@updates.example.org/a.zip", "is plain http"},  // the host comes after the @
           {"http://updates.example.org#@127.0.0.1/a.zip", "is plain http"},
           {"ftp://127.0.0.1/a.zip", "is not an https address"},
           {"file:///tmp/a.zip", "is not an https address"},
           {"127.0.0.1/a.zip", "is not an https address"},
       }) {
    auto refusal = ondrelUpdateURLRefusal(c.url);
    if (!*c.refusal) {
      EXPECT_EQ(refusal, std::nullopt) << c.url;
      continue;
    }
    ASSERT_TRUE(refusal) << c.url;
    EXPECT_EQ(refusal->rfind(std::string("“") + c.url + "” " + c.refusal, 0), 0u) << *refusal;
  }
}

TEST(UpdateTransport, RedirectsNeverLeadOntoPlainHttp) {
  HttpTestServer server;
  server.route("/latest.txt", {302, "", true, server.url("/moved.txt")});
  server.route("/moved.txt", {200, "99.0\na.zip\n"});
  HttpAnswer answer = ondrelHttpGet(server.url("/latest.txt"));
  EXPECT_FALSE(answer.ok);
  EXPECT_EQ(answer.error,
            "refused a redirect to “" + server.url("/moved.txt") + "”: update files are only followed to https");
  EXPECT_EQ(server.requests().size(), 1u) << "the plain-http target is never asked";
}

// The downloader against a real socket: what lands on disk and which
// progress values it reports.
class DownloaderTest : public ::testing::Test {
 protected:
  struct Outcome {
    bool finished = false;
    std::optional<std::string> error;
    std::vector<double> fractions;
  };
  Outcome download(const std::string& url) {
    auto outcome = std::make_shared<Outcome>();
    auto lock = std::make_shared<std::mutex>();
    OndrelDownloader::startWithURL(
        url, dest_.string(),
        [outcome, lock](double f) {
          std::lock_guard l(*lock);
          outcome->fractions.push_back(f);
        },
        [outcome, lock](const std::optional<std::string>& error) {
          std::lock_guard l(*lock);
          outcome->error = error;
          outcome->finished = true;
        });
    EXPECT_TRUE(pumpUntil(
        [&] {
          std::lock_guard l(*lock);
          return outcome->finished;
        },
        20));
    std::lock_guard l(*lock);
    return *outcome;
  }

  TempDir dir_;
  fs::path dest_ = dir_.path() / "Ondrel.zip";
  HttpTestServer server_;
  const std::string body_ = std::string(3 << 20, 'z');
};

TEST_F(DownloaderTest, KnownLengthGivesRisingFractionsUpToOne) {
  writeText(dest_, "an earlier download");
  server_.route("/a.zip", {200, body_});
  auto outcome = download(server_.url("/a.zip"));
  EXPECT_EQ(outcome.error, std::nullopt);
  EXPECT_EQ(readText(dest_), body_);
  ASSERT_FALSE(outcome.fractions.empty());
  EXPECT_TRUE(std::is_sorted(outcome.fractions.begin(), outcome.fractions.end()));
  EXPECT_GT(outcome.fractions.front(), 0.0);
  EXPECT_DOUBLE_EQ(outcome.fractions.back(), 1.0);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_.path()), fs::directory_iterator()), 1) << "no partial file left";
  EXPECT_NE(server_.requests().at(0).find("User-Agent: ondrel-linux-updater\r\n"), std::string::npos);
}

TEST_F(DownloaderTest, UnknownLengthKeepsTheBarIndeterminate) {
  server_.route("/a.zip", {200, body_, false});
  auto outcome = download(server_.url("/a.zip"));
  EXPECT_EQ(outcome.error, std::nullopt);
  EXPECT_EQ(fs::file_size(dest_), body_.size());
  ASSERT_FALSE(outcome.fractions.empty());
  for (double f : outcome.fractions) EXPECT_EQ(f, 0.0);
}

TEST_F(DownloaderTest, AnErrorPageIsSavedLikeAnArchive) {
  auto outcome = download(server_.url("/missing.zip"));
  EXPECT_EQ(outcome.error, std::nullopt);
  EXPECT_EQ(readText(dest_), "<html>no such page</html>");
}

TEST_F(DownloaderTest, RefusedAndFailedTransfersAreReported) {
  server_.route("/a.zip", {200, "PK"});
  server_.route("/moved.zip", {302, "", true, server_.url("/a.zip")});
  struct Case {
    std::string url;
    fs::path dest;
    std::string inError;  // "" when any reason will do
  };
  for (const Case& c : std::vector<Case>{
           {"http://127.0.0.1:1/a.zip", dest_, ""},  // nothing listens there
           {"http://updates.example.org/a.zip", dest_, "“http://updates.example.org/a.zip” is plain http"},
           {server_.url("/moved.zip"), dest_, "refused a redirect to"},
           {server_.url("/a.zip"), dir_.path() / "missing-folder/a.zip", "missing-folder"},
       }) {
    SCOPED_TRACE(c.url);
    dest_ = c.dest;
    auto outcome = download(c.url);
    ASSERT_TRUE(outcome.error);
    EXPECT_FALSE(outcome.error->empty());
    EXPECT_NE(outcome.error->find(c.inError), std::string::npos) << *outcome.error;
    EXPECT_TRUE(fs::is_empty(dir_.path())) << "nothing is left behind";
  }
}

// The whole check → choice → download → install path with a fake UI.
class UpdateFlowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogCapture::instance().clear();
    fs::create_directories(home_.dataDir());
  }
  void serveManifest(const std::string& text) {
    server_.route("/rel/latest.txt", {200, text});
    home_.writeConfig(R"({"updateUrl": ")" + server_.url("/rel/latest.txt") + R"("})");
  }
  void check() {
    updater_.checkForUpdates();
    ASSERT_TRUE(pumpUntil([&] {
      return !host_.asked.empty() || loggedPrefix("[Update] already") || loggedPrefix("[Update] manifest");
    }));
  }

  HomeOverride home_;
  HttpTestServer server_;
  FakeUpdateHost host_;
  Updater updater_{host_};
};

TEST_F(UpdateFlowTest, DisabledOrRefusedUpdatesAreNeverFetched) {
  serveManifest("99.0\na.zip\n");
  home_.writeConfig(R"({"updateEnabled": false, "updateUrl": ")" + server_.url("/rel/latest.txt") + R"("})");
  updater_.checkForUpdates();
  EXPECT_TRUE(logged("[Update] auto-update disabled (updateEnabled=false) — skipping"));
  home_.writeConfig(R"({"updateBaseUrl": "ftp://nowhere"})");
  updater_.checkForUpdates();
  EXPECT_TRUE(logged("[Update] no update URL configured — skipping check"));
  home_.writeConfig(R"({"updateBaseUrl": "http://updates.example.org"})");
  updater_.checkForUpdates();
  EXPECT_TRUE(logged("[Update] “http://updates.example.org/releases/linux/latest.txt” is plain http, which the updater "
                     "accepts only from this machine (127.0.0.1, ::1, localhost) — skipping check"));
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(UpdateFlowTest, ManifestRequestIsUncachedWithTheUpdaterAgent) {
  serveManifest("0.0.0\n");
  check();
  EXPECT_TRUE(logged("[Update] checking " + server_.url("/rel/latest.txt")));
  EXPECT_TRUE(logged("[Update] already up to date"));
  const std::string request = server_.requests().at(0);
  EXPECT_EQ(request.rfind("GET /rel/latest.txt HTTP/1.1\r\n", 0), 0u);
  EXPECT_NE(request.find("User-Agent: ondrel-linux-updater\r\n"), std::string::npos);
  EXPECT_NE(request.find("Cache-Control: no-cache\r\n"), std::string::npos);
  EXPECT_TRUE(host_.asked.empty());
}

TEST_F(UpdateFlowTest, LaterAndNextRestartAnswers) {
  serveManifest("99.1\nOndrel-99.1-x86_64.zip\n");
  host_.choice = UpdateHost::Choice::Later;
  check();
  EXPECT_EQ(host_.asked, (std::vector<std::string>{"99.1 over " + ondrelCurrentVersion()}));
  EXPECT_TRUE(pumpUntil([&] { return logged("[Update] deferred by user"); }));
  EXPECT_FALSE(fs::exists(ondrelPendingUpdatePath()));

  host_.choice = UpdateHost::Choice::NextRestart;
  updater_.checkForUpdates();
  ASSERT_TRUE(pumpUntil([&] { return logged("[Update] scheduled version 99.1 for next restart"); }));
  EXPECT_EQ(host_.asked.size(), 2u);
  auto record = ondrelReadPendingUpdate(ondrelPendingUpdatePath());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->version, "99.1");
  EXPECT_EQ(record->url, server_.url("/rel/Ondrel-99.1-x86_64.zip"));
  EXPECT_TRUE(host_.progressLabels.empty()) << "nothing is downloaded now";
}

TEST_F(UpdateFlowTest, UpdateNowDownloadsUnpacksAndStartsTheSwap) {
  const fs::path zip = home_.path() / "served.zip";
  ASSERT_TRUE(writeZip(zip.string(), appDirEntries("Ondrel.AppDir")));
  server_.route("/rel/Ondrel-99.2-x86_64.zip", {200, readText(zip)});
  serveManifest("99.2\nOndrel-99.2-x86_64.zip\n");
  host_.choice = UpdateHost::Choice::UpdateNow;
  host_.executable = "/home/u/Apps/Ondrel.AppDir/usr/bin/ondrel";
  check();
  ASSERT_TRUE(pumpUntil([&] { return host_.finished(); }, 20)) << "no exit and no failure";

  EXPECT_EQ(host_.failures, std::vector<std::string>{});
  EXPECT_EQ(host_.progressLabels, (std::vector<std::string>{"Updating to 99.2…"}));
  EXPECT_EQ(host_.launched, (std::vector<std::string>{ondrelSwapScriptPath()}));
  EXPECT_EQ(host_.exits, (std::vector<int>{0}));
  EXPECT_EQ(host_.hides, 1);
  const std::string dest = ondrelUpdatesDir() + "/Ondrel-99.2-x86_64.zip";
  EXPECT_TRUE(logged("[Update] downloaded " + dest + " (" + std::to_string(fs::file_size(zip)) + " bytes)"));
  EXPECT_TRUE(logged("[Update] swap started; relaunching /home/u/Apps/Ondrel.AppDir"));
  EXPECT_TRUE(fs::is_directory(ondrelStageDir() + "/Ondrel.AppDir/usr/bin"));
}

TEST_F(UpdateFlowTest, ScheduledUpdateIsRemovedFirstAndAFailureGoesOnWithTheStart) {
  const std::string url = server_.url("/gone/Ondrel.zip");
  ASSERT_TRUE(ondrelWritePendingUpdate(ondrelPendingUpdatePath(), "3.0", url));
  updater_.applyScheduledUpdate();

  EXPECT_FALSE(fs::exists(ondrelPendingUpdatePath()));
  EXPECT_TRUE(updater_.isDeferred());
  EXPECT_EQ(host_.loopRuns, 1);
  EXPECT_EQ(host_.loopStops, 1);
  EXPECT_TRUE(logged("[Update] applying scheduled update 3.0 (" + url + ")"));
  EXPECT_TRUE(logged("[Update] verify Ondrel.zip (25 bytes, magic NOT A ZIP)"));
  EXPECT_EQ(host_.failures, (std::vector<std::string>{
                                "The downloaded file (25 bytes) is not a valid zip archive. It may be an error page "
                                "from the server. Your current version is unchanged."}));
  EXPECT_TRUE(host_.exits.empty());
}

TEST_F(UpdateFlowTest, FailedOrRefusedDownloadShowsWhyAndStopsTheDeferredLoop) {
  struct Case {
    std::string url, why;  // why: how the reason begins, "" when any will do
  };
  const std::vector<Case> cases = {
      {"http://127.0.0.1:1/Ondrel.zip", ""},
      {"http://updates.example.org/Ondrel.zip", "“http://updates.example.org/Ondrel.zip” is plain http"},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].url);
    ASSERT_TRUE(ondrelWritePendingUpdate(ondrelPendingUpdatePath(), "", cases[i].url));
    updater_.applyScheduledUpdate();
    EXPECT_TRUE(logged("[Update] applying scheduled update  (" + cases[i].url + ")"));
    EXPECT_TRUE(loggedPrefix("[Update] download failed: " + cases[i].why));
    ASSERT_EQ(host_.failures.size(), i + 1);
    EXPECT_EQ(host_.failures[i].rfind("Could not download the update:\n" + cases[i].why, 0), 0u) << host_.failures[i];
    EXPECT_NE(host_.failures[i].find("\n\nYour current version is unchanged."), std::string::npos);
    EXPECT_EQ(host_.loopStops, static_cast<int>(i + 1));
  }
  EXPECT_EQ(host_.progressLabels, (std::vector<std::string>(2, "Downloading update…")));
}

TEST_F(UpdateFlowTest, RecordsWithoutAUrlAreLeftAlone) {
  const std::string path = ondrelPendingUpdatePath();
  for (const char* text : {R"({"version": "2.0", "url": ""})", R"({"version": "2.0", "url": 7})",
                           R"({"version": "2.0"})", R"(["url", "http://x/a.zip"])", "{broken"}) {
    writeText(path, text);
    updater_.applyScheduledUpdate();
    EXPECT_EQ(readText(path), text);
    EXPECT_EQ(host_.loopRuns, 0) << text;
  }
  EXPECT_FALSE(updater_.isDeferred());
  writeText(path, R"({"url": "http://x/a.zip", "version": 5})");
  auto record = ondrelReadPendingUpdate(path);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->version, "");
}

TEST_F(UpdateFlowTest, AboutTextShowsVersionServerAndUpdateSource) {
  const std::string head = "\n\nVersion 1.4 (build 12)\nInstance Server: team.on.x.example\nUpdate Source: ";
  home_.writeConfig(R"({"updateUrl": "https://Updates.Example.org:8443/m/latest.txt"})");
  std::string text = ondrelAboutText("1.4", "12", "https://Team.on.x.example/", true);
  EXPECT_EQ(text.substr(text.find("\n\n")), head + "updates.example.org");
  EXPECT_EQ(text.find('\n'), text.find("\n\n")) << "a one-line tagline comes first";

  home_.writeConfig(R"({"updateEnabled": false, "updateUrl": "https://u.example/latest.txt"})");
  text = ondrelAboutText("", "", std::nullopt, true);
  EXPECT_EQ(text.substr(text.find("\n\n")),
            "\n\nVersion 0.0.0 (build )\nInstance Server: —\nUpdate Source: disabled");

  home_.writeConfig(R"({"updateBaseUrl": "ftp://x"})");
  text = ondrelAboutText("1", "1", "not a url", false);
  EXPECT_EQ(text.substr(text.find("\n\n")), "\n\nVersion 1 (build 1)\nInstance Server: —\nUpdate Source: disabled\n"
                                               "Updates are not signature-checked.");

  updater_.showAbout(std::nullopt);
  EXPECT_EQ(host_.abouts.size(), 1u);
}

}  // namespace
