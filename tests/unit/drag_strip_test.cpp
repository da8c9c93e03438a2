#include "app/drag_strip.h"

#include <gtest/gtest.h>

namespace {

using Press = DragStrip::Press;
using Motion = DragStrip::Motion;
using Release = DragStrip::Release;
constexpr int kLeft = 1, kRight = 3;

DragStrip makeStrip() { return DragStrip({/*doubleClickMs=*/400, /*doubleClickDistance=*/5.0}); }

TEST(DragStrip, StripIsTheTopFortyPixels) {
  EXPECT_TRUE(DragStrip::inStrip(0));
  EXPECT_TRUE(DragStrip::inStrip(40));
  EXPECT_FALSE(DragStrip::inStrip(40.5));
  EXPECT_FALSE(DragStrip::inStrip(41));

  auto strip = makeStrip();
  EXPECT_EQ(strip.press(kLeft, 100, 40, 0), Press::HoldBack);
  EXPECT_EQ(strip.release(), Release::DeliverHeld);
  EXPECT_EQ(strip.press(kLeft, 100, 41, 1000), Press::PassThrough);
  EXPECT_EQ(strip.motion(200, 200), Motion::PassThrough);
  EXPECT_EQ(strip.release(), Release::PassThrough);
}

TEST(DragStrip, SmallMovesStayAClickLargerMovesDrag) {
  struct Case {
    double dx, dy;
    Motion motion;
    Release release;
  };
  const Case cases[] = {
      {5, 0, Motion::Swallow, Release::DeliverHeld},    {-5, 5, Motion::Swallow, Release::DeliverHeld},
      {0, -5, Motion::Swallow, Release::DeliverHeld},   {6, 0, Motion::StartDrag, Release::PassThrough},
      {0, 6, Motion::StartDrag, Release::PassThrough},  {-5.5, 0, Motion::StartDrag, Release::PassThrough},
  };
  for (const auto& c : cases) {
    auto strip = makeStrip();
    ASSERT_EQ(strip.press(kLeft, 100, 20, 0), Press::HoldBack);
    EXPECT_EQ(strip.motion(100 + c.dx, 20 + c.dy), c.motion) << c.dx << "," << c.dy;
    // Once a drag has started the press is gone: later motion is not ours.
    EXPECT_EQ(strip.motion(100 + c.dx, 20 + c.dy), c.motion == Motion::StartDrag ? Motion::PassThrough : Motion::Swallow);
    EXPECT_EQ(strip.release(), c.release) << c.dx << "," << c.dy;
    EXPECT_FALSE(strip.holding());
  }
}

TEST(DragStrip, DoubleClickTogglesAndSwallowsItsRelease) {
  auto strip = makeStrip();
  EXPECT_EQ(strip.press(kLeft, 100, 20, 1000), Press::HoldBack);
  EXPECT_EQ(strip.release(), Release::DeliverHeld);
  EXPECT_EQ(strip.press(kLeft, 102, 22, 1300), Press::ToggleMaximize);
  EXPECT_FALSE(strip.holding());
  EXPECT_EQ(strip.motion(150, 20), Motion::PassThrough);
  EXPECT_EQ(strip.release(), Release::Swallow);
  EXPECT_EQ(strip.release(), Release::PassThrough);
}

TEST(DragStrip, SecondClickAfterADragIsHeldBackNotToggled) {
  auto strip = makeStrip();
  EXPECT_EQ(strip.press(kLeft, 100, 20, 1000), Press::HoldBack);
  EXPECT_EQ(strip.motion(120, 20), Motion::StartDrag);
  EXPECT_EQ(strip.release(), Release::PassThrough);
  EXPECT_EQ(strip.press(kLeft, 100, 20, 1200), Press::HoldBack);
  EXPECT_EQ(strip.release(), Release::DeliverHeld);
  // That press did not drag, so the next quick press toggles again.
  EXPECT_EQ(strip.press(kLeft, 100, 20, 1400), Press::ToggleMaximize);
  EXPECT_EQ(strip.release(), Release::Swallow);
}

TEST(DragStrip, SlowOrDistantSecondClickIsASingleClick) {
  struct Case {
    double x;
    uint32_t ms;
  };
  for (const auto& c : {Case{100, 1401}, Case{100, 3000}, Case{106, 1100}}) {
    auto strip = makeStrip();
    EXPECT_EQ(strip.press(kLeft, 100, 20, 1000), Press::HoldBack);
    EXPECT_EQ(strip.release(), Release::DeliverHeld);
    EXPECT_EQ(strip.press(kLeft, c.x, 20, c.ms), Press::HoldBack) << c.x << " @" << c.ms;
    EXPECT_EQ(strip.release(), Release::DeliverHeld);
  }
}

TEST(DragStrip, OtherButtonsPassThrough) {
  auto strip = makeStrip();
  EXPECT_EQ(strip.press(kRight, 100, 20, 1000), Press::PassThrough);
  EXPECT_FALSE(strip.holding());
  EXPECT_EQ(strip.motion(150, 20), Motion::PassThrough);
  EXPECT_EQ(strip.release(), Release::PassThrough);
  EXPECT_EQ(strip.press(2, 100, 20, 1100), Press::PassThrough);
  EXPECT_EQ(strip.release(), Release::PassThrough);
}

TEST(MaximizeToggle, MaximiseAndRestoreExactFrame) {
  const WindowFrame work{0, 32, 1920, 1048};
  const WindowFrame frame{100, 120, 1260, 900};
  MaximizeToggle toggle;
  EXPECT_EQ(toggle.toggle(frame, work), work);
  EXPECT_TRUE(toggle.maximized());
  // A hand resize in between does not forget the remembered frame.
  EXPECT_EQ(toggle.toggle(WindowFrame{5, 5, 800, 600}, work), frame);
  EXPECT_FALSE(toggle.maximized());
  EXPECT_EQ(toggle.toggle(frame, work), work);
}

TEST(MaximizeToggle, WindowAlreadyFillingWorkAreaStaysPut) {
  const WindowFrame work{0, 32, 1920, 1048};
  MaximizeToggle toggle;
  EXPECT_EQ(toggle.toggle(work, work), std::nullopt);
  EXPECT_FALSE(toggle.maximized());
  EXPECT_EQ(toggle.toggle(work, work), std::nullopt);
  EXPECT_FALSE(toggle.maximized());
}

}  // namespace
