// What the certificate dialog shows of an X.509 certificate, read with GnuTLS
// (the DER bytes come from the token's CKA_VALUE and are never parsed here).
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct CertificateInfo {
    std::string subject;              // the subject's common name, else its whole distinguished name
    std::string issuer;               // likewise for the issuer
    std::string notBefore, notAfter;  // "2024-01-31T12:00:00Z"; "" when the certificate has none
    // Key usage bits by their X.509 names ("digitalSignature", "nonRepudiation",
    // "keyEncipherment", ...); hasKeyUsage false when the extension is absent,
    // which leaves the key unrestricted.
    bool hasKeyUsage = false;
    std::vector<std::string> keyUsage;
    // Extended key usage by name ("clientAuth", "emailProtection", ...), an
    // unknown purpose as its dotted OID; empty when the extension is absent.
    std::vector<std::string> extendedKeyUsage;
};

// False when der holds no certificate that GnuTLS can read.
bool ReadCertificate(const unsigned char* der, size_t size, CertificateInfo* info);
