#include "app/drag_strip.h"

#include <cmath>

int DragStrip::clickCount(double x, double y, uint32_t timeMs) {
  bool continues = lastPressMs_ && timeMs - *lastPressMs_ <= settings_.doubleClickMs &&
                   std::fabs(x - lastPressX_) <= settings_.doubleClickDistance &&
                   std::fabs(y - lastPressY_) <= settings_.doubleClickDistance;
  lastCount_ = continues ? lastCount_ + 1 : 1;
  lastPressMs_ = timeMs;
  lastPressX_ = x;
  lastPressY_ = y;
  return lastCount_;
}

DragStrip::Press DragStrip::press(int button, double x, double y, uint32_t timeMs) {
  if (button != 1) return Press::PassThrough;
  int count = clickCount(x, y, timeMs);
  if (!inStrip(y)) return Press::PassThrough;

  bool previousDragged = stripWasDragged_;
  stripWasDragged_ = false;
  if (count >= 2 && !previousDragged) {
    swallowedDoubleClickDown_ = true;
    holding_ = false;
    return Press::ToggleMaximize;
  }
  holding_ = true;
  originX_ = x;
  originY_ = y;
  return Press::HoldBack;
}

DragStrip::Motion DragStrip::motion(double x, double y) {
  if (!holding_) return Motion::PassThrough;
  if (std::fabs(x - originX_) <= kDragThreshold && std::fabs(y - originY_) <= kDragThreshold) {
    return Motion::Swallow;
  }
  holding_ = false;
  stripWasDragged_ = true;
  return Motion::StartDrag;
}

DragStrip::Release DragStrip::release() {
  if (swallowedDoubleClickDown_) {
    swallowedDoubleClickDown_ = false;
    return Release::Swallow;
  }
  if (holding_) {
    holding_ = false;
    return Release::DeliverHeld;
  }
  return Release::PassThrough;
}

std::optional<WindowFrame> MaximizeToggle::toggle(const WindowFrame& current, const WindowFrame& workArea) {
  if (preMaximizeFrame_.empty()) {
    if (current == workArea) return std::nullopt;
    preMaximizeFrame_ = current;
    return workArea;
  }
  WindowFrame target = preMaximizeFrame_;
  preMaximizeFrame_ = {};
  return target;
}
