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
    // What the Debian package holds is the install component "host" (cpack
    // itself first rebuilds the whole tree, too slow for every run).
    HostProcess& host = Add();
    std::string prefix = host.dir() + "/some prefix", out;
    ASSERT_EQ(
        0,
        RunProcess(
            {"/usr/bin/env", "cmake", "--install", BuildDir(), "--component", "host", "--prefix", prefix},
            {},
            60000,
            &out))
        << out;
    host.env = {"LD_LIBRARY_PATH"};  // nothing points at the build tree
    ASSERT_TRUE(host.StartArgv({prefix + "/bin/kavori-host",
                                "-url",
                                PageUrl("startup.html?usable"),
                                "-root",
                                PluginDir("recording"),
                                "-store",
                                host.storePath()}));
    EXPECT_EQ("ok", host.Result());
}

}  // namespace
}  // namespace kvotest
