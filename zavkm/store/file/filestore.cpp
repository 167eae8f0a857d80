// filestore.cpp - a key database file as a KeyStore: keys made in the process, sealed with the
// database's data key, and every change in one write transaction.
#include "store/file/filestore.h"

#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <set>
#include <utility>

#include "store/file/entries.h"
#include "store/file/keyitems.h"
#include "base/utf.h"

namespace zavkm {
namespace {

// ProcessKey - a key pair generated in this process; nothing of it is stored until kept.
class ProcessKey final : public StoreKey {
  public:
    explicit ProcessKey(PkeyPtr key) : key_(std::move(key)) {}
    EVP_PKEY* publicKey() override { return key_.get(); }
    EVP_PKEY* signingKey() override { return key_.get(); }
    RemoteSigner* remote() override { return nullptr; }

  private:
    PkeyPtr key_;
};

// commitWithOutput - change(view) in a write view, then the output, then the commit.
template <class Change>
Rc commitWithOutput(KeyDb& kdb, const Output& output, Change&& change) {
    View v(kdb, true);
    if (v.status() != ZAVKM_OK) return v.status();
    return finishWithOutput(output, [&] { return change(v); }, [&] { return commitChange(v); });
}

// EntriesOut - a malloc'd array of ZAVKM_Entry (texts and DER malloc'd too), filled as the rows
// are read; the array is freed with what it holds unless it is handed out.
class EntriesOut {
  public:
    EntriesOut() = default;
    EntriesOut(const EntriesOut&) = delete;
    EntriesOut& operator=(const EntriesOut&) = delete;
    ~EntriesOut() { ZAVKM_FreeEntries(out_, static_cast<uint32_t>(n_)); }

    void start(size_t capacity) {
        ZAVKM_FreeEntries(out_, static_cast<uint32_t>(n_));
        n_ = 0;
        capacity_ = capacity;
        out_ = static_cast<ZAVKM_Entry*>(std::calloc(capacity == 0 ? 1 : capacity, sizeof(ZAVKM_Entry)));
        failed_ = out_ == nullptr;
    }
    void take(const EntryRow& r) {
        if (failed_ || n_ == capacity_) {
            failed_ = true;
            return;
        }
        ZAVKM_Entry& e = out_[n_++];
        e.label = strdup(utf8Text(r.label).c_str());
        e.kind = r.kind;
        e.keyType = r.keyType;
        e.keyBits = r.keyBits;
        e.isDefault = static_cast<uint8_t>(r.isDefault);
        e.trusted = static_cast<uint8_t>(r.trusted);
        e.notBefore = r.notBefore;
        e.notAfter = r.notAfter;
        e.rowId = r.rowId;
        if (!r.der.empty()) {
            e.der = static_cast<uint8_t*>(std::malloc(r.der.size()));
            if (e.der != nullptr) std::memcpy(e.der, r.der.data(), r.der.size());
            e.derLength = static_cast<uint32_t>(r.der.size());
        }
        failed_ = e.label == nullptr || (!r.der.empty() && e.der == nullptr);
    }
    // handOut - the entries to the caller; ZAVKM_ERR_MEMORY_ALLOCATE when one could not be made.
    Rc handOut(ZAVKM_Entry** entries, uint32_t* count) {
        if (failed_ || out_ == nullptr) return ZAVKM_ERR_MEMORY_ALLOCATE;
        *entries = std::exchange(out_, nullptr);
        *count = static_cast<uint32_t>(std::exchange(n_, 0));
        return ZAVKM_OK;
    }

  private:
    ZAVKM_Entry* out_ = nullptr;
    size_t n_ = 0, capacity_ = 0;
    bool failed_ = false;
};

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

// keyItemsList - a list of key items for rows.
Rc keyItemsList(View& v, const std::vector<KeyRow>& rows, ZAVKM_KeyItemList** list) {
    return keyItemListOf(
        rows, [&](const KeyRow& row, KeyItemPtr& item) { return keyItemOf(v, row, item); }, list);
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

// sealKey - the private key of key as its row keeps it: PKCS#8, sealed under the data key.
Rc sealKey(const KeyDb& kdb, const EVP_PKEY* key, const Bytes& spki, Bytes& sealed) {
    SecretBytes pkcs8 = pkcs8Of(key);
    if (pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
    return sealPrivateKey(kdb, pkcs8, spki, sealed);
}

// requestColumns - the request's columns of a row: request, spki, key type and size.
Rc requestColumns(const X509_REQ* req, const EVP_PKEY* key, RequestRow& row) {
    row.request = derOf(req);
    row.spki = spkiOf(key);
    const KeyInfo info = keyInfo(key);
    row.keyType = info.algorithm;
    row.keyBits = info.bits;
    return row.request.empty() || row.spki.empty() ? sslError(ZAVKM_ERR_ASN) : ZAVKM_OK;
}

// keyRowOf - the key row under label: ZAVKM_ERR_KEY_GET_BY_LABEL without one.
Rc keyRowOf(View& v, const std::string& label, KeyRow& out) {
    std::optional<KeyRow> row;
    if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    out = std::move(*row);
    return ZAVKM_OK;
}

}  // namespace

Rc FileStore::keyLabels(std::vector<std::string>& out) {
    return readView(kdb_, [&](View& v) { return zavkm::keyLabels(v, out); });
}

Rc FileStore::requestLabels(std::vector<std::string>& out) {
    return readView(kdb_, [&](View& v) { return zavkm::requestLabels(v, out); });
}

Rc FileStore::checkNewLabel(const std::string& label, bool forRequest) {
    return readView(kdb_, [&](View& v) -> Rc {
        if (forRequest) return checkRequestLabelFree(v, label);
        std::optional<KeyRow> existing;
        if (Rc rc = findKey(v, label, existing); rc != ZAVKM_OK) return rc;
        return existing ? ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL : ZAVKM_OK;
    });
}

Rc FileStore::generate(int32_t keySize, const std::string& /*label*/,
                       std::unique_ptr<StoreKey>& out) {
    PkeyPtr key;
    if (Rc rc = generateKey(keySize, key); rc != ZAVKM_OK) return rc;
    out = std::make_unique<ProcessKey>(std::move(key));
    return ZAVKM_OK;
}

Rc FileStore::keepCertificate(StoreKey& key, const std::string& label, X509* cert,
                              bool makeDefault, const Output& output) {
    KeyRow row;
    row.label = label;
    if (Rc rc = certColumns(cert, key.signingKey(), row); rc != ZAVKM_OK) return rc;
    if (Rc rc = sealKey(kdb_, key.signingKey(), row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
    row.isDefault = makeDefault;
    row.trusted = true;  // a self-signed certificate made here is a trust anchor
    return commitWithOutput(kdb_, output, [&](View& v) { return insertKey(v, row, cert); });
}

Rc FileStore::keepRequest(StoreKey& key, const std::string& label, X509_REQ* req,
                          const Output& output) {
    RequestRow row;
    row.label = label;
    if (Rc rc = requestColumns(req, key.signingKey(), row); rc != ZAVKM_OK) return rc;
    if (Rc rc = sealKey(kdb_, key.signingKey(), row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
    return commitWithOutput(kdb_, output, [&](View& v) -> Rc {
        if (Rc rc = checkRequestLabelFree(v, label); rc != ZAVKM_OK) return rc;
        return insertRequest(v, row);
    });
}

Rc FileStore::findEntry(const std::string& label, StoredEntry& out) {
    std::optional<RequestRow> request;
    std::optional<KeyRow> row;
    if (Rc rc = readView(kdb_, [&](View& v) -> Rc {
            if (Rc found = findRequest(v, label, request); found != ZAVKM_OK || request) return found;
            return findKey(v, label, row);
        });
        rc != ZAVKM_OK)
        return rc;
    if (request) {
        out.request = parseRequest(request->request.data(), request->request.size());
        out.id = request->id;
        return out.request ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CORRUPTION;
    }
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    out.cert = parseCertificate(row->cert.data(), row->cert.size());
    out.id = row->id;
    return out.cert ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CORRUPTION;
}

Rc FileStore::entryKey(const std::string& label, const StoredEntry& entry,
                       std::unique_ptr<StoreKey>& out) {
    Bytes sealed, spki;
    if (Rc rc = readView(kdb_, [&](View& v) -> Rc {
            if (entry.request) {
                std::optional<RequestRow> request;
                if (Rc found = findRequest(v, label, request); found != ZAVKM_OK) return found;
                if (!request || request->id != entry.id) return ZAVKM_ERR_KEY_GET_BY_LABEL;
                sealed = std::move(request->privateKey);
                spki = std::move(request->spki);
                return ZAVKM_OK;
            }
            KeyRow row;
            if (Rc found = keyRowOf(v, label, row); found != ZAVKM_OK) return found;
            sealed = std::move(row.privateKey);
            spki = std::move(row.spki);
            return ZAVKM_OK;
        });
        rc != ZAVKM_OK)
        return rc;
    PkeyPtr key;
    if (Rc rc = privateKeyOf(kdb_, sealed, spki, key); rc != ZAVKM_OK) return rc;
    out = std::make_unique<ProcessKey>(std::move(key));
    return ZAVKM_OK;
}

Rc FileStore::replaceRequest(const std::string& label, const StoredEntry& entry, X509_REQ* req,
                             const Output& output) {
    const Bytes der = derOf(req);
    if (der.empty()) return sslError(ZAVKM_ERR_ASN);
    return commitWithOutput(kdb_, output, [&](View& v) -> Rc {
        std::optional<RequestRow> now;  // read again under the write lock
        if (Rc rc = findRequest(v, label, now); rc != ZAVKM_OK) return rc;
        if (!now || now->id != entry.id) return ZAVKM_ERR_KEY_GET_BY_LABEL;
        return updateRequest(v, *now, der);
    });
}

Rc FileStore::issuerKey(const std::string& label, X509Ptr& cert, std::unique_ptr<StoreKey>& key) {
    KeyRow issuer;
    if (Rc rc = readView(kdb_, [&](View& v) { return keyRowOf(v, label, issuer); }); rc != ZAVKM_OK)
        return rc;
    PkeyPtr privateKey;
    if (Rc rc = privateKeyOf(kdb_, issuer.privateKey, issuer.spki, privateKey); rc != ZAVKM_OK)
        return rc;
    cert = parseCertificate(issuer.cert.data(), issuer.cert.size());
    if (!cert) return ZAVKM_ERR_DATABASE_CORRUPTION;
    key = std::make_unique<ProcessKey>(std::move(privateKey));
    return ZAVKM_OK;
}

Rc FileStore::keyItem(const std::string& label, KeyItemPtr& out) {
    return readView(kdb_, [&](View& v) -> Rc {
        KeyRow row;
        if (Rc rc = keyRowOf(v, label, row); rc != ZAVKM_OK) return rc;
        return keyItemOf(v, row, out);
    });
}

Rc FileStore::keyItemList(const std::string& label, ZAVKM_KeyItemList** list) {
    *list = nullptr;
    return readView(kdb_, [&](View& v) -> Rc {
        KeyRow row;
        if (Rc rc = keyRowOf(v, label, row); rc != ZAVKM_OK) return rc;
        return keyItemsList(v, {row}, list);
    });
}

Rc FileStore::keyItemsBySpki(const Bytes& spki, ZAVKM_KeyItemList** list) {
    *list = nullptr;
    return readView(kdb_, [&](View& v) -> Rc {
        std::vector<KeyRow> rows;
        if (Rc rc = findKeysBySpki(v, spki, rows); rc != ZAVKM_OK) return rc;
        return keyItemsList(v, rows, list);
    });
}

Rc FileStore::reqKeyItem(const std::string& label, ReqKeyItemPtr& out) {
    return readView(kdb_, [&](View& v) -> Rc {
        std::optional<RequestRow> row;
        if (Rc found = findRequest(v, label, row); found != ZAVKM_OK) return found;
        if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
        return reqKeyItemOf(kdb_, *row, out);
    });
}

Rc FileStore::privateKeyPresent(const std::string& label, bool& present) {
    present = false;
    return readView(kdb_, [&](View& v) -> Rc {
        std::optional<KeyRow> row;
        if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
        if (row) {
            present = !row->privateKey.empty();
            return ZAVKM_OK;
        }
        std::optional<RequestRow> request;  // a request key always holds its private key
        if (Rc rc = findRequest(v, label, request); rc != ZAVKM_OK) return rc;
        if (!request) return ZAVKM_ERR_KEY_GET_BY_LABEL;
        present = true;
        return ZAVKM_OK;
    });
}

Rc FileStore::certificate(const std::string& label, X509Ptr& out) {
    KeyRow row;
    if (Rc rc = readView(kdb_, [&](View& v) { return keyRowOf(v, label, row); }); rc != ZAVKM_OK)
        return rc;
    out = parseCertificate(row.cert.data(), row.cert.size());
    return out ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CORRUPTION;
}

// chainCandidates - every key is read, or ZAVKM_ERR_DATABASE_KEY_INTEGRITY answers: a damaged
// row may be the anchor.
Rc FileStore::chainCandidates(std::vector<ChainCandidate>& out) {
    std::vector<KeyRow> rows;
    if (Rc rc = readView(kdb_, [&](View& v) { return allKeys(v, rows); }); rc != ZAVKM_OK)
        return rc;
    for (const KeyRow& r : rows)
        if (X509Ptr c = parseCertificate(r.cert.data(), r.cert.size()))
            out.push_back({std::move(c), r.trusted});
    return ZAVKM_OK;
}

Rc FileStore::listEntries(uint32_t flags, ZAVKM_Entry** entries, uint32_t* count,
                          uint32_t& damaged) {
    *entries = nullptr;
    *count = 0;
    damaged = 0;
    EntriesOut out;
    const EntrySink sink{[&out](size_t n) { out.start(n); }, [&out](EntryRow&& r) { out.take(r); }};
    if (Rc rc = readView(kdb_, [&](View& v) {
            return zavkm::listEntries(v, (flags & ZAVKM_LIST_DER) != 0, sink, damaged);
        });
        rc != ZAVKM_OK)
        return rc;
    return out.handOut(entries, count);
}

Rc FileStore::deleteEntry(const std::string& label, bool request) {
    return writeView(kdb_, [&](View& v) {
        return request ? deleteRequest(v, label) : deleteKey(v, label);
    });
}

Rc FileStore::storeSigner(const std::string& label, X509* cert) {
    KeyRow row;
    if (Rc rc = signerRowOf(cert, row); rc != ZAVKM_OK) return rc;
    row.label = label;
    row.trusted = true;  // a stored signer certificate is a trust anchor
    return writeView(kdb_, [&](View& v) { return insertKey(v, row, cert); });
}

Rc FileStore::receive(const uint8_t* der, uint32_t length, bool makeDefault) {
    X509Ptr x509;
    if (Rc rc = readCertificate(der, length, x509); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(x509.get())); rc != ZAVKM_OK) return rc;
    EVP_PKEY* key = X509_get0_pubkey(x509.get());
    if (key == nullptr) return sslError(ZAVKM_ERR_ASN);
    Bytes spki = spkiOf(key);
    return writeView(kdb_, [&](View& v) -> Rc {
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
        row.isDefault = makeDefault;
        if (Rc rc = deleteRequest(v, request.label); rc != ZAVKM_OK) return rc;
        return insertKey(v, row, x509.get());
    });
}

Rc FileStore::renewalLabel(X509* cert, std::string& label) {
    label.clear();
    std::optional<KeyRow> row;
    if (Rc rc = readView(kdb_, [&](View& v) { return personalKeyFor(v, cert, row); }); rc != ZAVKM_OK)
        return rc;
    if (row) label = row->label;
    return ZAVKM_OK;
}

Rc FileStore::renew(const std::string& /*label*/, X509* cert) {
    return writeView(kdb_, [&](View& v) -> Rc {
        std::optional<KeyRow> row;  // found again under the write lock
        if (Rc rc = personalKeyFor(v, cert, row); rc != ZAVKM_OK) return rc;
        if (!row) return ZAVKM_ERR_REQKEY_FOR_CERT_NULL;
        return replaceCertificate(v, *row, derOf(cert), derOf(X509_get_subject_name(cert)));
    });
}

Rc FileStore::addSignersThen(const std::vector<X509Ptr>& chain, const std::function<Rc()>& then) {
    return writeView(kdb_, [&](View& v) -> Rc {
        if (Rc rc = keepChain(v, chain); rc != ZAVKM_OK) return rc;
        return then();
    });
}

Rc fileInsertKey(KeyDb& kdb, const char* label, const uint8_t* cert, uint32_t certLength,
                 const uint8_t* key, uint32_t keyLength, const KeyDecoder& decode,
                 bool makeDefault, bool trusted) {
    if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
    if (key == nullptr && keyLength != 0) return ZAVKM_ERR_NULL_PARAMETER;
    X509Ptr x509;
    EVP_PKEY* publicKey = nullptr;
    if (Rc rc = readPolicyCertificate(cert, certLength, x509, publicKey); rc != ZAVKM_OK)
        return rc;
    KeyRow row;
    row.label = label;
    if (Rc rc = certColumns(x509.get(), publicKey, row); rc != ZAVKM_OK) return rc;
    row.trusted = trusted;
    if (key != nullptr && keyLength != 0) {
        PkeyPtr privateKey;
        if (Rc rc = decode(privateKey); rc != ZAVKM_OK) return rc;
        if (!sameKey(privateKey.get(), publicKey)) return ZAVKM_ERR_VALIDATION_KEY_PAIR;
        if (Rc rc = sealKey(kdb, privateKey.get(), row.spki, row.privateKey); rc != ZAVKM_OK)
            return rc;
        row.isDefault = makeDefault;
    } else if (makeDefault) {
        return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;  // only a personal key can be the default
    }
    return writeView(kdb, [&](View& v) { return insertKey(v, row, x509.get()); });
}

Rc fileInsertReqKey(KeyDb& kdb, const char* label, const uint8_t* request, uint32_t requestLength,
                    const KeyDecoder& decode) {
    if (Rc rc = checkLabel(label); rc != ZAVKM_OK) return rc;
    if (Rc rc = readView(kdb, [&](View& v) { return checkRequestLabelFree(v, label); }); rc != ZAVKM_OK)
        return rc;
    X509ReqPtr req;
    EVP_PKEY* publicKey = nullptr;
    if (Rc rc = readPolicyRequest(request, requestLength, req, publicKey); rc != ZAVKM_OK)
        return rc;
    PkeyPtr privateKey;
    if (Rc rc = decode(privateKey); rc != ZAVKM_OK) return rc;
    if (!sameKey(privateKey.get(), publicKey)) return ZAVKM_ERR_VALIDATION_KEY_PAIR;
    RequestRow row;
    row.label = label;
    if (Rc rc = requestColumns(req.get(), publicKey, row); rc != ZAVKM_OK) return rc;
    if (Rc rc = sealKey(kdb, privateKey.get(), row.spki, row.privateKey); rc != ZAVKM_OK)
        return rc;
    return writeView(kdb, [&](View& v) -> Rc {
        if (Rc rc = checkRequestLabelFree(v, label); rc != ZAVKM_OK) return rc;
        return insertRequest(v, row);
    });
}

Rc fileDefaultKeyItem(KeyDb& kdb, ZAVKM_KeyItem** key) {
    *key = nullptr;
    KeyItemPtr item;
    Rc rc = readView(kdb, [&](View& v) -> Rc {
        std::optional<KeyRow> row;
        if (Rc found = findDefaultKey(v, row); found != ZAVKM_OK) return found;
        if (!row) return ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL;
        return keyItemOf(v, *row, item);
    });
    if (rc != ZAVKM_OK) return rc;
    *key = item.release();
    return ZAVKM_OK;
}

Rc setFileDefault(KeyDb& kdb, const char* label) {
    return writeView(kdb, [&](View& v) -> Rc {
        std::optional<KeyRow> row;
        if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
        if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
        if (row->privateKey.empty()) return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;
        return setDefaultKey(v, label);
    });
}

Rc setFileTrust(KeyDb& kdb, const char* label, bool trusted) {
    return writeView(kdb, [&](View& v) { return setTrusted(v, label, trusted); });
}

Rc initFileStore() noexcept {
    return sqlite3_initialize() == SQLITE_OK ? ZAVKM_OK : ZAVKM_ERR_DATABASE;
}

}  // namespace zavkm
