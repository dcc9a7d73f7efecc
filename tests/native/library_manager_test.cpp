#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "native/library_manager.h"
#include "native/trace.h"
#include "native/wrapper_plugin.h"
#include "native/wrapper_pkcs11.h"
#include "tests/native/native_support.h"

using namespace kvotest;
using Lines = std::vector<std::string>;

namespace {

const uint32_t kOwnMessages = TRACE_PKCS11_ALL;

std::string LibraryDirectory() {
    char out[256];
    GetLibraryDirectory(out, sizeof out);
    return out;
}

}  // namespace

TEST(StartLibraries, MissingPluginRollsBackTheSoftHsmModule) {
    SoftHsm softHsm;
    int32_t rv = StartLibraries("pin=1234", softHsm.path().c_str(), "/etc/kvo.conf", CaptureSink, kOwnMessages, 3);
    EXPECT_EQ(rv, 6);
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '" + softHsm.path() + "'",
                                  "Failed to update global configuration path '/etc/kvo.conf'",
                                  "Failed to update parameter 'pin'", "Pkcs#11 library successfully initialized",
                                  "Plugin library missing", "Plugin library finalized",
                                  "Pkcs#11 library successfully finalized"}));
    EXPECT_EQ(SoftHsm::ModuleState(), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(StartLibraries, ModuleAloneFromSoftHsm) {
    SoftHsm softHsm;
    EXPECT_EQ(StartLibraries(nullptr, softHsm.path().c_str(), nullptr, CaptureSink, kOwnMessages, LOAD_PKCS11), 0);
    EXPECT_EQ(SinkLines().back(), "Pkcs#11 library successfully initialized");
    EXPECT_EQ(SoftHsm::ModuleState(), CKR_OK);
    SinkLines().clear();
    EXPECT_EQ(StopLibraries(), 0);
    EXPECT_EQ(SinkLines(), (Lines{"Plugin library finalized", "Pkcs#11 library successfully finalized"}));
    EXPECT_EQ(SoftHsm::ModuleState(), CKR_CRYPTOKI_NOT_INITIALIZED);
}

TEST(StartLibraries, EverythingInOrderWithSelectionZero) {
    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("recording"));
    root.Plugin(PluginFile("recording"));
    EXPECT_EQ(StartLibraries("kvoconfigglobal=/mine;a=x=y", root.path().c_str(), "/etc/kvo.conf", CaptureSink,
                             TRACE_PKCS11_ALL | TRACE_PLUGIN_ALL, 0),
              0);
    EXPECT_EQ(record.Lines(),
              (Lines{"C_SetTraceCallback set", "C_SetVariable kvoconfigglobal=/etc/kvo.conf",
                     "C_SetVariable kvoconfigglobal=/mine", "C_SetVariable a=x=y", "C_Initialize",
                     "SetTraceCallback set", "Initialize", "SetProperty Server=file:///blank",
                     "SetProperty WorkingDirectory=" + root.path()}));
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '" + root.path() + "'",
                                  "Updated global configuration path '/etc/kvo.conf'",
                                  "Updated parameter 'kvoconfigglobal'", "Updated parameter 'a'",
                                  "Pkcs#11 library successfully initialized", "Plugin library successfully initialized"}));
}

TEST(StartLibraries, LibraryLinesReachTheSinkThroughTheirFilters) {
    LibraryRoot root;
    root.Module(ModuleFile("recording"));
    root.Plugin(PluginFile("recording"));
    ASSERT_EQ(StartLibraries(nullptr, root.path().c_str(), nullptr, CaptureSink,
                             TRACE_PKCS11_CALLS | TRACE_PLUGIN_WEB, LOAD_PKCS11 | LOAD_PLUGIN),
              0);
    g_wrapperPKCS11.SetVariable("test:trace", "Pkcs11 - C_Login(slot 1)");
    g_wrapperPKCS11.SetVariable("test:trace", "softhsm internals");
    g_wrapperPlugin.Invoke("test:trace:Web - page loaded");
    g_wrapperPlugin.Invoke("test:trace:Core - noise");
    // The layer's own messages need 0x001 or 0x002, so only the library lines come.
    EXPECT_EQ(SinkLines(), (Lines{"Pkcs11 - C_Login(slot 1)", "Web - page loaded"}));
}

TEST(StartLibraries, PluginAloneAsTheHostStartsIt) {
    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("recording"));
    root.Plugin(PluginFile("recording"));
    EXPECT_EQ(StartLibraries("a=1", root.path().c_str(), "/etc/kvo.conf", CaptureSink, kOwnMessages, LOAD_PLUGIN), 0);
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '" + root.path() + "'",
                                  "Need to load pkcs#11 library for environment variables",
                                  "Plugin library successfully initialized"}));
    EXPECT_EQ(record.Lines(), (Lines{"SetTraceCallback null", "Initialize", "SetProperty Server=file:///blank",
                                     "SetProperty WorkingDirectory=" + root.path()}));
}

TEST(StartLibraries, SelectionWithoutLibrariesOnlySetsState) {
    EXPECT_EQ(StartLibraries("a=1", "/opt/kvo", nullptr, CaptureSink, kOwnMessages, 4), 0);
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '/opt/kvo/'", "Need to load pkcs#11 library for environment variables"}));
    EXPECT_EQ(LibraryDirectory(), "/opt/kvo/");
    EXPECT_EQ(GetTraceFilter(TRACE_SOURCE_PKCS11), Pkcs11TraceFilter);
}

TEST(StartLibraries, ModuleFailures) {
    LibraryRoot empty;
    EXPECT_EQ(StartLibraries(nullptr, empty.path().c_str(), nullptr, CaptureSink, kOwnMessages, 3), 6);
    EXPECT_EQ(SinkLines().back(), "Pkcs#11 library missing");

    LibraryRoot failing;
    failing.Module(ModuleFile("init_fails"));
    failing.Plugin(PluginFile("recording"));
    EXPECT_EQ(StartLibraries(nullptr, failing.path().c_str(), nullptr, CaptureSink, kOwnMessages, 3), 5);
    EXPECT_EQ(SinkLines().back(), "Pkcs#11 library initialize failed");
    EXPECT_EQ(g_wrapperPlugin.Invoke("1"), 6);  // the plug-in was never reached
}

TEST(StartLibraries, FailedPluginStartLeavesAnEarlierModuleAlone) {
    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("recording"));
    root.Plugin(PluginFile("init_fails"));
    ASSERT_EQ(StartLibraries(nullptr, root.path().c_str(), nullptr, CaptureSink, kOwnMessages, LOAD_PKCS11), 0);
    SinkLines().clear();
    EXPECT_EQ(StartLibraries(nullptr, root.path().c_str(), nullptr, CaptureSink, kOwnMessages, LOAD_PLUGIN), 6);
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '" + root.path() + "'", "Plugin library initialize failed"}));
    EXPECT_EQ(g_wrapperPKCS11.InitCount(), 1);

    // With the module in the same call, the roll-back takes both down.
    SinkLines().clear();
    EXPECT_EQ(StartLibraries(nullptr, root.path().c_str(), nullptr, CaptureSink, kOwnMessages, 3), 6);
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '" + root.path() + "'", "Pkcs#11 library successfully initialized",
                                  "Plugin library initialize failed", "Plugin library finalized",
                                  "Pkcs#11 library successfully finalized"}));
    EXPECT_EQ(g_wrapperPKCS11.InitCount(), 1);
    EXPECT_EQ(record.Lines(), (Lines{"C_SetTraceCallback set", "C_Initialize", "SetTraceCallback null", "Initialize",
                                     "C_SetTraceCallback set", "SetTraceCallback null", "Initialize"}));
}

TEST(StopLibraries, Outcomes) {
    SetTrace(CaptureSink, kOwnMessages);
    EXPECT_EQ(StopLibraries(), 0);
    EXPECT_EQ(SinkLines(), (Lines{"Plugin library finalized"}));

    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("finalize_fails"));
    ASSERT_EQ(StartLibraries(nullptr, root.path().c_str(), nullptr, CaptureSink, kOwnMessages, LOAD_PKCS11), 0);
    SinkLines().clear();
    EXPECT_EQ(StopLibraries(), 0x30);
    EXPECT_EQ(SinkLines(), (Lines{"Plugin library finalized", "Pkcs#11 library finalize failed"}));
}

TEST(StopLibraries, ModuleInitialisedElsewhereIsNotFinalised) {
    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("already_initialized"));
    ASSERT_EQ(StartLibraries(nullptr, root.path().c_str(), nullptr, CaptureSink, kOwnMessages, LOAD_PKCS11), 0);
    EXPECT_EQ(StopLibraries(), 0);
    EXPECT_EQ(SinkLines().back(), "Pkcs#11 library successfully finalized");
    EXPECT_EQ(record.Lines(), (Lines{"C_SetTraceCallback set", "C_Initialize"}));
}

TEST(LibraryDirectory, RootRules) {
    SetTrace(CaptureSink, kOwnMessages);
    EXPECT_EQ(LibraryDirectory(), "/usr/lib/");  // never given: the default, kept from now on
    SetLibraryRoot(nullptr);
    SetLibraryRoot("");
    EXPECT_EQ(LibraryDirectory(), "/usr/lib/");

    std::string root254(254, 'r');
    SetLibraryRoot(root254.c_str());
    EXPECT_EQ(LibraryDirectory(), root254 + "/");
    SetLibraryRoot(std::string(255, 's').c_str());
    EXPECT_EQ(LibraryDirectory(), root254 + "/");
    SetLibraryRoot("/opt/kvo/");
    EXPECT_EQ(LibraryDirectory(), "/opt/kvo/");
    // The 255-character directory's message does not fit and is dropped whole.
    EXPECT_EQ(SinkLines(), (Lines{"Current root: '/opt/kvo/'"}));

    char small[9] = "garbage";
    GetLibraryDirectory(small, sizeof small);
    EXPECT_STREQ(small, "");
    char exact[10];
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
    SetTrace(CaptureSink, kOwnMessages);
    ApplyParameters(nullptr);
    ApplyParameters("");
    ApplyParameters("a=1;novalue;;c=x=y;=e;f=;");
    ApplyParameters(";");
    EXPECT_EQ(record.Lines(), (Lines{"C_SetVariable a=1", "C_SetVariable c=x=y", "C_SetVariable =e", "C_SetVariable f="}));
    EXPECT_EQ(SinkLines(), (Lines{"Updated parameter 'a'", "Updated parameter 'c'", "Updated parameter ''",
                                  "Updated parameter 'f'"}));
}

TEST(ExitSequence, PluginGoesDownBeforeTheModule) {
    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("recording"));
    root.Plugin(PluginFile("recording"));
    ASSERT_EQ(RunProcess({KVO_NATIVE_HELPER, "start", root.path(), "3"}, {}, 20000), 0);
    EXPECT_EQ(record.Lines(),
              (Lines{"C_SetTraceCallback null", "C_SetVariable kvoconfigglobal=/etc/kvo.conf", "C_Initialize",
                     "SetTraceCallback null", "Initialize", "SetProperty Server=file:///blank",
                     "SetProperty WorkingDirectory=" + root.path(), "Finalize", "C_Finalize"}));
}

TEST(ExitSequence, BareNamesUseTheLoaderSearchPath) {
    CallRecord record;
    LibraryRoot root;
    root.Module(ModuleFile("recording"));
    root.Plugin(PluginFile("recording"));
    ASSERT_EQ(RunProcess({KVO_NATIVE_HELPER, "bare"}, {"LD_LIBRARY_PATH=" + root.path()}, 20000), 0);
    EXPECT_EQ(record.Lines(), (Lines{"C_Initialize", "Initialize", "SetProperty Server=file:///blank", "Finalize",
                                     "C_Finalize"}));
}
