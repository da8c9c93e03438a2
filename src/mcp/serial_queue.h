#pragma once

#include <functional>
#include <memory>
#include <string>

// One background thread that runs queued work one item at a time, in order.
// Closing (also by destruction) never waits: the item in progress finishes,
// the rest is dropped and the thread ends by itself. SIGPIPE is blocked on
// the thread, so its writes to a closed pipe fail with EPIPE instead of
// ending the process.
class SerialQueue {
 public:
  explicit SerialQueue(const std::string& label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // False when the queue was closed (the work is dropped).
  bool async(std::function<void()> work);
  void close();

 private:
  struct State;
  std::shared_ptr<State> state_;
};
