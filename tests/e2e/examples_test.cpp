// What ships: the demo PIN dialog with the demo plug-in on a throwaway
// SoftHSM2 token, typed into like a user; and the packaged host.
#include <algorithm>

#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

class Examples : public RealHost {
protected:
    // A demo dialog on the token, once it has read the PIN state, with the focus.
    HostProcess& Dialog(const std::vector<std::string>& extra) {
        HostProcess& host = Add();
        host.env = {"KAVORI_DEMO_LOG=" + Log(host)};
        std::vector<std::string> arguments = {
            "-size", std::to_string((420 << 16) | (400 + 30)), "-root", BuildDir() + "/examples/demo"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        EXPECT_TRUE(host.Open("file://" + SourceDir() + "/examples/dialog/pin.html", arguments));
        unsigned long window = host.Window();
        EXPECT_TRUE(PollUntil([&] { return Lines(host, "GetProperty Token:PinState") == 1; }))
            << host.output();
        x.Query({"xdotool", "windowfocus", "--sync", std::to_string(window)});
        return host;
    }
    static std::string Log(const HostProcess& host) { return host.dir() + "/demo.log"; }
    static int Lines(const HostProcess& host, const std::string& part) {  // of the demo plug-in's log
        std::vector<std::string> log = ReadLines(Log(host));
        return std::count_if(
            log.begin(), log.end(), [&](const std::string& line) { return Has(line, part); });
    }
    void Type(const std::string& text, const std::string& key) {
        x.Query({"xdotool", "type", "--delay", "30", text});
        x.Query({"xdotool", "key", key});
    }
};

TEST_F(Examples, DemoDialogCancelsWithEscapeAndLogsInAfterAWrongPin) {
    TempDir token;
    MakeSoftToken(token);

    HostProcess& cancelled = Dialog({});
    Type("12", "Escape");
    EXPECT_EQ("CKR_FUNCTION_CANCELED", cancelled.Result());
    EXPECT_EQ(0, Lines(cancelled, "Login on slot"));

    HostProcess& host = Dialog({"-key", "Kavori Demo"});  // the key names the token by its label
    Type("000000", "Return");
    // The page has the failure and asked the PIN state again: ready for the next PIN.
    ASSERT_TRUE(PollUntil([&] { return Lines(host, "GetProperty Token:PinState") == 2; }))
        << ReadFileOr(Log(host));
    EXPECT_EQ(1, Lines(host, "CKR_PIN_INCORRECT"));
    Type("123456", "Return");
    EXPECT_EQ("CKR_OK", host.Result());
    EXPECT_EQ(2, Lines(host, "Login on slot"));
    for (const char* part : {"Key handed over", "Key cleared"}) EXPECT_EQ(1, Lines(host, part)) << part;
    for (const char* secret : {"123456", "000000"}) EXPECT_EQ(0, Lines(host, secret)) << secret;
}

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
