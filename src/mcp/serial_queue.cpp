#include "mcp/serial_queue.h"

#include <glib.h>
#include <pthread.h>

#include <csignal>
#include <mutex>
#include <utility>

namespace {

using Work = std::function<void()>;

void runItem(gpointer item, gpointer) {
  // Left blocked afterwards: a SIGPIPE that a write raised stays pending on
  // the thread, and unblocking it would deliver it.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  auto* work = static_cast<Work*>(item);
  try {
    (*work)();
  } catch (...) {
    // A failing item must not take the queue (or the process) down.
  }
  delete work;  // captured objects die here, outside any lock
}

}  // namespace

// A pool of at most one thread runs its items in the order they came.
struct SerialQueue::State {
  std::mutex mutex;
  GThreadPool* pool = nullptr;  // null once closed
};

SerialQueue::SerialQueue() : state_(std::make_shared<State>()) {
  state_->pool = g_thread_pool_new_full(runItem, nullptr, [](gpointer item) { delete static_cast<Work*>(item); }, 1,
                                        FALSE, nullptr);
}

SerialQueue::~SerialQueue() { close(); }

bool SerialQueue::async(std::function<void()> work) {
  std::lock_guard lock(state_->mutex);
  if (!state_->pool) return false;
  return g_thread_pool_push(state_->pool, new Work(std::move(work)), nullptr);
}

void SerialQueue::close() {
  GThreadPool* pool;
  {
    std::lock_guard lock(state_->mutex);
    pool = std::exchange(state_->pool, nullptr);
  }
  // Items not started are freed here; the one in progress finishes on its
  // own.
  if (pool) g_thread_pool_free(pool, TRUE, FALSE);
}
