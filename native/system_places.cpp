#include "native/system_places.h"

#include <cstdlib>
#include <cstring>

namespace {

const char* const kRealPaths[PLACE_COUNT] = {"/usr/bin/kvo",
                                             "/etc/kvo/",
                                             "/usr/lib/",
                                             "/etc/kvo.conf",
                                             "/etc/issue.net",
                                             "/usr/bin/bwrap",
                                             "/usr/bin/xdg-dbus-proxy"};
// Empty: the real places.  Fixed buffers, so no global constructor runs.
char g_moved[PLACE_COUNT][256];

}  // namespace

const char* SystemPath(SystemPlace place) {
    if (place < 0 || place >= PLACE_COUNT) return "";
    return g_moved[place][0] != '\0' ? g_moved[place] : kRealPaths[place];
}

const char* HomeDirectory() { return getenv("HOME"); }

bool MoveSystemPlacesForTests(const char* root) {
    size_t length = root != nullptr ? strlen(root) : 0;
    for (int i = 0; i < PLACE_COUNT; ++i) {
        if (length + strlen(kRealPaths[i]) >= sizeof g_moved[i]) return false;
    }
    for (int i = 0; i < PLACE_COUNT; ++i) {
        g_moved[i][0] = '\0';
        if (length == 0) continue;
        memcpy(g_moved[i], root, length);
        memcpy(g_moved[i] + length, kRealPaths[i], strlen(kRealPaths[i]) + 1);
    }
    return true;
}
