#include "app/window.h"

#include <gtk/gtk.h>

#include "app/developer.h"
#include "app/host_state.h"

namespace {

void OnDestroy(GtkWidget*, gpointer) { gtk_main_quit(); }

}  // namespace

void GetScreenSize(int32_t* width, int32_t* height) {
    // The options mean the X screen, not a monitor: the screen calls are
    // deprecated in GTK 3 but still say exactly that.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    *width = gdk_screen_width();
    *height = gdk_screen_height();
    G_GNUC_END_IGNORE_DEPRECATIONS
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
