// Trace routing: the libraries never see the sink itself, only a filter that
// decides per line, so a later SetTrace also governs filters handed out
// earlier.
#include "native/trace.h"

#include <cstdio>
#include <cstring>

namespace {

// Written only by SetTrace on the main thread; the filters read them on
// whatever thread a library traces from.  Constant-initialised.
uint32_t g_traceFlags = 0;
TraceCallback g_traceSink = nullptr;

const char kPkcs11CallPrefix[] = "Pkcs11 - C_";        // 11 bytes
const char kPkcs11ReturnPrefix[] = "Pkcs11 - Return";  // 15 bytes
const char kPluginWebPrefix[] = "Web -";               // 5 bytes

}  // namespace

void SetTrace(TraceCallback sink, uint32_t flags) {
    g_traceFlags = flags;
    g_traceSink = flags != 0 ? sink : nullptr;
}

TraceCallback GetTraceFilter(uint32_t selector) {
    if (g_traceSink == nullptr) return nullptr;
    switch (selector) {
        case TRACE_SOURCE_PKCS11:
            return (g_traceFlags & (TRACE_PKCS11_ALL | TRACE_PKCS11_CALLS)) ? Pkcs11TraceFilter : nullptr;
        case TRACE_SOURCE_PLUGIN:
            return (g_traceFlags & (TRACE_PLUGIN_ALL | TRACE_PLUGIN_WEB)) ? PluginTraceFilter : nullptr;
        default: return nullptr;
    }
}

// The filters take the library's length at its word: the text is passed on
// untouched, and the prefixes are only compared once the length says the
// bytes are there.
void Pkcs11TraceFilter(const char* text, int32_t length) {
    TraceCallback sink = g_traceSink;
    if (sink == nullptr) return;
    if (g_traceFlags & TRACE_PKCS11_ALL) {
        sink(text, length);
        return;
    }
    if (length <= 15 || text == nullptr) return;
    if (memcmp(text, kPkcs11CallPrefix, sizeof kPkcs11CallPrefix - 1) == 0 ||
        memcmp(text, kPkcs11ReturnPrefix, sizeof kPkcs11ReturnPrefix - 1) == 0) {
        sink(text, length);
    }
}

void PluginTraceFilter(const char* text, int32_t length) {
    TraceCallback sink = g_traceSink;
    if (sink == nullptr) return;
    if (g_traceFlags & TRACE_PLUGIN_ALL) {
        sink(text, length);
        return;
    }
    if (length <= 5 || text == nullptr) return;
    if (memcmp(text, kPluginWebPrefix, sizeof kPluginWebPrefix - 1) == 0) sink(text, length);
}

void LogMessage(const char* format, const char* argument) {
    TraceCallback sink = g_traceSink;
    if (sink == nullptr || (g_traceFlags & (TRACE_PKCS11_ALL | TRACE_PLUGIN_ALL)) == 0) return;
    if (format == nullptr) return;
    if (argument == nullptr) argument = "";
    // A message that might not fit is dropped whole rather than cut.
    if (strlen(format) + strlen(argument) > 255) return;
    char line[256];
    memset(line, 0, sizeof line);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    snprintf(line, sizeof line, format, argument);
#pragma GCC diagnostic pop
    sink(line, static_cast<int32_t>(strlen(line)));
}
