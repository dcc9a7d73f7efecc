// The pieces of the entry point that talk to the toolkit and to WebKit.
#pragma once

#include <cstdint>

typedef struct _GtkWidget GtkWidget;

// Points the default web context at the web extension next to the
// executable and starts the bridge when WebKit starts a web process.
void PrepareWebContext();
// The vertical box holding the scrolled window holding g_webView.
GtkWidget* BuildWebViewBox();
// The screen size the geometry options refer to.
void GetScreenSize(int32_t* width, int32_t* height);
// A start URL without a scheme that names an existing file becomes its
// file:// URL (WebKit2 does not guess schemes); else the text unchanged.
const char* FileUrlForLocalPath(const char* url);
// Ends the run on SIGTERM, SIGINT and SIGHUP without a result.
void WatchTerminationSignals();
bool TerminatedBySignal();
// The directory holding the web extension, found from /proc/self/exe.
bool FindExtensionDirectory(char* out, uint32_t size);

// KAVORI_DEVELOPER=1: developer extras, the page's console on stderr and
// reload / inspector keys, for this run only.
bool DeveloperMode();
void ConnectDeveloperKeys(GtkWidget* window);
