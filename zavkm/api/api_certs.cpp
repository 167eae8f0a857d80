// api_certs.cpp - making certificates and requests, issuing, receiving, storing, exporting.
#include <unistd.h>

#include "pki/certcache.h"
#include "store/file/entries.h"
#include "base/files.h"
#include "store/file/keyitems.h"
#include "api/session.h"
#include "api/tokenops.h"
#include "store/keystore/keyops.h"
#include "pki/x509records.h"
#include "pki/x509util.h"
#include "zavkm_ext.h"

using namespace zavkm;

namespace {

// withFileThenCommit - runs change(view) in a write view, then writeOut() (may be null work),
// then commits; when the commit fails the written file is removed again, so the database and
// the file agree.
template <class Change, class Write>
Rc withFileThenCommit(KeyDb& kdb, const char* fileName, Change&& change, Write&& writeOut) {
    View v(kdb, true);
    if (v.status() != ZAVKM_OK) return v.status();
    if (Rc rc = change(v); rc != ZAVKM_OK) return rc;
    if (fileName != nullptr)
        if (Rc rc = writeOut(); rc != ZAVKM_OK) return rc;
    Rc rc = commitChange(v);
    if (rc != ZAVKM_OK && fileName != nullptr) ::unlink(fileName);
    return rc;
}

// renewalRequest - a request for renewing cert: its subject and subject alternative names, for
// key (the public half when remote signs), signed with md (SHA-256 when null).
Rc renewalRequest(X509* cert, EVP_PKEY* key, const EVP_MD* md, RemoteSigner* remote,
                  X509ReqPtr& out) {
    ExtStackPtr exts(sk_X509_EXTENSION_new_null());
    if (!exts) return ZAVKM_ERR_MEMORY_ALLOCATE;
    int at = X509_get_ext_by_NID(cert, NID_subject_alt_name, -1);
    if (at >= 0) {
        X509ExtPtr san(X509_EXTENSION_dup(X509_get_ext(cert, at)));
        if (!san || !sk_X509_EXTENSION_push(exts.get(), san.get()))
            return ZAVKM_ERR_MEMORY_ALLOCATE;
        san.release();
    }
    return makeRequest(X509_get_subject_name(cert), key, exts.get(),
                       md != nullptr ? md : EVP_sha256(), out, remote);
}

// reRequest - writes the request of a request key again, signed anew when a signature
// algorithm is given (selector 0 keeps the stored request). For a personal key it makes a new
// request from the certificate's subject and extensions, for renewing that certificate.
Rc reRequest(KeyDb& kdb, const char* label, int32_t signatureAlgorithm, const char* fileName) {
    const EVP_MD* md = nullptr;
    if (signatureAlgorithm != 0)
        if (Rc rc = signatureDigest(signatureAlgorithm, md); rc != ZAVKM_OK) return rc;
    std::optional<RequestRow> request;
    std::optional<KeyRow> row;
    if (Rc rc = readView(kdb, [&](View& v) -> Rc {
            if (Rc found = findRequest(v, label, request); found != ZAVKM_OK || request) return found;
            return findKey(v, label, row);
        });
        rc != ZAVKM_OK)
        return rc;
    if (request) {
        X509ReqPtr req = parseRequest(request->request.data(), request->request.size());
        if (!req) return ZAVKM_ERR_DATABASE_CORRUPTION;
        if (md == nullptr) return fileName != nullptr ? writeRequestFile(fileName, req.get()) : 0;
        PkeyPtr key;
        if (Rc rc = privateKeyOf(kdb, request->privateKey, request->spki, key); rc != ZAVKM_OK)
            return rc;
        if (X509_REQ_sign(req.get(), key.get(), signingDigest(key.get(), md)) <= 0)
            return sslError(ZAVKM_ERR_CRYPTO_SIGN);
        Bytes der = derOf(req.get());
        return withFileThenCommit(
            kdb, fileName,
            [&](View& v) -> Rc {
                std::optional<RequestRow> now;  // read again under the write lock
                if (Rc rc = findRequest(v, label, now); rc != ZAVKM_OK) return rc;
                if (!now || now->id != request->id) return ZAVKM_ERR_KEY_GET_BY_LABEL;
                return updateRequest(v, *now, der);
            },
            [&] { return writeRequestFile(fileName, req.get()); });
    }
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    PkeyPtr key;
    if (Rc rc = privateKeyOf(kdb, row->privateKey, row->spki, key); rc != ZAVKM_OK) return rc;
    X509Ptr cert = parseCertificate(row->cert.data(), row->cert.size());
    if (!cert) return ZAVKM_ERR_DATABASE_CORRUPTION;
    X509ReqPtr req;
    if (Rc rc = renewalRequest(cert.get(), key.get(), md, nullptr, req); rc != ZAVKM_OK) return rc;
    return fileName != nullptr ? writeRequestFile(fileName, req.get()) : ZAVKM_OK;
}

// tokenReRequest - reRequest on a token: the token's key signs. A request signed anew replaces
// the request object (the file is written first and removed again when that fails); its
// subject, key and extensions are those of the stored request.
Rc tokenReRequest(TokenStore& t, const char* label, int32_t signatureAlgorithm,
                  const char* fileName) {
    const EVP_MD* md = nullptr;
    if (signatureAlgorithm != 0) {
        if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
        if (Rc rc = signatureDigest(signatureAlgorithm, md); rc != ZAVKM_OK) return rc;
    }
    std::vector<Bytes> stored;
    if (Rc rc = objectValues(t, TokenObject::Request, label, stored); rc != ZAVKM_OK) return rc;
    const bool isRequest = !stored.empty();
    if (!isRequest)
        if (Rc rc = objectValues(t, TokenObject::Certificate, label, stored); rc != ZAVKM_OK)
            return rc;
    if (stored.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    const Bytes& der = stored.front();
    X509ReqPtr old = isRequest ? parseRequest(der.data(), der.size()) : nullptr;
    X509Ptr cert = isRequest ? nullptr : parseCertificate(der.data(), der.size());
    if (!old && !cert) return ZAVKM_ERR_ASN;
    if (isRequest && md == nullptr)
        return fileName != nullptr ? writeRequestFile(fileName, old.get()) : ZAVKM_OK;
    EVP_PKEY* pub = isRequest ? X509_REQ_get0_pubkey(old.get()) : X509_get0_pubkey(cert.get());
    if (pub == nullptr) return sslError(ZAVKM_ERR_ASN);
    TokenKey key;
    if (Rc rc = tokenKeyFor(t, pub, key); rc != ZAVKM_OK) return rc;
    TokenSigner signer(t, key);
    X509ReqPtr req;
    if (!isRequest) {
        if (Rc rc = renewalRequest(cert.get(), pub, md, &signer, req); rc != ZAVKM_OK) return rc;
        return fileName != nullptr ? writeRequestFile(fileName, req.get()) : ZAVKM_OK;
    }
    Owned<STACK_OF(X509_EXTENSION), freeExtStack> exts(X509_REQ_get_extensions(old.get()));
    clearSslErrors();
    if (Rc rc = makeRequest(X509_REQ_get_subject_name(old.get()), pub, exts.get(), md, req, &signer);
        rc != ZAVKM_OK)
        return rc;
    if (fileName != nullptr)
        if (Rc rc = writeRequestFile(fileName, req.get()); rc != ZAVKM_OK) return rc;
    Rc rc = replaceRequest(t, label, derOf(req.get()));
    if (rc != ZAVKM_OK && fileName != nullptr) ::unlink(fileName);
    return rc;
}

// fileIssuer - the issuing certificate and private key under issuerLabel in a key database.
Rc fileIssuer(KeyDb& kdb, const char* issuerLabel, Issuer& out) {
    std::optional<KeyRow> issuer;
    if (Rc rc = readView(kdb, [&](View& v) { return findKey(v, issuerLabel, issuer); }); rc != ZAVKM_OK)
        return rc;
    if (!issuer) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (Rc rc = privateKeyOf(kdb, issuer->privateKey, issuer->spki, out.key); rc != ZAVKM_OK)
        return rc;
    out.cert = parseCertificate(issuer->cert.data(), issuer->cert.size());
    return out.cert ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CORRUPTION;
}

// IssueAsk - what an issue operation is asked for. extensions (DER Extensions) replace those of
// the same type the library adds; with caIssuer set the issuer must be a CA that may issue
// what is asked for.
struct IssueAsk {
    const uint8_t* request = nullptr;
    uint32_t requestLength = 0;
    int32_t version = 3;
    const char* serialNumber = nullptr;
    int32_t validityDays = 0;
    int32_t signatureAlgorithm = 1;
    const uint8_t* extensions = nullptr;
    uint32_t extensionsLength = 0;
    bool caIssuer = false;
};

// isCaRequest - whether exts ask for a CA certificate (basicConstraints CA:TRUE), and its path
// length (-1 when it sets none).
bool isCaRequest(const STACK_OF(X509_EXTENSION) * exts, long& pathLength) {
    pathLength = -1;
    for (int i = 0; i < sk_X509_EXTENSION_num(exts); ++i) {
        X509_EXTENSION* ext = sk_X509_EXTENSION_value(exts, i);
        if (OBJ_obj2nid(X509_EXTENSION_get_object(ext)) != NID_basic_constraints) continue;
        Owned<BASIC_CONSTRAINTS, BASIC_CONSTRAINTS_free> bc(
            static_cast<BASIC_CONSTRAINTS*>(X509V3_EXT_d2i(ext)));
        clearSslErrors();
        if (!bc || bc->ca == 0) return false;
        if (bc->pathlen != nullptr) pathLength = ASN1_INTEGER_get(bc->pathlen);
        return true;
    }
    return false;
}

// checkCaIssuer - ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS unless issuer is a CA
// (basicConstraints CA:TRUE, keyCertSign when it has a key usage) and, when exts ask for a CA
// certificate, its path length leaves room for one below it.
Rc checkCaIssuer(X509* issuer, const STACK_OF(X509_EXTENSION) * exts) {
    const uint32_t flags = X509_get_extension_flags(issuer);
    if ((flags & EXFLAG_CA) == 0) return ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS;
    if ((flags & EXFLAG_KUSAGE) != 0 && (X509_get_key_usage(issuer) & KU_KEY_CERT_SIGN) == 0)
        return ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS;
    long asked = -1;
    if (!isCaRequest(exts, asked)) return ZAVKM_OK;
    const long room = X509_get_pathlen(issuer);
    if (room == 0 || (room > 0 && asked >= room)) return ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS;
    return ZAVKM_OK;
}

// issued - a certificate for the request, signed by the issuer findIssuer(Issuer&) finds, after
// the request and the arguments have passed their checks.
template <class FindIssuer>
Rc issued(const IssueAsk& ask, FindIssuer&& findIssuer, X509Ptr& out) {
    if (Rc rc = checkValidityDays(ask.validityDays); rc != ZAVKM_OK) return rc;
    const EVP_MD* md = nullptr;
    if (Rc rc = signatureDigest(ask.signatureAlgorithm, md); rc != ZAVKM_OK) return rc;
    Asn1IntPtr serial;
    if (Rc rc = parseSerial(ask.serialNumber, serial); rc != ZAVKM_OK) return rc;
    ExtStackPtr given;
    if (Rc rc = parseExtensions(ask.extensions, ask.extensionsLength, given); rc != ZAVKM_OK)
        return rc;
    X509ReqPtr req;
    if (Rc rc = readRequest(ask.request, ask.requestLength, req); rc != ZAVKM_OK) return rc;
    EVP_PKEY* subjectKey = X509_REQ_get0_pubkey(req.get());
    if (subjectKey == nullptr) return sslError(ZAVKM_ERR_ASN);
    if (X509_REQ_verify(req.get(), subjectKey) != 1)
        return sslError(ZAVKM_ERR_VALIDATION_KEY_SIGNATURE);
    if (Rc rc = checkSignaturePolicy(X509_REQ_get_signature_nid(req.get())); rc != ZAVKM_OK)
        return rc;
    if (Rc rc = checkKeyPolicy(subjectKey); rc != ZAVKM_OK) return rc;
    Issuer issuer;
    if (Rc rc = findIssuer(issuer); rc != ZAVKM_OK) return rc;
    if (ask.caIssuer)
        if (Rc rc = checkCaIssuer(issuer.cert.get(), given.get()); rc != ZAVKM_OK) return rc;

    // The request's subject alternative names, then the extensions given, which replace them.
    ExtStackPtr copied(sk_X509_EXTENSION_new_null());
    Owned<STACK_OF(X509_EXTENSION), freeExtStack> requested(X509_REQ_get_extensions(req.get()));
    clearSslErrors();
    if (!copied) return ZAVKM_ERR_MEMORY_ALLOCATE;
    for (int i = 0; requested && i < sk_X509_EXTENSION_num(requested.get()); ++i) {
        X509_EXTENSION* ext = sk_X509_EXTENSION_value(requested.get(), i);
        if (OBJ_obj2nid(X509_EXTENSION_get_object(ext)) != NID_subject_alt_name) continue;
        X509ExtPtr dup(X509_EXTENSION_dup(ext));
        if (!dup || !sk_X509_EXTENSION_push(copied.get(), dup.get()))
            return ZAVKM_ERR_MEMORY_ALLOCATE;
        dup.release();
    }
    while (sk_X509_EXTENSION_num(given.get()) > 0) {
        X509ExtPtr moved(sk_X509_EXTENSION_shift(given.get()));
        if (!sk_X509_EXTENSION_push(copied.get(), moved.get())) return ZAVKM_ERR_MEMORY_ALLOCATE;
        moved.release();
    }
    CertPlan plan;
    plan.version = ask.version;
    plan.subject = X509_REQ_get_subject_name(req.get());
    plan.subjectKey = subjectKey;
    plan.issuer = issuer.cert.get();
    plan.signingKey = issuer.key.get();
    plan.remote = issuer.remote;
    plan.serial = serial.get();
    plan.days = ask.validityDays;
    plan.md = md;
    plan.extra = ask.version != 1 ? copied.get() : nullptr;
    return makeCertificate(plan, out);
}

// issueOn - issued on a key database or a token, the issuer found under issuerLabel there;
// done(X509*) takes the certificate.
template <class Done>
ZAVKM_ReturnCode issueOn(const char* name, ZAVKM_KeyDbHandle handle, const IssueAsk& ask,
                         const char* issuerLabel, std::initializer_list<const void*> required,
                         Done&& done) noexcept {
    return withStore(
        name, handle, required, {labelArg(issuerLabel)},
        [&](KeyDb& kdb) -> Rc {
            X509Ptr cert;
            if (Rc rc = issued(ask, [&](Issuer& out) { return fileIssuer(kdb, issuerLabel, out); },
                               cert);
                rc != ZAVKM_OK)
                return rc;
            return done(cert.get());
        },
        [&](TokenStore& t) -> Rc {
            TokenIssuer tokenKey(t);
            X509Ptr cert;
            if (Rc rc = issued(ask, [&](Issuer& out) { return tokenKey.find(issuerLabel, out); },
                               cert);
                rc != ZAVKM_OK)
                return rc;
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
    return withStore(
        __func__, handle, {label, certReqFileName}, {labelArg(label)},
        [&](KeyDb& kdb) { return reRequest(kdb, label, 0, certReqFileName); },
        [&](TokenStore& t) { return tokenReRequest(t, label, 0, certReqFileName); });
}

ZAVKM_ReturnCode ZAVKM_ReCreateCertReqSig(ZAVKM_KeyDbHandle handle, const char* label,
                                          int32_t signatureAlgorithm, const char* certReqFileName,
                                          const void*, const void*) noexcept {
    return withStore(__func__, handle, {label}, {labelArg(label)}, [&](KeyDb& kdb) -> Rc {
        if (signatureAlgorithm != 1 && signatureAlgorithm != 2)
            return ZAVKM_ERR_SIGNATURE_ALGORITHM;
        return reRequest(kdb, label, signatureAlgorithm, certReqFileName);
    }, [&](TokenStore& t) -> Rc {
        if (signatureAlgorithm != 1 && signatureAlgorithm != 2)
            return ZAVKM_ERR_SIGNATURE_ALGORITHM;
        return tokenReRequest(t, label, signatureAlgorithm, certReqFileName);
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
    return withStore(__func__, handle, {cert, label}, {labelArg(label)}, [&](KeyDb& kdb) -> Rc {
        if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
        X509Ptr x509;
        if (Rc rc = readCertificate(cert, certLength, x509); rc != ZAVKM_OK) return rc;
        KeyRow row;
        if (Rc rc = signerRowOf(x509.get(), row); rc != ZAVKM_OK) return rc;
        row.label = label;
        row.trusted = true;  // a stored signer certificate is a trust anchor
        return writeView(kdb, [&](View& v) { return insertKey(v, row, x509.get()); });
    }, [&](TokenStore& t) { return tokenStoreSigner(t, cert, certLength, label); });
}

ZAVKM_ReturnCode ZAVKM_ReceiveCert(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                   uint32_t certLength, uint8_t makeDefault) noexcept {
    return withStore(__func__, handle, {cert}, [&](KeyDb& kdb) -> Rc {
        X509Ptr x509;
        if (Rc rc = readCertificate(cert, certLength, x509); rc != ZAVKM_OK) return rc;
        if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(x509.get())); rc != ZAVKM_OK)
            return rc;
        EVP_PKEY* key = X509_get0_pubkey(x509.get());
        if (key == nullptr) return sslError(ZAVKM_ERR_ASN);
        Bytes spki = spkiOf(key);
        return writeView(kdb, [&](View& v) -> Rc {
                std::vector<RequestRow> requests;
                if (Rc rc = findRequestsBySpki(v, spki, requests); rc != ZAVKM_OK) return rc;
                if (requests.empty()) return ZAVKM_ERR_REQKEY_FOR_CERT_NULL;
                const RequestRow& request = requests.front();
                KeyRow row;
                row.label = request.label;
                row.cert = derOf(x509.get());
                row.spki = spki;
                row.subject = derOf(X509_get_subject_name(x509.get()));
                row.keyType = request.keyType;
                row.keyBits = request.keyBits;
                row.privateKey = request.privateKey;  // sealed to the public key: still valid
                row.isDefault = makeDefault != 0;
                if (Rc rc = deleteRequest(v, request.label); rc != ZAVKM_OK) return rc;
                return insertKey(v, row, x509.get());
            });
    }, [&](TokenStore& t) { return tokenReceive(t, cert, certLength); });
}

ZAVKM_ReturnCode ZAVKM_ExportCert(ZAVKM_KeyDbHandle handle, const char* label,
                                  const char* certFileName, uint8_t isBase64) noexcept {
    return withStore(__func__, handle, {label, certFileName}, {labelArg(label)}, [&](KeyDb& kdb) -> Rc {
        std::optional<KeyRow> row;
        if (Rc rc = readView(kdb, [&](View& v) { return findKey(v, label, row); }); rc != ZAVKM_OK)
            return rc;
        if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
        X509Ptr cert = parseCertificate(row->cert.data(), row->cert.size());
        if (!cert) return ZAVKM_ERR_DATABASE_CORRUPTION;
        return writeCertificateFile(certFileName, cert.get(), isBase64 != 0);
    }, [&](TokenStore& t) { return tokenExportCert(t, label, certFileName, isBase64 != 0); });
}

}  // extern "C"
