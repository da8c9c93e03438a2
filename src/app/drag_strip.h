#pragma once

#include <cstdint>
#include <optional>

// The top 40 pixels of the web view act as a title bar: drag to move the
// window, double-click to maximise or restore, and a plain click still
// reaches the page. This class decides; the view carries out.
class DragStrip {
 public:
  static constexpr double kHeight = 40.0;
  static constexpr double kDragThreshold = 5.0;

  struct ClickSettings {
    uint32_t doubleClickMs = 400;
    double doubleClickDistance = 5.0;
  };

  enum class Press {
    PassThrough,     // not ours: the page handles it
    HoldBack,        // kept until we know whether it is a click or a drag
    ToggleMaximize,  // a double click; neither this press nor its release reaches the page
  };
  enum class Motion { PassThrough, Swallow, StartDrag };
  enum class Release { PassThrough, Swallow, DeliverHeld };

  // Two constructors rather than a `= {}` default argument: GCC cannot use
  // the nested struct's member initialisers before DragStrip is complete.
  DragStrip() = default;
  explicit DragStrip(ClickSettings settings) : settings_(settings) {}

  static bool inStrip(double y) { return y <= kHeight; }

  // Coordinates are the view's, y growing downwards from its top edge.
  Press press(int button, double x, double y, uint32_t timeMs);
  Motion motion(double x, double y);
  Release release();

  bool holding() const { return holding_; }

 private:
  int clickCount(double x, double y, uint32_t timeMs);

  ClickSettings settings_;
  bool holding_ = false;
  double originX_ = 0, originY_ = 0;
  bool swallowedDoubleClickDown_ = false;
  bool stripWasDragged_ = false;
  // Click counting across presses, like the platform's own.
  std::optional<uint32_t> lastPressMs_;
  double lastPressX_ = 0, lastPressY_ = 0;
  int lastCount_ = 0;
};

struct WindowFrame {
  int x = 0, y = 0, width = 0, height = 0;
  bool empty() const { return width == 0 && height == 0 && x == 0 && y == 0; }
  bool operator==(const WindowFrame&) const = default;
};

// Maximise to the work area and back to exactly the remembered frame; not the
// window manager's own maximise.
class MaximizeToggle {
 public:
  // The frame to apply, or nullopt when nothing is to change.
  std::optional<WindowFrame> toggle(const WindowFrame& current, const WindowFrame& workArea);
  bool maximized() const { return !preMaximizeFrame_.empty(); }

 private:
  WindowFrame preMaximizeFrame_;
};
