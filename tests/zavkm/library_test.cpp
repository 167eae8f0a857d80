// library_test.cpp - the return code of each failure a user meets, one row a failure, none of
// which changes the key database; and writers in several processes and threads at once.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <regex>
#include <thread>

#include "store/file/connpool.h"
#include "store/file/kdf.h"
#include "support.h"

namespace zavkm_test {
namespace {

constexpr const char* kPassword = "table pw";
const std::vector<uint8_t> kJunk = {0x30, 0x03, 0x02, 0x01, 0x05, 0xde, 0xad};
// Extensions holding one basicConstraints extension twice.
const std::vector<uint8_t> kExtTwice = {0x30, 0x1c, 0x30, 0x0c, 0x06, 0x03, 0x55, 0x1d, 0x13, 0x04,
                                        0x05, 0x30, 0x03, 0x01, 0x01, 0xff, 0x30, 0x0c, 0x06, 0x03,
                                        0x55, 0x1d, 0x13, 0x04, 0x05, 0x30, 0x03, 0x01, 0x01, 0xff};

const uint8_t kUtcTime[] = {0x17, 0x0d};

struct Env {
    ScratchDir& dir;
    ZAVKM_KeyDbHandle h;           // "ca" (self-signed, with key), "signer" (its certificate only)
    std::vector<uint8_t> ca, req;  // the CA certificate; the request of the request key "req"
    std::string file(const char* name) const { return dir.path(name); }
};

ZAVKM_ReturnCode open(const std::string& file, const char* password = kPassword) {
    OpenDb db(file, password);
    return db.rc;
}
ZAVKM_ReturnCode sql(const std::string& file, const char* statement) {
    sqlite3* db = nullptr;
    sqlite3_open(file.c_str(), &db);
    int rc = sqlite3_exec(db, statement, nullptr, nullptr, nullptr);
    sqlite3_close(db);
    return rc;
}
// scalar - the single number statement gives on file (-1 when it gives none).
int64_t scalar(const std::string& file, const char* statement) {
    sqlite3* db = nullptr;
    sqlite3_stmt* s = nullptr;
    int64_t n = -1;
    sqlite3_open(file.c_str(), &db);
    if (sqlite3_prepare_v2(db, statement, -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW)
        n = sqlite3_column_int64(s, 0);
    sqlite3_finalize(s);
    sqlite3_close(db);
    return n;
}
ZAVKM_ReturnCode selfSign(Env& e, int32_t keySize, int32_t sig, const std::vector<uint8_t>& ext = {}) {
    ZAVKM_DNItem subject = dn("k");
    return ZAVKM_CreateSelfSignedCertSigExt(e.h, "k", 0, 3, keySize, &subject, 30, sig,
                                            ext.empty() ? nullptr : ext.data(),
                                            static_cast<uint32_t>(ext.size()), nullptr, 0);
}
ZAVKM_ReturnCode issue(Env& e, const std::vector<uint8_t>& req, const char* issuer) {
    return ZAVKM_IssueCert(e.h, req.data(), static_cast<uint32_t>(req.size()), issuer, 3, "", 30,
                           e.file("issued.der").c_str(), 0, nullptr, nullptr);
}
// zeroed - an initialiser given the caller's record zeroes it in place.
template <class T>
ZAVKM_ReturnCode zeroed(ZAVKM_ReturnCode (*init)(T**), T record) {
    T* slot = &record;
    ZAVKM_ReturnCode rc = init(&slot);
    T zero{};
    return slot == &record && std::memcmp(&record, &zero, sizeof(T)) == 0 ? rc : ZAVKM_ERR_PARAMETER;
}

ZAVKM_ReturnCode unsignedPart(const std::vector<uint8_t>& der) {
    uint8_t* tbs = nullptr;
    uint32_t n = 0;
    ZAVKM_ReturnCode rc = ZAVKM_GetUnsignedCertFromCert(der.data(), size(der), &tbs, &n);
    ZAVKM_Free(tbs);
    return rc;
}
// badMonth - cert with the month of its notAfter (the second UTCTime) set to 13.
std::vector<uint8_t> badMonth(std::vector<uint8_t> cert) {
    auto at = std::search(cert.begin(), cert.end(), kUtcTime, kUtcTime + 2);
    at = std::search(at + 2, cert.end(), kUtcTime, kUtcTime + 2);
    if (at + 6 < cert.end()) at[4] = '1', at[5] = '3';
    return cert;
}

struct Row {
    const char* failure;
    std::function<ZAVKM_ReturnCode(Env&)> call;
    ZAVKM_ReturnCode expected;
};
const Row kRows[] = {
    {"a key database that is not there", [](Env& e) { return open(e.file("none.kdb")); }, ZAVKM_ERR_KEYDB_NOT_EXIST},
    {"a wrong password", [](Env& e) { return open(e.file("t.kdb"), "wrong"); }, ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
    {"an empty password and no stash", [](Env& e) { return open(e.file("t.kdb"), ""); }, ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
    {"a text file", [](Env& e) { return open(e.file("junk")); }, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE},
    {"another SQLite file", [](Env& e) { return open(e.file("foreign.kdb")); }, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE},
    {"a truncated key database", [](Env& e) { return open(e.file("cut.kdb")); }, ZAVKM_ERR_DATABASE_CORRUPTION},
    {"a damaged password record", [](Env& e) { return open(e.file("meta.kdb")); }, ZAVKM_ERR_DATABASE_CORRUPTION},
    {"a newer schema", [](Env& e) { return open(e.file("newer.kdb")); }, ZAVKM_ERR_DATABASE_INVALID_VERSION},
    {"creating over a key database", [](Env& e) { ZAVKM_KeyDbHandle h; return ZAVKM_CreateNewKeyDb(e.file("t.kdb").c_str(), kPassword, 0, &h); }, ZAVKM_ERR_DATABASE_ALREADY_EXISTS},
    {"(a stash opens without password)", [](Env& e) {
         ZAVKM_ReturnCode rc = ZAVKM_StashKeyDbPwd(e.file("t.kdb").c_str(), kPassword);
         return rc == ZAVKM_OK ? open(e.file("t.kdb"), "") : rc;
     }, ZAVKM_OK},
    {"(a stash opens without deriving the password's key)", [](Env& e) {
         zavkm::wipeKdfCache();
         ZAVKM_ReturnCode rc = open(e.file("t.kdb"), "");
         return zavkm::kdfCacheStats().misses == 0 ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"(a stash whose key is damaged still opens, by the password in it)", [](Env& e) {
         auto sth = readBytes(e.file("t.sth"));
         sth.back() ^= 1;
         writeBytes(e.file("t.sth"), sth);
         zavkm::wipeKdfCache();
         return open(e.file("t.kdb"), "");
     }, ZAVKM_OK},
    {"(a stash of the first format opens)", [](Env& e) {
         std::vector<uint8_t> sth = {'Z', 'A', 'V', 'K', 'M', 'S', 'T', 'H', 1, 0, 0, static_cast<uint8_t>(std::strlen(kPassword))};
         for (const char* p = kPassword; *p; ++p) sth.push_back(static_cast<uint8_t>(*p ^ 0xA5));
         writeBytes(e.file("t.sth"), sth);
         return open(e.file("t.kdb"), "");
     }, ZAVKM_OK},
    {"a stash cut short", [](Env& e) {
         ZAVKM_ReturnCode rc = ZAVKM_StashKeyDbPwd(e.file("t.kdb").c_str(), kPassword);
         auto sth = readBytes(e.file("t.sth"));
         sth.pop_back();
         writeBytes(e.file("t.sth"), sth);
         return rc == ZAVKM_OK ? open(e.file("t.kdb"), "") : rc;
     }, ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION},
    {"(a reader does not wait for a writer holding the database)", [](Env& e) {
         sqlite3* writer = nullptr;
         sqlite3_open(e.file("t.kdb").c_str(), &writer);
         ZAVKM_KeyItem* k = nullptr;
         ZAVKM_ReturnCode rc = sqlite3_exec(writer, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK
                                   ? ZAVKM_GetKeyItemByLabel(e.h, "ca", &k) : ZAVKM_ERR_PARAMETER;
         ZAVKM_FreeKeyItem(k);
         sqlite3_close(writer);  // rolls back
         return rc;
     }, ZAVKM_OK},
    {"(a deleted key leaves no node of the index behind)", [](Env& e) {
         const char* count = "SELECT count(*) FROM nodes";
         const int64_t before = scalar(e.file("t.kdb"), count);
         ZAVKM_ReturnCode rc = ZAVKM_StoreCACert(e.h, e.ca.data(), size(e.ca), "passing");
         if (rc == ZAVKM_OK) rc = ZAVKM_DeleteKey(e.h, "passing");
         return scalar(e.file("t.kdb"), count) == before ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"a null label", [](Env& e) { ZAVKM_KeyItem* k; return ZAVKM_GetKeyItemByLabel(e.h, nullptr, &k); }, ZAVKM_ERR_NULL_PARAMETER},
    {"an unknown label", [](Env& e) { ZAVKM_KeyItem* k; return ZAVKM_GetKeyItemByLabel(e.h, "nope", &k); }, ZAVKM_ERR_KEY_GET_BY_LABEL},
    {"a label that is taken", [](Env& e) { return ZAVKM_StoreCACert(e.h, e.ca.data(), size(e.ca), "signer"); }, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL},
    {"a key size neither RSA nor EC", [](Env& e) { return selfSign(e, 300, 1); }, ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE},
    {"an unknown signature algorithm", [](Env& e) { return selfSign(e, 256, 3); }, ZAVKM_ERR_SIGNATURE_ALGORITHM},
    {"extensions that are not DER", [](Env& e) { return selfSign(e, 256, 1, kJunk); }, ZAVKM_ERR_ASN},
    {"an extension twice", [](Env& e) { return selfSign(e, 256, 1, kExtTwice); }, ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS},
    {"a certificate that matches no request key", [](Env& e) { return ZAVKM_ReceiveCert(e.h, e.ca.data(), size(e.ca), 0); }, ZAVKM_ERR_REQKEY_FOR_CERT_NULL},
    {"a certificate that is not DER", [](Env& e) { return ZAVKM_StoreCACert(e.h, kJunk.data(), size(kJunk), "j"); }, ZAVKM_ERR_ASN},
    {"a request that is not DER", [](Env& e) { return issue(e, kJunk, "ca"); }, ZAVKM_ERR_ASN},
    {"an issuer without private key", [](Env& e) { return issue(e, e.req, "signer"); }, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL},
    {"a PKCS#12 file asking for more key derivation than one import may do", [](Env& e) {
         // Each count (MAC, certificate safe, key) raised to 8,388,607: refused before any
         // derivation, so the MAC these edits break is never computed.
         ZAVKM_LabelList only{const_cast<char*>("ca"), nullptr};
         ZAVKM_ReturnCode rc = ZAVKM_ExportKeys(e.h, 1, e.file("greedy.p12").c_str(), "pw", &only);
         if (rc != ZAVKM_OK) return rc;
         auto der = readBytes(e.file("greedy.p12"));
         const uint8_t count[] = {0x02, 0x03, 0x01, 0x86, 0xa0};  // INTEGER 100000
         int edited = 0;
         for (auto at = der.begin(); (at = std::search(at, der.end(), count, count + 5)) != der.end(); ++edited)
             at[2] = 0x7f, at[3] = 0xff, at[4] = 0xff;
         writeBytes(e.file("greedy.p12"), der);
         return edited == 3 ? ZAVKM_ImportKeysFromPFXFile(e.h, e.file("greedy.p12").c_str(), "pw") : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_ERR_PBE_ALG_UNSUPPORT},
    {"a certificate over 256 KiB", [](Env& e) {
         auto big = e.ca;
         big.resize((256 << 10) + 1);
         return ZAVKM_StoreCACert(e.h, big.data(), size(big), "big");
     }, ZAVKM_ERR_PARAMETER},
    {"a PEM bundle of 10,001 certificates", [](Env& e) {
         ZAVKM_ReturnCode rc = ZAVKM_ExportCert(e.h, "signer", e.file("ca.pem").c_str(), 1);
         const auto pem = readBytes(e.file("ca.pem"));
         std::vector<uint8_t> bundle;
         for (int i = 0; i < 10001; ++i) bundle.insert(bundle.end(), pem.begin(), pem.end());
         ZAVKM_CertItemList* list = nullptr;
         if (rc == ZAVKM_OK) rc = ZAVKM_ExtractCertListFromPKCS7Data(bundle.data(), size(bundle), &list);
         ZAVKM_FreeCertItemList(list);
         return rc;
     }, ZAVKM_ERR_PARAMETER},
    {"a file over 16 MiB", [](Env& e) {
         writeBytes(e.file("huge.b64"), std::vector<uint8_t>((16 << 20) + 1, 'A'));
         uint8_t* d = nullptr;
         uint32_t n = 0;
         return ZAVKM_Base64DecodeFileToBuf(e.file("huge.b64").c_str(), &d, &n);
     }, ZAVKM_ERR_PARAMETER},
    {"a file that is not PKCS#12", [](Env& e) { return ZAVKM_ImportKeysFromPFXFile(e.h, e.file("junk").c_str(), "pw"); }, ZAVKM_ERR_INVALID_PKCS12_DATA},
    {"a DER length of more than eight bytes", [](Env&) { return unsignedPart({0x30, 0x89, 0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0x30, 0x00}); }, ZAVKM_ERR_ASN},
    {"(a certificate's to-be-signed part)", [](Env& e) { return unsignedPart(e.ca); }, ZAVKM_OK},
    {"a SEQUENCE holding an empty SEQUENCE", [](Env&) { return unsignedPart({0x30, 0x02, 0x30, 0x00}); }, ZAVKM_ERR_ASN},
    {"a to-be-signed part of a validity in month 13", [](Env& e) { return unsignedPart(badMonth(e.ca)); }, ZAVKM_ERR_ASN},
    {"a signer of a validity in month 13", [](Env& e) { auto c = badMonth(e.ca); return ZAVKM_StoreCACert(e.h, c.data(), size(c), "m13"); }, ZAVKM_ERR_ASN},
    {"a PKCS#7 list of a validity in month 13", [](Env& e) {
         ZAVKM_CertItemList* list = nullptr;
         auto c = badMonth(e.ca);
         ZAVKM_ReturnCode rc = ZAVKM_ExtractCertListFromPKCS7Data(c.data(), size(c), &list);
         ZAVKM_FreeCertItemList(list);
         return rc;
     }, ZAVKM_ERR_ASN},
    {"a PKCS#7 that holds no certificates", [](Env&) {
         const std::vector<uint8_t> data = {0x30, 0x0f, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7,
                                            0x0d, 0x01, 0x07, 0x01, 0xa0, 0x02, 0x04, 0x00};
         ZAVKM_CertItemList* list = nullptr;
         ZAVKM_ReturnCode rc = ZAVKM_ExtractCertListFromPKCS7Data(data.data(), size(data), &list);
         ZAVKM_FreeCertItemList(list);
         return rc;
     }, ZAVKM_ERR_ASN},
    {"(a personal key's private key is there, a signer's is not)", [](Env& e) {
         uint8_t personal = 0, signer = 1;
         ZAVKM_ReturnCode rc = ZAVKM_IsPrivateKeyPresent(e.h, "ca", &personal);
         if (rc == ZAVKM_OK) rc = ZAVKM_IsPrivateKeyPresent(e.h, "signer", &signer);
         return personal == 1 && signer == 0 ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"(a crypto information block is the library's to free)", [](Env&) {
         return ZAVKM_SetCryptoInfo(std::calloc(1, 16));
     }, ZAVKM_OK},
    {"base64 that is not base64", [](Env& e) { uint8_t* d; uint32_t n; return ZAVKM_Base64DecodeFileToBuf(e.file("junk").c_str(), &d, &n); }, ZAVKM_ERR_BASE64_INVALID_DATA},
    {"(initialisers zero the caller's record)", [](Env&) {
         uint8_t byte = 1;
         ZAVKM_ReturnCode rc = zeroed(ZAVKM_InitDNItem, dn("x"));
         return rc != ZAVKM_OK ? rc : zeroed(ZAVKM_InitEPKIItem, ZAVKM_EPKIItem{&byte, 1});
     }, ZAVKM_OK},
    {"an initialiser without a slot", [](Env&) { return ZAVKM_InitDNItem(nullptr); }, ZAVKM_ERR_NULL_PARAMETER},
};

TEST(Library, EachFailureHasItsCodeAndChangesNothing) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    ASSERT_EQ(ZAVKM_StartTrace("t", dir.path("trace").c_str(), 0, 0), ZAVKM_OK);
    const std::string t = dir.path("t.kdb");
    ZAVKM_KeyDbHandle h = 0;
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(t.c_str(), kPassword, 0, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CloseKeyDb(h), ZAVKM_OK);
    for (const auto& f : std::filesystem::directory_iterator(dir.path("")))
        EXPECT_EQ(f.path().filename().string().find(".tmp"), std::string::npos) << f.path() << " kept after create";
    zavkm::closeIdleConnections();  // the file alone holds the database
    auto bytes = readBytes(t);
    writeBytes(dir.path("cut.kdb"), std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
    writeBytes(dir.path("meta.kdb"), bytes);
    writeBytes(dir.path("newer.kdb"), bytes);
    writeBytes(dir.path("junk"), std::vector<uint8_t>(300, '!'));
    ASSERT_EQ(sql(dir.path("meta.kdb"), "UPDATE meta SET wrapped_data_key = zeroblob(10)"), SQLITE_OK);
    ASSERT_EQ(sql(dir.path("newer.kdb"), "PRAGMA user_version = 99"), SQLITE_OK);
    ASSERT_EQ(sql(dir.path("foreign.kdb"), "CREATE TABLE t(x)"), SQLITE_OK);

    OpenDb db(t, kPassword);
    ASSERT_EQ(db.rc, ZAVKM_OK);
    Env e{dir, db.h, {}, {}};
    ZAVKM_DNItem ca = dn("ca"), req = dn("req");
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(db.h, "ca", 0, 3, 256, &ca, 30, e.file("ca.der").c_str(), 0), ZAVKM_OK);
    e.ca = readBytes(e.file("ca.der"));
    ASSERT_EQ(ZAVKM_StoreCACert(db.h, e.ca.data(), size(e.ca), "signer"), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(db.h, "req", 256, &req, e.file("req.csr").c_str(), nullptr, nullptr), ZAVKM_OK);
    ZAVKM_ReqKeyItem* pending = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyItemByLabel(db.h, "req", &pending), ZAVKM_OK);
    e.req.assign(pending->certReq->der, pending->certReq->der + pending->certReq->derLength);
    EXPECT_STREQ(pending->certReq->sigAlgIdOID, "1.2.840.10045.4.3.2") << "dotted, not a name";
    ZAVKM_FreeReqKeyItem(pending);

    const std::vector<std::string> before = labels(db.h);
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.failure);
        EXPECT_EQ(row.call(e), row.expected);
    }
    EXPECT_EQ(labels(db.h), before) << "no failure adds or removes a key";
    EXPECT_EQ(open(t), ZAVKM_OK);
    EXPECT_GT(zavkm::idleConnectionCount(), 0u) << "a sound key database's connection is kept";
    const auto trace = readBytes(dir.path("trace"));
    const std::string traced(trace.begin(), trace.end());
    EXPECT_NE(traced.find("ZAVKM_GetKeyItemByLabel"), std::string::npos) << "the trace file records the operations";
    EXPECT_TRUE(std::regex_search(traced, std::regex("openssl: error:0*[1-9A-F]")))
        << "and OpenSSL's reason for a refused input";
    ZAVKM_KeyDbHandle left = 0;
    ASSERT_EQ(ZAVKM_OpenKeyDb(t.c_str(), kPassword, &left), ZAVKM_OK);
    ZAVKM_CleanAll();
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    EXPECT_EQ(ZAVKM_CloseKeyDb(left), ZAVKM_ERR_INVALID_DB_HANDLE) << "cleaning up closes what is open";
    ZAVKM_CleanAll();
}

// Processes with threads, each adding signer certificates to one key database: none is lost.
TEST(Library, WritersInSeveralProcessesAndThreadsLoseNothing) {
    constexpr int kProcesses = 2, kThreads = 2, kAdds = 6;
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    const std::string file = dir.path("shared.kdb");
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem root = dn("root");
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(file.c_str(), kPassword, 0, &h), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "root", 0, 3, 256, &root, 30, dir.path("r.der").c_str(), 0), ZAVKM_OK);
    ZAVKM_CloseKeyDb(h);
    const std::vector<uint8_t> cert = readBytes(dir.path("r.der"));
    ZAVKM_CleanAll();  // nothing open, nothing cached, when the children start
    std::vector<pid_t> children(kProcesses);
    for (int p = 0; p < kProcesses; ++p) {
        if ((children[p] = fork()) != 0) continue;
        std::atomic<int> failures{ZAVKM_Init()};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([&, t] {
                for (int i = 0; i < kAdds; ++i) {
                    OpenDb db(file, kPassword);
                    std::string label = std::to_string(p * 100 + t * 10 + i);
                    failures += db.rc != ZAVKM_OK || ZAVKM_StoreCACert(db.h, cert.data(), size(cert), label.c_str()) != ZAVKM_OK;
                }
            });
        for (auto& t : threads) t.join();
        _exit(failures.load());
    }
    for (pid_t pid : children) {
        int status = 0;
        EXPECT_TRUE(waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0) << "failed calls";
    }
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    EXPECT_EQ(labels(OpenDb(file, kPassword).h).size(), 1u + kProcesses * kThreads * kAdds);
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
