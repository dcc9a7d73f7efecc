// The one top-level window around the web view.
#pragma once

#include <cstdint>

#include "app/geometry.h"

typedef struct _GtkWidget GtkWidget;

// The X screen's size, which the geometry options refer to.
void GetScreenSize(int32_t* width, int32_t* height);
// g_mainWindow with the icon (when not null) as the default icon, the
// title and default size; closing it ends the main loop.
void CreateMainWindow(const char* iconPath, const char* title, const WindowGeometry& geometry);
// Shows it, then places it (unless x and y are both 0), fixes its size
// unless resizing, and keeps it above others when asked.
void ShowMainWindow(const WindowGeometry& geometry, bool resizing, bool keepAbove);
