// tokenkeys.cpp - a PKCS#11 token as a KeyStore: key pairs generated on the token, signing
// there, certificates and requests stored as its objects; the certificates of the key database
// paired with it complete its chains.
#include "store/token/tokenkeys.h"

#include <algorithm>
#include <cstdlib>

#include "base/utf.h"
#include "pki/certcache.h"
#include "pki/x509records.h"
#include "store/token/p11.h"

namespace zavkm {
namespace {

// TokenPair - a key pair on the token. One generate() made is destroyed again unless kept; one
// that was there already (kept from the start) is left alone.
class TokenPair final : public StoreKey {
  public:
    TokenPair(TokenStore& t, bool kept) : t_(t), signer_(t, key_), kept_(kept) {}
    ~TokenPair() override {
        if (!kept_) destroyKey(t_, key_);
    }
    EVP_PKEY* publicKey() override { return key_.publicKey.get(); }
    EVP_PKEY* signingKey() override { return key_.publicKey.get(); }
    RemoteSigner* remote() override { return &signer_; }

    TokenKey& key() { return key_; }
    void keep() { kept_ = true; }

  private:
    TokenStore& t_;
    TokenKey key_;
    TokenSigner signer_;
    bool kept_;
};

// keepWithOutput - the output, then store(id) of the key's objects; the key pair stays only
// when both did.
template <class Store>
Rc keepWithOutput(StoreKey& key, const Output& output, Store&& store) {
    auto& made = static_cast<TokenPair&>(key);
    Rc rc = finishWithOutput(output, [] { return ZAVKM_OK; }, [&] { return store(made.key().id); });
    if (rc == ZAVKM_OK) made.keep();
    return rc;
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

// pairedCertificates - the certificates of the key database paired with the token, if any.
Rc pairedCertificates(const PairedStore& paired, std::vector<X509Ptr>& out) {
    if (!paired) return ZAVKM_OK;
    bool any = false;
    return paired(
        [&](KeyStore& s) -> Rc {
            std::vector<ChainCandidate> candidates;
            if (Rc rc = s.chainCandidates(candidates); rc != ZAVKM_OK) return rc;
            for (ChainCandidate& c : candidates) out.push_back(std::move(c.cert));
            return ZAVKM_OK;
        },
        any);
}

// chainOnToken - cert followed by its issuers among the token's certificates and those of its
// secondary key database, up to a self-signed one; at most 16.
Rc chainOnToken(TokenStore& t, const PairedStore& paired, X509Ptr cert, std::vector<X509Ptr>& chain) {
    std::vector<X509Ptr> pool;
    if (Rc rc = allCertificates(t, pool); rc != ZAVKM_OK) return rc;
    if (Rc rc = pairedCertificates(paired, pool); rc != ZAVKM_OK) return rc;
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


// keyItemOf - the key item of one certificate object: its key, its chain, and whether the
// token holds the private key with the certificate's CKA_ID.
Rc keyItemOf(TokenStore& t, const PairedStore& paired, const CertObject& object, KeyItemPtr& out) {
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
    if (Rc rc = chainOnToken(t, paired, std::move(cert), chain); rc != ZAVKM_OK) return rc;
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

Rc keyItemList(TokenStore& t, const PairedStore& paired, const std::vector<CertObject>& objects,
               ZAVKM_KeyItemList** list) {
    return keyItemListOf(
        objects, [&](const CertObject& object, KeyItemPtr& item) { return keyItemOf(t, paired, object, item); },
        list);
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

Rc labelInUse(TokenStore& t, const std::string& label, bool& used) {
    std::vector<Bytes> certs, requests;
    if (Rc rc = objectValues(t, TokenObject::Certificate, label, certs); rc != ZAVKM_OK) return rc;
    if (Rc rc = objectValues(t, TokenObject::Request, label, requests); rc != ZAVKM_OK) return rc;
    used = !certs.empty() || !requests.empty();
    return ZAVKM_OK;
}

Rc TokenKeyStore::keyLabels(std::vector<std::string>& out) {
    return objectLabels(t_, TokenObject::Certificate, out);
}

Rc TokenKeyStore::requestLabels(std::vector<std::string>& out) {
    return objectLabels(t_, TokenObject::Request, out);
}

Rc TokenKeyStore::checkNewLabel(const std::string& label, bool /*forRequest*/) {
    bool used = false;
    if (Rc rc = labelInUse(t_, label, used); rc != ZAVKM_OK) return rc;
    return used ? ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL : ZAVKM_OK;
}

Rc TokenKeyStore::generate(int32_t keySize, const std::string& label,
                           std::unique_ptr<StoreKey>& out) {
    auto made = std::make_unique<TokenPair>(t_, false);
    if (Rc rc = generateTokenKey(t_, keySize, label, made->key()); rc != ZAVKM_OK) {
        made->keep();  // a failed generation destroyed what it made
        return rc;
    }
    out = std::move(made);
    return ZAVKM_OK;
}

Rc TokenKeyStore::keepCertificate(StoreKey& key, const std::string& label, X509* cert,
                                  bool /*makeDefault*/, const Output& output) {
    return keepWithOutput(key, output,
                          [&](const Bytes& id) { return storeCertificate(t_, label, id, cert); });
}

Rc TokenKeyStore::keepRequest(StoreKey& key, const std::string& label, X509_REQ* req,
                              const Output& output) {
    return keepWithOutput(key, output,
                          [&](const Bytes& id) { return storeRequest(t_, label, id, derOf(req)); });
}

Rc TokenKeyStore::findEntry(const std::string& label, StoredEntry& out) {
    std::vector<Bytes> stored;
    if (Rc rc = objectValues(t_, TokenObject::Request, label, stored); rc != ZAVKM_OK) return rc;
    if (!stored.empty()) {
        out.request = parseRequest(stored.front().data(), stored.front().size());
        return out.request ? ZAVKM_OK : ZAVKM_ERR_ASN;
    }
    if (Rc rc = objectValues(t_, TokenObject::Certificate, label, stored); rc != ZAVKM_OK) return rc;
    if (stored.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    out.cert = parseCertificate(stored.front().data(), stored.front().size());
    return out.cert ? ZAVKM_OK : ZAVKM_ERR_ASN;
}

Rc TokenKeyStore::entryKey(const std::string& /*label*/, const StoredEntry& entry,
                           std::unique_ptr<StoreKey>& out) {
    EVP_PKEY* pub = entry.request ? X509_REQ_get0_pubkey(entry.request.get())
                                  : X509_get0_pubkey(entry.cert.get());
    if (pub == nullptr) return sslError(ZAVKM_ERR_ASN);
    auto pair = std::make_unique<TokenPair>(t_, true);
    if (Rc rc = tokenKeyFor(t_, pub, pair->key()); rc != ZAVKM_OK) return rc;
    out = std::move(pair);
    return ZAVKM_OK;
}

// replaceRequest - the file is written first and removed again when the replacement fails.
Rc TokenKeyStore::replaceRequest(const std::string& label, const StoredEntry& /*entry*/,
                                 X509_REQ* req, const Output& output) {
    const Bytes der = derOf(req);
    return finishWithOutput(output, [] { return ZAVKM_OK; },
                            [&] { return zavkm::replaceRequest(t_, label, der); });
}

Rc TokenKeyStore::issuerKey(const std::string& label, X509Ptr& cert,
                            std::unique_ptr<StoreKey>& key) {
    std::vector<X509Ptr> certs;
    if (Rc rc = certificatesLabelled(t_, label, certs); rc != ZAVKM_OK) return rc;
    if (certs.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    EVP_PKEY* pub = X509_get0_pubkey(certs.front().get());
    if (pub == nullptr) return sslError(ZAVKM_ERR_ASN);
    auto pair = std::make_unique<TokenPair>(t_, true);
    if (Rc rc = tokenKeyFor(t_, pub, pair->key()); rc != ZAVKM_OK) return rc;
    cert = std::move(certs.front());
    key = std::move(pair);
    return ZAVKM_OK;
}

Rc TokenKeyStore::keyItem(const std::string& label, KeyItemPtr& out) {
    std::vector<CertObject> objects;
    auto byLabel = [&](const CertObject& c) { return c.label == label; };
    if (Rc rc = matchingCertificates(t_, byLabel, objects); rc != ZAVKM_OK) return rc;
    if (objects.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    return keyItemOf(t_, paired_, objects.front(), out);
}

Rc TokenKeyStore::keyItemList(const std::string& label, ZAVKM_KeyItemList** list) {
    *list = nullptr;
    std::vector<CertObject> objects;
    auto byLabel = [&](const CertObject& c) { return c.label == label; };
    if (Rc rc = matchingCertificates(t_, byLabel, objects); rc != ZAVKM_OK) return rc;
    if (objects.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    return zavkm::keyItemList(t_, paired_, objects, list);
}

Rc TokenKeyStore::keyItemsBySpki(const Bytes& spki, ZAVKM_KeyItemList** list) {
    *list = nullptr;
    std::vector<CertObject> objects;
    auto byKey = [&](const CertObject& c) {
        X509Ptr cert = cachedCertificate(c.value);
        return cert && spkiOf(X509_get0_pubkey(cert.get())) == spki;
    };
    if (Rc rc = matchingCertificates(t_, byKey, objects); rc != ZAVKM_OK) return rc;
    return zavkm::keyItemList(t_, paired_, objects, list);
}

// reqKeyItem - no EPKI: the request key's private key stays on the token.
Rc TokenKeyStore::reqKeyItem(const std::string& label, ReqKeyItemPtr& out) {
    std::vector<Bytes> requests;
    if (Rc rc = objectValues(t_, TokenObject::Request, label, requests); rc != ZAVKM_OK) return rc;
    if (requests.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    X509ReqPtr req = parseRequest(requests.front().data(), requests.front().size());
    EVP_PKEY* pub = req ? X509_REQ_get0_pubkey(req.get()) : nullptr;
    if (pub == nullptr) return ZAVKM_ERR_DATABASE_CORRUPTION;
    const KeyInfo info = keyInfo(pub);
    return reqKeyItemRecord(label, info.algorithm, info.bits, spkiOf(pub), req.get(), out);
}

// privateKeyPresent - a certificate's private key is the one with its own CKA_ID.
Rc TokenKeyStore::privateKeyPresent(const std::string& label, bool& present) {
    present = false;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t_, snap); rc != ZAVKM_OK) return rc;
    bool found = false;
    for (const CertObject& c : snap->certs) {
        if (c.label != label) continue;
        found = true;
        if (hasPrivateKey(*snap, c.id)) present = true;
    }
    return found ? ZAVKM_OK : ZAVKM_ERR_KEY_GET_BY_LABEL;
}

Rc TokenKeyStore::certificate(const std::string& label, X509Ptr& out) {
    std::vector<X509Ptr> certs;
    if (Rc rc = certificatesLabelled(t_, label, certs); rc != ZAVKM_OK) return rc;
    if (certs.empty()) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    out = std::move(certs.front());
    return ZAVKM_OK;
}

// chainCandidates - the token's certificates (its self-signed ones trusted) and those of its
// paired key database (trusted as marked there).
Rc TokenKeyStore::chainCandidates(std::vector<ChainCandidate>& out) {
    std::vector<X509Ptr> certs;
    if (Rc rc = allCertificates(t_, certs); rc != ZAVKM_OK) return rc;
    for (X509Ptr& c : certs) {
        bool anchor = isSelfSigned(c.get());
        out.push_back({std::move(c), anchor});
    }
    if (!paired_) return ZAVKM_OK;
    bool any = false;
    return paired_([&](KeyStore& s) { return s.chainCandidates(out); }, any);
}

// listEntries - every certificate of the token (personal when the token holds the private key
// with its CKA_ID, else a signer; trusted as its CKA_TRUSTED says) with its exact validity in
// 64-bit seconds, then every request key. A certificate object that holds no certificate is
// left out; nothing counts as damaged.
Rc TokenKeyStore::listEntries(uint32_t flags, ZAVKM_Entry** entries, uint32_t* count,
                              uint32_t& damaged) {
    *entries = nullptr;
    *count = 0;
    damaged = 0;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t_, snap); rc != ZAVKM_OK) return rc;
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
    if (Rc rc = requestObjects(t_, requests); rc != ZAVKM_OK) return rc;
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

Rc TokenKeyStore::deleteEntry(const std::string& label, bool /*request*/) {
    return destroyLabelled(t_, label);
}

Rc TokenKeyStore::storeSigner(const std::string& label, X509* cert) {
    if (Rc rc = checkNewLabel(label, false); rc != ZAVKM_OK) return rc;
    return storeCertificate(t_, label, keyIdOf(cert), cert);
}

// receive - the certificate is stored with the request's label next to its key pair and the
// request object removed; a chain that comes with it goes to the paired key database, in a
// change that commits only once the token holds the certificate.
Rc TokenKeyStore::receive(const uint8_t* der, uint32_t length, bool /*makeDefault*/) {
    std::vector<X509Ptr> certs;  // one certificate, or it with its chain (PKCS#7, PEM)
    if (Rc rc = readCertificates(der, length, certs); rc != ZAVKM_OK) return rc;
    std::string label;
    size_t leaf = 0;
    if (Rc rc = requestFor(t_, certs, label, leaf); rc != ZAVKM_OK) return rc;
    X509* cert = certs[leaf].get();
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(cert)); rc != ZAVKM_OK) return rc;
    auto toToken = [&]() -> Rc {
        if (Rc rc = storeCertificate(t_, label, keyIdOf(cert), cert); rc != ZAVKM_OK) return rc;
        return destroyObjects(t_, TokenObject::Request, label);
    };
    if (!paired_ || certs.size() == 1) return toToken();
    std::vector<X509Ptr> chain;
    for (size_t i = 0; i < certs.size(); ++i)
        if (i != leaf) chain.push_back(std::move(certs[i]));
    bool any = false;
    Rc rc = paired_([&](KeyStore& s) { return s.addSignersThen(chain, toToken); }, any);
    return any ? rc : toToken();
}

// renewalLabel - empty when the token holds no private key for cert's key pair.
Rc TokenKeyStore::renewalLabel(X509* cert, std::string& label) {
    label.clear();
    Bytes id = keyIdOf(cert);
    bool hasKey = false;
    if (Rc rc = zavkm::privateKeyPresent(t_, id, hasKey); rc != ZAVKM_OK) return rc;
    return hasKey ? labelWithId(t_, TokenObject::Certificate, id, label) : ZAVKM_OK;
}

Rc TokenKeyStore::renew(const std::string& label, X509* cert) {
    Bytes id = keyIdOf(cert);
    if (Rc rc = destroyWithId(t_, TokenObject::Certificate, id); rc != ZAVKM_OK) return rc;
    return storeCertificate(t_, label, id, cert);
}

// addSignersThen - a token keeps the chains it receives in its paired key database.
Rc TokenKeyStore::addSignersThen(const std::vector<X509Ptr>& /*chain*/,
                                 const std::function<Rc()>& /*then*/) {
    return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
}

Rc tokenKeyFor(TokenStore& t, EVP_PKEY* pub, TokenKey& out) {
    out.id = keyIdOf(pub);
    if (Rc rc = privateKeyWithId(t, out.id, out.privateKey); rc != ZAVKM_OK) return rc;
    if (out.privateKey == CK_INVALID_HANDLE) return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;
    EVP_PKEY_up_ref(pub);
    out.publicKey.reset(pub);
    return ZAVKM_OK;
}

Rc tokenInsertKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                  const EVP_PKEY* privateKey) {
    if (Rc rc = checkLabelText(label); rc != ZAVKM_OK) return rc;
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
    if (Rc rc = checkLabelText(label); rc != ZAVKM_OK) return rc;
    X509ReqPtr req;
    EVP_PKEY* pub = nullptr;
    if (Rc rc = readPolicyRequest(der, length, req, pub); rc != ZAVKM_OK) return rc;
    bool used = false;
    if (Rc rc = labelInUse(t, label, used); rc != ZAVKM_OK) return rc;
    if (used) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    return newKeyPair(t, label, privateKey, pub,
                      [&](const Bytes& id) { return storeRequest(t, label, id, derOf(req.get())); });
}

Rc moduleTokenLabels(const std::string& path, std::vector<std::string>& out) {
    CK_FUNCTION_LIST* f = nullptr;
    if (Rc rc = loadModule(path, f); rc != ZAVKM_OK) return rc;
    return tokenLabels(f, out);
}

}  // namespace zavkm
