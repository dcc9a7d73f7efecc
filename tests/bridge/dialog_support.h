// What the dialog tests share beyond the host runner: closing a window the
// way a user does, page URLs with a query, the page's findings, the plug-in's
// record, and a private /etc for one process tree.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/support/host_runner.h"

namespace kvotest {

// Asks the window to close as a window manager's close button does: a
// WM_PROTOCOLS client message with WM_DELETE_WINDOW.  False when it could
// not be sent.
bool CloseWindow(const XServer& x, unsigned long window);

// xprop's text for one property of the window.
std::string PropertyOf(const XServer& x, unsigned long window, const std::string& property);

// PageUrl(name) with "?" and the query, percent-encoded.
std::string PageUrlWithQuery(const std::string& name, const std::string& query);

// The text of a string member of the findings a page reported as JSON,
// unescaped; "<missing>" when there is none.
std::string Finding(const std::string& json, const std::string& name);

// Polls the plug-in's record for a line; false after the timeout.
bool WaitForRecordLine(const std::string& recordPath, const std::string& line, int timeoutMs = 15000);
// The value of the last "SetProperty <name>=" line, or "<none>".
std::string LastProperty(const std::vector<std::string>& record, const std::string& name);

// Counts the windows mapped on the screen from its creation on, leaving out
// override-redirect ones (the toolkit maps a 1x1 helper of that kind).
class MapWatch {
public:
    explicit MapWatch(const XServer& x);
    ~MapWatch();
    MapWatch(const MapWatch&) = delete;
    MapWatch& operator=(const MapWatch&) = delete;
    int Maps();  // -1 when the display could not be opened

private:
    void* m_display = nullptr;
    int m_maps = 0;
};

// A process started with exactly this argv and the host's test environment
// for host (DISPLAY, HOME, the plug-in's files); killed with its process
// group when still running at the end.
class Spawned {
public:
    Spawned(const XServer& x, const HostProcess& host, const std::vector<std::string>& argv);
    ~Spawned();
    Spawned(const Spawned&) = delete;
    Spawned& operator=(const Spawned&) = delete;
    int Wait(int timeoutMs = 30000);  // exit status, -1 on timeout or signal
    std::string output() const;

private:
    pid_t m_pid = -1;
    std::string m_outputPath;
};

// /etc with an overlay of its own for one command, in a private mount
// namespace: files put below Upper("/etc/...") are seen there only.
class PrivateEtc {
public:
    explicit PrivateEtc(const std::string& scratch);
    std::string Upper(const std::string& path) const;  // path below /etc; makes its directories
    // The command that runs argv there; it ends with 77 before running argv
    // when no namespace or no overlay can be had.
    std::vector<std::string> Wrap(const std::vector<std::string>& argv) const;

private:
    std::string m_scratch;
};

// Ends the test as skipped when this machine gives no private /etc.
void SkipWithoutPrivateEtc();

}  // namespace kvotest
