#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include "app/drag_strip.h"

// The main web view. Its top strip moves the window (there is no title bar),
// and its outer edges resize it (there is no window-manager frame).
class DraggableWebView {
 public:
  explicit DraggableWebView(WebKitUserContentManager* content);
  ~DraggableWebView();
  DraggableWebView(const DraggableWebView&) = delete;
  DraggableWebView& operator=(const DraggableWebView&) = delete;

  WebKitWebView* view() const { return view_; }
  GtkWidget* widget() const { return GTK_WIDGET(view_); }

  void toggleMaximizeWindow();

 private:
  static gboolean onPress(GtkWidget* widget, GdkEventButton* event, gpointer self);
  static gboolean onRelease(GtkWidget* widget, GdkEventButton* event, gpointer self);
  static gboolean onMotion(GtkWidget* widget, GdkEventMotion* event, gpointer self);

  GtkWindow* window() const;
  bool startEdgeResize(GdkEventButton* event);
  void deliver(GdkEvent* event);
  void dropPending();

  WebKitWebView* view_;
  DragStrip strip_;
  MaximizeToggle maximize_;
  GdkEvent* pendingStripDown_ = nullptr;
  bool redelivering_ = false;
  bool edgeCursorShown_ = false;
};
