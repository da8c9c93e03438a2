#include "base/settings.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "home_override.h"
#include "test_files.h"

namespace {

// Each test gets a fresh HOME.
class SettingsTest : public ::testing::Test {
 protected:
  void writeConfig(const std::string& text) { home_.writeConfig(text); }

  HomeOverride home_;
};

TEST_F(SettingsTest, ReadConfigYieldsOnlyTopLevelObjects) {
  EXPECT_FALSE(ondrelReadConfig()) << "missing file";
  const std::pair<std::string, bool> cases[] = {
      {R"(["server"])", false}, {"{not json", false}, {"", false},   {"42", false},
      {R"("text")", false},     {"null", false},      {"{}", true}, {R"({"a": [1]})", true},
  };
  for (const auto& [text, isObject] : cases) {
    writeConfig(text);
    EXPECT_EQ(ondrelReadConfig().has_value(), isObject) << text;
  }
  writeConfig(R"({"server": "https://x", "mcpServers": {}})");
  auto config = ondrelReadConfig();
  ASSERT_TRUE(config);
  EXPECT_EQ((*config)["server"], "https://x");
}

TEST_F(SettingsTest, ConfigStringIsPresentOnlyForNonEmptyStrings) {
  EXPECT_EQ(ondrelConfigString("updateUrl"), std::nullopt) << "missing file";
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {R"({"updateUrl": "https://u"})", "https://u"},
      {R"({"updateUrl": ""})", std::nullopt},
      {R"({"updateUrl": 42})", std::nullopt},
      {R"({"updateUrl": null})", std::nullopt},
      {R"({"updateUrl": {"a": "b"}})", std::nullopt},
      {R"({"other": "x"})", std::nullopt},
      {R"(["updateUrl", "https://u"])", std::nullopt},
      {R"({"updateUrl": "https://u",)", std::nullopt},
  };
  for (const auto& [text, expected] : cases) {
    writeConfig(text);
    EXPECT_EQ(ondrelConfigString("updateUrl"), expected) << text;
  }
}

TEST_F(SettingsTest, UpdatesEnabledUnlessSwitchedOff) {
  EXPECT_TRUE(ondrelUpdatesEnabled()) << "missing file";
  const std::pair<std::string, bool> cases[] = {
      {R"({"updateEnabled": false})", false}, {R"({"updateEnabled": true})", true},
      {R"({"updateEnabled": 0})", false},     {R"({"updateEnabled": 0.0})", false},
      {R"({"updateEnabled": 1})", true},      {R"({"updateEnabled": -2})", true},
      {R"({"server": "x"})", true},           {"not json", true},
      {R"([{"updateEnabled": false}])", true},
  };
  for (const auto& [text, enabled] : cases) {
    writeConfig(text);
    EXPECT_EQ(ondrelUpdatesEnabled(), enabled) << text;
  }
}

TEST_F(SettingsTest, FileEditedBetweenCallsIsReadAfresh) {
  writeConfig(R"({"updateUrl": "https://first", "updateEnabled": true})");
  EXPECT_EQ(ondrelConfigString("updateUrl"), "https://first");
  EXPECT_TRUE(ondrelUpdatesEnabled());
  writeConfig(R"({"updateUrl": "https://second", "updateEnabled": false})");
  EXPECT_EQ(ondrelConfigString("updateUrl"), "https://second");
  EXPECT_FALSE(ondrelUpdatesEnabled());
  std::filesystem::remove(home_.path() / ".config/ondrel/config.json");
  EXPECT_EQ(ondrelReadConfig(), std::nullopt);
  EXPECT_TRUE(ondrelUpdatesEnabled());
}

}  // namespace
