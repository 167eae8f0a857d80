// api_chain.cpp - certificates from PKCS#7 data, renewal, and chain validation.
#include <openssl/pem.h>

#include "store/file/entries.h"
#include "store/file/keyitems.h"
#include "api/session.h"
#include "base/sizes.h"
#include "api/tokenops.h"
#include "pki/x509records.h"
#include "pki/x509util.h"
#include "zavkm_ext.h"

using namespace zavkm;

namespace {

// personalKeyFor - the first personal key (with private key) holding cert's public key.
Rc personalKeyFor(View& v, X509* cert, std::optional<KeyRow>& out) {
    out.reset();
    EVP_PKEY* key = X509_get0_pubkey(cert);
    if (key == nullptr) return sslError(ZAVKM_ERR_ASN);
    std::vector<KeyRow> rows;
    if (Rc rc = findKeysBySpki(v, spkiOf(key), rows); rc != ZAVKM_OK) return rc;
    for (KeyRow& r : rows)
        if (!r.privateKey.empty()) {
            out = std::move(r);
            break;
        }
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

// fileCandidates - every certificate of a key database, the trusted ones anchors. Every key is
// read, or ZAVKM_ERR_DATABASE_KEY_INTEGRITY answers: a damaged row may be the anchor.
Rc fileCandidates(KeyDb& kdb, std::vector<ChainCandidate>& pool) {
    std::vector<KeyRow> rows;
    if (Rc rc = readView(kdb, [&](View& v) { return allKeys(v, rows); }); rc != ZAVKM_OK)
        return rc;
    for (const KeyRow& r : rows)
        if (X509Ptr c = parseCertificate(r.cert.data(), r.cert.size()))
            pool.push_back({std::move(c), r.trusted});
    return ZAVKM_OK;
}

// validateOn - validation on a key database or a token: the store's certificates are the
// candidates, then readLeaf(X509Ptr&, pool) reads the certificate to validate (and may add
// candidates that are not trusted).
template <class ReadLeaf>
ZAVKM_ReturnCode validateOn(const char* name, ZAVKM_KeyDbHandle handle, const uint8_t* data,
                            uint8_t* isValid, ReadLeaf&& readLeaf) noexcept {
    auto validate = [&](auto&& candidates) -> Rc {
        *isValid = 0;
        std::vector<ChainCandidate> pool;
        if (Rc rc = candidates(pool); rc != ZAVKM_OK) return rc;
        X509Ptr leaf;
        if (Rc rc = readLeaf(leaf, pool); rc != ZAVKM_OK) return rc;
        return validateChain(leaf.get(), pool, isValid);
    };
    return withStore(
        name, handle, {data, isValid},
        [&](KeyDb& kdb) { return validate([&](auto& pool) { return fileCandidates(kdb, pool); }); },
        [&](TokenStore& t) {
            return validate([&](auto& pool) { return tokenChainCandidates(t, pool); });
        });
}

}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_ExtractCertListFromPKCS7Data(const uint8_t* data, uint32_t length,
                                                    ZAVKM_CertItemList** list) noexcept {
    return withLibrary(__func__, {data, list}, [&]() -> Rc {
        *list = nullptr;
        std::vector<X509Ptr> certs;
        if (Rc rc = readCertificates(data, length, certs); rc != ZAVKM_OK) return rc;
        CertItemListPtr out;
        if (Rc rc = certListRecord(certs, out); rc != ZAVKM_OK) return rc;
        *list = out.release();
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_CheckCertAsRenewal(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                          uint32_t certLength, uint8_t* isRenewal) noexcept {
    return withStore(__func__, handle, {cert, isRenewal}, [&](KeyDb& kdb) -> Rc {
        *isRenewal = 0;
        X509Ptr x509;
        if (Rc rc = readCertificate(cert, certLength, x509); rc != ZAVKM_OK) return rc;
        std::optional<KeyRow> row;
        if (Rc rc = readView(kdb, [&](View& v) { return personalKeyFor(v, x509.get(), row); });
            rc != ZAVKM_OK)
            return rc;
        *isRenewal = row ? 1 : 0;
        return ZAVKM_OK;
    }, [&](TokenStore& t) { return tokenIsRenewal(t, cert, certLength, isRenewal); });
}

ZAVKM_ReturnCode ZAVKM_RenewCert(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                 uint32_t certLength) noexcept {
    return withStore(__func__, handle, {cert}, [&](KeyDb& kdb) -> Rc {
        X509Ptr x509;
        if (Rc rc = readCertificate(cert, certLength, x509); rc != ZAVKM_OK) return rc;
        if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(x509.get())); rc != ZAVKM_OK)
            return rc;
        return writeView(kdb, [&](View& v) -> Rc {
            std::optional<KeyRow> row;
            if (Rc rc = personalKeyFor(v, x509.get(), row); rc != ZAVKM_OK) return rc;
            if (!row) return ZAVKM_ERR_REQKEY_FOR_CERT_NULL;
            return replaceCertificate(v, *row, derOf(x509.get()),
                                      derOf(X509_get_subject_name(x509.get())));
        });
    }, [&](TokenStore& t) { return tokenRenew(t, cert, certLength); });
}

ZAVKM_ReturnCode ZAVKM_ValidateCertChain(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                         uint32_t certLength, uint8_t* isValid) noexcept {
    return validateOn(__func__, handle, cert, isValid,
                      [&](X509Ptr& leaf, std::vector<ChainCandidate>&) {
                          return readCertificate(cert, certLength, leaf);
                      });
}

ZAVKM_ReturnCode ZAVKM_ValidateCertChainX(ZAVKM_KeyDbHandle handle, const uint8_t* certs,
                                          uint32_t length, uint8_t* isValid) noexcept {
    return validateOn(__func__, handle, certs, isValid,
                      [&](X509Ptr& leaf, std::vector<ChainCandidate>& pool) -> Rc {
                          std::vector<X509Ptr> read;
                          if (Rc rc = readCertificates(certs, length, read); rc != ZAVKM_OK)
                              return rc;
                          if (read.empty()) return ZAVKM_ERR_ASN;
                          leaf = std::move(read.front());
                          for (size_t i = 1; i < read.size(); ++i)
                              pool.push_back({std::move(read[i]), false});
                          return ZAVKM_OK;
                      });
}

}  // extern "C"
