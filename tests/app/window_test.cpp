// The options' effect on real windows: hosts side by side on a private Xvfb
// (1280x1024), read back through X.  Without a window manager X keeps the
// asked geometry; keep-above needs one (openbox) to become window state.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "tests/app/real_window.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class Windows : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    HostProcess& Host() {  // not started yet: its HOME can be prepared
        m_hosts.emplace_back(new HostProcess(m_x));
        return *m_hosts.back();
    }
    HostProcess& Start(const std::vector<std::string>& arguments, HostProcess* host = nullptr) {
        if (host == nullptr) host = &Host();
        EXPECT_TRUE(host->Start(arguments));
        return *host;
    }
    unsigned long WindowOf(pid_t pid, const std::string& output) {
        unsigned long w = WaitForWindowOf(m_x, pid);
        EXPECT_NE(w, 0u) << output;
        return w;
    }
    std::string Icons(unsigned long w) {  // once there are any
        return WaitForText([&] { return IconSizes(m_x, w); }, "x");
    }
    std::string Property(unsigned long w, const std::string& name, const std::string& part) {  // once it holds part
        return WaitForText([&] { return PropertyOf(m_x, w, name); }, part);
    }
    XServer m_x;
    std::vector<std::unique_ptr<HostProcess>> m_hosts;
    const std::string m_blank = PageUrl("blank.html");
};

TEST_F(Windows, GeometrySizeHintsAndTitle) {
    MapWatch maps(m_x);
    struct Row {
        std::vector<std::string> arguments;
        std::string shape, title;
        bool resizing;
    } rows[] = {
        // 400 x (330 - 30), 100 from the right edge and 50 from the bottom.
        {{"-url", m_blank, "-size", "0x0190014A", "-position", "0x80648032", "-title", "Sized", "-wait", "300000"},
         "400x300+780+674", "Sized", false},
        // 500 x (1054 - 30), centred: as high as the screen, so only x moves; -position is not looked at.
        {{"-url", m_blank, "-position", "0x00100010", "-size", "32769054", "-wait", "-center", "-title", "Centred"},
         "500x1024+390+0", "Centred", false},
        {{"-url", m_blank, "-size", "0x0190014A", "-position", "0x00640032", "-fullscreen", "-title", "Full"},
         "1280x1024+0+0", "Full", false},
        {{"-url", m_blank}, "256x384+0+0", "Kavori", false},
        {{"-url", m_blank, "-resizing", "-size", "0x012C00FA", "-position", "0x00000028"}, "300x220+0+40", "Kavori",
         true},  // a move along one axis
        // -title without a value: -url is the next option, not the title.
        {{"-title", "-url", m_blank, "-root", RecordingPluginDir()}, "256x384+0+0", "", false}};
    std::vector<HostProcess*> hosts;
    for (const Row& r : rows) hosts.push_back(&Start(r.arguments));
    for (size_t i = 0; i < hosts.size(); ++i) {
        const Row& r = rows[i];
        SCOPED_TRACE(testing::PrintToString(r.arguments));
        unsigned long w = WindowOf(hosts[i]->pid(), hosts[i]->output());
        if (w == 0) continue;
        EXPECT_EQ(WaitForText([&] { return ShapeOf(m_x, w); }, r.shape), r.shape);
        std::string size = r.shape.substr(0, r.shape.find('+'));
        size = size.replace(size.find('x'), 1, " by ");
        std::string hints = Property(w, "WM_NORMAL_HINTS", r.resizing ? "" : "maximum size: " + size);
        // Fixed unless -resizing: the same minimum and maximum, the window's size.
        EXPECT_EQ(Has(hints, "minimum size: " + size), !r.resizing) << hints;
        EXPECT_EQ(Has(hints, r.resizing ? "maximum size" : "maximum size: " + size), !r.resizing) << hints;
        std::string title = "_NET_WM_NAME(UTF8_STRING) = " + (r.title.empty() ? "" : "\"" + r.title + "\"") + "\n";
        EXPECT_EQ(Property(w, "_NET_WM_NAME", title), title);
        // -fullscreen: an ordinary window of the screen's size, not the toolkit's full-screen state.
        EXPECT_FALSE(Has(PropertyOf(m_x, w, "_NET_WM_STATE"), "FULLSCREEN"));
    }
    // -root is where the plug-in came from, and what it is told.
    EXPECT_TRUE(WaitForRecordLine(hosts.back()->recordPath(), "SetProperty Page=blank")) << hosts.back()->output();
    EXPECT_EQ(LastProperty(hosts.back()->Record(), "WorkingDirectory"), RecordingPluginDir());
    EXPECT_GE(maps.Maps(), 6);  // the watch sees maps: its zero elsewhere means something
}

TEST_F(Windows, SystemKeepsTheWindowAbove) {
    if (access("/usr/bin/openbox", X_OK) != 0) SkipTest("openbox is not installed (scripts/setup.sh installs it)");
    TempDir wm;
    mkdir(wm.file("home").c_str(), 0700);
    Launch openbox(m_x, wm.file("home"), {"/usr/bin/openbox", "--sm-disable"});
    std::string check = WaitForText([&] { return XQuery(m_x, {"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"}); }, "id");
    ASSERT_TRUE(Has(check, "window id")) << openbox.output();
    HostProcess& above = Start({"-url", m_blank, "-system", "-root", RecordingPluginDir()});
    HostProcess& ordinary = Start({"-url", m_blank, "-root", RecordingPluginDir()});
    unsigned long a = WindowOf(above.pid(), above.output()), o = WindowOf(ordinary.pid(), ordinary.output());
    std::string state = Property(a, "_NET_WM_STATE", "_NET_WM_STATE_ABOVE");
    EXPECT_TRUE(Has(state, "_NET_WM_STATE_ABOVE")) << state;
    // Once its main loop runs, whatever it asked before is with the manager.
    EXPECT_TRUE(WaitForRecordLine(ordinary.recordPath(), "SetProperty Page=blank"));
    state = Property(o, "_NET_WM_STATE", "_NET_WM_STATE(");
    EXPECT_FALSE(Has(state, "ABOVE")) << state;
}

TEST_F(Windows, IconFromTheOptionElseBesideTheHostThenRootThenHome) {
    TempDir files, beside, root;
    HostProcess& given = Host();  // -icon wins over the search
    WriteIcon(files.file("given.ico"), 12);
    WriteIcon(given.home() + "/.kvo/kvo.ico", 24);
    Start({"-url", m_blank, "-icon", files.file("given.ico")}, &given);
    HostProcess& missing = Host();  // and a missing -icon file is not replaced by the search's
    WriteIcon(missing.home() + "/.kvo/kvo.ico", 24);
    Start({"-url", m_blank, "-icon", files.file("missing.ico"), "-root", RecordingPluginDir()}, &missing);
    // Beside the host: reached through a link, whose directory it takes for its own.
    mkdir(beside.file("bin").c_str(), 0755);
    ASSERT_EQ(symlink(HostBinary().c_str(), beside.file("bin/kavori-host").c_str()), 0);
    WriteIcon(beside.file("bin/kvo.ico"), 16);
    WriteIcon(beside.file("root/kvo.ico"), 20);
    WriteIcon(beside.file("home/.kvo/kvo.ico"), 24);
    Launch besideHost(m_x, beside.file("home"),
                      {beside.file("bin/kavori-host"), "-url", m_blank, "-root", beside.file("root")});
    HostProcess& inRoot = Host();  // the root is also where the plug-in comes from
    WriteIcon(root.file("kvo.ico"), 20);
    CopyFile(RecordingPluginDir() + "/libkvo.so", root.file("libkvo.so"));
    WriteIcon(inRoot.home() + "/.kvo/kvo.ico", 24);
    Start({"-url", m_blank, "-root", root.path()}, &inRoot);
    // Per user; a per-user program makes HOME/.kvo/lib the plug-in's directory.
    HostProcess& perUser = Host();
    const std::string kvo = perUser.home() + "/.kvo";
    WriteIcon(kvo + "/kvo.ico", 24);
    PutFile(kvo + "/bin/kvo", "#!/bin/sh\n", 0755);
    CopyFile(RecordingPluginDir() + "/libkvo.so", kvo + "/lib/libkvo.so");
    Start({"-url", m_blank}, &perUser);

    EXPECT_EQ(Icons(WindowOf(given.pid(), given.output())), "12x12");
    EXPECT_EQ(Icons(WindowOf(besideHost.pid(), besideHost.output())), "16x16");
    for (auto c : {std::make_tuple(&inRoot, "20x20", root.path()), std::make_tuple(&perUser, "24x24", kvo + "/lib"),
                   std::make_tuple(&missing, "", RecordingPluginDir())}) {
        HostProcess& host = *std::get<0>(c);
        unsigned long w = WindowOf(host.pid(), host.output());
        EXPECT_TRUE(WaitForRecordLine(host.recordPath(), "SetProperty Page=blank")) << host.output();
        EXPECT_EQ(std::get<1>(c)[0] ? Icons(w) : IconSizes(m_x, w), std::get<1>(c));
        EXPECT_EQ(LastProperty(host.Record(), "WorkingDirectory"), std::get<2>(c));
    }
}

TEST_F(Windows, WithoutStartPageTheAdminProgramRunsAndNoWindowIsMapped) {
    MapWatch maps(m_x);
    TempDir out;
    HostProcess& host = Host();
    PutFile(host.home() + "/.kvo/bin/kvo", ProbeScript(out.file("admin")), 0755);
    Start({}, &host);
    pid_t hostPid = host.pid();
    EXPECT_EQ(host.Wait(), 0) << host.output();
    Probe admin;
    ASSERT_TRUE(PollUntil([&] { return ReadProbe(out.file("admin"), &admin); }));
    EXPECT_EQ(admin.path, host.home() + "/.kvo/bin/kvo");
    EXPECT_EQ(admin.args, std::vector<std::string>{"-admin"});
    // A session of its own: leader of it and of its process group.
    EXPECT_EQ(admin.sid, admin.pid);
    EXPECT_EQ(admin.pgid, admin.pid);
    EXPECT_NE(admin.sid, static_cast<long>(getsid(0)));  // the host's session is the test's
    EXPECT_NE(admin.pgid, static_cast<long>(hostPid));   // the host leads its own group
    EXPECT_EQ(maps.Maps(), 0);
}

}  // namespace
