// pkcs12.cpp - PKCS#12 files.
#include "store/file/pkcs12.h"

#include <algorithm>
#include <optional>
#include <set>

#include "store/file/entries.h"
#include "store/file/epki.h"
#include "base/files.h"
#include "store/file/keyitems.h"
#include "base/ossl.h"
#include "base/state.h"
#include "base/trace.h"
#include "base/utf.h"
#include "pki/x509util.h"

namespace zavkm {
namespace {

// asKey - bytes as a set key.
std::string asKey(const Bytes& b) { return std::string(b.begin(), b.end()); }

// ---- export -------------------------------------------------------------------------------

// ExportEntry - one entry as it goes into the file: a personal key (key and chain), a signer
// certificate (chain of one, no key) or a request key (key and request, no chain).
struct ExportEntry {
    std::string label;
    PkeyPtr key;
    std::vector<X509Ptr> chain;  // the certificate first
    Bytes request;
    bool isDefault = false;
    bool trusted = false;
};

// collectKeys - the personal keys and signer certificates named by labels (all when empty),
// read through the row functions: ZAVKM_ERR_KEY_GET_BY_LABEL for a label that is not there.
Rc collectKeys(View& v, const std::vector<std::string>& labels, std::vector<ExportEntry>& out) {
    const KeyDb& kdb = v.kdb;
    std::vector<KeyRow> rows;
    if (labels.empty()) {  // every key, or 20 when a row is damaged: no backup silently short
        if (Rc rc = allKeys(v, rows); rc != ZAVKM_OK) return rc;
    } else {
        for (const std::string& label : labels) {
            std::optional<KeyRow> row;
            if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
            if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
            rows.push_back(std::move(*row));
        }
    }
    for (const KeyRow& row : rows) {
        ExportEntry e;
        e.label = row.label;
        e.isDefault = row.isDefault;
        e.trusted = row.trusted;
        X509Ptr cert = parseCertificate(row.cert.data(), row.cert.size());
        if (!cert) return ZAVKM_ERR_DATABASE_CORRUPTION;
        if (!row.privateKey.empty()) {
            if (Rc rc = privateKeyOf(kdb, row.privateKey, row.spki, e.key); rc != ZAVKM_OK)
                return rc;
            if (Rc rc = chainOf(v, std::move(cert), e.chain); rc != ZAVKM_OK) return rc;
        } else {
            e.chain.push_back(std::move(cert));
        }
        out.push_back(std::move(e));
    }
    return ZAVKM_OK;
}

// collectRequests - every request key, read through the row functions (checked rows only).
Rc collectRequests(View& v, std::vector<ExportEntry>& out) {
    const KeyDb& kdb = v.kdb;
    std::vector<std::string> labels;
    if (Rc rc = requestLabels(v, labels); rc != ZAVKM_OK) return rc;
    for (const std::string& label : labels) {
        std::optional<RequestRow> row;
        if (Rc rc = findRequest(v, label, row); rc != ZAVKM_OK) return rc;
        if (!row) return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;  // listed, then gone: not whole
        ExportEntry e;
        e.label = row->label;
        e.request = row->request;
        if (Rc rc = privateKeyOf(kdb, row->privateKey, row->spki, e.key); rc != ZAVKM_OK) return rc;
        out.push_back(std::move(e));
    }
    return ZAVKM_OK;
}

// addAttribute - an attribute of type type (V_ASN1_BOOLEAN: TRUE) with oid on bag.
Rc addAttribute(PKCS12_SAFEBAG* bag, const char* oid, int type, const Bytes& value = {}) {
    static const unsigned char kTrue = 0xff;
    const int ok = type == V_ASN1_BOOLEAN
                       ? PKCS12_add1_attr_by_txt(bag, oid, type, &kTrue, -1)
                       : PKCS12_add1_attr_by_txt(bag, oid, type, value.data(), static_cast<int>(value.size()));
    return ok == 1 ? ZAVKM_OK : sslError(ZAVKM_ERR_ASN);
}

// nameBag - label as the bag's friendlyName, keyId (when given) as its localKeyID, and the JDK's
// trusted-certificate mark when javaTrust.
Rc nameBag(PKCS12_SAFEBAG* bag, const std::string& label, const Bytes* keyId, bool javaTrust) {
    // BMPString written here: characters beyond U+FFFF as surrogate pairs, which keytool reads.
    std::optional<Bytes> name = utf8ToUtf16be(label);
    if (!name) return ZAVKM_ERR_PARAMETER;
    if (PKCS12_add_friendlyname_uni(bag, name->data(), static_cast<int>(name->size())) != 1)
        return sslError(ZAVKM_ERR_ASN);
    if (keyId != nullptr && PKCS12_add_localkeyid(bag, const_cast<uint8_t*>(keyId->data()),
                                                  static_cast<int>(keyId->size())) != 1)
        return sslError(ZAVKM_ERR_ASN);
    if (javaTrust) {
        Asn1ObjPtr anyEku(OBJ_txt2obj("2.5.29.37.0", 1));
        if (!anyEku ||
            PKCS12_add1_attr_by_txt(bag, kJavaTrustOid, V_ASN1_OBJECT,
                                    reinterpret_cast<const unsigned char*>(anyEku.get()), -1) != 1)
            return sslError(ZAVKM_ERR_ASN);
    }
    return ZAVKM_OK;
}

// keyIdOf - a localKeyID for one entry: 20 bytes of SHA-256 over its label and certificate (or
// request), so no two entries share one even when they share a certificate.
Bytes keyIdOf(const std::string& label, const Bytes& der) {
    Bytes in(label.begin(), label.end());
    in.push_back(0);
    in.insert(in.end(), der.begin(), der.end());
    Bytes id = sha256(in.data(), in.size());
    id.resize(20);
    return id;
}

// keyIterations - the iterations of each shrouded key of a file holding keys keys: the usual
// count, lowered for large exports so that the whole file stays within the import budget.
int keyIterations(size_t keys) {
    const long left = kPkcs12IterationBudget - 2L * kPkcs12Iterations;  // the MAC, the certificates
    const long each = keys == 0 ? kPkcs12Iterations : left / static_cast<long>(keys);
    return static_cast<int>(std::clamp<long>(each, 1, kPkcs12Iterations));
}

// Bags - the certificate bags and the key bags of a file being built.
struct Bags {
    BagsPtr certs, keys;
    int keyIterations = kPkcs12Iterations;
    const char* password = nullptr;

    PKCS12_SAFEBAG* addCert(X509* cert) {
        STACK_OF(PKCS12_SAFEBAG)* raw = certs.release();
        PKCS12_SAFEBAG* bag = PKCS12_add_cert(&raw, cert);
        certs.reset(raw);
        return bag;
    }
    PKCS12_SAFEBAG* addKey(EVP_PKEY* key) {
        STACK_OF(PKCS12_SAFEBAG)* raw = keys.release();
        PKCS12_SAFEBAG* bag = PKCS12_add_key_ex(&raw, key, 0, keyIterations, NID_aes_256_cbc,
                                                password, nullptr, nullptr);
        keys.reset(raw);
        return bag;
    }
};

// addSigner - a signer certificate: its bag named, marked trusted for Java when it is.
Rc addSigner(Bags& bags, const ExportEntry& e) {
    PKCS12_SAFEBAG* bag = bags.addCert(e.chain.front().get());
    if (bag == nullptr) return sslError(ZAVKM_ERR_ASN);
    return nameBag(bag, e.label, nullptr, e.trusted);
}

// addPersonal - a personal key: its certificate bag and shrouded key bag named and paired by a
// localKeyID, its default and trust flags on the key bag (where keytool does not read them as a
// trusted certificate), then the chain certificates not in the file yet.
Rc addPersonal(Bags& bags, const ExportEntry& e, std::set<std::string>& written) {
    const Bytes certDer = derOf(e.chain.front().get());
    const Bytes keyId = keyIdOf(e.label, certDer);
    PKCS12_SAFEBAG* certBag = bags.addCert(e.chain.front().get());
    if (certBag == nullptr) return sslError(ZAVKM_ERR_ASN);
    if (Rc rc = nameBag(certBag, e.label, &keyId, false); rc != ZAVKM_OK) return rc;
    written.insert(asKey(certDer));
    for (size_t i = 1; i < e.chain.size(); ++i) {
        if (!written.insert(asKey(derOf(e.chain[i].get()))).second) continue;
        if (bags.addCert(e.chain[i].get()) == nullptr) return sslError(ZAVKM_ERR_ASN);
    }
    PKCS12_SAFEBAG* keyBag = bags.addKey(e.key.get());
    if (keyBag == nullptr) return sslError(ZAVKM_ERR_CRYPTO);
    if (Rc rc = nameBag(keyBag, e.label, &keyId, false); rc != ZAVKM_OK) return rc;
    if (e.isDefault)
        if (Rc rc = addAttribute(keyBag, kDefaultOid, V_ASN1_BOOLEAN); rc != ZAVKM_OK) return rc;
    if (e.trusted)
        if (Rc rc = addAttribute(keyBag, kTrustedOid, V_ASN1_BOOLEAN); rc != ZAVKM_OK) return rc;
    return ZAVKM_OK;
}

// addRequest - a request key: a shrouded key bag named, with its request in our attribute and a
// localKeyID that no certificate carries.
Rc addRequest(Bags& bags, const ExportEntry& e) {
    const Bytes keyId = keyIdOf(e.label, e.request);
    PKCS12_SAFEBAG* keyBag = bags.addKey(e.key.get());
    if (keyBag == nullptr) return sslError(ZAVKM_ERR_CRYPTO);
    if (Rc rc = nameBag(keyBag, e.label, &keyId, false); rc != ZAVKM_OK) return rc;
    return addAttribute(keyBag, kRequestOid, V_ASN1_OCTET_STRING, e.request);
}

// buildPkcs12 - the DER PKCS#12 file of entries under password: signers first, then personal
// and request keys.
Rc buildPkcs12(const std::vector<ExportEntry>& entries, const char* password, Bytes& der) {
    Bags bags;
    bags.password = password;
    bags.keyIterations = keyIterations(static_cast<size_t>(
        std::count_if(entries.begin(), entries.end(), [](const ExportEntry& e) { return e.key != nullptr; })));
    std::set<std::string> written;  // certificates already in the file (DER)
    // Signer certificates first, so a chain certificate that is also exported on its own is
    // written once, with its label and trust mark.
    for (const ExportEntry& e : entries) {
        if (e.key) continue;
        if (Rc rc = addSigner(bags, e); rc != ZAVKM_OK) return rc;
        written.insert(asKey(derOf(e.chain.front().get())));
    }
    for (const ExportEntry& e : entries) {
        if (!e.key) continue;
        Rc rc = e.chain.empty() ? addRequest(bags, e) : addPersonal(bags, e, written);
        if (rc != ZAVKM_OK) return rc;
    }
    Owned<STACK_OF(PKCS7), freeAuthSafes> safes;
    STACK_OF(PKCS7)* rawSafes = nullptr;
    if (bags.certs && PKCS12_add_safe_ex(&rawSafes, bags.certs.get(), NID_aes_256_cbc,
                                         kPkcs12Iterations, password, nullptr, nullptr) != 1) {
        safes.reset(rawSafes);
        return sslError(ZAVKM_ERR_CRYPTO);
    }
    if (bags.keys &&
        PKCS12_add_safe_ex(&rawSafes, bags.keys.get(), -1, 0, nullptr, nullptr, nullptr) != 1) {
        safes.reset(rawSafes);
        return sslError(ZAVKM_ERR_CRYPTO);
    }
    safes.reset(rawSafes);
    if (!safes) {  // an empty database still gives a valid, empty PKCS#12 file
        safes.reset(sk_PKCS7_new_null());
        if (!safes) return ZAVKM_ERR_MEMORY_ALLOCATE;
    }
    Pkcs12Ptr p12(PKCS12_add_safes_ex(safes.get(), NID_pkcs7_data, nullptr, nullptr));
    if (!p12) return sslError(ZAVKM_ERR_CRYPTO);
    if (PKCS12_set_mac(p12.get(), password, -1, nullptr, 0, kPkcs12Iterations, EVP_sha256()) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    der = toDer(p12.get(), i2d_PKCS12);
    return der.empty() ? sslError(ZAVKM_ERR_ASN) : ZAVKM_OK;
}

// ---- import -------------------------------------------------------------------------------

// Candidate - the row one entry of the file adds (a personal key or signer certificate, or a
// request key), prepared before its label is chosen.
struct Candidate {
    KeyRow key;
    RequestRow request;
};

// sealed - key, under the key policy, sealed with the database's data key for spki into out.
Rc sealed(const KeyDb& kdb, EVP_PKEY* key, const Bytes& spki, Bytes& out) {
    if (Rc rc = checkKeyPolicy(key); rc != ZAVKM_OK) return rc;
    SecretBytes pkcs8 = pkcs8Of(key);
    if (pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
    return sealPrivateKey(kdb, pkcs8, spki, out);
}

// prepare - the row of every entry (out[i] for entries[i]), private keys sealed and
// certificates checked: the work an import does before it looks at the database, so no lock is
// held for it.
Rc prepare(const KeyDb& kdb, const std::vector<Pkcs12Entry>& entries, std::vector<Candidate>& out) {
    out.assign(entries.size(), Candidate{});
    for (size_t i = 0; i < entries.size(); ++i) {
        const Pkcs12Entry& e = entries[i];
        if (e.kind == Pkcs12Entry::Request) {
            RequestRow& row = out[i].request;
            row.request = e.request;
            row.spki = spkiOf(e.key.get());  // the request holds the same public half
            const KeyInfo info = keyInfo(e.key.get());
            row.keyType = info.algorithm;
            row.keyBits = info.bits;
            if (Rc rc = sealed(kdb, e.key.get(), row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
            continue;
        }
        KeyRow& row = out[i].key;
        if (Rc rc = signerRowOf(e.cert.get(), row); rc != ZAVKM_OK) return rc;
        row.trusted = e.trusted;
        row.isDefault = e.isDefault;
        if (e.kind == Pkcs12Entry::Personal)
            if (Rc rc = sealed(kdb, e.key.get(), row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
    }
    return ZAVKM_OK;
}

// Snapshot - what labels and duplicates depend on, and the file's generation when it was read.
struct Snapshot {
    HeldNames held;
    int64_t generation = 0;
};

// readSnapshot - the snapshot, read through the row functions.
Rc readSnapshot(View& v, Snapshot& out) {
    out = Snapshot{};
    std::vector<std::string> keys, requests;
    std::vector<KeyRow> rows;
    if (Rc rc = keyLabels(v, keys); rc != ZAVKM_OK) return rc;
    if (Rc rc = requestLabels(v, requests); rc != ZAVKM_OK) return rc;
    if (Rc rc = allKeys(v, rows); rc != ZAVKM_OK) return rc;
    out.held.keyLabels.insert(keys.begin(), keys.end());
    out.held.requestLabels.insert(requests.begin(), requests.end());
    for (const KeyRow& r : rows) out.held.certs.insert(asKey(r.cert));
    out.generation = v.meta.generation;
    return ZAVKM_OK;
}

// insertAll - the rows of the entries not skipped, under their chosen labels, in a write view.
Rc insertAll(View& v, const std::vector<Pkcs12Entry>& entries, std::vector<Candidate>& rows) {
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i].skip) continue;
        Candidate& c = rows[i];
        Rc rc = ZAVKM_OK;
        if (entries[i].kind == Pkcs12Entry::Request) {
            c.request.label = entries[i].label;
            rc = insertRequest(v, c.request);
        } else {
            c.key.label = entries[i].label;
            rc = insertKey(v, c.key);
        }
        if (rc != ZAVKM_OK) return rc;
    }
    return ZAVKM_OK;
}

}  // namespace

Rc pkcs12NeedsPassword(const char* fileName, bool& needed) {
    Bytes data;
    Rc rc = readFile(fileName, data);
    if (rc == ZAVKM_ERR_FILE_OPEN_NOT_EXIST) return ZAVKM_ERR_KEYDB_NOT_EXIST;
    if (rc != ZAVKM_OK) return rc;
    Pkcs12Ptr p12 = parsePkcs12(data);
    if (!p12) return ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT;
    needed = PKCS12_mac_present(p12.get()) != 0;
    AuthSafesPtr safes(PKCS12_unpack_authsafes(p12.get()));
    if (!safes) return sslError(ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT);
    for (int i = 0; i < sk_PKCS7_num(safes.get()) && !needed; ++i) {
        PKCS7* safe = sk_PKCS7_value(safes.get(), i);
        if (OBJ_obj2nid(safe->type) != NID_pkcs7_data) {
            needed = true;  // encrypted or enveloped content
            continue;
        }
        BagsPtr bags(PKCS12_unpack_p7data(safe));
        if (!bags) return sslError(ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT);
        for (int j = 0; j < sk_PKCS12_SAFEBAG_num(bags.get()); ++j)
            if (PKCS12_SAFEBAG_get_nid(sk_PKCS12_SAFEBAG_value(bags.get(), j)) ==
                NID_pkcs8ShroudedKeyBag)
                needed = true;
    }
    return ZAVKM_OK;
}

Rc exportPkcs12(KeyDb& kdb, const std::vector<std::string>& labels, const char* fileName,
                const char* password, bool withRequests) {
    if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
    if (isEmpty(password)) return ZAVKM_ERR_PWD_TOO_SHORT;
    std::vector<ExportEntry> entries;
    if (Rc rc = readView(kdb, [&](View& v) -> Rc {
            if (Rc collected = collectKeys(v, labels, entries); collected != ZAVKM_OK)
                return collected;
            return withRequests ? collectRequests(v, entries) : ZAVKM_OK;
        });
        rc != ZAVKM_OK)
        return rc;
    Bytes der;
    if (Rc rc = buildPkcs12(entries, password, der); rc != ZAVKM_OK) return rc;
    trace("PKCS#12 written: %zu entries", entries.size());
    return writeFile(fileName, der, 0600);
}

Rc importPkcs12(KeyDb& kdb, const char* fileName, const char* password) {
    Bytes data;
    if (Rc rc = readFile(fileName, data); rc != ZAVKM_OK) return rc;
    std::vector<Pkcs12Entry> entries;
    if (Rc rc = readPkcs12(data, password, entries); rc != ZAVKM_OK) return rc;
    std::vector<Candidate> rows;
    if (Rc rc = prepare(kdb, entries, rows); rc != ZAVKM_OK) return rc;
    Snapshot snap;
    if (Rc rc = readView(kdb, [&](View& v) { return readSnapshot(v, snap); }); rc != ZAVKM_OK)
        return rc;
    if (Rc rc = choosePkcs12Labels(snap.held, entries); rc != ZAVKM_OK) return rc;
    if (Rc rc = writeView(kdb, [&](View& v) -> Rc {
            if (v.meta.generation != snap.generation) {  // another writer came first: choose again
                if (Rc read = readSnapshot(v, snap); read != ZAVKM_OK) return read;
                if (Rc chosen = choosePkcs12Labels(snap.held, entries); chosen != ZAVKM_OK)
                    return chosen;
            }
            return insertAll(v, entries, rows);
        });
        rc != ZAVKM_OK)
        return rc;
    trace("PKCS#12 imported: %zu candidates", entries.size());
    return ZAVKM_OK;
}

}  // namespace zavkm
