#include "update/manifest.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/settings.h"
#include "build_config.h"
#include "home_override.h"
#include "log_capture.h"
#include "update/version.h"

namespace {

using Lines = std::vector<std::string>;

TEST(UpdateVersion, ComparesComponentsNumerically) {
  const struct {
    const char *a, *b;
    int order;
  } cases[] = {
      {"1.9", "1.10", -1},    {"10", "9", 1},        {"1.2", "1.2.0", 0},     {"1.2.0", "1.2.1", -1},
      {"2.0", "2.0-beta", -1}, {"1.007", "1.7", 0},   {"1..2", "1.0.2", -1},   {"", "0", -1},
      {"1.2a", "1.2b", -1},   {"1.2B", "1.2a", -1},  {"1.2", "1.2a", -1},     {"3.0.0", "2.99.99", 1},
      {"1.99999999999999999999", "1.100000000000000000000", -1}, {"1.0.0.0.1", "1.0", 1},
  };
  for (const auto& c : cases) {
    int order = ondrelCompareVersions(c.a, c.b);
    EXPECT_EQ((order > 0) - (order < 0), c.order) << c.a << " vs " << c.b;
  }
  EXPECT_EQ(ondrelVersionOrDefault(""), "0.0.0");
  EXPECT_EQ(ondrelVersionOrDefault("1.4"), "1.4");
}

TEST(UpdateManifest, LinesSplitAtEveryBreakAndAreTrimmed) {
  EXPECT_EQ(ondrelManifestLines("1.2\rA.zip\x0b" "extra"), (Lines{"1.2", "A.zip", "extra"}));
  EXPECT_EQ(ondrelManifestLines("1.2\u2028a.zip\u2029b\u0085c\fd"), (Lines{"1.2", "a.zip", "b", "c", "d"}));
  EXPECT_EQ(ondrelManifestLines("\u00a0\t1.3\u3000\n  \n\t\n"), (Lines{"1.3"}));
  EXPECT_EQ(ondrelManifestLines("a b \n"), (Lines{"a b"})) << "inner blanks stay";
  EXPECT_EQ(ondrelManifestLines("\xEF\xBB\xBF" "2.0\r\na.zip\r\n"), (Lines{"2.0", "a.zip"})) << "byte-order mark";
  EXPECT_TRUE(ondrelManifestLines("").empty());
  EXPECT_TRUE(ondrelManifestLines("1.2\n\xff\xfe.zip\n").empty()) << "not UTF-8 counts as empty";
}

TEST(UpdateManifest, DigitTestAcceptsAnyDecimalDigit) {
  // An Arabic-Indic three is a digit; a Roman numeral is a number but no digit.
  for (const char* text : {"1", "v-next-2", "\u0663"}) EXPECT_TRUE(ondrelContainsDecimalDigit(text)) << text;
  for (const char* text : {"latest", "\u2167", ""}) EXPECT_FALSE(ondrelContainsDecimalDigit(text)) << text;
}

TEST(UpdateManifest, ZipUrlReplacesTheLastPathComponent) {
  const char* const cases[][3] = {
      {"https://h", "a.zip", "https://h/a.zip"},
      {"https://h/dir/", "a.zip", "https://h/a.zip"},  // the last component is dir
      {"https://h/m/latest.txt?channel=beta", "a.zip", "https://h/m/a.zip?channel=beta"},
      {"http://[::1]:9/m/latest.txt#top", "a.zip", "http://[::1]:9/m/a.zip#top"},
      {"https://h/m/latest.txt", "/a.zip", "https://h/m/a.zip"},
      {"https://h/m/latest.txt", "sub/a b#1.zip", "https://h/m/sub/a%20b%231.zip"},
  };
  for (const auto& c : cases) EXPECT_EQ(ondrelZipURL(c[0], c[1]), c[2]) << c[0] << " + " << c[1];
}

TEST(ManifestUrl, FormedFromUpdateUrlThenBaseUrlThenBuiltInBase) {
  HomeOverride home;
  const std::string builtIn = std::string(ondrel::build::kUpdateBaseUrl) + "/releases/linux/latest.txt";
  EXPECT_EQ(ondrelUpdateManifestURL(), builtIn) << "no settings file";

  const struct {
    const char* config;
    std::optional<std::string> url;
  } cases[] = {
      {R"({"updateUrl": "http://127.0.0.1:9/feed/latest.txt/"})", "http://127.0.0.1:9/feed/latest.txt"},
      {R"({"updateUrl": "updates.example.org/m.txt", "updateBaseUrl": "https://b"})",
       "https://updates.example.org/m.txt"},
      {R"({"updateUrl": "ftp://x/latest.txt"})", std::nullopt},
      {R"({"updateUrl": "", "updateBaseUrl": "https://b.example///"})", "https://b.example/releases/linux/latest.txt"},
      {R"({"updateUrl": 42, "updateBaseUrl": "b.example:8443"})", "https://b.example:8443/releases/linux/latest.txt"},
      {R"({"updateBaseUrl": "ftp://b.example"})", std::nullopt},
      {R"({"updateBaseUrl": ""})", builtIn},
  };
  for (const auto& c : cases) {
    home.writeConfig(c.config);
    EXPECT_EQ(ondrelUpdateManifestURL(), c.url) << c.config;
  }
}

// Why an answer offers nothing is only visible in the log.
TEST(ManifestVerdict, OnlyANewerVersionIsOfferedAndEveryRefusalIsLogged) {
  auto offer =
      ondrelEvaluateManifest("http://h/x/latest.txt", true, 200, "  1.10\r\n\n Ondrel-1.10-x86_64.zip \n", "1.9");
  ASSERT_TRUE(offer);
  EXPECT_EQ(offer->remote, "1.10");
  EXPECT_EQ(offer->zipUrl, "http://h/x/Ondrel-1.10-x86_64.zip");

  const struct {
    long status;
    bool ok;
    const char *body, *current;
    const char* why;  // the line logged
  } cases[] = {
      {404, true, "2.0\na.zip", "1.0", "[Update] manifest unavailable (HTTP 404) — skipping check"},
      {-1, false, "", "1.0", "[Update] manifest unavailable (HTTP -1) — skipping check"},
      {200, true, " \n\r\n", "1.0", "[Update] manifest empty"},
      {200, true, "latest\na.zip", "1.0", "[Update] manifest does not look like a version (latest) — skipping"},
      {200, true, "1.2.0\na.zip", "1.2", "[Update] already up to date"},
      {200, true, "1.0\n", "2.0", "[Update] already up to date"},
      {200, true, "2.0-beta", "2.0", "[Update] manifest missing the zip filename on line 2"},
  };
  for (const auto& c : cases) {
    LogCapture::instance().clear();
    EXPECT_FALSE(ondrelEvaluateManifest("http://h/x/latest.txt", c.ok, c.status, c.body, c.current)) << c.body;
    EXPECT_EQ(LogCapture::instance().countStartingWith(c.why), 1) << c.body;
  }
}

// Each call reads the file afresh, so one HOME serves every case.
TEST(Settings, OnlyATopLevelObjectCountsAndUpdatesStayOnUnlessSwitchedOff) {
  HomeOverride home;
  EXPECT_FALSE(ondrelReadConfig()) << "missing file";
  EXPECT_EQ(ondrelConfigString("updateUrl"), std::nullopt);
  EXPECT_TRUE(ondrelUpdatesEnabled());
  const struct {
    std::string text;
    bool object;
    std::optional<std::string> updateUrl;
    bool updates;
  } cases[] = {
      {R"({"updateUrl": "https://u", "updateEnabled": false})", true, "https://u", false},
      {R"({"updateUrl": "", "updateEnabled": true})", true, std::nullopt, true},
      {R"({"updateUrl": 42, "updateEnabled": 0.0})", true, std::nullopt, false},
      {R"({"updateUrl": null, "updateEnabled": -2})", true, std::nullopt, true},
      {R"({"updateUrl": {"a": "b"}, "updateEnabled": null})", true, std::nullopt, false},
      {R"({"other": "x", "updateEnabled": "no"})", true, std::nullopt, true},
      {R"([{"updateEnabled": false}])", false, std::nullopt, true},
      {R"({"updateUrl": "https://u", "updateEnabled": false,)", false, std::nullopt, true},
      {R"("text")", false, std::nullopt, true},
  };
  for (const auto& c : cases) {
    home.writeConfig(c.text);
    EXPECT_EQ(ondrelReadConfig().has_value(), c.object) << c.text;
    EXPECT_EQ(ondrelConfigString("updateUrl"), c.updateUrl) << c.text;
    EXPECT_EQ(ondrelUpdatesEnabled(), c.updates) << c.text;
  }
}

}  // namespace
