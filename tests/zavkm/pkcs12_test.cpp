// pkcs12_test.cpp - PKCS#12 files in and out: what an import trusts and how it labels what a file
// holds (files built here bag by bag), and what export and keyring round trips carry, with every
// file read by openssl and keytool.
#include <openssl/ec.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>

#include "support.h"
#include "zavkm_ext.h"

namespace zavkm_test {
namespace {

constexpr const char* kPw = "p12 table pw";
constexpr const char* kFilePw = "file pw";
constexpr const char* kJavaTrust = "2.16.840.1.113894.746875.1.1";
constexpr const char* kOurs = "2.25.22339739339984387550878158063804827310.";

struct Key {
    EVP_PKEY* pkey = EVP_EC_gen("P-256");
    ~Key() { EVP_PKEY_free(pkey); }
};
struct Cert {
    X509* x509 = X509_new();
    ~Cert() { X509_free(x509); }
};

// makeCert - a certificate for key named cn, signed by issuer (itself when null), a CA or not.
void makeCert(Cert& c, const Key& key, const std::string& cn, const Cert* issuer = nullptr,
              const Key* issuerKey = nullptr, bool ca = true) {
    static long serial = 1;
    X509_set_version(c.x509, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(c.x509), serial++);
    X509_gmtime_adj(X509_getm_notBefore(c.x509), -60);
    X509_gmtime_adj(X509_getm_notAfter(c.x509), 86400L * 30);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c.x509), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(cn.data()), static_cast<int>(cn.size()), -1, 0);
    X509_set_issuer_name(c.x509, X509_get_subject_name(issuer != nullptr ? issuer->x509 : c.x509));
    X509_set_pubkey(c.x509, key.pkey);
    X509V3_CTX ctx;
    X509V3_set_ctx(&ctx, issuer != nullptr ? issuer->x509 : c.x509, c.x509, nullptr, nullptr, 0);
    X509_EXTENSION* bc = X509V3_EXT_conf_nid(nullptr, &ctx, NID_basic_constraints, ca ? "critical,CA:TRUE" : "CA:FALSE");
    X509_add_ext(c.x509, bc, -1);
    X509_EXTENSION_free(bc);
    X509_sign(c.x509, (issuerKey != nullptr ? issuerKey : &key)->pkey, EVP_sha256());
}

// P12 - a PKCS#12 file built bag by bag.
struct P12 {
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    ~P12() { sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free); }

    PKCS12_SAFEBAG* cert(const Cert& c, const char* name = nullptr, const char* keyId = nullptr) {
        PKCS12_SAFEBAG* bag = PKCS12_add_cert(&bags, c.x509);
        return named(bag, name, keyId);
    }
    PKCS12_SAFEBAG* key(const Key& k, const char* name = nullptr, const char* keyId = nullptr) {
        PKCS12_SAFEBAG* bag = PKCS12_add_key(&bags, k.pkey, 0, 2048, NID_aes_256_cbc, kFilePw);
        return named(bag, name, keyId);
    }
    static PKCS12_SAFEBAG* named(PKCS12_SAFEBAG* bag, const char* name, const char* keyId) {
        if (name != nullptr) PKCS12_add_friendlyname_utf8(bag, name, -1);
        if (keyId != nullptr) PKCS12_add_localkeyid(bag, reinterpret_cast<unsigned char*>(const_cast<char*>(keyId)), static_cast<int>(std::strlen(keyId)));
        return bag;
    }
    static void attribute(PKCS12_SAFEBAG* bag, const std::string& oid, int type, const void* value, int n) {
        PKCS12_add1_attr_by_txt(bag, oid.c_str(), type, static_cast<const unsigned char*>(value), n);
    }
    static void trust(PKCS12_SAFEBAG* bag) {
        ASN1_OBJECT* any = OBJ_txt2obj("2.5.29.37.0", 1);
        attribute(bag, kJavaTrust, V_ASN1_OBJECT, any, -1);
        ASN1_OBJECT_free(any);
    }
    void write(const std::string& file) {
        STACK_OF(PKCS7)* safes = nullptr;
        PKCS12_add_safe(&safes, bags, -1, 0, nullptr);
        PKCS12* p12 = PKCS12_add_safes(safes, 0);
        PKCS12_set_mac(p12, kFilePw, -1, nullptr, 0, 2048, EVP_sha256());
        unsigned char* der = nullptr;
        const int n = i2d_PKCS12(p12, &der);
        writeBytes(file, std::vector<uint8_t>(der, der + n));
        OPENSSL_free(der);
        PKCS12_free(p12);
        sk_PKCS7_pop_free(safes, PKCS7_free);
    }
};

// Seen - an entry as a listing shows it.
struct Seen {
    std::string label;
    int32_t kind;  // ZAVKM_ENTRY_...
    bool trusted, isDefault;
    bool operator==(const Seen& o) const {
        return label == o.label && kind == o.kind && trusted == o.trusted && isDefault == o.isDefault;
    }
};
std::ostream& operator<<(std::ostream& out, const Seen& s) {
    return out << "{" << s.label << " kind " << s.kind << (s.trusted ? " trusted" : "") << (s.isDefault ? " default" : "") << "}";
}
std::vector<Seen> entries(ZAVKM_KeyDbHandle h) {
    ZAVKM_Entry* list = nullptr;
    uint32_t n = 0;
    std::vector<Seen> out;
    EXPECT_EQ(ZAVKM_ListEntries(h, &list, &n), ZAVKM_OK);
    for (uint32_t i = 0; i < n; ++i)
        out.push_back({list[i].label, list[i].kind, list[i].trusted != 0, list[i].isDefault != 0});
    ZAVKM_FreeEntries(list, n);
    return out;
}
constexpr int32_t P = ZAVKM_ENTRY_PERSONAL, S = ZAVKM_ENTRY_SIGNER, R = ZAVKM_ENTRY_REQUEST;

// The certificates and keys the import rows build their files from.
struct Parts {
    Key caKey, leafKey, rootKey, sameKeys[3], odd, heldKey;
    Cert ca, leaf, root, same[3], oddCert, held;
    Parts() {
        makeCert(held, heldKey, "Held");
        makeCert(ca, caKey, "Issuing CA");
        makeCert(leaf, leafKey, "leaf.test", &ca, &caKey, false);
        makeCert(root, rootKey, "Extra Root");
        for (int i = 0; i < 3; ++i) makeCert(same[i], sameKeys[i], "Same");
        makeCert(oddCert, odd, "a\x1b[2Jb");
    }
};

struct ImportRow {
    const char* what;
    std::function<void(P12&, Parts&)> build;
    ZAVKM_ReturnCode expected;
    std::vector<Seen> after;  // besides "held", a signer of the "Same" certificate #2
};

const ImportRow kImports[] = {
    {"an extra root beside a key and its chain is not trusted", [](P12& f, Parts& p) {
         f.key(p.leafKey, "k", "1");
         f.cert(p.leaf, "k", "1");
         f.cert(p.ca);
         f.cert(p.root);
     }, ZAVKM_OK, {{"k", P, false, false}, {"Issuing CA", S, false, false}, {"Extra Root", S, false, false}}},
    {"a root the file marks trusted is trusted", [](P12& f, Parts& p) { P12::trust(f.cert(p.root, "root")); },
     ZAVKM_OK, {{"root", S, true, false}}},
    {"a key's label is its key bag's name", [](P12& f, Parts& p) {
         f.cert(p.leaf, "from cert", "1");
         f.key(p.leafKey, "from key", "1");
     }, ZAVKM_OK, {{"from key", P, false, false}}},
    {"a key bag's name that is no text is refused, not replaced by the certificate bag's", [](P12& f, Parts& p) {
         const unsigned char bmp[] = {0, 'k', 0xdc, 0x00};
         PKCS12_add_friendlyname_uni(f.key(p.leafKey, nullptr, "1"), bmp, sizeof bmp);
         f.cert(p.leaf, "from cert", "1");
     }, ZAVKM_ERR_PARAMETER, {}},
    {"else its certificate bag's", [](P12& f, Parts& p) {
         f.key(p.leafKey, nullptr, "1");
         f.cert(p.leaf, "from cert", "1");
     }, ZAVKM_OK, {{"from cert", P, false, false}}},
    {"a key paired by its public key", [](P12& f, Parts& p) {
         f.cert(p.root, "other");
         f.cert(p.leaf, "c");
         f.key(p.leafKey, "k");
     }, ZAVKM_OK, {{"k", P, false, false}, {"other", S, false, false}}},
    {"our default and trust marks on a key bag", [](P12& f, Parts& p) {
         PKCS12_SAFEBAG* bag = f.key(p.leafKey, "k", "1");
         const unsigned char yes = 0xff;
         P12::attribute(bag, std::string(kOurs) + "1", V_ASN1_BOOLEAN, &yes, -1);
         P12::attribute(bag, std::string(kOurs) + "2", V_ASN1_BOOLEAN, &yes, -1);
         f.cert(p.leaf, "k", "1");
     }, ZAVKM_OK, {{"k", P, true, true}}},
    {"certificates sharing a common name are numbered in one pass", [](P12& f, Parts& p) {
         for (Cert& c : p.same) f.cert(c);
     }, ZAVKM_OK, {{"Same", S, false, false}, {"Same (3)", S, false, false}}},
    {"a common name with control characters", [](P12& f, Parts& p) { f.cert(p.oddCert); },
     ZAVKM_OK, {{"a\xEF\xBF\xBD[2Jb", S, false, false}}},
    {"a friendlyName in Java's form of UTF-8", [](P12& f, Parts& p) {
         const std::string name = "t\xED\xA0\xBD\xED\xB4\x91";
         P12::attribute(f.cert(p.root), "1.2.840.113549.1.9.20", V_ASN1_UTF8STRING, name.data(), static_cast<int>(name.size()));
     }, ZAVKM_OK, {{"t\xF0\x9F\x94\x91", S, false, false}}},
    {"a friendlyName holding ESC and a newline", [](P12& f, Parts& p) { f.cert(p.root, "ok\x1b[32m trusted\n"); },
     ZAVKM_ERR_PARAMETER, {}},
    {"a friendlyName with a lone surrogate", [](P12& f, Parts& p) {
         const unsigned char bmp[] = {0, 'a', 0xd8, 0x3d};
         PKCS12_add_friendlyname_uni(f.cert(p.root), bmp, sizeof bmp);
     }, ZAVKM_ERR_PARAMETER, {}},
    {"a friendlyName taken in the database", [](P12& f, Parts& p) { f.cert(p.root, "held"); },
     ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL, {}},
    {"a friendlyName twice in the file", [](P12& f, Parts& p) {
         f.cert(p.root, "twice");
         f.cert(p.ca, "twice");
     }, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL, {}},
    {"a certificate the database holds already", [](P12& f, Parts& p) { f.cert(p.same[1], "again"); },
     ZAVKM_OK, {}},
    {"a key without its certificate", [](P12& f, Parts& p) { f.key(p.leafKey, "k", "1"); },
     ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, {}},
};

TEST(Pkcs12, ImportTrustsOnlyWhatTheFileMarksAndLabelsAsDocumented) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    Parts parts;
    const std::vector<Seen> held = {{"held", S, true, false}, {"Same (2)", S, true, false}};
    int n = 0;
    for (const ImportRow& row : kImports) {
        SCOPED_TRACE(row.what);
        const std::string db = dir.path("i" + std::to_string(n++) + ".kdb");
        ZAVKM_KeyDbHandle h = 0;
        ASSERT_EQ(ZAVKM_CreateNewKeyDb(db.c_str(), kPw, 0, &h), ZAVKM_OK);
        for (auto [cert, label] : {std::pair{parts.held.x509, "held"}, std::pair{parts.same[1].x509, "Same (2)"}}) {
            unsigned char* der = nullptr;
            const int n = i2d_X509(cert, &der);
            EXPECT_EQ(ZAVKM_StoreCACert(h, der, static_cast<uint32_t>(n), label), ZAVKM_OK);
            OPENSSL_free(der);
        }
        P12 file;
        row.build(file, parts);
        file.write(dir.path("i.p12"));
        EXPECT_EQ(ZAVKM_ImportKeysFromPFXFile(h, dir.path("i.p12").c_str(), kFilePw), row.expected);
        std::vector<Seen> want = held;
        want.insert(want.end(), row.after.begin(), row.after.end());
        EXPECT_EQ(entries(h), want);
        ZAVKM_KeyItem* key = nullptr;
        if (ZAVKM_GetKeyItemByLabel(h, "k", &key) == ZAVKM_OK && key->shortValue1 != 0) {
            int chain = 0;
            for (ZAVKM_CertItemList* c = key->certList; c != nullptr; c = c->next) chain += c->cert != nullptr;
            const bool withCa = std::any_of(row.after.begin(), row.after.end(), [](const Seen& e) { return e.label == "Issuing CA"; });
            EXPECT_EQ(chain, withCa ? 2 : 1) << "the key's chain stays its chain";
        }
        ZAVKM_FreeKeyItem(key);
        ZAVKM_CloseKeyDb(h);
    }
    ZAVKM_CleanAll();
}

// run - a command's standard output and error, and whether it exited with 0.
std::pair<std::string, bool> run(const std::string& command) {
    std::string out;
    FILE* p = ::popen((command + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    return {out, p != nullptr && ::pclose(p) == 0};
}

// keytoolEntries - "alias type" lines keytool lists for a PKCS#12 file, sorted.
std::vector<std::string> keytoolEntries(const std::string& file, const char* password) {
    auto [out, ok] = run("keytool -list -storetype PKCS12 -keystore '" + file + "' -storepass '" + password + "'");
    EXPECT_TRUE(ok) << out;
    std::vector<std::string> lines;
    for (const char* type : {"PrivateKeyEntry", "trustedCertEntry", "SecretKeyEntry"})
        for (size_t at = 0; (at = out.find(std::string(", ") + type, at)) != std::string::npos; ++at) {
            const size_t start = out.rfind('\n', at) + 1, comma = out.find(',', start);
            lines.push_back(out.substr(start, comma - start) + " " + type);
        }
    std::sort(lines.begin(), lines.end());
    return lines;
}

std::vector<uint8_t> requestOf(ZAVKM_KeyDbHandle h, const char* label) {
    ZAVKM_ReqKeyItem* item = nullptr;
    std::vector<uint8_t> der;
    if (ZAVKM_GetReqKeyItemByLabel(h, label, &item) == ZAVKM_OK)
        der.assign(item->certReq->der, item->certReq->der + item->certReq->derLength);
    ZAVKM_FreeReqKeyItem(item);
    return der;
}

// A database holding what round trips must carry: a default trusted CA key, a key it issued (not
// trusted), trusted and untrusted signers, one certificate under two signer labels, a signer of
// the CA key's own certificate, and a request key.
struct RoundRow {
    const char* what;
    std::function<ZAVKM_ReturnCode(ZAVKM_KeyDbHandle from, const std::string& dir, ZAVKM_KeyDbHandle& to)> trip;
    std::vector<Seen> after;
    std::vector<std::string> keytool;  // what keytool lists of the file written
};

ZAVKM_ReturnCode freshImport(const std::string& dir, const std::string& p12, ZAVKM_KeyDbHandle& to) {
    ZAVKM_ReturnCode rc = ZAVKM_CreateNewKeyDb((dir + "/" + p12 + ".kdb").c_str(), kPw, 0, &to);
    return rc == ZAVKM_OK ? ZAVKM_ImportKeysFromPFXFile(to, (dir + "/" + p12).c_str(), kFilePw) : rc;
}

const std::vector<Seen> kAll = {{"p1", P, true, true},        {"p2", P, false, false},
                                {"t", S, true, false},         {"t-again", S, true, false},
                                {"u", S, false, false},        {"p1-copy", S, true, false},
                                {"e\xF0\x9F\x94\x91", S, true, false}, {"r", R, false, false}};
const std::vector<std::string> kKeytoolAll = {"e\xF0\x9F\x94\x91 trustedCertEntry", "p1 PrivateKeyEntry", "p1-copy trustedCertEntry", "p2 PrivateKeyEntry", "t trustedCertEntry", "t-again trustedCertEntry"};

const RoundRow kTrips[] = {
    {"a keyring and back carries every entry, flag and label", [](ZAVKM_KeyDbHandle, const std::string& d, ZAVKM_KeyDbHandle& to) {
         ZAVKM_ReturnCode rc = ZAVKM_Kdb2Kyr((d + "/src.kdb").c_str(), kPw, (d + "/ring.kyr").c_str(), kFilePw);
         if (rc == ZAVKM_OK) rc = ZAVKM_Kyr2Kdb((d + "/ring.kyr").c_str(), kFilePw, (d + "/ring.kdb").c_str(), kPw);
         return rc == ZAVKM_OK ? ZAVKM_OpenKeyDb((d + "/ring.kdb").c_str(), kPw, &to) : rc;
     }, kAll, [] {  // keytool lists a request key as a private key without certificate
         auto all = kKeytoolAll;
         all.insert(all.begin() + 4, "r PrivateKeyEntry");
         return all;
     }()},
    {"a PKCS#12 export of everything carries all but the request key", [](ZAVKM_KeyDbHandle from, const std::string& d, ZAVKM_KeyDbHandle& to) {
         ZAVKM_ReturnCode rc = ZAVKM_ExportKeys(from, 1, (d + "/all.p12").c_str(), kFilePw, nullptr);
         return rc == ZAVKM_OK ? freshImport(d, "all.p12", to) : rc;
     }, {kAll.begin(), kAll.end() - 1}, kKeytoolAll},
    {"a PKCS#12 export of listed entries carries their chains, not trusted", [](ZAVKM_KeyDbHandle from, const std::string& d, ZAVKM_KeyDbHandle& to) {
         ZAVKM_LabelList u{const_cast<char*>("u"), nullptr}, p2{const_cast<char*>("p2"), &u};
         ZAVKM_ReturnCode rc = ZAVKM_ExportKeys(from, 1, (d + "/some.p12").c_str(), kFilePw, &p2);
         return rc == ZAVKM_OK ? freshImport(d, "some.p12", to) : rc;
     }, {{"p2", P, false, false}, {"u", S, false, false}, {"P One", S, false, false}}, {"p2 PrivateKeyEntry"}},
};

TEST(Pkcs12, RoundTripsCarryFlagsRequestsAndEveryLabel) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    const std::string d = dir.path("").substr(0, dir.path("").size() - 1);
    Parts parts;
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem p1 = dn("P One"), p2 = dn("p2"), r = dn("r");
    ASSERT_EQ(ZAVKM_CreateNewKeyDb((d + "/src.kdb").c_str(), kPw, 0, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "p1", 1, 3, 256, &p1, 30, (d + "/p1.der").c_str(), 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(h, "p2", 256, &p2, (d + "/p2.csr").c_str(), nullptr, nullptr), ZAVKM_OK);
    const auto csr = readBytes(d + "/p2.csr");
    ASSERT_EQ(ZAVKM_IssueCert(h, csr.data(), size(csr), "p1", 3, "", 30, (d + "/p2.der").c_str(), 0, nullptr, nullptr), ZAVKM_OK);
    const auto p2Cert = readBytes(d + "/p2.der"), p1Cert = readBytes(d + "/p1.der");
    ASSERT_EQ(ZAVKM_ReceiveCert(h, p2Cert.data(), size(p2Cert), 0), ZAVKM_OK);
    auto der = [](X509* c) {
        unsigned char* p = nullptr;
        const int n = i2d_X509(c, &p);
        std::vector<uint8_t> out(p, p + n);
        OPENSSL_free(p);
        return out;
    };
    const auto ext = der(parts.root.x509), other = der(parts.held.x509), third = der(parts.ca.x509);
    for (auto [cert, label] : {std::pair{&ext, "t"}, {&ext, "t-again"}, {&other, "u"}, {&p1Cert, "p1-copy"}, {&third, "e\xF0\x9F\x94\x91"}})
        ASSERT_EQ(ZAVKM_StoreCACert(h, cert->data(), size(*cert), label), ZAVKM_OK) << label;
    ASSERT_EQ(ZAVKM_SetTrustStatus(h, "u", 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(h, "r", 256, &r, (d + "/r.csr").c_str(), nullptr, nullptr), ZAVKM_OK);
    ASSERT_EQ(entries(h), kAll);
    for (const RoundRow& row : kTrips) {
        SCOPED_TRACE(row.what);
        ZAVKM_KeyDbHandle to = 0;
        ASSERT_EQ(row.trip(h, d, to), ZAVKM_OK);
        EXPECT_EQ(entries(to), row.after);
        if (std::find_if(row.after.begin(), row.after.end(), [](const Seen& e) { return e.kind == R; }) != row.after.end()) {
            EXPECT_EQ(requestOf(to, "r"), requestOf(h, "r")) << "the request travels";
        }
        ZAVKM_KeyItem* key = nullptr;
        EXPECT_EQ(ZAVKM_GetKeyItemByLabel(to, "p2", &key), ZAVKM_OK);
        EXPECT_TRUE(key != nullptr && key->hasPrivateKey) << "the private key travels";
        ZAVKM_FreeKeyItem(key);
        ZAVKM_CloseKeyDb(to);
    }
    for (const RoundRow& row : kTrips) {  // every file is readable by openssl and keytool
        SCOPED_TRACE(row.what);
        const std::string file = d + "/" + (row.what[2] == 'k' ? "ring.kyr" : row.after.size() > 3 ? "all.p12" : "some.p12");
        auto [out, ok] = run("openssl pkcs12 -in '" + file + "' -passin 'pass:" + kFilePw + "' -nodes -info");
        EXPECT_TRUE(ok) << out;
        EXPECT_EQ(keytoolEntries(file, kFilePw), row.keytool);
    }
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
