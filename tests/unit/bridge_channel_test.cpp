#include <glib.h>
#include <gtest/gtest.h>

#include <ctime>
#include <regex>
#include <tuple>

#include "base/log.h"
#include "bridge_fakes.h"

namespace {

using Lines = std::vector<std::string>;

// The call a guarded invocation makes, as the page runs it.
std::string invocation(const std::string& script) {
  const size_t at = script.find("window.__ondrel.invoke(");
  if (!script.starts_with(kGuard) || at == std::string::npos) return "";
  return script.substr(at, script.find(") :", at) + 1 - at);
}

std::string callIdOf(const std::string& script) {
  std::smatch m;
  static const std::regex pattern(R"(invoke\('([^']*)')");
  return std::regex_search(script, m, pattern) ? m[1].str() : "";
}

// Quotes and escapes, which only a page can judge, the end-to-end test checks.
TEST_F(BridgeTest, RepliesCarryTheRequestIdsTextTheFlagAndTheValueOrNull) {
  using Got = std::vector<std::tuple<std::string, bool, Json>>;
  bridge_.replyToJS(7.5, true, Json::array({1, "two"}));
  bridge_.replyToJS(true, false, "text");
  bridge_.replyToJS("bad", true, std::string("\xff\xfe"));  // not representable as JSON: null stands in
  Got got;
  for (const auto& script : host_.scripts) {
    const auto reply = parseReply(script);
    ASSERT_TRUE(reply) << script;
    got.emplace_back(reply->id, reply->ok, reply->value);
  }
  EXPECT_EQ(got, (Got{{"7.5", true, Json::array({1, "two"})}, {"1", false, "text"}, {"bad", true, nullptr}}));
}

// Storing the call before evaluating it, and the log of the answer, the
// probe test below shows. The app has one bridge, so its first call is the
// run's first.
TEST_F(BridgeTest, CallsAreNumberedFromOneWithTheTimeSpreadTheirArgumentsAndWaitForAnAnswer) {
  const std::time_t before = std::time(nullptr);
  bridge_.invokeHandler("greet", Json::array(), "d");
  const std::time_t after = std::time(nullptr);
  bridge_.invokeHandler("sum", Json::array({1, "a\"b", Json{{"k", nullptr}}}), "d");
  const std::string id = callIdOf(host_.scripts[0]), next = callIdOf(host_.scripts[1]);
  ASSERT_TRUE(id.starts_with("1-") && next.starts_with("2-")) << id << " " << next;
  EXPECT_TRUE(std::stol(id.substr(2)) >= before && std::stol(id.substr(2)) <= after) << id;
  EXPECT_EQ(invocation(host_.scripts[0]), "window.__ondrel.invoke('" + id + "', 'greet', ...[])");
  EXPECT_EQ(invocation(host_.scripts[1]),
            "window.__ondrel.invoke('" + next + R"(', 'sum', ...[1,"a\"b",{"k":null}]))");
  EXPECT_TRUE(bridge_.awaitsAnswer(id) && bridge_.awaitsAnswer(next)) << "unanswered calls stay pending";
}

TEST_F(BridgeTest, AnswerFlagIsReadAsABooleanAndEachAnswerIsHandledOnce) {
  const std::pair<Json, std::string> cases[] = {
      {{{"ok", true}}, "[Native->JS] h → (null)"},
      {{{"ok", false}, {"error", "boom"}, {"value", 1}}, "[Native->JS] h ✗ boom"},
      {{{"value", "ignored"}, {"error", "no flag"}}, "[Native->JS] h ✗ no flag"},
      {{{"ok", 0}, {"error", false}}, "[Native->JS] h ✗ 0"},
  };
  for (auto [answer, line] : cases) {
    bridge_.invokeHandler("h", Json::array(), "d");
    const std::string id = callIdOf(host_.scripts.back());
    answer["__bridgeId"] = id;
    LogCapture::instance().clear();
    bridge_.didReceiveScriptMessage(answer);
    bridge_.didReceiveScriptMessage(answer);
    EXPECT_EQ(LogCapture::instance().lines(), (Lines{line, "[JS->Native] stale response id=" + id})) << answer;
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
  for (const Json& body : {Json("text"), Json::array({"__reqId"}), Json()}) bridge_.didReceiveScriptMessage(body);
  bridge_.didReceiveScriptMessage({{"hello", 1}, {"b", "x"}});
  EXPECT_TRUE(host_.scripts.empty());
  EXPECT_EQ(LogCapture::instance().lines(),
            (Lines{"[Native->JS] h → (null)", "[JS->Native] stale response id=never-sent", "[JS->Native] ondrel",
                   "[JS->Native] ondrel", "[JS->Native] ondrel", R"([JS->Native] {"hello":1,"b":"x"})"}));

  LogCapture::instance().clear();
  bridge_.didReceiveScriptMessage({{"__reqId", 7}, {"name", "getProjectDirs"}});
  bridge_.didReceiveScriptMessage({{"__reqId", "q"}, {"args", {"x", 2}}});
  EXPECT_EQ(LogCapture::instance().lines(), (Lines{"[JS->Native] native action 'getProjectDirs' (req 7) args=[]",
                                                   R"([JS->Native] native action '(null)' (req q) args=["x",2])"}));
  ASSERT_EQ(host_.scripts.size(), 2u);
  EXPECT_EQ(parseReply(host_.scripts[0])->value, Json::object());
  EXPECT_FALSE(parseReply(host_.scripts[1])->ok);
}

TEST_F(BridgeTest, ProbeLogsToTheSystemOnlyThenCallsGreetOneSecondLater) {
  while (g_main_context_iteration(nullptr, FALSE)) continue;  // what earlier tests left due
  std::string panel;
  setLogPanelSink([&panel] { panel += takeLogPanelText(kLogPanelMaxLines); });
  bridge_.pageDidFinishLoading();
  const Lines systemOnly{"[Probe] page finished loading", "[Probe] window.__ondrel keys = NO __ondrel (err (null))",
                         "[Probe] typeof invoke = undefined (err (null))"};
  EXPECT_EQ(LogCapture::instance().lines(), systemOnly);
  ASSERT_EQ(later_.size(), 1u);
  EXPECT_EQ(later_[0].first, 1.0);
  EXPECT_TRUE(host_.scripts.empty()) << "the call waits";

  later_[0].second();
  ASSERT_EQ(host_.scripts.size(), 1u);
  const std::string id = callIdOf(host_.scripts[0]);
  EXPECT_EQ(invocation(host_.scripts[0]), "window.__ondrel.invoke('" + id + R"(', 'greet', ...["probe","auto"]))");
  pumpUntil([&] { return panel.find("invoke(greet)") != std::string::npos; });
  setLogPanelSink(nullptr);
  const Lines logged{"[Probe] auto-firing an RPC call to 'greet'",
                     "[Native->JS] startup probe\n  request id=" + id + " invoke(greet)"};
  Lines all = systemOnly;
  all.insert(all.end(), logged.begin(), logged.end());
  EXPECT_EQ(LogCapture::instance().lines(), all);
  EXPECT_EQ(panel, logged[0] + "\n" + logged[1] + "\n") << "the probe's own lines reach the system log only";
}

}  // namespace
