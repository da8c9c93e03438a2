#pragma once

// Private to McpTask's files: the one-shot finish handler of a request.

#include <atomic>

#include "base/main_thread.h"
#include "mcp/mcp_task.h"

// Whoever takes a request out of the pending table (response, time-out,
// exit, stop) or finds the server not running calls finish(); the table's
// removal under the lock is what makes that exclusive, the flag only guards
// the contract.
struct McpTask::Finish {
  explicit Finish(ResponseHandler c) : completion(std::move(c)) {}

  void finish(Json response) {
    if (fired.exchange(true)) return;
    cancelTimer();
    if (!completion) return;
    runOnMain([c = std::move(completion), r = std::move(response)] { c(r); });
  }

  void cancelTimer() {
    if (timer) timer->cancel();
  }

  std::atomic<bool> fired{false};
  ResponseHandler completion;
  std::shared_ptr<MainTimer> timer;  // set on the main thread before the request is queued
};
