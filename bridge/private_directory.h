// Directories of the host's own for one run (the bridge's socket, WebKit's
// data): made by mkdtemp (mode 0700) only in a base that no other user can
// swap them in, and flock()ed for the process's whole life.  The lock goes
// with the process however it ends (SIGKILL, a crash), so a later host can
// tell a directory whose owner is gone, and removes it.
#pragma once

#include <cstddef>

// An absolute path of a directory owned by the user or root that others
// cannot write, unless it has the sticky bit.
bool SafeBase(const char* base);

// Tries XDG_RUNTIME_DIR, TMPDIR and /tmp in turn, taking the first safe base
// where base/<prefix>XXXXXX and `room` more bytes fit in `size` bytes.  There
// it removes this user's unlocked <prefix>XXXXXX directories and everything
// in them (`abandoned`, when given, first sees each one's descriptor), then
// makes a new one and locks it.  Its path goes to out; returns the lock's
// descriptor (close-on-exec, to be kept open), or -1 when no base served.
int MakePrivateDirectory(const char* prefix, size_t room, char* out, size_t size, void (*abandoned)(int fd));

// Removes name below dirFd and everything in it, following no symbolic link
// (a process may still be writing in there).
void RemoveTree(int dirFd, const char* name);
