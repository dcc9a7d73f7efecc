// The system-wide places (/usr/bin/kvo, /usr/lib, /etc/kvo) with the real
// host, each run in a private mount namespace whose overlays hold the
// files: the machine's own directories are never written.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>

#include "tests/app/real_window.h"
#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

// One host in a namespace of its own, with a scratch directory holding
// its HOME, its plug-in record and the overlays' layers.
class Isolated {
public:
    Isolated() : m_overlays(m_scratch.path(), {"/etc", "/usr/bin", "/usr/lib"}) {
        mkdir(home().c_str(), 0700);
    }
    std::string home() const { return m_scratch.file("home"); }
    std::string record() const { return m_scratch.file("record.txt"); }
    // Where to write a file that the host sees at this system path.
    std::string System(const std::string& path) const { return m_overlays.Upper(path); }
    void Start(const XServer& x, const std::vector<std::string>& arguments,
               const std::vector<std::string>& env = {}) {
        std::vector<std::string> argv = {HostBinary()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        std::vector<std::string> fullEnv = {"KVO_TEST_RECORD=" + record()};
        fullEnv.insert(fullEnv.end(), env.begin(), env.end());
        m_launch.reset(new Launch(x, home(), m_overlays.Wrap(argv), fullEnv));
    }
    Launch& launch() { return *m_launch; }

private:
    TempDir m_scratch;
    Overlays m_overlays;
    std::unique_ptr<Launch> m_launch;
};

class SystemPlaces : public testing::Test {
protected:
    void SetUp() override {
        SkipWithoutOverlays();
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    XServer m_x;
};

TEST_F(SystemPlaces, SystemInstallationUnlessAPerUserOneExists) {
    const std::string plugin = RecordingPluginDir() + "/libkvo.so";
    auto installSystemWide = [&](Isolated& run) {
        PutFile(run.System("/usr/bin/kvo"), "#!/bin/sh\n", 0755);
        CopyFile(plugin, run.System("/usr/lib/libkvo.so"));
        WriteIcon(run.System("/etc/kvo/kvo.ico"), 28);
    };

    Isolated system;
    installSystemWide(system);
    system.Start(m_x, {"-url", PageUrl("blank.html")});

    Isolated both;
    installSystemWide(both);
    PutFile(both.home() + "/.kvo/bin/kvo", "#!/bin/sh\n", 0755);
    CopyFile(plugin, both.home() + "/.kvo/lib/libkvo.so");
    WriteIcon(both.home() + "/.kvo/kvo.ico", 24);
    both.Start(m_x, {"-url", PageUrl("blank.html")});

    auto iconOf = [&](unsigned long w) {
        return Poll<std::string>([&] { return IconSizes(m_x, w); }, [](const std::string& s) { return !s.empty(); });
    };
    {
        SCOPED_TRACE("system-wide only");
        unsigned long w = WaitForWindowOf(m_x, system.launch().pid());
        ASSERT_NE(w, 0u) << system.launch().output();
        EXPECT_EQ(iconOf(w), "28x28");
        EXPECT_TRUE(WaitForRecordLine(system.record(), "SetProperty Page=blank")) << system.launch().output();
        EXPECT_EQ(LastProperty(ReadLines(system.record()), "WorkingDirectory"), "/usr/lib");
    }
    {
        SCOPED_TRACE("per user and system-wide");
        unsigned long w = WaitForWindowOf(m_x, both.launch().pid());
        ASSERT_NE(w, 0u) << both.launch().output();
        EXPECT_EQ(iconOf(w), "24x24");
        EXPECT_TRUE(WaitForRecordLine(both.record(), "SetProperty Page=blank")) << both.launch().output();
        EXPECT_EQ(LastProperty(ReadLines(both.record()), "WorkingDirectory"), both.home() + "/.kvo/lib");
    }
}

TEST_F(SystemPlaces, AdminProgramFromUsrBinUnlessThePerUserOneExists) {
    TempDir out;
    // HOME unset: only /usr/bin/kvo is looked for.
    Isolated system;
    PutFile(system.System("/usr/bin/kvo"), ProbeScript(out.file("system")), 0755);
    system.Start(m_x, {}, {"HOME"});

    Isolated both;
    PutFile(both.System("/usr/bin/kvo"), ProbeScript(out.file("both-system")), 0755);
    PutFile(both.home() + "/.kvo/bin/kvo", ProbeScript(out.file("both-home")), 0755);
    both.Start(m_x, {});

    EXPECT_EQ(system.launch().Wait(), 0) << system.launch().output();
    EXPECT_EQ(both.launch().Wait(), 0) << both.launch().output();

    Probe probe;
    ASSERT_TRUE(WaitForFile(out.file("system")));
    ASSERT_TRUE(ReadProbe(out.file("system"), &probe));
    EXPECT_EQ(probe.path, "/usr/bin/kvo");
    EXPECT_EQ(probe.args, std::vector<std::string>{"-admin"});
    EXPECT_EQ(probe.sid, probe.pid);

    ASSERT_TRUE(WaitForFile(out.file("both-home")));
    ASSERT_TRUE(ReadProbe(out.file("both-home"), &probe));
    EXPECT_EQ(probe.path, both.home() + "/.kvo/bin/kvo");
    EXPECT_EQ(probe.args, std::vector<std::string>{"-admin"});
    EXPECT_FALSE(FileExists(out.file("both-system")));
}

}  // namespace
