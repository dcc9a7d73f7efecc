#include "bridge/launch.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "app/host_state.h"

void (*g_beforeRestartExit)() = nullptr;

namespace {

constexpr size_t kPathSize = 256;

// Joins the pieces into buffer when they fit; a candidate that would not
// fit is skipped rather than cut, so a truncated path is never run.
bool ComposePath(char* buffer, const char* first, const char* second, const char* third) {
    size_t a = strlen(first), b = strlen(second), c = third ? strlen(third) : 0;
    memset(buffer, 0, kPathSize);
    if (a + b + c >= kPathSize) return false;
    memcpy(buffer, first, a);
    memcpy(buffer + a, second, b);
    if (third) memcpy(buffer + a + b, third, c);
    return true;
}

bool Exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0;
}

}  // namespace

void LaunchAdminProgram() {
    char path[kPathSize];
    const char* home = getenv("HOME");
    bool found = home && ComposePath(path, home, "/.kvo/bin/kvo", nullptr) && Exists(path);
    if (!found) found = ComposePath(path, "/usr/bin/kvo", "", nullptr) && Exists(path);
    if (!found) return;
    pid_t pid = fork();
    if (pid == 0) {
        setsid();
        execl(path, path, "-admin", static_cast<char*>(nullptr));
        _exit(0);
    }
}

void RestartHost() {
    if (g_argc < 1 || !g_argv) return;
    char** vector = new char*[static_cast<size_t>(g_argc) + 1];
    for (int32_t i = 0; i < g_argc; ++i) {
        size_t size = strlen(g_argv[i]) + 1;
        vector[i] = new char[size];
        memcpy(vector[i], g_argv[i], size);
    }
    vector[g_argc] = nullptr;
    pid_t pid = fork();
    if (pid < 0) {
        for (int32_t i = 0; i < g_argc; ++i) delete[] vector[i];
        delete[] vector;
        return;
    }
    if (pid > 0) {
        if (g_beforeRestartExit) g_beforeRestartExit();
        _exit(0);
    }
    setsid();
    execv(vector[0], vector);
    _exit(0);
}

void RunMaintenanceScriptWaiting(const char* name, bool search, uint32_t firstSleepUs, uint32_t polls,
                                 uint32_t pollSleepUs) {
    char path[kPathSize];
    memset(path, 0, sizeof path);
    bool found = false;
    if (search) {
        const char* home = getenv("HOME");
        found = home && ComposePath(path, home, "/.kvo/", name) && Exists(path);
        if (!found) found = ComposePath(path, "/etc/kvo/", name, nullptr) && Exists(path);
    }
    // The fallback is a dot and the name in the working directory: ".install".
    if (!found && !ComposePath(path, ".", name, nullptr)) return;
    pid_t pid = fork();
    if (pid < 0) return;
    if (pid == 0) {
        setsid();
        execl(path, path, static_cast<char*>(nullptr));
        _exit(0);
    }
    usleep(firstSleepUs);
    for (uint32_t poll = 0; poll < polls; ++poll) {
        if (waitpid(pid, nullptr, WNOHANG) > 0) return;
        usleep(pollSleepUs);
    }
}

void RunMaintenanceScript(const char* name, bool search) {
    RunMaintenanceScriptWaiting(name, search, 100000, 100, 999000);
}
