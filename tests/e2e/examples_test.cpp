// What ships: the packaged host.  The demo dialogs with the demo plug-in on
// a throwaway SoftHSM2 token are driven in tests/e2e/webdriver and, through
// AT-SPI, in a11y_test.cpp.
#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

using Examples = RealHost;

TEST_F(Examples, ThePackagedHostRunsFromAnyPrefixAndReachesAPlugin) {
#if defined(__SANITIZE_ADDRESS__)
    SkipTest("what ships is the normal build");
#endif
    // What the Debian package holds is the install component "host".
    HostProcess& host = Add();
    std::string prefix = host.dir() + "/some prefix", out;
    std::string install = "cmake --install \"$0\" --component host --prefix \"$1\"";
    ASSERT_EQ(0, RunProcess({"/bin/sh", "-c", install, BuildDir(), prefix}, {}, 60000, &out)) << out;
    host.env = {"LD_LIBRARY_PATH"};  // nothing points at the build tree
    host.binary = prefix + "/bin/kavori-host";
    ASSERT_TRUE(host.Open("startup.html?usable"));
    EXPECT_EQ("ok", host.Result());
    // Without a display: one line of its own, and GTK's status 1.
    EXPECT_EQ(1, RunProcess({host.binary, "-url", "x"}, {"DISPLAY", "WAYLAND_DISPLAY"}, 30000, &out));
    EXPECT_EQ("kavori-host: no display can be opened (DISPLAY, WAYLAND_DISPLAY): no dialog shown\n", out);

    // The package as Debian ships it: its manual page, and no error or warning of lintian.
    for (const char* tool : {"/usr/bin/lintian", "/usr/bin/man"})
        if (!FileExists(tool)) SkipTest(std::string(tool) + " is not installed");
    std::string deb =
        "MANPATH=\"$0/share/man\" man -P cat kavori-host | grep -q -- '-store file, or' && cd \"$1\" && "
        "cpack -B \"$2/deb\" && lintian --fail-on error,warning \"$2\"/deb/*.deb";
    EXPECT_EQ(0, RunProcess({"/bin/sh", "-c", deb, prefix, BuildDir(), host.dir()}, {}, 120000, &out)) << out;
}

}  // namespace
}  // namespace kvotest
