// WebKit loads this library into every web process.  It only unpacks the
// host's start-up data and installs the script object into every frame.
#include <webkit2/webkit-web-extension.h>

#include <string>

#include "bridge/extension/channel_client.h"
#include "bridge/extension/script_object.h"

namespace {

void OnWindowObjectCleared(WebKitScriptWorld* world, WebKitWebPage*, WebKitFrame* frame, gpointer) {
    // The JavaScriptCore C API keeps the class table and function callbacks
    // that the script object is made of; its frame accessor is deprecated
    // in favour of the GObject wrapper, which has no static-function classes.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    JSGlobalContextRef context = webkit_frame_get_javascript_context_for_script_world(frame, world);
    G_GNUC_END_IGNORE_DEPRECATIONS
    if (context) InstallScriptObject(context);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void webkit_web_extension_initialize_with_user_data(
    WebKitWebExtension*, GVariant* data) {
    StartupData startup;
    // Without usable start-up data every call gives its default result.
    if (ParseStartupData(data, &startup)) ChannelConfigure(startup.socketPath, startup.token);
    g_signal_connect(webkit_script_world_get_default(), "window-object-cleared", G_CALLBACK(OnWindowObjectCleared),
                     nullptr);
}
