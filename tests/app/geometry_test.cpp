// Window geometry from -size, -center, -position and -fullscreen on a
// 1280x1024 screen.
#include <gtest/gtest.h>

#include "app/geometry.h"
#include "tests/app/app_test_support.h"

using kvotest::Argv;

namespace {

constexpr int32_t kScreenWidth = 1280;
constexpr int32_t kScreenHeight = 1024;

WindowGeometry Compute(Argv args) {
    return ComputeWindowGeometry(args.argc(), args.argv(), kScreenWidth, kScreenHeight);
}

void ExpectGeometry(const WindowGeometry& g, int32_t width, int32_t height, int32_t x, int32_t y) {
    EXPECT_EQ(width, g.width);
    EXPECT_EQ(height, g.height);
    EXPECT_EQ(x, g.x);
    EXPECT_EQ(y, g.y);
}

TEST(Geometry, DefaultAndPackedSize) {
    ExpectGeometry(Compute({"host"}), 256, 384, 0, 0);
    // Height is the low half minus the title bar's 30 pixels.
    ExpectGeometry(Compute({"host", "-size", "0x01000200"}), 256, 482, 0, 0);
    // -size without a value: both halves 0.
    ExpectGeometry(Compute({"host", "-size"}), 0, 1, 0, 0);
}

TEST(Geometry, SizeBelowTheTitleBarKeepsOnePixel) {
    ExpectGeometry(Compute({"host", "-size", "0x0100001F"}), 256, 1, 0, 0);  // 31 - 30
    ExpectGeometry(Compute({"host", "-size", "0x0100001E"}), 256, 1, 0, 0);  // 30
    ExpectGeometry(Compute({"host", "-size", "0x01000005"}), 256, 1, 0, 0);  // would be -25
}

TEST(Geometry, CenterHalvesTheRoomAndKeepsLargeWindowsOnScreen) {
    ExpectGeometry(Compute({"host", "-center"}), 256, 384, 512, 320);
    ExpectGeometry(ComputeWindowGeometry(2, Argv{"host", "-center"}.argv(), 1281, 1025), 256, 384, 512, 320);
    // Wider than the screen: x goes to 0, y is still centred.
    ExpectGeometry(Compute({"host", "-center", "-size", "0x07D00212"}), 2000, 500, 0, 262);
    // Exactly the screen's size: 0,0, no move.
    ExpectGeometry(Compute({"host", "-center", "-size", "0x0500041E"}), 1280, 1024, 0, 0);
    // -center wins and -position is not looked at.
    ExpectGeometry(Compute({"host", "-position", "0x00640032", "-center"}), 256, 384, 512, 320);
}

TEST(Geometry, PositionIsMeasuredFromEitherEdge) {
    ExpectGeometry(Compute({"host", "-position", "0x00640032"}), 256, 384, 100, 50);
    // Top bits set: distances from the right and bottom edges.
    ExpectGeometry(Compute({"host", "-position", "0x80648032"}), 256, 384, 1280 - 256 - 100, 1024 - 384 - 50);
    ExpectGeometry(Compute({"host", "-size", "0x0200012C", "-position", "0x00008000"}), 512, 270, 0, 1024 - 270);
    ExpectGeometry(Compute({"host", "-position"}), 256, 384, 0, 0);
}

TEST(Geometry, FullscreenOverridesEverything) {
    ExpectGeometry(Compute({"host", "-fullscreen", "-size", "0x01000200", "-position", "0x00640032"}), 1280, 1024, 0,
                   0);
    ExpectGeometry(Compute({"host", "-center", "-fullscreen"}), 1280, 1024, 0, 0);
}

}  // namespace
