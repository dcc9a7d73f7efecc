// Process-wide state of the host, touched only on the main thread.
#pragma once

#include <cstddef>
#include <cstdint>

typedef struct _GtkWidget GtkWidget;

// The command line exactly as received, toolkit options included, in
// storage that gtk_init cannot touch.
extern int32_t g_argc;
extern char** g_argv;

// The start page after ResolveStartUrl; opened again by "reload".
extern const char* g_startUrl;
extern GtkWidget* g_webView;
extern GtkWidget* g_mainWindow;

// Copies argc/argv into storage of its own (never freed).
void SaveCommandLine(int argc, char** argv);
// length bytes of text and a terminator, allocated with array new.
char* CopyText(const char* text, size_t length);
