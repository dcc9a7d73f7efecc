#include "app/result_store.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/app_commands.h"
#include "app/launch.h"
#include "native/plugin_session.h"

namespace {

bool IsEmpty(const char* text) { return text == nullptr || text[0] == '\0'; }

bool WriteAll(int fd, const char* text, size_t length) {
    while (length > 0) {
        ssize_t n = write(fd, text, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        text += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// A pipe or terminal that the caller named on purpose: written as it is.
bool WriteToStream(const char* path, const char* text) {
    int fd = open(path, O_WRONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = WriteAll(fd, text, strlen(text));
    return close(fd) == 0 && ok;
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
        // The bytes alone: no terminator, no line end.
        if (!WriteResult(storePath, ResultText())) {
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
