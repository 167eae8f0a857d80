// keyops.cpp - the key-store operations written once for key database files and tokens.
#include "store/keystore/keyops.h"

#include <unistd.h>

#include <openssl/x509v3.h>

#include "base/sizes.h"
#include "base/trace.h"
#include "base/utf.h"
#include "pki/records.h"
#include "pki/x509records.h"

namespace zavkm {

namespace {

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

Rc verifyCodeToRc(int error) {
    switch (error) {
        case X509_V_OK:
            return ZAVKM_OK;
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return ZAVKM_ERR_VALIDATION_KEY_VALIDITY;
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
            return ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND;
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_CERT_UNTRUSTED:
            return ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED;
        case X509_V_ERR_CERT_SIGNATURE_FAILURE:
            return ZAVKM_ERR_VALIDATION_KEY_SIGNATURE;
        case X509_V_ERR_INVALID_CA:
            return ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS;
        case X509_V_ERR_CERT_REVOKED:
            return ZAVKM_ERR_CERT_REVOKED;
        default:
            return ZAVKM_ERR_INVALID_CERT_CHAIN;
    }
}

// validateChain - whether cert chains up to a trusted candidate; the candidates that are not
// trusted may stand in the middle.
Rc validateChain(X509* cert, const std::vector<ChainCandidate>& pool, uint8_t* isValid) {
    X509StorePtr store(X509_STORE_new());
    X509StackPtr untrusted(sk_X509_new_null());
    if (!store || !untrusted) return ZAVKM_ERR_MEMORY_ALLOCATE;
    for (const ChainCandidate& c : pool) {
        if (c.trusted) {
            if (X509_STORE_add_cert(store.get(), c.cert.get()) != 1) clearSslErrors();
        } else if (X509_up_ref(c.cert.get()) == 1 && sk_X509_push(untrusted.get(), c.cert.get()) <= 0) {
            X509_free(c.cert.get());
        }
    }
    X509_STORE_set_flags(store.get(), X509_V_FLAG_PARTIAL_CHAIN);
    X509StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store.get(), cert, untrusted.get()) != 1)
        return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    int ok = X509_verify_cert(ctx.get());
    int error = X509_STORE_CTX_get_error(ctx.get());
    clearSslErrors();
    trace("chain validation: %s", X509_verify_cert_error_string(error));
    if (ok == 1) {
        *isValid = 1;
        return ZAVKM_OK;
    }
    return verifyCodeToRc(error != X509_V_OK ? error : X509_V_ERR_UNSPECIFIED);
}


}  // namespace

Rc issue(KeyStore& store, const IssueAsk& ask, const std::string& issuerLabel, X509Ptr& out) {
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
    X509Ptr issuerCert;
    std::unique_ptr<StoreKey> issuerKey;
    if (Rc rc = store.issuerKey(issuerLabel, issuerCert, issuerKey); rc != ZAVKM_OK) return rc;
    if (ask.caIssuer)
        if (Rc rc = checkCaIssuer(issuerCert.get(), given.get()); rc != ZAVKM_OK) return rc;

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
    plan.issuer = issuerCert.get();
    plan.signingKey = issuerKey->signingKey();
    plan.remote = issuerKey->remote();
    plan.serial = serial.get();
    plan.days = ask.validityDays;
    plan.md = md;
    plan.extra = ask.version != 1 ? copied.get() : nullptr;
    return makeCertificate(plan, out);
}


Rc finishWithOutput(const Output& output, const std::function<Rc()>& stage,
                    const std::function<Rc()>& commit) {
    if (Rc rc = stage(); rc != ZAVKM_OK) return rc;
    if (output.fileName != nullptr)
        if (Rc rc = output.write(); rc != ZAVKM_OK) return rc;
    Rc rc = commit();
    if (rc != ZAVKM_OK && output.fileName != nullptr) ::unlink(output.fileName);
    return rc;
}

namespace {

// NewEntry - what a new certificate or request is made of once its arguments passed their
// checks and its label is free: the digest, the subject, the extensions, a new key pair.
struct NewEntry {
    const EVP_MD* md = nullptr;
    X509NamePtr name;
    ExtStackPtr exts;
    std::unique_ptr<StoreKey> key;
};

// startEntry - the checks every new entry passes, in order (label text, digest, subject,
// extensions, label free), then the key pair: no key is generated for an entry that fails one.
Rc startEntry(KeyStore& store, const char* label, bool forRequest, int32_t signatureAlgorithm,
              const ZAVKM_DNItem* subject, const uint8_t* extensions, uint32_t extensionsLength,
              int32_t keySize, NewEntry& out) {
    if (Rc rc = checkLabelText(label); rc != ZAVKM_OK) return rc;
    if (Rc rc = signatureDigest(signatureAlgorithm, out.md); rc != ZAVKM_OK) return rc;
    if (Rc rc = nameFromDN(subject, out.name); rc != ZAVKM_OK) return rc;
    if (Rc rc = parseExtensions(extensions, extensionsLength, out.exts); rc != ZAVKM_OK) return rc;
    if (Rc rc = store.checkNewLabel(label, forRequest); rc != ZAVKM_OK) return rc;
    return store.generate(keySize, label, out.key);
}

}  // namespace

Rc createSelfSigned(KeyStore& store, const SelfSignedArgs& a) {
    if (Rc rc = checkValidityDays(a.validityDays); rc != ZAVKM_OK) return rc;
    NewEntry entry;
    if (Rc rc = startEntry(store, a.label, false, a.signatureAlgorithm, a.subject, a.extensions,
                           a.extensionsLength, a.keySize, entry);
        rc != ZAVKM_OK)
        return rc;
    Asn1IntPtr serial;
    if (Rc rc = parseSerial(nullptr, serial); rc != ZAVKM_OK) return rc;
    CertPlan plan;
    plan.version = a.version;
    plan.subject = entry.name.get();
    plan.subjectKey = entry.key->publicKey();
    plan.signingKey = entry.key->signingKey();
    plan.remote = entry.key->remote();
    plan.serial = serial.get();
    plan.days = a.validityDays;
    plan.md = entry.md;
    plan.ca = true;
    plan.extra = entry.exts.get();
    X509Ptr cert;
    if (Rc rc = makeCertificate(plan, cert); rc != ZAVKM_OK) return rc;
    const Output output{isEmpty(a.certFileName) ? nullptr : a.certFileName,
                        [&] { return writeCertificateFile(a.certFileName, cert.get(), a.pem); }};
    return store.keepCertificate(*entry.key, a.label, cert.get(), a.makeDefault, output);
}

Rc createRequest(KeyStore& store, const RequestArgs& a) {
    NewEntry entry;
    if (Rc rc = startEntry(store, a.label, true, a.signatureAlgorithm, a.subject, a.extensions,
                           a.extensionsLength, a.keySize, entry);
        rc != ZAVKM_OK)
        return rc;
    X509ReqPtr req;
    if (Rc rc = makeRequest(entry.name.get(), entry.key->signingKey(), entry.exts.get(), entry.md,
                            req, entry.key->remote());
        rc != ZAVKM_OK)
        return rc;
    const Output output{isEmpty(a.requestFileName) ? nullptr : a.requestFileName,
                        [&] { return writeRequestFile(a.requestFileName, req.get()); }};
    return store.keepRequest(*entry.key, a.label, req.get(), output);
}

Rc labelList(KeyStore& store, bool requests, ZAVKM_LabelList** list) {
    *list = nullptr;
    std::vector<std::string> labels;
    Rc rc = requests ? store.requestLabels(labels) : store.keyLabels(labels);
    if (rc != ZAVKM_OK) return rc;
    *list = labelRecords(labels);
    return ZAVKM_OK;
}

Rc recreateRequest(KeyStore& store, const std::string& label, int32_t signatureAlgorithm,
                   const char* fileName) {
    const EVP_MD* md = nullptr;
    if (signatureAlgorithm != 0) {
        if (store.readOnly()) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
        if (Rc rc = signatureDigest(signatureAlgorithm, md); rc != ZAVKM_OK) return rc;
    }
    StoredEntry entry;
    if (Rc rc = store.findEntry(label, entry); rc != ZAVKM_OK) return rc;
    auto written = [&](const X509_REQ* req) {
        return fileName != nullptr ? writeRequestFile(fileName, req) : ZAVKM_OK;
    };
    if (entry.request && md == nullptr) return written(entry.request.get());
    std::unique_ptr<StoreKey> key;
    if (Rc rc = store.entryKey(label, entry, key); rc != ZAVKM_OK) return rc;
    X509ReqPtr req;
    if (entry.cert) {
        if (Rc rc = renewalRequest(entry.cert.get(), key->signingKey(), md, key->remote(), req);
            rc != ZAVKM_OK)
            return rc;
        return written(req.get());
    }
    if (key->remote() == nullptr) {  // signed again as it stands, every attribute kept
        req = std::move(entry.request);
        if (X509_REQ_sign(req.get(), key->signingKey(), signingDigest(key->signingKey(), md)) <= 0)
            return sslError(ZAVKM_ERR_CRYPTO_SIGN);
    } else {  // made anew with its subject and extensions, signed inside the store
        Owned<STACK_OF(X509_EXTENSION), freeExtStack> exts(X509_REQ_get_extensions(entry.request.get()));
        clearSslErrors();
        if (Rc rc = makeRequest(X509_REQ_get_subject_name(entry.request.get()), key->publicKey(),
                                exts.get(), md, req, key->remote());
            rc != ZAVKM_OK)
            return rc;
    }
    const Output output{fileName, [&] { return writeRequestFile(fileName, req.get()); }};
    return store.replaceRequest(label, entry, req.get(), output);
}

Rc validate(KeyStore& store, X509* leaf, std::vector<X509Ptr> extra, uint8_t* isValid) {
    *isValid = 0;
    std::vector<ChainCandidate> pool;
    if (Rc rc = store.chainCandidates(pool); rc != ZAVKM_OK) return rc;
    for (X509Ptr& c : extra) pool.push_back({std::move(c), false});
    return validateChain(leaf, pool, isValid);
}

Rc addSigner(KeyStore& store, const char* label, const uint8_t* der, uint32_t length) {
    if (Rc rc = checkLabelText(label); rc != ZAVKM_OK) return rc;
    X509Ptr cert;
    EVP_PKEY* pub = nullptr;
    if (Rc rc = readPolicyCertificate(der, length, cert, pub); rc != ZAVKM_OK) return rc;
    return store.storeSigner(label, cert.get());
}

Rc isRenewal(KeyStore& store, const uint8_t* der, uint32_t length, uint8_t* renewal) {
    *renewal = 0;
    X509Ptr cert;
    if (Rc rc = readCertificate(der, length, cert); rc != ZAVKM_OK) return rc;
    std::string label;
    if (Rc rc = store.renewalLabel(cert.get(), label); rc != ZAVKM_OK) return rc;
    *renewal = label.empty() ? 0 : 1;
    return ZAVKM_OK;
}

Rc renewWith(KeyStore& store, const uint8_t* der, uint32_t length) {
    X509Ptr cert;
    if (Rc rc = readCertificate(der, length, cert); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(cert.get())); rc != ZAVKM_OK) return rc;
    std::string label;
    if (Rc rc = store.renewalLabel(cert.get(), label); rc != ZAVKM_OK) return rc;
    if (label.empty()) return ZAVKM_ERR_REQKEY_FOR_CERT_NULL;
    return store.renew(label, cert.get());
}

Rc keyItemsByPublicKey(KeyStore& store, const uint8_t* der, uint32_t length,
                       ZAVKM_KeyItemList** list) {
    *list = nullptr;
    if (length == 0 || length > kMaxItemBytes) return ZAVKM_ERR_PARAMETER;
    const unsigned char* p = der;  // re-encoded, so any valid DER form matches
    PkeyPtr key(d2i_PUBKEY(nullptr, &p, static_cast<long>(length)));
    if (!key) return sslError(ZAVKM_ERR_ASN);
    return store.keyItemsBySpki(spkiOf(key.get()), list);
}

}  // namespace zavkm
