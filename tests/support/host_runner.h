// Real windows and real host runs for the end-to-end tests: a private Xvfb
// per test, the built host on it with the recording plug-in, X queries, and
// what a host leaves in the process table.  Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/support.h"

namespace kvotest {

// An Xvfb server of its own and the X clients run on it.
class XServer {
public:
    explicit XServer(const std::string& screen = "1280x1024x24");
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;
    bool ok() const { return !m_display.empty(); }
    const std::string& display() const { return m_display; }
    // An X client (xdotool, xprop, ...) on this display: its output, "" on failure.
    std::string Query(const std::vector<std::string>& argv, int timeoutMs = 5000) const;
    unsigned long WindowOf(pid_t pid, int timeoutMs = 30000) const;  // the first visible one, or 0
    std::string Shape(unsigned long window) const;                   // "WxH+X+Y" as X has it, "" when unknown
    std::string Property(unsigned long window, const std::string& name) const;  // xprop's line
    // WM_DELETE_WINDOW, as a window manager's close button sends it.
    bool SendDeleteWindow(unsigned long window) const;

private:
    pid_t m_pid = -1;
    std::string m_display;
};

std::string HostBinary();
std::string PluginDir(const std::string& variant);  // a built test plug-in: recording, no_PlgInvoke, ...
std::string PageUrl(const std::string& name);       // file:// URL of tests/fixtures/pages/<name>

// The host run as a child with DISPLAY, HOME, XDG_RUNTIME_DIR and the
// recording plug-in's files in a directory of its own, and no session bus
// (so that nothing autolaunched outlives it).
class HostProcess {
public:
    explicit HostProcess(const XServer& x);
    ~HostProcess();  // kills what is still running; the directory goes
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    std::vector<std::string> env;       // extra entries for the start ("NAME=value"; "NAME" unsets)
    std::string binary = HostBinary();  // the host Open starts
    std::vector<std::string> wrapper;   // Open runs the host through it ("unshare", ...)
    // The host on page (in tests/fixtures/pages, or a URL), the extra
    // arguments, then -root (the recording plug-in) and -store storePath(),
    // which extra may give first: the first occurrence counts.
    bool Open(const std::string& page, const std::vector<std::string>& extra = {});
    bool StartArgv(const std::vector<std::string>& argv);  // exactly argv, in the host's environment
    int Wait(int timeoutMs = 60000);                       // exit status; -1 on a timeout or a signal
    // Wait, then the -store file's text, "<no file>", or "<status N>" and the output.
    std::string Result(int timeoutMs = 60000);
    bool Running();
    pid_t pid() const { return m_pid; }
    std::string output() const { return ReadFileOr(dir() + "/output.txt"); }
    unsigned long Window(int timeoutMs = 30000) const { return m_x.WindowOf(m_pid, timeoutMs); }

    const std::string& dir() const { return m_dir.path(); }
    std::string home() const { return m_dir.file("home"); }
    std::string recordPath() const { return m_dir.file("record.txt"); }
    std::string answersPath() const { return m_dir.file("answers.txt"); }  // "name<TAB>value" lines
    std::string storePath() const { return m_dir.file("result.txt"); }
    std::vector<std::string> Record() const { return ReadLines(recordPath()); }
    bool WaitForRecord(const std::string& line, int count = 1, int timeoutMs = 30000) const;  // count times
    std::string LastSet(const std::string& name) const;  // the last "SetProperty name=" value, or "<none>"
    std::vector<std::string> SocketDirectories() const;  // the bridge's kavori-* in dir()
    // Waits until nothing of the host's is left in dir() (its directories,
    // WebKit's instance directories and proxy sockets) and no process
    // carrying this run's KVO_TEST_RECORD: "", else what is left.
    std::string Leftovers(int timeoutMs = 10000) const;

private:
    const XServer& m_x;
    TempDir m_dir;
    pid_t m_pid = -1;
};

std::vector<std::string> Glob(const std::string& pattern);      // the paths that match, sorted
std::vector<pid_t> ProcessesWithEnv(const std::string& entry);  // live ones, exactly this entry
std::string ProgramOf(pid_t pid);               // argv[0]'s last component; "" once gone (or a zombie)
std::vector<pid_t> WebProcessesOf(pid_t host);  // the live web processes of its run

}  // namespace kvotest
