#include "native/wrapper_pkcs11.h"

#include <dlfcn.h>

#include <cstring>

#include "native/library_file.h"

CWrapperPKCS11::CWrapperPKCS11()
    : m_hModule(nullptr),
      m_pFunctionList(nullptr),
      m_bInitializedHere(false),
      m_nInitCount(0),
      m_pfnSetTraceCallback(nullptr),
      m_pfnSetVariable(nullptr),
      m_pfnGetVariable(nullptr),
      m_pfnAddExternalSlot(nullptr),
      m_pfnRemoveExternalSlot(nullptr) {}

CWrapperPKCS11::~CWrapperPKCS11() {
    Finalize(nullptr);
    Unload();
}

bool CWrapperPKCS11::Load(const char* directory) {
    // The first module opened stays the module, whatever came of it.
    if (m_hModule != nullptr) return true;

    char path[256];
    memset(path, 0, sizeof path);
    AppendBounded(path, sizeof path, directory);
    AppendBounded(path, sizeof path, "lib");
    AppendBounded(path, sizeof path, "kvop11");
    AppendBounded(path, sizeof path, ".so");

    m_hModule = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
    if (m_hModule == nullptr) return false;

    CK_C_GetFunctionList pfnGetFunctionList =
        reinterpret_cast<CK_C_GetFunctionList>(dlsym(m_hModule, "C_GetFunctionList"));
    m_pfnSetTraceCallback = reinterpret_cast<PFN_C_SetTraceCallback>(dlsym(m_hModule, "C_SetTraceCallback"));
    m_pfnSetVariable = reinterpret_cast<PFN_C_SetVariable>(dlsym(m_hModule, "C_SetVariable"));
    m_pfnGetVariable = reinterpret_cast<PFN_C_GetVariable>(dlsym(m_hModule, "C_GetVariable"));
    m_pfnAddExternalSlot = reinterpret_cast<PFN_C_AddExternalSlot>(dlsym(m_hModule, "C_AddExternalSlot"));
    m_pfnRemoveExternalSlot =
        reinterpret_cast<PFN_C_RemoveExternalSlot>(dlsym(m_hModule, "C_RemoveExternalSlot"));

    // Without a function list the handle is kept: Load keeps answering true
    // from now on and Initialize reports the general error.
    if (pfnGetFunctionList == nullptr) return false;
    return pfnGetFunctionList(&m_pFunctionList) == CKR_OK;
}

void CWrapperPKCS11::Unload() {
    CloseLibrary(m_hModule);
    m_hModule = nullptr;
    m_pFunctionList = nullptr;
    m_bInitializedHere = false;
    m_nInitCount = 0;
    m_pfnSetTraceCallback = nullptr;
    m_pfnSetVariable = nullptr;
    m_pfnGetVariable = nullptr;
    m_pfnAddExternalSlot = nullptr;
    m_pfnRemoveExternalSlot = nullptr;
}

CK_RV CWrapperPKCS11::Initialize(void* pInitArgs) {
    if (m_nInitCount != 0) {
        // Nested: only count.  The count is 8 bits wide; refuse to wrap.
        if (m_nInitCount == UINT8_MAX) return CKR_GENERAL_ERROR;
        ++m_nInitCount;
        return CKR_OK;
    }
    if (m_hModule == nullptr && !Load(nullptr)) return CKR_GENERAL_ERROR;
    if (m_pFunctionList == nullptr && (!Load(nullptr) || m_pFunctionList == nullptr))
        return CKR_GENERAL_ERROR;
    if (m_pFunctionList->C_Initialize == nullptr) return CKR_GENERAL_ERROR;

    CK_RV rv = m_pFunctionList->C_Initialize(pInitArgs);
    if (rv == CKR_OK) {
        m_bInitializedHere = true;
        m_nInitCount = 1;
        return CKR_OK;
    }
    if (rv == CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        // Someone else in the process owns the module's life; use it, but
        // leave its finalisation to them.
        m_nInitCount = 1;
        return CKR_OK;
    }
    return rv;
}

CK_RV CWrapperPKCS11::Finalize(void* pReserved) {
    if (m_nInitCount == 0) return CKR_CRYPTOKI_NOT_INITIALIZED;
    --m_nInitCount;
    if (m_nInitCount > 0 || !m_bInitializedHere) return CKR_OK;
    m_bInitializedHere = false;
    if (m_pFunctionList == nullptr && (!Load(nullptr) || m_pFunctionList == nullptr))
        return CKR_GENERAL_ERROR;
    if (m_pFunctionList->C_Finalize == nullptr) return CKR_GENERAL_ERROR;
    return m_pFunctionList->C_Finalize(pReserved);
}

CK_RV CWrapperPKCS11::SetTraceCallback(TraceCallback callback) {
    if (m_pfnSetTraceCallback == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return m_pfnSetTraceCallback(callback);
}

CK_RV CWrapperPKCS11::SetVariable(const char* name, const char* value) {
    if (m_pfnSetVariable == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return m_pfnSetVariable(name, value);
}

CK_RV CWrapperPKCS11::GetVariable(void* arg1, void* arg2, void* arg3) {
    if (m_pfnGetVariable == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return m_pfnGetVariable(arg1, arg2, arg3);
}

CK_RV CWrapperPKCS11::AddExternalSlot(void* arg1, void* arg2, void* arg3) {
    if (m_pfnAddExternalSlot == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return m_pfnAddExternalSlot(arg1, arg2, arg3);
}

CK_RV CWrapperPKCS11::RemoveExternalSlot(void* arg1) {
    if (m_pfnRemoveExternalSlot == nullptr) return CKR_FUNCTION_NOT_SUPPORTED;
    return m_pfnRemoveExternalSlot(arg1);
}
