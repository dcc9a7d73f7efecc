// CWrapperPlugin: the host's side of the plug-in boundary.  Loads libkvo.so,
// binds its seven exports, starts and stops the plug-in instance and forwards
// every request to it.  Calls its own operations through the virtual table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kavori/plugin.h"

class CWrapperPlugin {
public:
    CWrapperPlugin();
    virtual ~CWrapperPlugin();  // this class's own Finalize()

    // Virtual table order is part of the contract.
    virtual bool Load(const char* directory);
    virtual void Unload();
    virtual bool Initialize(void* arg1, void* arg2, void* arg3, void* arg4);
    virtual void Finalize();
    virtual intptr_t SetProperty(const char* name, const char* value);  // 0 when not bound
    virtual char* GetProperty(const char* name);                        // null when not bound
    virtual char* EnumProperty(const char* first, const char* second);  // null when not bound
    virtual int32_t Invoke(const char* command);                        // 6 when not bound
    virtual intptr_t SetTraceCallback(TraceCallback callback);          // 0 when not bound
    // Bounded concatenation: never writes more than size bytes.
    virtual void AppendString(char* buffer, size_t size, const char* text);

private:
    void* m_hLibrary;
    PFN_PlgInitialize m_pfnInitialize;
    PFN_PlgFinalize m_pfnFinalize;
    PFN_PlgSetProperty m_pfnSetProperty;
    PFN_PlgGetProperty m_pfnGetProperty;
    PFN_PlgEnumProperty m_pfnEnumProperty;
    PFN_PlgInvoke m_pfnInvoke;
    PFN_PlgSetTraceCallback m_pfnSetTraceCallback;
    PlgInstance m_hPlugin;
};

// The process-wide plug-in wrapper (constructed after the module wrapper,
// destroyed before it).
extern CWrapperPlugin g_wrapperPlugin;
