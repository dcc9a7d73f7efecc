// The configured start: a host started without -url takes its command line
// from "ConfigGlobal:Command:App", and a start page without "://" gets the
// prefix "ConfigGlobal:Dialog:PathResource", both answered by the recording
// plug-in.  The plug-in is found from -root on the real command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "tests/bridge/dialog_support.h"
#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

std::string PagesDirectoryUrl() { return PageUrl(""); }  // ends in '/'

class ConfiguredStart : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    XServer m_x;
};

TEST_F(ConfiguredStart, ACommandWithoutUrlOpensTheConfiguredPageWithItsTitle) {
    HostProcess host(m_x);
    WriteFile(host.answersPath(), "ConfigGlobal:Command:App\t-url " + PageUrl("idle.html") +
                                      " -title \"Two Words\" -key configured\n");
    // The real command line comes first: its -key wins over the configured one.
    ASSERT_TRUE(host.Start({"-root", RecordingPluginDir(), "-key", "own", "-store", host.storePath()}));

    ASSERT_TRUE(WaitForRecordLine(host.recordPath(), "SetProperty Seen=" + PageUrl("idle.html"))) << host.output();
    unsigned long window = host.WaitForWindow("Two Words");
    ASSERT_NE(0u, window);
    EXPECT_EQ(window, host.WaitForOwnWindow());
    ASSERT_TRUE(CloseWindow(m_x, window));
    ASSERT_EQ(0, host.Wait()) << host.output();
    EXPECT_EQ("OK", ReadFileOr(host.storePath(), "<no file>"));

    std::vector<std::string> record = host.Record();
    EXPECT_EQ("GetProperty ConfigGlobal:Command:App",
              *std::find_if(record.begin(), record.end(),
                            [](const std::string& line) { return line.compare(0, 12, "GetProperty ") == 0; }));
    EXPECT_NE(record.end(), std::find(record.begin(), record.end(), "SetProperty Key=own"));
    EXPECT_EQ(record.end(), std::find(record.begin(), record.end(), "SetProperty Key=configured"));
}

TEST_F(ConfiguredStart, ABareStartPageGetsTheConfiguredPrefix) {
    const std::string prefix = "ConfigGlobal:Dialog:PathResource\t" + PagesDirectoryUrl() + "\n";
    // Given on the command line, and given by the configured command.
    HostProcess bare(m_x), redirected(m_x);
    WriteFile(bare.answersPath(), prefix);
    WriteFile(redirected.answersPath(), prefix + "ConfigGlobal:Command:App\t-url describe.html\n");
    ASSERT_TRUE(bare.Start({"-url", "describe.html", "-root", RecordingPluginDir(), "-store", bare.storePath()}));
    ASSERT_TRUE(redirected.Start({"-root", RecordingPluginDir(), "-store", redirected.storePath()}));

    for (HostProcess* host : {&bare, &redirected}) {
        ASSERT_EQ(0, host->Wait(30000)) << host->output();
        EXPECT_EQ(PageUrl("describe.html"), Finding(ReadFileOr(host->storePath()), "href"));
        std::vector<std::string> record = host->Record();
        EXPECT_EQ(1, std::count(record.begin(), record.end(), "GetProperty ConfigGlobal:Dialog:PathResource"));
    }
}

}  // namespace
