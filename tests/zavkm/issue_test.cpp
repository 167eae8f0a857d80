// issue_test.cpp - subject names with further parts, issuing with given extensions and chain
// validation with intermediates from the input: one row a scenario, each with its code and what
// the certificate must then hold.
#include <openssl/pem.h>
#include <openssl/pkcs7.h>
#include <openssl/x509v3.h>

#include <functional>
#include <memory>

#include "support.h"
#include "zavkm_ext.h"

namespace zavkm_test {
namespace {

constexpr const char* kPassword = "issue pw";

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using Cert = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using Req = std::unique_ptr<X509_REQ, Deleter<X509_REQ, X509_REQ_free>>;
void freeExts(STACK_OF(X509_EXTENSION) * s) { sk_X509_EXTENSION_pop_free(s, X509_EXTENSION_free); }
using Exts = std::unique_ptr<STACK_OF(X509_EXTENSION), Deleter<STACK_OF(X509_EXTENSION), freeExts>>;
using Bytes = std::vector<uint8_t>;

Cert certOf(const Bytes& der) {
    const unsigned char* p = der.data();
    return Cert(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}
Req requestOf(const Bytes& text) {
    std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>> bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    return Req(PEM_read_bio_X509_REQ(bio.get(), nullptr, nullptr, nullptr));
}
Bytes pemOf(const Bytes& der) {
    Cert c = certOf(der);
    std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>> bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), c.get());
    char* p = nullptr;
    long n = BIO_get_mem_data(bio.get(), &p);
    return Bytes(p, p + n);
}
// pkcs7Of - a degenerate PKCS#7 SignedData (DER) carrying the certificates.
Bytes pkcs7Of(const std::vector<Bytes>& certs) {
    std::unique_ptr<PKCS7, Deleter<PKCS7, PKCS7_free>> p7(PKCS7_new());
    PKCS7_set_type(p7.get(), NID_pkcs7_signed);
    PKCS7_content_new(p7.get(), NID_pkcs7_data);
    for (const Bytes& der : certs) PKCS7_add_certificate(p7.get(), certOf(der).get());
    unsigned char* out = nullptr;
    int n = i2d_PKCS7(p7.get(), &out);
    Bytes der(out, out + (n > 0 ? n : 0));
    OPENSSL_free(out);
    return der;
}
// extensions - DER Extensions from OpenSSL's configuration texts ("basicConstraints", "critical,CA:TRUE").
Bytes extensions(std::initializer_list<std::pair<const char*, const char*>> texts) {
    Exts list(sk_X509_EXTENSION_new_null());
    for (const auto& [name, value] : texts) sk_X509_EXTENSION_push(list.get(), X509V3_EXT_nconf(nullptr, nullptr, name, value));
    unsigned char* out = nullptr;
    int n = i2d_X509_EXTENSIONS(list.get(), &out);
    Bytes der(out, out + (n > 0 ? n : 0));
    OPENSSL_free(out);
    return der;
}
// oneLine - a name as "type=value/type=value" (OpenSSL's short names), in its order.
std::string oneLine(const X509_NAME* name) {
    std::string out;
    for (int i = 0; name != nullptr && i < X509_NAME_entry_count(name); ++i) {
        const X509_NAME_ENTRY* e = X509_NAME_get_entry(name, i);
        unsigned char* utf8 = nullptr;
        int n = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(e));
        out += (out.empty() ? "" : "/") + std::string(OBJ_nid2sn(OBJ_obj2nid(X509_NAME_ENTRY_get_object(e)))) + "=" +
               std::string(reinterpret_cast<char*>(utf8), n > 0 ? n : 0);
        OPENSSL_free(utf8);
    }
    return out;
}
// extText - the value of cert's extension nid as openssl prints it, "" when it has none.
std::string extText(X509* cert, int nid) {
    int at = X509_get_ext_by_NID(cert, nid, -1);
    if (at < 0) return "";
    std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>> bio(BIO_new(BIO_s_mem()));
    X509V3_EXT_print(bio.get(), X509_get_ext(cert, at), 0, 0);
    char* p = nullptr;
    long n = BIO_get_mem_data(bio.get(), &p);
    return std::string(p, static_cast<size_t>(n));
}

struct NameRow {
    const char* scenario;
    ZAVKM_DNItem dn;
    ZAVKM_ReturnCode expected;
    const char* subject;  // as oneLine gives it, when made
};
char* t(const char* s) { return const_cast<char*>(s); }
ZAVKM_DNItem name(const char* cn, const char* o, std::initializer_list<const char*> further) {
    ZAVKM_DNItem d{};
    d.cn = t(cn);
    d.o = t(o);
    char** slot[] = {&d.optionalField1, &d.optionalField2, &d.optionalField3, &d.optionalField4};
    size_t i = 0;
    for (const char* f : further) *slot[i++] = t(f);
    return d;
}
const NameRow kNames[] = {
    {"further parts after the seven, in field order", name("m", "Foo, Inc.", {"emailAddress=a@example.test", "DC=example", "DC=test", "2.5.4.5=42"}), ZAVKM_OK,
     "O=Foo, Inc./CN=m/emailAddress=a@example.test/DC=example/DC=test/serialNumber=42"},
    {"a value holding '=' and ','", name("m", nullptr, {"OU=a=b, c"}), ZAVKM_OK, "CN=m/OU=a=b, c"},
    {"a gap among the further fields", name("m", nullptr, {nullptr, "", "DC=x"}), ZAVKM_OK, "CN=m/DC=x"},
    {"further parts alone", name(nullptr, nullptr, {"DC=only"}), ZAVKM_OK, "DC=only"},
    {"a part without '='", name("m", nullptr, {"emailAddress"}), ZAVKM_ERR_INVALID_DN_INPUT, nullptr},
    {"a part without a type", name("m", nullptr, {"=x"}), ZAVKM_ERR_INVALID_DN_INPUT, nullptr},
    {"a part without a value", name("m", nullptr, {"DC="}), ZAVKM_ERR_INVALID_DN_INPUT, nullptr},
    {"an unknown type", name("m", nullptr, {"noSuchType=x"}), ZAVKM_ERR_INVALID_DN_INPUT, nullptr},
    {"a value its type cannot carry", name("m", nullptr, {"emailAddress=\xc3\xa4@x"}), ZAVKM_ERR_INVALID_DN_INPUT, nullptr},
};

TEST(Issue, SubjectsCarryTheirFurtherParts) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    ZAVKM_KeyDbHandle h = 0;
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(dir.path("n.kdb").c_str(), kPassword, 0, &h), ZAVKM_OK);
    int n = 0;
    for (const NameRow& row : kNames) {
        SCOPED_TRACE(row.scenario);
        const std::string label = "k" + std::to_string(n++), request = label + "r";
        const std::string certFile = dir.path(label + ".der"), reqFile = dir.path(label + ".csr"),
                          renewal = dir.path(label + "-renew.csr");
        EXPECT_EQ(ZAVKM_CreateSelfSignedCert(h, label.c_str(), 0, 3, 256, &row.dn, 30, certFile.c_str(), 0), row.expected);
        EXPECT_EQ(ZAVKM_CreateNewCertReq(h, request.c_str(), 256, &row.dn, reqFile.c_str(), nullptr, nullptr), row.expected);
        if (row.expected != ZAVKM_OK) {
            EXPECT_FALSE(exists(certFile) || exists(reqFile));
            continue;
        }
        ASSERT_EQ(ZAVKM_ReCreateCertReq(h, label.c_str(), renewal.c_str(), nullptr, nullptr), ZAVKM_OK);
        Cert cert = certOf(readBytes(certFile));
        Req req = requestOf(readBytes(reqFile)), again = requestOf(readBytes(renewal));
        ASSERT_TRUE(cert && req && again);
        EXPECT_EQ(oneLine(X509_get_subject_name(cert.get())), row.subject);
        EXPECT_EQ(oneLine(X509_REQ_get_subject_name(req.get())), row.subject);
        EXPECT_EQ(oneLine(X509_REQ_get_subject_name(again.get())), row.subject) << "a renewal keeps the name";
    }
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
}

// Env - a key database holding the CA "ca", its certificate alone as "signer", the requests
// "leaf", "sub" and "sub1" (the last with a subject alternative name), a CA "sub" of path length
// 0 and "sub1" of path length 1 issued by ca, the personal key "plain" (CA:FALSE) and the
// self-signed "nosign" (CA:TRUE without keyCertSign); "other", a CA of another key database.
struct Env {
    ScratchDir& dir;
    ZAVKM_KeyDbHandle h;
    Bytes ca, other, leafReq, subReq, sub1Req, sub, sub1, fromSub, fromOther;
};

// issueX - ZAVKM_IssueCertX; the certificate in out when made. A row's pointer and length may
// stand apart from the bytes (`ext` null with a length).
ZAVKM_ReturnCode issueX(ZAVKM_KeyDbHandle h, const Bytes& req, const char* issuer, const uint8_t* ext, uint32_t extLength, Bytes* out = nullptr) {
    uint8_t* der = reinterpret_cast<uint8_t*>(1);
    uint32_t length = 1;
    ZAVKM_ReturnCode rc = ZAVKM_IssueCertX(h, req.data(), size(req), issuer, nullptr, 30, 1, ext, extLength, &der, &length);
    if (rc != ZAVKM_OK && (der != nullptr || length != 0)) return ZAVKM_ERR_PARAMETER;  // nothing handed back
    if (out != nullptr && rc == ZAVKM_OK) out->assign(der, der + length);
    if (rc == ZAVKM_OK) ZAVKM_Free(der);
    return rc;
}
ZAVKM_ReturnCode issueX(ZAVKM_KeyDbHandle h, const Bytes& req, const char* issuer, const Bytes& ext, Bytes* out = nullptr) {
    return issueX(h, req, issuer, ext.empty() ? nullptr : ext.data(), size(ext), out);
}
Bytes requestFor(ZAVKM_KeyDbHandle h, const char* label) {
    ZAVKM_ReqKeyItem* item = nullptr;
    if (ZAVKM_GetReqKeyItemByLabel(h, label, &item) != ZAVKM_OK) return {};
    Bytes der(item->certReq->der, item->certReq->der + item->certReq->derLength);
    ZAVKM_FreeReqKeyItem(item);
    return der;
}

const Bytes kJunk = {0x30, 0x03, 0x02, 0x01, 0x05};
const Bytes kSubCa = extensions({{"basicConstraints", "critical,CA:TRUE,pathlen:0"}, {"keyUsage", "critical,keyCertSign"}});

struct IssueRow {
    const char* scenario;
    std::function<ZAVKM_ReturnCode(Env&, Bytes&)> call;
    ZAVKM_ReturnCode expected;
    std::function<bool(Env&, X509*)> holds;  // of the certificate made
};
const IssueRow kIssues[] = {
    {"extensions null with a length", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "ca", nullptr, 5, &c); }, ZAVKM_ERR_PARAMETER, nullptr},
    {"extensions that do not decode", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "ca", kJunk, &c); }, ZAVKM_ERR_ASN, nullptr},
    {"an extension twice", [](Env& e, Bytes& c) {
         return issueX(e.h, e.leafReq, "ca", extensions({{"keyUsage", "digitalSignature"}, {"keyUsage", "keyCertSign"}}), &c);
     }, ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS, nullptr},
    {"no place for the certificate", [](Env& e, Bytes&) {
         return ZAVKM_IssueCertX(e.h, e.leafReq.data(), size(e.leafReq), "ca", nullptr, 30, 1, nullptr, 0, nullptr, nullptr);
     }, ZAVKM_ERR_NULL_PARAMETER, nullptr},
    {"an issuer that is no CA", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "plain", {}, &c); }, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS, nullptr},
    {"a CA whose key usage lacks keyCertSign", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "nosign", {}, &c); }, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS, nullptr},
    {"an issuer without private key", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "signer", {}, &c); }, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL, nullptr},
    {"a CA below a path length of 0", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "sub", kSubCa, &c); }, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS, nullptr},
    {"a CA asking the path length its issuer has", [](Env& e, Bytes& c) {
         return issueX(e.h, e.leafReq, "sub1", extensions({{"basicConstraints", "critical,CA:TRUE,pathlen:1"}}), &c);
     }, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS, nullptr},
    {"a CA within its issuer's path length", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "sub1", kSubCa, &c); }, ZAVKM_OK,
     [](Env& e, X509* c) { return X509_verify(c, X509_get0_pubkey(certOf(e.sub1).get())) == 1 && extText(c, NID_basic_constraints) == "CA:TRUE, pathlen:0"; }},
    {"(a leaf below a path length of 0, as the library makes it)", [](Env& e, Bytes& c) { return issueX(e.h, e.leafReq, "sub", {}, &c); }, ZAVKM_OK,
     [](Env& e, X509* c) {
         return X509_verify(c, X509_get0_pubkey(certOf(e.sub).get())) == 1 && extText(c, NID_basic_constraints) == "CA:FALSE" &&
                X509_get_ext_by_NID(c, NID_authority_key_identifier, -1) >= 0 && X509_get_version(c) == 2;
     }},
    {"(given extensions replace the library's and the request's own)", [](Env& e, Bytes& c) {
         return issueX(e.h, e.sub1Req, "ca", extensions({{"subjectAltName", "DNS:given.test"}, {"keyUsage", "critical,digitalSignature"}, {"extendedKeyUsage", "serverAuth"}}), &c);
     }, ZAVKM_OK,
     [](Env&, X509* c) {
         return extText(c, NID_subject_alt_name) == "DNS:given.test" && extText(c, NID_key_usage) == "Digital Signature" &&
                extText(c, NID_ext_key_usage) == "TLS Web Server Authentication" && extText(c, NID_basic_constraints) == "CA:FALSE" &&
                X509_get_ext_count(c) == 6;
     }},
    {"(the request's names when none are given)", [](Env& e, Bytes& c) { return issueX(e.h, e.sub1Req, "ca", {}, &c); }, ZAVKM_OK,
     [](Env&, X509* c) { return extText(c, NID_subject_alt_name) == "DNS:sub1.test"; }},
};

ZAVKM_ReturnCode validateX(Env& e, const Bytes& data) {
    uint8_t valid = 7;
    ZAVKM_ReturnCode rc = ZAVKM_ValidateCertChainX(e.h, data.data(), size(data), &valid);
    return (valid == 1) == (rc == ZAVKM_OK) ? rc : ZAVKM_ERR_PARAMETER;  // valid says what rc says
}
Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
struct ChainRow {
    const char* scenario;
    std::function<Bytes(Env&)> data;
    ZAVKM_ReturnCode expected;
};
const ChainRow kChains[] = {
    {"a leaf and its intermediate, PEM", [](Env& e) { return cat({pemOf(e.fromSub), pemOf(e.sub)}); }, ZAVKM_OK},
    {"a leaf and its intermediate, PKCS#7", [](Env& e) { return pkcs7Of({e.fromSub, e.sub}); }, ZAVKM_OK},
    {"a leaf without its intermediate", [](Env& e) { return e.fromSub; }, ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND},
    {"the intermediate first: only the first is checked", [](Env& e) { return cat({pemOf(e.sub), pemOf(e.fromSub)}); }, ZAVKM_OK},
    {"a root in the input is no anchor", [](Env& e) { return cat({pemOf(e.fromOther), pemOf(e.other)}); }, ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED},
    {"bytes that are no certificate", [](Env&) { return kJunk; }, ZAVKM_ERR_ASN},
    {"a PKCS#7 without certificates", [](Env&) { return pkcs7Of({}); }, ZAVKM_ERR_ASN},
};

TEST(Issue, IssuingWithExtensionsAndValidatingWithIntermediates) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    ZAVKM_KeyDbHandle h = 0, o = 0;
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(dir.path("i.kdb").c_str(), kPassword, 0, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(dir.path("o.kdb").c_str(), kPassword, 0, &o), ZAVKM_OK);
    Env e{dir, h, {}, {}, {}, {}, {}, {}, {}, {}, {}};
    ZAVKM_DNItem names[] = {dn("ca"), dn("leaf"), dn("sub"), dn("sub1"), dn("plain"), dn("nosign"), dn("other"), dn("o-leaf")};
    const Bytes noCertSign = extensions({{"keyUsage", "critical,digitalSignature"}});
    const Bytes san = extensions({{"subjectAltName", "DNS:sub1.test"}});
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "ca", 0, 3, 256, &names[0], 30, dir.path("ca.der").c_str(), 0), ZAVKM_OK);
    e.ca = readBytes(dir.path("ca.der"));
    ASSERT_EQ(ZAVKM_StoreCACert(h, e.ca.data(), size(e.ca), "signer"), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateSelfSignedCertSigExt(h, "nosign", 0, 3, 256, &names[5], 30, 1, noCertSign.data(), size(noCertSign), nullptr, 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(h, "leaf", 256, &names[1], nullptr, nullptr, nullptr), ZAVKM_OK);
    for (auto [label, dnAt, ext] : {std::tuple{"sub", 2, Bytes()}, {"sub1", 3, san}, {"plain", 4, Bytes()}})
        ASSERT_EQ(ZAVKM_CreateNewCertReqSigExt(h, label, 256, &names[dnAt], 1, ext.empty() ? nullptr : ext.data(), size(ext), nullptr, nullptr, nullptr), ZAVKM_OK);
    e.leafReq = requestFor(h, "leaf");
    e.subReq = requestFor(h, "sub");
    e.sub1Req = requestFor(h, "sub1");
    Bytes plain;
    ASSERT_EQ(issueX(h, e.subReq, "ca", kSubCa, &e.sub), ZAVKM_OK);
    ASSERT_EQ(issueX(h, e.sub1Req, "ca", extensions({{"basicConstraints", "critical,CA:TRUE,pathlen:1"}}), &e.sub1), ZAVKM_OK);
    ASSERT_EQ(issueX(h, requestFor(h, "plain"), "ca", {}, &plain), ZAVKM_OK);
    for (const Bytes* c : {&e.sub, &e.sub1, &plain}) ASSERT_EQ(ZAVKM_ReceiveCert(h, c->data(), size(*c), 0), ZAVKM_OK);
    ASSERT_EQ(issueX(h, e.leafReq, "sub", {}, &e.fromSub), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(o, "other", 0, 3, 256, &names[6], 30, dir.path("other.der").c_str(), 0), ZAVKM_OK);
    e.other = readBytes(dir.path("other.der"));
    ASSERT_EQ(issueX(o, e.leafReq, "other", {}, &e.fromOther), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CloseKeyDb(o), ZAVKM_OK);

    for (const IssueRow& row : kIssues) {
        SCOPED_TRACE(row.scenario);
        Bytes made;
        EXPECT_EQ(row.call(e, made), row.expected);
        if (row.expected != ZAVKM_OK) continue;
        Cert c = certOf(made);
        ASSERT_TRUE(c);
        EXPECT_TRUE(row.holds(e, c.get()));
    }
    ASSERT_EQ(ZAVKM_DeleteKey(h, "sub"), ZAVKM_OK);  // the intermediate comes with the input only
    for (const ChainRow& row : kChains) {
        SCOPED_TRACE(row.scenario);
        EXPECT_EQ(validateX(e, row.data(e)), row.expected);
    }
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
