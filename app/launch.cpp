#include "app/launch.h"

#include <sys/wait.h>
#include <unistd.h>

#include "app/host_state.h"
#include "app/paths.h"
#include "app/signals.h"
#include "app/web_data.h"
#include "bridge/bridge_server.h"

namespace {
constexpr uint32_t kPathSize = 256;
void (*g_pause)(uint32_t microseconds) = SleepUnlessTerminated;
}  // namespace

void SetLaunchPauseForTests(void (*pause)(uint32_t microseconds)) {
    g_pause = pause ? pause : SleepUnlessTerminated;
}

void LaunchAdminProgram() {
    char path[kPathSize];
    if (!FindAdminProgram(path, sizeof path)) return;
    if (fork() == 0) {
        setsid();
        execl(path, path, "-admin", static_cast<char*>(nullptr));
        _exit(0);
    }
}

void RestartHost() {
    // The program that is running, not a new search for its first argument:
    // a host started by a bare name would otherwise run whatever file of
    // that name the working directory holds.  argv stays as received.
    if (g_argc < 1 || !g_argv || !g_ownProgram[0]) return;
    // The saved command line is ours and stays whole across the fork.
    pid_t pid = fork();
    if (pid < 0) return;
    if (pid > 0) {
        BridgeRemoveSocketDirectory();
        RemoveWebDataPlaces();
        _exit(0);
    }
    setsid();
    execv(g_ownProgram, g_argv);
    _exit(0);
}

void RunMaintenanceScript(const char* name, bool search) {
    char path[kPathSize];
    if (!FindMaintenanceScript(name, search, path, sizeof path)) return;
    pid_t pid = fork();
    if (pid < 0) return;
    if (pid == 0) {
        setsid();
        execl(path, path, static_cast<char*>(nullptr));
        _exit(0);
    }
    g_pause(100000);
    for (int poll = 0; poll < 100 && !TerminatedBySignal(); ++poll) {
        if (waitpid(pid, nullptr, WNOHANG) > 0) return;
        g_pause(999000);
    }
}
