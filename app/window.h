// The one top-level window around the web view.
#pragma once

#include <cstdint>

#include "app/geometry.h"

typedef struct _GtkWidget GtkWidget;

// Before gtk_init: a Wayland client where a compositor is named
// (WAYLAND_DISPLAY), else an X11 client first; GDK_BACKEND still decides.
void ChooseDisplayBackend();
// The screen's size, which the geometry options refer to, in the desktop's
// logical pixels (as are all sizes and positions given to GTK).
void GetScreenSize(int32_t* width, int32_t* height);
// The work area of the monitor the main window is on (else the primary
// one), in logical pixels; 0 x 0 without a display.
void GetWorkAreaSize(int32_t* width, int32_t* height);
// g_mainWindow with the icon (when not null) as the default icon, the
// title and default size; closing it ends the main loop.
void CreateMainWindow(const char* iconPath, const char* title, const WindowGeometry& geometry);
// Shows it, then places it (unless x and y are both 0), fixes its size
// unless resizing, and keeps it above others when asked.
void ShowMainWindow(const WindowGeometry& geometry, bool resizing, bool keepAbove);
