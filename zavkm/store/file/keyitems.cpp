// keyitems.cpp - key records for the caller.
#include "store/file/keyitems.h"

#include <openssl/provider.h>

#include <deque>
#include <mutex>
#include <set>

#include "pki/certcache.h"
#include "store/file/epki.h"
#include "pki/x509records.h"
#include "pki/x509util.h"

namespace zavkm {
namespace {

// issuedBy - signedBy, remembered: pairs of certificates (by the SHA-256 of their DER) whose
// signature this process verified are not verified again, so reading the same key items again
// and again costs no signature verification. Certificates are immutable bytes; a pair that fails
// is not remembered.
bool issuedBy(X509* cert, X509* issuer) {
    static std::mutex mutex;
    static std::set<Bytes> verified;   // guarded by mutex
    static std::deque<Bytes> order;    // oldest first, to forget them
    if (X509_NAME_cmp(X509_get_issuer_name(cert), X509_get_subject_name(issuer)) != 0) return false;
    Bytes pair(2 * EVP_MAX_MD_SIZE);
    unsigned int a = 0, b = 0;
    if (X509_digest(cert, EVP_sha256(), pair.data(), &a) != 1 ||
        X509_digest(issuer, EVP_sha256(), pair.data() + a, &b) != 1) {
        clearSslErrors();
        return signedBy(cert, issuer);
    }
    pair.resize(a + b);
    {
        std::lock_guard lock(mutex);
        if (verified.count(pair) != 0) return true;
    }
    if (!signedBy(cert, issuer)) return false;
    std::lock_guard lock(mutex);
    if (verified.insert(pair).second) order.push_back(std::move(pair));
    while (order.size() > 4096) {
        verified.erase(order.front());
        order.pop_front();
    }
    return true;
}

// recordCertificate - a stored certificate decoded for its record only, its public key left
// undecoded: the key decoders of OpenSSL cost ten times the rest of a certificate. The library
// context has no provider but the null one, so the opportunistic key decoding finds nothing.
X509Ptr recordCertificate(const Bytes& der) {
    static OSSL_LIB_CTX* const bare = [] {
        OSSL_LIB_CTX* ctx = OSSL_LIB_CTX_new();
        if (ctx != nullptr && OSSL_PROVIDER_load(ctx, "null") == nullptr) {
            OSSL_LIB_CTX_free(ctx);
            ctx = nullptr;
        }
        return ctx;
    }();
    X509* x = bare != nullptr ? X509_new_ex(bare, nullptr) : nullptr;
    const unsigned char* p = der.data();
    X509Ptr cert(x != nullptr ? d2i_X509(&x, &p, static_cast<long>(der.size())) : nullptr);
    if (!cert) X509_free(x);
    clearSslErrors();
    return cert;
}

// ChainLink - one certificate of a key item's chain: the row it comes from and its decoded form.
struct ChainLink {
    KeyRow row;
    X509Ptr cert;  // in full, for verifying what it issued
};

// chainOfRow - row followed by its issuers among the rows (by subject name and signature), up
// to a self-signed one; at most 16. A row known to be self-signed ends it without a signature
// check; a damaged candidate answers ZAVKM_ERR_DATABASE_KEY_INTEGRITY.
Rc chainOfRow(View& v, const KeyRow& row, std::vector<KeyRow>& chain) {
    chain.assign(1, row);
    X509Ptr last;  // the last certificate in full, once an issuer must be found for it
    while (chain.size() < 16 && !chain.back().selfSigned) {
        if (!(last = cachedCertificate(chain.back().cert))) return ZAVKM_ERR_DATABASE_CORRUPTION;
        std::vector<KeyRow> candidates;
        if (Rc rc = findKeysBySubject(v, derOf(X509_get_issuer_name(last.get())), candidates); rc != ZAVKM_OK)
            return rc;
        const KeyRow* next = nullptr;
        for (const KeyRow& c : candidates) {
            X509Ptr candidate = cachedCertificate(c.cert);
            if (candidate && issuedBy(last.get(), candidate.get())) {
                next = &c;
                break;
            }
        }
        if (next == nullptr) break;
        bool seen = false;  // a loop of cross-signed certificates ends the walk
        for (const KeyRow& c : chain) seen = seen || c.cert == next->cert;
        if (seen) break;
        chain.push_back(*next);
    }
    return ZAVKM_OK;
}

}  // namespace

Rc chainOf(View& v, X509Ptr cert, std::vector<X509Ptr>& chain) {
    chain.clear();
    chain.push_back(std::move(cert));
    while (chain.size() < 16) {
        X509* last = chain.back().get();
        if (issuedBy(last, last)) break;  // self-signed
        std::vector<KeyRow> candidates;
        Bytes issuerName = derOf(X509_get_issuer_name(last));
        if (Rc rc = findKeysBySubject(v, issuerName, candidates); rc != ZAVKM_OK) return rc;
        X509Ptr next;
        for (const KeyRow& row : candidates) {
            X509Ptr candidate = cachedCertificate(row.cert);
            if (candidate && issuedBy(last, candidate.get())) {
                next = std::move(candidate);
                break;
            }
        }
        if (!next) break;
        bool seen = false;  // a loop of cross-signed certificates ends the walk
        for (const X509Ptr& c : chain) seen = seen || X509_cmp(c.get(), next.get()) == 0;
        if (seen) break;
        chain.push_back(std::move(next));
    }
    return ZAVKM_OK;
}

Rc privateKeyOf(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki, PkeyPtr& key) {
    if (sealed.empty()) return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;
    SecretBytes pkcs8;
    if (Rc rc = openPrivateKey(kdb, sealed, spki, pkcs8); rc != ZAVKM_OK) return rc;
    key = keyFromPkcs8(pkcs8);
    return key ? ZAVKM_OK : ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
}

namespace {

// epkiOf - the sealed key as an EPKI record.
Rc epkiOf(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki, EPKIPtr& out) {
    SecretBytes pkcs8;
    if (Rc rc = openPrivateKey(kdb, sealed, spki, pkcs8); rc != ZAVKM_OK) return rc;
    Bytes der;
    if (Rc rc = epkiForKeyDb(kdb, pkcs8, der); rc != ZAVKM_OK) return rc;
    EPKIPtr epki(newRecord<ZAVKM_EPKIItem>());
    copyBytes(der, &epki->der, &epki->derLength);
    out = std::move(epki);
    return ZAVKM_OK;
}

}  // namespace

Rc keyItemOf(View& v, const KeyRow& row, KeyItemPtr& out) {
    const KeyDb& kdb = v.kdb;
    KeyItemPtr item(newRecord<ZAVKM_KeyItem>());
    item->shortValue1 = row.keyType;
    item->label = copyText(row.label);
    item->keySize = row.keyBits;
    item->keyFlag1 = row.isDefault ? 1 : 0;
    item->keyFlag2 = row.trusted ? 1 : 0;
    copyBytes(row.spki, &item->keyBer, &item->keyBerLength);
    item->hasKeyBer = 1;
    if (!row.privateKey.empty()) {
        EPKIPtr epki;
        if (Rc rc = epkiOf(kdb, row.privateKey, row.spki, epki); rc != ZAVKM_OK) return rc;
        item->epki = epki.release();
        item->hasPrivateKey = 1;
    }
    std::vector<KeyRow> rows;
    if (Rc rc = chainOfRow(v, row, rows); rc != ZAVKM_OK) return rc;
    std::vector<X509Ptr> chain;
    for (const KeyRow& r : rows) {
        if (!(chain.emplace_back(recordCertificate(r.cert)))) return ZAVKM_ERR_DATABASE_CORRUPTION;
    }
    CertItemListPtr list;
    if (Rc rc = certListRecord(chain, list); rc != ZAVKM_OK) return rc;
    ZAVKM_CertItemList* node = list.get();  // their keys were not decoded: each row knows its size
    for (size_t i = 0; node != nullptr && i < rows.size(); ++i, node = node->next)
        node->cert->shortValue2 = rows[i].keyBits;
    item->certList = list.release();
    item->hasCertList = 1;
    out = std::move(item);
    return ZAVKM_OK;
}

Rc reqKeyItemOf(const KeyDb& kdb, const RequestRow& row, ReqKeyItemPtr& out) {
    X509ReqPtr req = parseRequest(row.request.data(), row.request.size());
    if (!req) return ZAVKM_ERR_DATABASE_CORRUPTION;
    ReqKeyItemPtr item;
    if (Rc rc = reqKeyItemRecord(row.label, row.keyType, row.keyBits, row.spki, req.get(), item);
        rc != ZAVKM_OK)
        return rc;
    EPKIPtr epki;
    if (Rc rc = epkiOf(kdb, row.privateKey, row.spki, epki); rc != ZAVKM_OK) return rc;
    item->epki = epki.release();
    out = std::move(item);
    return ZAVKM_OK;
}

Rc certColumns(X509* cert, const EVP_PKEY* key, KeyRow& row) {
    row.cert = derOf(cert);
    row.spki = spkiOf(key);
    row.subject = derOf(X509_get_subject_name(cert));
    KeyInfo info = keyInfo(key);
    row.keyType = info.algorithm;
    row.keyBits = info.bits;
    return row.cert.empty() || row.spki.empty() ? sslError(ZAVKM_ERR_ASN) : ZAVKM_OK;
}

Rc signerRowOf(X509* cert, KeyRow& row) {
    EVP_PKEY* key = X509_get0_pubkey(cert);
    if (key == nullptr) return sslError(ZAVKM_ERR_ASN);
    if (Rc rc = checkKeyPolicy(key); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(cert)); rc != ZAVKM_OK) return rc;
    return certColumns(cert, key, row);
}

}  // namespace zavkm
