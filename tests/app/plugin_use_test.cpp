// The shell's uses of the plug-in, against the recording test plug-in: the
// lazy start through the ready handle, the key hand-over and result store,
// the start URL prefix and the command redirection.  Each test runs in a
// process of its own, so every one starts with the libraries not running.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "app/options.h"
#include "app/paths.h"
#include "app/result_store.h"
#include "app/start_url.h"
#include "tests/app/app_test_support.h"
#include "tests/support/support.h"

using kvotest::FileExists;
using kvotest::ReadFileOr;
using kvotest::ReadLines;
using kvotest::SaveArgs;
using kvotest::TempDir;
using kvotest::WriteFile;

namespace {

using Lines = std::vector<std::string>;

class PluginUse : public testing::Test {
protected:
    void SetUp() override {
        if (!FileExists(m_plugin + "/libkvo.so")) kvotest::SkipTest("recording test plug-in not built");
        setenv("KVO_TEST_RECORD", m_record.c_str(), 1);
        setenv("KVO_TEST_ANSWERS", m_answers.c_str(), 1);
        // A host whose own directory holds no plug-in.
        SaveArgs({"/nonexistent/kavori-host"});
    }
    void Answer(const std::string& name, const std::string& value) {
        ASSERT_TRUE(WriteFile(m_answers, ReadFileOr(m_answers) + name + "\t" + value + "\n"));
    }
    Lines Record() { return ReadLines(m_record); }
    long Count(const std::string& line) {
        Lines lines = Record();
        return std::count(lines.begin(), lines.end(), line);
    }
    // The records after the plug-in's own start-up calls.
    Lines AfterStart() {
        Lines lines = Record();
        auto start = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.rfind("SetProperty WorkingDirectory=", 0) == 0;
        });
        return start == lines.end() ? Lines{} : Lines(start + 1, lines.end());
    }

    const std::string m_plugin = kvotest::FixtureDir() + "/plugins/recording";
    TempDir m_dir;
    const std::string m_record = m_dir.file("record");
    const std::string m_answers = m_dir.file("answers");
};

TEST_F(PluginUse, ReadyHandleStartsOnceFromTheRoot) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin, "-config", ""});
    void* handle = GetReadyHandle();
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(handle, g_readyHandle);
    EXPECT_EQ(handle, GetReadyHandle());
    EXPECT_EQ(1, Count("Initialize"));
    EXPECT_EQ(1, Count("SetProperty WorkingDirectory=" + m_plugin + "/"));
}

TEST_F(PluginUse, FailedStartIsTriedAgain) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    setenv("KVO_TEST_INIT_FAILURES", "2", 1);
    EXPECT_EQ(nullptr, GetReadyHandle());
    EXPECT_EQ(nullptr, GetReadyHandle());
    void* handle = GetReadyHandle();
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(handle, GetReadyHandle());
    EXPECT_EQ(3, Count("Initialize"));
}

TEST_F(PluginUse, RootDefaultsToTheHostsOwnDirectory) {
    SaveArgs({m_plugin + "/kavori-host"});
    EXPECT_NE(nullptr, GetReadyHandle());
}

TEST_F(PluginUse, OverlongRootIsIgnored) {
    SaveArgs({m_plugin + "/kavori-host", "-root", std::string(256, 'r')});
    EXPECT_NE(nullptr, GetReadyHandle());
}

TEST_F(PluginUse, BareProgramNameTakesTheDefaultDirectory) {
    if (FileExists("/usr/lib/libkvo.so")) kvotest::SkipTest("a plug-in is installed in /usr/lib");
    // A directory named like the program, below the working directory,
    // must not be taken for the root.
    TempDir cwd;
    ASSERT_EQ(0, mkdir(cwd.file("kavori-host").c_str(), 0755));
    ASSERT_EQ(0, symlink((m_plugin + "/libkvo.so").c_str(), cwd.file("kavori-host/libkvo.so").c_str()));
    ASSERT_EQ(0, chdir(cwd.path().c_str()));
    SaveArgs({"kavori-host"});
    EXPECT_EQ(nullptr, GetReadyHandle());
    EXPECT_EQ(Lines{}, Record());
}

TEST_F(PluginUse, HandOverKeyStartsFromTheGivenRootThenSetsKey) {
    HandOverKey(m_plugin.c_str(), nullptr, "secret");
    EXPECT_NE(nullptr, g_readyHandle);
    EXPECT_EQ(1, Count("Initialize"));
    EXPECT_EQ((Lines{"SetProperty WorkingDirectory=" + m_plugin, "SetProperty Key=secret"}), AfterStart());
}

TEST_F(PluginUse, HandOverKeyWithRunningLibrariesOnlySetsProperties) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    ASSERT_NE(nullptr, GetReadyHandle());
    HandOverKey("/opt/elsewhere", "/etc/other.conf", nullptr);
    HandOverKey(nullptr, nullptr, "");
    EXPECT_EQ(1, Count("Initialize"));
    EXPECT_EQ((Lines{"SetProperty WorkingDirectory=/opt/elsewhere", "SetProperty Key="}), AfterStart());
}

TEST_F(PluginUse, StoreResultClearsTheKeyWithOrWithoutAFile) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    StoreResult("");
    EXPECT_EQ((Lines{"SetProperty Key="}), AfterStart());
    StoreResult(m_dir.file("result").c_str());
    EXPECT_EQ("OK", ReadFileOr(m_dir.file("result")));
    EXPECT_EQ((Lines{"SetProperty Key=", "SetProperty Key="}), AfterStart());
}

TEST_F(PluginUse, StartUrlPrefixIsJoinedAsItIs) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    Answer("ConfigGlobal:Dialog:PathResource", "file:///opt/kvo/html/");
    // A "://" anywhere keeps the text and asks nothing.
    const char* url = "https://example.org/a";
    EXPECT_EQ(url, ResolveStartUrl(url));
    const char* query = "page.html?next=http://x";
    EXPECT_EQ(query, ResolveStartUrl(query));
    EXPECT_EQ(Lines{}, Record());

    // New texts; the host keeps its one for the whole run.
    const char* resolved = ResolveStartUrl("index.html");
    EXPECT_STREQ("file:///opt/kvo/html/index.html", resolved);
    delete[] resolved;
    resolved = ResolveStartUrl("");
    EXPECT_STREQ("file:///opt/kvo/html/", resolved);
    delete[] resolved;
    EXPECT_EQ(2, Count("GetProperty ConfigGlobal:Dialog:PathResource"));
}

TEST_F(PluginUse, StartUrlWithoutPrefixOrLibrariesIsUnchanged) {
    const char* url = "index.html";
    EXPECT_EQ(url, ResolveStartUrl(url));  // no plug-in found
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    EXPECT_EQ(url, ResolveStartUrl(url));  // no prefix configured
    Answer("ConfigGlobal:Dialog:PathResource", "");
    EXPECT_EQ(url, ResolveStartUrl(url));
}

TEST_F(PluginUse, RedirectionAppendsTheConfiguredWords) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    Answer("ConfigGlobal:Command:App", "out.txt -url page.html -title \"Two words\" -store x");
    kvotest::Argv received{"host", "-title", "Real", "-store"};
    int32_t count = received.argc();
    char** argv = RedirectCommandLine(received.argv(), &count);
    ASSERT_NE(nullptr, argv);
    ASSERT_EQ(4 + 7, count);
    EXPECT_EQ(nullptr, argv[count]);
    EXPECT_STREQ("Two words", argv[8]);

    const char* value = nullptr;
    FindOptionValue(count, argv, "-title", &value);
    EXPECT_STREQ("Real", value);  // the real command line wins
    FindOptionValue(count, argv, "-url", &value);
    EXPECT_STREQ("page.html", value);
    FindOptionValue(count, argv, "-store", &value);
    EXPECT_STREQ("out.txt", value);  // the first word completes the last option
    FreeArgumentVector(argv);
}

TEST_F(PluginUse, BlankCommandAddsOneEmptyArgument) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    Answer("ConfigGlobal:Command:App", "   ");
    kvotest::Argv received{"host"};
    int32_t count = 1;
    char** argv = RedirectCommandLine(received.argv(), &count);
    ASSERT_NE(nullptr, argv);
    ASSERT_EQ(2, count);
    EXPECT_STREQ("host", argv[0]);
    EXPECT_STREQ("", argv[1]);
    EXPECT_EQ(nullptr, argv[2]);
    FreeArgumentVector(argv);
}

TEST_F(PluginUse, NoRedirectionWithoutACommand) {
    kvotest::Argv received{"host", "-title", "x"};
    int32_t count = 3;
    EXPECT_EQ(nullptr, RedirectCommandLine(received.argv(), &count));  // no plug-in found
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin});
    EXPECT_EQ(nullptr, RedirectCommandLine(received.argv(), &count));  // nothing configured
    Answer("ConfigGlobal:Command:App", "");
    EXPECT_EQ(nullptr, RedirectCommandLine(received.argv(), &count));
    EXPECT_EQ(3, count);
    EXPECT_EQ(2, Count("GetProperty ConfigGlobal:Command:App"));
}

}  // namespace
