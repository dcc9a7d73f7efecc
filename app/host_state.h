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

// The running program's file, resolved when the command line is saved
// ("" when /proc/self/exe cannot be read).
extern char g_ownProgram[4096];
// Copies argc/argv into storage of its own (never freed) and resolves
// g_ownProgram.
void SaveCommandLine(int argc, char** argv);
// length bytes of text and a terminator, allocated with array new.
char* CopyText(const char* text, size_t length);
