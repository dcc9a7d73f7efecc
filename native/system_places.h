// The fixed places of an installation that the host reads: HOME, the
// system-wide program, configuration directory and library directory, the
// global configuration file, the operating system's description, and the
// programs WebKit's sandbox needs.  Every
// reader asks here.  The host always uses the real places; only a test can
// move them below a directory of its own, and the host never does.
#pragma once

enum SystemPlace {
    PLACE_SYSTEM_PROGRAM,  // "/usr/bin/kvo"
    PLACE_SYSTEM_ETC,      // "/etc/kvo/"
    PLACE_LIBRARY_DIR,     // "/usr/lib/", the default library directory
    PLACE_GLOBAL_CONFIG,   // "/etc/kvo.conf"
    PLACE_OS_DESCRIPTION,  // "/etc/issue.net"
    PLACE_BWRAP,           // "/usr/bin/bwrap", as WebKit's sandbox runs it
    PLACE_DBUS_PROXY,      // "/usr/bin/xdg-dbus-proxy", likewise
    PLACE_COUNT
};

// The place's path (never null).
const char* SystemPath(SystemPlace place);
// HOME, or null when it is not set.
const char* HomeDirectory();

// Tests only: every place becomes root + its path ("" or null: the real
// places again).  A root that would make a path of 256 bytes or more is refused.
bool MoveSystemPlacesForTests(const char* root);
