// The PKCS#11 module that the demo plug-in drives: loaded by path, initialised
// once, and asked only what the demo dialogs need.
#pragma once

#include <p11-kit/pkcs11.h>

#include <functional>
#include <string>
#include <vector>

#include "secret_buffer.h"

struct TokenEntry {
    CK_SLOT_ID slot = 0;
    std::string label;
    std::string serial;
    std::string manufacturer;
    std::string model;
};

// A certificate object as the token holds it: CKA_ID and CKA_VALUE as bytes.
struct CertificateObject {
    std::string id;
    std::string label;
    std::string value;  // DER; empty when the token gave none or more than kMaxCertificateSize
};

// Token fields are blank-padded and not terminated; this gives the text.
std::string TokenText(const unsigned char* field, size_t size);
// "CKR_PIN_INCORRECT" for 0xA0; "CKR_0x..." for codes without a name.
std::string ResultName(CK_RV rv);

class Pkcs11Module {
public:
    Pkcs11Module() = default;
    ~Pkcs11Module() { Close(); }
    Pkcs11Module(const Pkcs11Module&) = delete;
    Pkcs11Module& operator=(const Pkcs11Module&) = delete;

    // Loads and initialises the module. CKR_FUNCTION_FAILED when the file
    // cannot be loaded or has no function list (*why says what went wrong),
    // otherwise the module's answer to C_Initialize.
    CK_RV Open(const std::string& path, std::string* why);
    // C_Finalize when this object initialised the module; it stays loaded.
    void Finalize();
    void Close();
    bool open() const { return m_functions != nullptr; }

    // Slots whose token is present and initialised, in the module's order.
    CK_RV ListTokens(std::vector<TokenEntry>* tokens);
    CK_RV GetTokenInfo(CK_SLOT_ID slot, CK_TOKEN_INFO* info);
    // Verifies the user PIN in a session of its own and logs out again: the
    // dialog proves the PIN, it does not keep the token unlocked.
    CK_RV Login(CK_SLOT_ID slot, const SecretBuffer& pin);
    // C_SetPIN in a read-write session that is not logged in: the user PIN.
    CK_RV ChangePin(CK_SLOT_ID slot, const SecretBuffer& oldPin, const SecretBuffer& newPin);
    // C_InitPIN as the security officer: a new user PIN, which also unblocks a locked one.
    CK_RV InitPin(CK_SLOT_ID slot, const SecretBuffer& soPin, const SecretBuffer& newPin);

    // The X.509 certificates that can be read without a login, at most
    // kMaxCertificates of them, in the module's order.
    static constexpr size_t kMaxCertificates = 5000;
    static constexpr CK_ULONG kMaxCertificateSize = 64 * 1024;
    CK_RV ListCertificates(CK_SLOT_ID slot, std::vector<CertificateObject>* certificates);

private:
    // Opens a session on slot (read-write with CKF_RW_SESSION), runs work in
    // it and closes it again; work's result, or why no session opened.
    CK_RV InSession(CK_SLOT_ID slot, CK_FLAGS flags, const std::function<CK_RV(CK_SESSION_HANDLE)>& work);

    void* m_library = nullptr;
    CK_FUNCTION_LIST_PTR m_functions = nullptr;
    bool m_initializedHere = false;
};
