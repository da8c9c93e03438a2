#include "mcp/serial_queue.h"

#include <pthread.h>

#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

struct SerialQueue::State {
  std::mutex mutex;
  std::condition_variable wake;
  std::deque<std::function<void()>> items;
  bool closed = false;
};

SerialQueue::SerialQueue(const std::string& label) : state_(std::make_shared<State>()) {
  try {
    std::thread([state = state_, label] {
      pthread_setname_np(pthread_self(), label.substr(0, 15).c_str());
      sigset_t pipe;
      sigemptyset(&pipe);
      sigaddset(&pipe, SIGPIPE);
      pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
      std::unique_lock lock(state->mutex);
      for (;;) {
        state->wake.wait(lock, [&] { return state->closed || !state->items.empty(); });
        if (state->closed) return;
        auto work = std::move(state->items.front());
        state->items.pop_front();
        lock.unlock();
        try {
          work();
        } catch (...) {
          // A failing item must not take the queue (or the process) down.
        }
        work = nullptr;  // captured objects die here, outside the lock
        lock.lock();
      }
    }).detach();
  } catch (...) {
    state_->closed = true;  // no thread: every item is dropped
  }
}

SerialQueue::~SerialQueue() { close(); }

bool SerialQueue::async(std::function<void()> work) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->closed) return false;
    state_->items.push_back(std::move(work));
  }
  state_->wake.notify_one();
  return true;
}

void SerialQueue::close() {
  std::deque<std::function<void()>> dropped;
  {
    std::lock_guard lock(state_->mutex);
    state_->closed = true;
    dropped.swap(state_->items);
  }
  state_->wake.notify_one();
  // `dropped` dies here, on the closing thread, outside the lock.
}
