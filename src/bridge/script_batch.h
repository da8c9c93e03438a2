#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

// Native-to-page scripts reach the page in as few evaluations as keep their
// order: the engine charges per evaluation (a message to the web process, a
// compile), hardly per byte. The first script of a main-loop turn goes at
// once, so a lone reply costs no extra turn; the ones made after it in the
// same turn go together in one evaluation when the turn is over. Each still
// runs on its own, so one that throws (a page's __resolve failing) does not
// keep the ones after it from running. A large script goes at once and
// alone (after those waiting), so its text is not copied into a batch and
// the pieces of a long reply each get a turn of their own.
class ScriptBatch {
 public:
  using Evaluate = std::function<void(const std::string& script)>;
  using Schedule = std::function<void(std::function<void()>)>;
  using Turn = std::function<uint64_t()>;

  // guard starts every combined script, as it starts each script added.
  // schedule runs the flush later on the main thread; turn numbers the
  // main loop's iterations.
  ScriptBatch(std::string guard, Evaluate evaluate, Schedule schedule, Turn turn);

  void add(std::string script);
  // Evaluates what waits now, e.g. before a script that must not overtake it.
  void flush();

 private:
  struct State;
  std::shared_ptr<State> state_;
};
