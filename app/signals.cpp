#include "app/signals.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <gtk/gtk.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace {

volatile sig_atomic_t g_terminated = 0;
int g_wakeUp[2] = {-1, -1};

// Only async-signal-safe work here: the flag, and a byte that wakes the
// main loop when it runs.
void OnSignal(int) {
    int saved = errno;
    g_terminated = 1;
    if (g_wakeUp[1] >= 0) (void)!write(g_wakeUp[1], "", 1);
    errno = saved;
}

gboolean OnWakeUp(gint fd, GIOCondition, gpointer) {
    char drain[64];
    while (read(fd, drain, sizeof drain) > 0) {
    }
    if (gtk_main_level() > 0) gtk_main_quit();
    return G_SOURCE_CONTINUE;
}

}  // namespace

void WatchTerminationSignals() {
    if (g_wakeUp[0] < 0 && pipe2(g_wakeUp, O_CLOEXEC | O_NONBLOCK) == 0) {
        g_unix_fd_add(g_wakeUp[0], G_IO_IN, OnWakeUp, nullptr);
    }
    struct sigaction action = {};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a pause or a wait in progress is cut short.
    // Left alone, with the reason:
    // - SIGUSR1 and SIGXCPU: WebKit's own (thread suspension, real-time
    //   threads), taken once the web context exists.  SIGUSR1 from outside
    //   ends the host in WebKit's handler, as a crash.
    // - SIGPIPE: GTK and GIO ignore it; a write to a closed pipe just fails.
    // - SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP, SIGSYS: faults,
    //   after which the process's state cannot be trusted to clean up.
    // - The real-time signals: glibc's and other libraries' to hand out
    //   (JSC_SIGNAL_FOR_GC, timers); nothing sends them by accident.
    for (int signal : {SIGHUP,
                       SIGINT,
                       SIGQUIT,
                       SIGUSR2,
                       SIGALRM,
                       SIGTERM,
                       SIGSTKFLT,
                       SIGXFSZ,
                       SIGVTALRM,
                       SIGPROF,
                       SIGIO,
                       SIGPWR}) {
        // An ignored signal (nohup, a background job's SIGINT) never ends
        // the host, and a handler already there (a preloaded profiler's
        // SIGPROF) is someone else's.
        struct sigaction old = {};
        if (sigaction(signal, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
            sigaction(signal, &action, nullptr);
        }
    }
}

bool TerminatedBySignal() { return g_terminated != 0; }

void SleepUnlessTerminated(uint32_t microseconds) {
    // Waiting on the wake-up pipe (never read here) sees a signal that came
    // before the call as well as one that comes during it.
    struct pollfd wakeUp = {g_wakeUp[0], POLLIN, 0};
    struct timespec timeout = {static_cast<time_t>(microseconds / 1000000),
                               static_cast<long>(microseconds % 1000000) * 1000};
    if (!TerminatedBySignal()) ppoll(&wakeUp, g_wakeUp[0] >= 0 ? 1 : 0, &timeout, nullptr);
}
