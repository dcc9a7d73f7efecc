// The native-library layer: trace routing, the two wrappers and the start-up
// and shutdown, against SoftHSM2 and the fake modules and plug-ins.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "native/library_manager.h"
#include "native/trace.h"
#include "native/wrapper_plugin.h"
#include "native/wrapper_pkcs11.h"
#include "tests/support/support.h"

using namespace kvotest;

namespace {

using Lines = std::vector<std::string>;
const char kSoftHsmModule[] = "/usr/lib/softhsm/libsofthsm2.so";
const uint32_t kOwn = TRACE_PKCS11_ALL;
std::string PluginDir(const std::string& variant) { return FixtureDir() + "/plugins/" + variant + "/"; }
std::string ModuleDir(const std::string& variant) { return FixtureDir() + "/modules/" + variant + "/"; }

// A library directory of links to fixture variants ("" for none); path() ends in "/".
struct LibraryRoot {
    TempDir dir;
    explicit LibraryRoot(const std::string& module = "", const std::string& plugin = "") {
        if (!module.empty()) Link(ModuleDir(module) + "libkvop11.so");
        if (!plugin.empty()) Link(PluginDir(plugin) + "libkvo.so", "libkvo.so");
    }
    void Link(const std::string& target, const std::string& name = "libkvop11.so") {
        if (symlink(target.c_str(), dir.file(name).c_str()) != 0) abort();
    }
    std::string path() const { return dir.path() + "/"; }
};

// SoftHSM2 as libkvop11.so; skips the test when it is not installed.
struct SoftHsm : LibraryRoot {
    SoftHsm() {
        if (access(kSoftHsmModule, R_OK) != 0) SkipTest("SoftHSM2 is not installed");
        mkdir(dir.file("tokens").c_str(), 0700);
        WriteFile(dir.file("conf"), "directories.tokendir = " + dir.file("tokens") + "\nlog.level = ERROR\n");
        setenv("SOFTHSM2_CONF", dir.file("conf").c_str(), 1);
        Link(kSoftHsmModule);
    }
    static CK_FUNCTION_LIST_PTR Direct() {  // the module itself, past the wrapper
        CK_FUNCTION_LIST_PTR list = nullptr;
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(dlopen(kSoftHsmModule, RTLD_NOW), "C_GetFunctionList"))(&list);
        return list;
    }
    static CK_RV State() {  // CKR_OK when initialised, else CKR_CRYPTOKI_NOT_INITIALIZED
        CK_INFO info;
        return Direct()->C_GetInfo(&info);
    }
};

// Points the test libraries' call records at a file of this test.
struct CallRecord {
    TempDir dir;
    CallRecord() { setenv("KVO_TEST_RECORD", dir.file("record").c_str(), 1); }
    Lines Read() const { return ReadLines(dir.file("record")); }
};

Lines g_sink;
void CaptureSink(const char* text, int32_t length) { g_sink.emplace_back(text, size_t(length)); }
void Trace(const char*, int32_t) {}

int32_t Start(const std::string& root, uint32_t selection, const char* parameters = nullptr,
              const char* config = nullptr, uint32_t flags = kOwn) {
    return StartLibraries(parameters, root.c_str(), config, CaptureSink, flags, selection);
}

std::string LibraryDirectory() {
    char out[256];
    GetLibraryDirectory(out, sizeof out);
    return out;
}

bool StillMapped(const std::string& pluginVariant) {
    void* handle = dlopen((PluginDir(pluginVariant) + "libkvo.so").c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (handle != nullptr) dlclose(handle);
    return handle != nullptr;
}

TEST(Trace, FlagsAndPrefixesDecideEachLine) {
    const uint32_t C = TRACE_PKCS11_CALLS, W = TRACE_PLUGIN_WEB, P = TRACE_PKCS11_ALL, G = TRACE_PLUGIN_ALL;
    const TraceCallback M = Pkcs11TraceFilter, L = PluginTraceFilter, Own = nullptr;  // Own: LogMessage
    struct Row {
        uint32_t flags;
        TraceCallback filter;
        std::string line;
        bool passes;
    } rows[] = {
        {C, M, "Pkcs11 - C_Login(1)", 1}, {C, M, "Pkcs11 - Return 0", 1}, {C, M, "Pkcs11 - Return", 0},
        {C, M, "Pkcs11 - C_", 0}, {C, M, "pkcs11 - C_Login(1)", 0}, {C, M, "Something else", 0}, {C, M, "", 0},
        {C, M, "P", 0}, {W, L, "Web -x", 1}, {W, L, "Web -", 0}, {W, L, "Web-x", 0}, {W, L, "web - x", 0},
        {W, L, "Web", 0}, {C | P, M, "", 1}, {P, M, "x", 1}, {P | G, L, "plugin", 1}, {G, M, "short", 0},
        {G, M, "Pkcs11 - Return 5", 1}, {0, M, "Pkcs11 - Return 6", 0}, {0, L, "Web - page", 0},
        {C, Own, "Pkcs#11 library missing", 0}, {G, Own, "Plugin library finalized", 1}, {0, Own, "x", 0}};
    for (const Row& r : rows) {
        SetTrace(CaptureSink, r.flags);
        g_sink.clear();
        // Held in a buffer of exactly its length: a read past it leaves the allocation.
        std::unique_ptr<char[]> exact(new char[r.line.size() + 1]);
        memcpy(exact.get(), r.line.data(), r.line.size());
        if (r.filter) r.filter(exact.get(), static_cast<int32_t>(r.line.size()));
        if (!r.filter) LogMessage(r.line.c_str(), "");
        EXPECT_EQ(g_sink, r.passes ? Lines{r.line} : Lines{}) << r.flags << " '" << r.line << "'";
    }
    struct Pick {
        uint32_t flags, source;
        TraceCallback filter;
    } picks[] = {{0, TRACE_SOURCE_PKCS11, nullptr}, {0, TRACE_SOURCE_PLUGIN, nullptr}, {C, TRACE_SOURCE_PKCS11, M},
                 {C, TRACE_SOURCE_PLUGIN, nullptr}, {C, 0, nullptr}, {C, 3, nullptr}, {P, TRACE_SOURCE_PKCS11, M},
                 {W, TRACE_SOURCE_PKCS11, nullptr}, {W, TRACE_SOURCE_PLUGIN, L}};
    for (const Pick& p : picks) {
        SetTrace(CaptureSink, p.flags);
        EXPECT_EQ(GetTraceFilter(p.source), p.filter) << p.flags << " " << p.source;
    }
    SetTrace(CaptureSink, W);
    g_sink.clear();
    L("Web - a longer line", 7);  // the stated length is trusted, not recounted
    EXPECT_EQ(g_sink, Lines{"Web - a"});
}

TEST(Trace, OwnMessagesOver255BytesAreDroppedWhole) {
    SetTrace(CaptureSink, TRACE_PLUGIN_ALL);
    LogMessage("Current root: '%s'", std::string(237, 'a').c_str());  // 255 bytes
    LogMessage("Current root: '%s'", std::string(238, 'b').c_str());
    LogMessage(std::string(255, 'c').c_str(), "");
    LogMessage(std::string(256, 'd').c_str(), "");
    EXPECT_EQ(g_sink, (Lines{"Current root: '" + std::string(237, 'a') + "'", std::string(255, 'c')}));
}

TEST(StartLibraries, SoftHsmRolledBackForAMissingPluginThenStartedAlone) {
    SoftHsm softHsm;
    EXPECT_EQ(Start(softHsm.path(), 3, "pin=1234", "/etc/kvo.conf"), 6);
    EXPECT_EQ(g_sink, (Lines{"Current root: '" + softHsm.path() + "'",
                             "Failed to update global configuration path '/etc/kvo.conf'",
                             "Failed to update parameter 'pin'", "Pkcs#11 library successfully initialized",
                             "Plugin library missing", "Plugin library finalized",
                             "Pkcs#11 library successfully finalized"}));
    EXPECT_EQ(SoftHsm::State(), CKR_CRYPTOKI_NOT_INITIALIZED);

    EXPECT_EQ(Start(softHsm.path(), LOAD_PKCS11), 0);
    EXPECT_EQ(g_sink.back(), "Pkcs#11 library successfully initialized");
    EXPECT_EQ(SoftHsm::State(), CKR_OK);
    g_sink.clear();
    EXPECT_EQ(StopLibraries(), 0);
    EXPECT_EQ(g_sink, (Lines{"Plugin library finalized", "Pkcs#11 library successfully finalized"}));
    EXPECT_EQ(SoftHsm::State(), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(StartLibraries, SelectionZeroStartsBothInOrderAndHandsThemFilters) {
    CallRecord record;
    LibraryRoot root("recording", "recording");
    ASSERT_EQ(Start(root.path(), 0, "kvoconfigglobal=/mine;a=x=y", "/etc/kvo.conf", kOwn | TRACE_PLUGIN_ALL), 0);
    EXPECT_EQ(record.Read(),
              (Lines{"C_SetTraceCallback set", "C_SetVariable kvoconfigglobal=/etc/kvo.conf",
                     "C_SetVariable kvoconfigglobal=/mine", "C_SetVariable a=x=y", "C_Initialize",
                     "SetTraceCallback set", "Initialize", "SetProperty Server=file:///blank",
                     "SetProperty WorkingDirectory=" + root.path()}));
    EXPECT_EQ(g_sink, (Lines{"Current root: '" + root.path() + "'", "Updated global configuration path '/etc/kvo.conf'",
                             "Updated parameter 'kvoconfigglobal'", "Updated parameter 'a'",
                             "Pkcs#11 library successfully initialized", "Plugin library successfully initialized"}));
    // What the libraries got are filters, which follow a later SetTrace.
    SetTrace(CaptureSink, TRACE_PKCS11_CALLS | TRACE_PLUGIN_WEB);
    g_sink.clear();
    g_wrapperPKCS11.SetVariable("test:trace", "Pkcs11 - C_Login(slot 1)");
    g_wrapperPKCS11.SetVariable("test:trace", "softhsm internals");
    g_wrapperPlugin.Invoke("test:trace:Web - page loaded");
    g_wrapperPlugin.Invoke("test:trace:Core - noise");
    EXPECT_EQ(g_sink, (Lines{"Pkcs11 - C_Login(slot 1)", "Web - page loaded"}));
}

TEST(StartLibraries, PluginAloneAsTheHostStartsIt) {
    CallRecord record;
    LibraryRoot root("recording", "recording");
    EXPECT_EQ(Start(root.path(), LOAD_PLUGIN, "a=1", "/etc/kvo.conf"), 0);
    EXPECT_EQ(g_sink, (Lines{"Current root: '" + root.path() + "'",
                             "Need to load pkcs#11 library for environment variables",
                             "Plugin library successfully initialized"}));
    EXPECT_EQ(record.Read(), (Lines{"SetTraceCallback null", "Initialize", "SetProperty Server=file:///blank",
                                     "SetProperty WorkingDirectory=" + root.path()}));
}

TEST(StartLibraries, SelectionWithoutLibrariesOnlySetsStateAndStopHasNothingToDo) {
    EXPECT_EQ(StartLibraries("a=1", "/opt/kvo", nullptr, CaptureSink, kOwn, 4), 0);
    EXPECT_EQ(g_sink, (Lines{"Current root: '/opt/kvo/'", "Need to load pkcs#11 library for environment variables"}));
    EXPECT_EQ(LibraryDirectory(), "/opt/kvo/");
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PKCS11), Pkcs11TraceFilter);
    g_sink.clear();
    EXPECT_EQ(StopLibraries(), 0);
    EXPECT_EQ(g_sink, (Lines{"Plugin library finalized"}));
}

TEST(StartLibraries, ModuleFailures) {
    LibraryRoot empty, failing("init_fails", "recording");
    EXPECT_EQ(Start(empty.path(), 3), 6);
    EXPECT_EQ(g_sink.back(), "Pkcs#11 library missing");
    EXPECT_EQ(Start(failing.path(), 3), 5);
    EXPECT_EQ(g_sink.back(), "Pkcs#11 library initialize failed");
    EXPECT_EQ(g_wrapperPlugin.Invoke("1"), 6);  // the plug-in was never reached
}

TEST(StartLibraries, FailedPluginStartLeavesAnEarlierModuleAlone) {
    CallRecord record;
    LibraryRoot root("recording", "init_fails");
    ASSERT_EQ(Start(root.path(), LOAD_PKCS11), 0);
    g_sink.clear();
    EXPECT_EQ(Start(root.path(), LOAD_PLUGIN), 6);
    EXPECT_EQ(g_sink, (Lines{"Current root: '" + root.path() + "'", "Plugin library initialize failed"}));
    EXPECT_EQ(g_wrapperPKCS11.InitCount(), 1);

    // With the module in the same call, the roll-back takes both down.
    g_sink.clear();
    EXPECT_EQ(Start(root.path(), 3), 6);
    EXPECT_EQ(g_sink, (Lines{"Current root: '" + root.path() + "'", "Pkcs#11 library successfully initialized",
                             "Plugin library initialize failed", "Plugin library finalized",
                             "Pkcs#11 library successfully finalized"}));
    EXPECT_EQ(g_wrapperPKCS11.InitCount(), 1);
    EXPECT_EQ(record.Read(), (Lines{"C_SetTraceCallback set", "C_Initialize", "SetTraceCallback null", "Initialize",
                                     "C_SetTraceCallback set", "SetTraceCallback null", "Initialize"}));
}

TEST(StopLibraries, FailingFinalizeGivesTheModulesCode) {
    LibraryRoot root("finalize_fails");
    ASSERT_EQ(Start(root.path(), LOAD_PKCS11), 0);
    g_sink.clear();
    EXPECT_EQ(StopLibraries(), 0x30);
    EXPECT_EQ(g_sink, (Lines{"Plugin library finalized", "Pkcs#11 library finalize failed"}));
}

TEST(StopLibraries, ModuleInitialisedElsewhereIsNotFinalised) {
    CallRecord record;
    LibraryRoot root("already_initialized");  // answers C_Initialize with 0x191
    ASSERT_EQ(Start(root.path(), LOAD_PKCS11), 0);
    EXPECT_EQ(StopLibraries(), 0);
    EXPECT_EQ(g_sink.back(), "Pkcs#11 library successfully finalized");
    EXPECT_EQ(record.Read(), (Lines{"C_SetTraceCallback set", "C_Initialize"}));
}

TEST(LibraryDirectory, RootRules) {
    SetTrace(CaptureSink, kOwn);
    EXPECT_EQ(LibraryDirectory(), "/usr/lib/");  // never given: the default
    // Null, empty and 255-character roots leave the directory as it was.
    std::string r254(254, 'r'), s255(255, 's');
    const char* roots[] = {nullptr, "", r254.c_str(), s255.c_str(), "/opt/kvo/"};
    const std::string expected[] = {"/usr/lib/", "/usr/lib/", r254 + "/", r254 + "/", "/opt/kvo/"};
    for (int i = 0; i < 5; ++i) {
        SetLibraryRoot(roots[i]);
        EXPECT_EQ(LibraryDirectory(), expected[i]) << i;
    }
    // The 255-character directory's message does not fit and is dropped whole.
    EXPECT_EQ(g_sink, (Lines{"Current root: '/opt/kvo/'"}));
    char small[9] = "garbage", exact[10];
    GetLibraryDirectory(small, sizeof small);
    EXPECT_STREQ(small, "");
    GetLibraryDirectory(exact, sizeof exact);
    EXPECT_STREQ(exact, "/opt/kvo/");
    EXPECT_FALSE(GetDefaultLibraryDirectory(small, 9));
    EXPECT_STREQ(small, "");
    EXPECT_TRUE(GetDefaultLibraryDirectory(exact, 10));
    EXPECT_STREQ(exact, "/usr/lib/");
}

TEST(ApplyParameters, SegmentRules) {
    CallRecord record;
    ASSERT_TRUE(g_wrapperPKCS11.Load(ModuleDir("recording").c_str()));
    SetTrace(CaptureSink, kOwn);
    for (const char* parameters : {(const char*)nullptr, "", "a=1;novalue;;c=x=y;=e;f=;", ";"}) {
        ApplyParameters(parameters);
    }
    EXPECT_EQ(record.Read(),
              (Lines{"C_SetVariable a=1", "C_SetVariable c=x=y", "C_SetVariable =e", "C_SetVariable f="}));
    EXPECT_EQ(g_sink, (Lines{"Updated parameter 'a'", "Updated parameter 'c'", "Updated parameter ''",
                             "Updated parameter 'f'"}));
}

TEST(ExitSequence, PluginGoesDownBeforeTheModuleInAChildProcess) {
    LibraryRoot root("recording", "recording");
    struct Run {
        std::vector<std::string> argv, env;
        Lines calls;
    } runs[] = {{{KVO_NATIVE_HELPER, "start", root.path(), "3"}, {},
                 {"C_SetTraceCallback null", "C_SetVariable kvoconfigglobal=/etc/kvo.conf", "C_Initialize",
                  "SetTraceCallback null", "Initialize", "SetProperty Server=file:///blank",
                  "SetProperty WorkingDirectory=" + root.path(), "Finalize", "C_Finalize"}},
                {{KVO_NATIVE_HELPER, "bare"}, {"LD_LIBRARY_PATH=" + root.path()},
                 {"C_Initialize", "Initialize", "SetProperty Server=file:///blank", "Finalize", "C_Finalize"}}};
    for (const Run& run : runs) {
        CallRecord record;
        ASSERT_EQ(RunProcess(run.argv, run.env, 20000), 0) << run.argv[1];
        EXPECT_EQ(record.Read(), run.calls) << run.argv[1];
    }
}


TEST(WrapperPKCS11, SoftHsmNestingSecondLoadAndMissingExtensions) {
    SoftHsm softHsm;
    CK_FUNCTION_LIST_PTR direct = SoftHsm::Direct();
    {
        CWrapperPKCS11 wrapper;
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
        EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_FUNCTION_NOT_SUPPORTED);  // not loaded
        ASSERT_TRUE(wrapper.Load(softHsm.path().c_str()));
        EXPECT_TRUE(wrapper.Load(ModuleDir("recording").c_str()));  // the first one stays
        EXPECT_TRUE(wrapper.Load("/nonexistent/"));
        // SoftHSM2 has none of the extensions (the recording module would take them).
        EXPECT_EQ(wrapper.SetTraceCallback(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(wrapper.GetVariable(nullptr, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(wrapper.AddExternalSlot(nullptr, nullptr, nullptr), CKR_FUNCTION_NOT_SUPPORTED);
        EXPECT_EQ(wrapper.RemoveExternalSlot(nullptr), CKR_FUNCTION_NOT_SUPPORTED);
        // Nested: one C_Initialize (a second would get 0x191 and reset the count to 1).
        ASSERT_EQ(wrapper.Initialize(nullptr), CKR_OK);
        ASSERT_EQ(wrapper.Initialize(nullptr), CKR_OK);
        EXPECT_EQ(wrapper.InitCount(), 2);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
        EXPECT_EQ(SoftHsm::State(), CKR_OK);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
        EXPECT_EQ(SoftHsm::State(), CKR_CRYPTOKI_NOT_INITIALIZED);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
        // Initialised by someone else: SoftHSM2 answers 0x191, and it is left up.
        ASSERT_EQ(direct->C_Initialize(nullptr), CKR_OK);
        EXPECT_EQ(wrapper.Initialize(nullptr), CKR_OK);
        EXPECT_EQ(wrapper.InitCount(), 1);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
        EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    }
    EXPECT_EQ(SoftHsm::State(), CKR_OK);
    EXPECT_EQ(direct->C_Finalize(nullptr), CKR_OK);
}

TEST(WrapperPKCS11, FakeModules) {
    CallRecord record;
    CWrapperPKCS11 wrapper, noList, failing;
    ASSERT_TRUE(wrapper.Load(ModuleDir("recording").c_str()));
    EXPECT_EQ(wrapper.SetTraceCallback(nullptr), CKR_OK);
    EXPECT_EQ(wrapper.SetVariable("name", "a=b"), CKR_OK);
    EXPECT_EQ(wrapper.GetVariable((void*)1, (void*)2, (void*)3), 0x1001u);
    EXPECT_EQ(wrapper.AddExternalSlot((void*)4, (void*)5, (void*)6), 0x1002u);
    EXPECT_EQ(wrapper.RemoveExternalSlot((void*)7), 0x1003u);
    EXPECT_EQ(wrapper.Initialize(nullptr), CKR_OK);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_OK);
    ASSERT_EQ(wrapper.Initialize(nullptr), CKR_OK);
    wrapper.Unload();  // forgets module and count, without finalising
    EXPECT_EQ(wrapper.InitCount(), 0);
    EXPECT_EQ(wrapper.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_FUNCTION_NOT_SUPPORTED);
    // Without C_GetFunctionList the handle is kept: the next Load opens nothing.
    EXPECT_FALSE(noList.Load(ModuleDir("no_function_list").c_str()));
    EXPECT_TRUE(noList.Load(ModuleDir("recording").c_str()));
    EXPECT_EQ(noList.Initialize(nullptr), CKR_GENERAL_ERROR);
    EXPECT_EQ(noList.SetVariable("x", "y"), CKR_OK);  // extensions are bound all the same
    EXPECT_EQ(record.Read(), (Lines{"C_SetTraceCallback null", "C_SetVariable name=a=b", "C_GetVariable 1 2 3",
                                    "C_AddExternalSlot 4 5 6", "C_RemoveExternalSlot 7", "C_Initialize", "C_Finalize",
                                    "C_Initialize", "C_SetVariable x=y"}));
    EXPECT_FALSE(failing.Load("/nonexistent/"));
    ASSERT_TRUE(failing.Load(ModuleDir("init_fails").c_str()));  // a failed Load retains nothing
    EXPECT_EQ(failing.Initialize(nullptr), CKR_GENERAL_ERROR);
    EXPECT_EQ(failing.InitCount(), 0);
    EXPECT_EQ(failing.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(WrapperPKCS11, OverlongPathIsCut) {
    // A directory of 250 characters leaves room for "libkv" only.
    TempDir base;
    std::string directory = base.path() + "/" + std::string(248 - base.path().size(), 'd') + "/";
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    ASSERT_EQ(symlink((ModuleDir("recording") + "libkvop11.so").c_str(), (directory + "libkv").c_str()), 0);
    CWrapperPKCS11 wrapper;
    EXPECT_TRUE(wrapper.Load(directory.c_str()));
    EXPECT_EQ(wrapper.SetVariable("a", "b"), CKR_OK);
}

TEST(WrapperPlugin, ForwardsInOrderThenAnswersDefaultsWhenEmpty) {
    CallRecord record;
    CWrapperPlugin plugin;
    EXPECT_FALSE(plugin.Load("/nonexistent/"));
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    plugin.SetTraceCallback(Trace);
    ASSERT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    plugin.SetProperty("Key", "a\\b\nc");
    EXPECT_STREQ(plugin.GetProperty("Key"), "a\\b\nc");
    EXPECT_STREQ(plugin.EnumProperty("first", "second"), "first|second");
    EXPECT_EQ(plugin.Invoke("-7"), -7);
    plugin.Finalize();
    EXPECT_FALSE(StillMapped("recording"));
    plugin.Finalize();  // empty again: the defaults, without a call
    EXPECT_EQ(plugin.GetProperty("Key"), nullptr);
    EXPECT_EQ(plugin.EnumProperty("a", "b"), nullptr);
    EXPECT_EQ(plugin.Invoke("1"), 6);
    EXPECT_EQ(record.Read(), (Lines{"SetTraceCallback set", "Initialize", "SetProperty Server=file:///blank",
                                    "SetProperty Key=a\\\\b\\nc", "GetProperty Key", "EnumProperty first|second",
                                    "Invoke -7", "Finalize"}));
}

TEST(WrapperPlugin, FailingVariants) {
    struct Variant {
        const char* name;
        bool loads, starts;
        Lines calls;  // SetTraceCallback, Initialize, Invoke("3"), Finalize()
    } variants[] = {
        {"no_trace", true, true, {"Initialize", "SetProperty Server=file:///blank", "Invoke 3", "Finalize"}},
        {"no_enum", false, false, {}},  // a required export is missing: closed again
        {"init_fails", true, false, {"SetTraceCallback set", "Initialize", "Invoke 3"}},
        {"init_fails_with_handle", true, false, {"SetTraceCallback set", "Initialize", "Invoke 3", "Finalize"}},
    };
    for (const Variant& v : variants) {
        SCOPED_TRACE(v.name);
        CallRecord record;
        CWrapperPlugin plugin;
        EXPECT_EQ(plugin.Load(PluginDir(v.name).c_str()), v.loads);
        plugin.SetTraceCallback(Trace);
        EXPECT_EQ(plugin.Initialize(nullptr, nullptr, nullptr, nullptr), v.starts);
        EXPECT_EQ(plugin.Invoke("3"), v.loads ? 3 : 6);  // still loaded after a failed start
        plugin.Finalize();
        EXPECT_FALSE(StillMapped(v.name));
        EXPECT_EQ(record.Read(), v.calls);
        EXPECT_TRUE(plugin.Load(PluginDir("recording").c_str()));  // nothing was retained
    }
}

TEST(WrapperPlugin, InitializeRetriesOnTheSameLibraryAndASecondLoadKeepsIt) {
    CallRecord record;
    setenv("KVO_TEST_INIT_FAILURES", "2", 1);
    CWrapperPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    EXPECT_TRUE(plugin.Load(PluginDir("no_trace").c_str()));
    EXPECT_FALSE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    EXPECT_FALSE(StillMapped("no_trace"));
    EXPECT_EQ(record.Read(), (Lines{"Initialize", "Initialize", "Initialize", "SetProperty Server=file:///blank"}));
}

// Sees the calls that the wrapper makes through its own virtual table.
struct SpyPlugin : CWrapperPlugin {
    Lines calls;
    std::string lastName;  // the buffer after the last AppendString
    void AppendString(char* buffer, size_t size, const char* text) override {
        CWrapperPlugin::AppendString(buffer, size, text);
        lastName = buffer;
    }
    void Note(const std::string& call) { calls.push_back(call); }
    bool Load(const char* d) override { return Note("Load " + std::string(d ? d : "(null)")), CWrapperPlugin::Load(d); }
    void Unload() override { Note("Unload"), CWrapperPlugin::Unload(); }
    intptr_t SetProperty(const char* name, const char* value) override {
        return Note(std::string("SetProperty ") + name + "=" + value), CWrapperPlugin::SetProperty(name, value);
    }
};

TEST(WrapperPlugin, OwnOperationsGoThroughTheVirtualTable) {
    SpyPlugin plugin;
    ASSERT_TRUE(plugin.Load(PluginDir("recording").c_str()));
    ASSERT_TRUE(plugin.Initialize(nullptr, nullptr, nullptr, nullptr));
    ASSERT_TRUE(plugin.Initialize(&plugin, nullptr, nullptr, nullptr));  // "Server" only with args 1 and 3 null
    plugin.Finalize();
    EXPECT_EQ(plugin.calls, (Lines{"Load " + PluginDir("recording"), "Load (null)", "SetProperty Server=file:///blank",
                                   "Load (null)", "Unload"}));
    // The file name is the directory and "libkvo.so" joined as they are.
    std::string longest = std::string(254, 'd') + "/";
    using Join = std::pair<const char*, const char*>;
    for (Join c : {Join{"/opt/x/", "/opt/x/libkvo.so"}, Join{"/opt/x", "/opt/xlibkvo.so"}, Join{nullptr, "libkvo.so"},
                   Join{longest.c_str(), longest.c_str()}}) {
        SpyPlugin spy;
        EXPECT_FALSE(spy.Load(c.first));
        EXPECT_EQ(spy.lastName, c.second);
    }
}

TEST(WrapperPlugin, AppendStringStaysInsideTheBuffer) {
    struct Row {
        const char* before;  // null: no terminator at all
        size_t size;
        const char* text;
        std::string after;  // the whole 8-byte buffer
    } rows[] = {{"ab", 6, "cdefgh", {"abcde\0##", 8}}, {"abcde", 6, "z", {"abcde\0##", 8}},
                {"abcde", 6, nullptr, {"abcde\0##", 8}}, {nullptr, 6, "x", "########"},
                {nullptr, 0, "x", "########"},          {"", 1, "x", {"\0#######", 8}}};
    for (const Row& r : rows) {
        char buffer[8];
        memset(buffer, '#', sizeof buffer);
        if (r.before) memcpy(buffer, r.before, strlen(r.before) + 1);
        CWrapperPlugin().AppendString(buffer, r.size, r.text);
        EXPECT_EQ(std::string(buffer, sizeof buffer), r.after) << (r.before ? r.before : "(none)") << " " << r.size;
    }
}

}  // namespace
