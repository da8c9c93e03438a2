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
  const std::tuple<double, double, bool> cases[] = {  // the move, whether it drags
      {5, 0, false}, {-5, 5, false}, {0, -5, false}, {6, 0, true}, {0, 6, true}, {-5.5, 0, true}};
  for (const auto& [dx, dy, drags] : cases) {
    SCOPED_TRACE(testing::Message() << dx << "," << dy);
    auto strip = makeStrip();
    ASSERT_EQ(strip.press(kLeft, 100, 20, 0), Press::HoldBack);
    EXPECT_EQ(strip.motion(100 + dx, 20 + dy), drags ? Motion::StartDrag : Motion::Swallow);
    // Once a drag has started the press is gone: later motion is not ours.
    EXPECT_EQ(strip.motion(100 + dx, 20 + dy), drags ? Motion::PassThrough : Motion::Swallow);
    EXPECT_EQ(strip.release(), drags ? Release::PassThrough : Release::DeliverHeld);
    EXPECT_FALSE(strip.holding());
  }
}

TEST(DragStrip, AQuickNearSecondClickTogglesAndSwallowsItsRelease) {
  // Where and when the second press comes after a click at (100, 20) at 1000 ms, whether it toggles.
  const std::tuple<double, uint32_t, bool> cases[] = {{102, 1300, true}, {100, 1401, false}, {106, 1100, false}};
  for (const auto& [x, ms, toggles] : cases) {
    auto strip = makeStrip();
    strip.press(kLeft, 100, 20, 1000);
    strip.release();
    EXPECT_EQ(strip.press(kLeft, x, 22, ms), toggles ? Press::ToggleMaximize : Press::HoldBack) << ms;
    EXPECT_EQ(strip.holding(), !toggles);
    EXPECT_EQ(strip.release(), toggles ? Release::Swallow : Release::DeliverHeld);
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
