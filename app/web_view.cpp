#include "app/web_view.h"

#include <gtk/gtk.h>
#include <limits.h>
#include <unistd.h>
#include <webkit2/webkit2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/developer.h"
#include "app/host_state.h"
#include "app/sandbox.h"
#include "app/script_calls.h"
#include "bridge/bridge_server.h"
#include "bridge/origins.h"

namespace {

// A web process that keeps dying would make reloading a loop; after this
// many crashes within the window the view shows a plain message instead.
constexpr int kMaxCrashes = 3;
constexpr gint64 kCrashWindowUs = 30 * G_USEC_PER_SEC;
gint64 g_crashTimes[kMaxCrashes] = {0, 0, 0};
int g_crashCount = 0;

// The web process's word that a frame is trusted is not enough: while the
// view's own top-level document is not on the list, no request is served.
void HandleGatedRequest(const BridgeRequest& request, BridgeReply* reply) {
    if (!TrustedOrigins().empty() &&
        (!g_webView ||
         !OriginTrusted(TrustedOrigins(), webkit_web_view_get_uri(WEBKIT_WEB_VIEW(g_webView))))) {
        return;
    }
    HandleBridgeRequest(request, reply);
}

bool g_sandboxed = false;

void OnInitializeWebExtensions(WebKitWebContext* context, gpointer) {
    StartupData data;
    BridgeFillStartupData(&data);
    data.flags = DeveloperMode() ? uint32_t(STARTUP_DEVELOPER) : 0u;
    data.trustedOrigins = TrustedOrigins();
    // In the sandbox's own process namespace the host's pid is not visible;
    // the peer's uid is still checked there.
    data.hostPid = g_sandboxed ? 0 : static_cast<uint32_t>(getpid());
    webkit_web_context_set_web_extensions_initialization_user_data(context, MakeStartupData(data));
}

// A document served with a sandboxing Content-Security-Policy gets an
// opaque origin whatever its URL, so its URL's origin proves nothing.
bool SandboxedByPolicy(WebKitURIResponse* response) {
    SoupMessageHeaders* headers = response ? webkit_uri_response_get_http_headers(response) : nullptr;
    const char* policy =
        headers ? soup_message_headers_get_list(headers, "Content-Security-Policy") : nullptr;
    bool sandboxed = false;
    gchar** directives = g_strsplit_set(policy ? policy : "", ";,", -1);
    for (gchar** directive = directives; *directive && !sandboxed; ++directive) {
        gchar** words = g_strsplit_set(g_strstrip(*directive), " \t", -1);
        if (words[0] && g_ascii_strcasecmp(words[0], "sandbox") == 0) {
            sandboxed = true;
            for (gchar** word = words + 1; *word; ++word) {
                if (g_ascii_strcasecmp(*word, "allow-same-origin") == 0) sandboxed = false;
            }
        }
        g_strfreev(words);
    }
    g_strfreev(directives);
    return sandboxed;
}

// While the origins are restricted, new windows never open, and the main
// frame's document is only taken from a listed origin.  Navigation
// decisions look the same for sub-frames and the main frame; the response
// decision tells them apart, after redirects, before anything is shown.
gboolean OnDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
                        gpointer) {
    if (TrustedOrigins().empty()) return FALSE;
    if (type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
        webkit_policy_decision_ignore(decision);
        return TRUE;
    }
    if (type != WEBKIT_POLICY_DECISION_TYPE_RESPONSE) return FALSE;
    WebKitResponsePolicyDecision* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
    if (!webkit_response_policy_decision_is_main_frame_main_resource(response)) return FALSE;
    const char* uri = webkit_uri_request_get_uri(webkit_response_policy_decision_get_request(response));
    if (OriginTrusted(TrustedOrigins(), uri) &&
        !SandboxedByPolicy(webkit_response_policy_decision_get_response(response))) {
        return FALSE;
    }
    fprintf(stderr,
            "kavori-host: refused navigation to %s: its origin is not in KAVORI_TRUSTED_ORIGINS, or is "
            "sandboxed\n",
            uri ? uri : "");
    webkit_policy_decision_ignore(decision);
    return TRUE;
}

void OnWebProcessTerminated(WebKitWebView* view, WebKitWebProcessTerminationReason, gpointer) {
    gint64 now = g_get_monotonic_time();
    g_crashTimes[g_crashCount % kMaxCrashes] = now;
    ++g_crashCount;
    gint64 oldest = g_crashTimes[g_crashCount % kMaxCrashes];
    if (g_crashCount >= kMaxCrashes && now - oldest < kCrashWindowUs) {
        webkit_web_view_load_plain_text(
            view, "This dialog stopped working. Please close the window and try again.");
        return;
    }
    if (g_startUrl) webkit_web_view_load_uri(view, g_startUrl);
}

// A WebDriver session drives the dialog's own view, so what it tests is the
// window the options made.  The host has one window: a second browsing
// context is refused.
WebKitWebView* OnCreateWebView(WebKitAutomationSession*, gpointer) {
    static bool given = false;
    if (given) return nullptr;
    given = true;
    return WEBKIT_WEB_VIEW(g_webView);
}

// A session that closes its window (or ends) closes the dialog as the
// window manager's close button would.
void OnCloseRequested(WebKitWebView*, gpointer) {
    if (g_mainWindow) gtk_widget_destroy(g_mainWindow);
}

// The driver matches the client's browserName against this name.
void OnAutomationStarted(WebKitWebContext*, WebKitAutomationSession* session, gpointer) {
    WebKitApplicationInfo* info = webkit_application_info_new();
    webkit_application_info_set_name(info, "kavori-host");
    webkit_automation_session_set_application_info(session, info);
    webkit_application_info_unref(info);
    g_signal_connect(session, "create-web-view", G_CALLBACK(OnCreateWebView), nullptr);
}

void RemoveSocketAtExit() { BridgeRemoveSocketDirectory(); }

}  // namespace

const std::vector<std::string>& TrustedOrigins() {
    static std::vector<std::string>* origins = nullptr;
    if (!origins)
        origins = new std::vector<std::string>(ParseTrustedOrigins(getenv("KAVORI_TRUSTED_ORIGINS")));
    return *origins;
}

bool FindExtensionDirectory(char* out, uint32_t size) {
    char exe[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return false;
    exe[n] = '\0';
    char* slash = strrchr(exe, '/');
    if (!slash) return false;
    *slash = '\0';
    // bin/ and lib/kavori/ side by side, in the build tree and installed.
    int written = snprintf(out, size, "%s/../lib/kavori", exe);
    return written > 0 && static_cast<uint32_t>(written) < size;
}

void PrepareWebContext() {
    WebKitWebContext* context = webkit_web_context_get_default();
    char directory[PATH_MAX];
    if (FindExtensionDirectory(directory, sizeof directory)) {
        webkit_web_context_set_web_extensions_directory(context, directory);
    }
    // The bridge's directory must exist before the first web process, so
    // that the sandbox can let the extension reach it.
    BridgeServerStart(HandleGatedRequest);
    g_sandboxed = EnableSandbox(context, BridgeDirectory());
    g_signal_connect(context, "initialize-web-extensions", G_CALLBACK(OnInitializeWebExtensions), nullptr);
    if (AutomationMode()) {
        webkit_web_context_set_automation_allowed(context, TRUE);
        g_signal_connect(context, "automation-started", G_CALLBACK(OnAutomationStarted), nullptr);
    }
    atexit(RemoveSocketAtExit);
}

GtkWidget* BuildWebViewBox() {
    GtkWidget* box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    GtkWidget* scrolled = gtk_scrolled_window_new(nullptr, nullptr);
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(scrolled), GTK_POLICY_AUTOMATIC, GTK_POLICY_AUTOMATIC);
    // WebKit hands a session only views made for automation.
    gboolean automation = AutomationMode() ? TRUE : FALSE;
    g_webView =
        GTK_WIDGET(g_object_new(WEBKIT_TYPE_WEB_VIEW, "is-controlled-by-automation", automation, nullptr));
    g_signal_connect(g_webView, "web-process-terminated", G_CALLBACK(OnWebProcessTerminated), nullptr);
    g_signal_connect(g_webView, "decide-policy", G_CALLBACK(OnDecidePolicy), nullptr);
    if (automation) g_signal_connect(g_webView, "close", G_CALLBACK(OnCloseRequested), nullptr);
    gtk_container_add(GTK_CONTAINER(scrolled), g_webView);
    gtk_box_pack_start(GTK_BOX(box), scrolled, TRUE, TRUE, 0);
    return box;
}
