// The example plug-ins loaded with dlopen as the host loads them; the demo
// one on throwaway SoftHSM2 tokens.
#include <gtest/gtest.h>

#include <set>

#include "tests/examples/example_plugin.h"
#include "tests/examples/soft_token.h"

namespace kvotest {
namespace {

std::string g_trace;

// The value of "key":"..." or "key":x in the plug-in's flat JSON.
std::string JsonField(const std::string& json, const std::string& key) {
    size_t at = json.find("\"" + key + "\":");
    if (at == std::string::npos) return "<missing>";
    at += key.size() + 3;
    if (json[at] == '"') return json.substr(at + 1, json.find('"', at + 1) - at - 1);
    return json.substr(at, json.find_first_of(",}", at) - at);
}

TEST(ExamplePlugins, ExportOnlyTheSevenEntryPoints) {
    for (const char* library : {KVO_DEMO_PLUGIN, KVO_SCRIPTED_PLUGIN}) {
        std::string out;
        ASSERT_EQ(RunProcess({"/usr/bin/nm", "-D", "--defined-only", library}, {}, 20000, &out), 0) << out;
        std::set<std::string> symbols;
        std::istringstream lines(out);
        for (std::string address, type, name; lines >> address >> type >> name;) symbols.insert(name);
        EXPECT_EQ(symbols, (std::set<std::string>{"PlgInitialize", "PlgFinalize", "PlgSetProperty", "PlgGetProperty",
                                                  "PlgEnumProperty", "PlgInvoke", "PlgSetTraceCallback"}))
            << library;
    }
}

class DemoPlugin : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_plugin.loaded()) << dlerror();
        unsetenv("KAVORI_DEMO_MODULE");
    }
    // The host's start: trace sink, instance, "Server", "WorkingDirectory".
    void Start(const char* workingDirectory = "/nonexistent/") {
        m_plugin.trace([](const char* text, int32_t length) { g_trace.append(text, length).append("\n"); });
        ASSERT_TRUE(m_plugin.Start());
        m_plugin.Set("Server", "file:///blank");
        m_plugin.Set("WorkingDirectory", workingDirectory);
    }
    SoftTokens m_tokens;
    ExamplePlugin m_plugin{KVO_DEMO_PLUGIN};
};

TEST_F(DemoPlugin, DescribesTheTokensSelectsOneBySlotOrKeyAndHandsOutWritableCopies) {
    std::string first = m_tokens.Add("First", "1111"), second = m_tokens.Add("Second", "2222");
    ASSERT_FALSE(first.empty() || second.empty());
    Start();
    // SoftHSM2's spare uninitialised token is no choice; the first one is selected.
    std::string answers;
    for (const char* name : {"Status", "Module", "SlotCount", "Token:Model", "Token:PinState", "Token:MinPinLength",
                             "NoSuchProperty"}) {
        answers += m_plugin.Get(name) + "|";
    }
    EXPECT_EQ(answers, "ready|" + std::string(kSoftHsmModule) + "|2|SoftHSM v2|ok|4|<null>|");
    std::string entry0 = m_plugin.Enum("Slot", "0"), entry1 = m_plugin.Enum("Slot", "1");
    EXPECT_EQ(m_plugin.Enum("Slot", "2") + m_plugin.Enum("Slot", "x"), "<null><null>");
    EXPECT_EQ((std::set<std::string>{JsonField(entry0, "label"), JsonField(entry1, "label")}),
              (std::set<std::string>{"First", "Second"}));
    EXPECT_EQ((std::set<std::string>{JsonField(entry0, "serial"), JsonField(entry1, "serial")}),
              (std::set<std::string>{first, second}));
    EXPECT_EQ(JsonField(entry0, "selected") + JsonField(entry1, "selected"), "truefalse");
    EXPECT_EQ(m_plugin.Get("Token:Label") + "|" + m_plugin.Get("Token:Serial") + "|" + m_plugin.Get("Slot"),
              JsonField(entry0, "label") + "|" + JsonField(entry0, "serial") + "|" + JsonField(entry0, "slot"));
    m_plugin.Set("Slot", JsonField(entry1, "slot").c_str());  // another slot by its id
    EXPECT_EQ(m_plugin.Get("Token:Label"), JsonField(entry1, "label"));
    EXPECT_EQ(JsonField(m_plugin.Enum("Slot", "1"), "selected"), "true");
    m_plugin.Set("Slot", "12345");  // no such slot: the selection stays
    EXPECT_EQ(m_plugin.Get("Token:Label"), JsonField(entry1, "label"));
    // The key, first handed over before anything opened the module as the host
    // does, names a token by serial or label and stays secret; one that names
    // none (or the host's clearing it) leaves the selection.
    Start();
    for (auto c : {std::make_pair(second, second), std::make_pair(std::string("First"), first),
                   std::make_pair(std::string("nobody"), first), std::make_pair(std::string(), first)}) {
        m_plugin.Set("Key", c.first.c_str());
        EXPECT_EQ(m_plugin.Get("Token:Serial"), c.second) << c.first;
        EXPECT_EQ(m_plugin.Get("Key"), "<null>");
    }
    char* info = m_plugin.get(m_plugin.instance, "ProductInfo");
    ASSERT_STREQ(info, "Kavori Demo;demo;01000000,1");
    for (char* p = info; *p; ++p) *p = (*p == ';' || *p == ',') ? '\0' : *p;  // the host splits it in place
    EXPECT_EQ(m_plugin.Get("ProductInfo"), "Kavori Demo;demo;01000000,1");
}

TEST_F(DemoPlugin, LoginReturnsTheModulesCodeUsesThePinOnceAndLogsNoSecret) {
    std::string serial = m_tokens.Add("Demo", "735190");
    TempDir dir;
    setenv("KAVORI_DEMO_LOG", dir.file("log").c_str(), 1);
    Start();
    EXPECT_EQ(m_plugin.Get("LastResult"), "<null>");
    m_plugin.Set("Key", "key-4711-secret");
    // Each Login takes the PIN with it: without a new one the token is not asked.
    struct Step {
        std::string pin;  // "-": none set before; "": one set, then cleared
        int32_t code;
        const char* result;
    } steps[] = {{"918273", 0xA0, "CKR_PIN_INCORRECT"}, {"-", 0x07, "CKR_ARGUMENTS_BAD"},
                 {std::string(300, '1'), 0xA2, "CKR_PIN_LEN_RANGE"}, {"", 0x07, "CKR_ARGUMENTS_BAD"},
                 {"735190", 0x00, "CKR_OK"}, {"-", 0x07, "CKR_ARGUMENTS_BAD"}};
    for (const Step& s : steps) {
        if (s.pin.empty()) m_plugin.Set("Pin", "735190");
        if (s.pin != "-") m_plugin.Set("Pin", s.pin.c_str());
        EXPECT_EQ(m_plugin.Invoke("Login"), s.code) << s.result;
        EXPECT_EQ(m_plugin.Get("LastResult"), s.result);
        if (s.code == 0xA0) {  // the token counted the failure, and tells other processes too
            EXPECT_EQ(m_plugin.Get("Token:PinState"), "count-low");
            std::string flags = m_tokens.Field("serial num", serial, "token flags");
            EXPECT_NE(flags.find("user PIN count low"), std::string::npos) << flags;
        }
    }
    EXPECT_EQ(m_plugin.Get("Token:PinState"), "ok");
    EXPECT_EQ(m_plugin.Invoke("Launch"), 0x54);
    m_plugin.Stop();
    std::string log = ReadFileOr(dir.file("log"));
    EXPECT_EQ(LinesWith(dir.file("log"), "Login on slot").size(), 6u) << log;
    EXPECT_EQ(log, g_trace);  // the host's trace sink gets the same lines
    for (const char* secret : {"918273", "735190", "key-4711-secret"}) EXPECT_EQ(log.find(secret), std::string::npos);
}

TEST_F(DemoPlugin, TheModuleComesFromTheEnvironmentTheConfigOrTheDefault) {
    TempDir root;
    m_tokens.Add("Demo", "1234");
    WriteFile(root.file("kvo-demo.conf"), "# demo\n  module =  /opt/none/libp11.so  \n");
    Start(root.path().c_str());
    EXPECT_EQ(m_plugin.Get("Module"), "/opt/none/libp11.so");
    EXPECT_EQ(m_plugin.Get("Status"), "no-module");
    m_plugin.Set("Pin", "1234");
    EXPECT_EQ(m_plugin.Invoke("Login"), 0x06);
    EXPECT_EQ(m_plugin.Get("Token:Label"), "<null>");
    setenv("KAVORI_DEMO_MODULE", kSoftHsmModule, 1);  // the environment wins over the file
    Start((root.path() + "/").c_str());
    EXPECT_EQ(m_plugin.Get("Status"), "ready");
    m_plugin.Set("Pin", "1234");
    EXPECT_EQ(m_plugin.Invoke("Login"), 0x00);
    unsetenv("KAVORI_DEMO_MODULE");  // neither: SoftHSM2
    Start("/nonexistent");
    EXPECT_EQ(m_plugin.Get("Module"), kSoftHsmModule);
    EXPECT_EQ(m_plugin.Get("Token:Label"), "Demo");
}

}  // namespace
}  // namespace kvotest
