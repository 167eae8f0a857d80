// api_certs.cpp - making certificates and requests, issuing, receiving, storing, exporting.
#include <unistd.h>

#include "pki/certcache.h"
#include "store/file/entries.h"
#include "base/files.h"
#include "store/file/keyitems.h"
#include "api/session.h"
#include "store/keystore/keyops.h"
#include "pki/x509records.h"
#include "pki/x509util.h"
#include "zavkm_ext.h"

using namespace zavkm;

namespace {

// issueOn - issue on a key database or a token, the issuer found under issuerLabel there;
// done(X509*) takes the certificate.
template <class Done>
ZAVKM_ReturnCode issueOn(const char* name, ZAVKM_KeyDbHandle handle, const IssueAsk& ask,
                         const char* issuerLabel, std::initializer_list<const void*> required,
                         Done&& done) noexcept {
    return withKeyStore(name, handle, required, {labelArg(issuerLabel)}, [&](KeyStore& s) -> Rc {
        X509Ptr cert;
        if (Rc rc = issue(s, ask, issuerLabel, cert); rc != ZAVKM_OK) return rc;
        return done(cert.get());
    });
}

// issueToFile - issueOn, the certificate written to certFileName (PEM when pem is set).
ZAVKM_ReturnCode issueToFile(const char* name, ZAVKM_KeyDbHandle handle, const IssueAsk& ask,
                             const char* issuerLabel, const char* certFileName,
                             uint8_t pem) noexcept {
    return issueOn(name, handle, ask, issuerLabel, {ask.request, issuerLabel, certFileName},
                   [&](X509* cert) { return writeCertificateFile(certFileName, cert, pem != 0); });
}

// decodeBase64Text - PEM with any armour (the first block) or bare base64, whitespace ignored.
Rc decodeBase64Text(const Bytes& text, Bytes& out) {
    std::string_view all(reinterpret_cast<const char*>(text.data()), text.size());
    size_t begin = all.find("-----BEGIN");
    std::string_view body = all;
    if (begin != std::string_view::npos) {
        size_t lineEnd = all.find('\n', begin);
        if (lineEnd == std::string_view::npos) return ZAVKM_ERR_BASE64_INVALID_DATA;
        size_t end = all.find("-----END", lineEnd);
        if (end == std::string_view::npos) return ZAVKM_ERR_BASE64_INVALID_DATA;
        body = all.substr(lineEnd + 1, end - lineEnd - 1);
    }
    std::string clean;
    size_t pos = 0;
    while (pos < body.size()) {  // drop header lines ("Name: value") and whitespace
        size_t eol = body.find('\n', pos);
        std::string_view line = body.substr(pos, eol == std::string_view::npos ? eol : eol - pos);
        pos = eol == std::string_view::npos ? body.size() : eol + 1;
        if (line.find(':') != std::string_view::npos) continue;
        for (char c : line)
            if (c != ' ' && c != '\t' && c != '\r') clean.push_back(c);
    }
    if (clean.empty() || clean.size() % 4 != 0) return ZAVKM_ERR_BASE64_INVALID_DATA;
    Bytes decoded(clean.size() / 4 * 3);
    int n = EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(clean.data()),
                            static_cast<int>(clean.size()));
    if (n < 0) return sslError(ZAVKM_ERR_BASE64_INVALID_DATA);
    size_t padding = 0;
    for (size_t i = clean.size(); i > 0 && clean[i - 1] == '='; --i) ++padding;
    if (padding > 2) return ZAVKM_ERR_BASE64_INVALID_DATA;
    decoded.resize(static_cast<size_t>(n) - padding);
    out = std::move(decoded);
    return ZAVKM_OK;
}

}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_CreateSelfSignedCert(ZAVKM_KeyDbHandle handle, const char* label,
                                            uint8_t makeDefault, int32_t version, int32_t keySize,
                                            const ZAVKM_DNItem* subject, int32_t validityDays,
                                            const char* certFileName, uint8_t isBase64) noexcept {
    return withKeyStore(__func__, handle, {label, subject}, {labelArg(label)}, [&](KeyStore& s) {
        return createSelfSigned(s, {label, makeDefault != 0, version, keySize, subject, validityDays,
                                    1, nullptr, 0, certFileName, isBase64 != 0});
    });
}

ZAVKM_ReturnCode ZAVKM_CreateSelfSignedCertSigExt(
    ZAVKM_KeyDbHandle handle, const char* label, uint8_t makeDefault, int32_t version,
    int32_t keySize, const ZAVKM_DNItem* subject, int32_t validityDays, int32_t signatureAlgorithm,
    const uint8_t* extensions, uint32_t extensionsLength, const char* certFileName,
    uint8_t isBase64) noexcept {
    return withKeyStore(__func__, handle, {label, subject}, {labelArg(label)}, [&](KeyStore& s) {
        return createSelfSigned(s, {label, makeDefault != 0, version, keySize, subject, validityDays,
                                    signatureAlgorithm, extensions, extensionsLength, certFileName,
                                    isBase64 != 0});
    });
}

ZAVKM_ReturnCode ZAVKM_CreateNewCertReq(ZAVKM_KeyDbHandle handle, const char* label,
                                        int32_t keySize, const ZAVKM_DNItem* subject,
                                        const char* certReqFileName, const void*,
                                        const void*) noexcept {
    return withKeyStore(__func__, handle, {label, subject}, {labelArg(label)}, [&](KeyStore& s) {
        return createRequest(s, {label, keySize, subject, 1, nullptr, 0, certReqFileName});
    });
}

ZAVKM_ReturnCode ZAVKM_CreateNewCertReqSigExt(ZAVKM_KeyDbHandle handle, const char* label,
                                              int32_t keySize, const ZAVKM_DNItem* subject,
                                              int32_t signatureAlgorithm, const uint8_t* extensions,
                                              uint32_t extensionsLength,
                                              const char* certReqFileName, const void*,
                                              const void*) noexcept {
    return withKeyStore(__func__, handle, {label, subject}, {labelArg(label)}, [&](KeyStore& s) {
        return createRequest(s, {label, keySize, subject, signatureAlgorithm, extensions,
                                 extensionsLength, certReqFileName});
    });
}

ZAVKM_ReturnCode ZAVKM_ReCreateCertReq(ZAVKM_KeyDbHandle handle, const char* label,
                                       const char* certReqFileName, const void*,
                                       const void*) noexcept {
    return withKeyStore(__func__, handle, {label, certReqFileName}, {labelArg(label)},
                        [&](KeyStore& s) { return recreateRequest(s, label, 0, certReqFileName); });
}

ZAVKM_ReturnCode ZAVKM_ReCreateCertReqSig(ZAVKM_KeyDbHandle handle, const char* label,
                                          int32_t signatureAlgorithm, const char* certReqFileName,
                                          const void*, const void*) noexcept {
    return withKeyStore(__func__, handle, {label}, {labelArg(label)}, [&](KeyStore& s) -> Rc {
        if (signatureAlgorithm != 1 && signatureAlgorithm != 2)
            return ZAVKM_ERR_SIGNATURE_ALGORITHM;
        return recreateRequest(s, label, signatureAlgorithm, certReqFileName);
    });
}

ZAVKM_ReturnCode ZAVKM_IssueCert(ZAVKM_KeyDbHandle handle, const uint8_t* request,
                                 uint32_t requestLength, const char* issuerLabel, int32_t version,
                                 const char* serialNumber, int32_t validityDays,
                                 const char* certFileName, uint8_t isBase64, const void*,
                                 const void*) noexcept {
    return issueToFile(__func__, handle, {request, requestLength, version, serialNumber, validityDays},
                       issuerLabel, certFileName, isBase64);
}

ZAVKM_ReturnCode ZAVKM_IssueCertSig(ZAVKM_KeyDbHandle handle, const uint8_t* request,
                                    uint32_t requestLength, const char* issuerLabel,
                                    int32_t version, const char* serialNumber, int32_t validityDays,
                                    int32_t signatureAlgorithm, const char* certFileName,
                                    uint8_t isBase64, const void*, const void*) noexcept {
    return issueToFile(
        __func__, handle,
        {request, requestLength, version, serialNumber, validityDays, signatureAlgorithm},
        issuerLabel, certFileName, isBase64);
}

ZAVKM_ReturnCode ZAVKM_IssueCertX(ZAVKM_KeyDbHandle handle, const uint8_t* request,
                                  uint32_t requestLength, const char* issuerLabel,
                                  const char* serialNumber, int32_t validityDays,
                                  int32_t signatureAlgorithm, const uint8_t* extensions,
                                  uint32_t extensionsLength, uint8_t** cert,
                                  uint32_t* certLength) noexcept {
    if (cert != nullptr) *cert = nullptr;
    if (certLength != nullptr) *certLength = 0;
    const IssueAsk ask{request,      requestLength,   3,        serialNumber, validityDays,
                       signatureAlgorithm, extensions, extensionsLength, true};
    return issueOn(__func__, handle, ask, issuerLabel, {request, issuerLabel, cert, certLength},
                   [&](X509* made) -> Rc {
                       Bytes der = derOf(made);
                       if (der.empty()) return sslError(ZAVKM_ERR_ASN);
                       copyBytes(der, cert, certLength);
                       return ZAVKM_OK;
                   });
}

ZAVKM_ReturnCode ZAVKM_Base64DecodeFileToBuf(const char* fileName, uint8_t** data,
                                             uint32_t* length) noexcept {
    return withLibrary(__func__, {fileName, data, length}, [&]() -> Rc {
        *data = nullptr;
        *length = 0;
        Bytes text, decoded;
        Rc rc = readFile(fileName, text);
        if (rc == ZAVKM_ERR_FILE_OPEN_NOT_EXIST) rc = ZAVKM_ERR_FILE_OPEN_TO_READ;
        if (rc != ZAVKM_OK) return rc;
        if (Rc d = decodeBase64Text(text, decoded); d != ZAVKM_OK) return d;
        copyBytes(decoded, data, length);
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_GetUnsignedCertFromCert(const uint8_t* der, uint32_t derLength,
                                               uint8_t** tbs, uint32_t* tbsLength) noexcept {
    return withLibrary(__func__, {der, tbs, tbsLength}, [&]() -> Rc {
        *tbs = nullptr;
        *tbsLength = 0;
        // Mostly the certificate of a key item just read, asked for again and again: decoded
        // once (the costliest step) and cached when it has the size of a certificate.
        if (Rc rc = withinSize(derLength, kMaxItemBytes); rc != ZAVKM_OK) return rc;
        if (!cachedCertificate(Bytes(der, der + derLength), derLength <= kCachedCertBytes))
            return ZAVKM_ERR_ASN;
        Bytes part = tbsOf(der, derLength);
        if (part.empty()) return ZAVKM_ERR_ASN;  // PEM too: the part is cut from DER bytes
        copyBytes(part, tbs, tbsLength);
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_StoreCACert(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                   uint32_t certLength, const char* label) noexcept {
    return withKeyStore(__func__, handle, {cert, label}, {labelArg(label)},
                        [&](KeyStore& s) { return addSigner(s, label, cert, certLength); });
}

ZAVKM_ReturnCode ZAVKM_ReceiveCert(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                   uint32_t certLength, uint8_t makeDefault) noexcept {
    return withKeyStore(__func__, handle, {cert},
                        [&](KeyStore& s) { return s.receive(cert, certLength, makeDefault != 0); });
}

ZAVKM_ReturnCode ZAVKM_ExportCert(ZAVKM_KeyDbHandle handle, const char* label,
                                  const char* certFileName, uint8_t isBase64) noexcept {
    return withKeyStore(__func__, handle, {label, certFileName}, {labelArg(label)},
                        [&](KeyStore& s) -> Rc {
                            X509Ptr cert;
                            if (Rc rc = s.certificate(label, cert); rc != ZAVKM_OK) return rc;
                            return writeCertificateFile(certFileName, cert.get(), isBase64 != 0);
                        });
}

}  // extern "C"
