#include "bridge/origins.h"

#include <glib.h>

#include <cstring>

std::string OriginOf(const char* url) {
    if (!url) return std::string();
    GUri* uri = g_uri_parse(url, G_URI_FLAGS_NONE, nullptr);
    if (!uri) return std::string();
    std::string origin;
    gchar* scheme = g_ascii_strdown(g_uri_get_scheme(uri), -1);
    const char* host = g_uri_get_host(uri);
    if (strcmp(scheme, "file") == 0) {
        // Every file URL shares one origin here: a dialog's own files.
        origin = "file://";
    } else if (host && host[0]) {
        gchar* lowerHost = g_ascii_strdown(host, -1);
        // GLib gives an IPv6 literal without its brackets; put them back, or
        // [::1]:8080 and [::1:8080] would both read "::1:8080".
        bool literal = strchr(lowerHost, ':') != nullptr;
        origin = std::string(scheme) + "://" + (literal ? "[" : "") + lowerHost + (literal ? "]" : "");
        g_free(lowerHost);
        int port = g_uri_get_port(uri);
        bool defaultPort =
            (port == 80 && strcmp(scheme, "http") == 0) || (port == 443 && strcmp(scheme, "https") == 0);
        if (port > 0 && !defaultPort) origin += ":" + std::to_string(port);
    }
    g_free(scheme);
    g_uri_unref(uri);
    return origin;
}

std::vector<std::string> ParseTrustedOrigins(const char* text) {
    std::vector<std::string> origins;
    if (!text) return origins;
    gchar** words = g_strsplit_set(text, " \t\n", -1);
    for (gchar** word = words; *word; ++word) {
        if (!**word) continue;
        std::string origin = OriginOf(*word);
        // An entry that names no origin still makes the list non-empty, so a
        // mistyped list restricts everything rather than nothing.  OriginOf
        // never gives a text without "://", so this matches no document.
        origins.push_back(origin.empty() ? "unusable:" + std::string(*word) : origin);
    }
    g_strfreev(words);
    return origins;
}

bool OriginTrusted(const std::vector<std::string>& trusted, const char* url) {
    if (trusted.empty()) return true;
    std::string origin = OriginOf(url);
    if (origin.empty()) return false;
    for (const std::string& entry : trusted) {
        if (entry == origin) return true;
    }
    return false;
}
