#include "bridge/private_directory.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kRandomPart = 6;  // mkdtemp's XXXXXX

// A host of this user that could not remove its directory left it unlocked.
// Another user's directories and symbolic links are not touched.
void RemoveAbandoned(const char* base, const char* prefix, void (*abandoned)(int fd)) {
    DIR* listing = opendir(base);
    if (!listing) return;
    int baseFd = dirfd(listing);
    size_t prefixLength = strlen(prefix);
    while (struct dirent* entry = readdir(listing)) {
        if (strncmp(entry->d_name, prefix, prefixLength) != 0 ||
            strlen(entry->d_name) != prefixLength + kRandomPart) {
            continue;
        }
        int fd = openat(baseFd, entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat st;
        if (fstat(fd, &st) == 0 && st.st_uid == getuid() && flock(fd, LOCK_EX | LOCK_NB) == 0) {
            if (abandoned) abandoned(fd);
            RemoveTree(baseFd, entry->d_name);
        }
        close(fd);
    }
    closedir(listing);
}

// mkdtemp, then the lock.  Between the two another host may take the new
// directory for abandoned and remove it: then it is made anew.
int MakeLocked(char* path, size_t size, const char* pattern) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        snprintf(path, size, "%s", pattern);
        if (!mkdtemp(path)) return -1;  // mode 0700
        int fd = open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) {
            rmdir(path);
            return -1;
        }
        struct stat held, named;
        if (flock(fd, LOCK_EX | LOCK_NB) == 0 && fstat(fd, &held) == 0 && lstat(path, &named) == 0 &&
            held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
            return fd;
        }
        close(fd);
    }
    return -1;
}

}  // namespace

bool SafeBase(const char* base) {
    struct stat st;
    if (!base || base[0] != '/' || stat(base, &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    if (st.st_uid != getuid() && st.st_uid != 0) return false;
    return (st.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (st.st_mode & S_ISVTX) != 0;
}

int MakePrivateDirectory(const char* prefix, size_t room, char* out, size_t size, void (*abandoned)(int fd)) {
    const char* bases[] = {getenv("XDG_RUNTIME_DIR"), getenv("TMPDIR"), "/tmp"};
    for (const char* base : bases) {
        if (!SafeBase(base)) continue;
        char pattern[4096];
        int length = snprintf(pattern, sizeof pattern, "%s/%sXXXXXX", base, prefix);
        if (length <= 0 || static_cast<size_t>(length) + room >= size) continue;
        RemoveAbandoned(base, prefix, abandoned);
        int fd = MakeLocked(out, size, pattern);
        if (fd >= 0) return fd;
    }
    if (size > 0) out[0] = '\0';
    return -1;
}

namespace {
// Deeper trees than any WebKit makes are left standing rather than run the
// stack or the descriptors out.
void RemoveTreeAt(int dirFd, const char* name, int depth) {
    if (unlinkat(dirFd, name, 0) == 0 || errno == ENOENT || depth > 64) return;
    int fd = openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR* dir = fd >= 0 ? fdopendir(fd) : nullptr;
    if (!dir) {
        if (fd >= 0) close(fd);
        return;
    }
    while (struct dirent* entry = readdir(dir)) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            RemoveTreeAt(fd, entry->d_name, depth + 1);
    }
    closedir(dir);
    unlinkat(dirFd, name, AT_REMOVEDIR);
}
}  // namespace

void RemoveTree(int dirFd, const char* name) { RemoveTreeAt(dirFd, name, 0); }
