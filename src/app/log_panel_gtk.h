#pragma once

#include <gtk/gtk.h>

// The hidden panel at the bottom of the main window that shows the log. Lines
// flow into it from creation on; it lives as long as the window.
class LogPanel {
 public:
  LogPanel();
  LogPanel(const LogPanel&) = delete;
  LogPanel& operator=(const LogPanel&) = delete;

  // The scrolled window to pack into the main window.
  GtkWidget* widget() const { return scroll_; }

  void toggle();
  bool shown() const { return gtk_widget_get_visible(scroll_); }

 private:
  static gboolean showWaitingLines(GtkWidget*, GdkFrameClock*, gpointer self);
  void showAtNextFrame();
  void scrollToEnd();

  GtkWidget* scroll_;
  GtkTextView* text_;
  // Follows the end of the text (right gravity), independent of any
  // selection the user makes in the panel.
  GtkTextMark* end_;
  guint frameCallback_ = 0;
};
