// Real pages in a real web view, talking to the recording plug-in through
// the host.  Pages report through Application("exit", findings) and -store.
#include <gtest/gtest.h>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

class Pages : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    void Start(HostProcess& host, const std::string& page, const std::string& root = RecordingPluginDir()) {
        WriteFile(host.answersPath(), "Holder\tA. Person\n");
        ASSERT_TRUE(host.Start({"-url", PageUrl(page), "-root", root, "-store", host.storePath()}));
    }
    XServer m_x;
};

TEST_F(Pages, EveryFunctionGivesTheResultsOfItsTable) {
    HostProcess host(m_x);
    Start(host, "calls.html");
    std::string r = host.Result();
    EXPECT_EQ("", MissingPart(r, {"\"typeof\":\"object\"", "\"class\":\"[object Kavori]\"", "\"get\":\"A. Person\"",
                    "\"getSecondIgnored\":\"A. Person\"", "\"getNull\":\"\"", "\"getEmpty\":\"\"",
                    "\"getNoArg\":\"\"", "\"getNumber\":\"\"", "\"enum\":\"first|second\"", "\"enumNull\":\"\"",
                    "\"enumOne\":\"\"", "\"set\":null", "\"setOne\":null", "\"getSet\":\"caf\xc3\xa9 \xe2\x82\xac\"",
                    "\"invoke6\":6", "\"invokeAllOnes\":-1", "\"invokeNegative\":-2", "\"invokeNoArg\":0",
                    "\"invokeNumber\":0", "\"detached\":9", "\"detachedGet\":\"A. Person\"", "\"appNoArg\":0",
                    "\"appUnknown\":0", "\"big\":1048576"})) << r;
    // What reached the plug-in, and what did not.
    std::vector<std::string> record = host.Record();
    EXPECT_EQ(CountOf(record, "SetProperty Mine=caf\xc3\xa9 \xe2\x82\xac"), 1);
    EXPECT_EQ(CountOf(record, "SetProperty Blank="), 1);
    EXPECT_EQ(CountOf(record, "SetProperty Cut=before"), 1);
    EXPECT_EQ(CountOf(record, "EnumProperty first|second"), 1);
    EXPECT_EQ(CountOf(record, "GetProperty Holder"), 3);
    for (const std::string& line : record) {
        for (const char* never : {"Lonely", "Num", "EnumProperty only"}) {
            EXPECT_EQ(line.find(never), std::string::npos) << line;
        }
        EXPECT_NE(line, "GetProperty 5");
    }
    // The host's socket directory went with it.
    EXPECT_EQ("", XQuery(m_x, {"sh", "-c", "ls -d " + host.dir() + "/kavori-* 2>/dev/null; true"}));
}

TEST_F(Pages, FramesShareOnePluginAndEveryDocumentGetsAFreshObject) {
    std::string frames = RunPage(m_x, "frames.html"), navigated = RunPage(m_x, "navigate.html");
    EXPECT_EQ("", MissingPart(frames, {"\"parentTypeof\":\"object\"", "\"child\":\"object:p\"",
                                       "\"fromChild\":\"c\""})) << frames;
    EXPECT_EQ("", MissingPart(navigated, {"\"typeof\":\"object\"", "\"mark\":\"undefined\""})) << navigated;
}

TEST_F(Pages, AFailedStartGivesSixAndEmptyTextsAndIsRetriedByEveryUsableCall) {
    // No libkvo.so; and one failing to start thrice: at the key hand-over and two calls.
    TempDir empty;
    HostProcess missing(m_x), flaky(m_x);
    flaky.AddEnv("KVO_TEST_INIT_FAILURES=3");
    Start(missing, "startup.html", empty.path());
    Start(flaky, "startup.html");
    for (HostProcess* host : {&missing, &flaky}) {
        std::string r = host->Result();
        EXPECT_EQ("", MissingPart(r, {"\"unusable\":\"\"", "\"first\":6", "\"firstGet\":\"\"",
                                      host == &missing ? "\"second\":6" : "\"second\":7"})) << r;
    }
    EXPECT_EQ(CountOf(flaky.Record(), "Initialize"), 4);
    EXPECT_EQ(CountOf(flaky.Record(), "Invoke 7"), 1);  // only the call after the start reached it
}

}  // namespace
