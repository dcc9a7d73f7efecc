#include "app/result_store.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/app_commands.h"
#include "app/launch.h"
#include "app/signals.h"
#include "native/plugin_session.h"

namespace {

bool IsEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }

// The caller's descriptor as the host found it at start: -1 when none.
int g_heldFd = -1;
dev_t g_heldDevice = 0;
ino_t g_heldInode = 0;

// The descriptor that /dev/fd/N, /proc/self/fd/N or /dev/stdin|stdout|stderr
// names, in exactly these spellings (N decimal, no leading zero); -1 for
// any other path.
int NamedDescriptor(const char* path) {
    static const char* const kStandard[] = {"/dev/stdin", "/dev/stdout", "/dev/stderr"};
    for (int fd = 0; fd < 3; ++fd) {
        if (strcmp(path, kStandard[fd]) == 0) return fd;
    }
    for (const char* prefix : {"/dev/fd/", "/proc/self/fd/"}) {
        if (strncmp(path, prefix, strlen(prefix)) != 0) continue;
        const char* digits = path + strlen(prefix);
        size_t count = strspn(digits, "0123456789");
        if (count == 0 || count > 9 || digits[count] != '\0' || (digits[0] == '0' && count > 1)) return -1;
        return atoi(digits);
    }
    return -1;
}

// A stream may be non-blocking (the caller's choice): then wait until it
// takes more.  A termination signal ends the writing, as it ends the host:
// a caller that reads nothing cannot hold it.
bool WriteAll(int fd, const char* text, size_t length) {
    while (length > 0) {
        if (TerminatedBySignal()) {
            errno = EINTR;
            return false;
        }
        ssize_t n = write(fd, text, length);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
            struct pollfd writable = {fd, POLLOUT, 0};
            if (errno == EAGAIN) poll(&writable, 1, -1);
            continue;
        }
        if (n <= 0) return false;
        text += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool CloseKeepingError(int fd, bool ok) {
    int saved = errno;
    if (close(fd) != 0) return false;
    errno = saved;
    return ok;
}

// A FIFO or terminal that the caller named on purpose: written as it is.
// A FIFO nobody reads fails at once (ENXIO) instead of holding the host
// for ever; a reader still waiting in open() counts as one.
bool WriteToStream(const char* path, const char* text) {
    int fd = open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return false;
    return CloseKeepingError(fd, WriteAll(fd, text, strlen(text)));
}

// The caller's own descriptor: written at its offset (so appended when the
// caller opened it so), never truncated nor replaced, since the caller
// chose the file and holds it.  Above 2 it is closed afterwards, so that a
// reader of a pipe sees its end at once.  Only the descriptor held since
// start-up, still the same file: never one the host opened itself.
bool WriteThroughDescriptor(int fd, const char* text) {
    struct stat st;
    if (fd != g_heldFd || fstat(fd, &st) != 0 || st.st_dev != g_heldDevice || st.st_ino != g_heldInode) {
        errno = EBADF;
        return false;
    }
    bool ok = WriteAll(fd, text, strlen(text));
    return fd > 2 ? CloseKeepingError(fd, ok) : ok;
}

// A file: a private temporary file beside it, renamed into place once it is
// whole, so the caller reads all of the result or nothing, and a name
// planted meanwhile is replaced rather than followed.
bool ReplaceFile(const char* path, const char* text, mode_t mode) {
    std::string temporary = std::string(path) + ".XXXXXX";
    int fd = mkostemp(&temporary[0], O_CLOEXEC);  // mode 0600
    if (fd < 0) return false;
    bool ok = fchmod(fd, mode) == 0 && WriteAll(fd, text, strlen(text)) && fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (ok && rename(temporary.c_str(), path) == 0) return true;
    unlink(temporary.c_str());
    return false;
}

// The result goes only where the caller could have meant it: never through
// a symlink, never into someone else's file.
bool WriteResult(const char* path, const char* text) {
    struct stat st;
    if (lstat(path, &st) != 0) return errno == ENOENT && ReplaceFile(path, text, 0600);
    bool ours = st.st_uid == getuid();
    if (S_ISREG(st.st_mode) && ours) return ReplaceFile(path, text, st.st_mode & 07777);
    if ((S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode)) && (ours || st.st_uid == 0))
        return WriteToStream(path, text);
    errno = S_ISLNK(st.st_mode) ? ELOOP : EPERM;
    return false;
}

}  // namespace

void HoldResultDescriptor(const char* storePath) {
    g_heldFd = -1;
    int fd = storePath ? NamedDescriptor(storePath) : -1;
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) return;
    g_heldFd = fd;
    g_heldDevice = st.st_dev;
    g_heldInode = st.st_ino;
    // No web process, script or program the host starts gets the caller's
    // stream: none of them could write into the result.  0 to 2 are shared
    // with them as they are.
    if (fd > 2) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

void PassResultDescriptorOn() {
    if (g_heldFd > 2) fcntl(g_heldFd, F_SETFD, 0);
}

const char* ResultText() {
    const char* result = IsEmpty(g_exitResult) ? "OK" : g_exitResult;
    // Only the exact success words give way to the page's success text.
    if (!IsEmpty(g_exitSuccessText) && (strcmp(result, "OK") == 0 || strcmp(result, "CKR_OK") == 0)) {
        result = g_exitSuccessText;
    }
    return result;
}

void StoreResult(const char* storePath) {
    if (!IsEmpty(storePath)) {
        // A reader that has gone is said (EPIPE), not a silent end of the host.
        signal(SIGPIPE, SIG_IGN);
        // The bytes alone: no terminator, no line end.
        int fd = NamedDescriptor(storePath);
        if (!(fd >= 0 ? WriteThroughDescriptor(fd, ResultText()) : WriteResult(storePath, ResultText()))) {
            fprintf(stderr, "kavori-host: the result was not stored in %s: %s\n", storePath, strerror(errno));
        }
    }
    // The key is not left behind in the plug-in, whether or not a file was asked for.
    ClearKey();
}

int32_t RunTestOption(const char* value) {
    if (value == nullptr) return 0;
    // install runs from the working directory only; the others look in the
    // per-user and system directories first.
    if (strcmp(value, "script install") == 0) {
        RunMaintenanceScript("install", false);
    } else if (strcmp(value, "script repair") == 0) {
        RunMaintenanceScript("repair", true);
    } else if (strcmp(value, "script uninstall") == 0) {
        RunMaintenanceScript("uninstall", true);
    }
    return 0;
}
