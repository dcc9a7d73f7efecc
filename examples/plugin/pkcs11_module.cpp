#include "pkcs11_module.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

Pkcs11Module* g_initializedModule = nullptr;

// At process exit the host finalises its plug-in from a static destructor,
// which runs after the destructors of statics that a C++ module created
// during C_Initialize (exit handlers run in reverse order): C_Finalize would
// then touch destroyed objects.  A handler registered right after
// C_Initialize runs before those destructors and finalises in time.
void FinalizeAtExit() {
    if (g_initializedModule) g_initializedModule->Finalize();
}

}  // namespace

// C_Login and C_SetPIN take non-const pointers but do not write through them.
CK_UTF8CHAR_PTR Bytes(const SecretBuffer& secret) {
    return reinterpret_cast<CK_UTF8CHAR_PTR>(const_cast<char*>(secret.data()));
}

std::string TokenText(const unsigned char* field, size_t size) {
    size_t end = size;
    while (end > 0 && (field[end - 1] == ' ' || field[end - 1] == '\0')) --end;
    return std::string(reinterpret_cast<const char*>(field), end);
}

std::string ResultName(CK_RV rv) {
    struct Name {
        CK_RV rv;
        const char* name;
    };
    static const Name kNames[] = {
        {CKR_OK, "CKR_OK"},
        {CKR_CANCEL, "CKR_CANCEL"},
        {CKR_HOST_MEMORY, "CKR_HOST_MEMORY"},
        {CKR_SLOT_ID_INVALID, "CKR_SLOT_ID_INVALID"},
        {CKR_GENERAL_ERROR, "CKR_GENERAL_ERROR"},
        {CKR_FUNCTION_FAILED, "CKR_FUNCTION_FAILED"},
        {CKR_ARGUMENTS_BAD, "CKR_ARGUMENTS_BAD"},
        {CKR_DEVICE_ERROR, "CKR_DEVICE_ERROR"},
        {CKR_DEVICE_MEMORY, "CKR_DEVICE_MEMORY"},
        {CKR_DEVICE_REMOVED, "CKR_DEVICE_REMOVED"},
        {CKR_FUNCTION_CANCELED, "CKR_FUNCTION_CANCELED"},
        {CKR_FUNCTION_NOT_SUPPORTED, "CKR_FUNCTION_NOT_SUPPORTED"},
        {CKR_OPERATION_NOT_INITIALIZED, "CKR_OPERATION_NOT_INITIALIZED"},
        {CKR_PIN_INCORRECT, "CKR_PIN_INCORRECT"},
        {CKR_PIN_INVALID, "CKR_PIN_INVALID"},
        {CKR_PIN_LEN_RANGE, "CKR_PIN_LEN_RANGE"},
        {CKR_PIN_EXPIRED, "CKR_PIN_EXPIRED"},
        {CKR_PIN_LOCKED, "CKR_PIN_LOCKED"},
        {CKR_SESSION_COUNT, "CKR_SESSION_COUNT"},
        {CKR_SESSION_HANDLE_INVALID, "CKR_SESSION_HANDLE_INVALID"},
        {CKR_SESSION_READ_ONLY, "CKR_SESSION_READ_ONLY"},
        {CKR_TOKEN_NOT_PRESENT, "CKR_TOKEN_NOT_PRESENT"},
        {CKR_TOKEN_NOT_RECOGNIZED, "CKR_TOKEN_NOT_RECOGNIZED"},
        {CKR_TOKEN_WRITE_PROTECTED, "CKR_TOKEN_WRITE_PROTECTED"},
        {CKR_USER_ALREADY_LOGGED_IN, "CKR_USER_ALREADY_LOGGED_IN"},
        {CKR_USER_NOT_LOGGED_IN, "CKR_USER_NOT_LOGGED_IN"},
        {CKR_USER_PIN_NOT_INITIALIZED, "CKR_USER_PIN_NOT_INITIALIZED"},
        {CKR_USER_TYPE_INVALID, "CKR_USER_TYPE_INVALID"},
        {CKR_USER_ANOTHER_ALREADY_LOGGED_IN, "CKR_USER_ANOTHER_ALREADY_LOGGED_IN"},
        {CKR_BUFFER_TOO_SMALL, "CKR_BUFFER_TOO_SMALL"},
        {CKR_CRYPTOKI_NOT_INITIALIZED, "CKR_CRYPTOKI_NOT_INITIALIZED"},
        {CKR_CRYPTOKI_ALREADY_INITIALIZED, "CKR_CRYPTOKI_ALREADY_INITIALIZED"},
    };
    for (const Name& entry : kNames) {
        if (entry.rv == rv) return entry.name;
    }
    char text[32];
    snprintf(text, sizeof text, "CKR_0x%08lX", static_cast<unsigned long>(rv));
    return text;
}

CK_RV Pkcs11Module::Open(const std::string& path, std::string* why) {
    Close();
    m_library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m_library) {
        const char* error = dlerror();
        *why = error ? error : "cannot be loaded";
        return CKR_FUNCTION_FAILED;
    }
    auto getFunctionList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(m_library, "C_GetFunctionList"));
    CK_FUNCTION_LIST_PTR functions = nullptr;
    if (!getFunctionList || getFunctionList(&functions) != CKR_OK || !functions) {
        *why = "no PKCS#11 function list";
        Close();
        return CKR_FUNCTION_FAILED;
    }
    CK_RV rv = functions->C_Initialize(nullptr);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        *why = "C_Initialize failed";
        Close();
        return rv;
    }
    // Someone else in the process initialised it first: theirs to finalise.
    m_initializedHere = rv == CKR_OK;
    m_functions = functions;
    if (m_initializedHere) {
        static bool s_exitHandlerRegistered = false;
        if (!s_exitHandlerRegistered) s_exitHandlerRegistered = atexit(FinalizeAtExit) == 0;
        g_initializedModule = this;
    }
    return CKR_OK;
}

void Pkcs11Module::Finalize() {
    if (m_functions && m_initializedHere) m_functions->C_Finalize(nullptr);
    m_initializedHere = false;
    if (g_initializedModule == this) g_initializedModule = nullptr;
}

void Pkcs11Module::Close() {
    Finalize();
    m_functions = nullptr;
    if (m_library) dlclose(m_library);
    m_library = nullptr;
}

CK_RV Pkcs11Module::ListTokens(std::vector<TokenEntry>* tokens) {
    tokens->clear();
    if (!m_functions) return CKR_CRYPTOKI_NOT_INITIALIZED;
    std::vector<CK_SLOT_ID> slots;
    CK_RV rv;
    // The list may grow between the two calls when a token arrives.
    do {
        CK_ULONG count = 0;
        rv = m_functions->C_GetSlotList(CK_TRUE, nullptr, &count);
        if (rv != CKR_OK) return rv;
        slots.resize(count);
        rv = m_functions->C_GetSlotList(CK_TRUE, slots.data(), &count);
        if (rv == CKR_OK) slots.resize(count);
    } while (rv == CKR_BUFFER_TOO_SMALL);
    if (rv != CKR_OK) return rv;
    for (CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info;
        if (m_functions->C_GetTokenInfo(slot, &info) != CKR_OK) continue;
        // An uninitialised token (SoftHSM2 always offers one) takes no PIN.
        if (!(info.flags & CKF_TOKEN_INITIALIZED)) continue;
        TokenEntry entry;
        entry.slot = slot;
        entry.label = TokenText(info.label, sizeof info.label);
        entry.serial = TokenText(info.serialNumber, sizeof info.serialNumber);
        entry.manufacturer = TokenText(info.manufacturerID, sizeof info.manufacturerID);
        entry.model = TokenText(info.model, sizeof info.model);
        tokens->push_back(entry);
    }
    return CKR_OK;
}

CK_RV Pkcs11Module::GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info) {
    if (!m_functions) return CKR_CRYPTOKI_NOT_INITIALIZED;
    return m_functions->C_GetTokenInfo(slot, info);
}

CK_RV Pkcs11Module::InSession(CK_SLOT_ID slot, CK_FLAGS flags,
                              const std::function<CK_RV(CK_SESSION_HANDLE)>& work) {
    if (!m_functions) return CKR_CRYPTOKI_NOT_INITIALIZED;
    CK_SESSION_HANDLE session = CK_INVALID_HANDLE;
    CK_RV rv = m_functions->C_OpenSession(slot, CKF_SERIAL_SESSION | flags, nullptr, nullptr, &session);
    if (rv != CKR_OK) return rv;
    rv = work(session);
    m_functions->C_CloseSession(session);
    return rv;
}

CK_RV Pkcs11Module::Login(CK_SLOT_ID slot, const SecretBuffer& pin) {
    return InSession(slot, 0, [&](CK_SESSION_HANDLE session) {
        CK_RV rv = m_functions->C_Login(session, CKU_USER, Bytes(pin), pin.size());
        if (rv == CKR_OK) m_functions->C_Logout(session);
        return rv;
    });
}

CK_RV Pkcs11Module::ChangePin(CK_SLOT_ID slot, const SecretBuffer& oldPin, const SecretBuffer& newPin) {
    return InSession(slot, CKF_RW_SESSION, [&](CK_SESSION_HANDLE session) {
        return m_functions->C_SetPIN(session, Bytes(oldPin), oldPin.size(), Bytes(newPin), newPin.size());
    });
}

CK_RV Pkcs11Module::InitPin(CK_SLOT_ID slot, const SecretBuffer& soPin, const SecretBuffer& newPin) {
    return InSession(slot, CKF_RW_SESSION, [&](CK_SESSION_HANDLE session) {
        CK_RV rv = m_functions->C_Login(session, CKU_SO, Bytes(soPin), soPin.size());
        if (rv != CKR_OK) return rv;
        rv = m_functions->C_InitPIN(session, Bytes(newPin), newPin.size());
        m_functions->C_Logout(session);
        return rv;
    });
}

namespace {

// One attribute's bytes; empty when the token has none, hides it, or it is
// longer than limit.
std::string Attribute(CK_FUNCTION_LIST_PTR functions, CK_SESSION_HANDLE session, CK_OBJECT_HANDLE object,
                      CK_ATTRIBUTE_TYPE type, CK_ULONG limit) {
    CK_ATTRIBUTE attribute = {type, nullptr, 0};
    if (functions->C_GetAttributeValue(session, object, &attribute, 1) != CKR_OK) return "";
    if (attribute.ulValueLen == CK_UNAVAILABLE_INFORMATION || attribute.ulValueLen > limit) return "";
    std::string value(attribute.ulValueLen, '\0');
    attribute.pValue = &value[0];
    if (functions->C_GetAttributeValue(session, object, &attribute, 1) != CKR_OK) return "";
    value.resize(attribute.ulValueLen <= value.size() ? attribute.ulValueLen : 0);
    return value;
}

}  // namespace

CK_RV Pkcs11Module::ListCertificates(CK_SLOT_ID slot, std::vector<CertificateObject>* certificates) {
    certificates->clear();
    return InSession(slot, 0, [&](CK_SESSION_HANDLE session) {
        CK_OBJECT_CLASS certificateClass = CKO_CERTIFICATE;
        CK_CERTIFICATE_TYPE x509 = CKC_X_509;
        CK_ATTRIBUTE query[] = {
            {CKA_CLASS, &certificateClass, sizeof certificateClass},
            {CKA_CERTIFICATE_TYPE, &x509, sizeof x509},
        };
        std::vector<CK_OBJECT_HANDLE> objects;
        CK_RV rv = m_functions->C_FindObjectsInit(session, query, 2);
        if (rv != CKR_OK) return rv;
        CK_OBJECT_HANDLE batch[64];
        CK_ULONG found = 0;
        while (objects.size() < kMaxCertificates &&
               (rv = m_functions->C_FindObjects(session, batch, 64, &found)) == CKR_OK && found > 0) {
            objects.insert(objects.end(), batch, batch + (found < 64 ? found : 64));
        }
        m_functions->C_FindObjectsFinal(session);
        if (objects.size() > kMaxCertificates) objects.resize(kMaxCertificates);
        for (CK_OBJECT_HANDLE object : objects) {
            CertificateObject certificate;
            certificate.id = Attribute(m_functions, session, object, CKA_ID, 1024);
            certificate.label = Attribute(m_functions, session, object, CKA_LABEL, 1024);
            certificate.value = Attribute(m_functions, session, object, CKA_VALUE, kMaxCertificateSize);
            certificates->push_back(certificate);
        }
        return rv;
    });
}
