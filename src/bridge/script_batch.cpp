#include "bridge/script_batch.h"

#include <vector>

namespace {

constexpr size_t kAloneFrom = 64 * 1024;

}  // namespace

struct ScriptBatch::State {
  std::string guard;
  Evaluate evaluate;
  Schedule schedule;
  Turn turn;
  std::vector<std::string> waiting;
  bool flushScheduled = false;
  uint64_t lastTurn = UINT64_MAX;

  void flush() {
    std::vector<std::string> scripts;
    scripts.swap(waiting);  // an evaluation may add more; they wait for the next turn
    if (scripts.empty()) return;
    if (scripts.size() == 1) {
      evaluate(scripts.front());
      return;
    }
    size_t size = guard.size() + 32;
    for (const auto& s : scripts) size += s.size() + 24;
    std::string script;
    script.reserve(size);
    script += guard;
    script += "((function () {\n";
    // Each threw in an evaluation of its own before; it still does not
    // reach the next.
    for (const auto& s : scripts) {
      script += "try { ";
      script += s;
      script += " } catch (e) {}\n";
    }
    script += "})())";
    evaluate(script);
  }
};

ScriptBatch::ScriptBatch(std::string guard, Evaluate evaluate, Schedule schedule, Turn turn)
    : state_(std::make_shared<State>()) {
  state_->guard = std::move(guard);
  state_->evaluate = std::move(evaluate);
  state_->schedule = std::move(schedule);
  state_->turn = std::move(turn);
}

void ScriptBatch::add(std::string script) {
  if (script.size() >= kAloneFrom) {
    state_->flush();
    state_->evaluate(script);
    return;
  }
  const uint64_t turn = state_->turn();
  if (state_->waiting.empty() && turn != state_->lastTurn) {
    state_->lastTurn = turn;
    state_->evaluate(script);
    return;
  }
  state_->waiting.push_back(std::move(script));
  if (state_->flushScheduled) return;
  state_->flushScheduled = true;
  state_->schedule([weak = std::weak_ptr<State>(state_)] {
    if (auto state = weak.lock()) {
      state->flushScheduled = false;
      state->flush();
    }
  });
}

void ScriptBatch::flush() { state_->flush(); }
