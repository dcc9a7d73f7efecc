// CWrapperPKCS11: owns the middleware's PKCS#11 module libkvop11.so, opened
// at run time, with a nesting count so that only the party that initialised
// the module finalises it.
#pragma once

#include <cstdint>

#include "kavori/plugin.h"  // TraceCallback

// The standard PKCS#11 types (p11-kit ships them self-contained).
#include <p11-kit/pkcs11.h>

// The module's vendor extensions, as this system calls them.
typedef CK_RV (*PFN_C_SetTraceCallback)(TraceCallback callback);
typedef CK_RV (*PFN_C_SetVariable)(const char* name, const char* value);
typedef CK_RV (*PFN_C_GetVariable)(void* arg1, void* arg2, void* arg3);
typedef CK_RV (*PFN_C_AddExternalSlot)(void* arg1, void* arg2, void* arg3);
typedef CK_RV (*PFN_C_RemoveExternalSlot)(void* arg1);

class CWrapperPKCS11 {
public:
    CWrapperPKCS11();
    virtual ~CWrapperPKCS11();  // Finalize(null) once, then Unload()

    // directory ends in "/" or is null (bare name, loader's search path).
    // True when open with a function list, or when a handle was already held.
    bool Load(const char* directory);
    void Unload();
    CK_RV Initialize(void* pInitArgs);
    CK_RV Finalize(void* pReserved);

    // Forwarders: CKR_FUNCTION_NOT_SUPPORTED when the entry point is missing.
    CK_RV SetTraceCallback(TraceCallback callback);
    CK_RV SetVariable(const char* name, const char* value);
    CK_RV GetVariable(void* arg1, void* arg2, void* arg3);
    CK_RV AddExternalSlot(void* arg1, void* arg2, void* arg3);
    CK_RV RemoveExternalSlot(void* arg1);

    uint8_t InitCount() const { return m_nInitCount; }

private:
    void* m_hModule;
    CK_FUNCTION_LIST_PTR m_pFunctionList;
    bool m_bInitializedHere;
    uint8_t m_nInitCount;
    PFN_C_SetTraceCallback m_pfnSetTraceCallback;
    PFN_C_SetVariable m_pfnSetVariable;
    PFN_C_GetVariable m_pfnGetVariable;
    PFN_C_AddExternalSlot m_pfnAddExternalSlot;
    PFN_C_RemoveExternalSlot m_pfnRemoveExternalSlot;
};

// The process-wide module wrapper (constructed before the plug-in wrapper).
extern CWrapperPKCS11 g_wrapperPKCS11;
