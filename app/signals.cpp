#include "app/signals.h"

#include <glib-unix.h>
#include <gtk/gtk.h>

namespace {

bool g_terminated = false;

gboolean OnTerminationSignal(gpointer) {
    g_terminated = true;
    gtk_main_quit();
    return G_SOURCE_CONTINUE;
}

}  // namespace

void WatchTerminationSignals() {
    g_unix_signal_add(SIGTERM, OnTerminationSignal, nullptr);
    g_unix_signal_add(SIGINT, OnTerminationSignal, nullptr);
    g_unix_signal_add(SIGHUP, OnTerminationSignal, nullptr);
}

bool TerminatedBySignal() { return g_terminated; }
