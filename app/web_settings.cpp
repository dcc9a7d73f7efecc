#include "app/web_settings.h"

#include <webkit2/webkit2.h>

#include <cstring>

#include "app/developer.h"
#include "app/host_state.h"
#include "app/user_agent.h"
#include "app/web_view.h"
#include "native/plugin_session.h"

namespace {
constexpr uint32_t kUserAgentSize = 256;
}

bool ComposeUserAgent(WebKitSettings* settings, char* buffer, uint32_t size) {
    gchar* defaultAgent = nullptr;
    g_object_get(settings, "user-agent", &defaultAgent, nullptr);
    if (!defaultAgent || strlen(defaultAgent) + 64 >= size) {
        g_free(defaultAgent);
        return false;
    }
    const char* answer = PluginGetProperty(GetReadyHandle(), "ProductInfo");
    bool composed = false;
    if (answer) {
        // Split a copy of our own: the plug-in's text stays as it gave it.
        size_t length = strlen(answer);
        char* productInfo = new char[length + 1];
        memcpy(productInfo, answer, length + 1);
        composed = ComposeUserAgentText(defaultAgent, productInfo, buffer, size);
        delete[] productInfo;
    }
    if (composed && !IsCarriedUserAgent(buffer)) {
        // WebKit refuses a user agent that is no valid header value and keeps
        // its default, product token and all.  /etc/issue.net is what breaks
        // it (a line end, "Debian GNU/Linux/12"): its line end goes first,
        // then, if that is not enough, the whole description.
        size_t length = strlen(buffer);
        while (length > 0 && (buffer[length - 1] == '\n' || buffer[length - 1] == '\r'))
            buffer[--length] = '\0';
        if (!IsCarriedUserAgent(buffer)) {
            char* joiningBlank = strchr(buffer + strlen(defaultAgent) + 1, ' ');
            if (joiningBlank != nullptr) *joiningBlank = '\0';
        }
    }
    g_free(defaultAgent);
    return composed;
}

void ApplyWebSettings(const char* userAgent) {
    WebKitSettings* settings = webkit_settings_new();
    if (settings) {
        // Script access to the clipboard needs no user gesture, so any frame
        // could read what a password manager put there.  While the caller
        // restricts the origins it shows untrusted frames, so it is off.
        g_object_set(settings, "javascript-can-access-clipboard", TrustedOrigins().empty(), nullptr);
        g_object_set(settings, "allow-universal-access-from-file-urls", TRUE, nullptr);
        g_object_set(settings, "allow-file-access-from-file-urls", TRUE, nullptr);
        // Showing and running insecure content on secure pages has no
        // WebKit2 setting: WebKitGTK 4.1 always shows mixed passive content
        // and blocks active content, and offers no switch for either.
        // Only on the caller's request: a dialog never shows the inspector otherwise.
        if (DeveloperMode()) g_object_set(settings, "enable-developer-extras", TRUE, nullptr);
        // Pages are painted by the CPU.  With the GPU path a web process
        // compiles its compositing shaders on every start: in the sandbox it
        // sees no shader cache, and a cache it could write would let a
        // taken-over web process plant code that later dialogs run.  With
        // Mesa's llvmpipe that compiling was most of the sandbox's cost at
        // first paint (bench/README.md).  A dialog needs no GPU.  Under
        // WebDriver the GPU path stays: painted by the CPU, WebKitGTK 2.50
        // waits a minute for a frame before each screenshot; this can go
        // once its screenshots no longer do.
        if (!AutomationMode())
            webkit_settings_set_hardware_acceleration_policy(settings,
                                                             WEBKIT_HARDWARE_ACCELERATION_POLICY_NEVER);
        if (userAgent) {
            if (userAgent[0]) {
                g_object_set(settings, "user-agent", userAgent, nullptr);
            } else {
                char buffer[kUserAgentSize];
                memset(buffer, 0, sizeof buffer);
                bool composed = ComposeUserAgent(settings, buffer, sizeof buffer);
                // The empty text makes WebKit fall back to its default.
                g_object_set(settings, "user-agent", composed ? buffer : "", nullptr);
            }
        }
        if (g_webView) webkit_web_view_set_settings(WEBKIT_WEB_VIEW(g_webView), settings);
        g_object_unref(settings);
    }
    // The "file" scheme gets the empty security policy: no flag to register
    // in WebKit2, so there is no call to make.
}
