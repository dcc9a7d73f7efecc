// The window's geometry from -size, -center, -position and -fullscreen.
#pragma once

#include <cstdint>

struct WindowGeometry {
    int32_t width;
    int32_t height;
    int32_t x;  // x and y both 0: no move, the window manager places it
    int32_t y;
};

WindowGeometry ComputeWindowGeometry(int32_t argc, char** argv, int32_t screenWidth, int32_t screenHeight);
