// The JSON-RPC exchange with one server: framing, ids, time-outs, failures,
// server requests, notifications and the handshake.

#include "base/log.h"
#include "mcp/child_process.h"
#include "mcp/line_buffer.h"
#include "mcp/log_rate_limit.h"
#include "mcp_test_support.h"

TEST(McpLineBuffer, SplitsAtNewlinesAcrossChunksSkipsEmptyLinesAndDropsOverlongOnes) {
  const std::string big(10000, 'x');
  const struct {
    std::vector<std::string> chunks;
    std::vector<std::string> lines;
    size_t dropped = 0;
  } cases[] = {
      {{"{\"a\":1}\n\n{\"b\":2}\n"}, {"{\"a\":1}", "{\"b\":2}"}},
      {{"{\"a\"", ":1", "}\n{\"b\"", ":2}"}, {"{\"a\":1}", "<eof>{\"b\":2}"}},
      {{big.substr(0, 4096), big.substr(4096, 4096), big.substr(8192) + "\n"}, {big}},
      // Past the cap the line is dropped piece by piece up to its newline; what follows counts.
      {{big.substr(0, 20001 - 10000) + big, "x\nnext\n", "more\nlast"}, {"next", "more", "<eof>last"}, 1},
      {{big + big + big}, {}, 1},
  };
  for (const auto& c : cases) {
    LineBuffer buffer(12000);
    std::vector<std::string> lines;
    for (const auto& chunk : c.chunks)
      buffer.append(chunk.data(), chunk.size(), [&](std::string_view line) { lines.emplace_back(line); });
    EXPECT_EQ(buffer.takeDropped(), c.dropped) << c.chunks[0].substr(0, 20);
    if (auto rest = buffer.takeRest(); !rest.empty()) lines.push_back("<eof>" + rest);
    EXPECT_EQ(lines, c.lines) << c.chunks[0].substr(0, 20);
  }
}

// Seconds at which lines arrive, and when the reader looks for a due count:
// "+" logged, "-" held back, "[n]" n held-back lines reported.
TEST(McpNotificationLimit, BurstThenPaceThenOneCountPerFlood) {
  const std::pair<std::vector<double>, std::string> cases[] = {
      {{0, 0, 0, 0, 0}, "+++--"},                        // a burst passes whole, then lines are held
      {{0, 0, 0, 0.2, 0.4, 0.41}, "+++++-"},             // the bucket refills at five a second
      {{0, 0, 0, 0, 0.1, 0.15, 1.0, 1.1}, "+++---[3]++"},  // reported once, a second after the first held
      {{0, 0, 0, 100, 100, 100, 100}, "++++++-"},        // a refill never exceeds the burst
  };
  for (const auto& [times, expected] : cases) {
    LogRateLimit limit(5, 3, 1);
    std::string trace;
    for (double t : times) {
      if (size_t due = limit.takeDue(t)) trace += "[" + std::to_string(due) + "]";
      trace += limit.admit(t) ? "+" : "-";
    }
    EXPECT_EQ(trace, expected);
  }
  LogRateLimit limit(5, 1, 1);
  EXPECT_EQ(limit.due(), std::nullopt);
  for (double t : {10.0, 10.1, 10.15}) limit.admit(t);
  EXPECT_EQ(limit.due(), 11.1) << "due from the first held-back line";
  EXPECT_EQ(limit.takeAll(), 2u) << "an ended source is owed its count at once";
  EXPECT_EQ(limit.due(), std::nullopt);
}

using McpSession = HomeFixture;

TEST_F(McpSession, AServerThatDiesFailsWhatIsOutstandingAfterItsLastWordsAreRead) {
  auto task = startFake("dies", Json::object(), {.outputLine = 1000});
  auto overlong = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":\"" +
                                                        std::string(20000, 'x') + "\"}\n"}},
                                           {{"result", {{"after", true}}}}}));
  ASSERT_TRUE(pumpUntil([&] { return overlong->done(); }));
  EXPECT_EQ(overlong->responses, (std::vector<Json>{{{"jsonrpc", "2.0"}, {"id", 1}, {"result", {{"after", true}}}}}));

  auto unanswered = request(*task, scripted(Json::array()));
  // Far more than a pipe holds: the server gets on only if its standard error is read while it runs.
  const std::string noise(300000, 'e');
  // No newline after the answer: it still counts, read at end of file.
  auto last = request(*task, scripted({{{"stderr", noise}},
                                       {{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":{\"n\":4}}"}},
                                       {{"exit", 1}}}));
  ASSERT_TRUE(pumpUntil([&] { return unanswered->done() && last->done(); }));
  EXPECT_EQ(last->responses[0]["result"]["n"], 4);
  EXPECT_EQ(unanswered->responses, (std::vector<Json>{{{"error", {{"message", "MCP server 'dies' exited unexpectedly"}}}}}));
  ASSERT_TRUE(task->child()->waitUntilFinished(5));
  EXPECT_EQ(task->standardError(), noise);

  auto after = request(*task, scripted({{{"result", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return after->done(); }));
  EXPECT_EQ(after->responses[0]["error"]["message"], "MCP server 'dies' is not running") << "not restarted";
}

TEST_F(McpSession, ServerThatStopsReadingIsStoppedPastTheBacklogAndNeverBlocksTheCaller) {
  // It reads nothing for 30 s: a caller that waited for room would hang here.
  auto task = startFake("deaf", Json{{"startDelay", 30}}, {.writeBacklog = 150000});
  auto child = task->child();
  // The first fills the pipe, the second still fits the backlog, the third
  // does not; the fourth comes after the stop.
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 4; ++i)
    outcomes.push_back(request(*task, Json{{"name", "echo"}, {"arguments", {{"big", std::string(100000, 'b')}}}}));
  ASSERT_TRUE(pumpUntil([&] { return std::all_of(outcomes.begin(), outcomes.end(), [](auto& o) { return o->done(); }); }));
  Json stopped = {{"message", "MCP server 'deaf' stopped: it does not read its input"}};
  for (auto& outcome : outcomes) EXPECT_EQ(outcome->responses, (std::vector<Json>{{{"error", stopped}}}));
  EXPECT_TRUE(child->waitUntilReaped(5));
}

TEST_F(McpSession, RequestsLargerThanThePipeArriveWholeAndInOrder) {
  auto task = startFake("slow-reader", Json{{"startDelay", 0.5}});
  const std::string big(300000, 'b');  // several times what a pipe holds
  const Json sent[] = {{{"big", big}}, {{"small", 1}}, {{"small", 2}}};
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (const Json& args : sent) outcomes.push_back(request(*task, Json{{"name", "echo"}, {"arguments", args}}));
  ASSERT_TRUE(pumpUntil([&] { return std::all_of(outcomes.begin(), outcomes.end(), [](auto& o) { return o->done(); }); }));
  auto lines = received();
  ASSERT_EQ(lines.size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(lines[i]["params"]["arguments"], sent[i]) << i;
  EXPECT_EQ(Json::parse(outcomes[2]->responses[0]["result"]["content"][0]["text"].get<std::string>()), lines[2]["params"]);
}

TEST_F(McpSession, AnAnswerIsMatchedByNumericIdOnceAndOtherwiseTheRequestTimesOut) {
  auto other = request(*startFake("other"), scripted({{{"result", Json::object()}}}));
  auto task = startFake();
  auto timedOut = [](const char* within) {
    return std::vector<Json>{
        {{"error", {{"message", std::string("MCP server 'fake' did not respond to 'tools/call' within ") + within}}}}};
  };
  auto asFloat = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID}.0,\"result\":{\"v\":1}}\n"}}}));
  // Lines that are not JSON-RPC 2.0 objects are ignored; the real answer after them counts.
  auto noise = request(*task, scripted({{{"raw", "garbage\n[1,2]\n\"text\"\n{\"id\":{ID},\"result\":{\"v\":1}}\n"
                                                 "{\"jsonrpc\":\"1.0\",\"id\":{ID},\"result\":{\"v\":1}}\n"
                                                 "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":{\"v\":2}}\n"
                                                 "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":{\"v\":3}}\n"}}}));
  auto asString = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":\"{ID}\",\"result\":{}}\n"}}}), 0.4);
  auto unwritable = request(*task, Json{{"name", "echo"}, {"arguments", {{"bad", "\xff\xfe"}}}}, 0.3);
  auto late = request(*task, scripted({{{"sleep", 1.0}}, {{"result", {{"late", true}}}}}), 0.6);
  // Answered after the late answer arrived.
  auto last = request(*task, scripted({{{"result", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return other->done() && asFloat->done() && noise->done() && last->done(); }));
  EXPECT_EQ(other->responses[0]["id"], 1) << "ids come from one counter for all servers";
  EXPECT_EQ(asFloat->responses[0]["result"]["v"], 1);
  EXPECT_EQ(noise->responses, (std::vector<Json>{{{"jsonrpc", "2.0"}, {"id", 3}, {"result", {{"v", 2}}}}}));
  EXPECT_EQ(asString->responses, timedOut("0s")) << "string ids never match";
  EXPECT_EQ(unwritable->responses, timedOut("0s"));
  EXPECT_EQ(late->responses, timedOut("1s")) << "rounded; a late answer is dropped";
  EXPECT_EQ(receivedCount("tools/call"), 6u) << "nothing of the invalid request reached the server";
}

TEST_F(McpSession, EveryServerRequestGetsMethodNotFoundWithItsIdEchoedUnlessTooLong) {
  const std::string longest(McpTask::kMaxEchoedId, 'i');
  const Json notFound = {{"code", -32601}, {"message", "Method not found"}};
  const struct {
    Json id, replyId, error;
  } cases[] = {
      {42, 42, notFound},
      {"r-1", "r-1", notFound},
      {longest, longest, notFound},
      {longest + "i", nullptr, {{"code", -32600}, {"message", "Invalid Request"}}},
  };
  std::string lines;
  for (const auto& c : cases) lines += Json{{"jsonrpc", "2.0"}, {"id", c.id}, {"method", "ping"}}.dump() + "\n";
  auto task = startFake();
  auto outcome = request(*task, scripted({{{"raw", lines}}, {{"result", Json::object()}}}));
  std::vector<Json> replies;
  ASSERT_TRUE(pumpUntil([&] {
    replies.clear();
    for (auto m : received())
      if (m.contains("error")) replies.push_back(m);
    return replies.size() == std::size(cases);
  }));
  for (size_t i = 0; i < replies.size(); ++i)
    EXPECT_EQ(replies[i], (Json{{"jsonrpc", "2.0"}, {"id", cases[i].replyId}, {"error", cases[i].error}})) << i;
}

TEST_F(McpSession, NotificationsAreLoggedShortenedAndAFloodOfThemIsCountedInstead) {
  auto task = startFake("note");
  auto note = [](const Json& params) {
    return Json{{"jsonrpc", "2.0"}, {"method", "notifications/message"}, {"params", params}}.dump() + "\n";
  };
  const std::string longText(10000, 'n');
  auto first = request(*task, scripted({{{"raw", note({{"message", "hello"}}) + note({{"message", ""}}) +
                                                     note({{"message", 3}}) + note(Json::array({"message"})) +
                                                     note({{"message", longText}})}},
                                        {{"result", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return first->done(); }));
  EXPECT_TRUE(logged("[MCP note] hello"));
  EXPECT_TRUE(logged("[MCP note] " + abbreviateForLog(longText)));
  EXPECT_EQ(LogCapture::instance().countStartingWith("[MCP note] "), 3u)
      << "started, hello and the long one: empty, non-string and missing messages are not logged";

  std::string flood;
  for (int i = 0; i < 5000; ++i) flood += note({{"message", "flood"}});
  auto after = request(*task, scripted({{{"raw", flood}}, {{"result", {{"over", true}}}}}));
  size_t shown = 0, held = 0;
  ASSERT_TRUE(pumpUntil([&] {
    shown = held = 0;
    for (const auto& line : LogCapture::instance().lines()) {
      shown += line == "[MCP note] flood";
      if (line.ends_with(" more notification(s) not logged: too many at once")) held += std::stoul(line.substr(11));
    }
    return shown + held == 5000 && after->done();
  }));
  EXPECT_LT(shown, 100u) << "a burst and a pace, not the flood";
  EXPECT_EQ(after->responses[0]["result"], (Json{{"over", true}})) << "the session goes on";
}

// No queue of waiting callers: each first call runs a handshake of its own.
// A refused handshake is the registry's listing test's.
TEST_F(McpSession, EachFirstCallRunsAHandshakeAndOnceReadyNoneIsNeeded) {
  auto task = startFake();
  int done = 0;
  for (int x : {1, 2}) task->callTool("echo", Json{{"x", x}}, [&](bool ok, const Json&, const Json&) { done += ok; });
  ASSERT_TRUE(pumpUntil([&] { return done == 2; }));
  bool ready = false;
  task->ensureReady([&](bool ok, const Json&) { ready = ok; });
  EXPECT_TRUE(ready) << "once ready, answered at once on the calling thread";
  EXPECT_EQ(receivedCount("initialize"), 2u);
  EXPECT_EQ(receivedCount("notifications/initialized"), 2u);
  const auto messages = received();
  ASSERT_EQ(messages.size(), 6u) << "and the two calls";
  EXPECT_EQ(messages[0]["params"], Json::parse(R"({"protocolVersion":"2024-11-05","capabilities":{},
                                                   "clientInfo":{"name":"ondrel-linux","version":"0.1.0"}})"));
  // Both initialize requests go out before either answer comes back.
  EXPECT_EQ(messages[2], Json::parse(R"({"jsonrpc":"2.0","method":"notifications/initialized","params":{}})"));
}
