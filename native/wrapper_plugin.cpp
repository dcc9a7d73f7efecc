#include "native/wrapper_plugin.h"

#include <dlfcn.h>

#include <cstring>

#include "native/library_file.h"

namespace {

template <typename T>
T Bind(void* library, const char* name) {
    return reinterpret_cast<T>(dlsym(library, name));
}

}  // namespace

CWrapperPlugin::CWrapperPlugin()
    : m_hLibrary(nullptr),
      m_pfnInitialize(nullptr),
      m_pfnFinalize(nullptr),
      m_pfnSetProperty(nullptr),
      m_pfnGetProperty(nullptr),
      m_pfnEnumProperty(nullptr),
      m_pfnInvoke(nullptr),
      m_pfnSetTraceCallback(nullptr),
      m_hPlugin(nullptr) {}

CWrapperPlugin::~CWrapperPlugin() { CWrapperPlugin::Finalize(); }

bool CWrapperPlugin::Load(const char* directory) {
    // The library loaded first stays loaded; the directory is not looked at.
    if (m_hLibrary != nullptr) return true;

    char path[256];
    path[0] = '\0';
    AppendString(path, sizeof path, directory);
    AppendString(path, sizeof path, "lib");
    AppendString(path, sizeof path, "kvo");
    AppendString(path, sizeof path, ".so");

    m_hLibrary = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    if (m_hLibrary == nullptr) return false;

    m_pfnInitialize = Bind<PFN_PlgInitialize>(m_hLibrary, "PlgInitialize");
    m_pfnFinalize = Bind<PFN_PlgFinalize>(m_hLibrary, "PlgFinalize");
    m_pfnSetProperty = Bind<PFN_PlgSetProperty>(m_hLibrary, "PlgSetProperty");
    m_pfnGetProperty = Bind<PFN_PlgGetProperty>(m_hLibrary, "PlgGetProperty");
    m_pfnEnumProperty = Bind<PFN_PlgEnumProperty>(m_hLibrary, "PlgEnumProperty");
    m_pfnInvoke = Bind<PFN_PlgInvoke>(m_hLibrary, "PlgInvoke");
    m_pfnSetTraceCallback = Bind<PFN_PlgSetTraceCallback>(m_hLibrary, "PlgSetTraceCallback");

    // Tracing is optional; everything else must be there or nothing stays open.
    if (m_pfnInitialize == nullptr || m_pfnFinalize == nullptr || m_pfnSetProperty == nullptr ||
        m_pfnGetProperty == nullptr || m_pfnEnumProperty == nullptr || m_pfnInvoke == nullptr) {
        Unload();
        return false;
    }
    return true;
}

void CWrapperPlugin::Unload() {
    CloseLibrary(m_hLibrary);
    m_hLibrary = nullptr;
    m_pfnInitialize = nullptr;
    m_pfnFinalize = nullptr;
    m_pfnSetProperty = nullptr;
    m_pfnGetProperty = nullptr;
    m_pfnEnumProperty = nullptr;
    m_pfnInvoke = nullptr;
    m_pfnSetTraceCallback = nullptr;
}

bool CWrapperPlugin::Initialize(void* arg1, void* arg2, void* arg3, void* arg4) {
    // Normally only confirms the library that the start-up already loaded.
    if (!Load(nullptr) || m_pfnInitialize == nullptr) return false;
    // A failed start leaves the library loaded, so the next need retries on it.
    if (m_pfnInitialize(arg1, arg2, arg3, arg4, &m_hPlugin) == 0) return false;
    if (arg1 == nullptr && arg3 == nullptr) SetProperty("Server", "file:///blank");
    return true;
}

void CWrapperPlugin::Finalize() {
    // A failed PlgInitialize may still have written a handle; it gets its
    // PlgFinalize all the same.
    if (m_pfnFinalize != nullptr && m_hPlugin != nullptr) m_pfnFinalize(m_hPlugin);
    m_hPlugin = nullptr;
    Unload();
}

intptr_t CWrapperPlugin::SetProperty(const char* name, const char* value) {
    if (m_pfnSetProperty == nullptr) return 0;
    return m_pfnSetProperty(m_hPlugin, name, value);
}

char* CWrapperPlugin::GetProperty(const char* name) {
    if (m_pfnGetProperty == nullptr) return nullptr;
    return m_pfnGetProperty(m_hPlugin, name);
}

char* CWrapperPlugin::EnumProperty(const char* first, const char* second) {
    if (m_pfnEnumProperty == nullptr) return nullptr;
    return m_pfnEnumProperty(m_hPlugin, first, second);
}

int32_t CWrapperPlugin::Invoke(const char* command) {
    if (m_pfnInvoke == nullptr) return 6;  // CKR_FUNCTION_FAILED: nothing to call
    return m_pfnInvoke(m_hPlugin, command);
}

intptr_t CWrapperPlugin::SetTraceCallback(TraceCallback callback) {
    if (m_pfnSetTraceCallback == nullptr) return 0;
    return m_pfnSetTraceCallback(callback);
}

void CWrapperPlugin::AppendString(char* buffer, size_t size, const char* text) {
    AppendBounded(buffer, size, text);
}
