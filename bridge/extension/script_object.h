// The script object Kavori, as the web process sees it.  Its functions
// check and convert their arguments here and send one request to the host
// per usable call; unusable calls and a lost channel give fixed defaults.
// No function ever raises a script exception.
#pragma once

#include <JavaScriptCore/JavaScript.h>

#include <string>

#include "bridge/channel.h"

typedef bool (*ScriptTransport)(const BridgeRequest& request, BridgeReply* reply);

// Where requests go; the bridge channel unless a test says otherwise.
void SetScriptTransport(ScriptTransport transport);

// Publishes a fresh Kavori object on the context's global object.
void InstallScriptObject(JSGlobalContextRef context);

// Lets the functions of `context` make long answers through `glibContext`,
// the GLib API's wrapper of the same context (the C API turns every string
// into UTF-16 first: milliseconds per megabyte).  The link replaces the one
// `owner` (the frame) held for its previous document; null contexts only
// drop that.  Without a link answers take the C API.  Call before any
// script of the document runs.
typedef struct _JSCContext JSCContext;
typedef struct _GObject GObject;
void LinkGlibContext(GObject* owner, JSGlobalContextRef context, JSCContext* glibContext);

// A string value as a new NUL-terminated UTF-8 copy (array new); anything
// else gives null.  A string with an embedded NUL is cut there.
char* CopyScriptString(JSContextRef context, JSValueRef value);
void FreeScriptString(char* text);
