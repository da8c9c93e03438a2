#include "base/main_thread.h"

#include <glib.h>

namespace {

gboolean runOnce(gpointer data) {
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

void destroy(gpointer data) { delete static_cast<std::function<void()>*>(data); }

}  // namespace

void runOnMain(std::function<void()> fn) {
  // g_idle_add would starve behind a busy redraw; a default-priority source
  // keeps the queue order of callers on the same thread.
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, runOnce, new std::function<void()>(std::move(fn)), destroy);
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
