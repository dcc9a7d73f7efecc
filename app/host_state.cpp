#include "app/host_state.h"

#include <cstring>

int32_t g_argc = 0;
char** g_argv = nullptr;
const char* g_startUrl = nullptr;
GtkWidget* g_webView = nullptr;
GtkWidget* g_mainWindow = nullptr;

void SaveCommandLine(int argc, char** argv) {
    // gtk_init rearranges the vector it is given; the restart and the lazy
    // library start need the arguments as received, so keep copies of ours.
    int32_t count = argc > 0 && argv != nullptr ? argc : 0;
    char** saved = new char*[static_cast<size_t>(count) + 1];
    for (int32_t i = 0; i < count; ++i) {
        const char* text = argv[i] != nullptr ? argv[i] : "";
        size_t size = strlen(text) + 1;
        saved[i] = new char[size];
        memcpy(saved[i], text, size);
    }
    saved[count] = nullptr;
    g_argc = count;
    g_argv = saved;
}
