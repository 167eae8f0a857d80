// Records and trace lines shared by the conversion tests.
#pragma once

#include <string>
#include <vector>

#include "fake.h"

namespace records {

// A decoded certificate: every field set, shorts and times chosen so that truncation and sign
// extension show.
inline ZAVKM_CertItem* decodedCert() {
    auto* cert = fake::record<ZAVKM_CertItem>();
    fake::setBytes(cert->der, cert->derLength, {0x30, 0x82, 0x01});
    cert->shortValue1 = 0x10003;     // low 16 bits: 3
    cert->shortValue2 = 0x7fff0800;  // low 16 bits: 2048
    cert->serialNumber = fake::text("0A1B");
    cert->issuer = fake::dnItem({.cn = "Issuer CA"});
    cert->subject = fake::dnItem({.cn = "Leaf", .c = "NO"});
    cert->effectTime = INT32_MIN;
    cert->expireTime = INT32_MAX;
    fake::setBytes(cert->signature, cert->signatureLength, {0xaa, 0xbb});
    fake::setBytes(cert->sigAlgId, cert->sigAlgIdLength, {0x30, 0x0d});
    cert->sigAlgIdOID = fake::text("1.2.840.113549.1.1.11");
    cert->sigAlgIdOIDName = fake::text("sha256WithRSAEncryption");
    fake::setBytes(cert->spki, cert->spkiLength, {0x30, 0x59});
    fake::setBytes(cert->extensions, cert->extensionsLength, {0x30, 0x00});
    return cert;
}

// A certificate that is not decoded: only its DER counts, whatever else it holds.
inline ZAVKM_CertItem* derOnlyCert(std::vector<uint8_t> der = {0x30, 0x01}) {
    auto* cert = fake::record<ZAVKM_CertItem>();
    fake::setBytes(cert->der, cert->derLength, der);
    cert->shortValue1 = 3;
    fake::setBytes(cert->spki, cert->spkiLength, {0x30});
    return cert;
}

// The step of ZAVKM_GetUnsignedCertFromCert handing out the unsigned certificate {30 01 02}.
inline fake::Step unsignedCert() {
    return fake::returns(0)
        .out(2, [] { return fake::bytes({0x30, 0x01, 0x02}, "ZAVKM_GetUnsignedCertFromCert"); })
        .out(3, uint32_t{3});
}

inline const char* const unsignedCertCall =
    "ZAVKM_GetUnsignedCertFromCert([308201], 3, non-null, non-null)";

// Trace lines of the conversions.
inline const std::string berTrace = "JNI_DEBUG......jBERObjectClass = 0x{ref}";
inline const std::string dnTrace = "JNI_DEBUG......jDNItemClass = 0x{ref}, retObj = 0x{ref}";
inline const std::string epkiTrace =
    "JNI_DEBUG......jEncryptedPrivateKeyInfoItem = 0x{ref}, retObj = 0x{ref}";

inline std::vector<std::string> concat(std::vector<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// The lines of getJavaCertItem for a certificate that is not decoded.
inline std::vector<std::string> derOnlyCertTrace() {
    return {"JNI_DEBUG......constructorMID {ptr}",
            "JNI_DEBUG......to construct a certJNI_DEBUG......exit(): produced jCertificateItem = "
            "0x{ref}",
            "JNI_DEBUG......exit(): jCertificateItemClass = 0x{ref}"};
}

// The lines of getJavaCertItem for decodedCert().
inline std::vector<std::string> decodedCertTrace() {
    return {"JNI_DEBUG......constructorMID {ptr}",
            dnTrace,
            dnTrace,
            "JNI_DEBUG......jCertificateItemClass effectTime = -2147483648",
            berTrace,
            berTrace,
            "JNI_DEBUG......exit(): produced jCertificateItem = 0x{ref}",
            "JNI_DEBUG......exit(): jCertificateItemClass = 0x{ref}"};
}

// The lines of getJavaCertItemArray around its certificates' lines.
inline std::vector<std::string> certArrayTrace(int count, std::vector<std::string> certs) {
    return concat({{"JNI_DEBUG......jCertificateItemClass = 0x{ref}",
                    "JNI_DEBUG......certCnt = " + std::to_string(count)},
                   certs,
                   {"JNI_DEBUG......retArray = 0x{ref}"}});
}

}  // namespace records
