// The script object's argument rules and results, in a plain JavaScriptCore
// context with a fake transport in place of the host.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "bridge/extension/script_object.h"

namespace {

std::vector<BridgeRequest> g_requests;
BridgeReply g_nextReply;
bool g_channelUp = true;

bool FakeTransport(const BridgeRequest& request, BridgeReply* reply) {
    if (!g_channelUp) return false;
    g_requests.push_back(request);
    *reply = g_nextReply;
    return true;
}

class ScriptObject : public testing::Test {
protected:
    void SetUp() override {
        g_requests.clear();
        g_nextReply = BridgeReply();
        g_channelUp = true;
        SetScriptTransport(FakeTransport);
        m_context = JSGlobalContextCreate(nullptr);
        InstallScriptObject(m_context);
    }
    void TearDown() override {
        JSGlobalContextRelease(m_context);
        SetScriptTransport(nullptr);
    }

    // The script's value as JSON text ("undefined" when it has none); an
    // exception reads as "exception".
    std::string Eval(const std::string& script) {
        JSStringRef source = JSStringCreateWithUTF8CString(("JSON.stringify(" + script + ")").c_str());
        JSValueRef exception = nullptr;
        JSValueRef value = JSEvaluateScript(m_context, source, nullptr, nullptr, 0, &exception);
        JSStringRelease(source);
        if (exception) return "exception";
        if (JSValueIsUndefined(m_context, value)) return "undefined";
        JSStringRef text = JSValueToStringCopy(m_context, value, nullptr);
        std::vector<char> buffer(JSStringGetMaximumUTF8CStringSize(text));
        JSStringGetUTF8CString(text, buffer.data(), buffer.size());
        JSStringRelease(text);
        return buffer.data();
    }

    JSGlobalContextRef m_context = nullptr;
};

TEST_F(ScriptObject, PublishesFiveFunctionsOnAClassNamedKavori) {
    EXPECT_EQ(Eval("Object.prototype.toString.call(Kavori)"), "\"[object Kavori]\"");
    EXPECT_EQ(Eval("['GetProperty','SetProperty','EnumProperty','Invoke','Application'].map(n => typeof Kavori[n])"),
              "[\"function\",\"function\",\"function\",\"function\",\"function\"]");
    // Nothing is read-only or hidden: a page may replace or delete the functions.
    EXPECT_EQ(Eval("(Kavori.Invoke = 5, Kavori.Invoke)"), "5");
    EXPECT_EQ(Eval("delete Kavori.GetProperty"), "true");
}

TEST_F(ScriptObject, UnusableArgumentsGiveDefaultsWithoutARequest) {
    g_nextReply.text = std::string("never");
    g_nextReply.code = 99;
    EXPECT_EQ(Eval("Kavori.GetProperty()"), "\"\"");
    EXPECT_EQ(Eval("Kavori.GetProperty(5)"), "\"\"");
    EXPECT_EQ(Eval("Kavori.GetProperty(null)"), "\"\"");
    EXPECT_EQ(Eval("Kavori.GetProperty(undefined)"), "\"\"");
    EXPECT_EQ(Eval("Kavori.GetProperty(new String('boxed'))"), "\"\"");
    EXPECT_EQ(Eval("Kavori.SetProperty('name')"), "null");
    EXPECT_EQ(Eval("Kavori.SetProperty('name', 5)"), "null");
    EXPECT_EQ(Eval("Kavori.SetProperty(true, 'v')"), "null");
    EXPECT_EQ(Eval("Kavori.EnumProperty('only one')"), "\"\"");
    EXPECT_EQ(Eval("Kavori.EnumProperty('a', {})"), "\"\"");
    EXPECT_EQ(Eval("Kavori.Invoke()"), "0");
    EXPECT_EQ(Eval("Kavori.Invoke(6)"), "0");
    EXPECT_EQ(Eval("Kavori.Application()"), "0");
    EXPECT_EQ(Eval("Kavori.Application(1, 'x')"), "0");
    EXPECT_TRUE(g_requests.empty());
}

TEST_F(ScriptObject, StringsTravelAndAnswersComeBack) {
    g_nextReply.text = std::string("answer \xc3\xa9");
    EXPECT_EQ(Eval("Kavori.GetProperty('name', 'ignored', 3)"), "\"answer \xc3\xa9\"");
    EXPECT_EQ(Eval("Kavori.EnumProperty('', 'second')"), "\"answer \xc3\xa9\"");
    EXPECT_EQ(Eval("Kavori.SetProperty('k', '')"), "null");
    ASSERT_EQ(g_requests.size(), 3u);
    EXPECT_EQ(g_requests[0].op, BRIDGE_GET_PROPERTY);
    EXPECT_EQ(*g_requests[0].text[0], "name");
    EXPECT_FALSE(g_requests[0].text[1]);  // extra arguments are not sent
    EXPECT_EQ(g_requests[1].op, BRIDGE_ENUM_PROPERTY);
    EXPECT_EQ(*g_requests[1].text[0], "");
    EXPECT_EQ(*g_requests[1].text[1], "second");
    EXPECT_EQ(g_requests[2].op, BRIDGE_SET_PROPERTY);
    EXPECT_EQ(*g_requests[2].text[1], "");
}

TEST_F(ScriptObject, NoAnswerReadsAsTheEmptyStringAndBadBytesAreReplaced) {
    g_nextReply.text.reset();
    EXPECT_EQ(Eval("Kavori.GetProperty('missing')"), "\"\"");
    EXPECT_EQ(Eval("Kavori.EnumProperty('a', 'b')"), "\"\"");
    g_nextReply.text = std::string("ok \xff end");
    EXPECT_EQ(Eval("Kavori.GetProperty('bytes')"), "\"ok \xef\xbf\xbd end\"");
}

TEST_F(ScriptObject, TextsAreUtf8AndCutAtAnEmbeddedNul) {
    Eval("Kavori.GetProperty('caf\\u00e9 \\u20ac \\ud83d\\udd11')");
    Eval("Kavori.GetProperty('before\\u0000after')");
    ASSERT_EQ(g_requests.size(), 2u);
    EXPECT_EQ(*g_requests[0].text[0], "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91");
    EXPECT_EQ(*g_requests[1].text[0], "before");
}

TEST_F(ScriptObject, InvokeCodesAreSigned32BitNumbers) {
    g_nextReply.code = -1;
    EXPECT_EQ(Eval("Kavori.Invoke('cmd')"), "-1");
    g_nextReply.code = 6;
    EXPECT_EQ(Eval("Kavori.Invoke('cmd')"), "6");
    g_nextReply.code = INT32_MIN;
    EXPECT_EQ(Eval("Kavori.Invoke('cmd')"), "-2147483648");
}

TEST_F(ScriptObject, FunctionsIgnoreThis) {
    g_nextReply.text = std::string("v");
    g_nextReply.code = 7;
    EXPECT_EQ(Eval("(function(){ var f = Kavori.GetProperty; return f('n'); })()"), "\"v\"");
    EXPECT_EQ(Eval("Kavori.Invoke.call({}, 'c')"), "7");
    EXPECT_EQ(Eval("Kavori.Invoke.apply(null, ['c'])"), "7");
    EXPECT_EQ(g_requests.size(), 3u);
}

TEST_F(ScriptObject, ALostChannelGivesDefaultsAndNoException) {
    g_channelUp = false;
    EXPECT_EQ(Eval("Kavori.GetProperty('n')"), "\"\"");
    EXPECT_EQ(Eval("Kavori.EnumProperty('a', 'b')"), "\"\"");
    EXPECT_EQ(Eval("Kavori.SetProperty('a', 'b')"), "null");
    EXPECT_EQ(Eval("Kavori.Invoke('c')"), "0");
    EXPECT_EQ(Eval("Kavori.Application('exit')"), "0");
}

TEST_F(ScriptObject, ApplicationSendsStringsAndTheSizeNumber) {
    EXPECT_EQ(Eval("Kavori.Application('exit', 'CKR_OK', 'done', 'extra')"), "0");
    EXPECT_EQ(Eval("Kavori.Application('exit', 5)"), "0");
    EXPECT_EQ(Eval("Kavori.Application('resize', 0x032001E0)"), "0");
    EXPECT_EQ(Eval("Kavori.Application('resize', '0x032001E0')"), "0");
    EXPECT_EQ(Eval("Kavori.Application('resize')"), "0");
    ASSERT_EQ(g_requests.size(), 5u);
    EXPECT_EQ(g_requests[0].argc, 4);
    EXPECT_EQ(*g_requests[0].text[1], "CKR_OK");
    EXPECT_EQ(*g_requests[0].text[2], "done");
    EXPECT_EQ(g_requests[1].argc, 2);
    EXPECT_FALSE(g_requests[1].text[1]);  // a number is no result text
    EXPECT_EQ(g_requests[2].number, 52429280.0);
    EXPECT_FALSE(g_requests[2].text[1]);
    EXPECT_EQ(*g_requests[3].text[1], "0x032001E0");
    EXPECT_TRUE(std::isnan(g_requests[3].number));
    EXPECT_EQ(g_requests[4].argc, 1);
    EXPECT_TRUE(std::isnan(g_requests[4].number));
}

TEST(ScriptStrings, OnlyStringsConvert) {
    JSGlobalContextRef context = JSGlobalContextCreate(nullptr);
    JSStringRef empty = JSStringCreateWithUTF8CString("");
    char* text = CopyScriptString(context, JSValueMakeString(context, empty));
    ASSERT_NE(text, nullptr);  // the empty string is a string
    EXPECT_STREQ(text, "");
    FreeScriptString(text);
    EXPECT_EQ(CopyScriptString(context, JSValueMakeNumber(context, 1)), nullptr);
    EXPECT_EQ(CopyScriptString(context, JSValueMakeNull(context)), nullptr);
    EXPECT_EQ(CopyScriptString(context, JSValueMakeUndefined(context)), nullptr);
    EXPECT_EQ(CopyScriptString(context, nullptr), nullptr);
    FreeScriptString(nullptr);
    JSStringRelease(empty);
    JSGlobalContextRelease(context);
}

}  // namespace
