#include "base/main_thread.h"

#include <gio/gio.h>

#include <deque>
#include <mutex>

#include "base/handoff.h"

namespace {

gboolean runOnce(gpointer data) {
  markTakeOver(data);
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

void destroy(gpointer data) {
  markTakeOver(data);
  delete static_cast<std::function<void()>*>(data);
}

// The function goes to whichever thread runs the source or the task.
gpointer handedOff(std::function<void()> fn) {
  auto* data = new std::function<void()>(std::move(fn));
  markHandOff(data);
  return data;
}

}  // namespace

namespace {

// One queue and one idle source for all hops to the main thread: a burst of
// log lines or replies costs a lock and a push each, not a GSource each. A
// dispatch runs the items queued before it began, in order, but hands the
// loop back once it has run for a couple of milliseconds, so input is not
// kept waiting behind a long queue (such as the pieces of a long reply). A
// nested main loop inside an item (a modal dialog) cannot run the source
// again, so nothing queued after that item overtakes it.
struct MainQueue {
  std::mutex lock;
  std::deque<std::function<void()>> items;
  bool scheduled = false;
};

constexpr gint64 kDispatchBudgetUs = 2000;

MainQueue& mainQueue() {
  static auto* queue = new MainQueue;  // never destroyed: threads may still post at exit
  return *queue;
}

gboolean runNext(gpointer) {
  MainQueue& q = mainQueue();
  const gint64 until = g_get_monotonic_time() + kDispatchBudgetUs;
  size_t due;
  {
    std::lock_guard<std::mutex> guard(q.lock);
    due = q.items.size();
  }
  for (; due > 0; --due) {
    std::function<void()> fn;
    {
      std::lock_guard<std::mutex> guard(q.lock);
      if (q.items.empty()) break;
      fn = std::move(q.items.front());
      q.items.pop_front();
    }
    fn();
    if (g_get_monotonic_time() >= until) break;
  }
  std::lock_guard<std::mutex> guard(q.lock);
  if (!q.items.empty()) return G_SOURCE_CONTINUE;
  q.scheduled = false;
  return G_SOURCE_REMOVE;
}

// Counts main-loop iterations: every source is asked to prepare once per
// iteration, and this one only counts.
guint64 gTurn = 0;

gboolean countTurn(GSource*, gint* timeout) {
  ++gTurn;
  *timeout = -1;
  return FALSE;
}

}  // namespace

void runOnMain(std::function<void()> fn) {
  MainQueue& q = mainQueue();
  std::lock_guard<std::mutex> guard(q.lock);
  q.items.push_back(std::move(fn));
  if (q.scheduled) return;
  q.scheduled = true;
  // Default priority, not idle: an idle source would starve behind redraws.
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, runNext, nullptr, nullptr);
  g_source_attach(source, g_main_context_default());
  g_source_unref(source);
}

uint64_t mainLoopTurn() {
  static GSourceFuncs funcs = {countTurn, nullptr, nullptr, nullptr, nullptr, nullptr};
  static GSource* counter = [] {
    GSource* source = g_source_new(&funcs, sizeof(GSource));
    // First in line: a context stops preparing sources below one that is ready.
    g_source_set_priority(source, G_MININT);
    g_source_attach(source, g_main_context_default());
    return source;
  }();
  (void)counter;
  return gTurn;
}

void runOnMainAfter(double seconds, std::function<void()> fn) {
  auto ms = static_cast<guint>(seconds * 1000.0 + 0.5);
  GSource* source = g_timeout_source_new(ms);
  g_source_set_callback(source, runOnce, handedOff(std::move(fn)), destroy);
  g_source_attach(source, g_main_context_default());
  g_source_unref(source);
}

namespace {

class SourceTimer final : public MainTimer {
 public:
  explicit SourceTimer(GSource* source) : source_(source) {}
  ~SourceTimer() override { g_source_unref(source_); }
  // g_source_destroy takes the context's lock, so any thread may call it,
  // also while the source is being dispatched.
  void cancel() override { g_source_destroy(source_); }

 private:
  GSource* source_;
};

}  // namespace

std::shared_ptr<MainTimer> runOnMainAfterCancellable(double seconds, std::function<void()> fn) {
  auto ms = static_cast<guint>(seconds * 1000.0 + 0.5);
  GSource* source = g_timeout_source_new(ms);
  g_source_set_callback(source, runOnce, handedOff(std::move(fn)), destroy);
  auto timer = std::make_shared<SourceTimer>(source);  // keeps its own reference
  g_source_attach(source, g_main_context_default());
  return timer;
}

void runInBackground(std::function<void()> work) {
  g_autoptr(GTask) task = g_task_new(nullptr, nullptr, nullptr, nullptr);
  g_task_set_task_data(task, handedOff(std::move(work)), destroy);
  g_task_run_in_thread(task, [](GTask* task, gpointer, gpointer data, GCancellable*) {
    markTakeOver(data);
    (*static_cast<std::function<void()>*>(data))();
    markHandOff(data);
    g_task_return_boolean(task, TRUE);
  });
}
