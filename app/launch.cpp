#include "app/launch.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "app/host_state.h"
#include "app/paths.h"
#include "app/result_store.h"
#include "app/signals.h"
#include "app/web_data.h"
#include "bridge/bridge_server.h"

namespace {
constexpr uint32_t kPathSize = 256;
void (*g_pause)(uint32_t microseconds) = SleepUnlessTerminated;
void (*g_scriptChecked)(const char* path) = nullptr;

// "<restarts> <start of their window, ms of CLOCK_MONOTONIC>", from one host
// of a chain to the next.
constexpr char kRestartsName[] = "KAVORI_RESTARTS";
unsigned g_restarts = 0;
long long g_restartWindowStart = 0;

long long MonotonicMs() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

// In a child, before its exec: only async-signal-safe calls.  GTK and GIO
// ignore SIGPIPE in the host; the programs started get the default back.
void EnterOwnSession() {
    setsid();
    signal(SIGPIPE, SIG_DFL);
}
}  // namespace

void SetLaunchPauseForTests(void (*pause)(uint32_t microseconds)) {
    g_pause = pause ? pause : SleepUnlessTerminated;
}

void SetScriptCheckedHookForTests(void (*checked)(const char* path)) { g_scriptChecked = checked; }

void LaunchAdminProgram() {
    char path[kPathSize];
    if (!FindAdminProgram(path, sizeof path)) return;
    if (fork() == 0) {
        EnterOwnSession();
        execl(path, path, "-admin", static_cast<char*>(nullptr));
        _exit(0);
    }
}

void TakeRestartHistory() {
    // Anything else than two numbers, a window that has not begun yet, or
    // more restarts than are allowed counts as no history.
    const char* value = getenv(kRestartsName);
    unsigned restarts = 0;
    long long start = 0;
    char rest = 0;
    if (value && sscanf(value, "%u %lld%c", &restarts, &start, &rest) == 2 && restarts <= kMaxRestarts &&
        start >= 0 && start <= MonotonicMs()) {
        g_restarts = restarts;
        g_restartWindowStart = start;
    }
    unsetenv(kRestartsName);
}

void RestartHost() {
    // The program that is running, not a new search for its first argument:
    // a host started by a bare name would otherwise run whatever file of
    // that name the working directory holds.  argv stays as received.
    if (g_argc < 1 || !g_argv || !g_ownProgram[0]) return;
    // A page that restarts on every load would chain hosts without end, each
    // in a session of its own and beyond its caller's reach: as crashes are,
    // restarts are bounded within a window, counted along the chain.
    long long now = MonotonicMs();
    if (g_restarts == 0 || now - g_restartWindowStart >= kRestartWindowMs) {
        g_restarts = 0;
        g_restartWindowStart = now;
    }
    if (g_restarts >= kMaxRestarts) return;
    char history[64];
    snprintf(history, sizeof history, "%s=%u %lld", kRestartsName, g_restarts + 1, g_restartWindowStart);
    std::vector<char*> environment;
    for (char** entry = environ; *entry; ++entry) {
        if (strncmp(*entry, history, sizeof kRestartsName) != 0) environment.push_back(*entry);  // "NAME="
    }
    environment.push_back(history);
    environment.push_back(nullptr);
    // The saved command line is ours and stays whole across the fork.
    pid_t pid = fork();
    if (pid < 0) return;
    if (pid > 0) {
        BridgeRemoveSocketDirectory();
        RemoveWebDataPlaces();
        _exit(0);
    }
    EnterOwnSession();
    PassResultDescriptorOn();
    execve(g_ownProgram, g_argv, environment.data());
    _exit(0);
}

void RunMaintenanceScript(const char* name, bool search) {
    char path[kPathSize];
    int script = OpenMaintenanceScript(name, search, path, sizeof path);
    if (script < 0) return;
    if (g_scriptChecked) g_scriptChecked(path);
    pid_t pid = fork();
    if (pid == 0) {
        EnterOwnSession();
        // The file checked, not its name again.  A "#!" script's interpreter
        // reads it as /dev/fd/<n> (so that is its $0, and /proc must be
        // there): the descriptor stays open across the exec, in the script's
        // process alone.
        char* argv[] = {path, nullptr};
        fcntl(script, F_SETFD, 0);
        fexecve(script, argv, environ);
        _exit(0);
    }
    close(script);
    if (pid < 0) return;
    g_pause(100000);
    for (int poll = 0; poll < 100 && !TerminatedBySignal(); ++poll) {
        if (waitpid(pid, nullptr, WNOHANG) > 0) return;
        g_pause(999000);
    }
}
