// The environments a caller may start the host in, as one table: HOME of
// every shape, with and without a runtime directory or bubblewrap, never a
// session bus, on X11 at scale 1 and 2 and on a Wayland session; and a real
// window manager.
#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

using Environments = RealHost;

// Whether process pid can reach the X server of display (":N"): its socket
// in the process's mount namespace, or a socket of that name (an abstract
// one, or a connection) in its network namespace.
bool ReachesX(pid_t pid, const std::string& display) {
    std::string proc = "/proc/" + std::to_string(pid), socket = "/tmp/.X11-unix/X" + display.substr(1);
    return FileExists(proc + "/root" + socket) || Has(ReadFileOr(proc + "/net/unix"), socket);
}

struct Environment {
    std::string name;
    std::vector<std::string> env;  // over the run's own ("NAME=value"; "NAME" unsets)
    std::vector<std::string> arguments;
    std::string shape;  // the window as X has it; "" when it is not on X
    std::string title = "Kavori";
    bool fixed = true;       // not resizable: its size hints hold it
    bool bubblewrap = true;  // false: /usr/bin/bwrap is /bin/false, in a private mount namespace
};

// One host run a row, all side by side.  Each shows the dialog at -size in the desktop's logical pixels,
// where -position or -center put it (the screen measured in logical pixels too), with its title, icon and
// size hints; a page's resizes reach it, held to the monitor's work area; its result comes back.  Its
// sandboxed web process sees nothing of HOME, and reaches the X server only where the host is an X11
// client.  Nothing is left behind: no directory, no process (no bus autolaunched); no call the toolkit
// refuses is made.
TEST_F(Environments, EachShowsTheDialogReturnsItsResultShowsNothingOfHomeAndLeavesNothing) {
    const std::string hide = "mount --bind /bin/false /usr/bin/bwrap";  // unshare -m: a private namespace
    const std::string icon = SourceDir() + "/tests/fixtures/pages/kvo.ico";
    // WAYLAND_DISPLAY names a headless compositor's socket in the runtime directory ("/" first: by its path);
    // unset after that, the compositor listens where the session does not say (its default name).
    std::vector<Environment> rows = {
        {"own HOME",
         {},
         {"-position", "0x00010000", "-title", "Sized", "-icon", icon},
         "420x420+1+0",
         "Sized"},
        // Centred on a screen of 640 x 512 logical pixels.
        {"scale 2, HOME unset",
         {"GDK_SCALE=2", "HOME"},
         {"-center", "-resizing"},
         "840x840+220+92",
         "Kavori",
         0},
        {"no runtime directory", {"XDG_RUNTIME_DIR"}, {}, "420x420+0+0"},
        {"HOME names nothing", {"HOME=/nonexistent"}, {}, "420x420+0+0"},
        {"HOME empty", {"HOME="}, {}, "420x420+0+0"},
        {"HOME relative", {"HOME=relative/home"}, {}, "420x420+0+0"},
        {"HOME a file", {"HOME=/etc/passwd"}, {}, "420x420+0+0"},
        {"Wayland", {"WAYLAND_DISPLAY=/wl"}, {"-position", "0x00010000"}, ""},
        {"a compositor the session does not name",
         {"WAYLAND_DISPLAY=wayland-0", "WAYLAND_DISPLAY"},
         {},
         "420x420+0+0"},
        {"X11 asked for on Wayland",
         {"GDK_BACKEND=x11", "WAYLAND_DISPLAY=wl"},
         {"-position", "1"},
         "420x420+0+1"},
    };
    // Without a private mount namespace to hide bubblewrap in, that row is left out.
    if (RunProcess({"/usr/bin/unshare", "-m", "/bin/sh", "-c", hide}, {}, 10000) == 0)
        rows.push_back({"no bubblewrap", {}, {}, "420x420+0+0", "Kavori", true, false});
    // Something under each place WebKit binds from (GLib's cache and config directories and the home
    // directory; it makes its own data directory there), the accessibility bus of a session without a
    // runtime directory, and what else a HOME holds.  None of it, nor the user's own home directory
    // (GLib's HOME when HOME is unset), may be seen in a web process.
    const std::string planted[] = {".cache/at-spi/bus_0",
                                   ".config/gtk-3.0/settings.ini",
                                   ".themes/a/index.theme",
                                   ".local/share/a",
                                   ".ssh/id_rsa"};
    const struct passwd* user = getpwuid(getuid());
    const std::string own = user && strlen(user->pw_dir) > 1 ? user->pw_dir : "/nonexistent";
    std::string skipped;  // why some rows did not run
    std::vector<std::pair<const Environment*, HostProcess*>> dialogs;
    for (const Environment& row : rows) {
        HostProcess& host = Add();
        for (const std::string& file : planted) ASSERT_TRUE(PutFile(host.home() + "/" + file, ""));
        host.env = {"DBUS_SESSION_BUS_ADDRESS", "TMPDIR=" + host.dir()};
        host.env.insert(host.env.end(), row.env.begin(), row.env.end());
        if (!row.bubblewrap)
            host.wrapper = {"/usr/bin/unshare", "-m", "/bin/sh", "-c", hide + "; exec \"$@\"", "sh"};
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
        if (ready) {
            ASSERT_TRUE(host.Open("resize.html", arguments));
            dialogs.push_back({&row, &host});
        }
    }
    for (auto [row, host] : dialogs) {
        SCOPED_TRACE(row->name);
        ASSERT_TRUE(host->WaitForRecord("SetProperty Held=2")) << host->output();
        std::vector<pid_t> web = WebProcessesOf(host->pid());
        ASSERT_EQ(1u, web.size()) << host->output();
        EXPECT_EQ(!row->shape.empty(), ReachesX(web[0], x.display()));
        std::string root = "/proc/" + std::to_string(web[0]) + "/root";
        for (const std::string& file : planted)
            EXPECT_EQ(!row->bubblewrap, FileExists(root + host->home() + "/" + file)) << file;
        EXPECT_EQ(!row->bubblewrap && FileExists(own), FileExists(root + own)) << own;
        EXPECT_EQ(!row->bubblewrap, Has(host->output(), "without WebKit's sandbox")) << host->output();
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
    }
    for (auto [row, host] : dialogs) {
        SCOPED_TRACE(row->name);
        EXPECT_EQ("ok", host->Result());
        EXPECT_FALSE(Has(host->output(), "Gtk-CRITICAL")) << host->output();
        EXPECT_EQ("", host->Leftovers());
    }
    if (!skipped.empty() && !HasFailure()) SkipTest(skipped);
}

// A dialog started while another application has the focus (the user just
// clicked in it) takes the keyboard focus under a real window manager, and
// what is typed reaches the page's autofocus field; -system keeps it above.
TEST_F(Environments, UnderAWindowManagerTheDialogTakesTheFocusAndStaysAbove) {
    if (!FileExists("/usr/bin/mutter")) SkipTest("mutter is not installed (scripts/setup.sh installs it)");
    ASSERT_TRUE(Add().StartArgv({"/usr/bin/mutter", "--x11", "--replace", "--sm-disable"}));
    ASSERT_TRUE(PollUntil([&] {
        return Has(x.Query({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"}), "id");
    }));
    std::string other = std::to_string(Open("idle.html").Window());
    x.Query({"xdotool", "mousemove", "--window", other, "20", "20", "click", "1"});
    ASSERT_EQ(other + "\n", ReadUntil([&] { return x.Query({"xdotool", "getactivewindow"}); }, other));

    // In developer mode, where Ctrl+R reloads the page and a plain "r" is typed as any key.
    HostProcess& dialog = Open("focus.html", {"-system"}, {"KAVORI_DEVELOPER=1"});
    ASSERT_TRUE(dialog.WaitForRecord("SetProperty Focused=true")) << dialog.output();
    unsigned long w = dialog.Window();
    EXPECT_EQ(std::to_string(w) + "\n", x.Query({"xdotool", "getactivewindow"}));
    EXPECT_TRUE(
        Has(ReadUntil([&] { return x.Property(w, "_NET_WM_STATE"); }, "ABOVE"), "_NET_WM_STATE_ABOVE"));
    x.Query({"xdotool", "type", "--delay", "20", "reload me"});
    x.Query({"xdotool", "key", "ctrl+r"});
    ASSERT_TRUE(dialog.WaitForRecord("SetProperty Focused=true", 2)) << dialog.output();
    x.Query({"xdotool", "type", "--delay", "20", "typed 1234"});
    x.Query({"xdotool", "key", "Return"});
    EXPECT_EQ("typed 1234", dialog.Result());
    EXPECT_EQ(2, CountOf(dialog.Record(), "SetProperty Focused=true"));  // loaded once more, by Ctrl+R alone
}

}  // namespace
}  // namespace kvotest
