// The shell's uses of the recording test plug-in: the lazy start, the key,
// the start URL prefix and the command redirection (libraries down at start).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "app/paths.h"
#include "app/result_store.h"
#include "tests/app/app_test_support.h"

using namespace kvotest;

namespace {

using Lines = std::vector<std::string>;

class PluginUse : public testing::Test {
protected:
    void SetUp() override {
        setenv("KVO_TEST_RECORD", m_dir.file("record").c_str(), 1);
        setenv("KVO_TEST_ANSWERS", m_dir.file("answers").c_str(), 1);
        SaveArgs({"/nonexistent/kavori-host"});  // no plug-in in the host's own directory
    }
    void UseRoot() { SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin}); }
    void Answer(const std::string& name, const std::string& value) {
        WriteFile(m_dir.file("answers"), name + "\t" + value + "\n");
    }
    Lines Record() { return ReadLines(m_dir.file("record")); }
    long Count(const std::string& line) {
        Lines lines = Record();
        return std::count(lines.begin(), lines.end(), line);
    }
    Lines AfterStart() {  // the records after the plug-in's own start-up calls
        Lines lines = Record();
        auto start = std::find_if(lines.begin(), lines.end(),
                                  [](const std::string& l) { return l.rfind("SetProperty WorkingDirectory", 0) == 0; });
        return start == lines.end() ? Lines{} : Lines(start + 1, lines.end());
    }

    const std::string m_plugin = FixtureDir() + "/plugins/recording";
    TempDir m_dir;
};

TEST_F(PluginUse, ReadyHandleStartsOnceFromTheRootAndRetriesAFailedStart) {
    SaveArgs({"/nonexistent/kavori-host", "-root", m_plugin, "-config", ""});
    setenv("KVO_TEST_INIT_FAILURES", "2", 1);
    EXPECT_EQ(GetReadyHandle(), nullptr);
    EXPECT_EQ(GetReadyHandle(), nullptr);
    void* handle = GetReadyHandle();
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(handle, g_readyHandle);
    EXPECT_EQ(GetReadyHandle(), handle);
    EXPECT_EQ(Count("Initialize"), 3);
    EXPECT_EQ(Count("SetProperty WorkingDirectory=" + m_plugin + "/"), 1);
}

TEST_F(PluginUse, RootDefaultsToTheHostsOwnDirectoryAndOverlongRootsAreIgnored) {
    SaveArgs({m_plugin + "/kavori-host", "-root", std::string(256, 'r')});
    EXPECT_NE(GetReadyHandle(), nullptr);
}

TEST_F(PluginUse, BareProgramNameTakesTheDefaultDirectory) {
    if (FileExists("/usr/lib/libkvo.so")) SkipTest("a plug-in is installed in /usr/lib");
    // A directory named like the program below the working directory is not the root.
    TempDir cwd;
    ASSERT_EQ(0, mkdir(cwd.file("kavori-host").c_str(), 0755));
    ASSERT_EQ(0, symlink((m_plugin + "/libkvo.so").c_str(), cwd.file("kavori-host/libkvo.so").c_str()));
    ASSERT_EQ(0, chdir(cwd.path().c_str()));
    SaveArgs({"kavori-host"});
    EXPECT_EQ(GetReadyHandle(), nullptr);
    EXPECT_EQ(Record(), Lines{});
}

TEST_F(PluginUse, HandOverKeyStartsFromTheGivenRootThenSetsKey) {
    HandOverKey(m_plugin.c_str(), nullptr, "secret");
    EXPECT_NE(g_readyHandle, nullptr);
    HandOverKey("/opt/elsewhere", "/etc/other.conf", nullptr);  // running: only properties
    HandOverKey(nullptr, nullptr, "");
    EXPECT_EQ(Count("Initialize"), 1);
    EXPECT_EQ(AfterStart(), (Lines{"SetProperty WorkingDirectory=" + m_plugin, "SetProperty Key=secret",
                                   "SetProperty WorkingDirectory=/opt/elsewhere", "SetProperty Key="}));
}

TEST_F(PluginUse, StoreResultClearsTheKeyWithOrWithoutAFile) {
    UseRoot();
    StoreResult("");
    StoreResult(m_dir.file("result").c_str());
    EXPECT_EQ(ReadFileOr(m_dir.file("result")), "OK");
    EXPECT_EQ(AfterStart(), (Lines{"SetProperty Key=", "SetProperty Key="}));
}

TEST_F(PluginUse, StartUrlPrefixIsJoinedAsItIs) {
    const char* url = "index.html";
    EXPECT_EQ(ResolveStartUrl(url), url);  // no plug-in found
    UseRoot();
    Answer("ConfigGlobal:Dialog:PathResource", "file:///opt/kvo/html/");
    for (const char* full : {"https://example.org/a", "page.html?next=http://x"}) {
        EXPECT_EQ(ResolveStartUrl(full), full);  // a "://" anywhere: kept, nothing asked
    }
    EXPECT_EQ(Record(), Lines{});
    for (auto r : {std::make_pair("index.html", "file:///opt/kvo/html/index.html"),
                   std::make_pair("", "file:///opt/kvo/html/")}) {
        const char* resolved = ResolveStartUrl(r.first);  // a new text each time
        EXPECT_STREQ(resolved, r.second);
        delete[] resolved;
    }
    Answer("ConfigGlobal:Dialog:PathResource", "");
    EXPECT_EQ(ResolveStartUrl(url), url);
    Answer("Other", "x");  // no prefix configured
    EXPECT_EQ(ResolveStartUrl(url), url);
}

TEST_F(PluginUse, RedirectionAppendsTheConfiguredWords) {
    Argv received{"host", "-title", "Real", "-store"};
    int32_t count = received.argc();
    EXPECT_EQ(RedirectCommandLine(received.argv(), &count), nullptr);  // no plug-in found
    UseRoot();
    EXPECT_EQ(RedirectCommandLine(received.argv(), &count), nullptr);  // nothing configured
    Answer("ConfigGlobal:Command:App", "");
    EXPECT_EQ(RedirectCommandLine(received.argv(), &count), nullptr);
    EXPECT_EQ(count, 4);

    Answer("ConfigGlobal:Command:App", "out.txt -url page.html -title \"Two words\" -store x");
    char** argv = RedirectCommandLine(received.argv(), &count);
    // The real command line comes first, so its options win; the first word completes its -store.
    EXPECT_EQ(Lines(argv, argv + count), (Lines{"host", "-title", "Real", "-store", "out.txt", "-url", "page.html",
                                                "-title", "Two words", "-store", "x"}));
    EXPECT_EQ(argv[count], nullptr);
    FreeArgumentVector(argv);

    Answer("ConfigGlobal:Command:App", "   ");  // blanks: one empty argument
    Argv host{"host"};
    count = 1;
    argv = RedirectCommandLine(host.argv(), &count);
    EXPECT_EQ(Lines(argv, argv + count), (Lines{"host", ""}));
    EXPECT_EQ(argv[2], nullptr);
    FreeArgumentVector(argv);
}

}  // namespace
