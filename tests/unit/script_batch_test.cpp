#include "bridge/script_batch.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace {

using Scripts = std::vector<std::string>;
const std::string kGuard = "location.origin === \"http://instance.test\" && ";

struct Rig {
  Scripts evaluated;
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
  // Each evaluation as the scripts it runs, each in a try of its own; a
  // combined one must itself be behind the guard.
  std::vector<Scripts> runs() const {
    std::vector<Scripts> out;
    for (const auto& script : evaluated) {
      Scripts parts;
      for (size_t at = 0; (at = script.find("try { ", at)) != std::string::npos;) {
        const size_t end = script.find(" } catch (e) {}\n", at += 6);
        parts.push_back(script.substr(at, end - at));
      }
      out.push_back(parts.empty() ? Scripts{script} : parts);
      EXPECT_TRUE(parts.empty() || script.rfind(kGuard, 0) == 0) << script;
    }
    return out;
  }
};

std::string guarded(const std::string& body) { return kGuard + "(" + body + ")"; }

TEST(ScriptBatch, FirstOfATurnGoesAtOnceTheRestTogetherInOrderLargeOnesAlone) {
  const std::string a = guarded("f('a')"), b = guarded("f('b')"), c = guarded("f('c')");
  const std::string big = guarded("f('" + std::string(70 * 1024, 'x') + "')");
  // What is added in one turn, the evaluations made before it ends, and all of them.
  const std::tuple<Scripts, size_t, std::vector<Scripts>> cases[] = {
      {{a, b, c, a}, 1, {{a}, {b, c, a}}},
      {{a, big, b, c}, 2, {{a}, {big}, {b, c}}},
      {{a, b, big, c}, 3, {{a}, {b}, {big}, {c}}},
  };
  for (const auto& [added, atOnce, runs] : cases) {
    Rig rig;
    for (const auto& s : added) rig.batch.add(s);
    EXPECT_EQ(rig.evaluated.size(), atOnce) << added.size();
    EXPECT_LE(rig.due.size(), 1u) << "one flush per turn";
    rig.endTurn();
    EXPECT_EQ(rig.runs(), runs) << added.size();
  }
}

TEST(ScriptBatch, FlushGoesFirstAndLaterTurnsStartAfresh) {
  Rig rig;
  for (const char* s : {"1", "2"}) rig.batch.add(guarded(s));
  rig.batch.flush();  // before a script that must not overtake them
  EXPECT_EQ(rig.evaluated.size(), 2u);
  for (const char* s : {"3", "4"}) rig.batch.add(guarded(s));
  rig.endTurn();
  for (const char* s : {"5", "6", "7"}) rig.batch.add(guarded(s));
  rig.endTurn();
  EXPECT_EQ(rig.runs(), (std::vector<Scripts>{{guarded("1")}, {guarded("2")}, {guarded("3"), guarded("4")},
                                               {guarded("5")}, {guarded("6"), guarded("7")}}));
  EXPECT_TRUE(rig.due.empty());

  // A flush due after the batch is gone does nothing.
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
