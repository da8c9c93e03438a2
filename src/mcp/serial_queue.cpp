#include "mcp/serial_queue.h"

#include <glib.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <mutex>
#include <utility>

#include "base/handoff.h"

namespace {

// Background work yields the processor to the main thread on a busy
// machine, without starving when the machine is idle.
constexpr int kBackgroundNice = 10;

using Work = std::function<void()>;

void runItem(gpointer item, gpointer background) {
  // Left blocked afterwards: a SIGPIPE that a write raised stays pending on
  // the thread, and unblocking it would deliver it.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  if (background) {
    // The pool's thread is its own (exclusive), so this lasts only as long
    // as the queue. A lower priority cannot be raised again without
    // privileges, which is why shared threads never get it.
    static thread_local bool lowered = false;
    if (!lowered) {
      setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kBackgroundNice);  // on failure: normal priority
      lowered = true;
    }
  }
  auto* work = static_cast<Work*>(item);
  markTakeOver(work);
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

SerialQueue::SerialQueue(Priority priority) : state_(std::make_shared<State>()) {
  const bool background = priority == Priority::Background;
  state_->pool = g_thread_pool_new_full(runItem, background ? GINT_TO_POINTER(1) : nullptr,
                                        [](gpointer item) { delete static_cast<Work*>(item); }, 1, background, nullptr);
}

SerialQueue::~SerialQueue() { close(); }

bool SerialQueue::async(std::function<void()> work) {
  std::lock_guard lock(state_->mutex);
  if (!state_->pool) return false;
  auto* item = new Work(std::move(work));
  markHandOff(item);
  return g_thread_pool_push(state_->pool, item, nullptr);
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
