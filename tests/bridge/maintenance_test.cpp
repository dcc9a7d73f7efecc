// Maintenance scripts run by the real host, from -test (without a window) and
// from the page's commands; each appends its marker to one log.  The system
// directory /etc/kvo exists only in a private mount namespace.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

class Maintenance : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
        ASSERT_EQ(0, chdir(m_cwd.path().c_str()));
    }
    void TearDown() override { EXPECT_EQ(0, chdir("/")); }
    // A script at path that runs before, then appends marker to the log.
    void Script(const std::string& path, const std::string& marker, const std::string& before = "") {
        ASSERT_TRUE(
            PutFile(path, "#!/bin/sh\n" + before + "\necho " + marker + " >> '" + m_marks.file("log") + "'\n", 0755));
    }
    std::string Ran() const { return ReadFileOr(m_marks.file("log")); }
    XServer m_x;
    TempDir m_cwd, m_marks;
};

TEST_F(Maintenance, TestOptionRunsOnlyTheExactlyNamedScriptAndShowsNoWindow) {
    HostProcess host(m_x);
    for (const char* name : {"install", "repair", "uninstall"}) {
        Script(m_cwd.file(std::string(".") + name), std::string("cwd-") + name);
    }
    Script(host.home() + "/.kvo/install", "home-install");  // install never searches
    Script(host.home() + "/.kvo/repair", "home-repair");
    MapCounter maps(m_x);
    ASSERT_EQ(0, maps.Maps());
    // Each value and the marker it adds (per-user before working directory's).
    const std::vector<std::pair<std::string, std::string>> runs = {
        {"script install", "cwd-install\n"}, {"script repair", "home-repair\n"},
        {"script uninstall", "cwd-uninstall\n"}, {"script  install", ""}, {"Script install", ""},
        {"script install ", ""}, {"", ""}};
    std::string log;
    for (const auto& run : runs) {
        ASSERT_TRUE(host.Start({"-test", run.first, "-url", PageUrl("idle.html"), "-root", RecordingPluginDir()}));
        EXPECT_EQ(0, host.Wait()) << "[" << run.first << "] " << host.output();
        // The host waited for the script: its marker is there once it ended.
        EXPECT_EQ(log += run.second, Ran()) << "[" << run.first << "]";
    }
    EXPECT_EQ(0, maps.Maps());
    EXPECT_EQ("", ReadFileOr(host.recordPath()));  // no page and no plug-in start either
}

TEST_F(Maintenance, SystemScriptsWhenTheUserHasNone) {
    SkipWithoutPrivateEtc();
    HostProcess host(m_x);
    PrivateEtc etc(host.dir() + "/layers");
    Script(etc.Upper("/etc/kvo/repair"), "etc-repair");
    Script(etc.Upper("/etc/kvo/install"), "etc-install");  // install never searches
    Script(m_cwd.file(".repair"), "cwd-repair");
    Script(m_cwd.file(".install"), "cwd-install");
    ASSERT_TRUE(host.StartArgv(
        etc.Wrap({"/bin/sh", "-c", "\"$0\" -test 'script repair' && \"$0\" -test 'script install'", HostBinary()})));
    int status = host.Wait(30000);
    if (status == 77) SkipTest("no overlay on /etc: " + host.output());
    ASSERT_EQ(0, status) << host.output();
    EXPECT_EQ("etc-repair\ncwd-install\n", Ran());
}

TEST_F(Maintenance, PageCommandsRunTheScriptsWaitAndUninstallEnds) {
    HostProcess host(m_x);
    Script(m_cwd.file(".install"), "install");
    // Later than the host's first look: logged before uninstall only if the host waits.
    Script(host.home() + "/.kvo/repair", "repair", "sleep 0.3");
    Script(host.home() + "/.kvo/uninstall", "uninstall");
    WriteFile(host.storePath(), "stale");
    ASSERT_TRUE(
        host.Start({"-url", PageUrl("scripts.html"), "-root", RecordingPluginDir(), "-store", host.storePath()}));
    // uninstall ended the dialog as an exit without texts does.
    EXPECT_EQ("OK", host.Result());
    EXPECT_EQ("install\nrepair\nuninstall\n", Ran());
    // Every call gave 0; the near-misses ran nothing (the log has no more).
    for (const char* command :
         {"Install", "INSTALL", "install ", " install", "Repair", "UNINSTALL", "install", "repair"}) {
        EXPECT_EQ("0", host.LastSet(std::string("Ran ") + command)) << command;
    }
}

}  // namespace
