#include "bridge/extension/script_object.h"

#include <glib.h>

#include <cmath>
#include <cstring>

#include "bridge/extension/channel_client.h"
#include "bridge/origins.h"

namespace {

ScriptTransport g_transport = ChannelCall;

JSValueRef MakeString(JSContextRef context, const char* text) {
    // Plug-in answers are not checked for UTF-8 on the host; make sure the
    // page gets a well-formed string whatever bytes came back, copying only
    // when something needs replacing.
    gchar* repaired = g_utf8_validate(text, -1, nullptr) ? nullptr : g_utf8_make_valid(text, -1);
    JSStringRef string = JSStringCreateWithUTF8CString(repaired ? repaired : text);
    g_free(repaired);
    JSValueRef value = JSValueMakeString(context, string);
    JSStringRelease(string);
    return value;
}

JSValueRef EmptyString(JSContextRef context) { return MakeString(context, ""); }

// Converts the first `count` arguments; false (nothing left allocated) when
// one of them is not a string.
bool TakeStrings(JSContextRef context, const JSValueRef arguments[], size_t count, BridgeRequest* request) {
    for (size_t i = 0; i < count; ++i) {
        char* text = CopyScriptString(context, arguments[i]);
        if (!text) return false;
        request->text[i] = std::string(text);
        FreeScriptString(text);
    }
    return true;
}

uint8_t CappedCount(size_t count) { return static_cast<uint8_t>(count > 255 ? 255 : count); }

JSValueRef StringCall(JSContextRef context, uint8_t op, size_t minimum, size_t argumentCount,
                      const JSValueRef arguments[]) {
    BridgeRequest request;
    request.op = op;
    request.argc = CappedCount(argumentCount);
    BridgeReply reply;
    if (argumentCount < minimum || !TakeStrings(context, arguments, minimum, &request) ||
        !g_transport(request, &reply) || !reply.text) {
        return EmptyString(context);
    }
    return MakeString(context, reply.text->c_str());
}

JSValueRef GetProperty(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                       const JSValueRef arguments[], JSValueRef*) {
    return StringCall(context, BRIDGE_GET_PROPERTY, 1, argumentCount, arguments);
}

JSValueRef EnumProperty(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                        const JSValueRef arguments[], JSValueRef*) {
    return StringCall(context, BRIDGE_ENUM_PROPERTY, 2, argumentCount, arguments);
}

JSValueRef SetProperty(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                       const JSValueRef arguments[], JSValueRef*) {
    BridgeRequest request;
    request.op = BRIDGE_SET_PROPERTY;
    request.argc = CappedCount(argumentCount);
    BridgeReply reply;
    if (argumentCount >= 2 && TakeStrings(context, arguments, 2, &request)) g_transport(request, &reply);
    return JSValueMakeNull(context);
}

JSValueRef Invoke(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                  const JSValueRef arguments[], JSValueRef*) {
    BridgeRequest request;
    request.op = BRIDGE_INVOKE;
    request.argc = CappedCount(argumentCount);
    BridgeReply reply;
    if (argumentCount < 1 || !TakeStrings(context, arguments, 1, &request)) return JSValueMakeNumber(context, 0);
    if (!g_transport(request, &reply)) return JSValueMakeNumber(context, 0);
    return JSValueMakeNumber(context, static_cast<double>(reply.code));
}

JSValueRef TurnEnded(JSContextRef context, JSObjectRef, JSObjectRef, size_t, const JSValueRef[], JSValueRef*) {
    BridgeRequest request;
    request.op = BRIDGE_TURN_ENDED;
    BridgeReply reply;
    g_transport(request, &reply);
    return JSValueMakeUndefined(context);
}

// The host keeps the dialog open until the script turn that called exit is
// over: a zero-delay task queued now runs right after that turn.  Should
// the page have broken setTimeout, the host's own bound ends the dialog.
void QueueTurnEnd(JSContextRef context) {
    JSObjectRef global = JSContextGetGlobalObject(context);
    JSStringRef name = JSStringCreateWithUTF8CString("setTimeout");
    JSValueRef exception = nullptr;
    JSValueRef value = JSObjectGetProperty(context, global, name, &exception);
    JSStringRelease(name);
    JSObjectRef setTimeout = value && JSValueIsObject(context, value) ? JSValueToObject(context, value, &exception) : nullptr;
    if (!setTimeout || !JSObjectIsFunction(context, setTimeout)) return;
    JSValueRef arguments[] = {JSObjectMakeFunctionWithCallback(context, nullptr, TurnEnded), JSValueMakeNumber(context, 0)};
    JSObjectCallAsFunction(context, setTimeout, global, 2, arguments, &exception);
}

JSValueRef Application(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                       const JSValueRef arguments[], JSValueRef*) {
    BridgeRequest request;
    request.op = BRIDGE_APPLICATION;
    request.argc = CappedCount(argumentCount);
    request.number = NAN;
    if (argumentCount < 1 || !TakeStrings(context, arguments, 1, &request)) return JSValueMakeNumber(context, 0);
    for (size_t i = 1; i < 3 && i < argumentCount; ++i) {
        char* text = CopyScriptString(context, arguments[i]);
        if (text) request.text[i] = std::string(text);
        FreeScriptString(text);
    }
    if (argumentCount >= 2 && JSValueIsNumber(context, arguments[1])) {
        request.number = JSValueToNumber(context, arguments[1], nullptr);
    }
    BridgeReply reply;
    if (g_transport(request, &reply) && reply.code == 1) QueueTurnEnd(context);
    return JSValueMakeNumber(context, 0);
}

void Nothing(JSObjectRef) {}
void NothingWithContext(JSContextRef, JSObjectRef) {}

const JSStaticFunction kavoriStaticFunctions[] = {
    {"GetProperty", GetProperty, kJSPropertyAttributeNone},
    {"SetProperty", SetProperty, kJSPropertyAttributeNone},
    {"EnumProperty", EnumProperty, kJSPropertyAttributeNone},
    {"Invoke", Invoke, kJSPropertyAttributeNone},
    {"Application", Application, kJSPropertyAttributeNone},
    {nullptr, nullptr, 0},
};

const JSClassDefinition kavoriClassDefinition = {
    0,                         // version
    kJSClassAttributeNone,     // attributes
    "Kavori",                  // className
    nullptr,                   // parentClass
    nullptr,                   // staticValues
    kavoriStaticFunctions,     // staticFunctions
    NothingWithContext,        // initialize
    Nothing,                   // finalize
    nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
};

}  // namespace

void SetScriptTransport(ScriptTransport transport) { g_transport = transport ? transport : ChannelCall; }

char* CopyScriptString(JSContextRef context, JSValueRef value) {
    if (!value || !JSValueIsString(context, value)) return nullptr;
    JSStringRef string = JSValueToStringCopy(context, value, nullptr);
    if (!string) return nullptr;
    size_t size = JSStringGetMaximumUTF8CStringSize(string);
    char* text = new char[size];
    JSStringGetUTF8CString(string, text, size);
    JSStringRelease(string);
    return text;
}

void FreeScriptString(char* text) { delete[] text; }

void InstallScriptObject(JSGlobalContextRef context) {
    // One class for the life of the web process; every document gets a new
    // object of it.
    static JSClassRef kavoriClass = JSClassCreate(&kavoriClassDefinition);
    JSObjectRef object = JSObjectMake(context, kavoriClass, nullptr);
    JSStringRef name = JSStringCreateWithUTF8CString("Kavori");
    JSObjectSetProperty(context, JSContextGetGlobalObject(context), name, object, kJSPropertyAttributeNone, nullptr);
    JSStringRelease(name);
}

bool DocumentTrusted(JSGlobalContextRef context, const std::vector<std::string>& trusted) {
    if (trusted.empty()) return true;
    JSStringRef script = JSStringCreateWithUTF8CString(
        "[self.origin].concat(Array.prototype.slice.call(location.ancestorOrigins || [])).join('\\n')");
    JSValueRef exception = nullptr;
    JSValueRef value = JSEvaluateScript(context, script, nullptr, nullptr, 0, &exception);
    JSStringRelease(script);
    char* origins = value && !exception ? CopyScriptString(context, value) : nullptr;
    if (!origins) return false;
    int checked = 0;
    bool all = true;
    for (char* origin = strtok(origins, "\n"); origin && all; origin = strtok(nullptr, "\n"), ++checked) {
        all = OriginTrusted(trusted, origin);
    }
    FreeScriptString(origins);
    return all && checked > 0;
}
