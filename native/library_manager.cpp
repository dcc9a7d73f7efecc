#include "native/library_manager.h"

#include <cstring>
#include <new>

#include "native/system_places.h"
#include "native/trace.h"
#include "native/wrapper_pkcs11.h"
#include "native/wrapper_plugin.h"

// Both wrappers live in this one unit so that their order is fixed: the
// module wrapper is built first and destroyed last, which makes the plug-in
// finalise and close before the module goes down at process exit.
CWrapperPKCS11 g_wrapperPKCS11;
CWrapperPlugin g_wrapperPlugin;

namespace {

// Empty until a root is given or the default is first read; ends in "/".
char g_libraryDirectory[256];

void Log(const char* message) { LogMessage(message, ""); }

}  // namespace

int32_t StartLibraries(const char* parameters, const char* root, const char* globalConfigPath,
                       TraceCallback traceSink, uint32_t traceFlags, uint32_t selection) {
    char directory[256];
    memset(directory, 0, sizeof directory);
    if (selection == 0) selection = 255;

    SetTrace(traceSink, traceFlags);
    SetLibraryRoot(root);
    GetLibraryDirectory(directory, sizeof directory);

    bool moduleStartedHere = false;
    if ((selection & LOAD_PKCS11) == 0) {
        if (parameters != nullptr && parameters[0] != '\0') {
            Log("Need to load pkcs#11 library for environment variables");
        }
    } else {
        if (!g_wrapperPKCS11.Load(directory)) {
            Log("Pkcs#11 library missing");
            return KVO_FUNCTION_FAILED;
        }
        g_wrapperPKCS11.SetTraceCallback(GetTraceFilter(TRACE_SOURCE_PKCS11));
        // The global path goes first, so a parameter of the same name wins.
        SetGlobalConfigurationPath(globalConfigPath);
        ApplyParameters(parameters);
        CK_RV rv = g_wrapperPKCS11.Initialize(nullptr);
        if (rv != CKR_OK) {
            Log("Pkcs#11 library initialize failed");
            return static_cast<int32_t>(rv);
        }
        Log("Pkcs#11 library successfully initialized");
        moduleStartedHere = true;
    }

    if ((selection & LOAD_PLUGIN) == 0) return KVO_OK;

    bool pluginReady = false;
    if (!g_wrapperPlugin.Load(directory)) {
        Log("Plugin library missing");
    } else {
        g_wrapperPlugin.SetTraceCallback(GetTraceFilter(TRACE_SOURCE_PLUGIN));
        if (!g_wrapperPlugin.Initialize(nullptr, nullptr, nullptr, nullptr)) {
            Log("Plugin library initialize failed");
        } else {
            pluginReady = true;
        }
    }
    if (!pluginReady) {
        // Only a module brought up by this very call is taken down again.
        if (moduleStartedHere) StopLibraries();
        return KVO_FUNCTION_FAILED;
    }

    g_wrapperPlugin.SetProperty("WorkingDirectory", directory);
    Log("Plugin library successfully initialized");
    return KVO_OK;
}

int32_t StopLibraries() {
    g_wrapperPlugin.Finalize();
    Log("Plugin library finalized");
    if (g_wrapperPKCS11.InitCount() == 0) return KVO_OK;
    CK_RV rv = g_wrapperPKCS11.Finalize(nullptr);
    if (rv != CKR_OK) {
        Log("Pkcs#11 library finalize failed");
        return static_cast<int32_t>(rv);
    }
    Log("Pkcs#11 library successfully finalized");
    return KVO_OK;
}

void SetLibraryRoot(const char* root) {
    if (root == nullptr || root[0] == '\0') return;
    // 254 characters plus the "/" that may be added is all the buffer holds.
    size_t length = strnlen(root, 255);
    if (length >= 255) return;
    memcpy(g_libraryDirectory, root, length);
    g_libraryDirectory[length] = '\0';
    if (g_libraryDirectory[length - 1] != '/') {
        g_libraryDirectory[length] = '/';
        g_libraryDirectory[length + 1] = '\0';
    }
    LogMessage("Current root: '%s'", g_libraryDirectory);
}

void GetLibraryDirectory(char* out, uint32_t size) {
    if (out == nullptr || size == 0) return;
    out[0] = '\0';
    if (g_libraryDirectory[0] == '\0' &&
        !GetDefaultLibraryDirectory(g_libraryDirectory, sizeof g_libraryDirectory)) {
        return;
    }
    size_t length = strlen(g_libraryDirectory);
    if (length < size) memcpy(out, g_libraryDirectory, length + 1);
}

bool GetDefaultLibraryDirectory(char* out, uint32_t size) {
    const char* path = SystemPath(PLACE_LIBRARY_DIR);
    if (out == nullptr) return false;
    size_t length = strlen(path);
    if (size <= length) {
        if (size > 0) out[0] = '\0';
        return false;
    }
    memcpy(out, path, length + 1);
    return true;
}

void ApplyParameters(const char* parameters) {
    if (parameters == nullptr || parameters[0] == '\0') return;
    size_t length = strlen(parameters);
    char* copy = new (std::nothrow) char[length + 1];
    if (copy == nullptr) return;
    memcpy(copy, parameters, length + 1);

    char* segment = copy;
    while (*segment != '\0') {
        char* next = strchr(segment, ';');
        if (next != nullptr) *next = '\0';
        // Only the first "=" divides; the value keeps any further ones.
        char* equals = strchr(segment, '=');
        if (equals != nullptr) {
            *equals = '\0';
            const char* name = segment;
            const char* value = equals + 1;
            if (g_wrapperPKCS11.SetVariable(name, value) == CKR_OK) {
                LogMessage("Updated parameter '%s'", name);
            } else {
                LogMessage("Failed to update parameter '%s'", name);
            }
        }
        if (next == nullptr) break;
        segment = next + 1;
    }
    delete[] copy;
}

void SetGlobalConfigurationPath(const char* path) {
    if (path == nullptr || path[0] == '\0') return;
    if (g_wrapperPKCS11.SetVariable("kvoconfigglobal", path) == CKR_OK) {
        LogMessage("Updated global configuration path '%s'", path);
    } else {
        LogMessage("Failed to update global configuration path '%s'", path);
    }
}
