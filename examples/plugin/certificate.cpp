#include "certificate.h"

#include <gnutls/x509.h>

#include <ctime>

namespace {

// One attribute of the subject's or the issuer's name, as UTF-8; "" when absent.
std::string NameAttribute(gnutls_x509_crt_t crt, bool issuer, const char* oid) {
    auto get = issuer ? gnutls_x509_crt_get_issuer_dn_by_oid : gnutls_x509_crt_get_dn_by_oid;
    size_t size = 0;
    if (get(crt, oid, 0, 0, nullptr, &size) != GNUTLS_E_SHORT_MEMORY_BUFFER || size == 0) return "";
    std::string text(size, '\0');
    if (get(crt, oid, 0, 0, &text[0], &size) != GNUTLS_E_SUCCESS) return "";
    text.resize(size);  // without the terminator GnuTLS wrote
    return text;
}

std::string Name(gnutls_x509_crt_t crt, bool issuer) {
    std::string name = NameAttribute(crt, issuer, GNUTLS_OID_X520_COMMON_NAME);
    if (!name.empty()) return name;
    gnutls_datum_t dn = {nullptr, 0};
    int rv = issuer ? gnutls_x509_crt_get_issuer_dn3(crt, &dn, 0) : gnutls_x509_crt_get_dn3(crt, &dn, 0);
    if (rv == GNUTLS_E_SUCCESS && dn.data) name.assign(reinterpret_cast<const char*>(dn.data), dn.size);
    gnutls_free(dn.data);
    return name;
}

std::string Time(time_t when) {
    struct tm parts;
    char text[32];
    if (when == static_cast<time_t>(-1) || !gmtime_r(&when, &parts)) return "";
    if (strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) return "";
    return text;
}

void ReadKeyUsage(gnutls_x509_crt_t crt, CertificateInfo* info) {
    static const struct {
        unsigned bit;
        const char* name;
    } kBits[] = {
        {GNUTLS_KEY_DIGITAL_SIGNATURE, "digitalSignature"},
        {GNUTLS_KEY_NON_REPUDIATION, "nonRepudiation"},
        {GNUTLS_KEY_KEY_ENCIPHERMENT, "keyEncipherment"},
        {GNUTLS_KEY_DATA_ENCIPHERMENT, "dataEncipherment"},
        {GNUTLS_KEY_KEY_AGREEMENT, "keyAgreement"},
        {GNUTLS_KEY_KEY_CERT_SIGN, "keyCertSign"},
        {GNUTLS_KEY_CRL_SIGN, "cRLSign"},
        {GNUTLS_KEY_ENCIPHER_ONLY, "encipherOnly"},
        {GNUTLS_KEY_DECIPHER_ONLY, "decipherOnly"},
    };
    unsigned usage = 0, critical = 0;
    info->hasKeyUsage = gnutls_x509_crt_get_key_usage(crt, &usage, &critical) >= 0;
    for (const auto& entry : kBits) {
        if (info->hasKeyUsage && (usage & entry.bit)) info->keyUsage.push_back(entry.name);
    }
}

void ReadExtendedKeyUsage(gnutls_x509_crt_t crt, CertificateInfo* info) {
    static const struct {
        const char* oid;
        const char* name;
    } kPurposes[] = {
        {GNUTLS_KP_TLS_WWW_SERVER, "serverAuth"},
        {GNUTLS_KP_TLS_WWW_CLIENT, "clientAuth"},
        {GNUTLS_KP_CODE_SIGNING, "codeSigning"},
        {GNUTLS_KP_EMAIL_PROTECTION, "emailProtection"},
        {GNUTLS_KP_TIME_STAMPING, "timeStamping"},
        {GNUTLS_KP_OCSP_SIGNING, "OCSPSigning"},
        {GNUTLS_KP_ANY, "anyExtendedKeyUsage"},
        {"1.3.6.1.4.1.311.20.2.2", "smartcardLogon"},
    };
    // More purposes than this are no certificate a person would choose.
    for (unsigned index = 0; index < 64; ++index) {
        char oid[128];
        size_t size = sizeof oid;
        int rv = gnutls_x509_crt_get_key_purpose_oid(crt, index, oid, &size, nullptr);
        if (rv == GNUTLS_E_SHORT_MEMORY_BUFFER) continue;  // an OID of that length has no name we know
        if (rv != GNUTLS_E_SUCCESS) break;
        std::string name = oid;
        for (const auto& entry : kPurposes) {
            if (name == entry.oid) name = entry.name;
        }
        info->extendedKeyUsage.push_back(name);
    }
}

}  // namespace

bool ReadCertificate(const unsigned char* der, size_t size, CertificateInfo* info) {
    *info = CertificateInfo();
    if (!der || size == 0 || size > 0xFFFFFFFFu) return false;
    gnutls_x509_crt_t crt;
    if (gnutls_x509_crt_init(&crt) != GNUTLS_E_SUCCESS) return false;
    gnutls_datum_t datum = {const_cast<unsigned char*>(der), static_cast<unsigned>(size)};
    bool ok = gnutls_x509_crt_import(crt, &datum, GNUTLS_X509_FMT_DER) == GNUTLS_E_SUCCESS;
    if (ok) {
        info->subject = Name(crt, false);
        info->issuer = Name(crt, true);
        info->notBefore = Time(gnutls_x509_crt_get_activation_time(crt));
        info->notAfter = Time(gnutls_x509_crt_get_expiration_time(crt));
        ReadKeyUsage(crt, info);
        ReadExtendedKeyUsage(crt, info);
    }
    gnutls_x509_crt_deinit(crt);
    return ok;
}
