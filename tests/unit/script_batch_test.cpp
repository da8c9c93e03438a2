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
  std::vector<std::function<void()>> due;  // the main loop, by hand
  uint64_t turn = 0;
  ScriptBatch batch{kGuard, [this](const std::string& s) { evaluated.push_back(s); },
                    [this](std::function<void()> fn) { due.push_back(std::move(fn)); }, [this] { return turn; }};

  void endTurn() {
    ++turn;
    auto now = std::move(due);
    due.clear();
    for (auto& fn : now) fn();
  }
};

std::string guarded(const std::string& body) { return kGuard + "(" + body + ")"; }

std::string together(const std::vector<std::string>& scripts) {
  std::string out = kGuard + "((function () {\n";
  for (const auto& s : scripts) out += "try { " + s + " } catch (e) {}\n";
  return out + "})())";
}

TEST(ScriptBatch, FirstOfATurnGoesAtOnceTheRestTogetherInOrderLargeOnesAlone) {
  const std::string a = guarded("f('a')"), b = guarded("f('b')"), c = guarded("f('c')");
  const std::string big = guarded("f('" + std::string(70 * 1024, 'x') + "')");
  const struct {
    std::vector<std::string> added;
    std::vector<std::string> atOnce, afterTheTurn;
  } cases[] = {
      {{a}, {a}, {}},
      {{a, b, c}, {a}, {together({b, c})}},
      {{a, b, c, a}, {a}, {together({b, c, a})}},
      {{a, big, b, c}, {a, big}, {together({b, c})}},
      {{big, big}, {big, big}, {}},
      {{a, b, big, c}, {a, b, big}, {c}},
  };
  for (const auto& c : cases) {
    Rig rig;
    for (const auto& s : c.added) rig.batch.add(s);
    EXPECT_EQ(rig.evaluated, c.atOnce) << c.added.size();
    EXPECT_LE(rig.due.size(), 1u) << "one flush per turn";
    rig.endTurn();
    std::vector<std::string> all = c.atOnce;
    all.insert(all.end(), c.afterTheTurn.begin(), c.afterTheTurn.end());
    EXPECT_EQ(rig.evaluated, all) << c.added.size();
  }
}

TEST(ScriptBatch, FlushGoesFirstAndLaterTurnsStartAfresh) {
  Rig rig;
  rig.batch.add(guarded("1"));
  rig.batch.add(guarded("2"));
  rig.batch.flush();  // before a script that must not overtake them
  EXPECT_EQ(rig.evaluated, (std::vector<std::string>{guarded("1"), guarded("2")}));
  rig.batch.add(guarded("3"));
  rig.batch.add(guarded("4"));
  rig.endTurn();
  rig.batch.add(guarded("5"));
  rig.batch.add(guarded("6"));
  rig.batch.add(guarded("7"));
  rig.endTurn();
  EXPECT_EQ(rig.evaluated, (std::vector<std::string>{guarded("1"), guarded("2"), together({guarded("3"), guarded("4")}),
                                                     guarded("5"), together({guarded("6"), guarded("7")})}));
  EXPECT_TRUE(rig.due.empty());
}

TEST(ScriptBatch, AFlushDueAfterTheBatchIsGoneDoesNothing) {
  std::vector<std::function<void()>> turns;
  {
    ScriptBatch batch(
        kGuard, [](const std::string& s) { EXPECT_EQ(s, guarded("first")) << "evaluated after the batch was gone"; },
        [&turns](std::function<void()> fn) { turns.push_back(std::move(fn)); }, [] { return uint64_t{1}; });
    batch.add(guarded("first"));
    batch.add(guarded("late"));
  }
  for (auto& fn : turns) fn();
}

}  // namespace
