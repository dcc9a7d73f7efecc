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
    // wayland: WAYLAND_DISPLAY naming a headless compositor's socket in the runtime directory ("/" first:
    // by its path); area: the work area in logical pixels; shape: the window as X has it, "" when not on X.
    struct Row {
        std::vector<std::string> env;
        std::string wayland;
        std::vector<std::string> arguments;
        std::string area, shape, title;
        bool fixed;
    } rows[] = {
        // An x of 1 and a y of 0 still move it; the pause before showing does not matter.
        {{},
         "",
         {"-position", "0x00010000", "-title", "Sized", "-icon", icon, "-wait", "300000"},
         "1280x1024",
         "420x420+1+0",
         "Sized",
         true},
        // Measured from the right and bottom edges of a screen of 640 x 512 logical pixels.
        {{"GDK_SCALE=2"}, "", {"-position", "0x80648032"}, "640x512", "840x840+240+84", "Kavori", true},
        // Centred, so -position is not looked at.
        {{},
         "",
         {"-position", "0x00100010", "-center", "-resizing"},
         "1280x1024",
         "420x420+430+302",
         "Kavori",
         false},
        {{}, "/kvo-wayland", {"-position", "0x00010000"}, "1280x1024", "", "", true},
        {{"GDK_BACKEND=x11"},
         "kvo-wayland",
         {"-position", "0x00000001"},
         "1280x1024",
         "420x420+0+1",
         "Kavori",
         true},
    };
    std::vector<HostProcess*> dialogs;  // one per row
    for (const Row& row : rows) {
        HostProcess& host = *dialogs.emplace_back(&Add());
        host.env = row.env;
        if (!row.wayland.empty()) {
            if (!FileExists("/usr/bin/weston"))
                SkipTest("weston is not installed (scripts/setup.sh installs it)");
            HostProcess& compositor = Add();  // its socket in the host's runtime directory
            compositor.env = {"XDG_RUNTIME_DIR=" + host.dir()};
            ASSERT_TRUE(compositor.StartArgv({"/usr/bin/weston",
                                              "--backend=headless-backend.so",
                                              "--socket=kvo-wayland",
                                              "--width=1280",
                                              "--height=1024",
                                              "--idle-time=0"}));
            if (!PollUntil([&] { return FileExists(host.dir() + "/kvo-wayland"); }, 10000))
                SkipTest("no headless Wayland compositor: " + compositor.output());
            host.env.push_back("WAYLAND_DISPLAY=" + (row.wayland[0] == '/' ? host.dir() : "") + row.wayland);
        }
        std::vector<std::string> arguments = {"-size", "0x01A401C2"};
        arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
        ASSERT_TRUE(host.Open("resize.html?[[\"start\",\"420x420\"],[\"hold\"],[\"huge\",\"0x7FFF7FFF\",\"" +
                                  row.area + "\"],[\"small\",\"0x01400100\",\"320x256\"]]",
                              arguments));
    }
    for (size_t i = 0; i < dialogs.size(); ++i) {
        HostProcess& host = *dialogs[i];
        const Row& row = rows[i];
        SCOPED_TRACE(row.shape + row.wayland);
        ASSERT_TRUE(host.WaitForRecord("SetProperty Held=2")) << host.output();
        std::vector<pid_t> web = WebProcessesOf(host.pid());
        ASSERT_EQ(1u, web.size()) << host.output();
        EXPECT_EQ(!row.shape.empty(), ReachesX(web[0], x.display()));
        unsigned long w = x.WindowOf(host.pid(), row.shape.empty() ? 1000 : 30000);
        EXPECT_EQ(row.shape, w ? ReadUntil([&] { return x.Shape(w); }, row.shape) : "");
        if (w && !row.shape.empty()) {
            std::string size =
                row.shape.substr(0, row.shape.find('+')).replace(row.shape.find('x'), 1, " by ");
            std::string hints = x.Property(w, "WM_NORMAL_HINTS");
            EXPECT_EQ(row.fixed, Has(hints, "minimum size: " + size) && Has(hints, "maximum size: " + size));
            EXPECT_EQ(row.fixed, Has(hints, "maximum size")) << hints;
            EXPECT_TRUE(Has(x.Property(w, "_NET_WM_NAME"), "= \"" + row.title + "\"\n"));
            EXPECT_EQ(row.title == "Sized", Has(x.Property(w, "_NET_WM_ICON"), "16 x 16"));  // -icon
        }
        PutFile(host.answersPath(), "Release\t1\n");
        EXPECT_EQ("ok", host.Result());
    }
}

// A dialog started while another application has the focus (the user just
// clicked in it) takes the keyboard focus under a real window manager, and
// what is typed reaches the page's autofocus field; -system keeps it above.
TEST_F(Displays, UnderAWindowManagerTheDialogTakesTheFocusAndStaysAbove) {
    if (!FileExists("/usr/bin/mutter")) SkipTest("mutter is not installed (scripts/setup.sh installs it)");
    ASSERT_TRUE(Add().StartArgv({"/usr/bin/mutter", "--x11", "--replace", "--sm-disable"}));
    ASSERT_TRUE(Has(ReadUntil(
                        [&] {
                            return x.Query({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"});
                        },
                        "window id"),
                    "window id"));
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
