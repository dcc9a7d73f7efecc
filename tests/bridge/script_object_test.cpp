// The script object in a plain JavaScriptCore context, with a fake
// transport in place of the host.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "bridge/extension/script_object.h"

namespace {

std::vector<BridgeRequest> g_requests;
BridgeReply g_reply;
bool g_up = true;

bool FakeTransport(const BridgeRequest& request, BridgeReply* reply) {
    if (!g_up) return false;
    g_requests.push_back(request);
    *reply = g_reply;
    return true;
}

// What reached the transport, one line a request: the operation, the texts
// ('-' when absent) and, for Application, the argument count and the number.
std::string Requests() {
    std::string lines;
    for (const BridgeRequest& r : g_requests) {
        lines += std::to_string(r.op);
        for (const auto& text : r.text) lines += text ? " '" + *text + "'" : std::string(" -");
        char tail[40];
        snprintf(tail, sizeof tail, " %d %.10g", r.argc, r.number);
        lines += (r.op == BRIDGE_APPLICATION ? tail : "") + std::string("\n");
    }
    return lines;
}

class ScriptObject : public testing::Test {
protected:
    void SetUp() override {
        g_requests.clear();
        g_reply = BridgeReply();
        g_up = true;
        SetScriptTransport(FakeTransport);
        m_context = JSGlobalContextCreate(nullptr);
        InstallScriptObject(m_context);
    }
    void TearDown() override {
        JSGlobalContextRelease(m_context);
        SetScriptTransport(nullptr);
    }
    // JSON.stringify of the script's value; "undefined", or "exception" when it threw.
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

TEST_F(ScriptObject, UnusableArgumentsGiveDefaultsWithoutARequest) {
    g_reply.text = std::string("never");
    g_reply.code = 99;
    EXPECT_EQ(Eval("Object.prototype.toString.call(Kavori)"), "\"[object Kavori]\"");
    EXPECT_EQ(Eval("['GetProperty','SetProperty','EnumProperty','Invoke','Application'].map(n => typeof Kavori[n])"),
              "[\"function\",\"function\",\"function\",\"function\",\"function\"]");
    EXPECT_EQ(Eval("[Kavori.GetProperty(), Kavori.GetProperty(5), Kavori.GetProperty(null), "
                   "Kavori.GetProperty(undefined), Kavori.GetProperty(new String('boxed')), "
                   "Kavori.EnumProperty('only one'), Kavori.EnumProperty('a', {}), Kavori.Invoke(), Kavori.Invoke(6), "
                   "Kavori.Application(), Kavori.Application(1, 'x')]"),
              "[\"\",\"\",\"\",\"\",\"\",\"\",\"\",0,0,0,0]");
    for (const char* call : {"Kavori.SetProperty('name')", "Kavori.SetProperty('name', 5)",
                             "Kavori.SetProperty(true, 'v')"}) {
        EXPECT_EQ(Eval(call), "null") << call;
    }
    EXPECT_EQ(Requests(), "");
    // Nothing is read-only: a page may replace or delete the functions.
    EXPECT_EQ(Eval("[(Kavori.Invoke = 5, Kavori.Invoke), delete Kavori.GetProperty]"), "[5,true]");
}

TEST_F(ScriptObject, TextsTravelAsUtf8CutAtANulAndAnswersComeBack) {
    g_reply.text = std::string("answer \xc3\xa9");
    EXPECT_EQ(Eval("[Kavori.GetProperty('caf\\u00e9 \\u20ac \\ud83d\\udd11', 'ignored', 3), "
                   "Kavori.EnumProperty('', 'second'), Kavori.SetProperty('before\\u0000after', '')]"),
              "[\"answer \xc3\xa9\",\"answer \xc3\xa9\",null]");
    // Extra arguments are not sent; an empty text is not an absent one.
    EXPECT_EQ(Requests(), "1 'caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91' - -\n3 '' 'second' -\n2 'before' '' -\n");
    // No answer reads as the empty text; bytes that are no UTF-8 are replaced.
    g_reply.text.reset();
    EXPECT_EQ(Eval("[Kavori.GetProperty('missing'), Kavori.EnumProperty('a', 'b')]"), "[\"\",\"\"]");
    g_reply.text = std::string("ok \xff end");
    EXPECT_EQ(Eval("Kavori.GetProperty('bytes')"), "\"ok \xef\xbf\xbd end\"");
}

TEST_F(ScriptObject, InvokeGivesSigned32BitCodesWhateverThisIs) {
    for (int32_t code : {-1, 6, INT32_MIN}) {
        g_reply.code = code;
        EXPECT_EQ(Eval("Kavori.Invoke('cmd')"), std::to_string(code));
    }
    g_reply.text = std::string("v");
    g_reply.code = 7;
    EXPECT_EQ(Eval("[(function() { var f = Kavori.GetProperty; return f('n'); })(), Kavori.Invoke.call({}, 'c'), "
                   "Kavori.Invoke.apply(null, ['c'])]"),
              "[\"v\",7,7]");
    EXPECT_EQ(g_requests.size(), 6u);
}

TEST_F(ScriptObject, ALostChannelGivesDefaultsAndNoException) {
    g_up = false;
    EXPECT_EQ(Eval("[Kavori.GetProperty('n'), Kavori.EnumProperty('a', 'b'), Kavori.Invoke('c'), "
                   "Kavori.Application('exit')]"),
              "[\"\",\"\",0,0]");
    EXPECT_EQ(Eval("Kavori.SetProperty('a', 'b')"), "null");
}

TEST_F(ScriptObject, ApplicationSendsStringsAndTheSizeNumber) {
    EXPECT_EQ(Eval("[Kavori.Application('exit', 'CKR_OK', 'done', 'extra'), Kavori.Application('exit', 5), "
                   "Kavori.Application('resize', 0x032001E0), Kavori.Application('resize', '0x032001E0'), "
                   "Kavori.Application('resize')]"),
              "[0,0,0,0,0]");
    // A number is no result text; only a number is the size.
    EXPECT_EQ(Requests(),
              "5 'exit' 'CKR_OK' 'done' 4 nan\n5 'exit' - - 2 5\n5 'resize' - - 2 52429280\n"
              "5 'resize' '0x032001E0' - 2 nan\n5 'resize' - - 1 nan\n");
}

TEST(ScriptStrings, OnlyStringsConvert) {
    JSGlobalContextRef context = JSGlobalContextCreate(nullptr);
    JSStringRef empty = JSStringCreateWithUTF8CString("");
    char* text = CopyScriptString(context, JSValueMakeString(context, empty));
    ASSERT_NE(text, nullptr);  // the empty string is a string
    EXPECT_STREQ(text, "");
    FreeScriptString(text);
    for (JSValueRef other : {JSValueMakeNumber(context, 1), JSValueMakeNull(context), JSValueMakeUndefined(context),
                             static_cast<JSValueRef>(nullptr)}) {
        EXPECT_EQ(CopyScriptString(context, other), nullptr);
    }
    FreeScriptString(nullptr);
    JSStringRelease(empty);
    JSGlobalContextRelease(context);
}

}  // namespace
