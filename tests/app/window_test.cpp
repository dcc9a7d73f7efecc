// The options' effect on a real window: the host runs on a private Xvfb
// (1280x1024) and the tests read back what it asked of X.  Without a window
// manager X keeps exactly the asked geometry; the keep-above test runs a
// small one, since only a manager turns the request into window state.
// Hosts of one test run side by side to keep the suite fast.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "tests/app/real_window.h"
#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string FixedHints(int width, int height) {
    std::string size = std::to_string(width) + " by " + std::to_string(height);
    return "minimum size: " + size + "\n\t\tprogram specified maximum size: " + size;
}

struct Shown {
    std::unique_ptr<HostProcess> host;
    unsigned long window = 0;
};

class Windows : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }

    std::unique_ptr<HostProcess> Start(const std::vector<std::string>& arguments) {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        EXPECT_TRUE(host->Start(arguments));
        return host;
    }

    // The window once it is where it was asked to be (or the timeout).
    WindowShape SettledShape(unsigned long window, const WindowShape& expected) {
        return Poll<WindowShape>([&] { return ShapeOf(m_x, window); },
                                 [&](const WindowShape& s) { return s == expected; });
    }

    std::string Hints(unsigned long window, const std::string& expected) {
        return Poll<std::string>([&] { return PropertyOf(m_x, window, "WM_NORMAL_HINTS"); },
                                 [&](const std::string& h) { return Has(h, expected); });
    }

    XServer m_x;
};

TEST_F(Windows, SizePositionCenterAndFullscreen) {
    // 400 wide, 330 - 30 high; 100 from the right edge, 50 from the bottom.
    std::unique_ptr<HostProcess> sized =
        Start({"-url", PageUrl("blank.html"), "-size", "0x0190014A", "-position", "0x80648032", "-title", "Sized",
               "-wait", "300000"});
    // 500 x (1054 - 30), centred: as high as the screen, so only x moves;
    // -position is not even looked at.
    std::unique_ptr<HostProcess> centred = Start({"-url", PageUrl("blank.html"), "-position", "0x00100010", "-size",
                                                  "32769054", "-wait", "-center", "-title", "Centred"});
    // The screen's size at 0,0, whatever -size and -position say.
    std::unique_ptr<HostProcess> full = Start({"-url", PageUrl("blank.html"), "-size", "0x0190014A", "-position",
                                               "0x00640032", "-fullscreen", "-title", "Full"});

    {
        SCOPED_TRACE("-size and -position from the right and bottom edges, after a -wait");
        unsigned long w = sized->WaitForWindow("Sized");
        ASSERT_NE(w, 0u) << sized->output();
        WindowShape expected{1280 - 400 - 100, 1024 - 300 - 50, 400, 300};
        EXPECT_EQ(ToString(SettledShape(w, expected)), ToString(expected));
        EXPECT_TRUE(Has(Hints(w, FixedHints(400, 300)), FixedHints(400, 300)));
    }
    {
        SCOPED_TRACE("-center over -position");
        unsigned long w = centred->WaitForWindow("Centred");
        ASSERT_NE(w, 0u) << centred->output();
        WindowShape expected{(1280 - 500) / 2, 0, 500, 1024};
        EXPECT_EQ(ToString(SettledShape(w, expected)), ToString(expected));
    }
    {
        SCOPED_TRACE("-fullscreen over -size and -position");
        unsigned long w = full->WaitForWindow("Full");
        ASSERT_NE(w, 0u) << full->output();
        WindowShape expected{0, 0, 1280, 1024};
        EXPECT_EQ(ToString(SettledShape(w, expected)), ToString(expected));
        EXPECT_TRUE(Has(Hints(w, FixedHints(1280, 1024)), FixedHints(1280, 1024)));
        // An ordinary window of the screen's size, not the toolkit's full-screen state.
        EXPECT_FALSE(Has(PropertyOf(m_x, w, "_NET_WM_STATE"), "FULLSCREEN"));
    }
}

TEST_F(Windows, DefaultsResizingAndTitle) {
    MapWatch maps(m_x);
    std::unique_ptr<HostProcess> plain = Start({"-url", PageUrl("blank.html")});
    // 300 x (250 - 30) at 0,40 (a move along one axis), and left resizable.
    std::unique_ptr<HostProcess> resizing = Start(
        {"-url", PageUrl("blank.html"), "-resizing", "-size", "0x012C00FA", "-position", "0x00000028"});
    // -title has no value here: -url is the next option, not the title.
    std::unique_ptr<HostProcess> untitled =
        Start({"-title", "-url", PageUrl("blank.html"), "-root", RecordingPluginDir()});

    {
        SCOPED_TRACE("no geometry options");
        unsigned long w = plain->WaitForOwnWindow();
        ASSERT_NE(w, 0u) << plain->output();
        EXPECT_EQ(PropertyOf(m_x, w, "_NET_WM_NAME"), "_NET_WM_NAME(UTF8_STRING) = \"Kavori\"\n");
        WindowShape expected{0, 0, 256, 384};
        EXPECT_EQ(ToString(SettledShape(w, expected)), ToString(expected));
        std::string hints = Hints(w, FixedHints(256, 384));
        EXPECT_TRUE(Has(hints, FixedHints(256, 384))) << hints;
    }
    {
        SCOPED_TRACE("-resizing");
        unsigned long w = resizing->WaitForOwnWindow();
        ASSERT_NE(w, 0u) << resizing->output();
        WindowShape expected{0, 40, 300, 220};
        EXPECT_EQ(ToString(SettledShape(w, expected)), ToString(expected));
        std::string hints = PropertyOf(m_x, w, "WM_NORMAL_HINTS");
        EXPECT_FALSE(Has(hints, "maximum size")) << hints;
        EXPECT_FALSE(Has(hints, "minimum size: 300 by 220")) << hints;
    }
    {
        SCOPED_TRACE("-title followed by -url");
        unsigned long w = untitled->WaitForOwnWindow();
        ASSERT_NE(w, 0u) << untitled->output();
        EXPECT_TRUE(WaitForRecordLine(untitled->recordPath(), "SetProperty Page=blank")) << untitled->output();
        EXPECT_EQ(PropertyOf(m_x, w, "_NET_WM_NAME"), "_NET_WM_NAME(UTF8_STRING) = \n");  // xprop's empty text
        // -root is where the plug-in came from, and what it is told.
        EXPECT_EQ(LastProperty(untitled->Record(), "WorkingDirectory"), RecordingPluginDir());
    }
    EXPECT_GE(maps.Maps(), 3);  // the watch sees maps: its zero elsewhere means something
}

TEST_F(Windows, SystemKeepsTheWindowAbove) {
    if (access("/usr/bin/openbox", X_OK) != 0) SkipTest("openbox is not installed (scripts/setup.sh installs it)");
    TempDir wmHome;
    mkdir(wmHome.file("home").c_str(), 0700);
    Launch wm(m_x, wmHome.file("home"), {"/usr/bin/openbox", "--sm-disable"});
    std::string supporting = Poll<std::string>(
        [&] { return XQuery(m_x, {"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"}); },
        [](const std::string& out) { return Has(out, "window id"); });
    ASSERT_TRUE(Has(supporting, "window id")) << wm.output();

    std::unique_ptr<HostProcess> above =
        Start({"-url", PageUrl("blank.html"), "-system", "-title", "Above", "-root", RecordingPluginDir()});
    std::unique_ptr<HostProcess> ordinary =
        Start({"-url", PageUrl("blank.html"), "-title", "Ordinary", "-root", RecordingPluginDir()});

    unsigned long a = above->WaitForWindow("Above");
    ASSERT_NE(a, 0u) << above->output();
    std::string state = Poll<std::string>([&] { return PropertyOf(m_x, a, "_NET_WM_STATE"); },
                                          [](const std::string& s) { return Has(s, "_NET_WM_STATE_ABOVE"); });
    EXPECT_TRUE(Has(state, "_NET_WM_STATE_ABOVE")) << state;

    unsigned long o = ordinary->WaitForWindow("Ordinary");
    ASSERT_NE(o, 0u) << ordinary->output();
    // Once its main loop runs, whatever it asked before is with the manager.
    EXPECT_TRUE(WaitForRecordLine(ordinary->recordPath(), "SetProperty Page=blank"));
    std::string ordinaryState = Poll<std::string>([&] { return PropertyOf(m_x, o, "_NET_WM_STATE"); },
                                                  [](const std::string& s) { return Has(s, "_NET_WM_STATE("); });
    EXPECT_FALSE(Has(ordinaryState, "ABOVE")) << ordinaryState;
}

TEST_F(Windows, IconFromTheOptionIsUsedWithoutSearch) {
    std::unique_ptr<HostProcess> given(new HostProcess(m_x));
    TempDir files;
    WriteIcon(files.file("given.ico"), 12);
    WriteIcon(given->home() + "/.kvo/kvo.ico", 24);
    given->Start({"-url", PageUrl("blank.html"), "-icon", files.file("given.ico"), "-title", "Given"});

    // A missing file is not replaced by the one that the search would find.
    std::unique_ptr<HostProcess> missing(new HostProcess(m_x));
    WriteIcon(missing->home() + "/.kvo/kvo.ico", 24);
    missing->Start({"-url", PageUrl("blank.html"), "-icon", files.file("missing.ico"), "-root",
                    RecordingPluginDir(), "-title", "Missing"});

    unsigned long g = given->WaitForWindow("Given");
    ASSERT_NE(g, 0u) << given->output();
    std::string sizes =
        Poll<std::string>([&] { return IconSizes(m_x, g); }, [](const std::string& s) { return !s.empty(); });
    EXPECT_EQ(sizes, "12x12");

    unsigned long m = missing->WaitForWindow("Missing");
    ASSERT_NE(m, 0u) << missing->output();
    EXPECT_TRUE(WaitForRecordLine(missing->recordPath(), "SetProperty Page=blank"));
    EXPECT_EQ(IconSizes(m_x, m), "");
}

TEST_F(Windows, IconSearchBesideTheHostThenRootThenHome) {
    // Beside the host: a host reached through a link in a directory of
    // the test's own, which the host takes for its directory.
    TempDir besideHost;
    mkdir(besideHost.file("bin").c_str(), 0755);
    ASSERT_EQ(symlink(HostBinary().c_str(), besideHost.file("bin/kavori-host").c_str()), 0);
    WriteIcon(besideHost.file("bin/kvo.ico"), 16);
    WriteIcon(besideHost.file("root/kvo.ico"), 20);
    WriteIcon(besideHost.file("home/.kvo/kvo.ico"), 24);
    Launch beside(m_x, besideHost.file("home"),
                  {besideHost.file("bin/kavori-host"), "-url", PageUrl("blank.html"), "-root",
                   besideHost.file("root"), "-title", "Beside"});

    // In the root, which is also where the plug-in comes from.
    std::unique_ptr<HostProcess> inRoot(new HostProcess(m_x));
    TempDir root;
    WriteIcon(root.file("kvo.ico"), 20);
    CopyFile(RecordingPluginDir() + "/libkvo.so", root.file("libkvo.so"));
    WriteIcon(inRoot->home() + "/.kvo/kvo.ico", 24);
    inRoot->Start({"-url", PageUrl("blank.html"), "-root", root.path(), "-title", "Root"});

    // Per user; and a per-user program makes HOME/.kvo/lib the installed
    // library directory, where the plug-in then comes from.
    std::unique_ptr<HostProcess> perUser(new HostProcess(m_x));
    std::string kvo = perUser->home() + "/.kvo";
    WriteIcon(kvo + "/kvo.ico", 24);
    PutFile(kvo + "/bin/kvo", "#!/bin/sh\n", 0755);
    CopyFile(RecordingPluginDir() + "/libkvo.so", kvo + "/lib/libkvo.so");
    perUser->Start({"-url", PageUrl("blank.html"), "-title", "Home"});

    auto iconOf = [&](unsigned long w) {
        return Poll<std::string>([&] { return IconSizes(m_x, w); }, [](const std::string& s) { return !s.empty(); });
    };
    {
        SCOPED_TRACE("beside the host");
        unsigned long w = WaitForWindowOf(m_x, beside.pid());
        ASSERT_NE(w, 0u) << beside.output();
        EXPECT_EQ(iconOf(w), "16x16");
    }
    {
        SCOPED_TRACE("in the root");
        unsigned long w = inRoot->WaitForWindow("Root");
        ASSERT_NE(w, 0u) << inRoot->output();
        EXPECT_EQ(iconOf(w), "20x20");
        EXPECT_TRUE(WaitForRecordLine(inRoot->recordPath(), "SetProperty Page=blank"));
        EXPECT_EQ(LastProperty(inRoot->Record(), "WorkingDirectory"), root.path());
    }
    {
        SCOPED_TRACE("per user");
        unsigned long w = perUser->WaitForWindow("Home");
        ASSERT_NE(w, 0u) << perUser->output();
        EXPECT_EQ(iconOf(w), "24x24");
        EXPECT_TRUE(WaitForRecordLine(perUser->recordPath(), "SetProperty Page=blank")) << perUser->output();
        EXPECT_EQ(LastProperty(perUser->Record(), "WorkingDirectory"), kvo + "/lib");
    }
}

TEST_F(Windows, WithoutStartPageTheAdminProgramRunsAndNoWindowIsMapped) {
    MapWatch maps(m_x);
    ASSERT_TRUE(maps.ok());
    HostProcess host(m_x);
    TempDir out;
    PutFile(host.home() + "/.kvo/bin/kvo", ProbeScript(out.file("admin")), 0755);
    ASSERT_TRUE(host.Start({}));
    pid_t hostPid = host.pid();
    EXPECT_EQ(host.Wait(), 0) << host.output();

    ASSERT_TRUE(WaitForFile(out.file("admin")));
    Probe admin;
    ASSERT_TRUE(ReadProbe(out.file("admin"), &admin));
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
