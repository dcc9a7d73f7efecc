#include "app/paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "app/host_state.h"
#include "app/options.h"
#include "native/system_places.h"

namespace {

constexpr size_t kPathSize = 256;

// out = first + second + third when that fits in kPathSize bytes and in
// size; a null part counts as empty.
bool Join(char* out, uint32_t size, const char* first, const char* second, const char* third = nullptr) {
    if (out == nullptr || size == 0) return false;
    out[0] = '\0';
    if (first == nullptr) return false;
    const char* parts[] = {first, second ? second : "", third ? third : ""};
    size_t total = 0;
    for (const char* part : parts) total += strlen(part);
    if (total >= kPathSize || total >= size) return false;
    char* p = out;
    for (const char* part : parts) p = stpcpy(p, part);
    return true;
}

bool Exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0;
}

// Written by nobody but the user or root, and writable by nobody else.
bool OwnedAndClosed(int fd) {
    struct stat st;
    return fstat(fd, &st) == 0 && (st.st_uid == getuid() || st.st_uid == 0) &&
           (st.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// A script runs with the user's rights: only one that nobody else could
// have planted, changed or swapped for another counts as there.  The
// checks are made on what was opened, never on the name again: the caller
// runs the descriptor.  Its directory must be closed to others too, or a
// file of the right owner (a link to a program of root's) could be put
// under the name.
int OpenTrustedScript(char* out, uint32_t size, const char* first, const char* second, const char* third) {
    char directory[kPathSize];
    if (!Join(out, size, first, second, third) || !Join(directory, sizeof directory, out, "")) return -1;
    char* slash = strrchr(directory, '/');
    const char* leaf = slash ? out + (slash - directory) + 1 : out;
    if (slash) {
        slash[1] = '\0';
    } else {
        strcpy(directory, ".");
    }
    int parent = open(directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    int script =
        parent >= 0 && OwnedAndClosed(parent) ? openat(parent, leaf, O_PATH | O_NOFOLLOW | O_CLOEXEC) : -1;
    if (parent >= 0) close(parent);
    struct stat st;
    if (script >= 0 && (fstat(script, &st) != 0 || !S_ISREG(st.st_mode) || !OwnedAndClosed(script))) {
        close(script);
        script = -1;
    }
    return script;
}

bool JoinExisting(char* out, uint32_t size, const char* first, const char* second,
                  const char* third = nullptr) {
    return Join(out, size, first, second, third) && Exists(out);
}

}  // namespace

bool FindAdminProgram(char* out, uint32_t size) {
    return JoinExisting(out, size, HomeDirectory(), "/.kvo/bin/kvo") ||
           JoinExisting(out, size, SystemPath(PLACE_SYSTEM_PROGRAM), "");
}

bool FindInstalledLibraryDirectory(char* out, uint32_t size) {
    char program[kPathSize];
    if (!FindAdminProgram(program, sizeof program)) {
        if (out != nullptr && size > 0) out[0] = '\0';
        return false;
    }
    // .../bin/kvo -> .../lib
    *strrchr(program, '/') = '\0';
    char* bin = strrchr(program, '/');
    bin[1] = '\0';
    return Join(out, size, program, "lib");
}

bool FindWindowIcon(char* out, uint32_t size) {
    // Beside the executable: the own path, at most 248 bytes, from its last
    // '/' on replaced by "/kvo.ico".
    char own[kPathSize];
    const char* ownPath = g_argc >= 1 && g_argv != nullptr ? g_argv[0] : "";
    const char* slash = strrchr(ownPath, '/');
    bool ownFits = slash != nullptr && strlen(ownPath) <= 248 && Join(own, sizeof own, ownPath, "");
    if (ownFits) own[slash - ownPath] = '\0';
    const char* root = nullptr;
    FindOptionValue(g_argc, g_argv, "-root", &root);
    return (ownFits && JoinExisting(out, size, own, "/kvo.ico")) ||
           (root != nullptr && JoinExisting(out, size, root, "/kvo.ico")) ||
           JoinExisting(out, size, HomeDirectory(), "/.kvo/kvo.ico") ||
           JoinExisting(out, size, SystemPath(PLACE_SYSTEM_ETC), "kvo.ico");
}

int OpenMaintenanceScript(const char* name, bool search, char* out, uint32_t size) {
    if (name == nullptr) return -1;
    int script = -1;
    if (search) script = OpenTrustedScript(out, size, HomeDirectory(), "/.kvo/", name);
    if (search && script < 0)
        script = OpenTrustedScript(out, size, SystemPath(PLACE_SYSTEM_ETC), name, nullptr);
    if (script < 0) script = OpenTrustedScript(out, size, ".", name, nullptr);
    return script;
}

void LazyStartRoot(char* out, uint32_t size) {
    if (out == nullptr || size == 0) return;
    out[0] = '\0';
    const char* root = nullptr;
    if (FindOptionValue(g_argc, g_argv, "-root", &root) && Join(out, size, root, "")) return;
    // The host's own directory.  A host started by a bare name found along
    // PATH has none to offer, so it takes the empty root and with it the
    // default library directory.
    const char* own = g_argc >= 1 && g_argv != nullptr ? g_argv[0] : nullptr;
    const char* slash = own != nullptr ? strrchr(own, '/') : nullptr;
    if (slash != nullptr && Join(out, size, own, "")) out[slash - own] = '\0';
}
