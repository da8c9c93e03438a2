#pragma once

#include <functional>
#include <memory>

// Queued work run one item at a time, in order, on GLib's shared worker
// threads: a queue costs no thread of its own while it is idle. Closing
// (also by destruction) never waits: the item in progress finishes and the
// rest is dropped. SIGPIPE is blocked on the threads that run the items, so
// their writes to a closed pipe fail with EPIPE instead of ending the
// process.
class SerialQueue {
 public:
  // Background: a thread of its own, at a lower priority than the main
  // thread, for bulk work the window must not wait behind.
  enum class Priority { Normal, Background };
  explicit SerialQueue(Priority priority = Priority::Normal);
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
