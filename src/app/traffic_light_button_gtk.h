#pragma once

#include <gtk/gtk.h>

#include <functional>
#include <optional>
#include <string>

struct Rgba {
  double r = 0, g = 0, b = 0, a = 1;
};

// A small drawn round window button (close, minimise, full screen) that
// floats over the web view in place of window-manager decorations.
class TrafficLightButton {
 public:
  enum Kind { Close = 0, Minimize = 1, Fullscreen = 2 };

  TrafficLightButton(Rgba color, int kind, const std::string& title, std::function<void()> action);
  TrafficLightButton(const TrafficLightButton&) = delete;
  TrafficLightButton& operator=(const TrafficLightButton&) = delete;

  GtkWidget* widget() const { return area_; }

  const std::optional<Rgba>& scrim() const { return scrim_; }
  // Does not redraw by itself: callers redraw all buttons at once.
  void setScrim(std::optional<Rgba> scrim) { scrim_ = scrim; }
  void redraw();

 private:
  static gboolean onDraw(GtkWidget* widget, cairo_t* cr, gpointer self);
  static gboolean onCrossing(GtkWidget* widget, GdkEventCrossing* event, gpointer self);
  static gboolean onRelease(GtkWidget* widget, GdkEventButton* event, gpointer self);
  static gboolean onPress(GtkWidget* widget, GdkEventButton* event, gpointer self);
  void draw(cairo_t* cr);

  GtkWidget* area_;
  Rgba color_;
  int kind_;
  std::function<void()> action_;
  bool hovered_ = false;
  std::optional<Rgba> scrim_;
};
