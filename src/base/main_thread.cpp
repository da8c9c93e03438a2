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
