// WebKit loads this library into every web process.  It unpacks the host's
// start-up data and, before each document's script runs, installs the script
// object (only into trusted documents, and with document.domain locked in
// all, when the caller restricted the origins) and in developer mode makes
// the document's console lines name its origin.
#include <webkit2/webkit-web-extension.h>

#include <cstdio>
#include <string>

#include "bridge/extension/channel_client.h"
#include "bridge/extension/console_line.h"
#include "bridge/extension/document_origin.h"
#include "bridge/extension/script_object.h"

namespace {

StartupData* g_startup = nullptr;
// Where a document's origins are read: a script world of the extension's
// own, whose objects no page script can reach.  The page's world is no place
// for it: a frame's first, empty document hands its realm, and whatever its
// script changed there, on to the next document of its origin.
WebKitScriptWorld* g_ownWorld = nullptr;

void OnWindowObjectCleared(WebKitScriptWorld* world, WebKitWebPage*, WebKitFrame* frame, gpointer) {
    const std::vector<std::string>& trusted = g_startup->trustedOrigins;
    bool developer = g_startup->flags & STARTUP_DEVELOPER;
    // The JavaScriptCore C API keeps the class table and function callbacks
    // that the script object is made of; its frame accessor is deprecated
    // in favour of the GObject wrapper, which has no static-function classes.
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    JSGlobalContextRef context = webkit_frame_get_javascript_context_for_script_world(frame, world);
    JSGlobalContextRef own = context && (developer || !trusted.empty())
                                 ? webkit_frame_get_javascript_context_for_script_world(frame, g_ownWorld)
                                 : nullptr;
    G_GNUC_END_IGNORE_DEPRECATIONS
    if (developer && own) NameConsoleOrigin(context, DocumentOrigin(own));
    // With a list, no document may relax its origin with document.domain: a
    // listed page that did would let a frame of another port of its host,
    // which can relax its own, reach the page's Kavori.
    if (context && !trusted.empty() && !(own && LockDocumentDomain(context) && DocumentTrusted(own, trusted)))
        context = nullptr;
    if (context) InstallScriptObject(context);
    // The wrapper only makes long answers; the frame's previous document
    // lets go of its own whatever this one gets.
    JSCContext* glibContext = context ? webkit_frame_get_js_context_for_script_world(frame, world) : nullptr;
    LinkGlibContext(G_OBJECT(frame), context, glibContext);
    if (glibContext) g_object_unref(glibContext);
}

const char* LevelName(WebKitConsoleMessageLevel level) {
    switch (level) {
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_ERROR: return "console.error";
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_WARNING: return "console.warn";
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_DEBUG: return "console.debug";
        case WEBKIT_CONSOLE_MESSAGE_LEVEL_INFO: return "console.info";
        default: return "console.log";
    }
}

// Developer mode: one line per console message or uncaught error.
void OnConsoleMessage(WebKitWebPage*, WebKitConsoleMessage* message, gpointer) {
    WebKitConsoleMessageLevel level = webkit_console_message_get_level(message);
    const char* text = webkit_console_message_get_text(message);
    std::string line = ConsoleLine(LevelName(level),
                                   ConsoleOrigin(level == WEBKIT_CONSOLE_MESSAGE_LEVEL_ERROR, text),
                                   webkit_console_message_get_source_id(message),
                                   webkit_console_message_get_line(message),
                                   text);
    fputs(line.c_str(), stderr);
    fflush(stderr);
}

void OnPageCreated(WebKitWebExtension*, WebKitWebPage* page, gpointer) {
    // The page's console is only reachable here in this WebKit; the signal
    // is deprecated for the next API generation, which offers none either.
    g_signal_connect(page, "console-message-sent", G_CALLBACK(OnConsoleMessage), nullptr);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void webkit_web_extension_initialize_with_user_data(
    WebKitWebExtension* extension, GVariant* data) {
    g_startup = new StartupData;
    g_ownWorld = webkit_script_world_new();
    // Without usable start-up data every call gives its default result.
    if (ParseStartupData(data, g_startup)) {
        ChannelConfigure(g_startup->socketPath, g_startup->token, g_startup->hostPid);
    } else {
        g_startup->trustedOrigins.clear();
    }
    g_signal_connect(webkit_script_world_get_default(),
                     "window-object-cleared",
                     G_CALLBACK(OnWindowObjectCleared),
                     nullptr);
    if (g_startup->flags & STARTUP_DEVELOPER) {
        g_signal_connect(extension, "page-created", G_CALLBACK(OnPageCreated), nullptr);
    }
}
