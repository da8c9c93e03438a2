// The JSON-RPC exchange with one server: framing, ids, time-outs, failures,
// server requests, notifications and the handshake.

#include <chrono>
#include <string>
#include <vector>

#include "base/json.h"
#include "mcp/line_buffer.h"
#include "mcp/mcp_task.h"
#include "mcp_test_support.h"

namespace {

std::vector<std::string> split(const std::vector<std::string>& chunks) {
  LineBuffer buffer;
  std::vector<std::string> out;
  for (const auto& chunk : chunks)
    buffer.append(chunk.data(), chunk.size(), [&](std::string_view line) { out.emplace_back(line); });
  if (auto rest = buffer.takeRest(); !rest.empty()) out.push_back("<eof>" + rest);
  return out;
}

}  // namespace

TEST(McpLineBuffer, SplitsAtNewlinesAcrossChunksAndSkipsEmptyLines) {
  EXPECT_EQ(split({"{\"a\":1}\n\n{\"b\":2}\n"}), (std::vector<std::string>{"{\"a\":1}", "{\"b\":2}"}));
  EXPECT_EQ(split({"\n\n\n"}), std::vector<std::string>{});
  EXPECT_EQ(split({"{\"a\"", ":1", "}\n{\"b\"", ":2}"}), (std::vector<std::string>{"{\"a\":1}", "<eof>{\"b\":2}"}));
  EXPECT_EQ(split({"one\r\n"}), std::vector<std::string>{"one\r"}) << "only 0x0A ends a line";

  std::string big(10000, 'x');
  std::vector<std::string> chunks;
  for (size_t i = 0; i < big.size(); i += 4096) chunks.push_back(big.substr(i, 4096));
  chunks.back() += "\n";
  EXPECT_EQ(split(chunks), std::vector<std::string>{big}) << "a line over several 4096-byte reads comes out once";
}

TEST(McpLineBuffer, OverlongLineIsDroppedUpToItsNewline) {
  LineBuffer buffer(16);
  std::vector<std::string> out;
  auto feed = [&](const std::string& s) {
    buffer.append(s.data(), s.size(), [&](std::string_view line) { out.emplace_back(line); });
  };
  feed("0123456789");
  feed("0123456789");  // past the cap: dropped
  feed("tail of the long one\nshort\n");
  EXPECT_EQ(out, std::vector<std::string>{"short"});
}

class McpSession : public HomeFixture {
 protected:
  void TearDown() override {
    for (auto& task : tasks_) task->stop();
    HomeFixture::TearDown();
  }

  std::shared_ptr<McpTask> startFake(const std::string& name = "fake", const Json& opts = Json::object()) {
    auto task = McpTask::create(name, fakeServer(), {opts.dump()}, {{"FAKE_LOG", serverLog().string()}});
    task->start();
    tasks_.push_back(task);
    return task;
  }
  std::filesystem::path serverLog() const { return home() / "received.jsonl"; }
  std::vector<Json> received() const { return readJsonLines(serverLog()); }
  size_t receivedCount(const std::string& method) const {
    size_t n = 0;
    for (const auto& m : received())
      if (m.value("method", "") == method) ++n;
    return n;
  }

  // A tools/call request whose answer is the given script's output.
  static Json scripted(const Json& steps) { return Json{{"name", "t"}, {"arguments", {{"script", steps}}}}; }

  struct Outcome {
    std::vector<Json> responses;
    bool done() const { return !responses.empty(); }
  };
  std::shared_ptr<Outcome> request(McpTask& task, const Json& params, double timeout = 10,
                                   const std::string& method = "tools/call") {
    auto outcome = std::make_shared<Outcome>();
    task.sendRequest(method, params, timeout, [outcome](const Json& r) { outcome->responses.push_back(r); });
    return outcome;
  }

  std::vector<std::shared_ptr<McpTask>> tasks_;
};

TEST_F(McpSession, FramingToleratesBlankLinesSplitsAndAFinalLineWithoutNewline) {
  auto task = startFake();
  // Two objects separated by two newlines, then the answer.
  auto first = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/message\","
                                                  "\"params\":{\"message\":\"before\"}}\n\n"
                                                  "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":{\"n\":1}}\n\n\n"}}}));
  ASSERT_TRUE(pumpUntil([&] { return first->done(); }));
  EXPECT_EQ(first->responses[0]["result"]["n"], 1);
  EXPECT_TRUE(logged("[MCP fake] before"));

  // One answer written in two pieces with a pause between: one line.
  auto second = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID},"}},
                                         {{"sleep", 0.2}},
                                         {{"raw", "\"result\":{\"n\":2}}\n"}}}));
  ASSERT_TRUE(pumpUntil([&] { return second->done(); }));
  EXPECT_EQ(second->responses[0]["result"]["n"], 2);

  // An answer far larger than one read.
  std::string big(20000, 'y');
  auto third = request(*task, scripted({{{"respond", {{"big", big}}}}}));
  ASSERT_TRUE(pumpUntil([&] { return third->done(); }));
  EXPECT_EQ(third->responses[0]["result"]["big"], big);

  // The last answer has no newline; the server exits right after writing it.
  auto last = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":{\"n\":4}}"}},
                                       {{"exit", 0}}}));
  ASSERT_TRUE(pumpUntil([&] { return last->done(); }));
  EXPECT_EQ(last->responses[0]["result"]["n"], 4) << "delivered at end of file, before the exit handling";
  EXPECT_TRUE(pumpUntil([&] { return logged("[MCP fake] subprocess exited / closed stdout"); }));
}

TEST_F(McpSession, RequestsLargerThanThePipeNeitherBlockNorInterleave) {
  auto task = startFake("slow-reader", Json{{"startDelay", 0.5}});
  std::string big(300000, 'b');  // several times what a pipe holds
  auto before = std::chrono::steady_clock::now();
  auto first = request(*task, Json{{"name", "echo"}, {"arguments", {{"big", big}}}});
  auto second = request(*task, Json{{"name", "echo"}, {"arguments", {{"small", 1}}}});
  auto third = request(*task, Json{{"name", "echo"}, {"arguments", {{"small", 2}}}});
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count(), 0.2)
      << "the caller never waits for the server to read";
  ASSERT_TRUE(pumpUntil([&] { return first->done() && second->done() && third->done(); }));
  auto echoed = [](const Outcome& o) { return Json::parse(o.responses[0]["result"]["content"][0]["text"].get<std::string>()); };
  EXPECT_EQ(echoed(*first)["arguments"]["big"], big);
  EXPECT_EQ(echoed(*second)["arguments"]["small"], 1);
  EXPECT_EQ(echoed(*third)["arguments"]["small"], 2);
  auto lines = received();
  ASSERT_EQ(lines.size(), 3u) << "three whole lines, in the order sent";
  EXPECT_EQ(lines[1]["params"]["arguments"]["small"], 1);
}

TEST_F(McpSession, IdsMatchNumericallyAndStringIdsNeverMatch) {
  auto task = startFake();
  auto asFloat = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID}.0,\"result\":{\"float\":true}}\n"}}}));
  ASSERT_TRUE(pumpUntil([&] { return asFloat->done(); }));
  EXPECT_EQ(asFloat->responses[0]["result"]["float"], true);

  auto asString = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":\"{ID}\",\"result\":{}}\n"}}}), 0.4);
  ASSERT_TRUE(pumpUntil([&] { return asString->done(); }));
  ASSERT_EQ(asString->responses.size(), 1u);
  EXPECT_EQ(asString->responses[0]["error"]["message"], "MCP server 'fake' did not respond to 'tools/call' within 0s");

  // Lines that are not JSON-RPC 2.0 objects are ignored; the real answer after them counts.
  auto noise = request(*task, scripted({{{"raw", "garbage\n[1,2]\n\"text\"\n{\"id\":{ID},\"result\":{\"v\":1}}\n"
                                                 "{\"jsonrpc\":\"1.0\",\"id\":{ID},\"result\":{\"v\":1}}\n"
                                                 "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":{\"v\":2}}\n"}}}));
  ASSERT_TRUE(pumpUntil([&] { return noise->done(); }));
  pumpFor(0.1);
  ASSERT_EQ(noise->responses.size(), 1u);
  EXPECT_EQ(noise->responses[0]["result"]["v"], 2);
}

TEST_F(McpSession, IdsComeFromOneCounterForAllServers) {
  auto a = startFake("a");
  auto b = startFake("b");
  int64_t before = gMcpSeq;
  auto r1 = request(*a, scripted({{{"respond", Json::object()}}}));
  auto r2 = request(*b, scripted({{{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return r1->done() && r2->done(); }));
  EXPECT_EQ(r1->responses[0]["id"], before + 1);
  EXPECT_EQ(r2->responses[0]["id"], before + 2);
}

TEST_F(McpSession, LateAnswerAfterTheTimeOutIsDropped) {
  auto task = startFake();
  auto late = request(*task, scripted({{{"sleep", 1.0}}, {{"respond", {{"late", true}}}}}), 0.3);
  ASSERT_TRUE(pumpUntil([&] { return late->done(); }));
  pumpFor(1.2);  // the answer arrives meanwhile
  ASSERT_EQ(late->responses.size(), 1u) << "completed once";
  EXPECT_EQ(late->responses[0]["error"]["message"], "MCP server 'fake' did not respond to 'tools/call' within 0s");
  EXPECT_EQ(late->responses[0]["error"].size(), 1u) << "only a message, no code";

  auto silent = request(*task, scripted({{{"sleep", 3}}}), 1.6);
  ASSERT_TRUE(pumpUntil([&] { return silent->done(); }));
  EXPECT_EQ(silent->responses[0]["error"]["message"], "MCP server 'fake' did not respond to 'tools/call' within 2s");
}

TEST_F(McpSession, RequestThatCannotBeWrittenEndsByItsTimeOut) {
  auto task = startFake();
  auto unwritable = request(*task, Json{{"name", "echo"}, {"arguments", {{"bad", "\xff\xfe"}}}}, 0.3);
  auto fine = request(*task, Json{{"name", "echo"}, {"arguments", Json::object()}});
  ASSERT_TRUE(pumpUntil([&] { return unwritable->done() && fine->done(); }));
  EXPECT_EQ(unwritable->responses[0]["error"]["message"], "MCP server 'fake' did not respond to 'tools/call' within 0s");
  EXPECT_TRUE(fine->responses[0].contains("result"));
  EXPECT_EQ(receivedCount("tools/call"), 1u) << "nothing of the invalid request reached the server";
}

TEST_F(McpSession, ServerDyingMidRequestFailsEveryOutstandingRequest) {
  auto task = startFake("dies");
  auto slow = request(*task, scripted(Json::array()));  // never answered
  auto dying = request(*task, scripted({{{"exit", 1}}}));
  ASSERT_TRUE(pumpUntil([&] { return slow->done() && dying->done(); }));
  for (auto* outcome : {slow.get(), dying.get()}) {
    ASSERT_EQ(outcome->responses.size(), 1u);
    EXPECT_EQ(outcome->responses[0], (Json{{"error", {{"message", "MCP server 'dies' exited unexpectedly"}}}}));
  }
  EXPECT_TRUE(logged("[MCP dies] subprocess exited / closed stdout"));

  auto after = request(*task, scripted({{{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return after->done(); }));
  EXPECT_EQ(after->responses[0]["error"]["message"], "MCP server 'dies' is not running") << "not restarted";
}

TEST_F(McpSession, RequestToAServerThatNeverStartedFailsAtOnce) {
  auto task = McpTask::create("ghost", "ondrel-no-such-server-command");
  task->start();
  auto outcome = request(*task, Json::object());
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }, 2));
  EXPECT_EQ(outcome->responses[0], (Json{{"error", {{"message", "MCP server 'ghost' is not running"}}}}));
}

TEST_F(McpSession, StopDropsOutstandingRequestsWithoutAnswer) {
  auto task = startFake();
  auto pending = request(*task, scripted({{{"sleep", 30}}}), 0.5);
  ASSERT_TRUE(pumpUntil([&] { return receivedCount("tools/call") == 1; }));
  task->stop();
  pumpFor(1.0);  // past its time-out too
  EXPECT_TRUE(pending->responses.empty());
  auto after = request(*task, Json::object());
  ASSERT_TRUE(pumpUntil([&] { return after->done(); }));
  EXPECT_EQ(after->responses[0]["error"]["message"], "MCP server 'fake' is not running");
}

TEST_F(McpSession, EveryServerRequestGetsMethodNotFoundWithItsIdEchoed) {
  auto task = startFake();
  auto outcome = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":null,\"method\":\"ping\"}\n"
                                                   "{\"jsonrpc\":\"2.0\",\"id\":\"r-1\",\"method\":\"roots/list\"}\n"
                                                   "{\"jsonrpc\":\"2.0\",\"id\":7.5,\"method\":\"sampling/createMessage\","
                                                   "\"params\":{}}\n"}},
                                          {{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }));
  std::vector<Json> replies;
  ASSERT_TRUE(pumpUntil([&] {
    replies.clear();
    for (const auto& m : received())
      if (m.contains("error")) replies.push_back(m);
    return replies.size() == 3;
  }));
  std::vector<Json> ids;
  for (const auto& r : replies) {
    EXPECT_EQ(r["jsonrpc"], "2.0");
    EXPECT_EQ(r["error"], (Json{{"code", -32601}, {"message", "Method not found"}}));
    EXPECT_FALSE(r.contains("method"));
    ids.push_back(r["id"]);
  }
  EXPECT_EQ(ids, (std::vector<Json>{nullptr, "r-1", 7.5}));
}

TEST_F(McpSession, NotificationsWithAMessageAreLogged) {
  auto task = startFake("note");
  auto outcome = request(
      *task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/message\",\"params\":{\"message\":\"hello\"}}\n"
                                "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/message\",\"params\":{\"message\":\"\"}}\n"
                                "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/progress\",\"params\":{\"message\":3}}\n"
                                "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/odd\",\"params\":[\"message\"]}\n"
                                "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/tools/list_changed\"}\n"}},
                       {{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }));
  size_t fromServer = 0;
  for (const auto& line : LogCapture::instance().lines())
    if (line.rfind("[MCP note] ", 0) == 0 && line.find("started") == std::string::npos) ++fromServer;
  EXPECT_TRUE(logged("[MCP note] hello"));
  EXPECT_EQ(fromServer, 1u) << "empty, non-string and missing messages are not logged";
}

TEST_F(McpSession, HandshakeSendsInitializeThenInitialized) {
  auto task = startFake();
  std::vector<std::pair<bool, Json>> results;
  task->ensureReady([&](bool ok, const Json& error) { results.emplace_back(ok, error); });
  ASSERT_TRUE(pumpUntil([&] { return !results.empty(); }));
  EXPECT_TRUE(results[0].first);
  EXPECT_TRUE(task->isReady());
  ASSERT_TRUE(pumpUntil([&] { return receivedCount("notifications/initialized") == 1; }));
  auto messages = received();
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(messages[0]["params"], Json::parse(R"({"protocolVersion":"2024-11-05","capabilities":{},
                                                   "clientInfo":{"name":"ondrel-linux","version":"0.1.0"}})"));
  EXPECT_EQ(messages[1], Json::parse(R"({"jsonrpc":"2.0","method":"notifications/initialized","params":{}})"));

  bool again = false;
  task->ensureReady([&](bool ok, const Json&) { again = ok; });
  EXPECT_TRUE(again) << "once ready, answered at once on the calling thread";
}

TEST_F(McpSession, TwoFirstCallsEachRunTheirOwnHandshake) {
  auto task = startFake();
  int done = 0;
  task->callTool("echo", Json{{"x", 1}}, [&](bool ok, const Json&, const Json&) { done += ok; });
  task->callTool("echo", Json{{"x", 2}}, [&](bool ok, const Json&, const Json&) { done += ok; });
  ASSERT_TRUE(pumpUntil([&] { return done == 2; }));
  ASSERT_TRUE(pumpUntil([&] { return receivedCount("notifications/initialized") == 2; }));
  EXPECT_EQ(receivedCount("initialize"), 2u);
  EXPECT_EQ(receivedCount("tools/call"), 2u);
}

TEST_F(McpSession, FailedHandshakeHandsOnTheServersError) {
  auto task = startFake("picky", Json{{"initError", {{"code", -32602}, {"message", "unsupported version"}}}});
  std::optional<std::pair<bool, Json>> result;
  task->ensureReady([&](bool ok, const Json& error) { result.emplace(ok, error); });
  ASSERT_TRUE(pumpUntil([&] { return result.has_value(); }));
  EXPECT_FALSE(result->first);
  EXPECT_EQ(result->second, (Json{{"code", -32602}, {"message", "unsupported version"}}));
  EXPECT_FALSE(task->isReady());
  pumpFor(0.2);
  EXPECT_EQ(receivedCount("notifications/initialized"), 0u);
}
