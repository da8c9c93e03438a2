#include "app/log_panel_gtk.h"

#include <string>

#include "base/log.h"

namespace {

constexpr int kPanelHeight = 200;

// Lines go into the text view once per frame, and only while the panel is
// shown: a hidden panel costs no layout, and a flood costs one insert per
// frame instead of one per line. The view lays out every line it is given
// (about 40 µs each), so a frame takes at most this many and the rest wait
// for the next: the window stays quick to answer while a flood drains.
constexpr size_t kLinesPerFrame = 400;

void keepNewestLines(GtkTextBuffer* buffer) {
  // The buffer's last line is the empty one after the final line feed.
  const int lines = gtk_text_buffer_get_line_count(buffer) - 1;
  if (lines <= static_cast<int>(kLogPanelMaxLines)) return;
  GtkTextIter start, cut;
  gtk_text_buffer_get_start_iter(buffer, &start);
  gtk_text_buffer_get_iter_at_line(buffer, &cut, lines - static_cast<int>(kLogPanelMaxLines));
  gtk_text_buffer_delete(buffer, &start, &cut);
}

GtkWidget* monospaceTextView() {
  GtkWidget* text = gtk_text_view_new();
  gtk_text_view_set_editable(GTK_TEXT_VIEW(text), FALSE);
  gtk_text_view_set_monospace(GTK_TEXT_VIEW(text), TRUE);
  GtkCssProvider* css = gtk_css_provider_new();
  gtk_css_provider_load_from_data(css, "textview { font-family: monospace; font-size: 11px; }", -1, nullptr);
  gtk_style_context_add_provider(gtk_widget_get_style_context(text), GTK_STYLE_PROVIDER(css),
                                 GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  g_object_unref(css);
  return text;
}

}  // namespace

LogPanel::LogPanel()
    : scroll_(gtk_scrolled_window_new(nullptr, nullptr)), text_(GTK_TEXT_VIEW(monospaceTextView())) {
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scroll_), GTK_POLICY_AUTOMATIC, GTK_POLICY_ALWAYS);
  gtk_scrolled_window_set_shadow_type(GTK_SCROLLED_WINDOW(scroll_), GTK_SHADOW_IN);
  gtk_widget_set_size_request(scroll_, -1, kPanelHeight);
  gtk_container_add(GTK_CONTAINER(scroll_), GTK_WIDGET(text_));
  gtk_widget_show(GTK_WIDGET(text_));
  gtk_widget_set_no_show_all(scroll_, TRUE);

  GtkTextBuffer* buffer = gtk_text_view_get_buffer(text_);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter(buffer, &end);
  end_ = gtk_text_buffer_create_mark(buffer, "log-end", &end, FALSE);
  setLogPanelSink([this] { showAtNextFrame(); });
  setLogPanelWakes(false);
}

void LogPanel::scrollToEnd() { gtk_text_view_scroll_mark_onscreen(text_, end_); }

gboolean LogPanel::showWaitingLines(GtkWidget*, GdkFrameClock*, gpointer self) {
  auto* panel = static_cast<LogPanel*>(self);
  const std::string text = takeLogPanelText(kLinesPerFrame);
  if (text.empty()) {
    panel->frameCallback_ = 0;
    return G_SOURCE_REMOVE;
  }
  GtkTextBuffer* buffer = gtk_text_view_get_buffer(panel->text_);
  GtkTextIter end;
  gtk_text_buffer_get_end_iter(buffer, &end);
  gtk_text_buffer_insert(buffer, &end, text.data(), static_cast<gint>(text.size()));
  keepNewestLines(buffer);
  panel->scrollToEnd();
  return G_SOURCE_CONTINUE;
}

void LogPanel::showAtNextFrame() {
  if (frameCallback_ == 0 && shown())
    frameCallback_ = gtk_widget_add_tick_callback(GTK_WIDGET(text_), showWaitingLines, this, nullptr);
}

void LogPanel::toggle() {
  bool show = !shown();
  gtk_widget_set_visible(scroll_, show);
  setLogPanelWakes(show);
  if (show) {
    scrollToEnd();
    showAtNextFrame();
  } else if (frameCallback_ != 0) {
    gtk_widget_remove_tick_callback(GTK_WIDGET(text_), frameCallback_);
    frameCallback_ = 0;
  }
}
