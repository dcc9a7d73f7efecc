#include "app/paths.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>

#include "app/host_state.h"
#include "app/options.h"
#include "native/library_manager.h"

void* g_readyHandle = nullptr;

namespace {

constexpr size_t kPathSize = 256;
constexpr char kSystemProgram[] = "/usr/bin/kvo";
constexpr char kSystemIcon[] = "/etc/kvo/kvo.ico";

bool Exists(const char* path) {
    struct stat st;
    return stat(path, &st) == 0;
}

// buffer = first + second when that fits in kPathSize bytes; a candidate
// that does not fit is skipped rather than cut short.
bool Compose(char* buffer, const char* first, size_t firstLength, const char* second) {
    size_t secondLength = strlen(second);
    buffer[0] = '\0';
    if (firstLength + secondLength >= kPathSize) return false;
    memcpy(buffer, first, firstLength);
    memcpy(buffer + firstLength, second, secondLength + 1);
    return true;
}

bool CopyOut(const char* path, char* out, uint32_t size) {
    size_t length = strlen(path);
    if (length >= size) return false;
    memcpy(out, path, length + 1);
    return true;
}

// The saved command line's value of name when it fits in a path buffer.
const char* SavedOptionValue(const char* name) {
    const char* value = nullptr;
    if (!FindOptionValue(g_argc, g_argv, name, &value)) return nullptr;
    return strlen(value) < kPathSize ? value : nullptr;
}

const char* OwnPath() { return g_argc >= 1 && g_argv != nullptr ? g_argv[0] : nullptr; }

}  // namespace

void SetReadyHandle() {
    // Nothing reads the block: only whether the handle is set matters.
    if (g_readyHandle == nullptr) g_readyHandle = calloc(64, 1);
}

bool FindInstalledLibraryDirectory(char* out, uint32_t size) {
    if (out == nullptr || size == 0) return false;
    out[0] = '\0';

    char path[kPathSize];
    bool found = false;
    const char* home = getenv("HOME");
    if (home != nullptr) found = Compose(path, home, strlen(home), "/.kvo/bin/kvo") && Exists(path);
    if (!found) found = Compose(path, kSystemProgram, sizeof kSystemProgram - 1, "") && Exists(path);
    if (!found) return false;

    // .../bin/kvo -> .../lib
    *strrchr(path, '/') = '\0';
    char* last = strrchr(path, '/');
    size_t keep = static_cast<size_t>(last - path) + 1;
    char directory[kPathSize];
    if (!Compose(directory, path, keep, "lib")) return false;
    return CopyOut(directory, out, size) && out[0] != '\0';
}

bool FindWindowIcon(char* out, uint32_t size) {
    if (out == nullptr || size == 0) return false;
    out[0] = '\0';

    char path[kPathSize];
    bool found = false;
    const char* own = OwnPath();
    // 248 bytes: the longest own path whose directory and "/kvo.ico" are sure to fit.
    if (own != nullptr && strlen(own) <= 248) {
        const char* slash = strrchr(own, '/');
        found = slash != nullptr && Compose(path, own, static_cast<size_t>(slash - own), "/kvo.ico") && Exists(path);
    }
    if (!found) {
        const char* root = nullptr;
        if (FindOptionValue(g_argc, g_argv, "-root", &root)) {
            found = Compose(path, root, strlen(root), "/kvo.ico") && Exists(path);
        }
    }
    if (!found) {
        const char* home = getenv("HOME");
        found = home != nullptr && Compose(path, home, strlen(home), "/.kvo/kvo.ico") && Exists(path);
    }
    if (!found) found = Compose(path, kSystemIcon, sizeof kSystemIcon - 1, "") && Exists(path);
    if (!found) return false;
    return CopyOut(path, out, size) && out[0] != '\0';
}

void* GetReadyHandle() {
    if (g_readyHandle != nullptr) return g_readyHandle;

    char root[kPathSize];
    root[0] = '\0';
    const char* rootValue = SavedOptionValue("-root");
    const char* own = OwnPath();
    if (rootValue != nullptr) {
        memcpy(root, rootValue, strlen(rootValue) + 1);
    } else if (own != nullptr && strlen(own) < kPathSize) {
        // The host's own directory.  A host started by a bare name found
        // along PATH has none to offer (the name is no directory), so it
        // takes the empty root and with it the default library directory.
        const char* slash = strrchr(own, '/');
        if (slash != nullptr) {
            size_t length = static_cast<size_t>(slash - own);
            memcpy(root, own, length);
            root[length] = '\0';
        }
    }
    const char* config = SavedOptionValue("-config");

    if (StartLibraries(nullptr, root[0] != '\0' ? root : "/usr/lib/",
                       config != nullptr && config[0] != '\0' ? config : "/etc/kvo.conf", nullptr, 0,
                       LOAD_PLUGIN) == KVO_OK) {
        SetReadyHandle();
    }
    return g_readyHandle;
}
