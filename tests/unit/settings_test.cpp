#include "base/settings.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "home_override.h"

namespace {

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
      {R"({"updateEnabled": {}})", true, std::nullopt, true},
      {R"(["updateUrl", "https://u"])", false, std::nullopt, true},
      {R"([{"updateEnabled": false}])", false, std::nullopt, true},
      {R"({"updateUrl": "https://u", "updateEnabled": false,)", false, std::nullopt, true},
      {"", false, std::nullopt, true},
      {"null", false, std::nullopt, true},
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
