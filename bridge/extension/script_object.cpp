#include "bridge/extension/script_object.h"

#include <glib.h>
#include <jsc/jsc.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "bridge/extension/channel_client.h"

namespace {

ScriptTransport g_transport = ChannelCall;

// A request of the page's: its texts (a PIN among them) are zeroed when the
// call is over.
struct Call : BridgeRequest {
    ~Call() { Wipe(this); }
};

// The reply of GetProperty and EnumProperty, reused by every call so that
// a long answer is decoded into memory already mapped (fresh pages cost more
// than the copy).  It holds the last answer until the next call.
BridgeReply* g_reply = nullptr;

// Below this many bytes JSStringCreateWithUTF8CString converts on the stack;
// above, its UTF-16 buffer is a fresh allocation twice the answer's size.
constexpr size_t kShortAnswer = 1024;

// A document's way to make strings through JavaScriptCore's GLib API, which
// builds an ASCII answer as a one-byte string straight from the bytes.  Its
// values cannot be returned from a C API function, so a holder object that
// both APIs know, and that no page can reach, passes them over.
struct GlibLink {
    JSGlobalContextRef global;
    JSCContext* context;
    JSCValue* holder;  // keeps holderObject alive
    JSObjectRef holderObject;
};
std::vector<GlibLink*>* g_links = nullptr;

void DropLink(gpointer data) {
    GlibLink* link = static_cast<GlibLink*>(data);
    g_links->erase(std::find(g_links->begin(), g_links->end(), link));
    g_object_unref(link->holder);
    g_object_unref(link->context);
    delete link;
}

GlibLink* FindLink(JSContextRef context) {
    JSGlobalContextRef global = JSContextGetGlobalContext(context);
    if (g_links) {
        for (GlibLink* link : *g_links) {
            if (link->global == global) return link;
        }
    }
    return nullptr;
}

// The length up to the first NUL, and whether those bytes are UTF-8.
// Answers are mostly ASCII, so plain ASCII is skipped in blocks before
// GLib's decoder (a third of a millisecond per megabyte) sees the rest.
bool Utf8UpToNul(const char* text, size_t size, size_t* length) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
    constexpr size_t kBlock = 64;
    size_t at = 0;
    for (; at + kBlock <= size; at += kBlock) {
        unsigned char any = 0, least = 0xFF;
        for (size_t i = 0; i < kBlock; ++i) {
            any |= bytes[at + i];
            least = std::min(least, bytes[at + i]);
        }
        if ((any & 0x80) || least == 0) break;
    }
    const gchar* end = nullptr;
    if (g_utf8_validate(text + at, static_cast<gssize>(size - at), &end)) {
        *length = size;
        return true;
    }
    // GLib stops at a NUL as at a fault: only a NUL means the text before is good.
    if (*end == '\0') {
        *length = static_cast<size_t>(end - text);
        return true;
    }
    *length = strnlen(text, size);
    return false;
}

// `text` is UTF-8 with a NUL at text[size].
JSValueRef MakeValidString(JSContextRef context, const char* text, size_t size) {
    GlibLink* link = size >= kShortAnswer ? FindLink(context) : nullptr;
    if (!link) {
        JSStringRef string = JSStringCreateWithUTF8CString(text);
        JSValueRef value = JSValueMakeString(context, string);
        JSStringRelease(string);
        return value;
    }
    GBytes* bytes = g_bytes_new_static(text, size);
    JSCValue* value = jsc_value_new_string_from_bytes(link->context, bytes);
    g_bytes_unref(bytes);
    jsc_value_object_set_property_at_index(link->holder, 0, value);
    g_object_unref(value);
    JSValueRef result = JSObjectGetPropertyAtIndex(context, link->holderObject, 0, nullptr);
    // The holder keeps no answer; the value lives on as the call's result.
    JSObjectSetPropertyAtIndex(context, link->holderObject, 0, JSValueMakeUndefined(context), nullptr);
    return result;
}

JSValueRef MakeString(JSContextRef context, const std::string& text) {
    // Plug-in answers are not checked for UTF-8 on the host; make sure the
    // page gets a well-formed string whatever bytes came back, cut at a NUL
    // as a C string is, copying only when something needs replacing.
    size_t size = 0;
    if (Utf8UpToNul(text.data(), text.size(), &size)) return MakeValidString(context, text.c_str(), size);
    gchar* repaired = g_utf8_make_valid(text.data(), static_cast<gssize>(size));
    JSValueRef value = MakeValidString(context, repaired, strlen(repaired));
    g_free(repaired);
    return value;
}

JSValueRef EmptyString(JSContextRef context) { return MakeValidString(context, "", 0); }

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
    Call request;
    request.op = op;
    request.argc = CappedCount(argumentCount);
    if (!g_reply) g_reply = new BridgeReply;
    if (argumentCount < minimum || !TakeStrings(context, arguments, minimum, &request) ||
        !g_transport(request, g_reply) || !g_reply->text) {
        return EmptyString(context);
    }
    JSValueRef value = MakeString(context, *g_reply->text);
    Wipe(&*g_reply->text);
    ReleaseLargeBuffer(&*g_reply->text);
    return value;
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
    Call request;
    request.op = BRIDGE_SET_PROPERTY;
    request.argc = CappedCount(argumentCount);
    BridgeReply reply;
    if (argumentCount >= 2 && TakeStrings(context, arguments, 2, &request)) g_transport(request, &reply);
    return JSValueMakeNull(context);
}

JSValueRef Invoke(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                  const JSValueRef arguments[], JSValueRef*) {
    Call request;
    request.op = BRIDGE_INVOKE;
    request.argc = CappedCount(argumentCount);
    BridgeReply reply;
    if (argumentCount < 1 || !TakeStrings(context, arguments, 1, &request))
        return JSValueMakeNumber(context, 0);
    if (!g_transport(request, &reply)) return JSValueMakeNumber(context, 0);
    return JSValueMakeNumber(context, static_cast<double>(reply.code));
}

JSValueRef TurnEnded(JSContextRef context, JSObjectRef, JSObjectRef, size_t, const JSValueRef[],
                     JSValueRef*) {
    Call request;
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
    JSObjectRef setTimeout =
        value && JSValueIsObject(context, value) ? JSValueToObject(context, value, &exception) : nullptr;
    if (!setTimeout || !JSObjectIsFunction(context, setTimeout)) return;
    JSValueRef arguments[] = {JSObjectMakeFunctionWithCallback(context, nullptr, TurnEnded),
                              JSValueMakeNumber(context, 0)};
    JSObjectCallAsFunction(context, setTimeout, global, 2, arguments, &exception);
}

JSValueRef Application(JSContextRef context, JSObjectRef, JSObjectRef, size_t argumentCount,
                       const JSValueRef arguments[], JSValueRef*) {
    Call request;
    request.op = BRIDGE_APPLICATION;
    request.argc = CappedCount(argumentCount);
    request.number = NAN;
    if (argumentCount < 1 || !TakeStrings(context, arguments, 1, &request))
        return JSValueMakeNumber(context, 0);
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
    0,                      // version
    kJSClassAttributeNone,  // attributes
    "Kavori",               // className
    nullptr,                // parentClass
    nullptr,                // staticValues
    kavoriStaticFunctions,  // staticFunctions
    NothingWithContext,     // initialize
    Nothing,                // finalize
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
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

void FreeScriptString(char* text) {
    if (text) explicit_bzero(text, strlen(text));  // it may be a PIN
    delete[] text;
}

void InstallScriptObject(JSGlobalContextRef context) {
    // One class for the life of the web process; every document gets a new
    // object of it.
    static JSClassRef kavoriClass = JSClassCreate(&kavoriClassDefinition);
    JSObjectRef object = JSObjectMake(context, kavoriClass, nullptr);
    JSStringRef name = JSStringCreateWithUTF8CString("Kavori");
    JSObjectSetProperty(
        context, JSContextGetGlobalObject(context), name, object, kJSPropertyAttributeNone, nullptr);
    JSStringRelease(name);
}

void LinkGlibContext(GObject* owner, JSGlobalContextRef context, JSCContext* glibContext) {
    static const char kKey[] = "kavori-glib-link";
    if (!context || !glibContext) {
        g_object_set_data(owner, kKey, nullptr);
        return;
    }
    if (!g_links) g_links = new std::vector<GlibLink*>;
    // Handed over through a global property while no script of the document
    // has run yet, then removed: afterwards only the two APIs know it.
    static const char kName[] = "__kavoriHolder";
    JSObjectRef holder = JSObjectMake(context, nullptr, nullptr);
    JSObjectSetPrototype(context, holder, JSValueMakeNull(context));
    JSObjectRef global = JSContextGetGlobalObject(context);
    JSStringRef name = JSStringCreateWithUTF8CString(kName);
    JSObjectSetProperty(context, global, name, holder, kJSPropertyAttributeNone, nullptr);
    JSCValue* glibHolder = jsc_context_get_value(glibContext, kName);
    JSObjectDeleteProperty(context, global, name, nullptr);
    JSStringRelease(name);
    GlibLink* link = nullptr;
    if (glibHolder && jsc_value_is_object(glibHolder)) {
        link = new GlibLink{context, JSC_CONTEXT(g_object_ref(glibContext)), glibHolder, holder};
        g_links->push_back(link);
    } else if (glibHolder) {
        g_object_unref(glibHolder);
    }
    // Drops the previous document's link; the frame's end drops this one.
    g_object_set_data_full(owner, kKey, link, link ? DropLink : nullptr);
}
