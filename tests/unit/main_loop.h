#pragma once

// The one way tests run the default main context: completions, log lines
// and settings-watch checks arrive through it.

#include <glib.h>

#include <chrono>
#include <functional>

// Runs the main loop until `done` holds or the time runs out. A 10 ms tick
// re-checks conditions that change off the main thread (files, processes).
inline bool pumpUntil(const std::function<bool()>& done, double seconds = 10) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  guint tick = g_timeout_add(10, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr);
  bool ok = true;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      ok = false;
      break;
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  g_source_remove(tick);
  return ok;
}
