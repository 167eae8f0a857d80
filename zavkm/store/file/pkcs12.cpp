// pkcs12.cpp - PKCS#12 files.
#include "pkcs12.h"

#include <openssl/provider.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>

#include "entries.h"
#include "epki.h"
#include "files.h"
#include "keyitems.h"
#include "ossl.h"
#include "state.h"
#include "trace.h"
#include "utf.h"
#include "x509util.h"

namespace zavkm {
namespace {

constexpr char kJavaTrustOid[] = "2.16.840.1.113894.746875.1.1";

void freeAuthSafes(STACK_OF(PKCS7) * s) noexcept { sk_PKCS7_pop_free(s, PKCS7_free); }
void freeBags(STACK_OF(PKCS12_SAFEBAG) * s) noexcept {
    sk_PKCS12_SAFEBAG_pop_free(s, PKCS12_SAFEBAG_free);
}
using AuthSafesPtr = Owned<STACK_OF(PKCS7), freeAuthSafes>;
using BagsPtr = Owned<STACK_OF(PKCS12_SAFEBAG), freeBags>;

// parsePkcs12 - decodes DER data as PKCS#12; null when it is not.
Pkcs12Ptr parsePkcs12(const Bytes& data) {
    const unsigned char* p = data.data();
    Pkcs12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(data.size())));
    if (!p12) clearSslErrors();
    return p12;
}

// Legacy algorithms: the providers this library loaded, released by ZAVKM_CleanAll.
std::mutex providerMutex;
OSSL_PROVIDER* defaultProvider = nullptr;  // guarded by providerMutex
OSSL_PROVIDER* legacyProvider = nullptr;   // guarded by providerMutex

// loadLegacyAlgorithms - makes 3DES and RC2 PKCS#12 files readable (outside FIPS mode only).
// Loading any provider stops the implicit one, so the default provider is loaded with it.
void loadLegacyAlgorithms() {
    std::lock_guard lock(providerMutex);
    if (defaultProvider != nullptr) return;
    defaultProvider = OSSL_PROVIDER_load(nullptr, "default");
    legacyProvider = OSSL_PROVIDER_load(nullptr, "legacy");
    if (legacyProvider == nullptr) trace("legacy provider missing: RC2 files are unreadable");
    clearSslErrors();
}

// asKey - bytes as a set key.
std::string asKey(const Bytes& b) { return std::string(b.begin(), b.end()); }

// ---- export -------------------------------------------------------------------------------

struct ExportEntry {
    std::string label;
    PkeyPtr key;                 // null for a signer certificate
    std::vector<X509Ptr> chain;  // the certificate first
};

Rc collectEntries(View& v, const std::vector<std::string>& labels, std::vector<ExportEntry>& out) {
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

Rc nameBag(PKCS12_SAFEBAG* bag, const std::string& label, const Bytes* keyId, bool trusted) {
    // BMPString written here: characters beyond U+FFFF as surrogate pairs, which keytool reads.
    std::optional<Bytes> name = utf8ToUtf16be(label);
    if (!name) return ZAVKM_ERR_PARAMETER;
    if (PKCS12_add_friendlyname_uni(bag, name->data(), static_cast<int>(name->size())) != 1)
        return sslError(ZAVKM_ERR_ASN);
    if (keyId != nullptr && PKCS12_add_localkeyid(bag, const_cast<uint8_t*>(keyId->data()),
                                                  static_cast<int>(keyId->size())) != 1)
        return sslError(ZAVKM_ERR_ASN);
    if (trusted) {
        Asn1ObjPtr anyEku(OBJ_txt2obj("2.5.29.37.0", 1));
        if (!anyEku ||
            PKCS12_add1_attr_by_txt(bag, kJavaTrustOid, V_ASN1_OBJECT,
                                    reinterpret_cast<const unsigned char*>(anyEku.get()), -1) != 1)
            return sslError(ZAVKM_ERR_ASN);
    }
    return ZAVKM_OK;
}

// keyIterations - the iterations of each shrouded key of a file holding keys keys: the usual
// count, lowered for large exports so that the whole file stays within the import budget.
int keyIterations(size_t keys) {
    const long left = kPkcs12IterationBudget - 2L * kPkcs12Iterations;  // the MAC, the certificates
    const long each = keys == 0 ? kPkcs12Iterations : left / static_cast<long>(keys);
    return static_cast<int>(std::clamp<long>(each, 1, kPkcs12Iterations));
}

Rc buildPkcs12(const std::vector<ExportEntry>& entries, const char* password, Bytes& der) {
    Owned<STACK_OF(PKCS12_SAFEBAG), freeBags> certBags, keyBags;
    const int perKey = keyIterations(static_cast<size_t>(
        std::count_if(entries.begin(), entries.end(), [](const ExportEntry& e) { return e.key != nullptr; })));
    std::set<std::string> written;  // certificates already in the file (DER)
    // Signer certificates first, so a chain certificate that is also exported on its own is
    // written once, with its label and trust mark.
    for (const ExportEntry& e : entries) {
        if (e.key) continue;
        PKCS12_SAFEBAG* raw = nullptr;
        STACK_OF(PKCS12_SAFEBAG)* bags = certBags.release();
        raw = PKCS12_add_cert(&bags, e.chain.front().get());
        certBags.reset(bags);
        if (raw == nullptr) return sslError(ZAVKM_ERR_ASN);
        if (Rc rc = nameBag(raw, e.label, nullptr, true); rc != ZAVKM_OK) return rc;
        written.insert(asKey(derOf(e.chain.front().get())));
    }
    for (const ExportEntry& e : entries) {
        if (!e.key) continue;
        Bytes certDer = derOf(e.chain.front().get());
        Bytes keyId = sha256(certDer.data(), certDer.size());
        keyId.resize(20);
        STACK_OF(PKCS12_SAFEBAG)* bags = certBags.release();
        PKCS12_SAFEBAG* certBag = PKCS12_add_cert(&bags, e.chain.front().get());
        certBags.reset(bags);
        if (certBag == nullptr) return sslError(ZAVKM_ERR_ASN);
        if (Rc rc = nameBag(certBag, e.label, &keyId, false); rc != ZAVKM_OK) return rc;
        written.insert(asKey(certDer));
        for (size_t i = 1; i < e.chain.size(); ++i) {
            Bytes d = derOf(e.chain[i].get());
            if (!written.insert(asKey(d)).second) continue;
            bags = certBags.release();
            PKCS12_SAFEBAG* chainBag = PKCS12_add_cert(&bags, e.chain[i].get());
            certBags.reset(bags);
            if (chainBag == nullptr) return sslError(ZAVKM_ERR_ASN);
        }
        bags = keyBags.release();
        PKCS12_SAFEBAG* keyBag = PKCS12_add_key_ex(&bags, e.key.get(), 0, perKey,
                                                   NID_aes_256_cbc, password, nullptr, nullptr);
        keyBags.reset(bags);
        if (keyBag == nullptr) return sslError(ZAVKM_ERR_CRYPTO);
        if (Rc rc = nameBag(keyBag, e.label, &keyId, false); rc != ZAVKM_OK) return rc;
    }
    Owned<STACK_OF(PKCS7), freeAuthSafes> safes;
    STACK_OF(PKCS7)* rawSafes = nullptr;
    if (certBags && PKCS12_add_safe_ex(&rawSafes, certBags.get(), NID_aes_256_cbc,
                                       kPkcs12Iterations, password, nullptr, nullptr) != 1) {
        safes.reset(rawSafes);
        return sslError(ZAVKM_ERR_CRYPTO);
    }
    if (keyBags &&
        PKCS12_add_safe_ex(&rawSafes, keyBags.get(), -1, 0, nullptr, nullptr, nullptr) != 1) {
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

struct Found {
    std::string name;  // friendlyName, may be empty
    Bytes keyId;       // localKeyID, may be empty
    bool trusted = false;
};
struct FoundKey {
    Found bag;
    PkeyPtr key;
};
struct FoundCert {
    Found bag;
    X509Ptr cert;
    bool used = false;
};

struct Reader {
    const char* password = nullptr;
    int passwordLength = 0;
    long totalIterations = 0;
    std::vector<FoundKey> keys;
    std::vector<FoundCert> certs;

    // admit - counts iterations into the import's work; refused once the budget is passed.
    Rc admit(long iterations) {
        totalIterations += iterations;
        return totalIterations > kPkcs12IterationBudget ? ZAVKM_ERR_PBE_ALG_UNSUPPORT : ZAVKM_OK;
    }

    // admitBags - the iterations the shrouded keys of list ask for, counted before any of
    // them is derived.
    Rc admitBags(const STACK_OF(PKCS12_SAFEBAG) * list, int depth) {
        if (depth > 4) return ZAVKM_ERR_INVALID_PKCS12_DATA;
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(list); ++i) {
            PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(list, i);
            Rc rc = ZAVKM_OK;
            if (PKCS12_SAFEBAG_get_nid(bag) == NID_pkcs8ShroudedKeyBag) {
                const X509_ALGOR* alg = nullptr;
                long iterations = 0;
                X509_SIG_get0(PKCS12_SAFEBAG_get0_pkcs8(bag), &alg, nullptr);
                rc = checkPbe(alg, iterations);
                if (rc == ZAVKM_OK) rc = admit(iterations);
            } else if (PKCS12_SAFEBAG_get_nid(bag) == NID_safeContentsBag) {
                rc = admitBags(PKCS12_SAFEBAG_get0_safes(bag), depth + 1);
            }
            if (rc != ZAVKM_OK) return rc;
        }
        return ZAVKM_OK;
    }

    // admitVisible - every count the file shows before a key is derived: the MAC's, the
    // encrypted safes' and the shrouded keys' of the plain safes.
    Rc admitVisible(PKCS12* p12, const STACK_OF(PKCS7) * safes) {
        if (PKCS12_mac_present(p12)) {
            const ASN1_INTEGER* iter = nullptr;
            PKCS12_get0_mac(nullptr, nullptr, nullptr, &iter, p12);
            long n = iter != nullptr ? ASN1_INTEGER_get(iter) : 1;
            if (n <= 0 || n > static_cast<long>(kMaxPbeIterations))
                return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
            if (Rc rc = admit(n); rc != ZAVKM_OK) return rc;
        }
        for (int i = 0; i < sk_PKCS7_num(safes); ++i) {
            PKCS7* safe = sk_PKCS7_value(safes, i);
            Rc rc = ZAVKM_ERR_INVALID_PKCS12_DATA;
            switch (OBJ_obj2nid(safe->type)) {
                case NID_pkcs7_data: {
                    BagsPtr list(PKCS12_unpack_p7data(safe));
                    rc = list ? admitBags(list.get(), 0) : sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
                    break;
                }
                case NID_pkcs7_encrypted: {
                    long iterations = 0;
                    if (safe->d.encrypted == nullptr || safe->d.encrypted->enc_data == nullptr)
                        return ZAVKM_ERR_INVALID_PKCS12_DATA;
                    rc = checkPbe(safe->d.encrypted->enc_data->algorithm, iterations);
                    if (rc == ZAVKM_OK) rc = admit(iterations);
                    break;
                }
                default:
                    return ZAVKM_ERR_INVALID_PKCS12_DATA;
            }
            if (rc != ZAVKM_OK) return rc;
        }
        return ZAVKM_OK;
    }

    static Found describe(PKCS12_SAFEBAG* bag) {
        Found f;
        const ASN1_TYPE* name = PKCS12_SAFEBAG_get0_attr(bag, NID_friendlyName);
        if (name != nullptr && name->type == V_ASN1_BMPSTRING) {
            const ASN1_STRING* s = name->value.bmpstring;
            f.name = utf16beToUtf8(ASN1_STRING_get0_data(s), static_cast<size_t>(ASN1_STRING_length(s))).value_or("");
        } else if (name != nullptr && name->type == V_ASN1_UTF8STRING) {
            const ASN1_STRING* s = name->value.utf8string;
            std::string_view text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(s)),
                                  static_cast<size_t>(ASN1_STRING_length(s)));
            if (utf8ToUtf16be(text)) f.name = text;  // sound UTF-8 without NUL only
        }
        const ASN1_TYPE* id = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
        if (id != nullptr && id->type == V_ASN1_OCTET_STRING) {
            const ASN1_OCTET_STRING* s = id->value.octet_string;
            f.keyId.assign(ASN1_STRING_get0_data(s),
                           ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
        }
        const STACK_OF(X509_ATTRIBUTE)* attrs = PKCS12_SAFEBAG_get0_attrs(bag);
        Asn1ObjPtr trust(OBJ_txt2obj(kJavaTrustOid, 1));
        for (int i = 0; trust && i < sk_X509_ATTRIBUTE_num(attrs); ++i)
            if (OBJ_cmp(X509_ATTRIBUTE_get0_object(sk_X509_ATTRIBUTE_value(attrs, i)),
                        trust.get()) == 0)
                f.trusted = true;
        clearSslErrors();
        return f;
    }

    Rc bags(const STACK_OF(PKCS12_SAFEBAG) * list, int depth) {
        if (depth > 4) return ZAVKM_ERR_INVALID_PKCS12_DATA;
        for (int i = 0; i < sk_PKCS12_SAFEBAG_num(list); ++i) {
            PKCS12_SAFEBAG* bag = sk_PKCS12_SAFEBAG_value(list, i);
            switch (PKCS12_SAFEBAG_get_nid(bag)) {
                case NID_keyBag: {
                    PkeyPtr key(EVP_PKCS82PKEY(PKCS12_SAFEBAG_get0_p8inf(bag)));
                    if (!key) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
                    keys.push_back({describe(bag), std::move(key)});
                    break;
                }
                case NID_pkcs8ShroudedKeyBag: {
                    P8InfPtr p8(
                        PKCS12_decrypt_skey_ex(bag, password, passwordLength, nullptr, nullptr));
                    if (!p8) return sslError(ZAVKM_ERR_PKCS12_PWD_CORRUPTION);
                    PkeyPtr key(EVP_PKCS82PKEY(p8.get()));
                    if (!key) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
                    keys.push_back({describe(bag), std::move(key)});
                    break;
                }
                case NID_certBag: {
                    if (PKCS12_SAFEBAG_get_bag_nid(bag) != NID_x509Certificate) break;
                    X509Ptr cert(PKCS12_SAFEBAG_get1_cert(bag));
                    if (!cert || !wellFormed(cert.get())) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
                    certs.push_back({describe(bag), std::move(cert), false});
                    break;
                }
                case NID_safeContentsBag:
                    if (Rc rc = bags(PKCS12_SAFEBAG_get0_safes(bag), depth + 1); rc != ZAVKM_OK)
                        return rc;
                    break;
                default:
                    break;  // CRLs and secrets are not kept
            }
        }
        return ZAVKM_OK;
    }

    Rc read(const Bytes& data) {
        Pkcs12Ptr p12 = parsePkcs12(data);
        if (!p12) return ZAVKM_ERR_INVALID_PKCS12_DATA;
        if (!fipsMode()) loadLegacyAlgorithms();
        AuthSafesPtr safes(PKCS12_unpack_authsafes(p12.get()));
        if (!safes) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
        if (Rc rc = admitVisible(p12.get(), safes.get()); rc != ZAVKM_OK) return rc;
        if (PKCS12_mac_present(p12.get())) {
            const X509_ALGOR* macAlg = nullptr;
            PKCS12_get0_mac(nullptr, &macAlg, nullptr, nullptr, p12.get());
            const ASN1_OBJECT* macObj = nullptr;
            X509_ALGOR_get0(&macObj, nullptr, nullptr, macAlg);
            int macNid = OBJ_obj2nid(macObj);
            if (fipsMode() && (macNid == NID_sha1 || macNid == NID_md5))
                return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
            if (PKCS12_verify_mac(p12.get(), password, passwordLength) != 1) {
                // An empty password may have been written as "no password" (or the reverse).
                if (passwordLength != 0 || PKCS12_verify_mac(p12.get(), nullptr, 0) != 1)
                    return sslError(ZAVKM_ERR_PKCS12_PWD_CORRUPTION);
                password = nullptr;
            }
            clearSslErrors();
        }
        for (int i = 0; i < sk_PKCS7_num(safes.get()); ++i) {
            PKCS7* safe = sk_PKCS7_value(safes.get(), i);
            BagsPtr list;
            switch (OBJ_obj2nid(safe->type)) {
                case NID_pkcs7_data:
                    list.reset(PKCS12_unpack_p7data(safe));
                    break;
                case NID_pkcs7_encrypted: {
                    if (safe->d.encrypted == nullptr || safe->d.encrypted->enc_data == nullptr)
                        return ZAVKM_ERR_INVALID_PKCS12_DATA;
                    list.reset(PKCS12_unpack_p7encdata(safe, password, passwordLength));
                    if (!list) return sslError(ZAVKM_ERR_PKCS12_PWD_CORRUPTION);
                    if (Rc rc = admitBags(list.get(), 0); rc != ZAVKM_OK) return rc;  // now seen
                    break;
                }
                default:
                    return ZAVKM_ERR_INVALID_PKCS12_DATA;
            }
            if (!list) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
            if (Rc rc = bags(list.get(), 0); rc != ZAVKM_OK) return rc;
        }
        return ZAVKM_OK;
    }
};

// Planner - turns what the file holds into rows, choosing and checking labels.
struct Planner {
    std::set<std::string> taken;  // labels in the database and planned
    std::vector<KeyRow> rows;

    Rc claim(const std::string& label) {
        if (checkLabel(label.c_str()) != ZAVKM_OK) return ZAVKM_ERR_PARAMETER;
        if (!taken.insert(label).second) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
        return ZAVKM_OK;
    }

    std::string unique(const std::string& base) {
        std::string label = base;
        for (int n = 2; taken.count(label) != 0; ++n) label = base + " (" + std::to_string(n) + ")";
        taken.insert(label);
        return label;
    }
};

Rc plan(View& v, Reader& in, Planner& out) {
    const KeyDb& kdb = v.kdb;
    std::vector<std::string> existing;
    if (Rc rc = keyLabels(v, existing); rc != ZAVKM_OK) return rc;
    out.taken.insert(existing.begin(), existing.end());
    std::set<std::string> stored;  // certificates the database holds already (DER)
    std::vector<KeyRow> all;
    if (Rc rc = allKeys(v, all); rc != ZAVKM_OK) return rc;
    for (const KeyRow& r : all) stored.insert(asKey(r.cert));

    for (FoundKey& k : in.keys) {  // each key with its certificate
        FoundCert* match = nullptr;
        for (FoundCert& c : in.certs)
            if (!c.used && !k.bag.keyId.empty() && c.bag.keyId == k.bag.keyId) match = &c;
        for (FoundCert& c : in.certs)
            if (match == nullptr && !c.used && sameKey(X509_get0_pubkey(c.cert.get()), k.key.get()))
                match = &c;
        if (match == nullptr) return ZAVKM_ERR_KEYREC_CERTIFICATE_NULL;
        if (!sameKey(X509_get0_pubkey(match->cert.get()), k.key.get()))
            return ZAVKM_ERR_VALIDATION_KEY_PAIR;
        match->used = true;
        KeyRow row;
        if (Rc rc = signerRowOf(match->cert.get(), row); rc != ZAVKM_OK) return rc;
        std::string name = !k.bag.name.empty() ? k.bag.name : match->bag.name;
        if (!name.empty()) {
            if (Rc rc = out.claim(name); rc != ZAVKM_OK) return rc;
            row.label = name;
        } else {
            row.label = out.unique(commonNameOf(match->cert.get()));
        }
        row.trusted = match->bag.trusted;
        SecretBytes pkcs8 = pkcs8Of(k.key.get());
        if (pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
        if (Rc rc = checkKeyPolicy(k.key.get()); rc != ZAVKM_OK) return rc;
        if (Rc rc = sealPrivateKey(kdb, pkcs8, row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
        out.rows.push_back(std::move(row));
    }
    for (FoundCert& c : in.certs) {  // the rest are signer certificates
        if (c.used) continue;
        KeyRow row;
        if (Rc rc = signerRowOf(c.cert.get(), row); rc != ZAVKM_OK) return rc;
        if (!stored.insert(asKey(row.cert)).second) continue;  // held already, or twice in the file
        if (!c.bag.name.empty()) {
            if (Rc rc = out.claim(c.bag.name); rc != ZAVKM_OK) return rc;
            row.label = c.bag.name;
        } else {
            row.label = out.unique(commonNameOf(c.cert.get()));
        }
        row.trusted = true;
        out.rows.push_back(std::move(row));
    }
    return ZAVKM_OK;
}

}  // namespace

void unloadLegacyAlgorithms() noexcept {
    std::lock_guard lock(providerMutex);
    if (legacyProvider != nullptr) OSSL_PROVIDER_unload(legacyProvider);
    if (defaultProvider != nullptr) OSSL_PROVIDER_unload(defaultProvider);
    legacyProvider = defaultProvider = nullptr;
}

Rc pkcs12NeedsPassword(const char* fileName, bool& needed) noexcept {
    return guarded([&]() -> Rc {
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
    });
}

Rc exportPkcs12(KeyDb& kdb, const std::vector<std::string>& labels, const char* fileName,
                const char* password) noexcept {
    return guarded([&]() -> Rc {
        if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
        if (isEmpty(password)) return ZAVKM_ERR_PWD_TOO_SHORT;
        std::vector<ExportEntry> entries;
        if (Rc rc = readView(kdb, [&](View& v) { return collectEntries(v, labels, entries); });
            rc != ZAVKM_OK)
            return rc;
        Bytes der;
        if (Rc rc = buildPkcs12(entries, password, der); rc != ZAVKM_OK) return rc;
        trace("PKCS#12 written: %zu entries", entries.size());
        return writeFile(fileName, der, 0600);
    });
}

Rc importPkcs12(KeyDb& kdb, const char* fileName, const char* password) noexcept {
    return guarded([&]() -> Rc {
        Bytes data;
        if (Rc rc = readFile(fileName, data); rc != ZAVKM_OK) return rc;
        Reader in;
        in.password = password;
        in.passwordLength = static_cast<int>(std::strlen(password));
        if (Rc rc = in.read(data); rc != ZAVKM_OK) return rc;
        Planner out;
        if (Rc rc = writeView(kdb, [&](View& v) -> Rc {
                if (Rc planned = plan(v, in, out); planned != ZAVKM_OK) return planned;
                for (KeyRow& row : out.rows)
                    if (Rc added = insertKey(v, row); added != ZAVKM_OK) return added;
                return ZAVKM_OK;
            });
            rc != ZAVKM_OK)
            return rc;
        trace("PKCS#12 imported: %zu entries", out.rows.size());
        return ZAVKM_OK;
    });
}

}  // namespace zavkm
