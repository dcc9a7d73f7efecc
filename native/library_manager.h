// Start-up and shutdown of the two native libraries, in their fixed order,
// with the layer's messages and the roll-back of the module.
#pragma once

#include <cstdint>

#include "kavori/plugin.h"  // TraceCallback

enum : uint32_t {
    LOAD_PKCS11 = 0x1,
    LOAD_PLUGIN = 0x2,
};

enum : int32_t {
    KVO_OK = 0,
    KVO_FUNCTION_FAILED = 6,  // a library is missing or the plug-in cannot start
};

// selection 0 means everything.  0 on success, 6 or the module's own code.
int32_t StartLibraries(const char* parameters, const char* root, const char* globalConfigPath,
                       TraceCallback traceSink, uint32_t traceFlags, uint32_t selection);
int32_t StopLibraries();

// Takes a root of 1 to 254 characters, adding a trailing "/".
void SetLibraryRoot(const char* root);
// out holds the library directory ("/usr/lib/" by default) or is empty.
void GetLibraryDirectory(char* out, uint32_t size);
bool GetDefaultLibraryDirectory(char* out, uint32_t size);
// "name=value;name=value" pairs, each set in the module.
void ApplyParameters(const char* parameters);
void SetGlobalConfigurationPath(const char* path);
