// The window on the desktops it meets: X11 at scale 1 and 2, a Wayland
// session (with Xwayland's DISPLAY beside it), a caller asking for X11
// there, and a real window manager.
#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

using Displays = RealHost;

// Whether process pid can reach the X server of display (":N"): its socket
// in the process's mount namespace, or a socket of that name (an abstract
// one, or a connection) in its network namespace.
bool ReachesX(pid_t pid, const std::string& display) {
    std::string proc = "/proc/" + std::to_string(pid), socket = "/tmp/.X11-unix/X" + display.substr(1);
    return FileExists(proc + "/root" + socket) || Has(ReadFileOr(proc + "/net/unix"), socket);
}

// One dialog per desktop, side by side.  Each is shown at -size in the
// desktop's logical pixels, where -position or -center put it (the screen
// measured in logical pixels too), with its title, icon and size hints; a
// page's resize reaches it, held to the monitor's work area; its result
// comes back.  The web process reaches the X server only where the host is
// an X11 client.
TEST_F(Displays, EachDesktopShowsTheWindowInLogicalPixels) {
    const std::string icon = SourceDir() + "/tests/fixtures/pages/kvo.ico";
    // WAYLAND_DISPLAY names a headless compositor's socket in the runtime directory ("/" first: by its path).
    // shape: the window as X has it, "" when it is not on X.
    struct Row {
        std::vector<std::string> env, arguments;
        std::string shape, title;
        bool fixed;
    } rows[] = {
        {{}, {"-position", "0x00010000", "-title", "Sized", "-icon", icon}, "420x420+1+0", "Sized", true},
        // Centred on a screen of 640 x 512 logical pixels.
        {{"GDK_SCALE=2"}, {"-center", "-resizing"}, "840x840+220+92", "Kavori", false},
        {{"WAYLAND_DISPLAY=/wl"}, {"-position", "0x00010000"}, "", "", true},
        {{"GDK_BACKEND=x11", "WAYLAND_DISPLAY=wl"}, {"-position", "1"}, "420x420+0+1", "Kavori", true},
    };
    std::string skipped;  // why some rows did not run
    std::vector<std::pair<const Row*, HostProcess*>> dialogs;
    for (const Row& row : rows) {
        HostProcess& host = Add();
        host.env = row.env;
        bool ready = true;
        for (std::string& entry : host.env) {
            if (entry.rfind("WAYLAND_DISPLAY=", 0) != 0) continue;
            std::string socket = entry.substr(entry.find_last_of("=/") + 1);
            if (entry[16] == '/') entry.insert(16, host.dir());
            HostProcess& compositor = Add();
            compositor.env = {"XDG_RUNTIME_DIR=" + host.dir()};
            compositor.StartArgv({"/usr/bin/weston", "--backend=headless-backend.so", "--socket=" + socket});
            ready = PollUntil([&] { return FileExists(host.dir() + "/" + socket); }, 10000);
            if (!ready) skipped = "no headless Wayland compositor (weston): " + compositor.output();
        }
        std::vector<std::string> arguments = {"-size", "0x01A401C2"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        if (ready && host.Open("resize.html", arguments)) dialogs.push_back({&row, &host});
    }
    for (auto [row, host] : dialogs) {
        SCOPED_TRACE(row->shape + testing::PrintToString(row->env));
        ASSERT_TRUE(host->WaitForRecord("SetProperty Held=2")) << host->output();
        std::vector<pid_t> web = WebProcessesOf(host->pid());
        ASSERT_EQ(1u, web.size()) << host->output();
        EXPECT_EQ(!row->shape.empty(), ReachesX(web[0], x.display()));
        unsigned long w = x.WindowOf(host->pid(), row->shape.empty() ? 1000 : 30000);
        EXPECT_EQ(row->shape, w ? ReadUntil([&] { return x.Shape(w); }, row->shape) : "");
        if (w && !row->shape.empty()) {
            std::string size =
                row->shape.substr(0, row->shape.find('+')).replace(row->shape.find('x'), 1, " by ");
            EXPECT_EQ(row->fixed, Has(x.Property(w, "WM_NORMAL_HINTS"), "maximum size: " + size));
            EXPECT_TRUE(Has(x.Property(w, "_NET_WM_NAME"), "= \"" + row->title + "\"\n"));
            EXPECT_EQ(row->title == "Sized", Has(x.Property(w, "_NET_WM_ICON"), "16 x 16"));  // -icon
        }
        PutFile(host->answersPath(), "Release\t1\n");
        EXPECT_EQ("ok", host->Result());
        EXPECT_FALSE(Has(host->output(), "Gtk-CRITICAL")) << host->output();  // no call the toolkit refuses
    }
    if (!skipped.empty() && !HasFailure()) SkipTest(skipped);
}

// A dialog started while another application has the focus (the user just
// clicked in it) takes the keyboard focus under a real window manager, and
// what is typed reaches the page's autofocus field; -system keeps it above.
TEST_F(Displays, UnderAWindowManagerTheDialogTakesTheFocusAndStaysAbove) {
    if (!FileExists("/usr/bin/mutter")) SkipTest("mutter is not installed (scripts/setup.sh installs it)");
    ASSERT_TRUE(Add().StartArgv({"/usr/bin/mutter", "--x11", "--replace", "--sm-disable"}));
    ASSERT_TRUE(PollUntil([&] {
        return Has(x.Query({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"}), "id");
    }));
    std::string other = std::to_string(Open("idle.html").Window());
    x.Query({"xdotool", "mousemove", "--window", other, "20", "20", "click", "1"});
    ASSERT_EQ(other + "\n", ReadUntil([&] { return x.Query({"xdotool", "getactivewindow"}); }, other));

    HostProcess& dialog = Open("focus.html", {"-system"});
    ASSERT_TRUE(PollUntil([&] { return dialog.LastSet("Focused") != "<none>"; }, 30000)) << dialog.output();
    EXPECT_EQ("true", dialog.LastSet("Focused"));
    unsigned long w = dialog.Window();
    EXPECT_EQ(std::to_string(w) + "\n", x.Query({"xdotool", "getactivewindow"}));
    EXPECT_TRUE(
        Has(ReadUntil([&] { return x.Property(w, "_NET_WM_STATE"); }, "ABOVE"), "_NET_WM_STATE_ABOVE"));
    x.Query({"xdotool", "type", "--delay", "20", "typed 1234"});
    x.Query({"xdotool", "key", "Return"});
    EXPECT_EQ("typed 1234", dialog.Result());
}

}  // namespace
}  // namespace kvotest
