#include "app/web_data.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bridge/private_directory.h"

namespace {

constexpr uint32_t kPathSize = 256;
char g_place[kPathSize] = "";
// The runtime directory WebKit's sandbox writes instance directories into,
// when it is not inside the place (XDG_RUNTIME_DIR given).
char g_runtime[kPathSize] = "";

// The lock on the place, held for the whole run.
int g_placeLock = -1;

// webkit-<pid>-<digits>: an instance of the host with that pid.
bool InstanceOf(pid_t pid, const char* name) {
    char prefix[32];
    int length = snprintf(prefix, sizeof prefix, "webkit-%d-", static_cast<int>(pid));
    if (strncmp(name, prefix, static_cast<size_t>(length)) != 0 || !name[length]) return false;
    for (const char* c = name + length; *c; ++c) {
        if (*c < '0' || *c > '9') return false;
    }
    return true;
}

void RemoveInstanceDirectories(pid_t pid) {
    int runtime = g_runtime[0] ? open(g_runtime, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    if (runtime < 0) return;
    int fd = openat(runtime, ".flatpak", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    close(runtime);
    DIR* instances = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!instances) {
        if (fd >= 0) close(fd);
        return;
    }
    while (struct dirent* entry = readdir(instances)) {
        if (InstanceOf(pid, entry->d_name)) RemoveTree(fd, entry->d_name);
    }
    closedir(instances);
}

// The place of a host that is gone (SIGKILL, a crash) names its pid: the
// instance directories of its web processes go with the place.  Should the
// pid be in use again, they stay: they may be the new process's.
void ForgetAbandonedInstances(int place) {
    char text[16] = "";
    int fd = openat(place, "pid", O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    ssize_t length = fd >= 0 ? read(fd, text, sizeof text - 1) : -1;
    if (fd >= 0) close(fd);
    text[length > 0 ? length : 0] = '\0';
    pid_t pid = static_cast<pid_t>(atoi(text));
    if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) RemoveInstanceDirectories(pid);
}

// The state letter and parent of a process, from /proc/<pid>/stat (the
// name between the parentheses may hold anything).
bool ReadStat(pid_t pid, char* name, size_t size, char* state, pid_t* parent) {
    char path[64], text[512];
    snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    FILE* file = fopen(path, "re");
    size_t length = file ? fread(text, 1, sizeof text - 1, file) : 0;
    if (file) fclose(file);
    text[length] = '\0';
    char *open = strchr(text, '('), *close = strrchr(text, ')');
    int parentNumber = 0;
    if (!open || !close || close < open || sscanf(close + 1, " %c %d", state, &parentNumber) != 2)
        return false;
    snprintf(name, size, "%.*s", static_cast<int>(close - open - 1), open + 1);
    *parent = parentNumber;
    return true;
}

// WebKit's processes (its network process, the bubblewrap sandboxes of the
// web processes) end only after the host, and the network process writes a
// page's storage as it goes: they are ended first, and waited for (for a
// second at most), so that nothing is written into the place once it is gone.
// Needed while WebKit leaves its processes to end on their own.
void EndWebKitProcesses() {
    pid_t ended[64];
    size_t count = 0;
    DIR* proc = opendir("/proc");
    while (struct dirent* entry = proc ? readdir(proc) : nullptr) {
        pid_t pid = static_cast<pid_t>(atoi(entry->d_name)), parent = 0;
        char name[32], state = 0;
        if (pid <= 0 || count == 64 || !ReadStat(pid, name, sizeof name, &state, &parent) ||
            parent != getpid() || (strncmp(name, "WebKit", 6) != 0 && strcmp(name, "bwrap") != 0)) {
            continue;
        }
        if (kill(pid, SIGKILL) == 0) ended[count++] = pid;
    }
    if (proc) closedir(proc);
    for (int wait = 0; wait < 100; ++wait) {
        size_t alive = 0;
        for (size_t i = 0; i < count; ++i) {
            char name[32], state = 0;
            pid_t parent = 0;
            alive += ReadStat(ended[i], name, sizeof name, &state, &parent) && state != 'Z';
        }
        if (!alive) break;
        usleep(10000);
    }
}

}  // namespace

bool PrepareWebDataPlaces() {
    if (g_place[0]) return true;
    const char* runtime = getenv("XDG_RUNTIME_DIR");
    if (runtime && runtime[0] == '/' && strlen(runtime) < sizeof g_runtime)
        snprintf(g_runtime, sizeof g_runtime, "%s", runtime);
    g_placeLock = MakePrivateDirectory(
        "kavori-web-", strlen("/config"), g_place, sizeof g_place, ForgetAbandonedInstances);
    if (g_placeLock < 0) {
        fprintf(stderr,
                "kavori-host: no private directory could be made: WebKit keeps its data under HOME\n");
        return false;
    }
    char pid[16];
    int pidFile = openat(g_placeLock, "pid", O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (pidFile >= 0) {
        (void)!write(pidFile, pid, static_cast<size_t>(snprintf(pid, sizeof pid, "%d", int(getpid()))));
        close(pidFile);
    }
    // GLib reads these variables once, on the first question, and keeps
    // its answers for the whole run; the variables themselves go back.
    const char* const variables[][2] = {{"HOME", "home"},
                                        {"XDG_CACHE_HOME", "cache"},
                                        {"XDG_DATA_HOME", "data"},
                                        {"XDG_CONFIG_HOME", "config"}};
    char* saved[4];
    for (size_t i = 0; i < 4; ++i) {
        saved[i] = g_strdup(getenv(variables[i][0]));
        char path[kPathSize];
        int written = snprintf(path, sizeof path, "%s/%s", g_place, variables[i][1]);
        if (written > 0 && static_cast<size_t>(written) < sizeof path) setenv(variables[i][0], path, 1);
    }
    // webkit_web_context_add_path_to_sandbox compares with the home
    // directory's real path, and crashes when there is none: it must exist.
    mkdir(g_get_home_dir(), 0700);
    g_get_user_cache_dir();
    g_get_user_data_dir();
    g_get_user_config_dir();
    g_get_user_runtime_dir();
    for (size_t i = 0; i < 4; ++i) {
        if (saved[i])
            setenv(variables[i][0], saved[i], 1);
        else
            unsetenv(variables[i][0]);
        g_free(saved[i]);
    }
    atexit(RemoveWebDataPlaces);
    return true;
}

void RemoveWebDataPlaces() {
    EndWebKitProcesses();
    RemoveInstanceDirectories(getpid());
    if (g_place[0]) RemoveTree(AT_FDCWD, g_place);
}
