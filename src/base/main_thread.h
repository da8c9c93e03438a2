#pragma once

#include <cstdint>
#include <functional>
#include <memory>

// The only place that knows about the main loop. Both are callable from any
// thread; the work runs on the main thread in the order it was queued.
void runOnMain(std::function<void()> fn);
void runOnMainAfter(double seconds, std::function<void()> fn);

// A number for the main loop's current iteration: what is made on the main
// thread with the same number was made in the same turn. Main thread only.
uint64_t mainLoopTurn();

// Runs blocking work (a transfer, file work) on GLib's shared worker pool,
// GTask's; the work hands its results to the main thread with runOnMain.
// What it captured is released on the main thread afterwards.
void runInBackground(std::function<void()> work);

// A delayed call on the main thread that can be called off. Callers that arm
// one timer per request (and most requests finish long before it) cancel it,
// so the main loop is not left scanning thousands of dead timers.
class MainTimer {
 public:
  virtual ~MainTimer() = default;
  // Callable from any thread; a timer that already ran or was called off
  // stays as it is. Dropping the handle does not call the timer off.
  virtual void cancel() = 0;
};

std::shared_ptr<MainTimer> runOnMainAfterCancellable(double seconds, std::function<void()> fn);
