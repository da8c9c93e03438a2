#include <gtest/gtest.h>
#include <glib.h>

#include <tuple>

#include "base/json.h"
#include "base/log.h"
#include "base/newest_lines.h"

// Long log lines are cut for the panel and for page payloads; short ones must
// come through untouched, and a cut must never split a UTF-8 character.

TEST(LogText, ShortTextIsUnchangedAndLongTextIsCutAtACharacter) {
  EXPECT_EQ(abbreviateForLog("[Server] loading x"), "[Server] loading x");
  std::string umlauts;
  for (int i = 0; i < 3000; ++i) umlauts += "ü";  // two bytes each
  EXPECT_EQ(abbreviateForLog(umlauts, 4001), umlauts.substr(0, 4000) + "… (6000 bytes in all)");
}

TEST(LogText, BoundedDescriptionMatchesTheFullOneUntilTheLimit) {
  Json small = Json::parse(R"(["/tmp/a", {"k": [1, 2.5, true, null]}, "x\"y"])");
  EXPECT_EQ(describeJsonBounded(small, 4000), describeJson(small));

  Json big = Json::array({"/tmp/out.txt", std::string(16 * 1024 * 1024, 'a'), "tail"});
  std::string text = describeJsonBounded(big, 4000);
  EXPECT_LT(text.size(), 4100u);
  EXPECT_EQ(text.rfind(R"(["/tmp/out.txt","aaaa)", 0), 0u);
  EXPECT_EQ(text.substr(text.size() - 3), "…");
  EXPECT_EQ(text.find("tail"), std::string::npos);

  Json wide = Json::array({std::string(3990, 'b'), "ééééééééé"});
  EXPECT_TRUE(g_utf8_validate(describeJsonBounded(wide, 4000).c_str(), -1, nullptr));
}

// The panel's cap: the newest lines stay whole and in order, however they
// are taken out; a logged line holding line feeds counts as several.
TEST(LogText, PanelKeepsTheNewestLinesInOrder) {
  using Lines = std::vector<std::string>;
  const std::tuple<Lines, std::vector<size_t>, Lines> cases[] = {  // logged, how many each take asks for, taken
      {{"a", "b", "c", "d"}, {1, 1, 5, 5}, {"b\n", "c\n", "d\n", ""}},
      {{"a", "two\nlines", "c"}, {10}, {"two\nlines\nc\n"}},
      {{"a", "b", "x\ny\nz\nw"}, {2, 5}, {"y\nz\n", "w\n"}},
      {{"", "", "", ""}, {10}, {"\n\n\n"}},
  };
  for (const auto& [logged, takes, expected] : cases) {
    NewestLines lines(3);
    for (const auto& line : logged) lines.appendLine(line);
    Lines taken;
    for (size_t n : takes) taken.push_back(lines.take(n));
    EXPECT_EQ(taken, expected) << logged.size();
  }
}
