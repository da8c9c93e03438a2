// How the log panel takes a flood: a background thread logs 100,000 lines
// (as a chatty MCP server's standard error would) into the shown panel of a
// real window, while a main-loop timer records its own lateness, which is
// how late the window would answer input. Prints the time until the panel
// holds the last line and the worst lateness, until half a second after
// that (the text view lays out what it was given after the insert).
//
// Usage: xvfb-run -a build/bench/log_panel_bench [lines] 2>/dev/null
#include <gtk/gtk.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "app/log_panel_gtk.h"
#include "base/log.h"
#include "base/system_log.h"

namespace {

constexpr gint64 kTickUs = 5000;
constexpr gint64 kWatchAfterUs = 500000;

struct Run {
  int lines = 100000;
  std::string lastLine;
  gint64 started = 0;
  gint64 loggedAt = 0;
  gint64 shownAt = 0;
  gint64 expected = 0;
  gint64 worstLate = 0;
  std::thread writer;
  GtkTextView* text = nullptr;
};

std::string lineText(int i, int n) {
  return "[MCP files] stderr: line " + std::to_string(i + 1) + " of " + std::to_string(n) +
         ": some diagnostic text as servers write it";
}

bool panelHoldsLastLine(const Run& run) {
  GtkTextBuffer* buffer = gtk_text_view_get_buffer(run.text);
  const int count = gtk_text_buffer_get_line_count(buffer);
  if (count < 2) return false;
  GtkTextIter start, end;
  gtk_text_buffer_get_iter_at_line(buffer, &start, count - 2);
  gtk_text_buffer_get_iter_at_line(buffer, &end, count - 1);
  gchar* text = gtk_text_buffer_get_text(buffer, &start, &end, FALSE);
  const bool done = run.lastLine + "\n" == text;
  g_free(text);
  return done;
}

gboolean tick(gpointer data) {
  auto* run = static_cast<Run*>(data);
  const gint64 now = g_get_monotonic_time();
  if (now - run->expected > run->worstLate) run->worstLate = now - run->expected;
  run->expected = now + kTickUs;
  if (run->shownAt == 0 && panelHoldsLastLine(*run)) run->shownAt = now;
  if (run->shownAt == 0 || now - run->shownAt < kWatchAfterUs) return G_SOURCE_CONTINUE;
  run->writer.join();
  std::printf("%d lines: logged in %.0f ms, in the panel after %.0f ms; worst main-loop lateness %.1f ms\n",
              run->lines, (run->loggedAt - run->started) / 1000.0, (run->shownAt - run->started) / 1000.0,
              run->worstLate / 1000.0);
  gtk_main_quit();
  return G_SOURCE_REMOVE;
}

gboolean start(gpointer data) {
  auto* run = static_cast<Run*>(data);
  run->started = g_get_monotonic_time();
  run->expected = run->started + kTickUs;
  g_timeout_add(kTickUs / 1000, tick, run);
  run->writer = std::thread([run] {
    for (int i = 0; i < run->lines; ++i) logLine(lineText(i, run->lines));
    run->loggedAt = g_get_monotonic_time();
  });
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  installSystemLogWriter();  // as the app does
  gtk_init(&argc, &argv);
  auto* run = new Run;
  if (argc > 1) run->lines = std::atoi(argv[1]);
  run->lastLine = lineText(run->lines - 1, run->lines);

  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window), 1260, 900);
  GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
  gtk_box_pack_start(GTK_BOX(box), gtk_label_new("page"), TRUE, TRUE, 0);
  auto* panel = new LogPanel;
  run->text = GTK_TEXT_VIEW(gtk_bin_get_child(GTK_BIN(panel->widget())));
  gtk_box_pack_start(GTK_BOX(box), panel->widget(), FALSE, FALSE, 0);
  gtk_container_add(GTK_CONTAINER(window), box);
  gtk_widget_show_all(window);
  panel->toggle();
  // Once the window is up and drawn.
  g_timeout_add(500, start, run);
  gtk_main();
  return 0;
}
