#include "app/log_panel_gtk.h"

#include "app/ui_globals_gtk.h"
#include "base/log.h"

namespace {

constexpr int kPanelHeight = 200;

// Follows the end of the text (right gravity), independent of any selection
// the user makes in the panel.
GtkTextMark* gLogEnd = nullptr;

void scrollToEnd() { gtk_text_view_scroll_mark_onscreen(gLog, gLogEnd); }

void appendToPanel(const std::string& line) {
  if (!gLog) return;
  // A megabyte-long line would stall the text view's layout; the system log
  // keeps the whole line.
  const std::string text = line.size() > kLogLineDisplayLimit + 1 ? abbreviateForLog(line) + "\n" : line;
  // Inserting at the end costs the same however long the log has grown.
  GtkTextBuffer* buffer = gtk_text_view_get_buffer(gLog);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter(buffer, &end);
  gtk_text_buffer_insert(buffer, &end, text.data(), static_cast<gint>(text.size()));
  if (gtk_widget_get_visible(gLogScroll)) scrollToEnd();
}

}  // namespace

GtkWidget* createLogPanel() {
  GtkWidget* scroll = gtk_scrolled_window_new(nullptr, nullptr);
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll), GTK_POLICY_AUTOMATIC, GTK_POLICY_ALWAYS);
  gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(scroll), GTK_SHADOW_IN);
  gtk_widget_set_size_request(scroll, -1, kPanelHeight);

  GtkWidget* text = gtk_text_view_new();
  gtk_text_view_set_editable(GTK_TEXT_VIEW(text), FALSE);
  gtk_text_view_set_monospace(GTK_TEXT_VIEW(text), TRUE);
  GtkCssProvider* css = gtk_css_provider_new();
  gtk_css_provider_load_from_data(css, "textview { font-family: monospace; font-size: 11px; }", -1, nullptr);
  gtk_style_context_add_provider(gtk_widget_get_style_context(text), GTK_STYLE_PROVIDER(css),
                                 GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(css);
  gtk_container_add(GTK_CONTAINER(scroll), text);
  gtk_widget_show(text);
  gtk_widget_set_no_show_all(scroll, TRUE);

  GtkTextBuffer* buffer = gtk_text_view_get_buffer(GTK_TEXT_VIEW(text));
  GtkTextIter end;
  gtk_text_buffer_get_end_iter(buffer, &end);
  gLogEnd = gtk_text_buffer_create_mark(buffer, "log-end", &end, FALSE);
  gLog = GTK_TEXT_VIEW(text);
  gLogScroll = scroll;
  setLogPanelSink(appendToPanel);
  return scroll;
}

void toggleLogPanel() {
  if (!gLogScroll) return;
  bool show = !gtk_widget_get_visible(gLogScroll);
  gtk_widget_set_visible(gLogScroll, show);
  if (show) scrollToEnd();
}

bool logPanelShown() { return gLogScroll && gtk_widget_get_visible(gLogScroll); }
