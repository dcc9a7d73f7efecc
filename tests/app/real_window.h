// What the window and process tests read back from X and from the host's
// children, and a host started with an argv[0] or a wrapper of the test's
// choosing (a symlinked host, a private mount namespace).
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/host_runner.h"

namespace kvotest {

struct WindowShape {
    int x = -1, y = -1, width = -1, height = -1;
    bool operator==(const WindowShape& o) const {
        return x == o.x && y == o.y && width == o.width && height == o.height;
    }
};
std::string ToString(const WindowShape& shape);

// Where X has the window (xwininfo); all -1 when it cannot be read.
WindowShape ShapeOf(const XServer& x, unsigned long window);
// xprop's text for one property of the window.
std::string PropertyOf(const XServer& x, unsigned long window, const std::string& property);
// The sizes of the icons in _NET_WM_ICON, as "16x16 ..."; "" when none.
std::string IconSizes(const XServer& x, unsigned long window);

// Calls read until done accepts its result or timeoutMs passes; returns
// the last result either way, so that the caller asserts on what it saw.
template <typename T>
T Poll(const std::function<T()>& read, const std::function<bool(const T&)>& done, int timeoutMs = 8000);

// The window of a process by its pid, once visible; 0 after the timeout.
unsigned long WaitForWindowOf(const XServer& x, pid_t pid, int timeoutMs = 15000);

// Polls for a file that another process writes; false after the timeout.
bool WaitForFile(const std::string& path, int timeoutMs = 10000);
// Polls the plug-in's record for a line; false after the timeout.
bool WaitForRecordLine(const std::string& recordPath, const std::string& line, int timeoutMs = 15000);
// The value of the last "SetProperty <name>=" line of a record, or "<none>".
std::string LastProperty(const std::vector<std::string>& record, const std::string& name);

// Writes a file, making the directories that lead to it.
bool PutFile(const std::string& path, const std::string& content, int mode = 0644);
// Copies a file, making the directories that lead to it.
bool CopyFile(const std::string& from, const std::string& to, int mode = 0755);
// A Windows icon file of size x size opaque pixels of one colour.
bool WriteIcon(const std::string& path, int size, unsigned rgb = 0x3060c0);

// Counts the windows mapped on the screen from its creation on (the
// root's MapNotify events), leaving out override-redirect ones.
class MapWatch {
public:
    explicit MapWatch(const XServer& x);
    ~MapWatch();
    MapWatch(const MapWatch&) = delete;
    MapWatch& operator=(const MapWatch&) = delete;
    bool ok() const { return m_display != nullptr; }
    int Maps();

private:
    void* m_display = nullptr;
    int m_maps = 0;
};

// A process started with exactly this argv (argv[0] is the file run) and
// the host's usual test environment plus env; killed with its process
// group when still running at the end.  Its output goes beside home.
class Launch {
public:
    Launch(const XServer& x, const std::string& home, const std::vector<std::string>& argv,
           const std::vector<std::string>& env = {});
    ~Launch();
    Launch(const Launch&) = delete;
    Launch& operator=(const Launch&) = delete;
    pid_t pid() const { return m_pid; }
    int Wait(int timeoutMs = 20000);  // exit status, -1 on timeout or signal
    std::string output() const;

private:
    pid_t m_pid = -1;
    std::string m_outputPath;
};

// A private mount namespace with overlays on system directories, so that
// files can be put into /etc, /usr/bin or /usr/lib for one process only.
class Overlays {
public:
    // Each directory gets an empty upper layer below scratch.
    Overlays(const std::string& scratch, const std::vector<std::string>& directories);
    // Where to put a file that the process should see at path (which
    // must lie in one of the directories).
    std::string Upper(const std::string& path) const;
    // The command that runs argv in the namespace; it ends with 77 when the
    // namespace or a mount cannot be had, before running argv.
    std::vector<std::string> Wrap(const std::vector<std::string>& argv) const;

private:
    std::string m_scratch;
    std::vector<std::string> m_directories;
};

// Ends the test as skipped when this machine gives no private mount
// namespace with overlay mounts.
void SkipWithoutOverlays();

// A shell script that reports how it was started into outputPath (written
// whole at once), then runs tail (shell text), if any.
std::string ProbeScript(const std::string& outputPath, const std::string& tail = "");
struct Probe {
    long pid = -1, pgid = -1, sid = -1;
    std::string path;               // $0
    std::vector<std::string> args;  // $1 ...
};
bool ReadProbe(const std::string& outputPath, Probe* probe);

long long MonotonicMs();
void SleepMs(int ms);

template <typename T>
T Poll(const std::function<T()>& read, const std::function<bool(const T&)>& done, int timeoutMs) {
    long long deadline = MonotonicMs() + timeoutMs;
    T value = read();
    while (!done(value) && MonotonicMs() < deadline) {
        SleepMs(50);
        value = read();
    }
    return value;
}

}  // namespace kvotest
