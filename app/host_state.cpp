#include "app/host_state.h"

#include <unistd.h>

#include <cstring>

#include "app/start_url.h"

int32_t g_argc = 0;
char** g_argv = nullptr;
const char* g_startUrl = nullptr;
GtkWidget* g_webView = nullptr;
GtkWidget* g_mainWindow = nullptr;
char g_ownProgram[4096];

void SaveCommandLine(int argc, char** argv) {
    // gtk_init rearranges the vector it is given; the restart and the lazy
    // library start need the arguments as received, so keep copies of ours.
    g_argc = argc > 0 && argv != nullptr ? argc : 0;
    g_argv = JoinArgumentVectors(argv, g_argc, nullptr, 0);
    ssize_t length = readlink("/proc/self/exe", g_ownProgram, sizeof g_ownProgram - 1);
    g_ownProgram[length > 0 ? length : 0] = '\0';
}

char* CopyText(const char* text, size_t length) {
    char* copy = new char[length + 1];
    memcpy(copy, text, length);
    copy[length] = '\0';
    return copy;
}
