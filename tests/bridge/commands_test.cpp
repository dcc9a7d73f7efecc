// The page's Application commands and what the host leaves behind, on real
// windows: hosts (side by side within a test) run pages with the recording
// plug-in; the tests read the -store file, the record, /proc and X.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

// Longer than any result below, so a file that is not truncated shows.
const char kStale[] = "stale content of an earlier run\n";

class Commands : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
        // The working directory: a -store without a value leaves no file here.
        ASSERT_EQ(0, chdir(m_cwd.path().c_str()));
    }
    void TearDown() override { EXPECT_EQ(0, chdir("/")); }
    // A host on url over a stale result file; "-store" last, with the path unless !store.
    std::unique_ptr<HostProcess> Start(const std::string& url, const std::vector<std::string>& extra = {},
                                       bool store = true) {
        std::unique_ptr<HostProcess> host(new HostProcess(m_x));
        WriteFile(host->storePath(), kStale);
        std::vector<std::string> arguments = {"-url", url, "-root", RecordingPluginDir()};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        arguments.push_back("-store");
        if (store) arguments.push_back(host->storePath());
        EXPECT_TRUE(host->Start(arguments));
        return host;
    }
    XServer m_x;
    TempDir m_cwd;
};

TEST_F(Commands, ExitTextsGiveExactlyTheBytesOfTheResultTable) {
    const std::vector<std::pair<std::string, std::string>> rows = {  // exit's further arguments (JSON), the file
        {"[]", "OK"}, {"[\"\", \"done\"]", "done"},  // an empty result counts as absent
        {"[5, \"done\"]", "done"},                   // so does one that is no text
        {"[\"OK\", \"done\"]", "done"}, {"[\"CKR_OK\", \"done\"]", "done"}, {"[\"CKR_OK\"]", "CKR_OK"},
        {"[\"CKR_OK\", \"\"]", "CKR_OK"},  // an empty success text counts as absent
        {"[\"OK\", 7]", "OK"},             // so does one that is no text
        {"[\"CKR_PIN_INCORRECT\", \"done\"]", "CKR_PIN_INCORRECT"},
        {"[\"ok\", \"done\"]", "ok"}, {"[\"OK \", \"done\"]", "OK "},  // only the exact words are success
        {"[\"caf\\u00e9 \\u20ac\\n\"]", "caf\xc3\xa9 \xe2\x82\xac\n"},  // UTF-8; a line end only when given
    };
    const std::vector<std::string> keys[] = {{"-key", "s3cret"}, {"-key"}, {}};  // two rows hand a key over too
    std::vector<std::unique_ptr<HostProcess>> hosts;
    for (size_t i = 0; i < rows.size(); ++i) {
        hosts.push_back(Start(PageUrlWithQuery("exit_with.html", rows[i].first), keys[std::min<size_t>(i, 2)]));
    }
    // -store without a value: nothing written anywhere, the key still cleared.
    std::unique_ptr<HostProcess> noPath = Start(PageUrlWithQuery("exit_with.html", "[\"R\"]"), {"-key", "k2"}, false);

    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(rows[i].second, hosts[i]->Result()) << rows[i].first;
        // Every end clears the key, as the plug-in's last property.
        std::vector<std::string> record = hosts[i]->Record();
        auto last = std::find_if(record.rbegin(), record.rend(),
                                 [](const std::string& line) { return line.rfind("SetProperty ", 0) == 0; });
        EXPECT_TRUE(last != record.rend() && *last == "SetProperty Key=") << rows[i].first;
    }
    // The key comes after the working directory ("" without a value), and cleared at the end.
    std::string workingDirectory = "SetProperty WorkingDirectory=" + RecordingPluginDir();
    const std::pair<std::string, int> keyLines[] = {
        {"SetProperty Key=s3cret", 1}, {"SetProperty Key=", 2}, {"SetProperty Key=", 1}};  // first, count of clears
    for (size_t i = 0; i < 3; ++i) {
        std::vector<std::string> record = hosts[i]->Record();
        ASSERT_NE(-1, IndexOf(record, workingDirectory));
        EXPECT_LT(IndexOf(record, workingDirectory), IndexOf(record, keyLines[i].first));
        EXPECT_EQ(keyLines[i].second, CountOf(record, "SetProperty Key="));
    }

    ASSERT_EQ(0, noPath->Wait(30000)) << noPath->output();
    std::vector<std::string> record = noPath->Record();
    ASSERT_NE(-1, IndexOf(record, "SetProperty Key=k2"));
    EXPECT_LT(IndexOf(record, "SetProperty Key=k2"), IndexOf(record, "SetProperty Key="));
    EXPECT_EQ(kStale, ReadFileOr(noPath->storePath()));
    EXPECT_EQ("", XQuery(m_x, {"ls", "-A", m_cwd.path()}));
}

TEST_F(Commands, ClosedByItsCloseButtonTheDialogStoresOk) {
    std::unique_ptr<HostProcess> stored = Start(PageUrl("idle.html"));
    HostProcess plain(m_x);
    WriteFile(plain.storePath(), kStale);
    ASSERT_TRUE(plain.Start({"-url", PageUrl("idle.html"), "-root", RecordingPluginDir(), "-key", "k"}));
    for (HostProcess* host : {stored.get(), &plain}) {
        ASSERT_TRUE(host->WaitForRecord("SetProperty Seen=" + PageUrl("idle.html"))) << host->output();
        ASSERT_TRUE(SendDeleteWindow(m_x, host->WaitForOwnWindow()));
        ASSERT_EQ(0, host->Wait()) << host->output();
    }
    EXPECT_EQ("OK", ReadFileOr(stored->storePath(), "<no file>"));
    // Without -store the file is not touched and the key is not cleared.
    EXPECT_EQ(kStale, ReadFileOr(plain.storePath()));
    EXPECT_EQ("k", plain.LastSet("Key"));
}

TEST_F(Commands, ResizeTakesThePackedSizeInEveryFormUpToTheLargestWindow) {
    // Steps [name, value, size to wait for]; "back" (0x01400100) is smaller
    // than the window started as (256 x 384): the dialog shrinks too.
    const std::string back = ", [\"back\", 20971776, \"320x256\"], ";
    std::string steps = "[[\"number\", 52429280, \"800x480\"]" + back + "[\"hexText\", \"0x032001E0\", \"800x480\"]" +
                        back + "[\"decimalText\", \"52429280\", \"800x480\"]" + back +
                        // Truncated toward zero: rounding would give 800 x 481.
                        "[\"truncated\", 52429280.9, \"800x480\"]" + back +
                        // 0 x 1, 0 x 0, 0 x 0: a zero side leaves the window as it is.
                        "[\"fraction\", 1.9], [\"noSize\", null], [\"boolean\", true]]";
    std::unique_ptr<HostProcess> forms = Start(PageUrlWithQuery("resize.html", steps));
    // GDK makes no window beyond 32767 a side (more killed the host); one side
    // at a time keeps WebKit's backing store bearable.  -65436 is 0xFFFF0064.
    std::unique_ptr<HostProcess> largest = Start(PageUrlWithQuery(
        "resize.html", "[[\"wide\", -65436, \"32767x100\"], [\"tall\", \"0x0064FFFF\", \"100x32767\"]]"));
    std::string r = forms->Result();
    EXPECT_EQ("", MissingPart(r, {"\"number\":\"800x480\"", "\"hexText\":\"800x480\"", "\"decimalText\":\"800x480\"",
                                  "\"truncated\":\"800x480\"", "\"back\":\"320x256\"", "\"fraction\":\"320x256\"",
                                  "\"noSize\":\"320x256\"", "\"boolean\":\"320x256\""})) << r;
    EXPECT_EQ(std::string::npos, r.find("Result")) << r;  // every call gave 0
    r = largest->Result();
    EXPECT_EQ("", MissingPart(r, {"\"wide\":\"32767x100\"", "\"tall\":\"100x32767\""})) << r;
}

TEST_F(Commands, ReloadOpensTheStartPageNotTheCurrentOne) {
    std::string r = Start(PageUrl("reload_start.html"))->Result();
    EXPECT_EQ("", MissingPart(r, {"\"visits\":2", "\"href\":\"" + PageUrl("reload_start.html") + "\"",
                                  "\"elsewhereSeen\":\"1\""})) << r;
}

TEST_F(Commands, RestartRunsTheSameCommandLineAnewWithoutAResult) {
    // The second host is the first's child; we are its subreaper once the first has gone.
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    HostProcess host(m_x);
    // gtk_init takes the toolkit option out of its own vector; the restart must still pass it on.
    std::vector<std::string> argv = {HostBinary(), "--class", "KvoRestart",
                                     "-url", PageUrlWithQuery("restart.html", host.recordPath()),
                                     "-root", RecordingPluginDir(), "-title", "Restarted", "-key", "k",
                                     "-store", host.storePath()};
    ASSERT_TRUE(host.StartArgv(argv));
    ASSERT_EQ(0, host.Wait()) << host.output();

    // The second finds the first's visit in the record and stays open.
    ASSERT_TRUE(host.WaitForRecord("SetProperty Asked=2")) << host.output();
    unsigned long window = host.WaitForWindow("Restarted");
    ASSERT_NE(0u, window);
    pid_t second = static_cast<pid_t>(atol(XQuery(m_x, {"xdotool", "getwindowpid", std::to_string(window)}).c_str()));
    ASSERT_GT(second, 0);
    auto reap = [](pid_t* pid) {  // kills the second when the test ends early
        if (waitpid(*pid, nullptr, WNOHANG) == 0 && kill(*pid, SIGKILL) == 0) waitpid(*pid, nullptr, 0);
    };
    std::unique_ptr<pid_t, decltype(reap)> guard(&second, reap);
    std::string expected;
    for (const std::string& a : argv) expected += a + '\0';
    EXPECT_EQ(expected, ReadFileOr("/proc/" + std::to_string(second) + "/cmdline"));
    std::string wmClass = XQuery(m_x, {"xprop", "-id", std::to_string(window), "WM_CLASS"});
    EXPECT_NE(std::string::npos, wmClass.find("\"KvoRestart\"")) << wmClass;

    // The first left no result nor cleared the key; restart did not return to its page.
    EXPECT_FALSE(FileExists(host.storePath()));
    std::vector<std::string> record = host.Record();
    EXPECT_EQ(2, CountOf(record, "SetProperty Key=k"));
    EXPECT_EQ(-1, IndexOf(record, "SetProperty Key="));
    EXPECT_EQ("<none>", host.LastSet("Restart"));

    // The second is a dialog like any other.
    ASSERT_TRUE(SendDeleteWindow(m_x, window));
    EXPECT_EQ(0, WaitProcess(second, 20000));
    EXPECT_EQ("OK", ReadFileOr(host.storePath(), "<no file>"));
}

}  // namespace
