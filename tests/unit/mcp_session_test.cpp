// The JSON-RPC exchange with one server: framing, ids, time-outs, failures,
// server requests, notifications and the handshake.

#include <chrono>
#include <string>
#include <vector>

#include "base/json.h"
#include "base/log.h"
#include "mcp/child_process.h"
#include "mcp/line_buffer.h"
#include "mcp/log_rate_limit.h"
#include "mcp/mcp_task.h"
#include "mcp_test_support.h"

namespace {

std::vector<std::string> split(const std::vector<std::string>& chunks) {
  LineBuffer buffer(1 << 20);
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

// Seconds at which lines arrive, and when the reader looks for a due count:
// "+" logged, "-" held back, "[n]" n held-back lines reported.
TEST(McpNotificationLimit, BurstThenPaceThenOneCountPerFlood) {
  struct Case {
    const char* what;
    std::vector<double> lines;
    std::string trace;
  };
  const Case cases[] = {
      {"a burst passes whole", {0, 0, 0}, "+++"},
      {"past the burst, lines are held", {0, 0, 0, 0, 0}, "+++--"},
      {"the bucket refills at five a second", {0, 0, 0, 0.2, 0.4, 0.41}, "+++++-"},
      {"the count is reported once, a second after the first held line", {0, 0, 0, 0, 0.1, 0.15, 1.0, 1.1},
       "+++---[3]++"},
      {"a refill never exceeds the burst", {0, 0, 0, 100, 100, 100, 100}, "++++++-"},
  };
  for (const auto& c : cases) {
    LogRateLimit limit(5, 3, 1);
    std::string trace;
    for (double t : c.lines) {
      if (size_t due = limit.takeDue(t)) trace += "[" + std::to_string(due) + "]";
      trace += limit.admit(t) ? "+" : "-";
    }
    EXPECT_EQ(trace, c.trace) << c.what;
  }

  LogRateLimit limit(5, 1, 1);
  EXPECT_EQ(limit.due(), std::nullopt);
  limit.admit(10);
  limit.admit(10.1);
  limit.admit(10.15);
  EXPECT_EQ(limit.due(), 11.1) << "due from the first held-back line";
  EXPECT_EQ(limit.takeAll(), 2u) << "an ended source is owed its count at once";
  EXPECT_EQ(limit.due(), std::nullopt);
}

class McpSession : public HomeFixture {
 protected:
  void TearDown() override {
    for (auto& task : tasks_) task->stop();
    HomeFixture::TearDown();
  }

  std::shared_ptr<McpTask> startFake(const std::string& name = "fake", const Json& opts = Json::object()) {
    auto task = McpTask::create(context_, name, fakeServer(), {opts.dump()}, {{"FAKE_LOG", serverLog().string()}});
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

TEST_F(McpSession, OverlongLineIsSkippedAndTheNextOneCounts) {
  auto task = McpTask::create(context_, "fake", fakeServer());
  task->setLimits({.outputLine = 1000});
  task->start();
  tasks_.push_back(task);
  // Far more than the cap and than one read: the line is dropped piece by piece.
  auto outcome = request(*task, scripted({{{"raw", "{\"jsonrpc\":\"2.0\",\"id\":{ID},\"result\":\"" +
                                                       std::string(20000, 'x') + "\"}\n"}},
                                          {{"respond", {{"after", true}}}}}));
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }));
  EXPECT_EQ(outcome->responses[0]["result"], (Json{{"after", true}}));
  EXPECT_TRUE(logged("[MCP fake] skipped 1 output line(s) longer than 1000 bytes"));
}

TEST_F(McpSession, ServerThatStopsReadingIsStoppedPastTheBacklog) {
  auto task = McpTask::create(context_, "deaf", fakeServer(), {Json{{"startDelay", 30}}.dump()});
  task->setLimits({.writeBacklog = 150000});
  task->start();
  tasks_.push_back(task);
  auto child = task->child();
  // The first fills the pipe, the second still fits the backlog, the third
  // does not; the fourth comes after the stop.
  std::vector<std::shared_ptr<Outcome>> outcomes;
  for (int i = 0; i < 4; ++i)
    outcomes.push_back(request(*task, Json{{"name", "echo"}, {"arguments", {{"big", std::string(100000, 'b')}}}}));
  ASSERT_TRUE(pumpUntil([&] {
    return std::all_of(outcomes.begin(), outcomes.end(), [](auto& o) { return o->done(); });
  }));
  Json stopped = {{"message", "MCP server 'deaf' stopped: it does not read its input"}};
  for (auto& outcome : outcomes) EXPECT_EQ(outcome->responses, (std::vector<Json>{{{"error", stopped}}}));
  EXPECT_EQ(LogCapture::instance().countStartingWith("[MCP deaf] stopped: "), 1u) << "one line says why";
  EXPECT_TRUE(child->waitUntilReaped(5));
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
  auto r1 = request(*a, scripted({{{"respond", Json::object()}}}));
  auto r2 = request(*b, scripted({{{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return r1->done() && r2->done(); }));
  EXPECT_EQ(r1->responses[0]["id"], 1) << "the first id of the servers' context";
  EXPECT_EQ(r2->responses[0]["id"], 2);
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
  auto task = McpTask::create(context_, "ghost", "ondrel-no-such-server-command");
  task->start();
  auto outcome = request(*task, Json::object());
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }, 2));
  EXPECT_EQ(outcome->responses[0], (Json{{"error", {{"message", "MCP server 'ghost' is not running"}}}}));
}

TEST_F(McpSession, StopAnswersWhatIsOutstandingAndWhatComesLater) {
  auto task = startFake();
  auto sent = request(*task, scripted({{{"sleep", 30}}}));
  ASSERT_TRUE(pumpUntil([&] { return receivedCount("tools/call") == 1; }));
  auto handshaking = std::make_shared<Outcome>();
  task->callTool("echo", Json::object(), [handshaking](bool, const Json&, const Json& error) {
    handshaking->responses.push_back(error);
  });
  task->stop("restarted");
  auto after = request(*task, Json::object());
  ASSERT_TRUE(pumpUntil([&] { return sent->done() && handshaking->done() && after->done(); }, 2));
  Json restarted = {{"message", "MCP server 'fake' restarted"}};
  EXPECT_EQ(sent->responses, (std::vector<Json>{{{"error", restarted}}}));
  EXPECT_EQ(handshaking->responses, std::vector<Json>{restarted}) << "a call still in its handshake";
  EXPECT_EQ(after->responses, (std::vector<Json>{{{"error", restarted}}}));
}

TEST_F(McpSession, EveryServerRequestGetsMethodNotFoundWithItsIdEchoedUnlessTooLong) {
  const std::string longest(McpTask::kMaxEchoedId, 'i');
  struct Case {
    Json id;
    Json replyId;
    Json error;
  };
  const Json notFound = {{"code", -32601}, {"message", "Method not found"}};
  const std::vector<Case> cases = {
      {nullptr, nullptr, notFound},
      {"r-1", "r-1", notFound},
      {7.5, 7.5, notFound},
      {longest, longest, notFound},
      {longest + "i", nullptr, {{"code", -32600}, {"message", "Invalid Request"}}},
  };
  std::string lines;
  for (const auto& c : cases) lines += Json{{"jsonrpc", "2.0"}, {"id", c.id}, {"method", "ping"}}.dump() + "\n";
  auto task = startFake();
  auto outcome = request(*task, scripted({{{"raw", lines}}, {{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }));
  std::vector<Json> replies;
  ASSERT_TRUE(pumpUntil([&] {
    replies.clear();
    for (auto m : received())
      if (m.contains("error")) replies.push_back(m);
    return replies.size() == cases.size();
  }));
  for (size_t i = 0; i < cases.size(); ++i)
    EXPECT_EQ(replies[i], (Json{{"jsonrpc", "2.0"}, {"id", cases[i].replyId}, {"error", cases[i].error}})) << i;
}

TEST_F(McpSession, NotificationsWithAMessageAreLoggedShortened) {
  auto task = startFake("note");
  std::string longText(10000, 'n');
  auto note = [](const Json& params, const std::string& method = "notifications/message") {
    return Json{{"jsonrpc", "2.0"}, {"method", method}, {"params", params}}.dump() + "\n";
  };
  auto outcome = request(*task, scripted({{{"raw", note({{"message", "hello"}}) + note({{"message", ""}}) +
                                                       note({{"message", 3}}, "notifications/progress") +
                                                       note(Json::array({"message"})) + note({{"message", longText}})}},
                                          {{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }));
  EXPECT_TRUE(logged("[MCP note] hello"));
  EXPECT_TRUE(logged("[MCP note] " + abbreviateForLog(longText)));
  EXPECT_EQ(LogCapture::instance().countStartingWith("[MCP note] "), 3u)
      << "started, hello and the long one: empty, non-string and missing messages are not logged";
}

TEST_F(McpSession, NotificationFloodIsCountedNotLogged) {
  auto task = startFake("flood");
  const int total = 5000;
  std::string flood;
  for (int i = 0; i < total; ++i)
    flood += "{\"jsonrpc\":\"2.0\",\"method\":\"notifications/message\",\"params\":{\"message\":\"n" +
             std::to_string(i) + "\"}}\n";
  auto outcome = request(*task, scripted({{{"raw", flood}}, {{"respond", Json::object()}}}));
  ASSERT_TRUE(pumpUntil([&] { return outcome->done(); }));
  auto held = [] {
    size_t sum = 0;
    for (const auto& line : LogCapture::instance().lines())
      if (size_t at = line.find(" more notification(s) not logged: too many at once"); at != std::string::npos)
        sum += std::stoul(line.substr(line.rfind(' ', at - 1) + 1));
    return sum;
  };
  size_t logged = 0;
  ASSERT_TRUE(pumpUntil([&] {
    logged = LogCapture::instance().countStartingWith("[MCP flood] n");
    return logged + held() == total;
  })) << "each notification is either logged or counted, the count a second after the flood";
  EXPECT_LE(logged, 25u);
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
