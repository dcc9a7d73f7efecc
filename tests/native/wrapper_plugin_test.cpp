#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "native/wrapper_plugin.h"
#include "tests/native/native_support.h"

using namespace kvotest;
using Lines = std::vector<std::string>;

namespace {

bool StillMapped(const std::string& file) {
    void* handle = dlopen(file.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) dlclose(handle);
    return handle != nullptr;
}

void Trace(const char*, int32_t) {}

// Sees the calls that the wrapper makes through its own virtual table.
class SpyPlugin : public CWrapperPlugin {
public:
    std::vector<std::string> calls;
    std::string lastName;  // the buffer after each AppendString
    void AppendString(char* buffer, size_t size, const char* text) override {
        CWrapperPlugin::AppendString(buffer, size, text);
        lastName = buffer;
    }
    bool Load(const char* directory) override {
        calls.push_back("Load " + std::string(directory ? directory : "(null)"));
        return CWrapperPlugin::Load(directory);
    }
    void Unload() override {
        calls.push_back("Unload");
        CWrapperPlugin::Unload();
    }
    intptr_t SetProperty(const char* name, const char* value) override {
        calls.push_back(std::string("SetProperty ") + name + "=" + value);
        return CWrapperPlugin::SetProperty(name, value);
    }
};

}  // namespace

TEST(WrapperPlugin, RecordingPluginSeesCallsInOrder) {
    CallRecord record;
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    plugin.SetTraceCallback(Trace);
    ASSERT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    plugin.SetProperty("Key", "a\\b\nc");
    EXPECT_STREQ(plugin.GetProperty("Key"), "a\\b\nc");
    EXPECT_STREQ(plugin.EnumProperty("first", "second"), "first|second");
    EXPECT_EQ(plugin.Invoke("-7"), -7);
    plugin.Finalize();
    EXPECT_FALSE(StillMapped(PluginFile("recording")));
    EXPECT_EQ(record.Lines(),
              (Lines{"SetTraceCallback set", "Initialize", "SetProperty Server=file:///blank",
                     "SetProperty Key=a\\\\b\\nc", "GetProperty Key", "EnumProperty first|second", "Invoke -7",
                     "Finalize"}));
    // Empty again: the defaults, without a call.
    EXPECT_EQ(plugin.Invoke("1"), 6);
    EXPECT_EQ(plugin.GetProperty("Key"), nullptr);
    EXPECT_EQ(record.Lines().size(), 8u);
}

TEST(WrapperPlugin, EmptyWrapperAnswersDefaults) {
    CWrapperPlugin plugin;
    plugin.Finalize();  // harmless when nothing is loaded
    EXPECT_EQ(plugin.SetProperty("a", "b"), 0);
    EXPECT_EQ(plugin.GetProperty("a"), nullptr);
    EXPECT_EQ(plugin.EnumProperty("a", "b"), nullptr);
    EXPECT_EQ(plugin.Invoke("5"), 6);
    EXPECT_EQ(plugin.SetTraceCallback(Trace), 0);
    EXPECT_FALSE(plugin.Load("/nonexistent/"));
}

TEST(WrapperPlugin, TraceExportIsOptional) {
    CallRecord record;
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("no_trace").c_str()));
    EXPECT_EQ(plugin.SetTraceCallback(Trace), 0);
    EXPECT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(record.Lines(), (Lines{"Initialize", "SetProperty Server=file:///blank"}));
}

TEST(WrapperPlugin, MissingRequiredExportClosesTheLibrary) {
    CWrapperPlugin plugin;
    EXPECT_FALSE(plugin.Load(PluginDir("no_enum").c_str()));
    EXPECT_FALSE(StillMapped(PluginFile("no_enum")));
    EXPECT_EQ(plugin.Invoke("1"), 6);
    EXPECT_TRUE(plugin.Load(PluginDir("recording").c_str()));  // nothing was retained
}

TEST(WrapperPlugin, FailedInitializeWithoutHandleSkipsPlgFinalize) {
    CallRecord record;
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("init_fails").c_str()));
    EXPECT_FALSE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(plugin.Invoke("3"), 3);  // still loaded
    plugin.Finalize();
    EXPECT_FALSE(StillMapped(PluginFile("init_fails")));
    EXPECT_EQ(record.Lines(), (Lines{"Initialize", "Invoke 3"}));
}

TEST(WrapperPlugin, FailedInitializeWithHandleGetsPlgFinalize) {
    CallRecord record;
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("init_fails_with_handle").c_str()));
    EXPECT_FALSE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    plugin.Finalize();
    EXPECT_EQ(record.Lines(), (Lines{"Initialize", "Finalize"}));
}

TEST(WrapperPlugin, InitializeRetriesOnTheSameLibrary) {
    CallRecord record;
    setenv("KVO_TEST_INIT_FAILURES", "2", 1);
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    EXPECT_FALSE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(record.Lines(), (Lines{"Initialize", "Initialize", "Initialize", "SetProperty Server=file:///blank"}));
}

TEST(WrapperPlugin, SecondLoadKeepsTheFirstLibrary) {
    CallRecord record;
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("no_trace").c_str()));
    EXPECT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    plugin.SetTraceCallback(Trace);
    EXPECT_TRUE(record.Lines().empty());
    EXPECT_FALSE(StillMapped(PluginFile("recording")));
}

TEST(WrapperPlugin, OwnOperationsGoThroughTheVirtualTable) {
    SpyPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    ASSERT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    // Only when the first and third start-up argument are null is "Server" set.
    ASSERT_TRUE(plugin.Initialize(&plugin, nullptr, nullptr, nullptr));
    plugin.Finalize();
    EXPECT_EQ(plugin.calls, (Lines{"Load " + PluginDir("recording"), "Load (null)", "SetProperty Server=file:///blank",
                                   "Load (null)", "Unload"}));
}

TEST(WrapperPlugin, FileNameIsJoinedWithoutSeparator) {
    struct Case {
        const char* directory;
        std::string name;
    };
    std::string longest(254, 'd');
    longest += "/";
    for (const Case& c : {Case{"/opt/x/", "/opt/x/libkvo.so"}, Case{"/opt/x", "/opt/xlibkvo.so"},
                          Case{nullptr, "libkvo.so"}, Case{longest.c_str(), longest}}) {
        SpyPlugin plugin;
        EXPECT_FALSE(plugin.Load(c.directory));
        EXPECT_EQ(plugin.lastName, c.name);
    }
}

TEST(WrapperPlugin, AppendStringStaysInsideTheBuffer) {
    CWrapperPlugin plugin;
    char buffer[8];
    auto reset = [&](const char* content) {
        memset(buffer, '#', sizeof buffer);
        if (content) memcpy(buffer, content, strlen(content) + 1);
    };
    reset("ab");
    plugin.AppendString(buffer, 6, "cdefgh");  // cut to fit 6 bytes with the terminator
    EXPECT_STREQ(buffer, "abcde");
    EXPECT_EQ(buffer[6], '#');
    plugin.AppendString(buffer, 6, "z");  // full: unchanged
    EXPECT_STREQ(buffer, "abcde");
    plugin.AppendString(buffer, 6, nullptr);
    EXPECT_STREQ(buffer, "abcde");

    reset(nullptr);  // no terminator within size
    plugin.AppendString(buffer, 6, "x");
    plugin.AppendString(buffer, 0, "x");
    EXPECT_EQ(std::string(buffer, sizeof buffer), "########");

    reset("");
    plugin.AppendString(buffer, 1, "x");
    EXPECT_EQ(std::string(buffer, 2), std::string("\0#", 2));
}

// Other tests drive windows and pages with the recording plug-in; these are
// the answers they count on.
TEST(RecordingPlugin, AnswersFromPropertiesFileAndTestNames) {
    TempDir dir;
    WriteFile(dir.file("answers"), "ProductInfo\tKavori 1.0\\nx\\\\y\nProductInfo\tsecond\nSet\tfrom file\n");
    setenv("KVO_TEST_ANSWERS", dir.file("answers").c_str(), 1);
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    ASSERT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    plugin.SetProperty("Set", "by host");

    EXPECT_STREQ(plugin.GetProperty("ProductInfo"), "Kavori 1.0\nx\\y");
    EXPECT_STREQ(plugin.GetProperty("Set"), "by host");
    EXPECT_STREQ(plugin.GetProperty("Server"), "file:///blank");
    EXPECT_EQ(plugin.GetProperty("test:null"), nullptr);
    EXPECT_EQ(plugin.GetProperty("Unknown"), nullptr);
    EXPECT_STREQ(plugin.GetProperty("test:empty"), "");
    EXPECT_EQ(std::string(plugin.GetProperty("test:big:300")), std::string(300, 'x'));
    char* writable = plugin.GetProperty("Set");
    writable[0] = 'B';  // the host may split answers in place
    EXPECT_STREQ(plugin.GetProperty("Set"), "by host");

    EXPECT_EQ(plugin.EnumProperty("test:null", "x"), nullptr);
    EXPECT_STREQ(plugin.EnumProperty("test:empty", "x"), "");
    EXPECT_STREQ(plugin.EnumProperty("", ""), "|");

    EXPECT_EQ(plugin.Invoke("2147483647"), 2147483647);
    EXPECT_EQ(plugin.Invoke("4294967297"), 1);  // low 32 bits
    EXPECT_EQ(plugin.Invoke("-2147483648"), INT32_MIN);
    EXPECT_EQ(plugin.Invoke("12a"), 0);
    EXPECT_EQ(plugin.Invoke("-"), 0);
    EXPECT_EQ(plugin.Invoke("test:sleep:1"), 0);
}
