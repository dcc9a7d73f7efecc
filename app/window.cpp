#include "app/window.h"

#include <gtk/gtk.h>

#include <cstdlib>
#include <cstring>

#include "app/developer.h"
#include "app/host_state.h"

namespace {

void OnDestroy(GtkWidget*, gpointer) { gtk_main_quit(); }

}  // namespace

void ChooseDisplayBackend() {
    // On a Wayland session WebKit then binds the compositor's socket into the
    // web process's sandbox and not the X11 one, through which code in that
    // process could read other clients' keystrokes and type into them
    // (XTEST).  The compositor places the window there: -position, -center
    // and -system are X11 notions that Wayland gives no client.
    const char* wayland = getenv("WAYLAND_DISPLAY");
    // WebKit gives the sandbox $XDG_RUNTIME_DIR/$WAYLAND_DISPLAY, so a
    // socket there named by its path is named by its file name instead; one
    // elsewhere would leave the web process without a display (the host
    // then dies with it), and X11 comes first.
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    size_t length = runtime ? strlen(runtime) : 0;
    char name[256];  // a copy: setenv replaces the text that wayland points into
    if (wayland && length > 0 && strncmp(wayland, runtime, length) == 0 && wayland[length] == '/' &&
        !strchr(wayland + length + 1, '/') && strlen(wayland + length + 1) < sizeof name) {
        strcpy(name, wayland + length + 1);
        setenv("WAYLAND_DISPLAY", name, 1);
        wayland = getenv("WAYLAND_DISPLAY");
    }
    bool named = wayland && *wayland && !strchr(wayland, '/');
    gdk_set_allowed_backends(named ? "wayland,*" : "x11,*");
}

void GetScreenSize(int32_t* width, int32_t* height) {
    // The options mean the screen, not a monitor: the screen calls are
    // deprecated in GTK 3 but still say exactly that, already divided by
    // the scale (GDK_SCALE) like every size GTK is given.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    *width = gdk_screen_width();
    *height = gdk_screen_height();
    G_GNUC_END_IGNORE_DEPRECATIONS
}

void GetWorkAreaSize(int32_t* width, int32_t* height) {
    *width = *height = 0;
    GdkDisplay* display = gdk_display_get_default();
    if (!display) return;
    GdkWindow* window = g_mainWindow ? gtk_widget_get_window(g_mainWindow) : nullptr;
    GdkMonitor* monitor = window ? gdk_display_get_monitor_at_window(display, window) : nullptr;
    if (!monitor) monitor = gdk_display_get_primary_monitor(display);
    if (!monitor) monitor = gdk_display_get_monitor(display, 0);
    if (!monitor) return;
    GdkRectangle area;
    gdk_monitor_get_workarea(monitor, &area);
    *width = area.width;
    *height = area.height;
}

void CreateMainWindow(const char* iconPath, const char* title, const WindowGeometry& geometry) {
    if (iconPath) gtk_window_set_default_icon_from_file(iconPath, nullptr);
    g_mainWindow = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_title(GTK_WINDOW(g_mainWindow), title);
    gtk_window_set_default_size(GTK_WINDOW(g_mainWindow), geometry.width, geometry.height);
    g_signal_connect(g_mainWindow, "destroy", G_CALLBACK(OnDestroy), nullptr);
    ConnectDeveloperKeys(g_mainWindow);
}

void ShowMainWindow(const WindowGeometry& geometry, bool resizing, bool keepAbove) {
    gtk_widget_show_all(g_mainWindow);
    if (geometry.x != 0 || geometry.y != 0) gtk_window_move(GTK_WINDOW(g_mainWindow), geometry.x, geometry.y);
    if (!resizing) {
        gtk_widget_set_size_request(g_webView, geometry.width, geometry.height);
        gtk_window_set_resizable(GTK_WINDOW(g_mainWindow), FALSE);
    }
    if (keepAbove) gtk_window_set_keep_above(GTK_WINDOW(g_mainWindow), TRUE);
}
