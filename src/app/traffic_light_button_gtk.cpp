#include "app/traffic_light_button_gtk.h"

namespace {
constexpr int kSize = 20;
constexpr double kInset = 3.0;
constexpr double kInactiveAlpha = 0.55;
}  // namespace

TrafficLightButton::TrafficLightButton(Rgba color, int kind, const std::string& title, std::function<void()> action)
    : area_(gtk_drawing_area_new()), color_(color), kind_(kind), action_(std::move(action)) {
  gtk_widget_set_size_request(area_, kSize, kSize);
  gtk_widget_set_tooltip_text(area_, title.c_str());
  gtk_widget_add_events(area_, GDK_ENTER_NOTIFY_MASK | GDK_LEAVE_NOTIFY_MASK | GDK_BUTTON_PRESS_MASK |
                                   GDK_BUTTON_RELEASE_MASK);
  g_signal_connect(area_, "draw", G_CALLBACK(onDraw), this);
  g_signal_connect(area_, "enter-notify-event", G_CALLBACK(onCrossing), this);
  g_signal_connect(area_, "leave-notify-event", G_CALLBACK(onCrossing), this);
  g_signal_connect(area_, "button-press-event", G_CALLBACK(onPress), this);
  g_signal_connect(area_, "button-release-event", G_CALLBACK(onRelease), this);
}

void TrafficLightButton::redraw() {
  // The button is see-through, and the web view under it only repaints
  // correctly as a whole: a redraw of the button alone leaves the window's
  // background fill around the circle. Hover and tint changes are rare, so
  // the whole window is redrawn (GTK folds the requests into one frame).
  gtk_widget_queue_draw(gtk_widget_get_toplevel(area_));
}

gboolean TrafficLightButton::onDraw(GtkWidget*, cairo_t* cr, gpointer self) {
  static_cast<TrafficLightButton*>(self)->draw(cr);
  return TRUE;
}

gboolean TrafficLightButton::onCrossing(GtkWidget*, GdkEventCrossing* event, gpointer self) {
  auto* button = static_cast<TrafficLightButton*>(self);
  // Crossings into a child or out of a grab are not the pointer leaving.
  if (event->detail == GDK_NOTIFY_INFERIOR) return FALSE;
  button->hovered_ = event->type == GDK_ENTER_NOTIFY;
  button->redraw();
  return FALSE;
}

gboolean TrafficLightButton::onPress(GtkWidget*, GdkEventButton*, gpointer) {
  // Claimed so the press never reaches the page underneath.
  return TRUE;
}

gboolean TrafficLightButton::onRelease(GtkWidget*, GdkEventButton* event, gpointer self) {
  auto* button = static_cast<TrafficLightButton*>(self);
  if (event->button == 1 && button->action_) button->action_();
  return TRUE;
}

void TrafficLightButton::draw(cairo_t* cr) {
  GtkWidget* toplevel = gtk_widget_get_toplevel(area_);
  bool active = GTK_IS_WINDOW(toplevel) && gtk_window_is_active(GTK_WINDOW(toplevel));
  const double cx = kSize / 2.0, cy = kSize / 2.0, radius = kSize / 2.0 - kInset;

  auto circle = [&] {
    cairo_new_path(cr);
    cairo_arc(cr, cx, cy, radius, 0, 2 * G_PI);
  };
  circle();
  cairo_set_source_rgba(cr, color_.r, color_.g, color_.b, active ? color_.a : kInactiveAlpha);
  cairo_fill(cr);

  if (hovered_) {
    // Always from the full colour, also in an inactive window.
    cairo_set_source_rgb(cr, color_.r * 0.5, color_.g * 0.5, color_.b * 0.5);
    cairo_new_path(cr);
    switch (kind_) {
      case Close:
        cairo_set_line_width(cr, 1.8);
        cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
        cairo_move_to(cr, cx - 3, cy - 3);
        cairo_line_to(cr, cx + 3, cy + 3);
        cairo_move_to(cr, cx - 3, cy + 3);
        cairo_line_to(cr, cx + 3, cy - 3);
        cairo_stroke(cr);
        break;
      case Minimize:
        cairo_set_line_width(cr, 1.8);
        cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
        cairo_move_to(cr, cx - 3, cy);
        cairo_line_to(cr, cx + 3, cy);
        cairo_stroke(cr);
        break;
      case Fullscreen:
        // y grows downwards here: upper-left triangle, then its mirror.
        cairo_move_to(cr, cx - 3, cy - 3);
        cairo_line_to(cr, cx - 3, cy - 3 + 4.2);
        cairo_line_to(cr, cx - 3 + 4.2, cy - 3);
        cairo_close_path(cr);
        cairo_move_to(cr, cx + 3, cy + 3);
        cairo_line_to(cr, cx + 3, cy + 3 - 4.2);
        cairo_line_to(cr, cx + 3 - 4.2, cy + 3);
        cairo_close_path(cr);
        cairo_fill(cr);
        break;
      default:
        break;
    }
  }

  if (scrim_) {
    circle();
    cairo_set_source_rgba(cr, scrim_->r, scrim_->g, scrim_->b, scrim_->a);
    cairo_fill(cr);
  }
}
