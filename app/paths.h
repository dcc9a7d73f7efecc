// Where the host finds the middleware's installation: its main program,
// library directory, window icon and maintenance scripts, looked for below
// HOME and in the system places.  Paths are built in buffers of 256 bytes;
// a candidate that would not fit is skipped, never cut short.
#pragma once

#include <cstdint>

// HOME/.kvo/bin/kvo, else /usr/bin/kvo: the first that exists.
bool FindAdminProgram(char* out, uint32_t size);
// The admin program's ../lib: HOME/.kvo/lib or /usr/lib.
bool FindInstalledLibraryDirectory(char* out, uint32_t size);
// Beside the executable, in -root, HOME/.kvo, /etc/kvo: first existing kvo.ico.
bool FindWindowIcon(char* out, uint32_t size);
// With search, HOME/.kvo/<name>, else /etc/kvo/<name>; then "." + name in
// the working directory.  A script counts only when it is a regular file,
// not a symlink, owned by the user or root and not writable by group or
// others, in a directory of the user's or root's that neither group nor
// others may write.  Returns the script opened with O_PATH (close-on-exec),
// to be executed as it is, and its path in out; -1 when none counts.
int OpenMaintenanceScript(const char* name, bool search, char* out, uint32_t size);
// The lazy start's root from the saved command line: -root when it fits,
// else the host's own directory ("" for a bare program name).
void LazyStartRoot(char* out, uint32_t size);
