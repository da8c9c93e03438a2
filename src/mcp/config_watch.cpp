#include "mcp/config_watch.h"

#include <gio/gio.h>

#include <algorithm>

#include "base/files.h"

std::unique_ptr<ConfigWatch> ConfigWatch::start(const std::string& directory, std::function<void()> check,
                                                double interval) {
  makeDirectories(directory);
  if (!g_file_test(directory.c_str(), G_FILE_TEST_IS_DIR)) return nullptr;
  g_autoptr(GFile) folder = g_file_new_for_path(directory.c_str());
  // Moves are reported as such: a rename onto the file is one event.
  GFileMonitor* monitor = g_file_monitor_directory(folder, G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr);
  if (!monitor) return nullptr;
  std::unique_ptr<ConfigWatch> watch(new ConfigWatch(std::move(check), interval));
  watch->monitor_ = monitor;
  watch->context_ = g_main_context_ref_thread_default();
  auto onEvent = +[](GFileMonitor*, GFile*, GFile*, GFileMonitorEvent event, gpointer self) {
    // Entries created, removed, renamed or written: how saves, atomic ones
    // included, show.
    if (event != G_FILE_MONITOR_EVENT_ATTRIBUTE_CHANGED) static_cast<ConfigWatch*>(self)->changed();
  };
  g_signal_connect(monitor, "changed", G_CALLBACK(onEvent), watch.get());
  return watch;
}

ConfigWatch::~ConfigWatch() {
  g_signal_handlers_disconnect_by_data(monitor_, this);
  g_file_monitor_cancel(monitor_);
  g_object_unref(monitor_);
  for (GSource* source : dueChecks_) {
    g_source_destroy(source);
    g_source_unref(source);
  }
  g_main_context_unref(context_);
}

void ConfigWatch::changed() {
  if (!throttle_.accept(static_cast<double>(g_get_monotonic_time()) / G_USEC_PER_SEC)) return;
  GSource* source = g_timeout_source_new(static_cast<guint>(throttle_.interval() * 1000 + 0.5));
  g_source_set_callback(
      source,
      +[](gpointer data) -> gboolean {
        auto* self = static_cast<ConfigWatch*>(data);
        GSource* current = g_main_current_source();
        self->dueChecks_.erase(std::remove(self->dueChecks_.begin(), self->dueChecks_.end(), current),
                               self->dueChecks_.end());
        g_source_unref(current);
        try {
          self->check_();
        } catch (...) {
        }
        return G_SOURCE_REMOVE;
      },
      this, nullptr);
  g_source_attach(source, context_);
  dueChecks_.push_back(source);  // the watch keeps the reference
}
