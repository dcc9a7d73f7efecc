#include "bridge/extension/console_line.h"

#include <cstdio>

#include "bridge/extension/script_object.h"
#include "bridge/origins.h"

namespace {

void AppendEscaped(std::string* out, const char* text) {
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text ? text : ""); *p; ++p) {
        // C1 controls arrive as U+0080..U+009F, two bytes in UTF-8.
        bool c1 = p[0] == 0xC2 && p[1] >= 0x80 && p[1] <= 0x9F;
        if (*p >= 0x20 && *p != 0x7F && *p != '\\' && !c1) {
            *out += static_cast<char>(*p);
            continue;
        }
        if (*p == '\\') {
            *out += "\\\\";
            continue;
        }
        if (c1) ++p;
        char escaped[8];
        snprintf(escaped, sizeof escaped, "\\x%02x", *p);
        *out += escaped;
    }
}

// The realm's origin of the console function running now (nested calls put
// the outer one back), and of the last uncaught error with its text.
const std::string* g_writing = nullptr;
std::string* g_errorOrigin = nullptr;
std::string* g_errorText = nullptr;

// Where a console wrapper keeps the function it stands for: read-only, so
// page script can see it but not swap it.
const char kOriginal[] = "original";

JSValueRef Property(JSContextRef context, JSObjectRef object, const char* name) {
    JSStringRef string = JSStringCreateWithUTF8CString(name);
    JSValueRef value = JSObjectGetProperty(context, object, string, nullptr);
    JSStringRelease(string);
    return value;
}

const std::string* OriginOfWrapper(JSObjectRef object) {
    return static_cast<const std::string*>(JSObjectGetPrivate(object));
}

void DropOrigin(JSObjectRef object) { delete OriginOfWrapper(object); }

JSValueRef CallConsole(JSContextRef context, JSObjectRef function, JSObjectRef thisObject, size_t count,
                       const JSValueRef arguments[], JSValueRef* exception) {
    JSValueRef original = Property(context, function, kOriginal), result = nullptr;
    if (original && JSValueIsObject(context, original)) {
        const std::string* outer = g_writing;
        g_writing = OriginOfWrapper(function);
        result = JSObjectCallAsFunction(
            context, JSValueToObject(context, original, nullptr), thisObject, count, arguments, exception);
        g_writing = outer;
    }
    return result ? result : JSValueMakeUndefined(context);
}

// The realm's "error" listener: runs before the engine reports the error.
JSValueRef NoteError(JSContextRef context, JSObjectRef function, JSObjectRef, size_t count,
                     const JSValueRef arguments[], JSValueRef*) {
    JSObjectRef event = count > 0 ? JSValueToObject(context, arguments[0], nullptr) : nullptr;
    char* text = event ? CopyScriptString(context, Property(context, event, "message")) : nullptr;
    if (!g_errorOrigin) {
        g_errorOrigin = new std::string;
        g_errorText = new std::string;
    }
    *g_errorOrigin = text ? *OriginOfWrapper(function) : std::string();
    *g_errorText = text ? text : "";
    FreeScriptString(text);
    return JSValueMakeUndefined(context);
}

JSClassRef NamedClass(bool listener) {
    static JSClassRef classes[2] = {nullptr, nullptr};
    if (!classes[listener]) {
        JSClassDefinition definition = kJSClassDefinitionEmpty;
        definition.className = listener ? "ErrorListener" : "ConsoleFunction";
        definition.callAsFunction = listener ? NoteError : CallConsole;
        definition.finalize = DropOrigin;
        classes[listener] = JSClassCreate(&definition);
    }
    return classes[listener];
}

}  // namespace

std::string ConsoleLine(const char* level, const std::string& origin, const char* source, uint32_t line,
                        const char* text) {
    std::string named = origin.empty() ? OriginOf(source) : origin;
    std::string out = std::string(level) + ": [";
    AppendEscaped(&out, named.empty() ? "null" : named.c_str());
    out += "] ";
    AppendEscaped(&out, source);
    out += ":" + std::to_string(line) + ": ";
    AppendEscaped(&out, text);
    return out + "\n";
}

void NameConsoleOrigin(JSGlobalContextRef context, const std::string& origin) {
    JSObjectRef global = JSContextGetGlobalObject(context);
    JSValueRef console = Property(context, global, "console");
    if (!console || !JSValueIsObject(context, console)) return;
    JSObjectRef object = JSValueToObject(context, console, nullptr);
    JSPropertyNameArrayRef names = JSObjectCopyPropertyNames(context, object);
    bool named = false;
    for (size_t i = 0; i < JSPropertyNameArrayGetCount(names) && !named; ++i) {
        JSStringRef name = JSPropertyNameArrayGetNameAtIndex(names, i);
        JSValueRef value = JSObjectGetProperty(context, object, name, nullptr);
        JSObjectRef function =
            value && JSValueIsObject(context, value) ? JSValueToObject(context, value, nullptr) : nullptr;
        if (!function || !JSObjectIsFunction(context, function)) continue;
        // A realm handed on to its next document is named already.
        if ((named = JSValueIsObjectOfClass(context, function, NamedClass(false)))) break;
        JSObjectRef wrapper = JSObjectMake(context, NamedClass(false), new std::string(origin));
        // Function.prototype, so that call, apply and bind work as on the original.
        JSObjectSetPrototype(context, wrapper, JSObjectGetPrototype(context, function));
        JSStringRef original = JSStringCreateWithUTF8CString(kOriginal);
        JSObjectSetProperty(
            context,
            wrapper,
            original,
            function,
            kJSPropertyAttributeReadOnly | kJSPropertyAttributeDontEnum | kJSPropertyAttributeDontDelete,
            nullptr);
        JSStringRelease(original);
        JSObjectSetProperty(context, object, name, wrapper, kJSPropertyAttributeNone, nullptr);
    }
    JSPropertyNameArrayRelease(names);
    if (named) return;
    JSValueRef add = Property(context, global, "addEventListener");
    JSObjectRef addFunction =
        add && JSValueIsObject(context, add) ? JSValueToObject(context, add, nullptr) : nullptr;
    if (!addFunction || !JSObjectIsFunction(context, addFunction)) return;
    JSStringRef type = JSStringCreateWithUTF8CString("error");
    JSValueRef arguments[] = {JSValueMakeString(context, type),
                              JSObjectMake(context, NamedClass(true), new std::string(origin)),
                              JSValueMakeBoolean(context, true)};
    JSStringRelease(type);
    JSObjectCallAsFunction(context, addFunction, global, 3, arguments, nullptr);
}

std::string ConsoleOrigin(bool error, const char* text) {
    if (g_writing) return *g_writing;
    std::string origin;
    if (error && g_errorText && text && *g_errorText == text) origin = *g_errorOrigin;
    if (g_errorText) g_errorText->clear(), g_errorOrigin->clear();
    return origin;
}
