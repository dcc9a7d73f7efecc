// Maintenance scripts run by the real host: from -test, without a window,
// and from the page's commands.  Each script appends its marker to one log,
// so the log shows which ran and in what order.  The system directory
// /etc/kvo exists only in a private mount namespace.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "tests/bridge/dialog_support.h"
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
    // A script at path that appends marker to the log after running before.
    void Script(const std::string& path, const std::string& marker, const std::string& before = "") {
        ASSERT_TRUE(PutFile(path, "#!/bin/sh\n" + before + "\necho " + marker + " >> '" + Log() + "'\n", 0755));
    }
    std::string Log() const { return m_marks.file("log"); }
    std::string Ran() const { return ReadFileOr(Log()); }

    XServer m_x;
    TempDir m_cwd;
    TempDir m_marks;
};

TEST_F(Maintenance, TestOptionRunsOnlyTheExactlyNamedScriptAndShowsNoWindow) {
    HostProcess host(m_x);
    for (const char* name : {"install", "repair", "uninstall"}) {
        Script(m_cwd.file(std::string(".") + name), std::string("cwd-") + name);
    }
    Script(host.home() + "/.kvo/install", "home-install");  // install never searches
    Script(host.home() + "/.kvo/repair", "home-repair");
    MapWatch maps(m_x);
    ASSERT_EQ(0, maps.Maps());

    struct Run {
        std::string value;
        std::string log;  // after it
    };
    const std::vector<Run> runs = {
        {"script install", "cwd-install\n"},
        {"script repair", "cwd-install\nhome-repair\n"},
        // No per-user or system one: the working directory's.
        {"script uninstall", "cwd-install\nhome-repair\ncwd-uninstall\n"},
        {"script  install", "cwd-install\nhome-repair\ncwd-uninstall\n"},
        {"Script install", "cwd-install\nhome-repair\ncwd-uninstall\n"},
        {"script install ", "cwd-install\nhome-repair\ncwd-uninstall\n"},
        {"", "cwd-install\nhome-repair\ncwd-uninstall\n"},
    };
    for (const Run& run : runs) {
        // The record file shows that no page and no start-up ran either.
        ASSERT_TRUE(host.Start({"-test", run.value, "-url", PageUrl("idle.html"), "-root", RecordingPluginDir()}));
        EXPECT_EQ(0, host.Wait()) << "[" << run.value << "] " << host.output();
        // The host waited for the script: its marker is there once it ended.
        EXPECT_EQ(run.log, Ran()) << "[" << run.value << "]";
    }
    EXPECT_EQ(0, maps.Maps());
    EXPECT_EQ("", ReadFileOr(host.recordPath()));
}

TEST_F(Maintenance, SystemScriptsWhenTheUserHasNone) {
    SkipWithoutPrivateEtc();
    HostProcess host(m_x);
    PrivateEtc etc(host.dir() + "/layers");
    Script(etc.Upper("/etc/kvo/repair"), "etc-repair");
    Script(etc.Upper("/etc/kvo/install"), "etc-install");  // install never searches
    Script(m_cwd.file(".repair"), "cwd-repair");
    Script(m_cwd.file(".install"), "cwd-install");

    Spawned run(m_x, host,
                etc.Wrap({"/bin/sh", "-c", "\"$0\" -test 'script repair' && \"$0\" -test 'script install'",
                          HostBinary()}));
    int status = run.Wait(30000);
    if (status == 77) SkipTest("no overlay on /etc: " + run.output());
    ASSERT_EQ(0, status) << run.output();
    EXPECT_EQ("etc-repair\ncwd-install\n", Ran());
}

TEST_F(Maintenance, PageCommandsRunTheScriptsWaitAndUninstallEnds) {
    HostProcess host(m_x);
    Script(m_cwd.file(".install"), "install");
    // Later than the host's first look: only a host that waits logs it
    // before the uninstall script.
    Script(host.home() + "/.kvo/repair", "repair", "sleep 0.3");
    Script(host.home() + "/.kvo/uninstall", "uninstall");
    WriteFile(host.storePath(), "stale");

    ASSERT_TRUE(host.Start({"-url", PageUrl("scripts.html"), "-root", RecordingPluginDir(), "-store",
                            host.storePath()}));
    ASSERT_EQ(0, host.Wait(30000)) << host.output();
    EXPECT_EQ("install\nrepair\nuninstall\n", Ran());
    // uninstall ended the dialog as an exit without texts does.
    EXPECT_EQ("OK", ReadFileOr(host.storePath(), "<no file>"));
    // Every call gave 0; the near-misses ran nothing (the log has no more).
    std::vector<std::string> record = host.Record();
    for (const char* command : {"Install", "INSTALL", "install ", " install", "Repair", "UNINSTALL", "install",
                                "repair"}) {
        EXPECT_EQ("0", LastProperty(record, std::string("Ran ") + command)) << command;
    }
}

}  // namespace
