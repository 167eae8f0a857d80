// tokenpkcs12.cpp - PKCS#12 import onto a token.
#include "store/token/tokenpkcs12.h"

#include "base/files.h"
#include "store/token/keyflags.h"
#include "pki/pkcs12read.h"
#include "base/trace.h"

namespace zavkm {
namespace {

// Made - the objects an import made so far; destroyed again unless the import is kept.
class Made {
  public:
    explicit Made(TokenStore& t) : t_(t) {}
    Made(const Made&) = delete;
    Made& operator=(const Made&) = delete;
    ~Made() {
        if (kept_) return;
        for (auto it = objects_.rbegin(); it != objects_.rend(); ++it) (void)destroyHandle(t_, *it);
        for (const TokenKey& key : keys_) destroyKey(t_, key);
    }
    void add(TokenKey key) { keys_.push_back(std::move(key)); }
    void add(CK_OBJECT_HANDLE obj) { objects_.push_back(obj); }
    void keep() { kept_ = true; }

  private:
    TokenStore& t_;
    std::vector<TokenKey> keys_;
    std::vector<CK_OBJECT_HANDLE> objects_;
    bool kept_ = false;
};

// checkPolicy - the certificate's key and signature and the private key under the key policy.
Rc checkPolicy(const Pkcs12Entry& e) {
    if (e.cert) {
        const EVP_PKEY* pub = X509_get0_pubkey(e.cert.get());
        if (pub == nullptr) return sslError(ZAVKM_ERR_ASN);
        if (Rc rc = checkKeyPolicy(pub); rc != ZAVKM_OK) return rc;
        if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(e.cert.get())); rc != ZAVKM_OK)
            return rc;
    }
    return e.key ? checkKeyPolicy(e.key.get()) : ZAVKM_OK;
}

// heldNames - the token's labels (certificates and requests share one space on a token) and
// its certificates.
Rc heldNames(TokenStore& t, HeldNames& out) {
    for (TokenObject kind : {TokenObject::Certificate, TokenObject::Request}) {
        std::vector<std::string> labels;
        if (Rc rc = objectLabels(t, kind, labels); rc != ZAVKM_OK) return rc;
        out.keyLabels.insert(labels.begin(), labels.end());
    }
    out.requestLabels = out.keyLabels;
    const TokenSnapshot* snap = nullptr;
    if (Rc rc = snapshotOf(t, snap); rc != ZAVKM_OK) return rc;
    for (const CertObject& c : snap->certs) out.certs.emplace(c.value.begin(), c.value.end());
    return ZAVKM_OK;
}

// addEntry - the objects of one entry, each recorded in made as soon as it exists.
Rc addEntry(TokenStore& t, const Pkcs12Entry& e, Made& made) {
    CK_OBJECT_HANDLE obj = CK_INVALID_HANDLE;
    if (e.kind == Pkcs12Entry::Signer) {
        Rc rc = storeCertificate(t, e.label, keyIdOf(e.cert.get()), e.cert.get(), &obj);
        if (rc == ZAVKM_OK) made.add(obj);
        return rc;
    }
    TokenKey pair;
    if (Rc rc = importKeyPair(t, e.key.get(), e.label, pair); rc != ZAVKM_OK) return rc;
    const Bytes id = pair.id;
    made.add(std::move(pair));
    Rc rc = e.kind == Pkcs12Entry::Personal
                ? storeCertificate(t, e.label, id, e.cert.get(), &obj)
                : storeRequest(t, e.label, id, e.request, &obj);
    if (rc == ZAVKM_OK) made.add(obj);
    return rc;
}

// markFlags - the default and trust marks the file gives its entries.
void markFlags(const std::vector<Pkcs12Entry>& entries, KeyFlags& flags) {
    for (const Pkcs12Entry& e : entries) {
        if (e.skip) continue;
        if (e.isDefault) flags.defaultLabel = e.label;  // only a personal key carries the mark
        if (e.trusted) flags.trust[e.label] = true;
    }
}

}  // namespace

Rc importPkcs12ToToken(TokenStore& t, const char* fileName, const char* password) {
    if (t.readOnly) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
    Bytes data;
    if (Rc rc = readFile(fileName, data); rc != ZAVKM_OK) return rc;
    std::vector<Pkcs12Entry> entries;
    if (Rc rc = readPkcs12(data, password, entries); rc != ZAVKM_OK) return rc;
    for (const Pkcs12Entry& e : entries)
        if (Rc rc = checkPolicy(e); rc != ZAVKM_OK) return rc;
    HeldNames held;
    if (Rc rc = heldNames(t, held); rc != ZAVKM_OK) return rc;
    if (Rc rc = choosePkcs12Labels(held, entries); rc != ZAVKM_OK) return rc;
    Made made(t);
    for (const Pkcs12Entry& e : entries)
        if (!e.skip)
            if (Rc rc = addEntry(t, e, made); rc != ZAVKM_OK) return rc;
    if (Rc rc = changeKeyFlags(t, [&](KeyFlags& f) { markFlags(entries, f); }); rc != ZAVKM_OK)
        return rc;
    made.keep();
    trace("PKCS#12 imported onto the token: %zu entries", entries.size());
    return ZAVKM_OK;
}

}  // namespace zavkm
