#include "app/developer.h"

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <cstdlib>
#include <cstring>

#include "app/host_state.h"
#include "app/options.h"

namespace {

gboolean OnDeveloperKey(GtkWidget*, GdkEventKey* event, gpointer) {
    guint state = event->state & gtk_accelerator_get_default_mod_mask();
    guint key = gdk_keyval_to_lower(event->keyval);
    if (key == GDK_KEY_F5 || (state == GDK_CONTROL_MASK && key == GDK_KEY_r)) {
        webkit_web_view_reload(WEBKIT_WEB_VIEW(g_webView));
        return TRUE;
    }
    if (state == (GDK_CONTROL_MASK | GDK_SHIFT_MASK) && key == GDK_KEY_i) {
        webkit_web_inspector_show(webkit_web_view_get_inspector(WEBKIT_WEB_VIEW(g_webView)));
        return TRUE;
    }
    return FALSE;
}

}  // namespace

bool DeveloperMode() {
    const char* value = getenv("KAVORI_DEVELOPER");
    return value && strcmp(value, "1") == 0;
}

bool AutomationMode() { return DeveloperMode() && HasOption(g_argc, g_argv, "--automation"); }

void DropInspectorServerUnlessAutomated() {
    if (AutomationMode()) return;
    unsetenv("WEBKIT_INSPECTOR_SERVER");
    unsetenv("WEBKIT_INSPECTOR_HTTP_SERVER");
}

void ConnectDeveloperKeys(GtkWidget* window) {
    if (DeveloperMode()) g_signal_connect(window, "key-press-event", G_CALLBACK(OnDeveloperKey), nullptr);
}
