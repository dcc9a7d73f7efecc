// The host's own side in real runs: the result file, the Application commands,
// the configured start, system places.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <iterator>
#include <sstream>

#include "app/launch.h"
#include "tests/e2e/e2e.h"

namespace kvotest {
namespace {

// The words of a command line; no word here holds a blank.
std::vector<std::string> Words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

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

// Dialogs through the example caller; then hosts waiting for a script (-test wins over -url: no window, no
// plug-in, no WebKit), a signal each: a signal taken ends one as SIGTERM does; after SIGKILL or a crash
// (SIGUSR1 is WebKit's) of a dialog the next host sweeps.
TEST_F(Commands, EveryEndLeavesExactlyItsResultAndNothingBehind) {
    for (int s = 1; s < SIGRTMIN; ++s) signal(s, SIG_DFL);  // none ignored, whoever ran the tests (nohup)
    // The caller's stdout in the result file: two dialogs at once, each with its own result (the second:
    // every function of Kavori) and key, and one that outlasts the caller's timeout.
    const std::string pages[] = {"exit_text.html?result", "calls.html", "idle.html"};
    for (const std::string& page : pages) {
        HostProcess& caller = Add();
        ASSERT_TRUE(caller.StartArgv({"/bin/sh",
                                      "-c",
                                      "exec " + BuildDir() + "/bin/kavori-caller -t " +
                                          (page == "idle.html" ? "1" : "300") + " -k '" + page + "' " +
                                          HostBinary() + " '" + PageUrl(page) + "' -root " +
                                          PluginDir("recording") + " > " + caller.storePath()}));
    }
    HostProcess& next = Add();  // its directory is the crashed hosts' XDG_RUNTIME_DIR
    // What a -test host has beside its script: no bridge directory, no process but the script.
    Script(m_cwd.file(".install"),
           "ended",
           "{ ls -d \"$XDG_RUNTIME_DIR\"/kavori-*; for c in $(cat /proc/$PPID/task/*/children); do\n"
           "[ $c = $$ ] || cat /proc/$c/comm; done; } > \"$HOME/beside\"\n"
           "while kill -0 $PPID; do sleep 0.1; done");
    std::pair<int, bool> endings[] = {{SIGHUP, true},
                                      {SIGINT, true},
                                      {SIGQUIT, true},
                                      {SIGUSR2, true},
                                      {SIGALRM, true},
                                      {SIGTERM, true},
                                      {SIGSTKFLT, true},
                                      {SIGXFSZ, true},
                                      {SIGVTALRM, true},
                                      {SIGPROF, true},
                                      {SIGIO, true},
                                      {SIGPWR, true},
                                      {SIGUSR1, false},
                                      {SIGKILL, false}};
    for (const auto& ending : endings) {
        HostProcess& host = Add();
        if (!ending.second) host.env = {"XDG_RUNTIME_DIR=" + next.dir()};
        ASSERT_TRUE(ending.second ? host.StartArgv({HostBinary(), "-test", "script install"})
                                  : host.Open("idle.html"));
    }
    // U+0001 to U+007F, then characters of two, three and four bytes in UTF-8, 3000 times.
    std::string once = "\xc3\xa9\xe0\xa0\x80\xe2\x82\xac\xef\xbf\xbf\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf\r\nend",
                text;
    for (char c = 127; c > 0; --c) once.insert(once.begin(), c);
    for (int i = 0; i < 3000; ++i) text += once;
    EXPECT_TRUE(text == hosts[0]->Result()) << hosts[0]->output();  // not printed: control characters
    EXPECT_EQ("ok", hosts[1]->Result()) << hosts[1]->output();
    EXPECT_EQ(2, hosts[2]->Wait()) << hosts[2]->output();  // the caller ended it: no result
    // The key was handed over, and cleared as the dialog ended.
    for (int i : {0, 1})
        EXPECT_TRUE(CountOf(hosts[i]->Record(), "SetProperty Key=" + pages[i]) == 1 &&
                    hosts[i]->LastSet("Key") == "");

    ASSERT_TRUE(PollUntil([&] { return next.SocketDirectories().size() == 2; }, 60000));
    for (size_t i = 0; i < std::size(endings); ++i) {
        HostProcess& host = *hosts[4 + i];
        bool taken = endings[i].second;
        ASSERT_TRUE(!taken || PollUntil([&] { return FileExists(host.home() + "/beside"); }, 60000));
        ASSERT_EQ(0, kill(host.pid(), endings[i].first));
        EXPECT_EQ(taken, host.Wait() == 0) << strsignal(endings[i].first);  // ASan: crashes give 1
        EXPECT_EQ("", ReadFileOr(host.home() + "/beside")) << strsignal(endings[i].first);
        EXPECT_TRUE(!taken || !FileExists(host.recordPath()));
    }
    // The next host in their place, started with its input and output closed, finds its own directory
    // alone; ended by SIGTERM with the bridge in use, it leaves no result.
    next.wrapper = {"/bin/sh", "-c", "exec \"$0\" \"$@\" <&- >&-"};
    ASSERT_TRUE(next.Open("idle.html"));
    ASSERT_TRUE(next.WaitForRecord("SetProperty Seen=" + PageUrl("idle.html"))) << next.output();
    ASSERT_TRUE(PollUntil([&] { return !WebProcessesOf(next.pid()).empty(); }));
    EXPECT_EQ(1u, next.SocketDirectories().size());
    // Sweeping the others' places kept nothing of theirs open: its own two places are all the directories
    // it holds; what the caller closed is /dev/null to it and its web process, not a file opened later.
    auto fd = [](pid_t pid, const char* name) { return "/proc/" + std::to_string(pid) + "/fd/" + name; };
    std::string held;
    for (pid_t pid : {next.pid(), WebProcessesOf(next.pid()).front()}) {
        for (const char* standard : {"0", "1"}) {
            char target[64] = {};
            readlink(fd(pid, standard).c_str(), target, sizeof target - 1);
            held += std::string(target) + " ";
        }
    }
    for (const std::string& open : Glob(fd(next.pid(), "*"))) {
        struct stat st;
        held += stat(open.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? "directory " : "";
    }
    EXPECT_EQ(held, "/dev/null /dev/null /dev/null /dev/null directory directory ");
    ASSERT_EQ(0, kill(next.pid(), SIGTERM));
    EXPECT_EQ("<no file>", next.Result());
    for (auto& host : hosts) EXPECT_EQ("", host->Leftovers()) << host->output();
}

TEST_F(Commands, ReloadAndTheMaintenanceScripts) {
    HostProcess& reload = Open("reload_start.html");
    HostProcess& scripts = Add();
    Script(scripts.home() + "/.kvo/install", "home-install");             // install never searches
    Script(scripts.home() + "/.kvo/repair", "home-repair", "sleep 0.3");  // later than the host's first look
    Script(scripts.home() + "/.kvo/uninstall", "home-uninstall");
    for (const char* name : {"install", "repair", "uninstall"})
        Script(m_cwd.file(std::string(".") + name), name);
    ASSERT_TRUE(scripts.Open("scripts.html"));

    EXPECT_EQ("ok", reload.Result());
    EXPECT_EQ("OK", scripts.Result());  // uninstall ends the dialog as an exit without texts
    EXPECT_EQ("install\nhome-repair\nhome-uninstall\n", ReadFileOr(scripts.home() + "/log"));
    EXPECT_EQ("0,0,0,0,0,0,0,0", scripts.LastSet("Results"));
}

TEST_F(Commands, RestartRunsTheSameCommandLineUntilItsBoundAndLeavesOnlyTheLastHost) {
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));  // the new hosts become ours as the earlier ones end
    HostProcess& host = Add();
    // Started by its bare name along PATH beside a planted program of that name: the restart runs the program
    // that runs.  Its environment holds the most restarts allowed, from a window that has passed.
    host.env = {"PATH=" + HostBinary().substr(0, HostBinary().rfind('/')) + ":/usr/bin:/bin",
                "KAVORI_RESTARTS=" + std::to_string(kMaxRestarts) + " " +
                    std::to_string(MonotonicMs() - kRestartWindowMs - 1000)};
    Script(m_cwd.file("kavori-host"), "planted");
    // gtk_init takes --class out of its own vector; the restart must pass it on all the same, and the
    // result's descriptor that the caller holds (the shell's 3).
    std::vector<std::string> argv = Words("kavori-host --class KvoRestart -url " + PageUrl("restart.html") +
                                          " -root " + PluginDir("recording") + " -key k -store /dev/fd/3");
    argv.insert(argv.begin(), {"/bin/sh", "-c", "exec \"$@\" 3> \"$0\"", host.storePath()});
    std::shared_ptr<void> reap(nullptr, [&host](void*) {  // should the test end early: the chain's hosts
        PollUntil([&] {
            std::vector<pid_t> left = ProcessesWithEnv("XDG_RUNTIME_DIR=" + host.dir());  // zombies have none
            for (pid_t pid : left) kill(pid, SIGKILL);
            return left.empty();
        });
    });
    ASSERT_TRUE(host.StartArgv(argv));
    ASSERT_EQ(0, host.Wait()) << host.output();
    // The page restarts on every load until the bound makes restart give 0 (later on a very slow machine).
    ASSERT_TRUE(host.WaitForRecord("SetProperty Restart=0", 1, 60000)) << host.output();
    pid_t last = 0;
    ASSERT_TRUE(PollUntil([&] {
        for (pid_t pid : ProcessesWithEnv("XDG_RUNTIME_DIR=" + host.dir()))
            last = ProgramOf(pid) == "kavori-host" ? pid : last;
        return last != 0;
    }));
    std::string expected;
    for (auto a = argv.begin() + 4; a != argv.end(); ++a) expected += *a + '\0';  // as the shell gave it
    EXPECT_EQ(expected, ReadFileOr("/proc/" + std::to_string(last) + "/cmdline"));
    // Every host but the last left no result, kept the key, and restart did not return to its page.
    int hostsMade = CountOf(host.Record(), "GetProperty Generation");
    EXPECT_GE(hostsMade, int(kMaxRestarts) + 1);
    EXPECT_EQ("", ReadFileOr(host.storePath()));
    EXPECT_EQ(hostsMade, CountOf(host.Record(), "SetProperty Key=k"));
    EXPECT_EQ(0, CountOf(host.Record(), "SetProperty Key="));
    EXPECT_EQ(1, CountOf(host.Record(), "SetProperty Restart=0"));
    EXPECT_FALSE(FileExists(host.home() + "/log"));
    // The last one is a dialog like any other, and nothing of any is left.
    ASSERT_TRUE(x.SendDeleteWindow(x.WindowOf(last)));
    EXPECT_EQ(0, WaitProcess(last, 20000));
    EXPECT_EQ("OK", ReadFileOr(host.storePath(), "<no file>"));
    EXPECT_EQ("", host.Leftovers());
}

using Windows = RealHost;

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
