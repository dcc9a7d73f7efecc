// The configured start: without -url the host takes its command line from
// "ConfigGlobal:Command:App", and a start page without "://" gets the prefix
// "ConfigGlobal:Dialog:PathResource", both answered by the recording plug-in
// (found from -root on the real command line).
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/host_runner.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

class ConfiguredStart : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    XServer m_x;
};

TEST_F(ConfiguredStart, ACommandWithoutUrlOpensTheConfiguredPageWithItsTitle) {
    HostProcess host(m_x);
    WriteFile(host.answersPath(),
              "ConfigGlobal:Command:App\t-url " + PageUrl("idle.html") + " -title \"Two Words\" -key configured\n");
    // The real command line comes first: its -key wins over the configured one.
    ASSERT_TRUE(host.Start({"-root", RecordingPluginDir(), "-key", "own", "-store", host.storePath()}));
    ASSERT_TRUE(host.WaitForRecord("SetProperty Seen=" + PageUrl("idle.html"))) << host.output();
    unsigned long window = host.WaitForWindow("Two Words");
    ASSERT_NE(0u, window);
    EXPECT_EQ(window, host.WaitForOwnWindow());
    ASSERT_TRUE(SendDeleteWindow(m_x, window));
    EXPECT_EQ("OK", host.Result());

    std::vector<std::string> record = host.Record();
    EXPECT_EQ("GetProperty ConfigGlobal:Command:App",
              *std::find_if(record.begin(), record.end(),
                            [](const std::string& line) { return line.rfind("GetProperty ", 0) == 0; }));
    EXPECT_NE(-1, IndexOf(record, "SetProperty Key=own"));
    EXPECT_EQ(-1, IndexOf(record, "SetProperty Key=configured"));
}

TEST_F(ConfiguredStart, ABareStartPageGetsTheConfiguredPrefix) {
    // Given on the command line, and given by the configured command.
    const std::string prefix = "ConfigGlobal:Dialog:PathResource\t" + PageUrl("") + "\n";
    HostProcess bare(m_x), redirected(m_x);
    WriteFile(bare.answersPath(), prefix);
    WriteFile(redirected.answersPath(), prefix + "ConfigGlobal:Command:App\t-url describe.html\n");
    ASSERT_TRUE(bare.Start({"-url", "describe.html", "-root", RecordingPluginDir(), "-store", bare.storePath()}));
    ASSERT_TRUE(redirected.Start({"-root", RecordingPluginDir(), "-store", redirected.storePath()}));
    for (HostProcess* host : {&bare, &redirected}) {
        EXPECT_EQ(PageUrl("describe.html"), Finding(host->Result(), "href")) << host->output();
        EXPECT_EQ(1, CountOf(host->Record(), "GetProperty ConfigGlobal:Dialog:PathResource"));
    }
}

}  // namespace
