// The environments a caller may start the host in, as one table: HOME of
// every shape, with and without a runtime directory or bubblewrap, never a
// session bus.  Each row is one host run, all side by side, and each must
// show the dialog, return the page's result, show its sandboxed web process
// nothing of HOME, and leave nothing behind: no directory, no process (no
// bus autolaunched).
#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

using Environments = RealHost;

struct Environment {
    std::string name;              // also the result the row's page ends with
    std::vector<std::string> env;  // over the run's own ("NAME=value"; "NAME" unsets)
    bool bubblewrap = true;        // false: /usr/bin/bwrap is /bin/false, in a private mount namespace
};

TEST_F(Environments, EachShowsTheDialogReturnsItsResultShowsNothingOfHomeAndLeavesNothing) {
    const std::string hide = "mount --bind /bin/false /usr/bin/bwrap";  // unshare -m: a private namespace
    std::vector<Environment> rows = {
        {"own HOME", {}},
        {"no runtime directory", {"XDG_RUNTIME_DIR"}},
        {"HOME names nothing", {"HOME=/nonexistent"}},
        {"HOME empty", {"HOME="}},
        {"HOME relative", {"HOME=relative/home"}},
        {"HOME a file", {"HOME=/etc/passwd"}},
        {"HOME unset", {"HOME"}},
    };
    // Without a private mount namespace to hide bubblewrap in, that row is left out.
    if (RunProcess({"/usr/bin/unshare", "-m", "/bin/sh", "-c", hide}, {}, 10000) == 0)
        rows.push_back({"no bubblewrap", {}, false});
    // Where HOME must not be seen: the run's own (filled below), and the user's, which GLib takes when
    // HOME is unset.
    const struct passwd* user = getpwuid(getuid());
    const std::string own = user && strlen(user->pw_dir) > 1 ? user->pw_dir : "/nonexistent";
    for (const Environment& row : rows) {
        HostProcess& host = Add();
        // Something under each place WebKit binds from (GLib's cache and config directories and the home
        // directory; it makes its own data directory there), and the accessibility bus of a session
        // without a runtime directory.
        for (const char* file :
             {".cache/at-spi/bus_0", ".config/gtk-3.0/settings.ini", ".themes/a/index.theme"})
            ASSERT_TRUE(PutFile(host.home() + "/" + file, ""));
        host.env = {"DBUS_SESSION_BUS_ADDRESS", "TMPDIR=" + host.dir()};
        host.env.insert(host.env.end(), row.env.begin(), row.env.end());
        if (!row.bubblewrap)
            host.wrapper = {"/usr/bin/unshare", "-m", "/bin/sh", "-c", hide + "; exec \"$@\"", "sh"};
        ASSERT_TRUE(host.Open("awaits.html"));
    }
    for (size_t i = 0; i < hosts.size(); ++i) {
        HostProcess& host = *hosts[i];
        SCOPED_TRACE(rows[i].name);
        bool up = PollUntil([&] { return !host.Running() || host.LastSet("Shown") != "<none>"; }, 30000);
        EXPECT_TRUE(up && host.Running()) << host.output();
        if (!host.Running()) continue;
        EXPECT_NE(0ul, host.Window());
        std::vector<pid_t> web = WebProcessesOf(host.pid());
        EXPECT_FALSE(web.empty());
        for (pid_t pid : web) {
            for (const std::string& home : {host.home(), own}) {
                bool seen = FileExists("/proc/" + std::to_string(pid) + "/root" + home);
                EXPECT_EQ(!rows[i].bubblewrap && FileExists(home), seen) << home;
            }
        }
        EXPECT_EQ(!rows[i].bubblewrap, Has(host.output(), "without WebKit's sandbox")) << host.output();
        ASSERT_TRUE(WriteFile(host.answersPath(), "Result\t" + rows[i].name + "\n"));
    }
    for (size_t i = 0; i < hosts.size(); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_EQ(rows[i].name, hosts[i]->Result());
        EXPECT_EQ("", hosts[i]->Leftovers());
    }
}

}  // namespace
}  // namespace kvotest
