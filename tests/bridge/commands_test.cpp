// The page's Application commands and what the host leaves behind, on real
// windows: each host runs a page of tests/fixtures/pages with the recording
// plug-in and ends as a dialog does; the tests read the -store file, the
// plug-in's record, /proc and X.  Hosts of one test run side by side.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "tests/bridge/dialog_support.h"
#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

int Count(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

int IndexOf(const std::vector<std::string>& lines, const std::string& line) {
    auto it = std::find(lines.begin(), lines.end(), line);
    return it == lines.end() ? -1 : static_cast<int>(it - lines.begin());
}

// Longer than any result below, so a file that is not truncated shows.
const char kStale[] = "stale content of an earlier run\n";

class Commands : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
        // The host's working directory: a store path without a value must
        // not leave a file here.
        ASSERT_EQ(0, chdir(m_cwd.path().c_str()));
    }
    void TearDown() override { EXPECT_EQ(0, chdir("/")); }
    // A host on the page with the recording plug-in, its result file
    // holding stale content; "-store" goes last, with the host's store path
    // when withStorePath.
    std::unique_ptr<HostProcess> Start(const std::string& url, const std::vector<std::string>& extra = {},
                                       bool withStorePath = true) {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        WriteFile(host->storePath(), kStale);
        std::vector<std::string> arguments = {"-url", url, "-root", RecordingPluginDir()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        arguments.push_back("-store");
        if (withStorePath) arguments.push_back(host->storePath());
        EXPECT_TRUE(host->Start(arguments));
        return host;
    }
    // The page's findings once the host has ended by itself.
    std::string Result(HostProcess& host) {
        int status = host.Wait(30000);
        if (status != 0) return "<status " + std::to_string(status) + "> " + host.output();
        return ReadFileOr(host.storePath(), "<no file>");
    }
    XServer m_x;
    TempDir m_cwd;
};

TEST_F(Commands, ExitTextsGiveExactlyTheBytesOfTheResultTable) {
    struct Row {
        std::string arguments;  // of exit, after the command, as JSON
        std::string file;
    };
    const std::vector<Row> rows = {
        {"[]", "OK"},
        {"[\"\", \"done\"]", "done"},  // an empty result counts as absent
        {"[5, \"done\"]", "done"},     // so does one that is no text
        {"[\"OK\", \"done\"]", "done"},
        {"[\"CKR_OK\", \"done\"]", "done"},
        {"[\"CKR_OK\"]", "CKR_OK"},
        {"[\"CKR_OK\", \"\"]", "CKR_OK"},  // an empty success text counts as absent
        {"[\"OK\", 7]", "OK"},             // so does one that is no text
        {"[\"CKR_PIN_INCORRECT\", \"done\"]", "CKR_PIN_INCORRECT"},
        {"[\"ok\", \"done\"]", "ok"},  // only the exact words are success
        {"[\"OK \", \"done\"]", "OK "},
        {"[\"caf\\u00e9 \\u20ac\\n\"]", "caf\xc3\xa9 \xe2\x82\xac\n"},  // UTF-8; a line end only when given
    };
    std::vector<std::unique_ptr<HostProcess>> hosts;
    for (size_t i = 0; i < rows.size(); ++i) {
        // Two rows hand a key over as well: one with a value, one without.
        std::vector<std::string> key;
        if (i == 0) key = {"-key", "s3cret"};
        if (i == 1) key = {"-key"};
        hosts.push_back(Start(PageUrlWithQuery("exit_with.html", rows[i].arguments), key));
    }
    // -store without a value: nothing written anywhere, the key still cleared.
    std::unique_ptr<HostProcess> noPath = Start(PageUrlWithQuery("exit_with.html", "[\"R\"]"), {"-key", "k2"}, false);

    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].file, Result(*hosts[i])) << rows[i].arguments;
        // Every end clears the key, as the plug-in's last property.
        std::vector<std::string> sets;
        for (const std::string& line : hosts[i]->Record()) {
            if (line.compare(0, 12, "SetProperty ") == 0) sets.push_back(line);
        }
        ASSERT_FALSE(sets.empty()) << rows[i].arguments;
        EXPECT_EQ("SetProperty Key=", sets.back()) << rows[i].arguments;
    }

    // The key reaches the plug-in after the working directory; without a
    // value it is the empty text.
    std::string workingDirectory = "SetProperty WorkingDirectory=" + RecordingPluginDir();
    std::vector<std::string> keyed = hosts[0]->Record();
    ASSERT_NE(-1, IndexOf(keyed, workingDirectory));
    EXPECT_LT(IndexOf(keyed, workingDirectory), IndexOf(keyed, "SetProperty Key=s3cret"));
    EXPECT_LT(IndexOf(keyed, "SetProperty Key=s3cret"), IndexOf(keyed, "SetProperty Key="));
    std::vector<std::string> emptyKey = hosts[1]->Record();
    EXPECT_EQ(2, Count(emptyKey, "SetProperty Key="));
    EXPECT_LT(IndexOf(emptyKey, workingDirectory), IndexOf(emptyKey, "SetProperty Key="));
    EXPECT_EQ(1, Count(hosts[2]->Record(), "SetProperty Key="));

    ASSERT_EQ(0, noPath->Wait(30000)) << noPath->output();
    std::vector<std::string> record = noPath->Record();
    ASSERT_NE(-1, IndexOf(record, "SetProperty Key=k2"));
    EXPECT_LT(IndexOf(record, "SetProperty Key=k2"), IndexOf(record, "SetProperty Key="));
    EXPECT_EQ(kStale, ReadFileOr(noPath->storePath()));
    EXPECT_EQ("", XQuery(m_x, {"ls", "-A", m_cwd.path()}));
}

TEST_F(Commands, ClosedByItsCloseButtonTheDialogStoresOk) {
    // The window is closed the way a manager's close button does it, once
    // the page runs.  One host with -store, one without.
    std::unique_ptr<HostProcess> stored = Start(PageUrl("idle.html"));
    std::unique_ptr<HostProcess> plain(new HostProcess(m_x));
    WriteFile(plain->storePath(), kStale);
    ASSERT_TRUE(plain->Start({"-url", PageUrl("idle.html"), "-root", RecordingPluginDir(), "-key", "k"}));

    for (HostProcess* host : {stored.get(), plain.get()}) {
        ASSERT_TRUE(WaitForRecordLine(host->recordPath(), "SetProperty Seen=" + PageUrl("idle.html")));
        unsigned long window = host->WaitForOwnWindow();
        ASSERT_NE(0u, window);
        ASSERT_TRUE(CloseWindow(m_x, window));
        ASSERT_EQ(0, host->Wait()) << host->output();
    }
    EXPECT_EQ("OK", ReadFileOr(stored->storePath(), "<no file>"));
    // Without -store the file is not touched and the key is not cleared.
    EXPECT_EQ(kStale, ReadFileOr(plain->storePath()));
    EXPECT_EQ("k", LastProperty(plain->Record(), "Key"));
}

// Each step: [name, value, the page's size it should come to]; the page
// notes the size it has once it got there or a bounded wait has passed.
TEST_F(Commands, ResizeTakesThePackedSizeInEveryForm) {
    const std::string back = "[\"back\", 20971776, \"320x256\"]";  // 0x01400100
    std::string steps = "[[\"number\", 52429280, \"800x480\"], " + back +
                        ", [\"hexText\", \"0x032001E0\", \"800x480\"], " + back +
                        ", [\"decimalText\", \"52429280\", \"800x480\"], " + back +
                        // Truncated toward zero: rounding would give 800 x 481.
                        ", [\"truncated\", 52429280.9, \"800x480\"], " + back +
                        // 0 x 1, 0 x 0, 0 x 0: a zero side leaves the window as it is.
                        ", [\"fraction\", 1.9], [\"noSize\", null], [\"boolean\", true]]";
    std::unique_ptr<HostProcess> host = Start(PageUrlWithQuery("resize.html", steps));
    std::string r = Result(*host);
    EXPECT_TRUE(Has(r, "\"number\":\"800x480\"")) << r;
    EXPECT_TRUE(Has(r, "\"hexText\":\"800x480\"")) << r;
    EXPECT_TRUE(Has(r, "\"decimalText\":\"800x480\"")) << r;
    EXPECT_TRUE(Has(r, "\"truncated\":\"800x480\"")) << r;
    // Smaller than the window it started as (256 x 384): the dialog shrinks.
    EXPECT_TRUE(Has(r, "\"back\":\"320x256\"")) << r;
    EXPECT_TRUE(Has(r, "\"fraction\":\"320x256\"")) << r;
    EXPECT_TRUE(Has(r, "\"noSize\":\"320x256\"")) << r;
    EXPECT_TRUE(Has(r, "\"boolean\":\"320x256\"")) << r;
    EXPECT_FALSE(Has(r, "Result")) << r;  // every call gave 0
}

TEST_F(Commands, ASideBeyondWhatAWindowCanHaveGetsTheLargest) {
    // GDK makes no window beyond 32767 a side; asked for more, the host died
    // (an X BadAlloc or a crash while drawing) and left no result.  -1 packs
    // 65535 x 65535 and now gives a page of 32767 x 32767, but WebKit then
    // paints a backing store of 4 GB for several seconds; one side at a time
    // shows the same at a bearable size.  A negative number keeps the low 32
    // bits of its integer: -65436 is 0xFFFF0064.
    std::unique_ptr<HostProcess> host = Start(PageUrlWithQuery(
        "resize.html", "[[\"wide\", -65436, \"32767x100\"], [\"tall\", \"0x0064FFFF\", \"100x32767\"]]"));
    std::string r = Result(*host);
    EXPECT_TRUE(Has(r, "\"wide\":\"32767x100\"")) << r;
    EXPECT_TRUE(Has(r, "\"tall\":\"100x32767\"")) << r;
}

TEST_F(Commands, ReloadOpensTheStartPageNotTheCurrentOne) {
    std::unique_ptr<HostProcess> host = Start(PageUrl("reload_start.html"));
    std::string r = Result(*host);
    EXPECT_TRUE(Has(r, "\"visits\":2")) << r;
    EXPECT_TRUE(Has(r, "\"href\":\"" + PageUrl("reload_start.html") + "\"")) << r;
    EXPECT_TRUE(Has(r, "\"elsewhereSeen\":\"1\"")) << r;
}

// A process that is not our child: ours once its parent has gone (we are
// its subreaper), killed with its group when the test ends early.
class Orphan {
public:
    explicit Orphan(pid_t pid) : m_pid(pid) {}
    ~Orphan() {
        if (m_pid > 0) {
            kill(-m_pid, SIGKILL);
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    int Wait(int timeoutMs = 20000) {
        for (int waited = 0; waited < timeoutMs; waited += 20) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            usleep(20000);
        }
        return -1;
    }

private:
    pid_t m_pid;
};

TEST_F(Commands, RestartRunsTheSameCommandLineAnewWithoutAResult) {
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    HostProcess host(m_x);
    // A toolkit option among them: gtk_init takes it out of its own vector,
    // the restart must still pass it on.
    std::vector<std::string> arguments = {
        HostBinary(), "--class", "KvoRestart", "-url", PageUrlWithQuery("restart.html", host.recordPath()),
        "-root", RecordingPluginDir(), "-title", "Restarted", "-key", "k", "-store", host.storePath()};
    ASSERT_TRUE(host.Start(std::vector<std::string>(arguments.begin() + 1, arguments.end())));
    pid_t first = host.pid();
    ASSERT_EQ(0, host.Wait()) << host.output();

    // The second host finds the first's visit in the record and stays open.
    ASSERT_TRUE(WaitForRecordLine(host.recordPath(), "SetProperty Asked=2")) << host.output();
    unsigned long window = host.WaitForWindow("Restarted");
    ASSERT_NE(0u, window);
    pid_t second = static_cast<pid_t>(atol(XQuery(m_x, {"xdotool", "getwindowpid", std::to_string(window)}).c_str()));
    ASSERT_GT(second, 0);
    Orphan orphan(second);
    EXPECT_NE(first, second);

    std::string cmdline = ReadFileOr("/proc/" + std::to_string(second) + "/cmdline");
    std::string expected;
    for (const std::string& a : arguments) expected += a + '\0';
    EXPECT_EQ(expected, cmdline);
    EXPECT_TRUE(Has(PropertyOf(m_x, window, "WM_CLASS"), "\"KvoRestart\"")) << PropertyOf(m_x, window, "WM_CLASS");

    // The first left no result and did not clear the key; the restart call
    // did not return to its page.
    EXPECT_FALSE(FileExists(host.storePath()));
    std::vector<std::string> record = host.Record();
    EXPECT_EQ(2, Count(record, "SetProperty Key=k"));
    EXPECT_EQ(0, Count(record, "SetProperty Key="));
    EXPECT_EQ("<none>", LastProperty(record, "Restart"));

    // The second is a dialog like any other.
    ASSERT_TRUE(CloseWindow(m_x, window));
    EXPECT_EQ(0, orphan.Wait());
    EXPECT_EQ("OK", ReadFileOr(host.storePath(), "<no file>"));
}

}  // namespace
