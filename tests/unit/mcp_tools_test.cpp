// Tool listing with its cache, calling, and the conversion of tool results.

#include <string>

#include "base/json.h"
#include "mcp/mcp_task.h"
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

  Json fourThenEmbedded = Json::array();
  for (int i = 0; i < 4; ++i) fourThenEmbedded.push_back(image("img" + std::to_string(i)));
  fourThenEmbedded.push_back({{"type", "resource"}, {"resource", {{"uri", "file:///a.png"}, {"mimeType", "image/png"}, {"blob", "AAAA"}}}});
  out = convert(fourThenEmbedded);
  EXPECT_EQ(out["images"].size(), 4u);
  EXPECT_FALSE(out.contains("text")) << "an embedded fifth image is dropped without a note";

  Json embeddedFirst = {{{"type", "resource"}, {"resource", {{"mimeType", "image/jpeg"}, {"blob", "BBBB"}}}}};
  EXPECT_EQ(convert(embeddedFirst)["images"], (Json{{{"mimeType", "image/jpeg"}, {"data", "BBBB"}}}));
}

TEST(McpToolResult, ImageTypesAndSizeCap) {
  EXPECT_EQ(convert(Json::array({image("a", "IMAGE/JPEG")}))["images"][0]["mimeType"], "image/jpeg");
  EXPECT_EQ(convert(Json::array({image("a", "application/pdf")}))["images"][0]["mimeType"], "image/png");
  EXPECT_EQ(convert(Json::array({image("a", nullptr)}))["images"][0]["mimeType"], "image/png") << "missing type";
  EXPECT_EQ(convert(Json::array({image("a", 42)}))["images"][0]["mimeType"], "image/png") << "type not a string";

  std::string atCap(kMcpMaxImageChars, 'A');
  EXPECT_EQ(convert(Json::array({image(atCap)}))["images"][0]["data"].get_ref<const std::string&>().size(), kMcpMaxImageChars);
  Json over = convert(Json::array({image(atCap + "A")}));
  EXPECT_FALSE(over.contains("images"));
  EXPECT_EQ(over["text"], "[image content could not be attached]");
  EXPECT_EQ(convert(Json::array({image("")}))["text"], "[image content could not be attached]");
  EXPECT_EQ(convert(Json::array({{{"type", "image"}, {"data", 17}}}))["text"], "[image content could not be attached]");

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
  Json out = convert(content);
  EXPECT_EQ(out, (Json{{"text",
                        "first\ncaption instead\nfile text\n[binary resource: application/zip]\n"
                        "[binary resource: unknown type]\n[resource content]\n[resource content]\n"
                        "[resource link: Notes]\n[resource link: file:///plain]\n[resource link: unknown]\n"
                        "\n42\nany type with text"}}));
}

TEST(McpToolResult, FlagsStructuredContentAndEmptyResults) {
  EXPECT_EQ(ondrelConvertToolResult(Json::object()), (Json{{"text", ""}}));
  EXPECT_EQ(ondrelConvertToolResult(nullptr), (Json{{"text", ""}})) << "no result at all";
  EXPECT_EQ(convert(Json::array(), {{"isError", true}}), (Json{{"isError", true}}));
  EXPECT_EQ(convert(Json::array(), {{"isError", false}}), (Json{{"text", ""}}));
  EXPECT_EQ(convert({{{"type", "text"}, {"text", "bad input"}}}, {{"isError", true}}),
            (Json{{"isError", true}, {"text", "bad input"}}));

  Json structured = {{"temperature", 21.5}, {"conditions", "sunny"}};
  EXPECT_EQ(convert({{{"type", "text"}, {"text", "{...}"}}}, {{"structuredContent", structured}}),
            (Json{{"structuredContent", structured}, {"text", "{...}"}}));
  EXPECT_EQ(ondrelConvertToolResult({{"structuredContent", nullptr}}), (Json{{"structuredContent", nullptr}}))
      << "any value, null included, is copied";
}

class McpTools : public HomeFixture {
 protected:
  void TearDown() override {
    if (task_) task_->stop();
    HomeFixture::TearDown();
  }
  std::shared_ptr<McpTask> start(const Json& opts = Json::object()) {
    task_ = McpTask::create(context_, "tools", fakeServer(), {opts.dump()}, {{"FAKE_LOG", (home() / "log.jsonl").string()}});
    task_->start();
    return task_;
  }
  size_t sent(const std::string& method) {
    size_t n = 0;
    for (const auto& m : readJsonLines(home() / "log.jsonl"))
      if (m.value("method", "") == method) ++n;
    return n;
  }
  std::shared_ptr<McpTask> task_;
};

TEST_F(McpTools, ListingIsCachedAfterTheFirstSuccess) {
  Json tools = {{{"name", "a"}, {"inputSchema", {{"type", "object"}}}}, {{"name", "b"}}};
  auto task = start({{"tools", tools}});
  std::optional<Json> first;
  task->listToolsWithCompletion([&](bool ok, const Json& list, const Json&) {
    if (ok) first = list;
  });
  ASSERT_TRUE(pumpUntil([&] { return first.has_value(); }));
  EXPECT_EQ(*first, tools);

  bool answeredAtOnce = false;
  task->listToolsWithCompletion([&](bool ok, const Json& list, const Json&) { answeredAtOnce = ok && list == tools; });
  EXPECT_TRUE(answeredAtOnce) << "the cached list comes on the calling thread";
  pumpFor(0.2);
  EXPECT_EQ(sent("tools/list"), 1u) << "a second listing sends nothing";
}

TEST_F(McpTools, FailedListingIsNotCached) {
  auto task = start({{"listError", {{"code", -32000}, {"message", "busy"}}}});
  std::vector<Json> errors;
  auto list = [&] {
    task->listToolsWithCompletion([&](bool ok, const Json&, const Json& error) {
      if (!ok) errors.push_back(error);
    });
  };
  list();
  ASSERT_TRUE(pumpUntil([&] { return errors.size() == 1; }));
  list();
  ASSERT_TRUE(pumpUntil([&] { return errors.size() == 2; }));
  EXPECT_EQ(errors[1], (Json{{"code", -32000}, {"message", "busy"}}));
  EXPECT_EQ(sent("tools/list"), 2u);
  EXPECT_EQ(sent("initialize"), 1u) << "the handshake succeeded once and holds";
}

TEST_F(McpTools, CallSendsNameAndObjectArgumentsAndConvertsTheResult) {
  auto task = start();
  std::optional<Json> result;
  task->callTool("echo", Json{{"message", "hi"}}, [&](bool ok, const Json& r, const Json&) {
    if (ok) result = r;
  });
  ASSERT_TRUE(pumpUntil([&] { return result.has_value(); }));
  EXPECT_EQ(Json::parse((*result)["text"].get<std::string>()), (Json{{"name", "echo"}, {"arguments", {{"message", "hi"}}}}));

  result.reset();
  task->callTool("", Json::array({1, 2}), [&](bool ok, const Json& r, const Json&) {
    if (ok) result = r;
  });
  ASSERT_TRUE(pumpUntil([&] { return result.has_value(); }));
  EXPECT_EQ(Json::parse((*result)["text"].get<std::string>()), (Json{{"name", ""}, {"arguments", Json::object()}}))
      << "arguments that are not an object become {}";

  std::optional<Json> error;
  task->callTool("t", {{"script", {{{"error", {{"code", -32602}, {"message", "bad args"}}}}}}},
                 [&](bool ok, const Json&, const Json& e) {
                   if (!ok) error = e;
                 });
  ASSERT_TRUE(pumpUntil([&] { return error.has_value(); }));
  EXPECT_EQ(*error, (Json{{"code", -32602}, {"message", "bad args"}}));

  result.reset();
  task->callTool("t", {{"script", {{{"respond", {{"content", {image("QUJD", "image/gif")}}, {"isError", true}}}}}}},
                 [&](bool ok, const Json& r, const Json&) {
                   if (ok) result = r;
                 });
  ASSERT_TRUE(pumpUntil([&] { return result.has_value(); }));
  EXPECT_EQ(*result, (Json{{"isError", true}, {"images", {{{"mimeType", "image/gif"}, {"data", "QUJD"}}}}}))
      << "a tool error is a success at this level";
}

TEST_F(McpTools, EachStepTimesOutWithItsOwnLimit) {
  auto silent = start({{"initSilent", true}});
  silent->setTimeouts({0.3, 30, 120});
  std::optional<Json> error;
  silent->listToolsWithCompletion([&](bool ok, const Json&, const Json& e) {
    if (!ok) error = e;
  });
  ASSERT_TRUE(pumpUntil([&] { return error.has_value(); }));
  EXPECT_EQ(*error, (Json{{"message", "MCP server 'tools' did not respond to 'initialize' within 0s"}}))
      << "a failed handshake is the listing's error";
  silent->stop();

  auto task = start();
  task->setTimeouts({45, 30, 0.3});
  error.reset();
  task->callTool("t", {{"script", Json::array()}}, [&](bool ok, const Json&, const Json& e) {
    if (!ok) error = e;
  });
  ASSERT_TRUE(pumpUntil([&] { return error.has_value(); }));
  EXPECT_EQ((*error)["message"], "MCP server 'tools' did not respond to 'tools/call' within 0s");
}
