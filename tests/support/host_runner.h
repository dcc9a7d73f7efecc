// Real windows for the tests: a private Xvfb per test process, the host run
// on it with a recording plug-in, and small X queries.  Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kvotest {

// An Xvfb server of its own (1280x1024x24 unless told otherwise).
class XServer {
public:
    explicit XServer(const std::string& screen = "1280x1024x24");
    ~XServer();
    XServer(const XServer&) = delete;
    XServer& operator=(const XServer&) = delete;
    bool ok() const { return !m_display.empty(); }
    const std::string& display() const { return m_display; }

private:
    pid_t m_pid = -1;
    std::string m_display;
};

// The host run as a child process with DISPLAY set, HOME and the plug-in's
// record and answer files pointed at a directory of its own.
class HostProcess {
public:
    explicit HostProcess(const XServer& x);
    ~HostProcess();  // kills what is still running
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    // Extra environment entries ("NAME=value"; "NAME" alone unsets).
    void AddEnv(const std::string& entry) { m_env.push_back(entry); }
    // Starts the host with these arguments (the path is added in front).
    bool Start(const std::vector<std::string>& arguments);
    // Starts exactly argv (argv[0] the file run) in the host's environment.
    bool StartArgv(const std::vector<std::string>& argv);
    // Waits for the end: the -store file's text ("<no result>" without one),
    // or "<status N> " and the output when the exit status is not 0.
    std::string Result(int timeoutMs = 30000);
    // Waits for the host to end; its exit status, or -1 on timeout/signal.
    int Wait(int timeoutMs = 20000);
    bool Running();
    pid_t pid() const { return m_pid; }
    std::string output() const;  // stdout + stderr so far

    // The first X window that shows the name, or 0 after the timeout.
    unsigned long WaitForWindow(const std::string& title, int timeoutMs = 15000);
    // The host's top-level window (by its pid), or 0 after the timeout.
    unsigned long WaitForOwnWindow(int timeoutMs = 15000);

    const std::string& dir() const { return m_dir; }  // scratch directory
    std::string recordPath() const { return m_dir + "/record.txt"; }
    std::string answersPath() const { return m_dir + "/answers.txt"; }
    std::string storePath() const { return m_dir + "/result.txt"; }
    std::string home() const { return m_dir + "/home"; }
    std::vector<std::string> Record() const;  // lines the plug-in wrote
    // Polls the record for this line; false after the timeout.
    bool WaitForRecord(const std::string& line, int timeoutMs = 15000) const;
    // The value of the last "SetProperty <name>=" line, or "<none>".
    std::string LastSet(const std::string& name) const;

private:
    const XServer& m_x;
    std::vector<std::string> m_env;
    std::string m_dir;
    std::string m_outputPath;
    pid_t m_pid = -1;
};

// The host binary and the recording plug-in's directory in the build tree.
std::string HostBinary();
std::string RecordingPluginDir();
std::string PluginDir(const std::string& variant);
std::string PageUrl(const std::string& name);  // file:// URL of tests/fixtures/pages/<name>

// Runs an X client on the display; its stdout, or "" on failure.
std::string XQuery(const XServer& x, const std::vector<std::string>& argv, int timeoutMs = 5000);

// PageUrl(name) with "?" and the query, percent-encoded.
std::string PageUrlWithQuery(const std::string& name, const std::string& query);
// A string member of a page's findings (JSON), unescaped; "<missing>" without it.
std::string Finding(const std::string& json, const std::string& name);

// Sends WM_DELETE_WINDOW as a window manager's close button does.
bool SendDeleteWindow(const XServer& x, unsigned long window);

// Counts the windows mapped from its creation on, leaving out
// override-redirect ones (the toolkit maps a 1x1 helper of that kind).
class MapCounter {
public:
    explicit MapCounter(const XServer& x);
    ~MapCounter();
    MapCounter(const MapCounter&) = delete;
    MapCounter& operator=(const MapCounter&) = delete;
    int Maps();  // -1 when the display could not be opened

private:
    void* m_display = nullptr;
    int m_maps = 0;
};

// Runs the host to its end: a page that reports through
// Application("exit", result) with -store; returns the stored text
// (or "<no result>" when nothing was written).
std::string RunPage(const XServer& x, const std::string& page, const std::vector<std::string>& extraArguments = {},
                    const std::vector<std::string>& extraEnv = {}, std::vector<std::string>* record = nullptr);

}  // namespace kvotest
