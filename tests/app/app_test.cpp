// The application shell's units, without a window; the installation's places come from HOME and from system
// places moved below a directory of the test.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>

#include <cmath>
#include <cstring>
#include <memory>
#include <set>

#include "app/app_commands.h"
#include "app/geometry.h"
#include "app/host_state.h"
#include "app/launch.h"
#include "app/options.h"
#include "app/paths.h"
#include "app/result_store.h"
#include "app/sandbox.h"
#include "app/signals.h"
#include "app/start_url.h"
#include "app/user_agent.h"
#include "native/plugin_session.h"
#include "native/system_places.h"
#include "tests/support/support.h"

using namespace kvotest;
using Words = std::vector<std::string>;

namespace {

// A process's vector from a command text (the splitter's own rules are checked below).
struct Argv {
    int32_t argc = 0;
    char** argv;
    explicit Argv(const std::string& text) : argv(SplitCommandText(text.c_str(), &argc)) {}
    ~Argv() { FreeArgumentVector(argv); }
};
void SaveArgs(const std::string& text) {  // as the entry point does
    Argv args(text);
    FreeArgumentVector(g_argv), SaveCommandLine(args.argc, args.argv);
}
char* Copy(const char* text) { return text ? strcpy(new char[strlen(text) + 1], text) : nullptr; }

// Which option a lookup finds and its value are the options fuzzer's (its seeds hold the
// edge cases); here the numbers in their irregular forms.
TEST(Options, NumbersInTheirIrregularForms) {
    std::pair<const char*, uint32_t> texts[] = {{"0X0BB8", 0},
                                                {"12abc", 12},
                                                {"+5", 5},
                                                {"abc", 0},
                                                {"0x", 0},
                                                {"-1", 0xFFFFFFFF},
                                                {"4294967297", 1},
                                                {"0xFFFFFFFF", 0xFFFFFFFF},
                                                {"0x123456789", 0x23456789},
                                                {"0xa", 42}};
    for (const auto& t : texts) EXPECT_EQ(ParseNumber(t.first), t.second) << t.first;
}

TEST(Geometry, SizeCenterPositionAndFullscreen) {
    struct {
        const char* args;
        int32_t width, height, x, y;
    } rows[] = {{"", 256, 384, 0, 0},
                {"-size 0x0100001F", 256, 1, 0, 0},
                {"-size 0x0100001E", 256, 1, 0, 0},
                {"-size", 0, 1, 0, 0},
                {"-center -size 0x07D00212 -position 0x00640032", 2000, 500, 0, 262},
                {"-position 0x80648032", 256, 384, 1280 - 256 - 100, 1024 - 384 - 50},  // from the far edges
                {"-fullscreen -size 0x01000200 -position 0x00640032", 1280, 1024, 0, 0}};
    for (const auto& r : rows) {
        Argv args(std::string("host ") + r.args);
        WindowGeometry g = ComputeWindowGeometry(args.argc, args.argv, 1280, 1024);
        EXPECT_EQ((std::vector<int32_t>{g.width, g.height, g.x, g.y}),
                  (std::vector<int32_t>{r.width, r.height, r.x, r.y}))
            << r.args;
    }
}

// The splitting rules are the command-text fuzzer's (its seeds hold the edge cases); a
// plug-in that gives no text at all gives no words.
TEST(CommandText, NoTextNoWords) {
    int32_t count = -1;
    char** words = SplitCommandText(nullptr, &count);
    EXPECT_TRUE(count == 0 && words && words[0] == nullptr);
    FreeArgumentVector(words);
}

// What the caller set is kept: an ignored SIGHUP (nohup), a profiler's SIGPROF handler. Every other ending
// signal is taken, and cuts a pause short.
void Profiler(int) {}
TEST(Signals, TheCallersChoicesStayAnotherEndingSignalCutsAPauseShort) {
    signal(SIGHUP, SIG_IGN), signal(SIGPROF, Profiler);
    WatchTerminationSignals();
    std::vector<sighandler_t> handlers;
    for (int s : {SIGHUP, SIGPROF, SIGUSR1, SIGPIPE}) handlers.push_back(signal(s, SIG_DFL));
    EXPECT_EQ(handlers, (std::vector<sighandler_t>{SIG_IGN, Profiler, SIG_DFL, SIG_DFL}));
    EXPECT_FALSE(TerminatedBySignal());
    if (fork() == 0) usleep(300000), kill(getppid(), SIGALRM), _exit(0);
    SleepUnlessTerminated(120000000);  // past the test's time limit unless the child's signal cuts it short
    EXPECT_TRUE(TerminatedBySignal());
    wait(nullptr);
}

TEST(StartUrl, PrefixAndRedirectionFromThePluginAndLocalFilesAsFileUrls) {
    TempDir dir;
    ConfigurePluginSession((FixtureDir() + "/plugins/recording").c_str(), nullptr);
    setenv("KVO_TEST_ANSWERS", dir.file("answers").c_str(), 1);
    Argv received("host -title Real -store");
    int32_t count = received.argc;
    EXPECT_EQ(RedirectCommandLine(received.argv, &count), nullptr);  // nothing configured
    WriteFile(
        dir.file("answers"),
        "ConfigGlobal:Dialog:PathResource\tfile:///kvo/\nConfigGlobal:Command:App\tout -title \"A b\"\n");
    for (const char* kept : {"https://x/a", "a.html?next=http://x", (const char*)nullptr})
        EXPECT_EQ(ResolveStartUrl(kept), kept);
    std::unique_ptr<const char[]> resolved(ResolveStartUrl("index.html"));
    EXPECT_STREQ(resolved.get(), "file:///kvo/index.html");
    char** argv = RedirectCommandLine(received.argv, &count);  // the real words first: they win
    EXPECT_EQ(Words(argv, argv + count), (Words{"host", "-title", "Real", "-store", "out", "-title", "A b"}));
    FreeArgumentVector(argv);
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    PutFile(dir.file("folder/page.html"), "");
    for (const char* kept : {"missing.html", "folder", "http://x/folder/page.html", ""})
        EXPECT_EQ(FileUrlForLocalPath(kept), kept);
    std::unique_ptr<const char[]> fileUrl(FileUrlForLocalPath("folder/page.html"));
    EXPECT_EQ(fileUrl.get(), "file://" + dir.path() + "/folder/page.html");
    // A link is opened as given, so its page finds resources beside it; a one-letter name is a path too.
    ASSERT_EQ(symlink("folder/page.html", dir.file("l").c_str()), 0);
    std::unique_ptr<const char[]> linkUrl(FileUrlForLocalPath("l"));
    EXPECT_EQ(linkUrl.get(), "file://" + dir.path() + "/l");
}

// The success words give way to the success text; then -store targets: only where the caller meant it, and
// never a stream that could not be opened or written reported as stored (said on stderr, in order).
TEST(Result, TheTextAndWhereItGoesOrASaidRefusal) {
    struct {
        const char *result, *successText, *text;
    } rows[] = {{nullptr, nullptr, "OK"},
                {"", "", "OK"},
                {"OK", "done", "done"},
                {"CKR_OK", "done", "done"},
                {"CKR_OK", "", "CKR_OK"},
                {"CKR_PIN_INCORRECT", "done", "CKR_PIN_INCORRECT"},
                {"ok", "done", "ok"},
                {"OK ", "done", "OK "},
                {nullptr, "done", "done"}};  // the text of the -store targets below
    for (const auto& r : rows) {
        ReleaseExitTexts();
        g_exitResult = Copy(r.result);
        g_exitSuccessText = Copy(r.successText);
        EXPECT_STREQ(ResultText(), r.text)
            << (r.result ? r.result : "-") << "/" << (r.successText ? r.successText : "-");
    }
    TempDir dir;
    auto at = [&](const char* name) { return dir.file(name); };
    PutFile(at("victim"), "kept", 0600);
    symlink(at("victim").c_str(), at("link").c_str());
    PutFile(at("theirs"), "kept", 0644);
    bool other = getuid() == 0 && chown(at("theirs").c_str(), 65534, 65534) == 0;
    PutFile(at("mine"), "an older and longer content\n", 0640);
    PutFile(at("capped"), "kept", 0600);  // written under a file size limit of one byte: a short write
    PutFile(at("held"), "head:", 0600);
    for (const char* name : {"fifo", "unread"}) mkfifo(at(name).c_str(), 0600);
    int fifo = open(at("fifo").c_str(), O_RDONLY | O_NONBLOCK), piped[2], gone[2], spare[2], out[2];
    pipe2(piped, O_NONBLOCK), pipe2(gone, 0), pipe2(spare, O_NONBLOCK), pipe2(out, O_NONBLOCK);
    close(gone[0]);
    int held = open(at("held").c_str(), O_WRONLY | O_APPEND), heldReader = open(at("held").c_str(), O_RDONLY);
    auto fd = [](const char* prefix, int n) { return prefix + std::to_string(n); };
    auto drain = [](int from) {  // what a caller reads of a stream now, and whether it has ended
        char text[64];
        ssize_t n = std::max<ssize_t>(read(from, text, sizeof text), 0);
        return std::string(text, size_t(n)) + (read(from, text, 1) == 0 ? "<end>" : "<open>");
    };
    struct {
        std::string target;
        bool held;               // an open descriptor when the host started: the caller's
        int from;                // what the caller reads: that stream, -1 the target as a file, -2 nothing
        std::string text, said;  // what the caller reads; the reason said, "" when stored
    } targets[] = {
        {at("link"), 0, -1, "kept", "Too many levels of symbolic links"},
        {at("theirs"), 0, -1, other ? "kept" : "done", other ? "Operation not permitted" : ""},
        {at("mine"), 0, -1, "done", ""},
        {at("new"), 0, -1, "done", ""},
        {at("capped"), 0, -1, "kept", "File too large"},
        {at("absent/new"), 0, -1, "", "No such file or directory"},
        {at("fifo"), 0, fifo, "done<end>", ""},
        {at("unread"), 0, -2, "", "No such device or address"},
        {"/dev/full", 0, -2, "", "No space left on device"},
        {fd("/dev/fd/", piped[1]), 1, piped[0], "done<end>", ""},
        {fd("/proc/self/fd/", held), 1, heldReader, "head:done<end>", ""},
        {"/dev/stdout", 1, out[0], "done<open>", ""},
        {fd("/dev/fd/", gone[1]), 1, -2, "", "Broken pipe"},
        {fd("/dev/fd/", spare[1]), 0, spare[0], "<open>", "Bad file descriptor"},  // not the caller's
        {fd("/dev/fd/0", spare[1]), 1, spare[0], "<open>", "No such file or directory"}};
    int saved[] = {dup(1), dup(2)}, err[2];  // a pipe: no file size limit on what is said
    pipe2(err, O_NONBLOCK), dup2(out[1], 1), dup2(err[1], 2), close(out[1]), close(err[1]);
    HoldResultDescriptor(fd("/dev/fd/", piped[1]).c_str());
    EXPECT_TRUE(fcntl(piped[1], F_GETFD) & FD_CLOEXEC);  // kept from every process the host starts
    std::vector<std::string> read, expected, said;       // gtest reports on stdout: compared once it is back
    for (const auto& r : targets) {
        HoldResultDescriptor(r.held ? r.target.c_str() : nullptr);  // as the entry point does first
        struct rlimit unlimited = {}, capped = {1, RLIM_INFINITY};
        bool cap = r.target == at("capped") && getrlimit(RLIMIT_FSIZE, &unlimited) == 0;
        if (cap) signal(SIGXFSZ, SIG_IGN), setrlimit(RLIMIT_FSIZE, &capped);
        StoreResult(r.target.c_str());
        if (cap) setrlimit(RLIMIT_FSIZE, &unlimited);
        std::string got = r.from >= 0 ? drain(r.from) : r.from == -1 ? ReadFileOr(r.target) : "";
        read.push_back(r.target + " " + got), expected.push_back(r.target + " " + r.text);
        if (!r.said.empty())
            said.push_back("kavori-host: the result was not stored in " + r.target + ": " + r.said);
    }
    dup2(saved[0], 1), dup2(saved[1], 2);
    EXPECT_EQ(read, expected);
    EXPECT_EQ(ReadLines(fd("/dev/fd/", err[0])), said);
    struct stat st = {};
    EXPECT_EQ(stat(at("new").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0600u);
    EXPECT_EQ(stat(at("mine").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0640u);
    std::set<std::string> left;  // no temporary file beside a target, whether it was stored or not
    DIR* listing = opendir(dir.path().c_str());
    while (struct dirent* entry = readdir(listing)) left.insert(entry->d_name);
    closedir(listing);
    EXPECT_EQ(
        left,
        std::set<std::string>(
            {".", "..", "victim", "link", "theirs", "mine", "capped", "held", "fifo", "unread", "new"}));
}

TEST(AppCommands, PackedSizesAndNamesThatIgnoreLetterCaseButNotBlanks) {
    // Truncated toward zero, low 32 bits kept; 0 outside the signed 64-bit range, whatever the low bits.
    std::pair<double, uint32_t> sizes[] = {{NAN, 0},
                                           {INFINITY, 0},
                                           {0x032001E0, 0x032001E0},
                                           {-1, 0xFFFFFFFF},
                                           {1.9, 1},
                                           {-1.9, 0xFFFFFFFF},
                                           {4294967301.0, 5},
                                           {-4294967301.0, 0xFFFFFFFB},
                                           {0x1p63 - 1024, 0xFFFFFC00},
                                           {0x1p63, 0},
                                           {0x1p63 + 2048, 0},
                                           {-0x1p63 + 1024, 0x400},
                                           {-0x1p63 - 2048, 0},
                                           {1e300, 0}};
    for (const auto& r : sizes) EXPECT_EQ(PackedSizeFromNumber(r.first), r.second) << r.first;

    // exit and restart show without a window, one command per child: exit in the
    // exit texts (status 1), restart in a process that gives way to its successor
    // (status 0); any other command gives the page 0 (status 3).  resize and
    // reload act on the window alone (end-to-end pages).
    SaveArgs("true");
    strcpy(g_ownProgram, "/bin/true");  // not this test program again
    std::pair<const char*, int> rows[] = {{"exit", 1},
                                          {"ExIt", 1},
                                          {"exit ", 3},
                                          {" EXIT", 3},
                                          {"restart", 0},
                                          {"RESTART", 0},
                                          {"restart ", 3},
                                          {nullptr, 3}};
    for (const auto& r : rows) {
        pid_t child = fork();
        if (child == 0) {
            freopen("/dev/null", "w", stderr);  // exit's complaint that no main loop runs
            int answer = RunApplicationCommand(r.first, 2, "r", nullptr, NAN);
            _exit(g_exitResult && strcmp(g_exitResult, "r") == 0 ? 1 : answer == 0 ? 3 : 4);
        }
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), r.second) << (r.first ? r.first : "(null)");
    }
}

struct Places : testing::Test {
    TempDir root;
    const std::string home = getenv("HOME"), system = root.path();
    void SetUp() override { ASSERT_TRUE(MoveSystemPlacesForTests(system.c_str())); }
    std::string Found(bool (*find)(char*, uint32_t), uint32_t size = 256) {
        char out[256];
        return find(out, size) ? std::string(out) + (out[0] ? "" : "(found, but empty)") : "";
    }
    // A script that notes its label (its path), arguments, session (its own?) and SIGPIPE (ignored?).
    void Probe(const std::string& path, const std::string& label = "") {
        PutFile(path,
                "#!/bin/sh\nread pid comm state ppid pgrp sid rest < /proc/$$/stat\n[ $pid = $sid ] && s=own "
                "|| s=shared\nd=$(sed -n 's/^SigIgn:.//p' /proc/$$/status | cut -c13)\n"
                "[ $((0x$d & 1)) = 1 ] && s=$s,nopipe\necho " +
                    (label.empty() ? path : label) + " $* $s >> " + root.file("runs") + "\n",
                0755);
    }
};

// Per user before the system: the admin program and its library directory, the icon (beside the host and in
// the root first); the lazy start's root from -root, else the host's directory.
TEST_F(Places, PathsInTheirOrder) {
    EXPECT_EQ(Found(FindAdminProgram) + Found(FindInstalledLibraryDirectory), "");
    PutFile(system + "/usr/bin/kvo", "", 0755);
    EXPECT_EQ(Found(FindInstalledLibraryDirectory), system + "/usr/lib");
    PutFile(home + "/.kvo/bin/kvo", "", 0755);
    EXPECT_EQ(Found(FindAdminProgram), home + "/.kvo/bin/kvo");
    uint32_t exact = uint32_t(home.size() + strlen("/.kvo/lib"));
    // Too small: nothing.
    EXPECT_EQ(Found(FindInstalledLibraryDirectory, exact) + Found(FindInstalledLibraryDirectory, 0), "");
    EXPECT_EQ(Found(FindInstalledLibraryDirectory, exact + 1), home + "/.kvo/lib");

    TempDir host, lib;
    SaveArgs(host.file("kavori-host") + " -root " + lib.path());
    const std::string icons[] = {
        host.file("kvo.ico"), lib.file("kvo.ico"), home + "/.kvo/kvo.ico", system + "/etc/kvo/kvo.ico"};
    for (const std::string& icon : icons) PutFile(icon, "icon");
    for (const std::string& icon : icons) {
        EXPECT_EQ(Found(FindWindowIcon), icon);
        unlink(icon.c_str());
    }
    EXPECT_EQ(Found(FindWindowIcon), "");
    std::pair<std::string, std::string> rows[] = {
        {"/kvo/bin/host -root /r", "/r"},
        {"/kvo/bin/host -root", ""},
        {"/kvo/bin/host -root " + std::string(256, 'r'), "/kvo/bin"},
        {"host", ""}};  // "": the default directory
    for (const auto& r : rows) {
        SaveArgs(r.first);
        char out[256] = "junk";
        LazyStartRoot(out, sizeof out);
        EXPECT_EQ(out, r.second) << r.first;
    }
    char untouched = 'u';  // no room at all: nothing written
    LazyStartRoot(nullptr, 256), LazyStartRoot(&untouched, 0);
    EXPECT_EQ(untouched, 'u');
}

TEST_F(Places, TheSandboxOnlyWhereBubblewrapRuns) {
    const std::string bwrap = system + "/usr/bin/bwrap", proxy = system + "/usr/bin/xdg-dbus-proxy";
    // Asked with the trial run made then, and with one started early: 0 no, 2 yes, 1 they differ.
    auto usable = [] { return SandboxUsable() + (StartSandboxProbe(), SandboxUsable()); };
    setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", 1);  // no bus, and still WebKit starts its proxy
    EXPECT_EQ(usable(), 0);
    PutFile(bwrap, "#!/bin/sh\nexit 1\n", 0755);  // no namespaces to be had
    EXPECT_EQ(usable(), 0);
    PutFile(bwrap, "#!/bin/sh\n[ \"$1\" = --unshare-all ] && exec \"$6\"\n", 0755);
    EXPECT_EQ(usable(), 0);
    PutFile(proxy, "", 0755);
    EXPECT_EQ(usable(), 2);
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

TEST_F(Places, ScriptsTheTestOptionAndTheAdminProgramRunInSessionsOfTheirOwn) {
    signal(SIGPIPE, SIG_IGN);  // as GTK has it in the host
    ASSERT_EQ(chdir(system.c_str()), 0);
    for (const char* name : {"/.kvo/install", "/.kvo/repair", "/.kvo/uninstall"}) Probe(home + name);
    for (const char* name : {"/.install", "/.repair", "/etc/kvo/repair"}) Probe(system + name);
    for (const char* value : {"",
                              "install",
                              "script  install",
                              "Script install",
                              "script install ",
                              " script repair",
                              "script",
                              (const char*)nullptr,
                              "script install",
                              "script repair",
                              "script uninstall"}) {
        EXPECT_EQ(RunTestOption(value), 0);  // only the exact values run a script
    }
    chmod((home + "/.kvo/repair").c_str(), 0775);  // others could have changed it: not run
    static std::vector<uint32_t> pauses;           // the wait's: 0.1 s, then polls 0.999 s apart, 100 at most
    SetLaunchPauseForTests([](uint32_t us) {
        pauses.push_back(us);
        usleep(pauses.size() > 2 ? 0 : 100000);
    });
    RunMaintenanceScript("repair", true);  // reaped at the first poll
    EXPECT_EQ(pauses, (std::vector<uint32_t>{100000}));
    RunMaintenanceScript("repair", false);
    PutFile(system + "/.uninstall", "#!/bin/sh\nsleep 3\n", 0700);  // outlasts the polls
    RunMaintenanceScript("uninstall", false);
    EXPECT_EQ(pauses.size(), 103u);
    EXPECT_EQ(std::count(pauses.begin() + 2, pauses.end(), 999000u), 100);
    SetLaunchPauseForTests(nullptr);

    // The working directory's .install under another user's hand: only a checked file runs, the one checked,
    // even when the name is swapped right after the check.
    static std::string swapIn;
    SetScriptCheckedHookForTests([](const char* path) { rename(swapIn.c_str(), path); });  // "": no swap
    std::pair<std::string, mode_t> attacks[] = {
        {"link", 0700},     // their symlink to a script of root's
        {"open", 0777},     // a directory others may write
        {"sticky", 01777},  // even sticky: a file put there under the name may be a link to root's
        {"swap", 0700},
        {"unrunnable", 0700}};  // the child ends, no second test goes on
    pid_t self = getpid();
    for (const auto& a : attacks) {
        TempDir dir;
        const std::string script = dir.file(".install"), other = dir.file("other");
        Probe(a.first == "link" ? other : script, a.first);
        if (a.first == "link") symlink(other.c_str(), script.c_str()), lchown(script.c_str(), 65534, 65534);
        if (a.first == "swap") Probe(swapIn = other, "swapped");
        if (a.first == "unrunnable") chmod(script.c_str(), 0600);
        chmod(dir.path().c_str(), a.second);
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
        RunMaintenanceScript("install", false);  // real pauses: it is reaped
        if (getpid() != self) PutFile(root.file("escaped"), ""), _exit(0);
        swapIn.clear();
    }
    EXPECT_FALSE(FileExists(root.file("escaped")));
    SetScriptCheckedHookForTests(nullptr);
    ASSERT_EQ(chdir(system.c_str()), 0);
    Probe(system + "/usr/bin/kvo");
    LaunchAdminProgram();
    PollUntil([&] { return ReadLines(root.file("runs")).size() == 7; }, 5000);
    EXPECT_EQ(ReadLines(root.file("runs")),
              (Words{system + "/.install own",
                     home + "/.kvo/repair own",
                     home + "/.kvo/uninstall own",
                     system + "/etc/kvo/repair own",
                     system + "/.repair own",
                     "swap own",
                     system + "/usr/bin/kvo -admin own"}));
}

TEST_F(Places, UserAgentFromWebKitsTheProductVersionAndTheSystemsDescriptionAndWhatWebKitCarries) {
    const std::string issue = system + "/etc/issue.net", ubuntu = "Ubuntu 16.04.7 LTS\n",
                      tail = " Kavori/6.7 Ubuntu/16.04";
    const std::string a127(127, 'a'), a191(191, 'a');
    struct {
        std::string agent, productInfo, issue;
        uint32_t size;
        std::string text;
    } rows[] = {
        // issue "-": none
        {"Agent", "Name;x;6.7.2,", "-", 256, "Agent Kavori/6.7"},
        {"Agent", "Name;x 06070002", ubuntu, 256, ""},
        // Cut before a second dot only.
        {"A", "N;x;06,", "Debian GNU/Linux 9\n", 256, "A Kavori/6. Debian GNU/Linux/9\n"},
        {a127, "N;x;0607,", ubuntu, 192, a127 + tail},
        {a127 + "a", "N;x;0607,", ubuntu, 192, ""},  // agent + 64 < size
        {"A", std::string(100, 'n') + ";x;0607" + std::string(146, '0') + ",", ubuntu, 256, "A" + tail},
        // The name counts.
        {"A", std::string(100, 'n') + ";x;0607" + std::string(147, '0') + ",", ubuntu, 256, ""},
        {a191, "N;x;0607,", std::string(60, 'd'), 256, a191 + " Kavori/6.7 " + std::string(52, 'd')}};
    for (const auto& r : rows) {
        r.issue == "-" ? (void)unlink(issue.c_str()) : (void)PutFile(issue, r.issue);
        std::unique_ptr<char[]> buffer(new char[r.size]());
        std::string info = r.productInfo;
        EXPECT_EQ(ComposeUserAgentText(r.agent.c_str(), &info[0], buffer.get(), r.size), !r.text.empty())
            << r.agent;
        EXPECT_EQ(buffer.get(), r.text) << r.productInfo;
    }
    char info[] = "N;x;0607,", buffer[256] = {};
    EXPECT_FALSE(ComposeUserAgentText(nullptr, info, buffer, 256) ||
                 ComposeUserAgentText("A", nullptr, buffer, 256) ||
                 ComposeUserAgentText("A", info, nullptr, 256));
    char untouched = 'u';  // no room at all: nothing written, nothing read
    EXPECT_FALSE(ReadOsDescription(nullptr, 256) || ReadOsDescription(&untouched, 0) || untouched != 'u');
    std::pair<std::string, std::string> versions[] = {
        {"06070002", "6.7"}, {"12030000", "12.3"}, {"0000", "0.0"}, {"", "."}, {"6", "6."}, {"061", "6.1"}};
    for (const auto& v : versions) {
        std::unique_ptr<char[]> exact(
            new char[v.first.size()]);  // no terminator: a read past the field overflows
        memcpy(exact.get(), v.first.data(), v.first.size());
        char out[16] = "v";
        AppendVersionDigits(exact.get(), v.first.size(), out);
        EXPECT_EQ(out, "v" + v.second) << v.first;
    }
    std::pair<const char*, bool> agents[] = {
        {"Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/605.1.15 (KHTML, like Gecko) Kavori/6.7 Ubuntu/16.04",
         1},
        {"A", 1},
        {"A/1(c)", 1},
        {"A (a (nested) \\) c)\tB", 1},
        {"", 0},
        {nullptr, 0},
        {"(c) A", 0},
        {"A/", 0},
        {"/1", 0},
        {"A ", 0},
        {"A (open", 0},
        {"A (c\\", 0},
        {"A (c\x01)", 0},
        {"Ubuntu/16.04\n", 0},
        {"Caf\xc3\xa9", 0}};
    for (const auto& a : agents)
        EXPECT_EQ(IsCarriedUserAgent(a.first), a.second) << (a.first ? a.first : "(null)");
}

}  // namespace
