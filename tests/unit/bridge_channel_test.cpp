#include <glib.h>
#include <gtest/gtest.h>

#include <ctime>
#include <regex>

#include "base/log.h"
#include "bridge_fakes.h"
#include "main_loop.h"

namespace {

using Lines = std::vector<std::string>;

const std::string kGuard = "location.origin === \"" + kPageOrigin + "\" && (";
const std::string kResolveHead = kGuard + "window.__ondrel && window.__ondrel.__resolve ? window.__ondrel.__resolve('";
const std::string kResolveTail = ") : console.error('__resolve missing') )";

std::string invokeText(const std::string& id, const std::string& handler, const std::string& args) {
  return kGuard + "window.__ondrel && window.__ondrel.invoke ? window.__ondrel.invoke('" + id + "', '" + handler +
         "', ..." + args + ") : window.webkit.messageHandlers.ondrel.postMessage(   { __bridgeId: '" + id +
         "', ok: false, error: 'bridge-not-ready' }))";
}

std::string callIdOf(const std::string& script) {
  std::smatch m;
  static const std::regex pattern(R"(invoke\('([^']*)')");
  return std::regex_search(script, m, pattern) ? m[1].str() : "";
}

// The sequence number is process-wide, so the very first call is made
// before any test runs, whatever the order or filter.
struct FirstCall : ::testing::Environment {
  void SetUp() override {
    LogCapture::instance();
    before = std::time(nullptr);
    FakeHost host;
    Bridge bridge(host, kPageOrigin, nullptr);
    bridge.invokeHandler("first", Json::array(), "first call");
    after = std::time(nullptr);
    script = host.scripts.empty() ? "" : host.scripts.front();
  }
  std::time_t before = 0, after = 0;
  std::string script;
};
FirstCall* const gFirstCall = static_cast<FirstCall*>(::testing::AddGlobalTestEnvironment(new FirstCall));

TEST(BridgeExpressions, FirstCallOfTheRunHasSequenceNumberOne) {
  std::smatch m;
  ASSERT_TRUE(std::regex_search(gFirstCall->script, m, std::regex(R"(invoke\('1-(\d+)')"))) << gFirstCall->script;
  const long seconds = std::stol(m[1].str());
  EXPECT_GE(seconds, gFirstCall->before);
  EXPECT_LE(seconds, gFirstCall->after);
  EXPECT_EQ(gFirstCall->script, invokeText("1-" + m[1].str(), "first", "[]"));
}

TEST_F(BridgeTest, RepliesEchoTheRequestIdAsTextAndTheValueAsJson) {
  const struct {
    Json reqId;
    bool ok;
    Json value;
    std::string expected;  // between the head and the tail
  } cases[] = {
      {7, true, Json{{"ok", true}}, "7', 1, {\"ok\":true}"},
      {"req-9", false, "say \"hi\"\n\\", R"(req-9', 0, "say \"hi\"\n\\")"},
      {7.5, true, nullptr, "7.5', 1, null"},
      {"x", true, Json::array({1, "two", false}), "x', 1, [1,\"two\",false]"},
      {"x", true, 42, "x', 1, 42"},
      {"it's", true, true, "it\\'s', 1, true"},
      {true, true, false, "1', 1, false"},
      // Not representable as JSON: null stands in, the flag stays as given.
      {"bad", false, std::string("\xff\xfe"), "bad', 0, null"},
  };
  for (const auto& c : cases) {
    host_.scripts.clear();
    bridge_.replyToJS(c.reqId, c.ok, c.value);
    ASSERT_EQ(host_.scripts.size(), 1u);
    EXPECT_EQ(host_.scripts[0], kResolveHead + c.expected + kResolveTail) << c.reqId;
  }
}

TEST_F(BridgeTest, InvokeStoresTheCallBeforeEvaluatingAndLogsTheAnswer) {
  // A page without invoke answers from inside the evaluation itself.
  host_.onScript = [this](const std::string& script) {
    bridge_.didReceiveScriptMessage({{"__bridgeId", callIdOf(script)}, {"ok", false}, {"error", "bridge-not-ready"}});
  };
  bridge_.invokeHandler("greet", Json::array(), "empty call");
  ASSERT_EQ(host_.scripts.size(), 1u);
  const std::string id = callIdOf(host_.scripts[0]);
  EXPECT_TRUE(std::regex_match(id, std::regex(R"(\d+-\d+)"))) << id;
  EXPECT_EQ(host_.scripts[0], invokeText(id, "greet", "[]"));
  EXPECT_FALSE(bridge_.awaitsAnswer(id));
  EXPECT_EQ(LogCapture::instance().lines(), (Lines{"[Native->JS] empty call\n  request id=" + id + " invoke(greet)",
                                                   "[Native->JS] greet ✗ bridge-not-ready"}));

  host_.onScript = nullptr;
  bridge_.invokeHandler("sum", Json::array({1, "a\"b", Json{{"k", nullptr}}}), "d");
  const std::string next = callIdOf(host_.scripts[1]);
  EXPECT_EQ(host_.scripts[1], invokeText(next, "sum", R"([1,"a\"b",{"k":null}])"));
  EXPECT_EQ(std::stol(next), std::stol(id) + 1) << "sequence numbers only grow by one";
  EXPECT_TRUE(bridge_.awaitsAnswer(next)) << "unanswered calls stay pending";
}

TEST_F(BridgeTest, AnswerFlagIsReadAsABooleanAndEachAnswerIsHandledOnce) {
  const struct {
    Json answer;
    std::string line;
  } cases[] = {
      {{{"ok", true}, {"value", {{"a", 1}}}}, "[Native->JS] h → {\"a\":1}"},
      {{{"ok", true}, {"value", "plain"}}, "[Native->JS] h → plain"},
      {{{"ok", true}}, "[Native->JS] h → (null)"},
      {{{"ok", false}, {"error", "boom"}, {"value", 1}}, "[Native->JS] h ✗ boom"},
      {{{"value", "ignored"}, {"error", "no flag"}}, "[Native->JS] h ✗ no flag"},
      {{{"ok", 1}, {"value", true}}, "[Native->JS] h → 1"},
      {{{"ok", 0}, {"error", false}}, "[Native->JS] h ✗ 0"},
      {{{"ok", nullptr}}, "[Native->JS] h ✗ (null)"},
  };
  for (const auto& c : cases) {
    bridge_.invokeHandler("h", Json::array(), "d");
    const std::string id = callIdOf(host_.scripts.back());
    Json answer = c.answer;
    answer["__bridgeId"] = id;
    LogCapture::instance().clear();
    bridge_.didReceiveScriptMessage(answer);
    bridge_.didReceiveScriptMessage(answer);
    EXPECT_EQ(LogCapture::instance().lines(), (Lines{c.line, "[JS->Native] stale response id=" + id})) << c.answer;
  }
}

TEST_F(BridgeTest, MessagesAreDispatchedByTheirKeys) {
  bridge_.invokeHandler("h", Json::array(), "d");
  const std::string id = callIdOf(host_.scripts.back());
  host_.scripts.clear();
  LogCapture::instance().clear();

  // An answer wins over a request in the same body: no action runs.
  bridge_.didReceiveScriptMessage({{"__reqId", "r1"}, {"name", "platform"}, {"__bridgeId", id}, {"ok", true}});
  bridge_.didReceiveScriptMessage({{"__bridgeId", "never-sent"}, {"__reqId", "r2"}, {"name", "platform"}});
  EXPECT_TRUE(host_.scripts.empty());
  for (const Json& body : {Json("text"), Json(3), Json::array({"__reqId"}), Json()})
    bridge_.didReceiveScriptMessage(body);
  bridge_.didReceiveScriptMessage({{"hello", 1}, {"b", "x"}});
  EXPECT_TRUE(host_.scripts.empty());
  EXPECT_EQ(LogCapture::instance().lines(),
            (Lines{"[Native->JS] h → (null)", "[JS->Native] stale response id=never-sent", "[JS->Native] ondrel",
                   "[JS->Native] ondrel", "[JS->Native] ondrel", "[JS->Native] ondrel",
                   R"([JS->Native] {"hello":1,"b":"x"})"}));

  LogCapture::instance().clear();
  bridge_.didReceiveScriptMessage({{"__reqId", 7}, {"name", "getProjectDirs"}});
  bridge_.didReceiveScriptMessage({{"__reqId", "q"}, {"args", {"x", 2}}});
  EXPECT_EQ(LogCapture::instance().lines(), (Lines{"[JS->Native] native action 'getProjectDirs' (req 7) args=[]",
                                                   R"([JS->Native] native action '(null)' (req q) args=["x",2])"}));
  ASSERT_EQ(host_.scripts.size(), 2u);
  EXPECT_EQ(host_.scripts[0], kResolveHead + "7', 1, {}" + kResolveTail);
  EXPECT_EQ(host_.scripts[1], kResolveHead + "q', 0, \"unknown native action '(null)'\"" + kResolveTail);
}

TEST_F(BridgeTest, ProbeLogsToTheSystemOnlyThenCallsGreetOneSecondLater) {
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
  std::string panel;
  setLogPanelSink([&panel] { panel += takeLogPanelText(kLogPanelMaxLines); });
  host_.onScript = [this](const std::string& script) {
    bridge_.didReceiveScriptMessage({{"__bridgeId", callIdOf(script)}, {"ok", false}, {"error", "bridge-not-ready"}});
  };

  const gint64 start = g_get_monotonic_time();
  bridge_.pageDidFinishLoading();
  EXPECT_EQ(host_.probes, (Lines{"String(window.__ondrel ? Object.keys(window.__ondrel) : 'NO __ondrel')",
                                 "String(window.__ondrel && typeof window.__ondrel.invoke)"}));
  const Lines systemOnly{"[Probe] page finished loading", "[Probe] window.__ondrel keys = NO __ondrel (err (null))",
                         "[Probe] typeof invoke = undefined (err (null))"};
  EXPECT_EQ(LogCapture::instance().lines(), systemOnly);
  EXPECT_TRUE(host_.scripts.empty()) << "the call waits a second";

  pumpUntil([&] { return panel.find("greet ✗") != std::string::npos; }, 3.0);
  EXPECT_GE(g_get_monotonic_time() - start, 900 * 1000);
  setLogPanelSink(nullptr);
  ASSERT_EQ(host_.scripts.size(), 1u);
  const std::string id = callIdOf(host_.scripts[0]);
  EXPECT_EQ(host_.scripts[0], invokeText(id, "greet", R"(["probe","auto"])"));
  const Lines logged{"[Probe] auto-firing an RPC call to 'greet'",
                     "[Native->JS] startup probe\n  request id=" + id + " invoke(greet)",
                     "[Native->JS] greet ✗ bridge-not-ready"};
  Lines all = systemOnly;
  all.insert(all.end(), logged.begin(), logged.end());
  EXPECT_EQ(LogCapture::instance().lines(), all);
  EXPECT_EQ(panel, logged[0] + "\n" + logged[1] + "\n" + logged[2] + "\n");
}

}  // namespace
