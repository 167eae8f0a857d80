// pkcs12read.cpp - reading PKCS#12 files into entries, and choosing their labels.
#include "pki/pkcs12read.h"

#include <openssl/provider.h>

#include <cstring>
#include <mutex>
#include <optional>

#include "pki/pbe.h"
#include "base/state.h"
#include "base/trace.h"
#include "base/utf.h"
#include "pki/x509util.h"

namespace zavkm {

void freeAuthSafes(STACK_OF(PKCS7) * s) noexcept { sk_PKCS7_pop_free(s, PKCS7_free); }
void freeBags(STACK_OF(PKCS12_SAFEBAG) * s) noexcept {
    sk_PKCS12_SAFEBAG_pop_free(s, PKCS12_SAFEBAG_free);
}

Pkcs12Ptr parsePkcs12(const Bytes& data) {
    const unsigned char* p = data.data();
    Pkcs12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(data.size())));
    if (!p12) clearSslErrors();
    return p12;
}

namespace {

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
    if (!sameKey(X509_get0_pubkey(out->cert.get()), k.key.get()))
        return ZAVKM_ERR_VALIDATION_KEY_PAIR;
    out->used = true;
    return ZAVKM_OK;
}

// requestEntry - the request key of a key bag carrying our request attribute: the request must
// decode and hold the key's public half (ZAVKM_ERR_VALIDATION_KEY_PAIR otherwise).
Rc requestEntry(FoundKey& k, Pkcs12Entry& e) {
    e.kind = Pkcs12Entry::Request;
    e.name = k.bag.name;
    e.base = "request";
    X509ReqPtr req = parseRequest(k.bag.request.data(), k.bag.request.size());
    EVP_PKEY* publicKey = req ? X509_REQ_get0_pubkey(req.get()) : nullptr;
    if (publicKey == nullptr) return sslError(ZAVKM_ERR_INVALID_PKCS12_DATA);
    if (!sameKey(publicKey, k.key.get())) return ZAVKM_ERR_VALIDATION_KEY_PAIR;
    e.request = derOf(req.get());
    e.key = std::move(k.key);
    return ZAVKM_OK;
}

// entriesOf - the entries of what in holds, in the order labels are chosen.
Rc entriesOf(Reader& in, std::vector<Pkcs12Entry>& out) {
    for (const FoundKey& k : in.keys)
        if (k.bag.nameRc != ZAVKM_OK) return k.bag.nameRc;
    for (const FoundCert& c : in.certs)
        if (c.bag.nameRc != ZAVKM_OK) return c.bag.nameRc;
    std::unordered_multimap<std::string, size_t> byKeyId;
    for (size_t i = 0; i < in.certs.size(); ++i)
        if (!in.certs[i].bag.keyId.empty()) byKeyId.emplace(asKey(in.certs[i].bag.keyId), i);
    std::vector<Pkcs12Entry> requests;
    for (FoundKey& k : in.keys) {
        Pkcs12Entry e;
        if (!k.bag.request.empty()) {
            if (Rc rc = requestEntry(k, e); rc != ZAVKM_OK) return rc;
            requests.push_back(std::move(e));
            continue;
        }
        FoundCert* match = nullptr;
        if (Rc rc = pairCertificate(k, in.certs, byKeyId, match); rc != ZAVKM_OK) return rc;
        e.kind = Pkcs12Entry::Personal;
        e.name = !k.bag.name.empty() ? k.bag.name : match->bag.name;  // the key bag's first
        e.base = commonNameOf(match->cert.get());
        e.trusted = match->bag.javaTrusted || k.bag.trusted;
        e.isDefault = k.bag.isDefault;
        e.key = std::move(k.key);
        e.cert = std::move(match->cert);
        out.push_back(std::move(e));
    }
    for (bool named : {true, false}) {  // the rest are signer certificates, named ones first
        for (FoundCert& f : in.certs) {
            if (f.used || f.bag.name.empty() != !named) continue;
            Pkcs12Entry e;
            e.name = f.bag.name;
            e.base = commonNameOf(f.cert.get());
            e.trusted = f.bag.javaTrusted;  // only what the file marks trusted
            e.cert = std::move(f.cert);
            out.push_back(std::move(e));
        }
    }
    for (Pkcs12Entry& e : requests) out.push_back(std::move(e));
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
        if (Rc rc = checkLabelText(label.c_str()); rc != ZAVKM_OK) return rc;
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

  private:
    std::unordered_set<std::string> taken_;
    std::unordered_map<std::string, int> next_;
};

}  // namespace

void unloadLegacyAlgorithms() noexcept {
    std::lock_guard lock(providerMutex);
    if (legacyProvider != nullptr) OSSL_PROVIDER_unload(legacyProvider);
    if (defaultProvider != nullptr) OSSL_PROVIDER_unload(defaultProvider);
    legacyProvider = defaultProvider = nullptr;
}

Rc readPkcs12(const Bytes& data, const char* password, std::vector<Pkcs12Entry>& out) {
    out.clear();
    Reader in;
    in.password = password;
    in.passwordLength = static_cast<int>(std::strlen(password));
    if (Rc rc = in.read(data); rc != ZAVKM_OK) return rc;
    return entriesOf(in, out);
}

Rc choosePkcs12Labels(const HeldNames& held, std::vector<Pkcs12Entry>& all) {
    Labels keys(held.keyLabels);
    std::unordered_set<std::string> planned;  // unnamed: DER; named: DER and label
    for (Pkcs12Entry& e : all) {
        e.skip = false;
        if (e.kind == Pkcs12Entry::Request) {
            e.label = e.name.empty() ? keys.unique(e.base, &held.requestLabels) : e.name;
            if (!e.name.empty())
                if (Rc rc = keys.claim(e.name, &held.requestLabels); rc != ZAVKM_OK) return rc;
            continue;
        }
        const std::string der = asKey(derOf(e.cert.get()));
        e.skip = e.kind == Pkcs12Entry::Signer &&
                 (held.certs.count(der) != 0 || planned.count(e.name + '\0' + der) != 0 ||
                  (e.name.empty() && planned.count(der) != 0));
        if (e.skip) continue;
        planned.insert(der);
        if (!e.name.empty()) planned.insert(e.name + '\0' + der);
        if (e.name.empty()) {
            e.label = keys.unique(e.base);
        } else {
            if (Rc rc = keys.claim(e.name); rc != ZAVKM_OK) return rc;
            e.label = e.name;
        }
    }
    return ZAVKM_OK;
}

}  // namespace zavkm
