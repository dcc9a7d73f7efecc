/* The contract between the Kavori dialog host and a native plug-in library.
 *
 * A plug-in is a shared library named libkvo.so that exports the seven
 * functions below as plain C symbols.  The host loads it at run time from its
 * library directory, calls it only on its main thread, one call at a time, and
 * in this order: PlgSetTraceCallback (optional export), PlgInitialize, then
 * PlgSetProperty "Server" and "WorkingDirectory", then any number of property,
 * enumeration and invoke calls, and PlgFinalize before the library is closed.
 *
 * Strings passed in are NUL-terminated UTF-8, valid only during the call.
 * Strings returned by PlgGetProperty / PlgEnumProperty stay the plug-in's:
 * they must be writable and stay valid until the host's next call into the
 * plug-in; the host never frees them but may overwrite bytes up to the
 * terminator (this host writes none: it splits a copy of "ProductInfo").
 * Null and "" mean the same.
 */
#ifndef KAVORI_PLUGIN_H
#define KAVORI_PLUGIN_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A trace sink: a NUL-terminated line and its length in bytes. */
typedef void (*TraceCallback)(const char* text, int32_t length);

/* Opaque instance handle, written by PlgInitialize. */
typedef void* PlgInstance;

#define KVO_PLUGIN_EXPORT __attribute__((visibility("default")))

/* Returns non-zero on success and stores the instance handle.  The host
 * passes null in all four start-up arguments. */
typedef intptr_t (*PFN_PlgInitialize)(void* arg1, void* arg2, void* arg3, void* arg4, PlgInstance* instance);
typedef intptr_t (*PFN_PlgFinalize)(PlgInstance instance);
typedef intptr_t (*PFN_PlgSetProperty)(PlgInstance instance, const char* name, const char* value);
typedef char* (*PFN_PlgGetProperty)(PlgInstance instance, const char* name);
typedef char* (*PFN_PlgEnumProperty)(PlgInstance instance, const char* first, const char* second);
/* The result code reaches the page unchanged, as a signed 32-bit number. */
typedef int32_t (*PFN_PlgInvoke)(PlgInstance instance, const char* command);
/* Optional; no instance handle.  Called before PlgInitialize. */
typedef intptr_t (*PFN_PlgSetTraceCallback)(TraceCallback callback);

KVO_PLUGIN_EXPORT intptr_t PlgInitialize(void* arg1, void* arg2, void* arg3, void* arg4,
                                         PlgInstance* instance);
KVO_PLUGIN_EXPORT intptr_t PlgFinalize(PlgInstance instance);
KVO_PLUGIN_EXPORT intptr_t PlgSetProperty(PlgInstance instance, const char* name, const char* value);
KVO_PLUGIN_EXPORT char* PlgGetProperty(PlgInstance instance, const char* name);
KVO_PLUGIN_EXPORT char* PlgEnumProperty(PlgInstance instance, const char* first, const char* second);
KVO_PLUGIN_EXPORT int32_t PlgInvoke(PlgInstance instance, const char* command);
KVO_PLUGIN_EXPORT intptr_t PlgSetTraceCallback(TraceCallback callback);

#ifdef __cplusplus
}
#endif

#endif
