// /usr/bin/kvo, /usr/lib and /etc/kvo for the real host, in private mount
// namespaces whose overlays hold the files: the real ones are never written.
#include <gtest/gtest.h>

#include <memory>

#include "tests/app/real_window.h"

using namespace kvotest;

namespace {

class SystemPlaces : public testing::Test {
protected:
    void SetUp() override {
        SkipWithoutOverlays();
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    // The host with its scratch directory's HOME and record, in a namespace
    // that shows the system files written to System(path).
    Launch& Run(const HostProcess& host, const std::vector<std::string>& arguments, std::vector<std::string> env = {}) {
        std::vector<std::string> argv = {HostBinary()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        env.push_back("KVO_TEST_RECORD=" + host.recordPath());
        m_runs.emplace_back(new Launch(m_x, host.home(), m_overlays.Wrap(argv), env));
        return *m_runs.back();
    }
    std::string System(const std::string& path) { return m_overlays.Upper(path); }
    XServer m_x;
    TempDir m_layers;
    Overlays m_overlays{m_layers.path(), {"/etc", "/usr/bin", "/usr/lib"}};
    std::vector<std::unique_ptr<Launch>> m_runs;
};

TEST_F(SystemPlaces, SystemInstallationUnlessAPerUserOneExists) {
    PutFile(System("/usr/bin/kvo"), "#!/bin/sh\n", 0755);
    CopyFile(RecordingPluginDir() + "/libkvo.so", System("/usr/lib/libkvo.so"));
    WriteIcon(System("/etc/kvo/kvo.ico"), 28);
    HostProcess system(m_x), both(m_x);
    PutFile(both.home() + "/.kvo/bin/kvo", "#!/bin/sh\n", 0755);
    CopyFile(RecordingPluginDir() + "/libkvo.so", both.home() + "/.kvo/lib/libkvo.so");
    WriteIcon(both.home() + "/.kvo/kvo.ico", 24);
    // One after the other: the overlays' layers take one mount at a time.
    for (auto c : {std::make_tuple(&system, "28x28", std::string("/usr/lib")),
                   std::make_tuple(&both, "24x24", both.home() + "/.kvo/lib")}) {
        HostProcess& host = *std::get<0>(c);
        Launch& run = Run(host, {"-url", PageUrl("blank.html")});
        unsigned long w = WaitForWindowOf(m_x, run.pid());
        ASSERT_NE(w, 0u) << run.output();
        EXPECT_EQ(WaitForText([&] { return IconSizes(m_x, w); }, "x"), std::get<1>(c));
        EXPECT_TRUE(WaitForRecordLine(host.recordPath(), "SetProperty Page=blank")) << run.output();
        EXPECT_EQ(LastProperty(host.Record(), "WorkingDirectory"), std::get<2>(c));
        m_runs.clear();
    }
}

TEST_F(SystemPlaces, AdminProgramFromUsrBinUnlessThePerUserOneExists) {
    TempDir out;
    PutFile(System("/usr/bin/kvo"), ProbeScript(out.file("system")), 0755);
    HostProcess both(m_x), system(m_x);
    PutFile(both.home() + "/.kvo/bin/kvo", ProbeScript(out.file("home")), 0755);
    for (HostProcess* host : {&both, &system}) {
        Launch& run = Run(*host, {}, {host == &system ? "HOME" : "HOME=" + host->home()});  // unset: no per-user one
        EXPECT_EQ(run.Wait(), 0) << run.output();
        Probe probe;
        std::string file = out.file(host == &both ? "home" : "system");
        ASSERT_TRUE(PollUntil([&] { return ReadProbe(file, &probe); })) << file;
        EXPECT_EQ(probe.path, host == &both ? both.home() + "/.kvo/bin/kvo" : "/usr/bin/kvo");
        EXPECT_EQ(probe.args, std::vector<std::string>{"-admin"});
        EXPECT_EQ(probe.sid, probe.pid);
        EXPECT_EQ(FileExists(out.file("system")), host == &system);  // the per-user one wins
    }
}

}  // namespace
