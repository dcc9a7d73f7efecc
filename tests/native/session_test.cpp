// The host's plug-in session against the recording plug-in: the lazy start,
// the ready handle, the key and the forwarding.  One session per process.
#include <gtest/gtest.h>
#include <unistd.h>

#include "native/plugin_session.h"
#include "native/system_places.h"
#include "native/wrapper_plugin.h"
#include "tests/support/support.h"

using namespace kvotest;
using Lines = std::vector<std::string>;

namespace {

struct Session : testing::Test {
    TempDir dir;
    const std::string plugin = FixtureDir() + "/plugins/recording";
    void SetUp() override { setenv("KVO_TEST_RECORD", dir.file("record").c_str(), 1); }
    Lines Record() { return ReadLines(dir.file("record")); }
};

TEST_F(Session, LazyStartFromTheConfiguredRootIsRetriedUntilReady) {
    ConfigurePluginSession(plugin.c_str(), nullptr);
    setenv("KVO_TEST_INIT_FAILURES", "1", 1);
    EXPECT_TRUE(Record().empty());  // nothing loads before the first need
    EXPECT_EQ(GetReadyHandle(), nullptr);
    HandOverKey(nullptr, nullptr, "secret");  // the next need starts it again
    ASSERT_EQ(g_readyHandle, &g_wrapperPlugin);
    EXPECT_EQ(GetReadyHandle(), g_readyHandle);
    EXPECT_EQ(Record(), (Lines{"SetTraceCallback null", "Initialize", "SetTraceCallback null", "Initialize",
                               "SetProperty Server=file:///blank", "SetProperty WorkingDirectory=" + plugin + "/",
                               "SetProperty Key=secret"}));
}

TEST_F(Session, WithoutARootTheSystemLibraryDirectoryIsUsed) {
    ASSERT_TRUE(MoveSystemPlacesForTests(dir.path().c_str()));
    ASSERT_TRUE(MakeDirs(dir.file("usr/lib")));
    ASSERT_EQ(symlink((plugin + "/libkvo.so").c_str(), dir.file("usr/lib/libkvo.so").c_str()), 0);
    ConfigurePluginSession(std::string(256, 'r').c_str(), "");  // too long: not given
    ASSERT_NE(GetReadyHandle(), nullptr);
    EXPECT_EQ(Record().back(), "SetProperty WorkingDirectory=" + dir.path() + "/usr/lib/");
}

TEST_F(Session, ForwardingKeyHandOverAndClearing) {
    EXPECT_EQ(PluginGetProperty(nullptr, "test:big:1"), nullptr);  // no plug-in: no call at all
    EXPECT_EQ(PluginEnumProperty(nullptr, "a", "b"), nullptr);
    EXPECT_EQ(PluginInvoke(nullptr, "1"), 6);
    PluginSetProperty(nullptr, "a", "b");
    HandOverKey(plugin.c_str(), nullptr, nullptr);  // starts from this root
    void* ready = g_readyHandle;
    ASSERT_NE(ready, nullptr);
    HandOverKey("/opt/elsewhere", "/etc/other.conf", "a\\b\nc");  // running: properties only
    EXPECT_STREQ(PluginGetProperty(ready, "Key"), "a\\b\nc");
    EXPECT_EQ(PluginGetProperty(ready, "test:empty"), nullptr);  // an empty answer is none
    EXPECT_EQ(PluginGetProperty(ready, "test:null"), nullptr);
    EXPECT_STREQ(PluginEnumProperty(ready, "a", "b"), "a|b");
    EXPECT_EQ(PluginEnumProperty(ready, "test:empty", "b"), nullptr);
    EXPECT_EQ(PluginInvoke(ready, "-7"), -7);
    ClearKey();
    Lines calls = Record();
    ASSERT_EQ(calls.size(), 14u);
    EXPECT_EQ(Lines(calls.begin() + 3, calls.end()),
              (Lines{"SetProperty WorkingDirectory=" + plugin + "/", "SetProperty WorkingDirectory=" + plugin,
                     "SetProperty WorkingDirectory=/opt/elsewhere", "SetProperty Key=a\\\\b\\nc", "GetProperty Key",
                     "GetProperty test:empty", "GetProperty test:null", "EnumProperty a|b", "EnumProperty test:empty|b",
                     "Invoke -7", "SetProperty Key="}));
}

}  // namespace
