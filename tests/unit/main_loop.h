#pragma once

// The one way tests run the default main context, through which completions and log lines arrive.

#include <glib.h>

#include <chrono>
#include <functional>

// Runs the main loop until `done` holds or the time runs out; a 10 ms tick re-checks what changes off it.
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
