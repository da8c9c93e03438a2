// The steps' time-outs and the conversion of tool results.

#include <tuple>

#include "mcp/tool_result.h"
#include "mcp_test_support.h"

namespace {

Json image(const std::string& data, const Json& mime = "image/png") {
  Json element = {{"type", "image"}, {"data", data}};
  if (!mime.is_null()) element["mimeType"] = mime;
  return element;
}

Json convert(const Json& content, Json extra = Json::object()) {
  extra["content"] = content;
  return ondrelConvertToolResult(extra);
}

}  // namespace

TEST(McpToolResult, AtMostFourImagesWithNotesForTheRest) {
  Json six = Json::array();
  for (int i = 0; i < 6; ++i) six.push_back(image("img" + std::to_string(i)));
  Json out = convert(six);
  ASSERT_EQ(out["images"].size(), 4u);
  EXPECT_EQ(out["images"][3], (Json{{"mimeType", "image/png"}, {"data", "img3"}}));
  EXPECT_EQ(out["text"], "[additional image omitted]\n[additional image omitted]");

  Json embedded = {{"type", "resource"}, {"resource", {{"mimeType", "image/jpeg"}, {"blob", "BBBB"}}}};
  six.erase(six.begin() + 4, six.end());
  six.push_back(embedded);
  EXPECT_EQ(convert(six), (Json{{"images", out["images"]}})) << "an embedded fifth image is dropped without a note";
  EXPECT_EQ(convert(Json::array({embedded}))["images"], (Json{{{"mimeType", "image/jpeg"}, {"data", "BBBB"}}}));
}

TEST(McpToolResult, ImageTypesAndSizeCap) {
  const std::string atCap(kMcpMaxImageChars, 'A');
  const std::string unattached = "[image content could not be attached]";
  const struct {
    Json element;
    Json expected;
  } cases[] = {
      {image("a", "IMAGE/JPEG"), {{"images", {{{"mimeType", "image/jpeg"}, {"data", "a"}}}}}},
      {image("a", "application/pdf"), {{"images", {{{"mimeType", "image/png"}, {"data", "a"}}}}}},
      {image("a", nullptr), {{"images", {{{"mimeType", "image/png"}, {"data", "a"}}}}}},
      {image(atCap), {{"images", {{{"mimeType", "image/png"}, {"data", atCap}}}}}},
      {image(atCap + "A"), {{"text", unattached}}},
      {image(""), {{"text", unattached}}},
      {{{"type", "image"}, {"data", 17}}, {{"text", unattached}}},
  };
  for (const auto& c : cases) EXPECT_TRUE(convert(Json::array({c.element})) == c.expected) << c.element.dump().substr(0, 80);

  // The cap counts UTF-16 units: 4,000,000 two-byte characters fit, one
  // more four-byte one (two units) does not.
  std::string wide;
  for (size_t i = 0; i < kMcpMaxImageChars / 2; ++i) wide += "\xC3\xA9";
  EXPECT_TRUE(McpImageBlock(wide + std::string(kMcpMaxImageChars / 2, 'a'), "image/png"));
  EXPECT_FALSE(McpImageBlock(wide + std::string(kMcpMaxImageChars / 2 - 1, 'a') + "\xF0\x9F\x98\x80", "image/png"));
}

TEST(McpToolResult, TextPiecesResourcesAndLinks) {
  Json content = {
      {{"type", "text"}, {"text", "first"}},
      {{"type", "image"}, {"text", "caption instead"}, {"data", "AAAA"}},
      {{"type", "resource"}, {"resource", {{"uri", "file:///x"}, {"text", "file text"}}}},
      {{"type", "resource"}, {"resource", {{"uri", "file:///bin"}, {"mimeType", "application/zip"}, {"blob", "UEsD"}}}},
      {{"type", "resource"}, {"resource", {{"uri", "file:///raw"}, {"blob", "UEsD"}}}},
      {{"type", "resource"}, {"resource", {{"uri", "file:///only-uri"}}}},
      {{"type", "resource"}, {"resource", "not an object"}},
      {{"type", "resource_link"}, {"name", "Notes"}, {"uri", "file:///notes"}},
      {{"type", "resource_link"}, {"uri", "file:///plain"}},
      {{"type", "resource_link"}},
      {{"type", "audio"}, {"data", "AAAA"}, {"mimeType", "audio/wav"}},
      "not an object",
      {{"type", "text"}, {"text", ""}},
      {{"type", "text"}, {"text", 42}},
      {{"type", "text"}},
      {{"type", "mystery"}, {"text", "any type with text"}},
  };
  EXPECT_EQ(convert(content), (Json{{"text",
                                     "first\ncaption instead\nfile text\n[binary resource: application/zip]\n"
                                     "[binary resource: unknown type]\n[resource content]\n[resource content]\n"
                                     "[resource link: Notes]\n[resource link: file:///plain]\n[resource link: unknown]\n"
                                     "\n42\nany type with text"}}));
}

TEST(McpToolResult, FlagsStructuredContentAndEmptyResults) {
  const Json structured = {{"temperature", 21.5}};
  const Json text = {{{"type", "text"}, {"text", "t"}}};
  const std::pair<Json, Json> cases[] = {
      {Json::object(), {{"text", ""}}},
      {nullptr, {{"text", ""}}},
      {{{"content", Json::array()}, {"isError", true}}, {{"isError", true}}},
      {{{"content", Json::array()}, {"isError", false}}, {{"text", ""}}},
      {{{"content", text}, {"isError", true}}, {{"isError", true}, {"text", "t"}}},
      {{{"content", text}, {"structuredContent", structured}}, {{"structuredContent", structured}, {"text", "t"}}},
      {{{"structuredContent", nullptr}}, {{"structuredContent", nullptr}}},  // any value is copied
  };
  for (const auto& [result, expected] : cases) EXPECT_EQ(ondrelConvertToolResult(result), expected) << result;
}

using McpTools = HomeFixture;

// A handshake that fails ends the call; the listing's side is the registry test's.
TEST_F(McpTools, EachStepTimesOutWithItsOwnLimit) {
  const std::tuple<Json, McpTask::Timeouts, std::string> cases[] = {
      {{{"initialize", nullptr}}, {0.3, 30, 120}, "initialize"},
      {Json::object(), {45, 30, 0.3}, "tools/call"},
  };
  for (const auto& [opts, timeouts, step] : cases) {
    auto task = startFake("tools", opts);
    task->setTimeouts(timeouts);
    std::optional<Json> error;
    task->callTool("t", {{"script", Json::array()}}, [&](bool, const Json&, const Json& e) { error = e; });
    ASSERT_TRUE(pumpUntil([&] { return error.has_value(); }));
    EXPECT_EQ(*error, (Json{{"message", "MCP server 'tools' did not respond to '" + step + "' within 0s"}}));
  }
}
