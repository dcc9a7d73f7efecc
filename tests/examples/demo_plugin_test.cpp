// The demo plug-in, loaded with dlopen as the host loads it, on throwaway
// SoftHSM2 tokens.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <sstream>
#include <string>

#include "kavori/plugin.h"
#include "tests/examples/soft_token.h"
#include "tests/support/support.h"

namespace kvotest {
namespace {

// CKR values the tests look for.
constexpr int32_t kOk = 0x00;
constexpr int32_t kFunctionFailed = 0x06;
constexpr int32_t kArgumentsBad = 0x07;
constexpr int32_t kFunctionNotSupported = 0x54;
constexpr int32_t kPinIncorrect = 0xA0;
constexpr int32_t kPinLenRange = 0xA2;

std::vector<std::string> g_traceLines;
void CollectTrace(const char* text, int32_t length) { g_traceLines.emplace_back(text, static_cast<size_t>(length)); }

// The plug-in as the host drives it: the seven exports, one instance.
class DemoPlugin {
public:
    DemoPlugin() {
        m_library = dlopen(KVO_DEMO_PLUGIN, RTLD_NOW | RTLD_LOCAL);
        if (!m_library) return;
        m_initialize = reinterpret_cast<PFN_PlgInitialize>(dlsym(m_library, "PlgInitialize"));
        m_finalize = reinterpret_cast<PFN_PlgFinalize>(dlsym(m_library, "PlgFinalize"));
        m_set = reinterpret_cast<PFN_PlgSetProperty>(dlsym(m_library, "PlgSetProperty"));
        m_get = reinterpret_cast<PFN_PlgGetProperty>(dlsym(m_library, "PlgGetProperty"));
        m_enum = reinterpret_cast<PFN_PlgEnumProperty>(dlsym(m_library, "PlgEnumProperty"));
        m_invoke = reinterpret_cast<PFN_PlgInvoke>(dlsym(m_library, "PlgInvoke"));
        m_trace = reinterpret_cast<PFN_PlgSetTraceCallback>(dlsym(m_library, "PlgSetTraceCallback"));
    }
    ~DemoPlugin() {
        Stop();
        if (m_library) dlclose(m_library);
    }
    bool loaded() const { return m_initialize && m_finalize && m_set && m_get && m_enum && m_invoke && m_trace; }

    // The host's start: trace sink, instance, "Server", "WorkingDirectory".
    bool Start(const std::string& workingDirectory = "/nonexistent/") {
        m_trace(CollectTrace);
        if (!m_initialize(nullptr, nullptr, nullptr, nullptr, &m_instance)) return false;
        Set("Server", "file:///blank");
        Set("WorkingDirectory", workingDirectory);
        return true;
    }
    void Stop() {
        if (m_instance) m_finalize(m_instance);
        m_instance = nullptr;
    }

    void Set(const std::string& name, const std::string& value) { m_set(m_instance, name.c_str(), value.c_str()); }
    // "<null>" tells a null answer from an empty one.
    std::string Get(const std::string& name) { return Text(m_get(m_instance, name.c_str())); }
    std::string Enum(const std::string& first, const std::string& second) {
        return Text(m_enum(m_instance, first.c_str(), second.c_str()));
    }
    int32_t Invoke(const std::string& command) { return m_invoke(m_instance, command.c_str()); }
    char* RawGet(const std::string& name) { return m_get(m_instance, name.c_str()); }

private:
    static std::string Text(const char* answer) { return answer ? answer : "<null>"; }

    void* m_library = nullptr;
    PlgInstance m_instance = nullptr;
    PFN_PlgInitialize m_initialize = nullptr;
    PFN_PlgFinalize m_finalize = nullptr;
    PFN_PlgSetProperty m_set = nullptr;
    PFN_PlgGetProperty m_get = nullptr;
    PFN_PlgEnumProperty m_enum = nullptr;
    PFN_PlgInvoke m_invoke = nullptr;
    PFN_PlgSetTraceCallback m_trace = nullptr;
};

// The value of "key":"..." or "key":x in the plug-in's flat JSON.
std::string JsonField(const std::string& json, const std::string& key) {
    size_t at = json.find("\"" + key + "\":");
    if (at == std::string::npos) return "<missing>";
    at += key.size() + 3;
    if (json[at] == '"') return json.substr(at + 1, json.find('"', at + 1) - at - 1);
    return json.substr(at, json.find_first_of(",}", at) - at);
}

class DemoPluginTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_plugin.loaded()) << dlerror();
        setenv("SOFTHSM2_CONF", m_tokens.config().c_str(), 1);
        unsetenv("KAVORI_DEMO_MODULE");
        unsetenv("KAVORI_DEMO_LOG");
    }

    SoftTokens m_tokens;
    DemoPlugin m_plugin;
};

TEST(DemoPluginLibrary, ExportsOnlyTheSevenEntryPoints) {
    std::string out;
    ASSERT_EQ(0, RunProcess({"/usr/bin/nm", "-D", "--defined-only", KVO_DEMO_PLUGIN}, {}, 20000, &out)) << out;
    std::set<std::string> symbols;
    std::istringstream lines(out);
    std::string address, type, name;
    while (lines >> address >> type >> name) symbols.insert(name);
    std::set<std::string> expected = {"PlgInitialize", "PlgFinalize", "PlgSetProperty", "PlgGetProperty",
                                      "PlgEnumProperty", "PlgInvoke", "PlgSetTraceCallback"};
    EXPECT_EQ(expected, symbols);
}

TEST_F(DemoPluginTest, DescribesTheTokensAndSlotsForTheDialog) {
    std::string first = m_tokens.Add("First", "1111");
    std::string second = m_tokens.Add("Second", "2222");
    ASSERT_FALSE(first.empty());
    ASSERT_FALSE(second.empty());
    ASSERT_TRUE(m_plugin.Start());

    EXPECT_EQ("ready", m_plugin.Get("Status"));
    EXPECT_EQ(kSoftHsmModule, m_plugin.Get("Module"));
    // SoftHSM2's spare uninitialised token is no choice for a PIN.
    EXPECT_EQ("2", m_plugin.Get("SlotCount"));
    std::string entry0 = m_plugin.Enum("Slot", "0");
    std::string entry1 = m_plugin.Enum("Slot", "1");
    EXPECT_EQ("<null>", m_plugin.Enum("Slot", "2"));
    EXPECT_EQ("<null>", m_plugin.Enum("Slot", "x"));
    EXPECT_EQ((std::set<std::string>{"First", "Second"}),
              (std::set<std::string>{JsonField(entry0, "label"), JsonField(entry1, "label")}));
    EXPECT_EQ((std::set<std::string>{first, second}),
              (std::set<std::string>{JsonField(entry0, "serial"), JsonField(entry1, "serial")}));

    // The first token is selected; the properties describe it.
    EXPECT_EQ("true", JsonField(entry0, "selected"));
    EXPECT_EQ("false", JsonField(entry1, "selected"));
    EXPECT_EQ(JsonField(entry0, "label"), m_plugin.Get("Token:Label"));
    EXPECT_EQ(JsonField(entry0, "serial"), m_plugin.Get("Token:Serial"));
    EXPECT_EQ(JsonField(entry0, "slot"), m_plugin.Get("Slot"));
    EXPECT_EQ("SoftHSM v2", m_plugin.Get("Token:Model"));
    EXPECT_EQ("ok", m_plugin.Get("Token:PinState"));
    EXPECT_EQ("4", m_plugin.Get("Token:MinPinLength"));

    // Another slot by its id.
    m_plugin.Set("Slot", JsonField(entry1, "slot"));
    EXPECT_EQ(JsonField(entry1, "label"), m_plugin.Get("Token:Label"));
    EXPECT_EQ("true", JsonField(m_plugin.Enum("Slot", "1"), "selected"));
    m_plugin.Set("Slot", "12345");  // no such slot: the selection stays
    EXPECT_EQ(JsonField(entry1, "label"), m_plugin.Get("Token:Label"));
    EXPECT_EQ("<null>", m_plugin.Get("NoSuchProperty"));
}

TEST_F(DemoPluginTest, ProductInfoIsAFreshWritableBufferEachTime) {
    ASSERT_TRUE(m_plugin.Start());
    char* info = m_plugin.RawGet("ProductInfo");
    ASSERT_NE(nullptr, info);
    EXPECT_STREQ("Kavori Demo;demo;01000000,1", info);
    // The host splits it in place at its separators.
    for (char* p = info; *p; ++p) {
        if (*p == ';' || *p == ',') *p = '\0';
    }
    EXPECT_EQ("Kavori Demo;demo;01000000,1", m_plugin.Get("ProductInfo"));
}

TEST_F(DemoPluginTest, KeySelectsTheTokenItNamesAndStaysSecret) {
    std::string first = m_tokens.Add("First", "1111");
    std::string second = m_tokens.Add("Second", "2222");
    ASSERT_TRUE(m_plugin.Start());
    // Handed over before anything opened the module, as the host does.
    m_plugin.Set("Key", second);
    EXPECT_EQ("Second", m_plugin.Get("Token:Label"));
    EXPECT_EQ(second, m_plugin.Get("Token:Serial"));
    EXPECT_EQ("<null>", m_plugin.Get("Key"));

    m_plugin.Set("Key", "First");  // a label does as well
    EXPECT_EQ(first, m_plugin.Get("Token:Serial"));
    m_plugin.Set("Key", "nobody");  // names no token: the selection stays
    EXPECT_EQ(first, m_plugin.Get("Token:Serial"));
    m_plugin.Set("Key", "");  // the host clears it at the end
    EXPECT_EQ(first, m_plugin.Get("Token:Serial"));
}

TEST_F(DemoPluginTest, LoginReturnsTheModulesCodeAndUsesThePinOnce) {
    std::string serial = m_tokens.Add("Demo", "123456");
    ASSERT_TRUE(m_plugin.Start());
    EXPECT_EQ("<null>", m_plugin.Get("LastResult"));

    m_plugin.Set("Pin", "000000");
    EXPECT_EQ(kPinIncorrect, m_plugin.Invoke("Login"));
    EXPECT_EQ("CKR_PIN_INCORRECT", m_plugin.Get("LastResult"));
    // The token counted the failure, and says so to other processes too.
    EXPECT_EQ("count-low", m_plugin.Get("Token:PinState"));
    EXPECT_NE(std::string::npos, m_tokens.FlagsOf(serial).find("user PIN count low")) << m_tokens.FlagsOf(serial);

    // The PIN went with the attempt: without a new one the token is not asked.
    EXPECT_EQ(kArgumentsBad, m_plugin.Invoke("Login"));
    m_plugin.Set("Pin", std::string(300, '1'));
    EXPECT_EQ(kPinLenRange, m_plugin.Invoke("Login"));
    m_plugin.Set("Pin", "123456");
    m_plugin.Set("Pin", "");  // cleared again
    EXPECT_EQ(kArgumentsBad, m_plugin.Invoke("Login"));

    m_plugin.Set("Pin", "123456");
    EXPECT_EQ(kOk, m_plugin.Invoke("Login"));
    EXPECT_EQ("CKR_OK", m_plugin.Get("LastResult"));
    EXPECT_EQ("ok", m_plugin.Get("Token:PinState"));
    EXPECT_EQ(kArgumentsBad, m_plugin.Invoke("Login"));
    EXPECT_EQ(kFunctionNotSupported, m_plugin.Invoke("Launch"));
}

TEST_F(DemoPluginTest, NeitherPinNorKeyReachesTheLog) {
    TempDir dir;
    std::string log = dir.file("plugin.log");
    setenv("KAVORI_DEMO_LOG", log.c_str(), 1);
    m_tokens.Add("Demo", "735190");
    ASSERT_TRUE(m_plugin.Start());
    m_plugin.Set("Key", "key-4711-secret");
    m_plugin.Set("Pin", "918273");
    EXPECT_EQ(kPinIncorrect, m_plugin.Invoke("Login"));
    m_plugin.Set("Pin", "735190");
    EXPECT_EQ(kOk, m_plugin.Invoke("Login"));
    m_plugin.Stop();

    std::string file = ReadFileOr(log);
    std::string trace;
    for (const std::string& line : g_traceLines) trace += line + "\n";
    EXPECT_EQ(2u, LinesWith(log, "Login on slot").size()) << file;
    EXPECT_EQ(file, trace);  // the host's trace sink gets the same lines
    for (const char* secret : {"918273", "735190", "key-4711-secret"}) {
        EXPECT_EQ(std::string::npos, file.find(secret)) << secret;
    }
}

TEST_F(DemoPluginTest, TheModuleComesFromTheEnvironmentTheConfigOrTheDefault) {
    TempDir root;
    m_tokens.Add("Demo", "1234");

    // A configuration file in the root directory names another module.
    WriteFile(root.file("kvo-demo.conf"), "# demo\n  module =  /opt/none/libp11.so  \n");
    ASSERT_TRUE(m_plugin.Start(root.path()));
    EXPECT_EQ("/opt/none/libp11.so", m_plugin.Get("Module"));
    EXPECT_EQ("no-module", m_plugin.Get("Status"));
    m_plugin.Set("Pin", "1234");
    EXPECT_EQ(kFunctionFailed, m_plugin.Invoke("Login"));
    EXPECT_EQ("<null>", m_plugin.Get("Token:Label"));
    m_plugin.Stop();

    // The environment wins over the file.
    setenv("KAVORI_DEMO_MODULE", kSoftHsmModule, 1);
    ASSERT_TRUE(m_plugin.Start(root.path() + "/"));
    EXPECT_EQ("ready", m_plugin.Get("Status"));
    m_plugin.Set("Pin", "1234");
    EXPECT_EQ(kOk, m_plugin.Invoke("Login"));
    m_plugin.Stop();

    // Neither: SoftHSM2.
    unsetenv("KAVORI_DEMO_MODULE");
    ASSERT_TRUE(m_plugin.Start("/nonexistent"));
    EXPECT_EQ(kSoftHsmModule, m_plugin.Get("Module"));
    EXPECT_EQ("Demo", m_plugin.Get("Token:Label"));
}

}  // namespace
}  // namespace kvotest
