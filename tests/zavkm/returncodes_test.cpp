// returncodes_test.cpp - which return code each kind of failure gives, one row a failure, and
// that no failure changes the key database.
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <functional>

#include "support.h"

namespace zavkm_test {
namespace {

constexpr const char* kPassword = "table pw";

// Env - a key database with a personal CA "ca", a signer certificate "signer" and a request
// key "req", and the files the rows use.
struct Env {
    ScratchDir& dir;
    ZAVKM_KeyDbHandle h;
    std::vector<uint8_t> caDer;       // the CA certificate
    std::vector<uint8_t> requestDer;  // the request of "req"
    std::vector<uint8_t> otherEpki;   // a key that belongs to no certificate, under kPassword
    std::string p12;                  // a PKCS#12 export of "ca" under "p12 pw"
    std::string costlyP12;            // the same with an absurd MAC iteration count
    std::string junk;                 // a file of garbage
};

using Call = std::function<ZAVKM_ReturnCode(Env&)>;
struct Row {
    const char* failure;
    Call call;
    ZAVKM_ReturnCode expected;
};

const std::vector<uint8_t> kJunk = {0x30, 0x03, 0x02, 0x01, 0x05, 0xde, 0xad};

ZAVKM_ReturnCode selfSign(Env& e, const char* label, int32_t version, int32_t keySize, int32_t days,
                          int32_t sig, const std::vector<uint8_t>& ext,
                          const ZAVKM_DNItem* subject = nullptr) {
    ZAVKM_DNItem d = dn("row");
    return ZAVKM_CreateSelfSignedCertSigExt(
        e.h, label, 0, version, keySize, subject != nullptr ? subject : &d, days, sig,
        ext.empty() ? nullptr : ext.data(), static_cast<uint32_t>(ext.size()), nullptr, 0);
}

ZAVKM_ReturnCode issue(Env& e, const std::vector<uint8_t>& req, const char* issuer,
                       const char* serial) {
    std::string out = e.dir.path("issued.der");
    return ZAVKM_IssueCert(e.h, req.data(), static_cast<uint32_t>(req.size()), issuer, 3, serial,
                           30, out.c_str(), 0, nullptr, nullptr);
}

// A basicConstraints extension, as DER Extensions.
const std::vector<uint8_t> kBasicConstraints = {0x30, 0x0e, 0x30, 0x0c, 0x06, 0x03, 0x55, 0x1d,
                                                0x13, 0x04, 0x05, 0x30, 0x03, 0x01, 0x01, 0xff};
std::vector<uint8_t> twice(const std::vector<uint8_t>& ext) {
    std::vector<uint8_t> body(ext.begin() + 2, ext.end());
    std::vector<uint8_t> out = {0x30, static_cast<uint8_t>(2 * body.size())};
    out.insert(out.end(), body.begin(), body.end());
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

const Row kRows[] = {
    {"a required pointer is null",
     [](Env& e) {
         ZAVKM_KeyItem* k;
         return ZAVKM_GetKeyItemByLabel(e.h, nullptr, &k);
     },
     ZAVKM_ERR_NULL_PARAMETER},
    {"a handle that is not open",
     [](Env& e) {
         ZAVKM_LabelList* l;
         return ZAVKM_GetKeyDbLabelList(e.h + 1000, &l);
     },
     ZAVKM_ERR_INVALID_DB_HANDLE},
    {"a label that is not there",
     [](Env& e) {
         ZAVKM_KeyItem* k;
         return ZAVKM_GetKeyItemByLabel(e.h, "nope", &k);
     },
     ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"a request label asked among keys",
     [](Env& e) {
         ZAVKM_KeyItem* k;
         return ZAVKM_GetKeyItemByLabel(e.h, "req", &k);
     },
     ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"deleting a label that is not there", [](Env& e) { return ZAVKM_DeleteKey(e.h, "nope"); },
     ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"deleting a request that is not there",
     [](Env& e) { return ZAVKM_DeleteRequestKeyPair(e.h, "ca"); }, ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"trusting a label that is not there",
     [](Env& e) { return ZAVKM_SetTrustStatus(e.h, "nope", 1); }, ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"exporting a label that is not there",
     [](Env& e) { return ZAVKM_ExportCert(e.h, "nope", e.dir.path("x.pem").c_str(), 1); },
     ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"a label that is taken", [](Env& e) { return selfSign(e, "ca", 3, 256, 30, 1, {}); },
     ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL},
    {"a signer certificate under a taken label",
     [](Env& e) {
         return ZAVKM_StoreCACert(e.h, e.caDer.data(), static_cast<uint32_t>(e.caDer.size()),
                                  "signer");
     },
     ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL},
    {"a key size that is neither RSA nor EC",
     [](Env& e) { return selfSign(e, "k", 3, 300, 30, 1, {}); },
     ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE},
    {"a validity over 9999 days", [](Env& e) { return selfSign(e, "k", 3, 256, 10000, 1, {}); },
     ZAVKM_ERR_EXPIRE_DAYS_TOO_LARGE},
    {"a validity of 0 days", [](Env& e) { return selfSign(e, "k", 3, 256, 0, 1, {}); },
     ZAVKM_ERR_PARAMETER},
    {"an unknown signature algorithm", [](Env& e) { return selfSign(e, "k", 3, 256, 30, 3, {}); },
     ZAVKM_ERR_SIGNATURE_ALGORITHM},
    {"extensions that are not DER", [](Env& e) { return selfSign(e, "k", 3, 256, 30, 1, kJunk); },
     ZAVKM_ERR_ASN},
    {"an extension twice",
     [](Env& e) { return selfSign(e, "k", 3, 256, 30, 1, twice(kBasicConstraints)); },
     ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS},
    {"extensions on a v1 certificate",
     [](Env& e) { return selfSign(e, "k", 1, 256, 30, 1, kBasicConstraints); },
     ZAVKM_ERR_VALIDATION_KEY_WRONG_VERSION},
    {"a name without parts",
     [](Env& e) {
         ZAVKM_DNItem empty{};
         return selfSign(e, "k", 3, 256, 30, 1, {}, &empty);
     },
     ZAVKM_ERR_INVALID_DN_INPUT},
    {"a country that is not two letters",
     [](Env& e) {
         ZAVKM_DNItem bad = dn("x");
         bad.c = const_cast<char*>("Germany");
         return selfSign(e, "k", 3, 256, 30, 1, {}, &bad);
     },
     ZAVKM_ERR_INVALID_DN_INPUT},
    {"an export type other than 1",
     [](Env& e) { return ZAVKM_ExportKeys(e.h, 2, e.dir.path("x.p12").c_str(), "pw", nullptr); },
     ZAVKM_ERR_EXPORT_TYPE},
    {"a certificate that matches no request key",
     [](Env& e) {
         return ZAVKM_ReceiveCert(e.h, e.caDer.data(), static_cast<uint32_t>(e.caDer.size()), 0);
     },
     ZAVKM_ERR_REQKEY_FOR_CERT_NULL},
    {"a garbage certificate",
     [](Env& e) {
         return ZAVKM_StoreCACert(e.h, kJunk.data(), static_cast<uint32_t>(kJunk.size()), "j");
     },
     ZAVKM_ERR_ASN},
    {"a garbage request", [](Env& e) { return issue(e, kJunk, "ca", ""); }, ZAVKM_ERR_ASN},
    {"an issuer without private key", [](Env& e) { return issue(e, e.requestDer, "signer", ""); },
     ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL},
    {"a malformed serial number", [](Env& e) { return issue(e, e.requestDer, "ca", "12ab"); },
     ZAVKM_ERR_PARAMETER},
    {"a signer certificate as default key",
     [](Env& e) { return ZAVKM_SetDefaultKeyByLabel(e.h, "signer"); },
     ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL},
    {"no default key",
     [](Env& e) {
         ZAVKM_KeyItem* k;
         return ZAVKM_GetDefaultKeyItem(e.h, &k);
     },
     ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL},
    {"a private key that is not the certificate's",
     [](Env& e) {
         return ZAVKM_InsertKey(e.h, "pair", static_cast<uint32_t>(e.caDer.size()), e.caDer.data(),
                                static_cast<uint32_t>(e.otherEpki.size()), e.otherEpki.data(), 0,
                                0);
     },
     ZAVKM_ERR_VALIDATION_KEY_PAIR},
    {"a wrong PKCS#12 password",
     [](Env& e) { return ZAVKM_ImportKeysFromPFXFile(e.h, e.p12.c_str(), "wrong"); },
     ZAVKM_ERR_PKCS12_PWD_CORRUPTION},
    {"a PKCS#12 label that clashes",
     [](Env& e) { return ZAVKM_ImportKeysFromPFXFile(e.h, e.p12.c_str(), "p12 pw"); },
     ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL},
    {"a file that is not PKCS#12",
     [](Env& e) { return ZAVKM_ImportKeysFromPFXFile(e.h, e.junk.c_str(), "pw"); },
     ZAVKM_ERR_INVALID_PKCS12_DATA},
    {"a PKCS#12 file that would burn minutes of CPU",
     [](Env& e) { return ZAVKM_ImportKeysFromPFXFile(e.h, e.costlyP12.c_str(), "p12 pw"); },
     ZAVKM_ERR_PBE_ALG_UNSUPPORT},
    {"a PKCS#12 file that does not exist",
     [](Env& e) { return ZAVKM_ImportKeysFromPFXFile(e.h, e.dir.path("none.p12").c_str(), "pw"); },
     ZAVKM_ERR_FILE_OPEN_NOT_EXIST},
    {"base64 that is not base64",
     [](Env& e) {
         uint8_t* d;
         uint32_t n;
         return ZAVKM_Base64DecodeFileToBuf(e.junk.c_str(), &d, &n);
     },
     ZAVKM_ERR_BASE64_INVALID_DATA},
    {"a base64 file that does not exist",
     [](Env& e) {
         uint8_t* d;
         uint32_t n;
         return ZAVKM_Base64DecodeFileToBuf(e.dir.path("none").c_str(), &d, &n);
     },
     ZAVKM_ERR_FILE_OPEN_TO_READ},
    {"an encrypted private key under another password",
     [](Env& e) {
         ZAVKM_EPKIItem item{e.otherEpki.data(), static_cast<uint32_t>(e.otherEpki.size())};
         ZAVKM_PrivKeyInfoItem* pki = nullptr;
         return ZAVKM_GetPrivKeyInfoItemFromEPKIItem(&item, "wrong", &pki);
     },
     ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
    {"a WEBDB file that is not PKCS#12",
     [](Env& e) {
         KeyStoreDescriptor d{};
         d.storeType = WebDbFile;
         d.keyDbFileName = e.junk.c_str();
         uint8_t required;
         return ZAVKM_IsPasswordRequired(&d, &required);
     },
     ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT},
    {"an unknown store type",
     [](Env&) {
         KeyStoreDescriptor d{};
         d.storeType = 9;
         ZAVKM_KeyDbHandle h;
         return ZAVKM_OpenKeyDbX(&d, &h);
     },
     ZAVKM_ERR_INVALID_DATABASE_TYPE},
    {"RSA below 2048 bits in FIPS mode",
     [](Env& e) {
         uint8_t* block = static_cast<uint8_t*>(ZAVKM_Malloc(256));
         block[0] = 1;
         block[1] = 0;
         ZAVKM_SetCryptoInfo(block);
         ZAVKM_ReturnCode rc = selfSign(e, "k", 3, 1024, 30, 1, {});
         block = static_cast<uint8_t*>(ZAVKM_Malloc(256));
         block[0] = 0;
         ZAVKM_SetCryptoInfo(block);
         return rc;
     },
     ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE},
};

// costlier - a copy of the PKCS#12 file whose MAC claims 50,000,000 iterations.
void costlier(const std::string& from, const std::string& to) {
    std::vector<uint8_t> der = readBytes(from);
    const unsigned char* p = der.data();
    PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(der.size()));
    ASSERT_NE(p12, nullptr);
    const ASN1_INTEGER* iter = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &iter, p12);
    ASSERT_NE(iter, nullptr);
    ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(iter), 50000000);
    unsigned char* out = nullptr;
    int n = i2d_PKCS12(p12, &out);
    writeBytes(to, std::vector<uint8_t>(out, out + n));
    OPENSSL_free(out);
    PKCS12_free(p12);
}

std::vector<uint8_t> strangerKeyEpki() {
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
    PKCS8_PRIV_KEY_INFO* p8 = EVP_PKEY2PKCS8(key);
    unsigned char* der = nullptr;
    int n = i2d_PKCS8_PRIV_KEY_INFO(p8, &der);
    ZAVKM_EPKIItem* epki = nullptr;
    std::vector<uint8_t> out;
    if (ZAVKM_GetEPKIItemFromPrivateKey(der, static_cast<uint32_t>(n), kPassword, &epki) == 0)
        out.assign(epki->der, epki->der + epki->derLength);
    ZAVKM_FreeEPKIItem(epki);
    OPENSSL_clear_free(der, static_cast<size_t>(n));
    PKCS8_PRIV_KEY_INFO_free(p8);
    EVP_PKEY_free(key);
    return out;
}

using ReturnCodeTest = LibraryTest;

TEST_F(ReturnCodeTest, EachFailureHasItsCodeAndChangesNothing) {
    std::string file = dir.path("table.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    OpenDb db(file, kPassword);
    ASSERT_EQ(db.rc, ZAVKM_OK);
    Env e{dir, db.h, {}, {}, {}, dir.path("ca.p12"), dir.path("costly.p12"), dir.path("junk")};
    e.caDer = selfSigned(db.h, "ca", dir);
    ASSERT_FALSE(e.caDer.empty());
    ASSERT_EQ(
        ZAVKM_StoreCACert(db.h, e.caDer.data(), static_cast<uint32_t>(e.caDer.size()), "signer"),
        ZAVKM_OK);
    ZAVKM_DNItem subject = dn("request");
    std::string csr = dir.path("req.csr");
    ASSERT_EQ(ZAVKM_CreateNewCertReq(db.h, "req", 256, &subject, csr.c_str(), nullptr, nullptr),
              ZAVKM_OK);
    uint8_t* req = nullptr;
    uint32_t reqLength = 0;
    ASSERT_EQ(ZAVKM_Base64DecodeFileToBuf(csr.c_str(), &req, &reqLength), ZAVKM_OK);
    e.requestDer.assign(req, req + reqLength);
    ZAVKM_Free(req);
    e.otherEpki = strangerKeyEpki();
    ASSERT_FALSE(e.otherEpki.empty());
    ZAVKM_LabelList ca{const_cast<char*>("ca"), nullptr};
    ASSERT_EQ(ZAVKM_ExportKeys(db.h, 1, e.p12.c_str(), "p12 pw", &ca), ZAVKM_OK);
    costlier(e.p12, e.costlyP12);
    writeBytes(e.junk, std::vector<uint8_t>(300, '!'));

    const std::vector<std::string> before = labels(db.h);
    ZAVKM_LabelList* requests = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(db.h, &requests), ZAVKM_OK);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.failure);
        EXPECT_EQ(row.call(e), row.expected);
    }
    EXPECT_EQ(labels(db.h), before) << "no failure adds or removes a key";
    ZAVKM_LabelList* after = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(db.h, &after), ZAVKM_OK);
    ASSERT_NE(after, nullptr);
    EXPECT_STREQ(after->label, requests->label);
    EXPECT_EQ(after->next, nullptr);
    ZAVKM_FreeLabelList(requests);
    ZAVKM_FreeLabelList(after);
}

TEST(ReturnCodeBeforeInit, EveryOperationWaitsForInit) {
    ZAVKM_CleanAll();
    ZAVKM_KeyDbHandle h = 0;
    EXPECT_EQ(ZAVKM_OpenKeyDb("/nonexistent.kdb", "pw", &h), ZAVKM_ERR_NOT_INITIALIZED);
    EXPECT_EQ(ZAVKM_CloseKeyDb(1), ZAVKM_ERR_NOT_INITIALIZED);
    EXPECT_EQ(ZAVKM_OpenKeyDb(nullptr, "pw", &h), ZAVKM_ERR_NULL_PARAMETER);
    EXPECT_EQ(ZAVKM_GetMaxCryptoKeySize(1), 16384u);
}

}  // namespace
}  // namespace zavkm_test
