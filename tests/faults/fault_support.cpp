#include "tests/faults/fault_support.h"

#include <X11/Xlib.h>
#include <dirent.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "tests/support/support.h"

namespace kvotest {

namespace {

long long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// State and parent from /proc/<pid>/stat; the name in parentheses may hold
// blanks, so fields are read after its closing one.
bool StatOf(pid_t pid, char* state, pid_t* parent) {
    std::string stat = ReadFileOr("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 4 > stat.size()) return false;
    *state = stat[close + 2];
    *parent = static_cast<pid_t>(atol(stat.c_str() + close + 4));
    return true;
}

bool Live(pid_t pid) {
    char state = 0;
    pid_t parent = 0;
    return StatOf(pid, &state, &parent) && state != 'Z' && state != 'X';
}

}  // namespace

std::string FaultPageUrl(const std::string& name, const std::string& query) {
    std::string url = "file://" + SourceDir() + "/tests/faults/pages/" + name;
    return query.empty() ? url : url + "?" + query;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
    long long deadline = NowMs() + timeoutMs;
    while (true) {
        if (done()) return true;
        if (NowMs() >= deadline) return false;
        usleep(50000);
    }
}

std::vector<pid_t> AllProcesses() {
    std::vector<pid_t> pids;
    DIR* dir = opendir("/proc");
    if (!dir) return pids;
    while (struct dirent* entry = readdir(dir)) {
        char* end = nullptr;
        long pid = strtol(entry->d_name, &end, 10);
        if (pid > 0 && end && *end == '\0') pids.push_back(static_cast<pid_t>(pid));
    }
    closedir(dir);
    return pids;
}

std::vector<pid_t> ChildrenOf(pid_t parent) {
    std::vector<pid_t> children;
    for (pid_t pid : AllProcesses()) {
        char state = 0;
        pid_t ppid = 0;
        if (StatOf(pid, &state, &ppid) && ppid == parent && state != 'Z' && state != 'X') children.push_back(pid);
    }
    return children;
}

std::string CmdlineOf(pid_t pid) { return ReadFileOr("/proc/" + std::to_string(pid) + "/cmdline"); }
std::string EnvironOf(pid_t pid) { return ReadFileOr("/proc/" + std::to_string(pid) + "/environ"); }

std::vector<pid_t> ProcessesWithEnv(const std::string& entry) {
    std::vector<pid_t> found;
    for (pid_t pid : AllProcesses()) {
        if (pid == getpid() || !Live(pid)) continue;
        std::string environ = '\0' + EnvironOf(pid);
        if (environ.find('\0' + entry + '\0') != std::string::npos) found.push_back(pid);
    }
    return found;
}

std::string ProgramOf(pid_t pid) {
    std::string cmdline = CmdlineOf(pid);
    std::string first = cmdline.substr(0, cmdline.find('\0'));
    size_t slash = first.rfind('/');
    return slash == std::string::npos ? first : first.substr(slash + 1);
}

std::vector<pid_t> WebProcessesOf(pid_t host) {
    std::vector<pid_t> web;
    for (pid_t pid : ChildrenOf(host)) {
        if (ProgramOf(pid) == "WebKitWebProcess") web.push_back(pid);
    }
    return web;
}

std::vector<std::string> SocketDirectories(const std::string& scratch) {
    std::vector<std::string> found;
    DIR* dir = opendir(scratch.c_str());
    if (!dir) return found;
    while (struct dirent* entry = readdir(dir)) {
        if (strncmp(entry->d_name, "kavori-", 7) == 0) found.push_back(scratch + "/" + entry->d_name);
    }
    closedir(dir);
    return found;
}

std::vector<pid_t> WaitForNoProcessOf(const std::string& scratch, int timeoutMs) {
    std::vector<pid_t> left;
    WaitUntil(
        [&] {
            left = ProcessesWithEnv("XDG_RUNTIME_DIR=" + scratch);
            return left.empty();
        },
        timeoutMs);
    return left;
}

bool CloseWindow(const XServer& x, unsigned long window) { return SendDeleteWindow(x, window); }

int CountLines(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

bool WaitForRecordCount(const HostProcess& host, const std::string& line, int count, int timeoutMs) {
    return WaitUntil([&] { return CountLines(host.Record(), line) >= count; }, timeoutMs);
}

}  // namespace kvotest
