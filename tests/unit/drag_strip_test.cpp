#include "app/drag_strip.h"

#include <gtest/gtest.h>

#include <tuple>

namespace {

using Press = DragStrip::Press;
using Motion = DragStrip::Motion;
using Release = DragStrip::Release;
constexpr int kLeft = 1;

DragStrip makeStrip() { return DragStrip({/*doubleClickMs=*/400, /*doubleClickDistance=*/5.0}); }

TEST(DragStrip, OnlyLeftPressesInTheTopFortyPixelsAreHeldBack) {
  for (const auto& [button, y, held] : {std::tuple{kLeft, 40.0, true}, {kLeft, 40.5, false}, {3, 20.0, false}}) {
    auto strip = makeStrip();
    EXPECT_EQ(strip.press(button, 100, y, 0), held ? Press::HoldBack : Press::PassThrough) << button << " @" << y;
    EXPECT_EQ(strip.holding(), held);
    EXPECT_EQ(strip.release(), held ? Release::DeliverHeld : Release::PassThrough);
  }
}

TEST(DragStrip, SmallMovesStayAClickLargerMovesDrag) {
  const struct {
    double dx, dy;
    bool drags;
  } cases[] = {{5, 0, false}, {-5, 5, false}, {0, -5, false}, {6, 0, true}, {0, 6, true}, {-5.5, 0, true}};
  for (const auto& c : cases) {
    auto strip = makeStrip();
    ASSERT_EQ(strip.press(kLeft, 100, 20, 0), Press::HoldBack);
    const Motion first = strip.motion(100 + c.dx, 20 + c.dy);
    EXPECT_EQ(first, c.drags ? Motion::StartDrag : Motion::Swallow) << c.dx << "," << c.dy;
    // Once a drag has started the press is gone: later motion is not ours.
    EXPECT_EQ(strip.motion(100 + c.dx, 20 + c.dy), c.drags ? Motion::PassThrough : Motion::Swallow);
    EXPECT_EQ(strip.release(), c.drags ? Release::PassThrough : Release::DeliverHeld) << c.dx << "," << c.dy;
    EXPECT_FALSE(strip.holding());
  }
}

TEST(DragStrip, AQuickNearSecondClickTogglesAndSwallowsItsRelease) {
  // Second press after a click at (100, 20) at 1000 ms.
  const struct {
    double x;
    uint32_t ms;
    bool toggles;
  } cases[] = {{102, 1300, true}, {100, 1401, false}, {106, 1100, false}};
  for (const auto& c : cases) {
    auto strip = makeStrip();
    strip.press(kLeft, 100, 20, 1000);
    strip.release();
    EXPECT_EQ(strip.press(kLeft, c.x, 22, c.ms), c.toggles ? Press::ToggleMaximize : Press::HoldBack) << c.ms;
    EXPECT_EQ(strip.holding(), !c.toggles);
    EXPECT_EQ(strip.release(), c.toggles ? Release::Swallow : Release::DeliverHeld);
    EXPECT_EQ(strip.release(), Release::PassThrough);
  }
  // A quick press after a drag is a first click: the one after it toggles.
  auto strip = makeStrip();
  strip.press(kLeft, 100, 20, 1000);
  strip.motion(120, 20);
  strip.release();
  EXPECT_EQ(strip.press(kLeft, 100, 20, 1200), Press::HoldBack);
  strip.release();
  EXPECT_EQ(strip.press(kLeft, 100, 20, 1400), Press::ToggleMaximize);
}

TEST(MaximizeToggle, MaximiseAndRestoreTheExactFrame) {
  const WindowFrame work{0, 32, 1920, 1048}, frame{100, 120, 1260, 900};
  MaximizeToggle toggle;
  EXPECT_EQ(toggle.toggle(frame, work), work);
  EXPECT_TRUE(toggle.maximized());
  // A hand resize in between does not forget the remembered frame.
  EXPECT_EQ(toggle.toggle(WindowFrame{5, 5, 800, 600}, work), frame);
  EXPECT_FALSE(toggle.maximized());
  // A window already filling the work area stays put.
  MaximizeToggle full;
  EXPECT_EQ(full.toggle(work, work), std::nullopt);
  EXPECT_FALSE(full.maximized());
}

}  // namespace
