// The host's own side in real runs: the result file, the Application commands,
// window options read back through X, the configured start, system places.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

class Commands : public RealHost {
protected:
    void SetUp() override {
        RealHost::SetUp();
        ASSERT_EQ(0, chdir(m_cwd.path().c_str()));  // the hosts' working directory
    }
    // A maintenance script that appends its marker to $HOME/log.
    static void Script(const std::string& path, const std::string& marker, const std::string& before = "") {
        ASSERT_TRUE(PutFile(path, "#!/bin/sh\n" + before + "\necho " + marker + " >> \"$HOME/log\"\n", 0755));
    }
    TempDir m_cwd;
};

TEST_F(Commands, EveryEndLeavesExactlyItsResultAndNothingBehind) {
    HostProcess& asResult = Open("exit_text.html?result", {"-key", "s3cret"});
    HostProcess& closed = Open("idle.html");
    HostProcess& terminated = Open("idle.html");
    // U+0001 to U+007F, then characters of two, three and four bytes in UTF-8, 3000 times.
    std::string once = "\xc3\xa9\xe0\xa0\x80\xe2\x82\xac\xef\xbf\xbf\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf\r\nend",
                text;
    for (char c = 127; c > 0; --c) once.insert(once.begin(), c);
    for (int i = 0; i < 3000; ++i) text += once;
    EXPECT_TRUE(text == asResult.Result()) << asResult.output();  // not printed: control characters
    // The key was handed over, and cleared as the dialog ended.
    EXPECT_EQ(1, CountOf(asResult.Record(), "SetProperty Key=s3cret"));
    EXPECT_EQ("", asResult.LastSet("Key"));

    // Closed as a window manager closes it; ended by SIGTERM with the bridge in use (no result then).
    for (HostProcess* host : {&closed, &terminated}) {
        ASSERT_TRUE(host->WaitForRecord("SetProperty Seen=" + PageUrl("idle.html"))) << host->output();
        ASSERT_TRUE(PollUntil([&] { return !WebProcessesOf(host->pid()).empty(); }));
    }
    ASSERT_TRUE(x.SendDeleteWindow(closed.Window()));
    ASSERT_EQ(0, kill(terminated.pid(), SIGTERM));
    EXPECT_EQ("OK", closed.Result());
    EXPECT_EQ("<no file>", terminated.Result());
    for (auto& host : hosts) EXPECT_EQ("", host->Leftovers());
}

TEST_F(Commands, ResizeReloadAndTheMaintenanceScripts) {
    // [name, value, size]; "=" marks a size the window keeps.  It starts at 256 x 384.
    HostProcess& resize =
        Open("resize.html?" +
             std::string("[[\"number\",52429280,\"800x480\"],[\"hexText\",\"0x01400100\",\"320x256\"],"
                         "[\"truncated\",52429280.9,\"800x480\"],[\"fraction\",1.9,\"=800x480\"],[\"none\","
                         "null,\"=800x480\"],"
                         "[\"decimalText\",\"20971776\",\"320x256\"],[\"widest\",-65436,\"32767x100\"]]"));
    HostProcess& reload = Open("reload_start.html");
    HostProcess& scripts = Add();
    for (HostProcess* host : {&scripts, &Add()}) {
        Script(host->home() + "/.kvo/install", "home-install");  // install never searches
        Script(
            host->home() + "/.kvo/repair", "home-repair", "sleep 0.3");  // later than the host's first look
        Script(host->home() + "/.kvo/uninstall", "home-uninstall");
    }
    for (const char* name : {"install", "repair", "uninstall"})
        Script(m_cwd.file(std::string(".") + name), name);
    ASSERT_TRUE(scripts.Open("scripts.html"));
    // -test: the script, waited for, and no window or plug-in.
    HostProcess& testMode = *hosts.back();
    for (const char* value : {"script repair", "script install"}) {
        ASSERT_TRUE(testMode.StartArgv({HostBinary(), "-test", value, "-url", PageUrl("idle.html")}));
        EXPECT_EQ(0, testMode.Wait()) << value << testMode.output();
    }
    EXPECT_EQ("home-repair\ninstall\n", ReadFileOr(testMode.home() + "/log"));
    EXPECT_FALSE(FileExists(testMode.recordPath()));

    EXPECT_EQ("ok", resize.Result());
    EXPECT_EQ("ok", reload.Result());
    EXPECT_EQ("OK", scripts.Result());  // uninstall ends the dialog as an exit without texts
    EXPECT_EQ("install\nhome-repair\nhome-uninstall\n", ReadFileOr(scripts.home() + "/log"));
    EXPECT_EQ("0,0,0,0,0,0,0,0", scripts.LastSet("Results"));
}

TEST_F(Commands, RestartRunsTheSameCommandLineAndLeavesOnlyTheNewHost) {
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));  // the new host becomes ours when the first ends
    HostProcess& host = Add();
    // Started by its bare name along PATH, beside a planted program of that name in the working
    // directory: the restart runs the program that runs, never the planted one.
    host.env = {"PATH=" + HostBinary().substr(0, HostBinary().rfind('/')) + ":/usr/bin:/bin"};
    Script(m_cwd.file("kavori-host"), "planted");
    // gtk_init takes --class out of its own vector; the restart must pass it on all the same.
    std::vector<std::string> argv = {"kavori-host",
                                     "--class",
                                     "KvoRestart",
                                     "-url",
                                     PageUrl("restart.html?" + host.recordPath()),
                                     "-root",
                                     PluginDir("recording"),
                                     "-key",
                                     "k",
                                     "-store",
                                     host.storePath()};
    ASSERT_TRUE(host.StartArgv(argv));
    ASSERT_EQ(0, host.Wait()) << host.output();
    ASSERT_TRUE(host.WaitForRecord("SetProperty Asked=2")) << host.output();  // the second host's page
    pid_t second = 0;
    ASSERT_TRUE(PollUntil([&] {
        for (pid_t pid : ProcessesWithEnv("XDG_RUNTIME_DIR=" + host.dir()))
            second = ProgramOf(pid) == "kavori-host" ? pid : second;
        return second != 0;
    }));
    std::shared_ptr<void> reap(nullptr, [second](void*) {  // the new host, should the test end early
        if (waitpid(second, nullptr, WNOHANG) == 0 && kill(second, SIGKILL) == 0) waitpid(second, nullptr, 0);
    });
    std::string expected;
    for (const std::string& a : argv) expected += a + '\0';
    EXPECT_EQ(expected, ReadFileOr("/proc/" + std::to_string(second) + "/cmdline"));
    unsigned long window = x.WindowOf(second);
    EXPECT_TRUE(Has(x.Property(window, "WM_CLASS"), "\"KvoRestart\""));
    // The first left no result, kept the key, and restart did not return to its page.
    EXPECT_FALSE(FileExists(host.storePath()));
    EXPECT_EQ(2, CountOf(host.Record(), "SetProperty Key=k"));
    EXPECT_EQ(0, CountOf(host.Record(), "SetProperty Key="));
    EXPECT_EQ("<none>", host.LastSet("Restart"));
    EXPECT_FALSE(FileExists(host.home() + "/log"));
    // The new one is a dialog like any other, and nothing of either is left.
    ASSERT_TRUE(x.SendDeleteWindow(window));
    EXPECT_EQ(0, WaitProcess(second, 20000));
    EXPECT_EQ("OK", ReadFileOr(host.storePath(), "<no file>"));
    EXPECT_EQ("", host.Leftovers());
}

using Windows = RealHost;

TEST_F(Windows, GeometryTitleIconAndSizeHintsAsXHasThem) {
    const std::string icon = SourceDir() + "/tests/fixtures/pages/kvo.ico";
    struct Row {
        std::vector<std::string> arguments;
        std::string shape, title;
        bool fixed;
    } rows[] = {
        // 400 x (330 - 30), at the left edge and 50 from the bottom (an x of 0 still moves it).
        {{"-size",
          "0x0190014A",
          "-position",
          "0x00008032",
          "-title",
          "Sized",
          "-icon",
          icon,
          "-wait",
          "300000"},
         "400x300+0+674",
         "Sized",
         true},
        // As high as the screen, so only x is centred; -position is not looked at.
        {{"-position", "0x00100010", "-size", "32769054", "-center", "-resizing"},
         "500x1024+390+0",
         "Kavori",
         false},
        // An ordinary window of the screen's size, not the toolkit's full-screen state.
        {{"-size", "0x0190014A", "-position", "0x00640032", "-fullscreen"}, "1280x1024+0+0", "Kavori", true}};
    for (const Row& row : rows) Open("idle.html", row.arguments);
    for (size_t i = 0; i < hosts.size(); ++i) {
        SCOPED_TRACE(rows[i].shape);
        unsigned long w = hosts[i]->Window();
        ASSERT_NE(0u, w) << hosts[i]->output();
        EXPECT_EQ(rows[i].shape, ReadUntil([&] { return x.Shape(w); }, rows[i].shape));
        std::string size =
            rows[i].shape.substr(0, rows[i].shape.find('+')).replace(rows[i].shape.find('x'), 1, " by ");
        std::string hints =
            ReadUntil([&] { return x.Property(w, "WM_NORMAL_HINTS"); }, rows[i].fixed ? "maximum" : "");
        EXPECT_EQ(rows[i].fixed, Has(hints, "minimum size: " + size) && Has(hints, "maximum size: " + size))
            << hints;
        EXPECT_EQ(rows[i].fixed, Has(hints, "maximum size")) << hints;
        EXPECT_TRUE(Has(x.Property(w, "_NET_WM_NAME"), "= \"" + rows[i].title + "\"\n"));
        EXPECT_FALSE(Has(x.Property(w, "_NET_WM_STATE"), "FULLSCREEN"));
    }
    EXPECT_TRUE(
        Has(ReadUntil([&] { return x.Property(hosts[0]->Window(), "_NET_WM_ICON"); }, "Icon"), "16 x 16"));
}

TEST_F(Windows, SystemKeepsTheWindowAboveUnderAWindowManager) {
    if (!FileExists("/usr/bin/openbox")) SkipTest("openbox is not installed (scripts/setup.sh installs it)");
    ASSERT_TRUE(Add().StartArgv({"/usr/bin/openbox", "--sm-disable"}));
    ASSERT_TRUE(Has(ReadUntil(
                        [&] {
                            return x.Query({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"});
                        },
                        "window id"),
                    "window id"));
    unsigned long w = Open("idle.html", {"-system"}).Window();
    EXPECT_TRUE(
        Has(ReadUntil([&] { return x.Property(w, "_NET_WM_STATE"); }, "ABOVE"), "_NET_WM_STATE_ABOVE"));
}

TEST_F(Windows, TheConfiguredStartGivesPagePrefixTitleAndUserAgent) {
    // Without -url the configured words follow the real command line, whose -key comes first.
    HostProcess& host =
        Add("ConfigGlobal:Dialog:PathResource\t" + PageUrl("") +
            "\nConfigGlobal:Command:App\t-url idle.html -title \"Two Words\" -key configured -useragent"
            "\nProductInfo\tKavori Middleware;x;06070002,2024-05-01\n");
    ASSERT_TRUE(host.StartArgv(
        {HostBinary(), "-root", PluginDir("recording"), "-key", "own", "-store", host.storePath()}));
    ASSERT_TRUE(host.WaitForRecord("SetProperty Seen=" + PageUrl("idle.html"))) << host.output();
    unsigned long w = host.Window();
    EXPECT_TRUE(Has(x.Property(w, "_NET_WM_NAME"), "\"Two Words\"")) << x.Property(w, "_NET_WM_NAME");
    ASSERT_TRUE(x.SendDeleteWindow(w));
    EXPECT_EQ("OK", host.Result());
    std::vector<std::string> record = host.Record();
    EXPECT_EQ(1, CountOf(record, "GetProperty ConfigGlobal:Dialog:PathResource"));
    EXPECT_EQ(1, CountOf(record, "SetProperty Key=own"));
    EXPECT_EQ(0, CountOf(record, "SetProperty Key=configured"));
    // The composed user agent: WebKit's, the product's version, maybe this system's description.
    std::string agent = host.LastSet("Agent");
    EXPECT_TRUE(agent.rfind("Mozilla/5.0 ", 0) == 0 && Has(agent, " Kavori/6.7")) << agent;
}

TEST_F(Windows, TheShippedHostRunsTheSystemAdminProgram) {
    // /usr/bin/kvo exists only in an overlay of a private mount namespace,
    // which mounts nothing unless it really is private.
    HostProcess& host = Add();
    std::string layer = host.dir() + "/layer";
    PutFile(layer + "/upper/kvo", "#!/bin/sh\necho \"$0 $*\" > '" + host.dir() + "/admin'\n", 0755);
    MakeDirs(layer + "/work");
    std::string script =
        "[ \"$(readlink /proc/self/ns/mnt)\" != \"$(readlink /proc/$PPID/ns/mnt)\" ] || exit 77\n"
        "mount -t overlay overlay -o lowerdir=/usr/bin,upperdir=" +
        layer + "/upper,workdir=" + layer + "/work /usr/bin || exit 77\nexec \"$@\"\n";
    host.env = {"HOME"};  // no per-user installation
    ASSERT_TRUE(host.StartArgv(
        {"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh", "-c", script, "sh", HostBinary()}));
    int status = host.Wait();
    if (status == 77) SkipTest("no private mount namespace with an overlay: " + host.output());
    ASSERT_EQ(0, status) << host.output();
    EXPECT_EQ("/usr/bin/kvo -admin\n", ReadUntil([&] { return ReadFileOr(host.dir() + "/admin"); }, "\n"));
}

}  // namespace
}  // namespace kvotest
