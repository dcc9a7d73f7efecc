// What the fault tests read back besides the window and the result file:
// the process table, the host's socket directory, and a window closed the
// way a window manager closes it.  Every wait is bounded.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/host_runner.h"

namespace kvotest {

// file:// URL of tests/faults/pages/<name>, with "?query" when given.
std::string FaultPageUrl(const std::string& name, const std::string& query = "");

// Polls until done() or timeoutMs has passed; done()'s last answer.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 15000);

// Live (not zombie) processes, by their parent or by their environment.
std::vector<pid_t> ChildrenOf(pid_t parent);
// Those whose environment holds exactly this entry ("NAME=value"): a host
// and everything it started carry the XDG_RUNTIME_DIR the test gave it.
std::vector<pid_t> ProcessesWithEnv(const std::string& entry);
// argv[0]'s last path component, "" when the process is gone.
std::string ProgramOf(pid_t pid);
// The live WebKitWebProcess children of a host.
std::vector<pid_t> WebProcessesOf(pid_t host);
// Raw /proc/<pid>/cmdline and environ ("" when unreadable).
std::string CmdlineOf(pid_t pid);
std::string EnvironOf(pid_t pid);
std::vector<pid_t> AllProcesses();

// The host's socket directories (kavori-*) in the scratch directory.
std::vector<std::string> SocketDirectories(const std::string& scratch);

// Waits until no process carries the scratch directory as XDG_RUNTIME_DIR;
// the ones still there after the timeout.
std::vector<pid_t> WaitForNoProcessOf(const std::string& scratch, int timeoutMs = 10000);

// Sends WM_DELETE_WINDOW as a window manager's close button does.
bool CloseWindow(const XServer& x, unsigned long window);

// Count of record lines equal to line; polls for at least `count` of them.
int CountLines(const std::vector<std::string>& lines, const std::string& line);
bool WaitForRecordCount(const HostProcess& host, const std::string& line, int count, int timeoutMs = 15000);

}  // namespace kvotest
