// What the window and process tests read back from X and from the host's
// children, processes started with an argv of the test's choosing, and
// private mount namespaces for the system-wide places.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

namespace kvotest {

// "WxH+X+Y" as X has the window (xwininfo); "" when it cannot be read.
std::string ShapeOf(const XServer& x, unsigned long window);
// xprop's text for one property of the window.
std::string PropertyOf(const XServer& x, unsigned long window, const std::string& property);
// The sizes of the icons in _NET_WM_ICON, as "16x16 ..."; "" when none.
std::string IconSizes(const XServer& x, unsigned long window);
// Reads until the text holds part or timeoutMs has passed; the last text.
std::string WaitForText(const std::function<std::string()>& read, const std::string& part, int timeoutMs = 8000);
// The window of a process by its pid, once visible; 0 after the timeout.
unsigned long WaitForWindowOf(const XServer& x, pid_t pid, int timeoutMs = 15000);
// Polls the plug-in's record for a line; false after the timeout.
bool WaitForRecordLine(const std::string& recordPath, const std::string& line, int timeoutMs = 15000);
// The value of the last "SetProperty <name>=" line of a record, or "<none>".
std::string LastProperty(const std::vector<std::string>& record, const std::string& name);
bool CopyFile(const std::string& from, const std::string& to, int mode = 0755);  // making directories
// A Windows icon file of size x size opaque pixels.
bool WriteIcon(const std::string& path, int size);

// Counts the managed windows mapped on the screen from its creation on.
using MapWatch = MapCounter;  // the shared counter of mapped windows

// A process started with exactly this argv (argv[0] is the file run), the
// host's usual test environment plus env; killed with its group at the end.
class Launch {
public:
    Launch(const XServer& x, const std::string& home, const std::vector<std::string>& argv,
           const std::vector<std::string>& env = {});
    ~Launch();
    pid_t pid() const { return m_pid; }
    int Wait(int timeoutMs = 20000);  // exit status, -1 on timeout or signal
    std::string output() const { return ReadFileOr(m_output); }

private:
    pid_t m_pid = -1;
    std::string m_output;
};

// Overlays on system directories in a private mount namespace for a child
// process, so that files can be put into /etc, /usr/bin or /usr/lib for it only.
class Overlays {
public:
    Overlays(const std::string& scratch, const std::vector<std::string>& directories);
    // Where to write a file that the process should see at path (its directories are made).
    std::string Upper(const std::string& path) const;
    // The command that runs argv in the namespace; 77 when no namespace or mount can be had.
    std::vector<std::string> Wrap(const std::vector<std::string>& argv) const;

private:
    std::string m_scratch;
    std::vector<std::string> m_directories;
};
// Skips the test when this machine gives no such namespace.
void SkipWithoutOverlays();

// A shell script that writes how it was started to outputPath (whole at
// once), then runs tail.
std::string ProbeScript(const std::string& outputPath, const std::string& tail = "");
struct Probe {
    long pid = -1, pgid = -1, sid = -1;
    std::string path;               // $0
    std::vector<std::string> args;  // $1 ...
};
bool ReadProbe(const std::string& outputPath, Probe* probe);  // false while the file is missing

}  // namespace kvotest
