#include "base/main_thread.h"

#include <gio/gio.h>

#include <deque>
#include <mutex>

namespace {

gboolean runOnce(gpointer data) {
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

void destroy(gpointer data) { delete static_cast<std::function<void()>*>(data); }

}  // namespace

namespace {

// One queue and one idle source for all hops to the main thread: a burst of
// log lines or replies costs a lock and a push each, not a GSource each. The
// source runs one item per dispatch, so a nested main loop inside an item
// (a modal dialog) cannot overtake the items queued before it.
struct MainQueue {
  std::mutex lock;
  std::deque<std::function<void()>> items;
  bool scheduled = false;
};

MainQueue& mainQueue() {
  static auto* queue = new MainQueue;  // never destroyed: threads may still post at exit
  return *queue;
}

gboolean runNext(gpointer) {
  MainQueue& q = mainQueue();
  std::function<void()> fn;
  {
    std::lock_guard<std::mutex> guard(q.lock);
    if (q.items.empty()) {
      q.scheduled = false;
      return G_SOURCE_REMOVE;
    }
    fn = std::move(q.items.front());
    q.items.pop_front();
  }
  fn();
  std::lock_guard<std::mutex> guard(q.lock);
  if (!q.items.empty()) return G_SOURCE_CONTINUE;
  q.scheduled = false;
  return G_SOURCE_REMOVE;
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

void runOnMainAfter(double seconds, std::function<void()> fn) {
  auto ms = static_cast<guint>(seconds * 1000.0 + 0.5);
  GSource* source = g_timeout_source_new(ms);
  g_source_set_callback(source, runOnce, new std::function<void()>(std::move(fn)), destroy);
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
  g_source_set_callback(source, runOnce, new std::function<void()>(std::move(fn)), destroy);
  auto timer = std::make_shared<SourceTimer>(source);  // keeps its own reference
  g_source_attach(source, g_main_context_default());
  return timer;
}

void runInBackground(std::function<void()> work) {
  g_autoptr(GTask) task = g_task_new(nullptr, nullptr, nullptr, nullptr);
  g_task_set_task_data(task, new std::function<void()>(std::move(work)), destroy);
  g_task_run_in_thread(task, [](GTask* task, gpointer, gpointer data, GCancellable*) {
    (*static_cast<std::function<void()>*>(data))();
    g_task_return_boolean(task, TRUE);
  });
}
