#include "app/app_commands.h"

#include <gtk/gtk.h>
#include <strings.h>
#include <webkit2/webkit2.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "app/host_state.h"
#include "app/launch.h"
#include "app/options.h"
#include "app/window.h"

char* g_exitResult = nullptr;
char* g_exitSuccessText = nullptr;

namespace {

void ReplaceText(char** slot, const char* text) {
    delete[] * slot;
    *slot = text ? CopyText(text, strlen(text)) : nullptr;
}

void Resize(const char* arg2, double arg2Number) {
    uint32_t packed = arg2 ? ParseNumber(arg2) : PackedSizeFromNumber(arg2Number);
    // A page gets at most the work area of the window's monitor, in logical
    // pixels like the size itself: a larger window only costs the display
    // server memory (0x7FFF7FFF grew an X server by 4 GB and cost the web
    // process its life), and beyond 32767 device pixels it ends the host
    // in an X error.
    int32_t areaWidth = 0, areaHeight = 0;
    GetWorkAreaSize(&areaWidth, &areaHeight);
    int width = std::min(static_cast<int>(packed >> 16), areaWidth);
    int height = std::min(static_cast<int>(packed & 0xFFFF), areaHeight);
    if (g_webView) gtk_widget_set_size_request(g_webView, width, height);
    // GTK refuses a zero-sized window resize with a warning; the request
    // above still goes through, the window keeps its size.
    if (g_mainWindow && width > 0 && height > 0) {
        // GTK 3 never makes a window that is not resizable smaller than its
        // default size; moving that floor along lets a page shrink it too.
        gtk_window_set_default_size(GTK_WINDOW(g_mainWindow), width, height);
        gtk_window_resize(GTK_WINDOW(g_mainWindow), width, height);
    }
}

guint g_exitBound = 0;

gboolean OnExitBound(gpointer) {
    g_exitBound = 0;
    gtk_main_quit();
    return G_SOURCE_REMOVE;
}

}  // namespace

void EndExitTurn() {
    if (g_exitBound == 0) return;
    g_source_remove(g_exitBound);
    g_exitBound = 0;
    gtk_main_quit();
}

uint32_t PackedSizeFromNumber(double value) {
    // The bounds are exact doubles; NaN fails both.  Inside them the low 32
    // bits come from the remainder by 2^32 (exact, with the number's sign,
    // truncated by the cast), so that only this test decides what lies outside.
    if (!(value >= -0x1p63 && value < 0x1p63)) return 0;
    return static_cast<uint32_t>(static_cast<int64_t>(std::fmod(value, 0x1p32)));
}

int32_t RunApplicationCommand(const char* command, int32_t argc, const char* arg2, const char* arg3,
                              double arg2Number) {
    if (!command) return 0;
    if (strcasecmp(command, "exit") == 0) {
        // A later exit of the same turn replaces what it supplies again.
        if (argc >= 2) ReplaceText(&g_exitResult, arg2);
        if (argc >= 3) ReplaceText(&g_exitSuccessText, arg3);
        // The rest of the page's running script still reaches the plug-in;
        // a page that never yields cannot hold the dialog open.
        if (g_exitBound == 0) g_exitBound = g_timeout_add(kExitTurnBoundMs, OnExitBound, nullptr);
        return kExitTurnAwaited;
    } else if (strcasecmp(command, "resize") == 0) {
        Resize(argc >= 2 ? arg2 : nullptr, argc >= 2 ? arg2Number : NAN);
    } else if (strcasecmp(command, "reload") == 0) {
        if (g_webView && g_startUrl) webkit_web_view_load_uri(WEBKIT_WEB_VIEW(g_webView), g_startUrl);
    } else if (strcasecmp(command, "restart") == 0) {
        RestartHost();
    } else if (strcmp(command, "install") == 0) {
        RunMaintenanceScript("install", false);
    } else if (strcmp(command, "repair") == 0) {
        RunMaintenanceScript("repair", true);
    } else if (strcmp(command, "uninstall") == 0) {
        RunMaintenanceScript("uninstall", true);
        gtk_main_quit();
    }
    return 0;
}

void ReleaseExitTexts() {
    delete[] g_exitResult;
    g_exitResult = nullptr;
    delete[] g_exitSuccessText;
    g_exitSuccessText = nullptr;
}
