// The one web view and the web context around it: the web extension and
// the bridge it talks to, which documents are served while the caller
// restricts the origins (KAVORI_TRUSTED_ORIGINS), and what happens when the
// web process dies.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

typedef struct _GtkWidget GtkWidget;

// Points the default web context at the web extension next to the
// executable and starts the bridge when WebKit starts a web process; in
// automation mode, lets a WebDriver session drive g_webView.
void PrepareWebContext();
// The vertical box holding the scrolled window holding g_webView (made for
// automation in automation mode).
GtkWidget* BuildWebViewBox();
// KAVORI_TRUSTED_ORIGINS, parsed once; empty: every origin is served.
const std::vector<std::string>& TrustedOrigins();
// The directory holding the web extension, found from /proc/self/exe.
bool FindExtensionDirectory(char* out, uint32_t size);
