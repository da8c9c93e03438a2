#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "bridge/script_batch.h"

// Replies made in one main-loop turn travel together: each exactly once, in
// the order made, every evaluation behind the origin guard.

namespace {

const std::string kGuard = "location.origin === \"http://instance.test\" && ";

struct Rig {
  std::vector<std::string> evaluated;
  std::vector<std::function<void()>> turns;  // the main loop, by hand
  ScriptBatch batch{kGuard, [this](const std::string& s) { evaluated.push_back(s); },
                    [this](std::function<void()> fn) { turns.push_back(std::move(fn)); }};

  void endTurn() {
    auto due = std::move(turns);
    turns.clear();
    for (auto& fn : due) fn();
  }
};

std::string guarded(const std::string& body) { return kGuard + "(" + body + ")"; }

std::string together(const std::vector<std::string>& scripts) {
  std::string out = kGuard + "((function () {\n";
  for (const auto& s : scripts) out += "try { " + s + " } catch (e) {}\n";
  return out + "})())";
}

TEST(ScriptBatch, ScriptsOfOneTurnGoTogetherInOrderAndLargeOnesAtOnceAlone) {
  const std::string a = guarded("f('a')"), b = guarded("f('b')"), c = guarded("f('c')");
  const std::string big = guarded("f('" + std::string(70 * 1024, 'x') + "')");
  const struct {
    std::vector<std::string> added;
    std::vector<std::string> evaluated;
  } cases[] = {
      {{a}, {a}},
      {{a, b, c}, {together({a, b, c})}},
      {{a, big, b, c}, {a, big, together({b, c})}},
      {{big, big}, {big, big}},
      {{a, b, big}, {together({a, b}), big}},
  };
  for (const auto& c : cases) {
    Rig rig;
    for (const auto& s : c.added) rig.batch.add(s);
    EXPECT_LE(rig.turns.size(), 1u) << "one flush per turn";
    rig.endTurn();
    EXPECT_EQ(rig.evaluated, c.evaluated) << c.added.size();
  }
}

TEST(ScriptBatch, FlushGoesFirstAndLaterScriptsWaitForTheirTurn) {
  Rig rig;
  rig.batch.add(guarded("1"));
  EXPECT_TRUE(rig.evaluated.empty()) << "small scripts wait for the turn to end";
  rig.batch.flush();  // before a script that must not overtake it
  EXPECT_EQ(rig.evaluated, (std::vector<std::string>{guarded("1")}));
  rig.batch.add(guarded("2"));
  rig.batch.add(guarded("3"));
  rig.endTurn();
  rig.batch.add(guarded("4"));
  rig.endTurn();
  EXPECT_EQ(rig.evaluated, (std::vector<std::string>{guarded("1"), together({guarded("2"), guarded("3")}),
                                                     guarded("4")}));
  EXPECT_TRUE(rig.turns.empty());
}

TEST(ScriptBatch, AFlushDueAfterTheBatchIsGoneDoesNothing) {
  std::vector<std::function<void()>> turns;
  {
    ScriptBatch batch(kGuard, [](const std::string&) { FAIL() << "evaluated after the batch was gone"; },
                      [&turns](std::function<void()> fn) { turns.push_back(std::move(fn)); });
    batch.add(guarded("late"));
  }
  for (auto& fn : turns) fn();
}

}  // namespace
