// Plug-ins that are missing, incomplete, failing or answering nothing or
// too much: every call gives its defined result, the host ends normally
// and leaves nothing behind.
#include <gtest/gtest.h>

#include <memory>

#include "tests/faults/fault_support.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class PluginFaults : public testing::Test {
protected:
    void SetUp() override {
        if (!m_x.ok()) SkipTest("no Xvfb");
    }
    XServer m_x;
};

TEST_F(PluginFaults, AnUnusablePluginGivesTheDefaultsAndNoCrash) {
    struct Case {
        std::string name;
        std::string root;
        bool usable;
    };
    TempDir empty;  // no libkvo.so at all
    const std::vector<Case> cases = {
        {"recording", PluginDir("recording"), true},
        {"no trace export (optional)", PluginDir("no_trace"), true},
        {"missing", empty.path(), false},
        {"no enum export", PluginDir("no_enum"), false},
        {"init fails", PluginDir("init_fails"), false},
        {"init fails with a handle", PluginDir("init_fails_with_handle"), false},
    };
    std::vector<std::unique_ptr<HostProcess>> hosts;
    for (const Case& c : cases) {
        hosts.emplace_back(new HostProcess(m_x));
        WriteFile(hosts.back()->answersPath(), "Holder\tA. Person\n");
        ASSERT_TRUE(hosts.back()->Start({"-url", FaultPageUrl("plugin_calls.html"), "-root", c.root, "-store",
                                         hosts.back()->storePath()}));
    }
    for (size_t i = 0; i < cases.size(); ++i) {
        HostProcess& host = *hosts[i];
        SCOPED_TRACE(cases[i].name);
        ASSERT_EQ(0, host.Wait(30000)) << host.output();
        std::string r = ReadFileOr(host.storePath(), "<no file>");
        if (cases[i].usable) {
            EXPECT_EQ("{\"get\":\"A. Person\",\"enum\":\"first|second\",\"set\":null,\"getSet\":\"x\",\"invoke\":7}", r);
        } else {
            EXPECT_EQ("{\"get\":\"\",\"enum\":\"\",\"set\":null,\"getSet\":\"\",\"invoke\":6}", r);
        }
        EXPECT_TRUE(SocketDirectories(host.dir()).empty());
        EXPECT_TRUE(WaitForNoProcessOf(host.dir()).empty());
    }
}

TEST_F(PluginFaults, NullEmptyAndOversizedTextsHaveDefinedResults) {
    HostProcess host(m_x);
    WriteFile(host.answersPath(), "Holder\tA. Person\n");
    ASSERT_TRUE(host.Start({"-url", FaultPageUrl("answers.html"), "-root", RecordingPluginDir(), "-store",
                            host.storePath()}));
    ASSERT_EQ(0, host.Wait(60000)) << host.output();
    std::string r = ReadFileOr(host.storePath(), "<no file>");
    EXPECT_TRUE(Has(r, "\"getNull\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"getEmpty\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"enumNull\":\"\"")) << r;
    EXPECT_TRUE(Has(r, "\"enumEmpty\":\"\"")) << r;
    // An answer over the channel's 16 MiB frame reaches the page as "";
    // the largest that fits arrives whole.
    EXPECT_TRUE(Has(r, "\"huge\":0")) << r;
    EXPECT_TRUE(Has(r, "\"largest\":16777152")) << r;
    EXPECT_TRUE(Has(r, "\"overByOne\":0")) << r;
    EXPECT_TRUE(Has(r, "\"afterAnswers\":\"A. Person\"")) << r;
    // An argument the channel cannot carry gives the call's default and
    // never reaches the plug-in; the page is still served afterwards.
    EXPECT_TRUE(Has(r, "\"hugeArgument\":0")) << r;
    EXPECT_TRUE(Has(r, "\"hugeSet\":null")) << r;
    EXPECT_TRUE(Has(r, "\"hugeInvoke\":0")) << r;
    EXPECT_TRUE(Has(r, "\"afterArguments\":\"A. Person\"")) << r;
    EXPECT_TRUE(Has(r, "\"invokeAfter\":5")) << r;
    for (const std::string& line : host.Record()) {
        EXPECT_FALSE(Has(line, "Huge")) << line.substr(0, 80);
        EXPECT_FALSE(Has(line, "yyyyyyyy")) << line.substr(0, 80);
    }
    EXPECT_TRUE(SocketDirectories(host.dir()).empty());
    EXPECT_TRUE(WaitForNoProcessOf(host.dir()).empty());
}

}  // namespace
