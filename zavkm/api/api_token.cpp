// api_token.cpp - the key-store operations on an open token.
#include <algorithm>
#include <optional>

#include <set>

#include "pki/certcache.h"
#include "store/file/entries.h"
#include "base/files.h"
#include "api/handles.h"
#include "store/file/keyitems.h"
#include "pki/records.h"
#include "store/platform/registry.h"
#include "api/session.h"
#include "api/tokenops.h"
#include "store/token/tokenkeys.h"
#include "base/trace.h"
#include "pki/x509records.h"
#include "pki/x509util.h"
#include "zavkm_ext.h"

namespace zavkm {
namespace {

Rc labelRecords(const std::vector<std::string>& labels, ZAVKM_LabelList** list) {
    LabelListBuilder builder;
    for (const std::string& label : labels) builder.add(label);
    *list = builder.take();
    return ZAVKM_OK;
}

// certificatesLabelled - the decoded certificates with label.
Rc certificatesLabelled(TokenStore& t, const std::string& label, std::vector<X509Ptr>& out) {
    std::vector<Bytes> ders;
    if (Rc rc = objectValues(t, TokenObject::Certificate, label, ders); rc != ZAVKM_OK) return rc;
    for (const Bytes& der : ders) {
        X509Ptr cert = cachedCertificate(der);
        if (!cert) return ZAVKM_ERR_ASN;
        out.push_back(std::move(cert));
    }
    return ZAVKM_OK;
}

// allCertificates - every certificate on the token.
Rc allCertificates(TokenStore& t, std::vector<X509Ptr>& out) {
    std::vector<std::string> labels;
    if (Rc rc = objectLabels(t, TokenObject::Certificate, labels); rc != ZAVKM_OK) return rc;
    std::sort(labels.begin(), labels.end());
    labels.erase(std::unique(labels.begin(), labels.end()), labels.end());
    for (const std::string& label : labels)
        if (Rc rc = certificatesLabelled(t, label, out); rc != ZAVKM_OK) return rc;
    return ZAVKM_OK;
}

// secondaryCertificates - the certificates of the key database paired with the token, if any.
Rc secondaryCertificates(const TokenStore& t, std::vector<X509Ptr>& out) {
    std::shared_ptr<KeyDb> kdb = t.secondary != 0 ? findHandle(t.secondary) : nullptr;
    if (!kdb) return ZAVKM_OK;
    std::lock_guard lock(kdb->mutex);
    std::vector<KeyRow> rows;
    if (Rc rc = readView(*kdb, [&](View& v) { return allKeys(v, rows); }); rc != ZAVKM_OK) return rc;
    for (const KeyRow& row : rows)
        if (X509Ptr cert = parseCertificate(row.cert.data(), row.cert.size())) out.push_back(std::move(cert));
    return ZAVKM_OK;
}

// chainOnToken - cert followed by its issuers among the token's certificates and those of its
// secondary key database, up to a self-signed one; at most 16.
Rc chainOnToken(TokenStore& t, X509Ptr cert, std::vector<X509Ptr>& chain) {
    std::vector<X509Ptr> pool;
    if (Rc rc = allCertificates(t, pool); rc != ZAVKM_OK) return rc;
    if (Rc rc = secondaryCertificates(t, pool); rc != ZAVKM_OK) return rc;
    chain.push_back(std::move(cert));
    while (chain.size() < 16 && !isSelfSigned(chain.back().get())) {
        X509* next = nullptr;
        for (const X509Ptr& c : pool)
            if (next == nullptr && signedBy(chain.back().get(), c.get())) next = c.get();
        if (next == nullptr) break;
        X509_up_ref(next);
        chain.emplace_back(next);
    }
    return ZAVKM_OK;
}

}  // namespace

Rc tokenPrivateKeyPresent(TokenStore& t, const char* label, uint8_t* present) {
    *present = 0;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    bool found = false;
    for (const CertObject& c : snap->certs) {
        if (c.label != label) continue;
        found = true;
        if (hasPrivateKey(*snap, c.id)) *present = 1;  // the certificate's own CKA_ID
    }
    return found ? ZAVKM_OK : ZAVKM_ERR_KEY_GET_BY_LABEL;
}

Rc tokenDelete(TokenStore& t, const char* label) {
    if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
    return destroyLabelled(t, label);
}

namespace {

// keyItemOf - the key item of one certificate object: its key, its chain, and whether the
// token holds the private key with the certificate's CKA_ID.
Rc keyItemOf(TokenStore& t, const CertObject& object, KeyItemPtr& out) {
    X509Ptr cert = cachedCertificate(object.value);
    if (!cert) return ZAVKM_ERR_ASN;
    EVP_PKEY* pub = X509_get0_pubkey(cert.get());
    if (pub == nullptr) return sslError(ZAVKM_ERR_ASN);
    KeyItemPtr item(newRecord<ZAVKM_KeyItem>());
    KeyInfo info = keyInfo(pub);
    item->shortValue1 = info.algorithm;
    item->label = copyText(object.label);
    item->keySize = info.bits;
    copyBytes(spkiOf(pub), &item->keyBer, &item->keyBerLength);
    item->hasKeyBer = 1;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    item->hasPrivateKey = hasPrivateKey(*snap, object.id) ? 1 : 0;  // never leaves: no EPKI
    std::vector<X509Ptr> chain;
    if (Rc rc = chainOnToken(t, std::move(cert), chain); rc != ZAVKM_OK) return rc;
    CertItemListPtr list;
    if (Rc rc = certListRecord(chain, list); rc != ZAVKM_OK) return rc;
    item->certList = list.release();
    item->hasCertList = 1;
    out = std::move(item);
    return ZAVKM_OK;
}

// matchingCertificates - copies of the certificate objects that pass keep.
template <class Keep>
Rc matchingCertificates(TokenStore& t, Keep&& keep, std::vector<CertObject>& out) {
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    for (const CertObject& c : snap->certs)
        if (keep(c)) out.push_back(c);
    return ZAVKM_OK;
}

Rc keyItemList(TokenStore& t, const std::vector<CertObject>& objects, ZAVKM_KeyItemList** list) {
    return keyItemListOf(
        objects, [&](const CertObject& object, KeyItemPtr& item) { return keyItemOf(t, object, item); },
        list);
}

}  // namespace

Rc tokenKeyItem(TokenStore& t, const char* label, ZAVKM_KeyItem** key) {
    *key = nullptr;
    std::vector<CertObject> objects;
    auto byLabel = [&](const CertObject& c) { return c.label == label; };
    if (Rc rc = matchingCertificates(t, byLabel, objects); rc != ZAVKM_OK) return rc;
    if (objects.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    KeyItemPtr item;
    if (Rc rc = keyItemOf(t, objects.front(), item); rc != ZAVKM_OK) return rc;
    *key = item.release();
    return ZAVKM_OK;
}

Rc tokenKeyItemList(TokenStore& t, const char* label, ZAVKM_KeyItemList** list) {
    *list = nullptr;
    std::vector<CertObject> objects;
    auto byLabel = [&](const CertObject& c) { return c.label == label; };
    if (Rc rc = matchingCertificates(t, byLabel, objects); rc != ZAVKM_OK) return rc;
    if (objects.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    return keyItemList(t, objects, list);
}

Rc tokenKeyItemsBySpki(TokenStore& t, const Bytes& spki, ZAVKM_KeyItemList** list) {
    *list = nullptr;
    std::vector<CertObject> objects;
    auto byKey = [&](const CertObject& c) {
        X509Ptr cert = cachedCertificate(c.value);
        return cert && spkiOf(X509_get0_pubkey(cert.get())) == spki;
    };
    if (Rc rc = matchingCertificates(t, byKey, objects); rc != ZAVKM_OK) return rc;
    return keyItemList(t, objects, list);
}

Rc tokenChainCandidates(TokenStore& t, std::vector<ChainCandidate>& out) {
    std::vector<X509Ptr> certs;
    if (Rc rc = allCertificates(t, certs); rc != ZAVKM_OK) return rc;
    for (X509Ptr& c : certs) {
        bool anchor = isSelfSigned(c.get());
        out.push_back({std::move(c), anchor});
    }
    std::shared_ptr<KeyDb> kdb = t.secondary != 0 ? findHandle(t.secondary) : nullptr;
    if (!kdb) return ZAVKM_OK;
    std::lock_guard lock(kdb->mutex);
    std::vector<KeyRow> rows;
    if (Rc rc = readView(*kdb, [&](View& v) { return allKeys(v, rows); }); rc != ZAVKM_OK) return rc;
    for (const KeyRow& r : rows)
        if (X509Ptr c = parseCertificate(r.cert.data(), r.cert.size()))
            out.push_back({std::move(c), r.trusted});
    return ZAVKM_OK;
}

Rc tokenExportCert(TokenStore& t, const char* label, const char* fileName, bool pem) {
    std::vector<X509Ptr> certs;
    if (Rc rc = certificatesLabelled(t, label, certs); rc != ZAVKM_OK) return rc;
    if (certs.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    return writeCertificateFile(fileName, certs.front().get(), pem);
}

// requestFor - the label of the request key on the token that one of certs is for, and which.
Rc requestFor(TokenStore& t, const std::vector<X509Ptr>& certs, std::string& label, size_t& which) {
    std::vector<std::string> labels;
    if (Rc rc = objectLabels(t, TokenObject::Request, labels); rc != ZAVKM_OK) return rc;
    for (const std::string& candidate : labels) {
        std::vector<Bytes> requests;
        if (Rc rc = objectValues(t, TokenObject::Request, candidate, requests); rc != ZAVKM_OK)
            return rc;
        for (const Bytes& r : requests) {
            X509ReqPtr req = parseRequest(r.data(), r.size());
            for (size_t i = 0; req && i < certs.size(); ++i)
                if (sameKey(X509_REQ_get0_pubkey(req.get()), X509_get0_pubkey(certs[i].get()))) {
                    label = candidate;
                    which = i;
                    return ZAVKM_OK;
                }
        }
    }
    return ZAVKM_ERR_KEY_GET_BY_LABEL;
}

// keepChain - adds the certificates of chain that the key database lacks as signer rows (not
// trusted, labelled by their common name made unique), inside the caller's transaction.
Rc keepChain(View& v, const std::vector<X509Ptr>& chain) {
    std::vector<KeyRow> rows;
    if (Rc rc = allKeys(v, rows); rc != ZAVKM_OK) return rc;
    std::set<std::string> stored;  // the certificates it holds, as DER
    for (const KeyRow& r : rows) stored.emplace(r.cert.begin(), r.cert.end());
    std::vector<std::string> taken;
    if (Rc rc = keyLabels(v, taken); rc != ZAVKM_OK) return rc;
    std::set<std::string> labels(taken.begin(), taken.end());
    for (const X509Ptr& c : chain) {
        KeyRow row;
        if (Rc rc = signerRowOf(c.get(), row); rc != ZAVKM_OK) return rc;
        if (!stored.emplace(row.cert.begin(), row.cert.end()).second) continue;
        const std::string base = commonNameOf(c.get());
        row.label = base;
        for (int n = 2; labels.count(row.label) != 0; ++n) row.label = base + " (" + std::to_string(n) + ")";
        labels.insert(row.label);
        if (Rc rc = insertKey(v, row); rc != ZAVKM_OK) return rc;
    }
    return ZAVKM_OK;
}

Rc tokenReceive(TokenStore& t, const uint8_t* der, uint32_t length) {
    std::vector<X509Ptr> certs;  // one certificate, or it with its chain (PKCS#7, PEM)
    if (Rc rc = readCertificates(der, length, certs); rc != ZAVKM_OK) return rc;
    std::string label;
    size_t leaf = 0;
    if (Rc rc = requestFor(t, certs, label, leaf); rc != ZAVKM_OK) return rc;
    X509* cert = certs[leaf].get();
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(cert)); rc != ZAVKM_OK) return rc;
    auto toToken = [&]() -> Rc {
        if (Rc rc = storeCertificate(t, label, keyIdOf(cert), cert); rc != ZAVKM_OK) return rc;
        return destroyObjects(t, TokenObject::Request, label);
    };
    std::shared_ptr<KeyDb> kdb = t.secondary != 0 ? findHandle(t.secondary) : nullptr;
    if (!kdb || certs.size() == 1) return toToken();
    // The chain goes to the paired key database in a transaction that commits only once the
    // token holds the certificate: a failure on either side leaves both as they were.
    std::vector<X509Ptr> chain;
    for (size_t i = 0; i < certs.size(); ++i)
        if (i != leaf) chain.push_back(std::move(certs[i]));
    std::lock_guard lock(kdb->mutex);
    return writeView(*kdb, [&](View& v) -> Rc {
        if (Rc rc = keepChain(v, chain); rc != ZAVKM_OK) return rc;
        return toToken();
    });
}

Rc tokenStoreSigner(TokenStore& t, const uint8_t* der, uint32_t length, const char* label) {
    if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
    X509Ptr cert;
    EVP_PKEY* pub = nullptr;
    if (Rc rc = readPolicyCertificate(der, length, cert, pub); rc != ZAVKM_OK) return rc;
    bool used = false;
    if (Rc rc = labelInUse(t, label, used); rc != ZAVKM_OK) return rc;
    if (used) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    return storeCertificate(t, label, keyIdOf(cert.get()), cert.get());
}

// renewedLabel - the label of the certificate on the token whose key pair cert is for; empty
// when the token has none or no private key for it.
Rc renewedLabel(TokenStore& t, X509* cert, std::string& label) {
    label.clear();
    Bytes id = keyIdOf(cert);
    bool hasKey = false;
    if (Rc rc = privateKeyPresent(t, id, hasKey); rc != ZAVKM_OK) return rc;
    return hasKey ? labelWithId(t, TokenObject::Certificate, id, label) : ZAVKM_OK;
}

Rc tokenIsRenewal(TokenStore& t, const uint8_t* der, uint32_t length, uint8_t* isRenewal) {
    *isRenewal = 0;
    X509Ptr cert;
    if (Rc rc = readCertificate(der, length, cert); rc != ZAVKM_OK) return rc;
    std::string label;
    if (Rc rc = renewedLabel(t, cert.get(), label); rc != ZAVKM_OK) return rc;
    *isRenewal = label.empty() ? 0 : 1;
    return ZAVKM_OK;
}

Rc tokenRenew(TokenStore& t, const uint8_t* der, uint32_t length) {
    X509Ptr cert;
    if (Rc rc = readCertificate(der, length, cert); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(cert.get())); rc != ZAVKM_OK) return rc;
    std::string label;
    if (Rc rc = renewedLabel(t, cert.get(), label); rc != ZAVKM_OK) return rc;
    if (label.empty()) return ZAVKM_ERR_REQKEY_FOR_CERT_NULL;
    Bytes id = keyIdOf(cert.get());
    if (Rc rc = destroyWithId(t, TokenObject::Certificate, id); rc != ZAVKM_OK) return rc;
    return storeCertificate(t, label, id, cert.get());
}

Rc tokenReqKeyItem(TokenStore& t, const char* label, ZAVKM_ReqKeyItem** key) {
    *key = nullptr;
    std::vector<Bytes> requests;
    if (Rc rc = objectValues(t, TokenObject::Request, label, requests); rc != ZAVKM_OK) return rc;
    if (requests.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    X509ReqPtr req = parseRequest(requests.front().data(), requests.front().size());
    EVP_PKEY* pub = req ? X509_REQ_get0_pubkey(req.get()) : nullptr;
    if (pub == nullptr) return ZAVKM_ERR_DATABASE_CORRUPTION;
    const KeyInfo info = keyInfo(pub);
    ReqKeyItemPtr item;
    if (Rc rc = reqKeyItemRecord(label, info.algorithm, info.bits, spkiOf(pub), req.get(), item);
        rc != ZAVKM_OK)
        return rc;
    *key = item.release();
    return ZAVKM_OK;
}

namespace {

// TokenEntry - one line of a token's listing before it becomes a ZAVKM_Entry.
struct TokenEntry {
    std::string label;
    int32_t kind = 0;
    KeyInfo key;
    bool trusted = false;
    int64_t notBefore = 0, notAfter = 0;
    const Bytes* der = nullptr;
};

// entryRecords - the listing as the malloc'd array ZAVKM_FreeEntries releases.
Rc entryRecords(const std::vector<TokenEntry>& rows, bool withDer, ZAVKM_Entry** entries,
                uint32_t* count) {
    const uint32_t n = static_cast<uint32_t>(rows.size());
    auto release = [n](ZAVKM_Entry* p) { ZAVKM_FreeEntries(p, n); };
    std::unique_ptr<ZAVKM_Entry, decltype(release)> out(
        static_cast<ZAVKM_Entry*>(std::calloc(n == 0 ? 1 : n, sizeof(ZAVKM_Entry))), release);
    if (!out) return ZAVKM_ERR_MEMORY_ALLOCATE;
    for (uint32_t i = 0; i < n; ++i) {  // calloc'd: a failure frees what is filled so far
        const TokenEntry& r = rows[i];
        ZAVKM_Entry& e = out.get()[i];
        e.kind = r.kind;
        e.keyType = r.key.algorithm;
        e.keyBits = r.key.bits;
        e.trusted = r.trusted ? 1 : 0;
        e.notBefore = r.notBefore;
        e.notAfter = r.notAfter;
        e.label = copyText(r.label);
        if (withDer) copyBytes(*r.der, &e.der, &e.derLength);
    }
    *entries = out.release();
    *count = n;
    return ZAVKM_OK;
}

}  // namespace

Rc tokenListEntries(TokenStore& t, uint32_t flags, ZAVKM_Entry** entries, uint32_t* count) {
    *entries = nullptr;
    *count = 0;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    std::vector<TokenEntry> rows;
    for (const CertObject& c : snap->certs) {
        X509Ptr cert = cachedCertificate(c.value);
        if (!cert) continue;  // not a certificate this library reads: no entry of its own
        TokenEntry row;
        row.label = c.label;
        row.kind = hasPrivateKey(*snap, c.id) ? ZAVKM_ENTRY_PERSONAL : ZAVKM_ENTRY_SIGNER;
        row.key = keyInfo(X509_get0_pubkey(cert.get()));
        row.trusted = c.trusted;
        row.notBefore = exactTime(X509_get0_notBefore(cert.get()));
        row.notAfter = exactTime(X509_get0_notAfter(cert.get()));
        row.der = &c.value;
        rows.push_back(std::move(row));
    }
    std::vector<std::pair<std::string, Bytes>> requests;
    if (Rc rc = requestObjects(t, requests); rc != ZAVKM_OK) return rc;
    for (const auto& [label, der] : requests) {
        X509ReqPtr req = parseRequest(der.data(), der.size());
        TokenEntry row;
        row.label = label;
        row.kind = ZAVKM_ENTRY_REQUEST;
        row.key = keyInfo(req ? X509_REQ_get0_pubkey(req.get()) : nullptr);
        row.der = &der;
        rows.push_back(std::move(row));
    }
    return entryRecords(rows, (flags & ZAVKM_LIST_DER) != 0, entries, count);
}

namespace {

// newKeyPair - privateKey (matching pub) onto the token with label, then store(id); the key pair
// goes again when store fails.
template <class Store>
Rc newKeyPair(TokenStore& t, const std::string& label, const EVP_PKEY* privateKey,
              const EVP_PKEY* pub, Store&& store) {
    if (!sameKey(privateKey, pub)) return ZAVKM_ERR_VALIDATION_KEY_PAIR;
    TokenKey pair;
    if (Rc rc = importKeyPair(t, privateKey, label, pair); rc != ZAVKM_OK) return rc;
    Rc rc = store(pair.id);
    if (rc != ZAVKM_OK) destroyKey(t, pair);
    return rc;
}

}  // namespace

Rc tokenInsertKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                  const EVP_PKEY* privateKey) {
    if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
    X509Ptr cert;
    EVP_PKEY* pub = nullptr;
    if (Rc rc = readPolicyCertificate(der, length, cert, pub); rc != ZAVKM_OK) return rc;
    bool used = false;
    if (Rc rc = labelInUse(t, label, used); rc != ZAVKM_OK) return rc;
    if (used) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    // Without a key the certificate is personal when the token holds its private key already.
    if (privateKey == nullptr) return storeCertificate(t, label, keyIdOf(cert.get()), cert.get());
    return newKeyPair(t, label, privateKey, pub,
                      [&](const Bytes& id) { return storeCertificate(t, label, id, cert.get()); });
}

Rc tokenInsertReqKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                     const EVP_PKEY* privateKey) {
    if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
    X509ReqPtr req;
    EVP_PKEY* pub = nullptr;
    if (Rc rc = readPolicyRequest(der, length, req, pub); rc != ZAVKM_OK) return rc;
    bool used = false;
    if (Rc rc = labelInUse(t, label, used); rc != ZAVKM_OK) return rc;
    if (used) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    return newKeyPair(t, label, privateKey, pub,
                      [&](const Bytes& id) { return storeRequest(t, label, id, derOf(req.get())); });
}

Rc TokenIssuer::find(const char* label, Issuer& out) {
    std::vector<X509Ptr> certs;
    if (Rc rc = certificatesLabelled(t_, label, certs); rc != ZAVKM_OK) return rc;
    if (certs.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    EVP_PKEY* pub = X509_get0_pubkey(certs.front().get());
    if (pub == nullptr) return sslError(ZAVKM_ERR_ASN);
    if (Rc rc = tokenKeyFor(t_, pub, key_); rc != ZAVKM_OK) return rc;
    EVP_PKEY_up_ref(pub);
    out.key.reset(pub);
    out.cert = std::move(certs.front());
    out.remote = &signer_;
    return ZAVKM_OK;
}

}  // namespace zavkm

using namespace zavkm;

extern "C" {

ZAVKM_ReturnCode ZAVKM_GetCryptoTokenLabelList(const char* moduleName,
                                               ZAVKM_LabelList** list) noexcept {
    return withLibrary(__func__, {moduleName, list}, [&]() -> Rc {
        *list = nullptr;
        std::vector<std::string> labels;
        if (*moduleName == '\0') {  // the platform store's provider names
            std::vector<Provider> providers;
            if (Rc rc = registeredProviders(providers); rc != ZAVKM_OK) return rc;
            for (const Provider& p : providers) labels.push_back(p.name);
            return labelRecords(labels, list);
        }
        if (Rc rc = moduleTokenLabels(moduleName, labels); rc != ZAVKM_OK) return rc;
        return labelRecords(labels, list);
    });
}

ZAVKM_ReturnCode ZAVKM_SetSecondaryKeyDb(ZAVKM_KeyDbHandle token,
                                         ZAVKM_KeyDbHandle secondary) noexcept {
    return withLibrary(__func__, {}, [&]() -> Rc {
        std::shared_ptr<TokenStore> t = findTokenHandle(token);
        if (!t || !findHandle(secondary)) return ZAVKM_ERR_INVALID_DB_HANDLE;
        std::lock_guard lock(t->mutex);
        t->secondary = secondary;
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_UnsetSecondaryKeyDb(ZAVKM_KeyDbHandle token) noexcept {
    return withLibrary(__func__, {}, [&]() -> Rc {
        std::shared_ptr<TokenStore> t = findTokenHandle(token);
        if (!t) return ZAVKM_ERR_INVALID_DB_HANDLE;
        std::lock_guard lock(t->mutex);
        t->secondary = 0;
        return ZAVKM_OK;
    });
}

}  // extern "C"
