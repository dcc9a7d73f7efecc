// Real pages in a real web view, talking to the recording plug-in through
// the host.  Pages report through Application("exit", findings) and -store.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

int Count(const std::vector<std::string>& lines, const std::string& line) {
    return static_cast<int>(std::count(lines.begin(), lines.end(), line));
}

class Pages : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    XServer m_x;
};

TEST_F(Pages, EveryFunctionGivesTheResultsOfItsTable) {
    std::vector<std::string> record;
    HostProcess host(m_x);
    WriteFile(host.answersPath(), "Holder\tA. Person\n");
    host.Start({"-url", PageUrl("calls.html"), "-root", RecordingPluginDir(), "-store", host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0) << host.output();
    std::string r = ReadFileOr(host.storePath(), "<no result>");
    record = host.Record();

    EXPECT_TRUE(Has(r, "\"typeof\":\"object\"")) << r;
    EXPECT_TRUE(Has(r, "\"class\":\"[object Kavori]\"")) << r;
    EXPECT_TRUE(Has(r, "\"get\":\"A. Person\"")) << r;
    EXPECT_TRUE(Has(r, "\"getSecondIgnored\":\"A. Person\"")) << r;
    EXPECT_TRUE(Has(r, "\"getNull\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"getEmpty\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"getNoArg\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"getNumber\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"enum\":\"first|second\"")) << r;
    EXPECT_TRUE(Has(r, "\"enumNull\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"enumOne\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"set\":null")) << r;
    EXPECT_TRUE(Has(r, "\"setOne\":null")) << r;
    EXPECT_TRUE(Has(r, "\"getSet\":\"caf\xc3\xa9 \xe2\x82\xac\"")) << r;
    EXPECT_TRUE(Has(r, "\"invoke6\":6")) << r;
    EXPECT_TRUE(Has(r, "\"invokeAllOnes\":-1")) << r;
    EXPECT_TRUE(Has(r, "\"invokeNegative\":-2")) << r;
    EXPECT_TRUE(Has(r, "\"invokeNoArg\":0")) << r;
    EXPECT_TRUE(Has(r, "\"invokeNumber\":0")) << r;
    EXPECT_TRUE(Has(r, "\"detached\":9")) << r;
    EXPECT_TRUE(Has(r, "\"detachedGet\":\"A. Person\"")) << r;
    EXPECT_TRUE(Has(r, "\"appNoArg\":0")) << r;
    EXPECT_TRUE(Has(r, "\"appUnknown\":0")) << r;
    EXPECT_TRUE(Has(r, "\"big\":1048576")) << r;

    // What reached the plug-in, and what did not.
    EXPECT_EQ(Count(record, "SetProperty Mine=caf\xc3\xa9 \xe2\x82\xac"), 1);
    EXPECT_EQ(Count(record, "SetProperty Blank="), 1);
    EXPECT_EQ(Count(record, "SetProperty Cut=before"), 1);
    EXPECT_EQ(Count(record, "EnumProperty first|second"), 1);
    EXPECT_EQ(Count(record, "GetProperty Holder"), 3);
    for (const std::string& line : record) {
        EXPECT_FALSE(Has(line, "Lonely")) << line;
        EXPECT_FALSE(Has(line, "Num")) << line;
        EXPECT_FALSE(Has(line, "EnumProperty only")) << line;
        EXPECT_NE(line, "GetProperty 5");
    }
}

TEST_F(Pages, AFrameAndItsParentReachOnePlugin) {
    std::string r = RunPage(m_x, "frames.html");
    EXPECT_TRUE(Has(r, "\"parentTypeof\":\"object\"")) << r;
    EXPECT_TRUE(Has(r, "\"child\":\"object:p\"")) << r;
    EXPECT_TRUE(Has(r, "\"fromChild\":\"c\"")) << r;
}

TEST_F(Pages, EveryNewDocumentGetsAFreshObject) {
    std::string r = RunPage(m_x, "navigate.html");
    EXPECT_TRUE(Has(r, "\"typeof\":\"object\"")) << r;
    EXPECT_TRUE(Has(r, "\"mark\":\"undefined\"")) << r;
}

TEST_F(Pages, APluginThatCannotStartGivesSixAndEmptyTexts) {
    TempDir empty;  // no libkvo.so here
    HostProcess host(m_x);
    host.Start({"-url", PageUrl("startup.html"), "-root", empty.path(), "-store", host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0) << host.output();
    std::string r = ReadFileOr(host.storePath(), "<no result>");
    EXPECT_TRUE(Has(r, "\"unusable\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"first\":6")) << r;
    EXPECT_TRUE(Has(r, "\"firstGet\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"second\":6")) << r;
}

TEST_F(Pages, TheStartIsTriedAgainByEveryUsableCallUntilItWorks) {
    // The key hand-over's start fails, then the page's first two usable
    // calls fail to start it, and the third starts it.
    HostProcess host(m_x);
    host.AddEnv("KVO_TEST_INIT_FAILURES=3");
    WriteFile(host.answersPath(), "Holder\tA. Person\n");
    host.Start({"-url", PageUrl("startup.html"), "-root", RecordingPluginDir(), "-store", host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0) << host.output();
    std::string r = ReadFileOr(host.storePath(), "<no result>");
    EXPECT_TRUE(Has(r, "\"unusable\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"first\":6")) << r;
    EXPECT_TRUE(Has(r, "\"firstGet\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"second\":7")) << r;
    std::vector<std::string> record = host.Record();
    EXPECT_EQ(Count(record, "Initialize"), 4);
    EXPECT_EQ(Count(record, "Invoke 7"), 1);  // only the call after the start reached it
}

TEST_F(Pages, NoSocketDirectoryIsLeftBehind) {
    HostProcess host(m_x);
    host.Start({"-url", PageUrl("calls.html"), "-root", RecordingPluginDir(), "-store", host.storePath()});
    ASSERT_EQ(host.Wait(30000), 0);
    std::string left = XQuery(m_x, {"sh", "-c", "ls -d " + host.dir() + "/kavori-* 2>/dev/null; true"});
    EXPECT_EQ(left, "");
}

}  // namespace
