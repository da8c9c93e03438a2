#include "app/draggable_web_view_gtk.h"

#include <optional>

#ifdef GDK_WINDOWING_WAYLAND
#include <gdk/gdkwayland.h>
#endif

#include "webview/website_data_gtk.h"

namespace {

// Width of the band along the window's outer edges that resizes it.
constexpr double kResizeBand = 4.0;

DragStrip::ClickSettings platformClickSettings() {
  gint time = 400, distance = 5;
  g_object_get(gtk_settings_get_default(), "gtk-double-click-time", &time, "gtk-double-click-distance", &distance,
               nullptr);
  return {static_cast<uint32_t>(time), static_cast<double>(distance)};
}

std::optional<GdkWindowEdge> edgeAt(GtkWidget* widget, double x, double y, bool maximizedOrFullscreen) {
  if (maximizedOrFullscreen) return std::nullopt;
  double w = gtk_widget_get_allocated_width(widget), h = gtk_widget_get_allocated_height(widget);
  bool left = x < kResizeBand, right = x >= w - kResizeBand, top = y < kResizeBand, bottom = y >= h - kResizeBand;
  if (top && left) return GDK_WINDOW_EDGE_NORTH_WEST;
  if (top && right) return GDK_WINDOW_EDGE_NORTH_EAST;
  if (bottom && left) return GDK_WINDOW_EDGE_SOUTH_WEST;
  if (bottom && right) return GDK_WINDOW_EDGE_SOUTH_EAST;
  if (top) return GDK_WINDOW_EDGE_NORTH;
  if (bottom) return GDK_WINDOW_EDGE_SOUTH;
  if (left) return GDK_WINDOW_EDGE_WEST;
  if (right) return GDK_WINDOW_EDGE_EAST;
  return std::nullopt;
}

const char* cursorNameFor(GdkWindowEdge edge) {
  switch (edge) {
    case GDK_WINDOW_EDGE_NORTH_WEST: return "nw-resize";
    case GDK_WINDOW_EDGE_NORTH_EAST: return "ne-resize";
    case GDK_WINDOW_EDGE_SOUTH_WEST: return "sw-resize";
    case GDK_WINDOW_EDGE_SOUTH_EAST: return "se-resize";
    case GDK_WINDOW_EDGE_NORTH: return "n-resize";
    case GDK_WINDOW_EDGE_SOUTH: return "s-resize";
    case GDK_WINDOW_EDGE_WEST: return "w-resize";
    default: return "e-resize";
  }
}

// On Wayland a client cannot place its windows: the compositor maximises and
// restores, each in its own way. Elsewhere (X11) the window is set to the
// monitor's work area and back to exactly the frame it had.
bool compositorPlacesWindows(GdkDisplay* display) {
#ifdef GDK_WINDOWING_WAYLAND
  if (GDK_IS_WAYLAND_DISPLAY(display)) return true;
#endif
  return false;
}

bool windowIsFilling(GtkWindow* window) {
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(window));
  if (!gdk) return false;
  auto state = gdk_window_get_state(gdk);
  return state & (GDK_WINDOW_STATE_FULLSCREEN | GDK_WINDOW_STATE_MAXIMIZED);
}

}  // namespace

DraggableWebView::DraggableWebView(WebKitUserContentManager* content) : strip_(platformClickSettings()) {
  WebKitWebContext* context = ondrelPersistentWebContext();
  view_ = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context, "user-content-manager",
                                       content, nullptr));
  g_object_unref(context);
  g_object_ref_sink(view_);
  gtk_widget_add_events(widget(), GDK_BUTTON_PRESS_MASK | GDK_BUTTON_RELEASE_MASK | GDK_POINTER_MOTION_MASK);
  // Connected handlers run before WebKit's own class handlers, which is what
  // lets a press be held back from the page.
  g_signal_connect(view_, "button-press-event", G_CALLBACK(onPress), this);
  g_signal_connect(view_, "button-release-event", G_CALLBACK(onRelease), this);
  g_signal_connect(view_, "motion-notify-event", G_CALLBACK(onMotion), this);
}

DraggableWebView::~DraggableWebView() {
  dropPending();
  g_object_unref(view_);
}

GtkWindow* DraggableWebView::window() const {
  GtkWidget* toplevel = gtk_widget_get_toplevel(widget());
  return GTK_IS_WINDOW(toplevel) ? GTK_WINDOW(toplevel) : nullptr;
}

void DraggableWebView::dropPending() {
  if (pendingStripDown_) gdk_event_free(pendingStripDown_);
  pendingStripDown_ = nullptr;
}

void DraggableWebView::deliver(GdkEvent* event) {
  redelivering_ = true;
  gtk_widget_event(widget(), event);
  redelivering_ = false;
}

bool DraggableWebView::startEdgeResize(GdkEventButton* event) {
  GtkWindow* win = window();
  if (!win || event->button != 1 || event->type != GDK_BUTTON_PRESS) return false;
  auto edge = edgeAt(widget(), event->x, event->y, windowIsFilling(win));
  if (!edge) return false;
  gtk_window_begin_resize_drag(win, *edge, event->button, static_cast<gint>(event->x_root),
                               static_cast<gint>(event->y_root), event->time);
  return true;
}

gboolean DraggableWebView::onPress(GtkWidget*, GdkEventButton* event, gpointer data) {
  auto* self = static_cast<DraggableWebView*>(data);
  if (self->redelivering_) return FALSE;
  if (self->startEdgeResize(event)) return TRUE;
  if (event->type != GDK_BUTTON_PRESS) {
    // The platform's own double/triple-click events: in the strip the plain
    // presses already decided everything.
    return event->button == 1 && DragStrip::inStrip(event->y);
  }
  switch (self->strip_.press(static_cast<int>(event->button), event->x, event->y, event->time)) {
    case DragStrip::Press::PassThrough:
      return FALSE;
    case DragStrip::Press::ToggleMaximize:
      self->dropPending();
      self->toggleMaximizeWindow();
      return TRUE;
    case DragStrip::Press::HoldBack:
      self->dropPending();
      self->pendingStripDown_ = gdk_event_copy(reinterpret_cast<GdkEvent*>(event));
      return TRUE;
  }
  return FALSE;
}

gboolean DraggableWebView::onMotion(GtkWidget*, GdkEventMotion* event, gpointer data) {
  auto* self = static_cast<DraggableWebView*>(data);
  if (self->redelivering_) return FALSE;
  GtkWindow* win = self->window();
  if (!self->strip_.holding() && win && !(event->state & (GDK_BUTTON1_MASK | GDK_BUTTON2_MASK | GDK_BUTTON3_MASK))) {
    // Resize cursor along the edges; the page's cursor everywhere else.
    GdkWindow* gdk = gtk_widget_get_window(self->widget());
    auto edge = edgeAt(self->widget(), event->x, event->y, windowIsFilling(win));
    if (edge) {
      GdkCursor* cursor = gdk_cursor_new_from_name(gdk_window_get_display(gdk), cursorNameFor(*edge));
      gdk_window_set_cursor(gdk, cursor);
      if (cursor) g_object_unref(cursor);
      self->edgeCursorShown_ = true;
      return TRUE;
    }
    if (self->edgeCursorShown_) {
      gdk_window_set_cursor(gdk, nullptr);
      self->edgeCursorShown_ = false;
    }
  }
  switch (self->strip_.motion(event->x, event->y)) {
    case DragStrip::Motion::PassThrough:
      return FALSE;
    case DragStrip::Motion::Swallow:
      return TRUE;
    case DragStrip::Motion::StartDrag: {
      GdkEvent* down = self->pendingStripDown_;
      self->pendingStripDown_ = nullptr;
      if (win && down) {
        gtk_window_begin_move_drag(win, static_cast<gint>(down->button.button), static_cast<gint>(down->button.x_root),
                                   static_cast<gint>(down->button.y_root), down->button.time);
      }
      if (down) gdk_event_free(down);
      return TRUE;
    }
  }
  return FALSE;
}

gboolean DraggableWebView::onRelease(GtkWidget*, GdkEventButton* event, gpointer data) {
  auto* self = static_cast<DraggableWebView*>(data);
  if (self->redelivering_) return FALSE;
  switch (self->strip_.release()) {
    case DragStrip::Release::PassThrough:
      return FALSE;
    case DragStrip::Release::Swallow:
      return TRUE;
    case DragStrip::Release::DeliverHeld: {
      // The page gets the click late but whole: the press, then this release.
      GdkEvent* down = self->pendingStripDown_;
      self->pendingStripDown_ = nullptr;
      if (down) {
        self->deliver(down);
        gdk_event_free(down);
      }
      self->deliver(reinterpret_cast<GdkEvent*>(event));
      return TRUE;
    }
  }
  return FALSE;
}

void DraggableWebView::toggleMaximizeWindow() {
  GtkWindow* win = window();
  if (!win) return;
  GdkWindow* gdk = gtk_widget_get_window(GTK_WIDGET(win));
  if (!gdk) return;
  if (compositorPlacesWindows(gdk_window_get_display(gdk))) {
    if (gdk_window_get_state(gdk) & GDK_WINDOW_STATE_MAXIMIZED) {
      gtk_window_unmaximize(win);
    } else {
      gtk_window_maximize(win);
    }
    return;
  }
  GdkMonitor* monitor = gdk_display_get_monitor_at_window(gdk_window_get_display(gdk), gdk);
  if (!monitor) monitor = gdk_display_get_primary_monitor(gdk_window_get_display(gdk));
  if (!monitor) return;

  GdkRectangle area;
  gdk_monitor_get_workarea(monitor, &area);
  WindowFrame current;
  gtk_window_get_position(win, &current.x, &current.y);
  gtk_window_get_size(win, &current.width, &current.height);
  auto target = maximize_.toggle(current, {area.x, area.y, area.width, area.height});
  if (!target) return;
  gtk_window_move(win, target->x, target->y);
  gtk_window_resize(win, target->width, target->height);
}
