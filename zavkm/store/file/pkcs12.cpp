// pkcs12.cpp - PKCS#12 files.
#include "store/file/pkcs12.h"

#include <openssl/provider.h>

#include <algorithm>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

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

// Bag attributes of our own, under the arc 2.25.<a UUID of ours, as a decimal number>. Other
// readers keep them as unknown attributes (keytool) or print them (openssl pkcs12 -info).
constexpr char kDefaultOid[] = "2.25.22339739339984387550878158063804827310.1";  // BOOLEAN TRUE
constexpr char kTrustedOid[] = "2.25.22339739339984387550878158063804827310.2";  // BOOLEAN TRUE
constexpr char kRequestOid[] = "2.25.22339739339984387550878158063804827310.3";  // OCTET STRING

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

// Found - what a bag says of itself in its attributes.
struct Found {
    std::string name;          // friendlyName, canonical; may be empty
    Rc nameRc = ZAVKM_OK;      // ZAVKM_ERR_PARAMETER for a friendlyName that is no text
    Bytes keyId;               // localKeyID, may be empty
    bool javaTrusted = false;  // the JDK's trusted-certificate attribute
    bool isDefault = false;    // ours: the default key
    bool trusted = false;      // ours: a trusted personal key
    Bytes request;             // ours: the request of a request key
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

    // friendlyName - the bag's friendlyName as canonical text; nameRc tells one that is none.
    static void friendlyName(const ASN1_TYPE* name, Found& f) {
        std::optional<std::string> text;
        if (name == nullptr) return;
        const ASN1_STRING* s = name->type == V_ASN1_BMPSTRING     ? name->value.bmpstring
                               : name->type == V_ASN1_UTF8STRING ? name->value.utf8string
                                                                 : nullptr;
        if (s == nullptr) return;  // another type: as if there were none
        const uint8_t* p = ASN1_STRING_get0_data(s);
        const auto n = static_cast<size_t>(ASN1_STRING_length(s));
        text = name->type == V_ASN1_BMPSTRING
                   ? utf16beToUtf8(p, n)
                   : canonicalText(std::string_view(reinterpret_cast<const char*>(p), n));
        if (text) {
            f.name = std::move(*text);
        } else {
            f.nameRc = ZAVKM_ERR_PARAMETER;
        }
    }

    // flag - whether the bag carries the attribute oid with the value BOOLEAN TRUE.
    static bool flag(const STACK_OF(X509_ATTRIBUTE) * attrs, const ASN1_OBJECT* oid) {
        const int at = X509at_get_attr_by_OBJ(attrs, oid, -1);
        const ASN1_TYPE* v = at < 0 ? nullptr : X509_ATTRIBUTE_get0_type(X509at_get_attr(attrs, at), 0);
        return v != nullptr && v->type == V_ASN1_BOOLEAN && v->value.boolean != 0;
    }

    static Found describe(PKCS12_SAFEBAG* bag) {
        Found f;
        friendlyName(PKCS12_SAFEBAG_get0_attr(bag, NID_friendlyName), f);
        const ASN1_TYPE* id = PKCS12_SAFEBAG_get0_attr(bag, NID_localKeyID);
        if (id != nullptr && id->type == V_ASN1_OCTET_STRING) {
            const ASN1_OCTET_STRING* s = id->value.octet_string;
            f.keyId.assign(ASN1_STRING_get0_data(s),
                           ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
        }
        const STACK_OF(X509_ATTRIBUTE)* attrs = PKCS12_SAFEBAG_get0_attrs(bag);
        Asn1ObjPtr java(OBJ_txt2obj(kJavaTrustOid, 1)), isDefault(OBJ_txt2obj(kDefaultOid, 1)),
            trusted(OBJ_txt2obj(kTrustedOid, 1)), request(OBJ_txt2obj(kRequestOid, 1));
        if (java && request && isDefault && trusted) {
            f.javaTrusted = X509at_get_attr_by_OBJ(attrs, java.get(), -1) >= 0;
            f.isDefault = flag(attrs, isDefault.get());
            f.trusted = flag(attrs, trusted.get());
            const int at = X509at_get_attr_by_OBJ(attrs, request.get(), -1);
            const ASN1_TYPE* v = at < 0 ? nullptr : X509_ATTRIBUTE_get0_type(X509at_get_attr(attrs, at), 0);
            if (v != nullptr && v->type == V_ASN1_OCTET_STRING) {
                const ASN1_OCTET_STRING* s = v->value.octet_string;
                f.request.assign(ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s));
            }
        }
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

// ---- planning an import ----------------------------------------------------------------------

// Candidate - a row an import may add, prepared before its label is chosen.
struct Candidate {
    enum Kind { Personal, Signer, Request };
    Kind kind = Signer;
    KeyRow key;          // a personal key or signer certificate
    RequestRow request;  // a request key
    std::string name;    // the label the file gives; empty: made from the common name
    std::string base;    // the common name, for a label made unique
    bool skip = false;   // the database (or the file, before) holds the certificate already
};

// Prepared - every candidate of a file, in the order labels are chosen: personal keys, named
// certificates, unnamed certificates, request keys.
using Prepared = std::vector<Candidate>;

// pairCertificate - the certificate bag of key: the unused one with its localKeyID, else one
// with its public key; ZAVKM_ERR_KEYREC_CERTIFICATE_NULL when there is none.
Rc pairCertificate(const FoundKey& k, std::vector<FoundCert>& certs,
                   const std::unordered_multimap<std::string, size_t>& byKeyId, FoundCert*& out) {
    out = nullptr;
    if (!k.bag.keyId.empty()) {
        auto [from, to] = byKeyId.equal_range(asKey(k.bag.keyId));
        for (auto it = from; it != to && out == nullptr; ++it)
            if (!certs[it->second].used) out = &certs[it->second];
    }
    for (size_t i = 0; i < certs.size() && out == nullptr; ++i)
        if (!certs[i].used && sameKey(X509_get0_pubkey(certs[i].cert.get()), k.key.get()))
            out = &certs[i];
    if (out == nullptr) return ZAVKM_ERR_KEYREC_CERTIFICATE_NULL;
    if (!sameKey(X509_get0_pubkey(out->cert.get()), k.key.get())) return ZAVKM_ERR_VALIDATION_KEY_PAIR;
    out->used = true;
    return ZAVKM_OK;
}

// sealed - key, under the key policy, sealed with the database's data key for spki into out.
Rc sealed(const KeyDb& kdb, EVP_PKEY* key, const Bytes& spki, Bytes& out) {
    if (Rc rc = checkKeyPolicy(key); rc != ZAVKM_OK) return rc;
    SecretBytes pkcs8 = pkcs8Of(key);
    if (pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
    return sealPrivateKey(kdb, pkcs8, spki, out);
}

// requestCandidate - the request key of a key bag carrying our request attribute: the request
// must decode and hold the key's public half (ZAVKM_ERR_VALIDATION_KEY_PAIR otherwise).
Rc requestCandidate(const KeyDb& kdb, FoundKey& k, Candidate& c) {
    c.kind = Candidate::Request;
    c.name = k.bag.name;
    c.base = "request";
    X509ReqPtr req = parseRequest(k.bag.request.data(), k.bag.request.size());
    EVP_PKEY* publicKey = req ? X509_REQ_get0_pubkey(req.get()) : nullptr;
    if (publicKey == nullptr) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
    if (!sameKey(publicKey, k.key.get())) return ZAVKM_ERR_VALIDATION_KEY_PAIR;
    RequestRow& row = c.request;
    row.request = derOf(req.get());
    row.spki = spkiOf(publicKey);
    const KeyInfo info = keyInfo(publicKey);
    row.keyType = info.algorithm;
    row.keyBits = info.bits;
    return sealed(kdb, k.key.get(), row.spki, row.privateKey);
}

// prepare - every row the file could add, private keys sealed and certificates checked: the
// work an import does before it looks at the database, so no lock is held for it.
Rc prepare(const KeyDb& kdb, Reader& in, Prepared& out) {
    for (const FoundKey& k : in.keys)
        if (k.bag.nameRc != ZAVKM_OK) return k.bag.nameRc;
    for (const FoundCert& c : in.certs)
        if (c.bag.nameRc != ZAVKM_OK) return c.bag.nameRc;
    std::unordered_multimap<std::string, size_t> byKeyId;
    for (size_t i = 0; i < in.certs.size(); ++i)
        if (!in.certs[i].bag.keyId.empty()) byKeyId.emplace(asKey(in.certs[i].bag.keyId), i);
    Prepared requests;
    for (FoundKey& k : in.keys) {
        Candidate c;
        if (!k.bag.request.empty()) {
            if (Rc rc = requestCandidate(kdb, k, c); rc != ZAVKM_OK) return rc;
            requests.push_back(std::move(c));
            continue;
        }
        FoundCert* match = nullptr;
        if (Rc rc = pairCertificate(k, in.certs, byKeyId, match); rc != ZAVKM_OK) return rc;
        c.kind = Candidate::Personal;
        if (Rc rc = signerRowOf(match->cert.get(), c.key); rc != ZAVKM_OK) return rc;
        c.name = !k.bag.name.empty() ? k.bag.name : match->bag.name;  // the key bag's first
        c.base = commonNameOf(match->cert.get());
        c.key.trusted = match->bag.javaTrusted || k.bag.trusted;
        c.key.isDefault = k.bag.isDefault;
        if (Rc rc = sealed(kdb, k.key.get(), c.key.spki, c.key.privateKey); rc != ZAVKM_OK) return rc;
        out.push_back(std::move(c));
    }
    for (bool named : {true, false}) {  // the rest are signer certificates, named ones first
        for (FoundCert& f : in.certs) {
            if (f.used || f.bag.name.empty() != !named) continue;
            Candidate c;
            if (Rc rc = signerRowOf(f.cert.get(), c.key); rc != ZAVKM_OK) return rc;
            c.name = f.bag.name;
            c.base = commonNameOf(f.cert.get());
            c.key.trusted = f.bag.javaTrusted;  // only what the file marks trusted
            out.push_back(std::move(c));
        }
    }
    for (Candidate& c : requests) out.push_back(std::move(c));
    return ZAVKM_OK;
}

// Snapshot - what labels and duplicates depend on: the labels of both spaces and the
// certificates the database holds, and the file's generation when they were read.
struct Snapshot {
    std::unordered_set<std::string> keyLabels, requestLabels, certs;
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
    out.keyLabels.insert(keys.begin(), keys.end());
    out.requestLabels.insert(requests.begin(), requests.end());
    for (const KeyRow& r : rows) out.certs.insert(asKey(r.cert));
    out.generation = v.meta.generation;
    return ZAVKM_OK;
}

// Labels - the labels of one import, chosen in one pass: a label the file gives is claimed
// (ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when taken, ZAVKM_ERR_PARAMETER when it is no label); a
// label made from a common name gets the first free " (n)", the search for each name resuming
// where it last stopped.
class Labels {
  public:
    explicit Labels(std::unordered_set<std::string> taken) : taken_(std::move(taken)) {}

    Rc claim(const std::string& label, const std::unordered_set<std::string>* also = nullptr) {
        if (Rc rc = checkLabel(label.c_str()); rc != ZAVKM_OK) return rc;
        if ((also != nullptr && also->count(label) != 0) || !taken_.insert(label).second)
            return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
        return ZAVKM_OK;
    }

    std::string unique(const std::string& base, const std::unordered_set<std::string>* also = nullptr) {
        auto free = [&](const std::string& l) { return taken_.count(l) == 0 && (also == nullptr || also->count(l) == 0); };
        std::string label = base;
        int& n = next_.try_emplace(base, 2).first->second;
        while (!free(label)) label = base + " (" + std::to_string(n++) + ")";
        taken_.insert(label);
        return label;
    }

    const std::unordered_set<std::string>& taken() const { return taken_; }

  private:
    std::unordered_set<std::string> taken_;
    std::unordered_map<std::string, int> next_;
};

// assign - the label of every candidate against the snapshot, and which are skipped: a
// certificate the database holds already, or one the file named the same way before (an unnamed
// one: held in any way before). Linear in the candidates.
Rc assign(const Snapshot& snap, Prepared& all) {
    Labels keys(snap.keyLabels);
    std::unordered_set<std::string> planned;  // unnamed: DER; named: DER and label
    for (Candidate& c : all) {
        if (c.kind == Candidate::Request) {
            c.request.label = c.name.empty() ? keys.unique(c.base, &snap.requestLabels) : c.name;
            if (!c.name.empty())
                if (Rc rc = keys.claim(c.name, &snap.requestLabels); rc != ZAVKM_OK) return rc;
            continue;
        }
        const std::string der = asKey(c.key.cert);
        c.skip = c.kind == Candidate::Signer &&
                 (snap.certs.count(der) != 0 || planned.count(c.name + '\0' + der) != 0 ||
                  (c.name.empty() && planned.count(der) != 0));
        if (c.skip) continue;
        planned.insert(der);
        if (!c.name.empty()) planned.insert(c.name + '\0' + der);
        if (c.name.empty()) {
            c.key.label = keys.unique(c.base);
        } else {
            if (Rc rc = keys.claim(c.name); rc != ZAVKM_OK) return rc;
            c.key.label = c.name;
        }
    }
    return ZAVKM_OK;
}

// insertAll - the candidates not skipped, in a write view.
Rc insertAll(View& v, Prepared& all) {
    for (Candidate& c : all) {
        if (c.skip) continue;
        Rc rc = c.kind == Candidate::Request ? insertRequest(v, c.request) : insertKey(v, c.key);
        if (rc != ZAVKM_OK) return rc;
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
    Reader in;
    in.password = password;
    in.passwordLength = static_cast<int>(std::strlen(password));
    if (Rc rc = in.read(data); rc != ZAVKM_OK) return rc;
    Prepared all;
    if (Rc rc = prepare(kdb, in, all); rc != ZAVKM_OK) return rc;
    Snapshot snap;
    if (Rc rc = readView(kdb, [&](View& v) { return readSnapshot(v, snap); }); rc != ZAVKM_OK)
        return rc;
    if (Rc rc = assign(snap, all); rc != ZAVKM_OK) return rc;
    if (Rc rc = writeView(kdb, [&](View& v) -> Rc {
            if (v.meta.generation != snap.generation) {  // another writer came first: choose again
                if (Rc read = readSnapshot(v, snap); read != ZAVKM_OK) return read;
                if (Rc chosen = assign(snap, all); chosen != ZAVKM_OK) return chosen;
            }
            return insertAll(v, all);
        });
        rc != ZAVKM_OK)
        return rc;
    trace("PKCS#12 imported: %zu candidates", all.size());
    return ZAVKM_OK;
}

}  // namespace zavkm
