// The native-library layer and the host's plug-in session against the fake
// modules and plug-ins of tests/fixtures.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "native/library_manager.h"
#include "native/plugin_session.h"
#include "native/system_places.h"
#include "native/trace.h"
#include "native/wrapper_pkcs11.h"
#include "native/wrapper_plugin.h"
#include "tests/support/support.h"

using namespace kvotest;
using Lines = std::vector<std::string>;

namespace {

Lines g_sink;
void Sink(const char* text, int32_t length) { g_sink.emplace_back(text, size_t(length)); }
std::string Fixture(const std::string& kind, const std::string& name) {
    return FixtureDir() + "/" + kind + "/" + name + "/";
}

// A library directory of links to fixture variants ("": none), and the call record.
struct Libraries {
    TempDir dir;
    const std::string file = dir.file("record");
    explicit Libraries(const std::string& module = "", const std::string& plugin = "") {
        setenv("KVO_TEST_RECORD", file.c_str(), 1);
        if (!module.empty()) Link(Fixture("modules", module) + "libkvop11.so", "libkvop11.so");
        if (!plugin.empty()) Link(Fixture("plugins", plugin) + "libkvo.so", "libkvo.so");
    }
    void Link(const std::string& to, const std::string& name) { symlink(to.c_str(), dir.file(name).c_str()); }
    std::string path() const { return dir.path() + "/"; }
    // The record so far, and a new one begun.
    Lines Record(Lines got = {}) { return got = ReadLines(file), unlink(file.c_str()), got; }
};

TEST(Trace, FlagsAndPrefixesDecideEachLine) {
    const uint32_t C = TRACE_PKCS11_CALLS, W = TRACE_PLUGIN_WEB, P = TRACE_PKCS11_ALL, G = TRACE_PLUGIN_ALL;
    const TraceCallback M = Pkcs11TraceFilter, L = PluginTraceFilter, Own = nullptr;  // Own: LogMessage
    struct {
        uint32_t flags;
        TraceCallback filter;
        std::string line;
        bool passes;
    } rows[] = {{C, M, "Pkcs11 - C_Login(1)", 1},
                {C, M, "Pkcs11 - Return 0", 1},
                {C, M, "Pkcs11 - Return", 0},
                {C, M, "pkcs11 - C_Login(1)", 0},
                {C, M, "", 0},
                {W, L, "Web -x", 1},
                {W, L, "Web -", 0},
                {W, L, "web - x", 0},
                {P, M, "", 1},
                {G, L, "plugin", 1},
                {G, M, "Pkcs11 - Return 5", 1},
                {0, M, "Pkcs11 - Return 6", 0},
                {C | W, Own, "message", 0},
                {G, Own, "message", 1}};
    for (const auto& r : rows) {
        SetTrace(Sink, r.flags);
        g_sink.clear();
        std::unique_ptr<char[]> exact(
            new char[r.line.size() + 1]);  // a read past the line leaves the allocation
        memcpy(exact.get(), r.line.data(), r.line.size());
        r.filter ? r.filter(exact.get(), int32_t(r.line.size())) : LogMessage(r.line.c_str(), "");
        EXPECT_EQ(g_sink, r.passes ? Lines{r.line} : Lines{}) << r.flags << " '" << r.line << "'";
    }
    const uint32_t K = TRACE_SOURCE_PKCS11, N = TRACE_SOURCE_PLUGIN;
    auto pick = [](uint32_t flags, uint32_t source) { return SetTrace(Sink, flags), GetTraceFilter(source); };
    EXPECT_TRUE(!pick(0, K) && pick(C, K) == M && !pick(C, N) && pick(P, K) == M && pick(W, N) == L &&
                !pick(W, 3) && pick(G, N) == L);
    g_sink.clear();
    L("Web - a longer line", 7);                             // the stated length is trusted
    LogMessage("root '%s'", std::string(246, 'a').c_str());  // format and argument: 255 bytes
    LogMessage("root '%s'", std::string(247, 'b').c_str());  // dropped whole
    EXPECT_EQ(g_sink, (Lines{"Web - a", "root '" + std::string(246, 'a') + "'"}));
}

TEST(WrapperPKCS11, ForwardsNestsAndKeepsTheFirstModule) {
    Libraries libraries;
    CWrapperPKCS11 module, noList;
    EXPECT_EQ(module.SetVariable("a", "b"), CKR_FUNCTION_NOT_SUPPORTED);  // nothing loaded
    ASSERT_TRUE(module.Load(Fixture("modules", "recording").c_str()) &&
                module.Load("/nonexistent/"));  // the first stays
    EXPECT_EQ(module.GetVariable((void*)1, (void*)2, (void*)3) +
                  module.AddExternalSlot((void*)4, (void*)5, (void*)6) + module.RemoveExternalSlot((void*)7),
              0x1321u + 0x2654u + 0x3007u);
    EXPECT_EQ(module.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    ASSERT_EQ(module.Initialize(nullptr) + module.Initialize(nullptr), CKR_OK);  // nested: only counted
    EXPECT_TRUE(module.InitCount() == 2 && module.Finalize(nullptr) == CKR_OK &&
                libraries.Record() == Lines{"C_Initialize"});
    EXPECT_TRUE(module.Finalize(nullptr) == CKR_OK && module.Initialize(nullptr) == CKR_OK);
    module.Unload();  // forgets module and count without finalising
    EXPECT_EQ(module.Finalize(nullptr), CKR_CRYPTOKI_NOT_INITIALIZED);
    // A module that someone else in the process initialised is theirs to finalise, after a first one too.
    EXPECT_TRUE(module.Load(Fixture("modules", "already_initialized").c_str()) &&
                module.Initialize(nullptr) == CKR_OK && module.Finalize(nullptr) == CKR_OK);
    // Without C_GetFunctionList the handle is kept and the extensions bound.
    EXPECT_FALSE(noList.Load(Fixture("modules", "no_function_list").c_str()));
    EXPECT_TRUE(noList.Load(Fixture("modules", "recording").c_str()));
    EXPECT_TRUE(noList.Initialize(nullptr) == CKR_GENERAL_ERROR &&
                noList.SetTraceCallback(nullptr) == CKR_OK);
    EXPECT_EQ(libraries.Record(),
              (Lines{"C_Finalize", "C_Initialize", "C_Initialize", "C_SetTraceCallback null"}));
}

TEST(WrapperPlugin, EachVariantForwardsUntilFinalizedAndClosed) {
    const std::string server = "SetProperty Server=file:///blank";
    struct {
        const char* name;
        bool loads, starts;
        Lines calls;
    } variants[] = {
        // calls: trace, start, Invoke, Finalize
        {"recording", 1, 1, {"SetTraceCallback set", "Initialize", server, "Invoke -7", "Finalize"}},
        {"no_PlgSetTraceCallback", 1, 1, {"Initialize", server, "Invoke -7", "Finalize"}},  // optional
        // A required export is missing: closed again.
        {"no_PlgInitialize", 0, 0, {}},
        {"no_PlgFinalize", 0, 0, {}},
        {"no_PlgSetProperty", 0, 0, {}},
        {"no_PlgGetProperty", 0, 0, {}},
        {"no_PlgEnumProperty", 0, 0, {}},
        {"no_PlgInvoke", 0, 0, {}},
        {"init_fails", 1, 0, {"SetTraceCallback set", "Initialize", "Invoke -7"}},
        {"init_fails_with_handle", 1, 0, {"SetTraceCallback set", "Initialize", "Invoke -7", "Finalize"}}};
    Libraries libraries;
    for (const auto& v : variants) {
        CWrapperPlugin plugin;
        EXPECT_EQ(plugin.Load(Fixture("plugins", v.name).c_str()), v.loads) << v.name;
        plugin.SetTraceCallback(Sink);
        EXPECT_EQ(plugin.Initialize(nullptr, nullptr, nullptr, nullptr), v.starts) << v.name;
        EXPECT_EQ(plugin.Invoke("-7"), v.loads ? -7 : 6) << v.name;  // still loaded after a failed start
        plugin.Finalize();
        EXPECT_EQ(plugin.Invoke("-7"), 6) << v.name;
        EXPECT_FALSE(dlopen((Fixture("plugins", v.name) + "libkvo.so").c_str(), RTLD_NOW | RTLD_NOLOAD))
            << v.name;  // closed
        EXPECT_EQ(libraries.Record(), v.calls) << v.name;
    }
}

// One start-up and shutdown per process (the wrappers are process-wide); messages after "Current root".
struct Scenario {
    const char *module, *plugin;
    uint32_t selection;
    bool moduleFirst;
    int32_t started;
    Lines startMessages;
    int32_t stopped;
    Lines stopMessages;
    std::string lastCall;
};
void PrintTo(const Scenario& s, std::ostream* out) {
    *out << s.module << "+" << s.plugin << "/" << s.selection;
}
class Startup : public testing::TestWithParam<Scenario> {};

const std::string Up = "Pkcs#11 library successfully initialized",
                  Down = "Pkcs#11 library successfully finalized", Missing = "Pkcs#11 library missing",
                  InitFailed = "Pkcs#11 library initialize failed",
                  FinalizeFailed = "Pkcs#11 library finalize failed", PlugDown = "Plugin library finalized",
                  PlugMissing = "Plugin library missing", PlugFailed = "Plugin library initialize failed",
                  Need = "Need to load pkcs#11 library for environment variables";
INSTANTIATE_TEST_SUITE_P(
    Table, Startup,
    testing::ValuesIn(std::vector<Scenario>{
        {"", "recording", 3, 0, 6, {Missing}, 0, {PlugDown}, ""},
        {"init_fails", "recording", 3, 0, 5, {InitFailed}, 0, {PlugDown}, "C_Initialize"},
        {"recording", "", 3, 0, 6, {Up, PlugMissing, PlugDown, Down}, 0, {PlugDown}, "C_Finalize"},
        {"recording", "init_fails", 3, 0, 6, {Up, PlugFailed, PlugDown, Down}, 0, {PlugDown}, "C_Finalize"},
        // The module started before: this start leaves it up.
        {"recording", "init_fails", 2, 1, 6, {Need, PlugFailed}, 0, {PlugDown, Down}, "C_Finalize"},
        {"finalize_fails", "", 1, 0, 0, {Up}, 0x30, {PlugDown, FinalizeFailed}, "C_Finalize"},
        {"already_initialized", "", 1, 0, 0, {Up}, 0, {PlugDown, Down}, "C_Initialize"},
        {"recording", "recording", 4, 0, 0, {Need}, 0, {PlugDown}, ""}}));

TEST_P(Startup, CodesMessagesAndRollBack) {
    const Scenario& s = GetParam();
    Libraries libraries(s.module, s.plugin);
    if (s.moduleFirst) StartLibraries(nullptr, libraries.path().c_str(), nullptr, Sink, 0, LOAD_PKCS11);
    EXPECT_EQ(StartLibraries("a=1", libraries.path().c_str(), nullptr, Sink, TRACE_PKCS11_ALL, s.selection),
              s.started);
    Lines expected = s.startMessages;
    expected.insert(expected.begin(), "Current root: '" + libraries.path() + "'");
    if ((s.selection & 1) && s.module[0]) expected.insert(expected.begin() + 1, "Updated parameter 'a'");
    EXPECT_EQ(g_sink, expected);
    g_sink.clear();
    EXPECT_EQ(StopLibraries(), s.stopped);
    EXPECT_EQ(g_sink, s.stopMessages);
    Lines calls = libraries.Record();
    EXPECT_EQ(calls.empty() ? "" : calls.back(), s.lastCall);
}

TEST(StartLibraries, BothInOrderWithEveryParameterAndFiltersThatFollowTheTrace) {
    Libraries libraries("recording", "recording");
    const std::string root = libraries.path();
    // Only the first "=" divides; every segment up to the text's end counts.
    ASSERT_EQ(StartLibraries("kvoconfigglobal=/mine;a=x=y;novalue;;!bad=1;=e;\x01g=",
                             root.c_str(),
                             "/etc/kvo.conf",
                             Sink,
                             TRACE_PKCS11_ALL | TRACE_PLUGIN_ALL,
                             0),
              0);
    EXPECT_EQ(libraries.Record(),
              (Lines{"C_SetTraceCallback set",
                     "C_SetVariable kvoconfigglobal=/etc/kvo.conf",
                     "C_SetVariable kvoconfigglobal=/mine",
                     "C_SetVariable a=x=y",
                     "C_SetVariable !bad=1",
                     "C_SetVariable =e",
                     "C_SetVariable \x01g=",
                     "C_Initialize",
                     "SetTraceCallback set",
                     "Initialize",
                     "SetProperty Server=file:///blank",
                     "SetProperty WorkingDirectory=" + root}));
    EXPECT_EQ(g_sink,
              (Lines{"Current root: '" + root + "'",
                     "Updated global configuration path '/etc/kvo.conf'",
                     "Updated parameter 'kvoconfigglobal'",
                     "Updated parameter 'a'",
                     "Failed to update parameter '!bad'",
                     "Updated parameter ''",
                     "Updated parameter '\x01g'",
                     Up,
                     "Plugin library successfully initialized"}));
    SetTrace(Sink, TRACE_PKCS11_CALLS | TRACE_PLUGIN_WEB);  // the libraries hold filters, not the sink
    g_sink.clear();
    for (const char* line : {"Pkcs11 - C_Login(slot 1)", "module internals"})
        g_wrapperPKCS11.SetVariable("test:trace", line);
    for (const char* command : {"test:trace:Web - page loaded", "test:trace:Core - noise"})
        g_wrapperPlugin.Invoke(command);
    EXPECT_EQ(g_sink, (Lines{"Pkcs11 - C_Login(slot 1)", "Web - page loaded"}));
}

TEST(StartLibraries, ThePluginGoesDownBeforeTheModuleAtProcessExit) {
    Libraries libraries("recording", "recording");
    pid_t child = fork();
    if (child == 0) exit(StartLibraries(nullptr, libraries.path().c_str(), nullptr, nullptr, 0, 3));
    int status = -1;
    waitpid(child, &status, 0);
    Lines calls = libraries.Record();
    EXPECT_TRUE(status == 0 && calls.size() > 2 && calls[calls.size() - 2] == "Finalize" &&
                calls.back() == "C_Finalize");
}

TEST(LibraryDirectory, RootsOf1To254CharactersGetASlash) {
    std::string r254(254, 'r'), s255(255, 's');
    std::pair<const char*, std::string> rows[] = {{nullptr, "/usr/lib/"},
                                                  {"", "/usr/lib/"},
                                                  {"/o/kvo", "/o/kvo/"},
                                                  {r254.c_str(), r254 + "/"},
                                                  {s255.c_str(), r254 + "/"},
                                                  {"/o/kvo/", "/o/kvo/"}};  // null, "": never given
    char out[256];
    for (const auto& r : rows) {
        SetLibraryRoot(r.first);
        GetLibraryDirectory(out, sizeof out);
        EXPECT_EQ(out, r.second);
    }
    GetLibraryDirectory(out, 7);
    EXPECT_STREQ(out, "");  // too small: nothing, not a cut path
    char untouched = 'u';   // no room at all: nothing written, nothing found
    GetLibraryDirectory(nullptr, sizeof out), GetLibraryDirectory(&untouched, 0);
    EXPECT_FALSE(GetDefaultLibraryDirectory(nullptr, sizeof out) ||
                 GetDefaultLibraryDirectory(&untouched, 0));
    EXPECT_EQ(untouched, 'u');
    EXPECT_FALSE(MoveSystemPlacesForTests(std::string(250, 'r').c_str()));  // would not fit: none moved
    EXPECT_TRUE(GetDefaultLibraryDirectory(out, sizeof out) && out == std::string("/usr/lib/"));
}

TEST(PluginSession, LazyStartFromTheConfiguredRootIsRetriedUntilReady) {
    Libraries libraries;
    const std::string plugin = Fixture("plugins", "recording");
    ConfigurePluginSession(plugin.c_str(), nullptr);
    setenv("KVO_TEST_INIT_FAILURES", "1", 1);
    EXPECT_TRUE(libraries.Record().empty());  // nothing loads before the first need
    EXPECT_EQ(GetReadyHandle(), nullptr);
    HandOverKey(nullptr, nullptr, "secret");  // the next need starts it again
    EXPECT_TRUE(g_readyHandle == &g_wrapperPlugin && GetReadyHandle() == g_readyHandle);
    EXPECT_EQ(libraries.Record(),
              (Lines{"SetTraceCallback null",
                     "Initialize",
                     "SetTraceCallback null",
                     "Initialize",
                     "SetProperty Server=file:///blank",
                     "SetProperty WorkingDirectory=" + plugin,
                     "SetProperty Key=secret"}));
}

TEST(PluginSession, WithoutARootTheSystemLibraryDirectory) {
    Libraries libraries;
    ASSERT_TRUE(MoveSystemPlacesForTests(libraries.dir.path().c_str()) &&
                MakeDirs(libraries.dir.file("usr/lib")));
    libraries.Link(Fixture("plugins", "recording") + "libkvo.so", "usr/lib/libkvo.so");
    ConfigurePluginSession(std::string(256, 'r').c_str(), "");  // too long: not given
    ASSERT_NE(GetReadyHandle(), nullptr);
    EXPECT_EQ(libraries.Record().back(), "SetProperty WorkingDirectory=" + libraries.path() + "usr/lib/");
}

TEST(PluginSession, ForwardingKeyHandOverAndClearing) {
    Libraries libraries;
    PluginSetProperty(nullptr, "a", "b");  // no plug-in: no call at all
    EXPECT_TRUE(!PluginGetProperty(nullptr, "x") && !PluginEnumProperty(nullptr, "a", "b") &&
                PluginInvoke(nullptr, "1") == 6);
    const std::string plugin = FixtureDir() + "/plugins/recording";
    HandOverKey(plugin.c_str(), nullptr, nullptr);  // starts from this root, then names it as given
    void* ready = g_readyHandle;
    ASSERT_EQ(libraries.Record().back(), "SetProperty WorkingDirectory=" + plugin);
    HandOverKey("/opt/elsewhere", "/etc/other.conf", "a\\b\nc");  // running: properties only
    EXPECT_STREQ(PluginGetProperty(ready, "Key"), "a\\b\nc");
    EXPECT_STREQ(PluginEnumProperty(ready, "a", "b"), "a|b");
    EXPECT_TRUE(!PluginGetProperty(ready, "test:empty") &&
                !PluginEnumProperty(ready, "test:null", "b"));  // "" is none
    EXPECT_EQ(PluginInvoke(ready, "-7"), -7);
    ClearKey();
    EXPECT_EQ(libraries.Record(),
              (Lines{"SetProperty WorkingDirectory=/opt/elsewhere",
                     "SetProperty Key=a\\\\b\\nc",
                     "GetProperty Key",
                     "EnumProperty a|b",
                     "GetProperty test:empty",
                     "EnumProperty test:null|b",
                     "Invoke -7",
                     "SetProperty Key="}));
}

}  // namespace
