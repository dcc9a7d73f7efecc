#include "bridge/extension/document_origin.h"

#include <cstring>

#include "bridge/extension/script_object.h"
#include "bridge/origins.h"

namespace {

JSValueRef Ignore(JSContextRef context, JSObjectRef, JSObjectRef, size_t, const JSValueRef[], JSValueRef*) {
    return JSValueMakeUndefined(context);
}

// The lock's setter: a callable object of a class of its own, which no page
// script can make, so that a realm already locked can be told by it.
JSClassRef InertSetterClass() {
    static JSClassRef inert = nullptr;
    if (!inert) {
        JSClassDefinition definition = kJSClassDefinitionEmpty;
        definition.className = "InertSetter";
        definition.callAsFunction = Ignore;
        inert = JSClassCreate(&definition);
    }
    return inert;
}

JSValueRef IsInert(JSContextRef context, JSObjectRef, JSObjectRef, size_t count, const JSValueRef arguments[],
                   JSValueRef*) {
    return JSValueMakeBoolean(context,
                              count > 0 && JSValueIsObjectOfClass(context, arguments[0], InertSetterClass()));
}

}  // namespace

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

std::string DocumentOrigin(JSGlobalContextRef context) {
    JSStringRef script = JSStringCreateWithUTF8CString("self.origin");
    char* text = CopyScriptString(context, JSEvaluateScript(context, script, nullptr, nullptr, 0, nullptr));
    JSStringRelease(script);
    std::string origin = text ? text : "null";
    FreeScriptString(text);
    return origin;
}

bool LockDocumentDomain(JSGlobalContextRef context) {
    // A realm keeps its prototypes when the frame's first document (about:blank)
    // gives way to one of the same origin: then it is locked already.
    JSStringRef script = JSStringCreateWithUTF8CString(
        "(function (inert, isInert) {"
        "  var d = Object.getOwnPropertyDescriptor(Document.prototype, 'domain');"
        "  if (!d || !d.get) return false;"
        "  if (isInert(d.set)) return true;"
        "  if (!d.configurable) return false;"
        "  Object.defineProperty(Document.prototype, 'domain',"
        "                        {get: d.get, set: inert, enumerable: d.enumerable, configurable: false});"
        "  return true;"
        "})");
    JSValueRef exception = nullptr;
    JSValueRef lock = JSEvaluateScript(context, script, nullptr, nullptr, 0, &exception);
    JSStringRelease(script);
    JSObjectRef function = lock && !exception ? JSValueToObject(context, lock, &exception) : nullptr;
    if (!function || exception) return false;
    JSValueRef arguments[] = {JSObjectMake(context, InertSetterClass(), nullptr),
                              JSObjectMakeFunctionWithCallback(context, nullptr, IsInert)};
    JSValueRef locked = JSObjectCallAsFunction(context, function, nullptr, 2, arguments, &exception);
    return locked && !exception && JSValueToBoolean(context, locked);
}
