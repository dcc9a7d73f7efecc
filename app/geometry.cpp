#include "app/geometry.h"

#include "app/options.h"

namespace {

constexpr int32_t kDefaultWidth = 256;
constexpr int32_t kDefaultHeight = 384;
// -size counts a title bar of 30 pixels in its height.
constexpr int32_t kTitleBarHeight = 30;

// Half of the room left on one axis.  A window larger than the screen would
// make the unsigned halving land far outside it; it goes to 0 instead, so
// its top-left corner (and title bar) stays on the screen.
int32_t CenteredCoordinate(int32_t screen, int32_t window) {
    if (window > screen) return 0;
    return static_cast<int32_t>(static_cast<uint32_t>(screen - window) >> 1);
}

// One half of a packed position: the top bit measures from the far edge.
int32_t PositionCoordinate(uint32_t half, int32_t screen, int32_t window) {
    int32_t distance = static_cast<int32_t>(half & 0x7FFF);
    if ((half & 0x8000) == 0) return distance;
    return screen - window - distance;
}

}  // namespace

WindowGeometry ComputeWindowGeometry(int32_t argc, char** argv, int32_t screenWidth, int32_t screenHeight) {
    WindowGeometry geometry = {kDefaultWidth, kDefaultHeight, 0, 0};

    uint32_t packed = 0;
    if (FindOptionNumber(argc, argv, "-size", &packed)) {
        geometry.width = static_cast<int32_t>(packed >> 16);
        geometry.height = static_cast<int32_t>(packed & 0xFFFF) - kTitleBarHeight;
        // GTK rejects a negative size and would keep its own default; a
        // height too small for the title bar gets the smallest real window.
        if (geometry.height < 1) geometry.height = 1;
    }

    if (HasOption(argc, argv, "-center")) {
        geometry.x = CenteredCoordinate(screenWidth, geometry.width);
        geometry.y = CenteredCoordinate(screenHeight, geometry.height);
    } else if (FindOptionNumber(argc, argv, "-position", &packed)) {
        geometry.x = PositionCoordinate(packed >> 16, screenWidth, geometry.width);
        geometry.y = PositionCoordinate(packed & 0xFFFF, screenHeight, geometry.height);
    }

    // An ordinary window of the screen's size, not the toolkit's full-screen state.
    if (HasOption(argc, argv, "-fullscreen")) {
        geometry = {screenWidth, screenHeight, 0, 0};
    }
    return geometry;
}
