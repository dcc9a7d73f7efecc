// Trace routing of the native-library layer: one process-wide sink, a flag
// word that decides which lines reach it, and the filters handed to the two
// libraries in place of the sink itself.
#pragma once

#include <cstdint>

#include "kavori/plugin.h"  // TraceCallback

enum : uint32_t {
    TRACE_PKCS11_ALL = 0x001,    // every module line; also the layer's own messages
    TRACE_PLUGIN_ALL = 0x002,    // every plug-in line; also the layer's own messages
    TRACE_PKCS11_CALLS = 0x100,  // module gets a filter for "Pkcs11 - C_" / "Pkcs11 - Return"
    TRACE_PLUGIN_WEB = 0x200,    // plug-in gets a filter for "Web -"
};

enum : uint32_t {
    TRACE_SOURCE_PKCS11 = 1,
    TRACE_SOURCE_PLUGIN = 2,
};

// Stores the flags; stores the sink only when flags is non-zero.
void SetTrace(TraceCallback sink, uint32_t flags);

// The filter a library should get for the given source, or null.
TraceCallback GetTraceFilter(uint32_t selector);

// Filters: read the trace state at every call and pass the line unchanged.
void Pkcs11TraceFilter(const char* text, int32_t length);
void PluginTraceFilter(const char* text, int32_t length);

// One of the layer's own messages; format has at most one "%s", argument is
// never null.  Dropped whole when format and argument exceed 255 bytes.
void LogMessage(const char* format, const char* argument);
