// token_test.cpp - our library on a SoftHSM2 token made per test in a private SOFTHSM2_CONF,
// every result checked with pkcs11-tool and openssl as well.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <p11-kit/pkcs11.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "shell.h"
#include "zavkm.h"
#include "zavkm_ext.h"

namespace {

const std::string kModule = SOFTHSM_MODULE;    // the library's
const std::string kToolModule = TOOL_MODULE;   // pkcs11-tool's: the host's, on the same tokens
const std::string kOtherLibrary = NOT_A_MODULE;

using zavkm_test::Output;
using zavkm_test::readFile;
using zavkm_test::run;
using zavkm_test::size;

std::vector<std::string> labels(ZAVKM_LabelList* list) {
    std::vector<std::string> out;
    for (ZAVKM_LabelList* l = list; l != nullptr && l->label != nullptr; l = l->next)
        out.push_back(l->label);
    ZAVKM_FreeLabelList(list);
    return out;
}

ZAVKM_DNItem subject(const char* cn) {
    ZAVKM_DNItem dn{};
    dn.cn = const_cast<char*>(cn);
    dn.c = const_cast<char*>("DE");
    return dn;
}

// TokenTest - a fresh token "tok" (user PIN 1234) in a private SoftHSM2 configuration.
class TokenTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zavtok-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);  // under TMPDIR
        dir = tmpl;
        std::filesystem::create_directory(dir + "/tokens");
        std::ofstream(dir + "/softhsm2.conf")
            << "directories.tokendir = " << dir << "/tokens\nobjectstore.backend = file\n";
        setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
        ASSERT_EQ(run("softhsm2-util --init-token --free --label tok --pin 1234 --so-pin 5678")
                      .status,
                  0);
        ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    }
    void TearDown() override {
        if (handle != 0) ZAVKM_CloseKeyDb(handle);
        ZAVKM_CleanAll();
        std::filesystem::remove_all(dir);
    }
    KeyStoreDescriptor token(const char* label = "tok", const char* pin = "1234",
                             const char* newPin = nullptr) {
        KeyStoreDescriptor d{};
        d.storeType = CryptoToken;
        d.cryptoModuleName = kModule.c_str();
        d.tokenLabel = label;
        d.password = pin;
        d.newPassword = newPin;
        return d;
    }
    ZAVKM_ReturnCode open(const KeyStoreDescriptor& d) { return ZAVKM_OpenKeyDbX(&d, &handle); }
    ZAVKM_ReturnCode selfSigned(const char* label, int32_t bits, const std::string& file = "") {
        ZAVKM_DNItem dn = subject(label);
        return ZAVKM_CreateSelfSignedCert(handle, label, 0, 3, bits, &dn, 30,
                                          file.empty() ? nullptr : file.c_str(), 1);
    }
    Output tool(const std::string& args, const char* pin = "1234") {
        return run("pkcs11-tool --module " + kToolModule + " --token-label tok --login --pin " + pin +
                   " " + args);
    }
    // fields - what pkcs11-tool --list-objects shows of each object, by "<kind> <label> <field>"
    // ("Private ec Usage:" -> "Usage:      sign").
    std::map<std::string, std::string> fields() {
        std::map<std::string, std::string> seen;
        std::string kind, label;
        std::vector<std::string> block;  // the field lines of one object, its label comes later
        auto flush = [&] {
            for (const std::string& line : block)
                for (const char* field : {"ID:", "Access:", "Usage:", "EC_PARAMS:"})
                    if (line.find(field) != std::string::npos)
                        seen[kind + " " + label + " " + field] = line.substr(line.find(field));
            block.clear();
        };
        std::istringstream lines(tool("--list-objects").text);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(" Object;") != std::string::npos) {
                flush();
                kind = line.substr(0, line.find(' '));
            }
            if (line.find("label:") != std::string::npos)
                label = line.substr(line.find_last_of(' ') + 1);
            block.push_back(line);
        }
        flush();
        return seen;
    }
    std::vector<std::string> keyLabels() {
        ZAVKM_LabelList* list = nullptr;
        EXPECT_EQ(ZAVKM_GetKeyDbLabelList(handle, &list), ZAVKM_OK);
        return labels(list);
    }
    std::string dir;
    ZAVKM_KeyDbHandle handle = 0;
};

TEST_F(TokenTest, ListsTheModulesTokensAndRefusesWhatIsNoModule) {
    ZAVKM_LabelList* list = nullptr;
    ASSERT_EQ(ZAVKM_GetCryptoTokenLabelList(kModule.c_str(), &list), ZAVKM_OK);
    EXPECT_EQ(labels(list), std::vector<std::string>{"tok"});
    for (const std::string& path : {kOtherLibrary, dir + "/missing.so"}) {
        list = nullptr;
        EXPECT_EQ(ZAVKM_GetCryptoTokenLabelList(path.c_str(), &list),
                  ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED)
            << path;
        EXPECT_EQ(list, nullptr);
    }
    uint8_t required = 0;
    KeyStoreDescriptor d = token();
    ASSERT_EQ(ZAVKM_IsPasswordRequired(&d, &required), ZAVKM_OK);
    EXPECT_EQ(required, 1);
}

TEST_F(TokenTest, OpeningGivesOneCodeForEachMistake) {
    struct Row {
        const char* label;
        const char* pin;
        ZAVKM_ReturnCode rc;
    } rows[] = {
        {"tok", "1234", ZAVKM_OK},
        {"tok", "9999", ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
        {"tok", nullptr, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED},
        {"other", "1234", ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST},
        {"nopin", "1234", ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED},  // no user PIN set
    };
    ASSERT_EQ(run("pkcs11-tool --module " + kToolModule +
                  " --init-token --slot-index 1 --label nopin --so-pin 5678").status, 0);
    for (const Row& r : rows) {
        ZAVKM_KeyDbHandle h = 0;
        KeyStoreDescriptor d = token(r.label, r.pin);
        EXPECT_EQ(ZAVKM_OpenKeyDbX(&d, &h), r.rc) << r.label << " " << (r.pin ? r.pin : "-");
        EXPECT_EQ(h != 0, r.rc == ZAVKM_OK);
        if (h != 0) ZAVKM_CloseKeyDb(h);
    }
}

TEST_F(TokenTest, SelfSignedCertificateIsMadeOnTheToken) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    struct Row {
        const char* label;
        int32_t size, type, bits;
        const char* signature;
    } rows[] = {
        {"rsa", 2048, 1, 2048, "sha256WithRSAEncryption"},
        {"ec", 256, 2, 256, "ecdsa-with-SHA256"},
        {"ed25519", 25519, 3, 256, "Signature Algorithm: ED25519"},
        {"ed448", 448, 4, 456, "Signature Algorithm: ED448"},
    };
    for (const Row& r : rows) {
        const char* label = r.label;
        const std::string pem = dir + "/" + label + ".pem";
        ASSERT_EQ(selfSigned(label, r.size, pem), ZAVKM_OK) << label;
        Output verify = run("openssl verify -CAfile " + pem + " " + pem);
        EXPECT_EQ(verify.status, 0) << verify.text;
        EXPECT_NE(run("openssl x509 -noout -text -in " + pem).text.find(r.signature), std::string::npos)
            << label;
        ZAVKM_KeyItem* key = nullptr;
        ASSERT_EQ(ZAVKM_GetKeyItemByLabel(handle, label, &key), ZAVKM_OK);
        EXPECT_EQ(key->shortValue1, r.type);
        EXPECT_EQ(key->keySize, r.bits);
        EXPECT_EQ(key->hasPrivateKey, 1);
        EXPECT_EQ(key->epki, nullptr);
        ASSERT_NE(key->certList, nullptr);
        EXPECT_EQ(key->certList->next, nullptr);  // self-signed: the chain is the certificate
        ZAVKM_FreeKeyItem(key);
    }
    EXPECT_EQ(keyLabels(), (std::vector<std::string>{"rsa", "ec", "ed25519", "ed448"}));
    // Lookups by label and by public key, and the certificate written out again.
    ZAVKM_KeyItemList* items = nullptr;
    ASSERT_EQ(ZAVKM_GetKeyItemListByLabel(handle, "ec", &items), ZAVKM_OK);
    ASSERT_NE(items, nullptr);
    EXPECT_EQ(items->next, nullptr);
    ZAVKM_KeyItem* ec = items->key;
    ZAVKM_KeyItemList* byKey = nullptr;
    ASSERT_EQ(ZAVKM_GetKeyItemsByPublicKey(handle, ec->keyBerLength, ec->keyBer, &byKey), ZAVKM_OK);
    ASSERT_NE(byKey, nullptr);
    EXPECT_STREQ(byKey->key->label, "ec");
    ZAVKM_FreeKeyItemList(byKey);
    ZAVKM_FreeKeyItemList(items);
    ASSERT_EQ(ZAVKM_ExportCert(handle, "rsa", (dir + "/rsa.der").c_str(), 0), ZAVKM_OK);
    EXPECT_EQ(run("openssl x509 -inform DER -noout -in " + dir + "/rsa.der").status, 0);
    // Each key on the token signs a certificate for a key database's request.
    ZAVKM_KeyDbHandle db = 0;
    const std::string req = dir + "/srv.csr", srv = dir + "/srv.pem";
    ASSERT_EQ(ZAVKM_CreateNewKeyDb((dir + "/srv.kdb").c_str(), "Srv-Passw0rd-1", 0, &db), ZAVKM_OK);
    ZAVKM_DNItem dn = subject("srv");
    ASSERT_EQ(ZAVKM_CreateNewCertReq(db, "srv", 2048, &dn, req.c_str(), nullptr, nullptr),
              ZAVKM_OK);
    ZAVKM_CloseKeyDb(db);
    std::vector<uint8_t> request = readFile(req);
    for (const char* ca : {"rsa", "ec", "ed25519", "ed448"}) {
        ASSERT_EQ(ZAVKM_IssueCert(handle, request.data(), size(request),
                                  ca, 3, nullptr, 30, srv.c_str(), 1, nullptr, nullptr),
                  ZAVKM_OK);
        Output verify = run("openssl verify -CAfile " + dir + "/" + ca + ".pem " + srv);
        EXPECT_EQ(verify.status, 0) << verify.text;
    }
    // They issue with given extensions (basicConstraints critical CA:TRUE, pathlen:0) too, the
    // certificate handed back; the token's own certificate anchors its chain.
    const uint8_t subCa[] = {0x30, 0x14, 0x30, 0x12, 0x06, 0x03, 0x55, 0x1d, 0x13, 0x01, 0x01,
                             0xff, 0x04, 0x08, 0x30, 0x06, 0x01, 0x01, 0xff, 0x02, 0x01, 0x00};
    for (const char* ca : {"rsa", "ed448"}) {
        uint8_t* der = nullptr;
        uint32_t length = 0;
        ASSERT_EQ(ZAVKM_IssueCertX(handle, request.data(), size(request), ca, nullptr, 30, 2, subCa,
                                   sizeof subCa, &der, &length), ZAVKM_OK) << ca;
        std::ofstream(dir + "/sub.der", std::ios::binary).write(reinterpret_cast<const char*>(der), length);
        uint8_t ok = 0;
        EXPECT_EQ(ZAVKM_ValidateCertChainX(handle, der, length, &ok), ZAVKM_OK) << ca;
        EXPECT_EQ(ok, 1) << ca;
        ZAVKM_Free(der);
        EXPECT_NE(run("openssl x509 -inform DER -noout -text -in " + dir + "/sub.der").text.find("CA:TRUE, pathlen:0"),
                  std::string::npos) << ca;
    }
}

TEST_F(TokenTest, BadRequestsLeaveTheTokenUnchanged) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    const std::string longLabel(256, 'x');
    struct Row {
        const char* label;
        int32_t bits;
        ZAVKM_ReturnCode rc;
    } rows[] = {
        {"small", 100, ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE},
        {longLabel.c_str(), 256, ZAVKM_ERR_PARAMETER},
    };
    for (const Row& r : rows) EXPECT_EQ(selfSigned(r.label, r.bits), r.rc) << r.label;
    EXPECT_TRUE(keyLabels().empty());
    EXPECT_EQ(tool("--list-objects").text.find("Object"), std::string::npos);
    ASSERT_EQ(selfSigned("once", 256), ZAVKM_OK);
    EXPECT_EQ(selfSigned("once", 256), ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL);
}

TEST_F(TokenTest, RequestOnTheTokenIsIssuedByAFileCaAndReceived) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    const std::string req = dir + "/srv.csr", cert = dir + "/srv.der", db = dir + "/ca.kdb";
    ZAVKM_DNItem dn = subject("srv");
    ASSERT_EQ(ZAVKM_CreateNewCertReq(handle, "srv", 384, &dn, req.c_str(), nullptr, nullptr),
              ZAVKM_OK);
    Output verify = run("openssl req -verify -noout -in " + req);
    EXPECT_EQ(verify.status, 0) << verify.text;
    ZAVKM_DNItem spare = subject("spare");  // Ed448, signed on the token
    ASSERT_EQ(ZAVKM_CreateNewCertReq(handle, "spare", 448, &spare, (dir + "/spare.csr").c_str(),
                                     nullptr, nullptr), ZAVKM_OK);
    verify = run("openssl req -verify -noout -in " + dir + "/spare.csr");
    EXPECT_EQ(verify.status, 0) << verify.text;
    ZAVKM_LabelList* list = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(handle, &list), ZAVKM_OK);
    std::vector<std::string> requests = labels(list);
    std::sort(requests.begin(), requests.end());
    EXPECT_EQ(requests, (std::vector<std::string>{"spare", "srv"}));

    ZAVKM_KeyDbHandle ca = 0;
    ASSERT_EQ(ZAVKM_CreateNewKeyDb(db.c_str(), "Ca-Passw0rd-123", 0, &ca), ZAVKM_OK);
    ZAVKM_DNItem caName = subject("file ca");
    const std::string caPem = dir + "/ca.pem";
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(ca, "ca", 0, 3, 2048, &caName, 30, caPem.c_str(), 1),
              ZAVKM_OK);
    std::vector<uint8_t> request = readFile(req);
    ASSERT_EQ(ZAVKM_IssueCert(ca, request.data(), size(request), "ca", 3,
                              nullptr, 30, cert.c_str(), 0, nullptr, nullptr),
              ZAVKM_OK);
    std::vector<uint8_t> caDer = readFile(caPem), der = readFile(cert);
    ASSERT_EQ(ZAVKM_ReceiveCert(handle, der.data(), size(der), 0),
              ZAVKM_OK);
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(handle, &list), ZAVKM_OK);
    EXPECT_EQ(labels(list), std::vector<std::string>{"spare"});
    // The chain reaches the CA from a paired key database, then from the CA added as signer.
    auto chainLength = [&] {
        ZAVKM_KeyItem* key = nullptr;
        EXPECT_EQ(ZAVKM_GetKeyItemByLabel(handle, "srv", &key), ZAVKM_OK);
        if (key == nullptr) return 0;
        EXPECT_EQ(key->hasPrivateKey, 1);
        int n = 0;
        for (ZAVKM_CertItemList* c = key->certList; c != nullptr && c->cert != nullptr; c = c->next)
            ++n;
        ZAVKM_FreeKeyItem(key);
        return n;
    };
    auto valid = [&] {
        uint8_t ok = 0;
        ZAVKM_ValidateCertChain(handle, der.data(), size(der), &ok);
        return ok;
    };
    EXPECT_EQ(chainLength(), 1);
    EXPECT_EQ(valid(), 0);
    ASSERT_EQ(ZAVKM_SetSecondaryKeyDb(handle, ca), ZAVKM_OK);
    EXPECT_EQ(chainLength(), 2);
    EXPECT_EQ(valid(), 1);
    ASSERT_EQ(ZAVKM_UnsetSecondaryKeyDb(handle), ZAVKM_OK);
    EXPECT_EQ(chainLength(), 1);
    ASSERT_EQ(ZAVKM_StoreCACert(handle, caDer.data(), size(caDer), "ca"),
              ZAVKM_OK);
    EXPECT_EQ(chainLength(), 2);

    ZAVKM_CloseKeyDb(ca);
    uint8_t present = 1;
    ASSERT_EQ(ZAVKM_IsPrivateKeyPresent(handle, "ca", &present), ZAVKM_OK);
    EXPECT_EQ(present, 0);

    ASSERT_EQ(ZAVKM_DeleteKey(handle, "srv"), ZAVKM_OK);
    EXPECT_EQ(keyLabels(), std::vector<std::string>{"ca"});
    EXPECT_EQ(tool("--list-objects --type privkey").text.find("srv"), std::string::npos);
    EXPECT_EQ(ZAVKM_DeleteKey(handle, "srv"), ZAVKM_ERR_KEY_GET_BY_LABEL);
}

// An Ed25519 key pair made by pkcs11-tool, which names the curve by a PrintableString
// ("edwards25519") instead of the OID, signs for the library once its certificate is on the
// token under the key's CKA_ID.
TEST_F(TokenTest, AnEdDsaKeyMadeByAnotherToolSigns) {
    // The key pair, then its public key as a SubjectPublicKeyInfo, its id the SHA-1 of the key.
    ASSERT_EQ(tool("--keypairgen --key-type EC:edwards25519 --label made --id 01").status, 0);
    std::string point;
    {
        std::istringstream lines(tool("--list-objects --type pubkey").text);
        for (std::string line; std::getline(lines, line);)
            if (line.find("EC_POINT:") != std::string::npos) point = line.substr(line.find("0420") + 4);
        ASSERT_NE(tool("--list-objects --type pubkey").text.find("EC_PARAMS:  130c6564"), std::string::npos);
    }
    ASSERT_EQ(point.size(), 64u);
    std::ofstream(dir + "/made.ext") << "basicConstraints=critical,CA:TRUE\nsubjectKeyIdentifier=hash\n";
    ASSERT_EQ(run("cd " + dir + " && echo 302a300506032b6570032100" + point + " | xxd -r -p > made.spki"
                  " && openssl pkey -pubin -inform DER -in made.spki -out made.pub"
                  " && openssl req -x509 -nodes -newkey ec -pkeyopt ec_paramgen_curve:P-256 -subj "
                  "/CN=other -keyout other.key -out other.pem && openssl req -new -key other.key "
                  "-subj /CN=made -out other.csr && openssl x509 -req -in other.csr -force_pubkey "
                  "made.pub -CA other.pem -CAkey other.key -days 30 -extfile made.ext -out made.pem")
                  .status, 0);
    const std::string id = run("cd " + dir + " && echo " + point +
                               " | xxd -r -p | openssl dgst -sha1 -r | cut -c1-40").text.substr(0, 40);
    ASSERT_EQ(tool("--set-id " + id + " --id 01 --type privkey").status, 0);
    ASSERT_EQ(open(token()), ZAVKM_OK);
    std::vector<uint8_t> cert = readFile(dir + "/made.pem");
    ASSERT_EQ(ZAVKM_InsertKey(handle, "made", size(cert), cert.data(), 0,
                              nullptr, 0, 0), ZAVKM_OK);
    uint8_t present = 0;
    ASSERT_EQ(ZAVKM_IsPrivateKeyPresent(handle, "made", &present), ZAVKM_OK);
    ASSERT_EQ(present, 1);
    ASSERT_EQ(run("cd " + dir + " && openssl req -new -nodes -subj /CN=leaf -newkey ed25519 "
                  "-keyout leaf.key -out leaf.csr").status, 0);
    std::vector<uint8_t> csr = readFile(dir + "/leaf.csr");
    const std::string leaf = dir + "/leaf.pem";
    ASSERT_EQ(ZAVKM_IssueCert(handle, csr.data(), size(csr), "made", 3,
                              nullptr, 30, leaf.c_str(), 1, nullptr, nullptr), ZAVKM_OK);
    Output verify = run("openssl verify -partial_chain -CAfile " + dir + "/made.pem " + leaf);
    EXPECT_EQ(verify.status, 0) << verify.text;
}

// FIPS mode refuses MD5 and SHA-1 signatures and RSA keys below 2048 bits on what comes in, on
// key databases and tokens alike, and nothing else. Each row: what comes in, and what FIPS mode
// answers (outside it every row is taken).
TEST_F(TokenTest, FipsModeRefusesWeakSignaturesComingIn) {
    ASSERT_EQ(run("cd " + dir + " && for w in sha1 md5; do openssl req -x509 -nodes -newkey "
                  "rsa:2048 -$w -keyout $w.key -subj /CN=$w -days 30 -out $w.pem || exit 1; done && "
                  "openssl req -x509 -nodes -newkey rsa:1024 -keyout small.key -subj /CN=small -out "
                  "small.pem && openssl req -new -key sha1.key -sha1 -subj /CN=r -out sha1.csr && "
                  "openssl req -x509 -nodes -newkey ed448 -keyout ed.key -subj /CN=ed -out ed.pem && "
                  "openssl pkcs12 -export -nokeys -in md5.pem -passout pass:Pfx-passw0rd -out md5.p12")
                  .status, 0);
    ASSERT_EQ(open(token()), ZAVKM_OK);
    ZAVKM_KeyDbHandle db = 0;
    ASSERT_EQ(ZAVKM_CreateNewKeyDb((dir + "/f.kdb").c_str(), "Fips-Passw0rd-1", 0, &db), ZAVKM_OK);
    const ZAVKM_ReturnCode weak = ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM;
    for (ZAVKM_KeyDbHandle h : {db, handle}) {
        // A CA of the store's own, and two requests of its own that openssl's CA signs.
        ZAVKM_DNItem dn = subject("fips");
        ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "issuer", 0, 3, 256, &dn, 30, nullptr, 0), ZAVKM_OK);
        for (const char* label : {"renewed", "waiting"})
            ASSERT_EQ(ZAVKM_CreateNewCertReq(h, label, 256, &dn, (dir + "/" + label + ".csr").c_str(),
                                             nullptr, nullptr), ZAVKM_OK);
        const std::string sign = " -CA md5.pem -CAkey md5.key -days 30 -in ";
        ASSERT_EQ(run("cd " + dir + " && openssl x509 -req -sha256" + sign + "renewed.csr -out "
                      "renewed.pem && openssl x509 -req -sha1 -set_serial 7" + sign + "renewed.csr "
                      "-out renewed-sha1.pem && openssl x509 -req -sha1" + sign + "waiting.csr -out "
                      "waiting-sha1.pem").status, 0);
        auto in = [&](const char* file) { return readFile(dir + "/" + file); };
        std::vector<uint8_t> renewed = in("renewed.pem"), key = in("sha1.key");
        ASSERT_EQ(ZAVKM_ReceiveCert(h, renewed.data(), size(renewed), 0), ZAVKM_OK);
        std::string pass;  // each pass stores under labels of its own
        auto signer = [&](const char* file) {
            auto c = in(file);
            return ZAVKM_StoreCACert(h, c.data(), size(c), (pass + file).c_str());
        };
        struct Row {
            const char* name;
            std::function<ZAVKM_ReturnCode()> call;
            ZAVKM_ReturnCode fips;
        } rows[] = {
            {"a SHA-1 signer", [&] { return signer("sha1.pem"); }, weak},
            {"an MD5 signer", [&] { return signer("md5.pem"); }, weak},
            {"an RSA-1024 signer", [&] { return signer("small.pem"); },
             ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE},
            {"an Ed448 signer", [&] { return signer("ed.pem"); }, ZAVKM_OK},
            {"a SHA-1 key", [&] { auto c = in("sha1.pem");
                 return ZAVKM_InsertKey(h, (pass + "k").c_str(), size(c), c.data(), size(key), key.data(), 0, 0); }, weak},
            {"a SHA-1 request key", [&] { auto c = in("sha1.csr");
                 return ZAVKM_InsertReqKey(h, (pass + "r").c_str(), size(c), c.data(), size(key), key.data()); }, weak},
            {"a SHA-1 request to issue", [&] { auto c = in("sha1.csr");
                 return ZAVKM_IssueCert(h, c.data(), size(c), "issuer", 3, nullptr, 30,
                                        (dir + "/out.pem").c_str(), 1, nullptr, nullptr); }, weak},
            {"a SHA-1 certificate received", [&] { auto c = in("waiting-sha1.pem");
                 return ZAVKM_ReceiveCert(h, c.data(), size(c), 0); }, weak},
            {"a SHA-1 renewal", [&] { auto c = in("renewed-sha1.pem"); return ZAVKM_RenewCert(h, c.data(), size(c)); }, weak},
            {"a SHA-256 renewal", [&] { return ZAVKM_RenewCert(h, renewed.data(), size(renewed)); }, ZAVKM_OK},
            {"an MD5 certificate in a PKCS#12 file", [&] {
                 return ZAVKM_ImportKeysFromPFXFile(h, (dir + "/md5.p12").c_str(), "Pfx-passw0rd"); }, weak},
        };
        for (bool fips : {true, false}) {
            pass = fips ? "fips " : "";
            auto* info = static_cast<uint8_t*>(std::calloc(1, 16));  // the library keeps the block
            info[0] = fips ? 1 : 0;
            ASSERT_EQ(ZAVKM_SetCryptoInfo(info), ZAVKM_OK);
            for (const Row& r : rows)
                EXPECT_EQ(r.call(), fips ? r.fips : ZAVKM_OK) << r.name << (fips ? " in FIPS mode" : "")
                                                              << (h == db ? " (key database)" : " (token)");
        }
    }
    ZAVKM_CloseKeyDb(db);
}

// Keys made elsewhere are brought onto the token: each row inserts a certificate (and a key,
// plain or encrypted under the PIN) and names what the label holds afterwards.
TEST_F(TokenTest, InsertedKeysAndRequestsWorkOnTheToken) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    auto make = [&](const std::string& name, const std::string& args) {
        ASSERT_EQ(run("cd " + dir + " && openssl req -nodes -subj /CN=" + name + " -keyout " +
                      name + ".key " + args).status, 0) << name;
    };
    make("rsa", "-x509 -days 2 -newkey rsa:2048 -out rsa.pem");
    make("ec", "-x509 -days 2 -newkey ec -pkeyopt ec_paramgen_curve:P-384 -out ec.pem");
    make("ed", "-x509 -days 2 -newkey ed25519 -out ed.pem");
    make("req", "-new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -out req.csr");
    ASSERT_EQ(run("cd " + dir + " && openssl rsa -traditional -in rsa.key -out rsa1.key && "
                  "openssl pkcs8 -topk8 -in ec.key -outform DER -passout pass:1234 -out ec.epki && "
                  "openssl pkcs8 -topk8 -in ec.key -outform DER -passout pass:9999 -out ec.bad")
                  .status, 0);
    auto data = [&](const std::string& name) {
        return name.empty() ? std::vector<uint8_t>() : readFile(dir + "/" + name);
    };
    struct Row {
        const char *label, *cert, *key;
        uint8_t flag;
        ZAVKM_ReturnCode rc;
        int present;  // IsPrivateKeyPresent afterwards; -1: no such label
    } rows[] = {
        {"wrong", "rsa.pem", "req.key", 0, ZAVKM_ERR_VALIDATION_KEY_PAIR, -1},
        {"badpin", "ec.pem", "ec.bad", 0, ZAVKM_ERR_DATABASE_INVALID_PASSWORD, -1},
        {"marked", "rsa.pem", "", 1, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL, -1},  // undone: no key
        {"rsa", "rsa.pem", "rsa1.key", 0, ZAVKM_OK, 1},  // PKCS#1
        {"ec", "ec.pem", "ec.epki", 0, ZAVKM_OK, 1},     // encrypted under the PIN
        {"ed", "ed.pem", "ed.key", 0, ZAVKM_OK, 1},      // Ed25519, PKCS#8
        {"again", "ec.pem", "", 0, ZAVKM_OK, 1},         // its key is on the token now
        {"rsa", "ec.pem", "", 0, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL, 1},
    };
    for (const Row& r : rows) {
        std::vector<uint8_t> cert = data(r.cert), key = data(r.key);
        EXPECT_EQ(ZAVKM_InsertKey(handle, r.label, size(cert), cert.data(),
                                  size(key),
                                  key.empty() ? nullptr : key.data(), r.flag, 0),
                  r.rc)
            << r.label;
        uint8_t present = 0;
        EXPECT_EQ(ZAVKM_IsPrivateKeyPresent(handle, r.label, &present),
                  r.present < 0 ? ZAVKM_ERR_KEY_GET_BY_LABEL : ZAVKM_OK) << r.label;
        EXPECT_EQ(present, r.present > 0 ? 1 : 0) << r.label;
    }
    // Three key pairs ("again" shares ec's), each private key sensitive, not extractable, with the
    // id of its certificate; the refused rows left nothing behind.
    Output all = tool("--list-objects");
    auto count = [&](const std::string& what) {
        size_t n = 0;
        for (size_t at = all.text.find(what); at != std::string::npos;
             at = all.text.find(what, at + 1))
            ++n;
        return n;
    };
    EXPECT_EQ(count("Private Key Object"), 3u) << all.text;
    EXPECT_EQ(count("Public Key Object"), 3u) << all.text;
    EXPECT_EQ(count("Certificate Object"), 4u) << all.text;
    std::map<std::string, std::string> seen = fields();
    for (const std::string label : {"rsa", "ec", "ed"}) {
        EXPECT_EQ(seen["Private " + label + " Access:"], "Access:     sensitive") << all.text;
        EXPECT_FALSE(seen["Certificate " + label + " ID:"].empty()) << all.text;
        for (const char* kind : {"Private ", "Public "})
            EXPECT_EQ(seen[kind + label + " ID:"], seen["Certificate " + label + " ID:"]) << all.text;
    }

    // A request key: its request written again as stored, then signed anew with SHA-384.
    std::vector<uint8_t> csr = data("req.csr"), reqKey = data("req.key"), wrongKey = data("rsa.key");
    auto insertRequest = [&](const char* label, const std::vector<uint8_t>& k) {
        return ZAVKM_InsertReqKey(handle, label, size(csr), csr.data(),
                                  size(k), k.data());
    };
    EXPECT_EQ(insertRequest("mismatch", wrongKey), ZAVKM_ERR_VALIDATION_KEY_PAIR);
    ASSERT_EQ(insertRequest("req", reqKey), ZAVKM_OK);
    ZAVKM_LabelList* list = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(handle, &list), ZAVKM_OK);
    EXPECT_EQ(labels(list), std::vector<std::string>{"req"});
    ZAVKM_ReqKeyItem* item = nullptr;
    ASSERT_EQ(ZAVKM_GetReqKeyItemByLabel(handle, "req", &item), ZAVKM_OK);
    EXPECT_EQ(item->keySize, 256);
    EXPECT_EQ(item->epki, nullptr);
    EXPECT_NE(item->certReq, nullptr);
    ZAVKM_FreeReqKeyItem(item);
    EXPECT_EQ(ZAVKM_GetReqKeyItemByLabel(handle, "rsa", &item), ZAVKM_ERR_KEY_GET_BY_LABEL);
    const std::string out = dir + "/out.csr", again = dir + "/again.csr";
    auto text = [&](const std::string& file) { return run("openssl req -verify -noout -text -in " + file); };
    ASSERT_EQ(ZAVKM_ReCreateCertReq(handle, "req", out.c_str(), nullptr, nullptr), ZAVKM_OK);
    auto der = [&](const std::string& file) { return run("openssl req -outform DER -in " + file + " | base64").text; };
    EXPECT_EQ(der(out), der(dir + "/req.csr"));
    struct Sig { const char* label; int32_t alg; ZAVKM_ReturnCode rc; const char* shows; } sigs[] = {
        {"req", 2, ZAVKM_OK, "ecdsa-with-SHA384"},   // the request key signs on the token
        {"rsa", 1, ZAVKM_OK, "sha256WithRSA"},       // an imported personal key renews
        {"ec", 2, ZAVKM_OK, "ecdsa-with-SHA384"},
        {"ed", 2, ZAVKM_OK, "Signature Algorithm: ED25519"},
        {"nothing", 1, ZAVKM_ERR_KEY_GET_BY_LABEL, nullptr},
        {"req", 3, ZAVKM_ERR_SIGNATURE_ALGORITHM, nullptr},
    };
    for (const Sig& r : sigs) {
        std::filesystem::remove(again);
        EXPECT_EQ(ZAVKM_ReCreateCertReqSig(handle, r.label, r.alg, again.c_str(), nullptr, nullptr), r.rc) << r.label;
        if (r.shows == nullptr) continue;
        Output shown = text(again);
        EXPECT_EQ(shown.status, 0) << shown.text;
        EXPECT_NE(shown.text.find(r.shows), std::string::npos) << shown.text;
        EXPECT_NE(shown.text.find(std::string("CN") + " = " + (r.label)), std::string::npos) << shown.text;
    }
    // The request object now holds the SHA-384 request, alone under its label.
    ASSERT_EQ(ZAVKM_ReCreateCertReqSig(handle, "req", 2, again.c_str(), nullptr, nullptr), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_ReCreateCertReq(handle, "req", out.c_str(), nullptr, nullptr), ZAVKM_OK);
    EXPECT_EQ(readFile(out), readFile(again));
    EXPECT_EQ(ZAVKM_ReCreateCertReq(handle, "nothing", out.c_str(), nullptr, nullptr), ZAVKM_ERR_KEY_GET_BY_LABEL);
    ASSERT_EQ(ZAVKM_GetReqKeyDbLabelList(handle, &list), ZAVKM_OK);
    EXPECT_EQ(labels(list), std::vector<std::string>{"req"});
}

// A key pair made on the token or brought onto it is for signing only: its private half may not
// decrypt, unwrap or derive, its public half may not encrypt, wrap or derive, whatever the
// module's defaults are.
TEST_F(TokenTest, KeysOnTheTokenSignAndVerifyOnly) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    ASSERT_EQ(run("cd " + dir + " && openssl req -x509 -nodes -days 2 -subj /CN=in -newkey rsa:2048 "
                  "-keyout in-rsa.key -out in-rsa.pem && openssl req -x509 -nodes -days 2 -subj "
                  "/CN=in -newkey ec -pkeyopt ec_paramgen_curve:P-256 -keyout in-ec.key -out in-ec.pem"
                  " && openssl req -x509 -nodes -days 2 -subj /CN=in -newkey ed25519 -keyout "
                  "in-ed25519.key -out in-ed25519.pem && openssl req -x509 -nodes -days 2 -subj "
                  "/CN=in -newkey ed448 -keyout in-ed448.key -out in-ed448.pem").status, 0);
    for (auto [label, bits] : {std::pair{"gen-rsa", 2048}, std::pair{"gen-ec", 384},
                               std::pair{"gen-ed25519", 25519}, std::pair{"gen-ed448", 448}})
        ASSERT_EQ(selfSigned(label, bits), ZAVKM_OK) << label;
    for (const std::string label : {"in-rsa", "in-ec", "in-ed25519", "in-ed448"}) {
        std::vector<uint8_t> cert = readFile(dir + "/" + label + ".pem");
        std::vector<uint8_t> key = readFile(dir + "/" + label + ".key");
        ASSERT_EQ(ZAVKM_InsertKey(handle, label.c_str(), size(cert),
                                  cert.data(), size(key), key.data(), 0, 0),
                  ZAVKM_OK) << label;
    }
    std::map<std::string, std::string> seen = fields();
    for (const std::string label : {"gen-rsa", "gen-ec", "gen-ed25519", "gen-ed448", "in-rsa",
                                    "in-ec", "in-ed25519", "in-ed448"}) {
        EXPECT_EQ(seen["Private " + label + " Usage:"], "Usage:      sign") << label;
        EXPECT_EQ(seen["Public " + label + " Usage:"], "Usage:      verify") << label;
    }
    // EdDSA keys name their curve by its OID, as their certificates do.
    for (const std::string label : {"gen-ed25519", "in-ed25519"})
        EXPECT_EQ(seen["Public " + label + " EC_PARAMS:"].substr(0, 26), "EC_PARAMS:  06032b6570 (OI") << label;
    for (const std::string label : {"gen-ed448", "in-ed448"})
        EXPECT_EQ(seen["Public " + label + " EC_PARAMS:"].substr(0, 26), "EC_PARAMS:  06032b6571 (OI") << label;
    // Every key signs, checked by openssl: a certificate for a key database's request.
    ASSERT_EQ(run("cd " + dir + " && openssl req -new -nodes -subj /CN=leaf -newkey ec -pkeyopt "
                  "ec_paramgen_curve:P-256 -keyout leaf.key -out leaf.csr").status, 0);
    const std::vector<uint8_t> csr = readFile(dir + "/leaf.csr");
    for (const std::string label : {"in-rsa", "in-ec", "in-ed25519", "in-ed448"}) {
        const std::string out = dir + "/" + label + ".leaf";
        ASSERT_EQ(ZAVKM_IssueCert(handle, csr.data(), size(csr),
                                  label.c_str(), 3, nullptr, 30, out.c_str(), 1, nullptr, nullptr),
                  ZAVKM_OK) << label;
        Output verify = run("openssl verify -CAfile " + dir + "/" + label + ".pem " + out);
        EXPECT_EQ(verify.status, 0) << label << verify.text;
    }
}

// entriesOf - the token's listing as "label kind default trusted" lines, sorted.
std::vector<std::string> entriesOf(ZAVKM_KeyDbHandle handle) {
    ZAVKM_Entry* entries = nullptr;
    uint32_t count = 0, damaged = 0;
    EXPECT_EQ(ZAVKM_ListEntriesX(handle, 0, &entries, &count, &damaged), ZAVKM_OK);
    std::vector<std::string> out;
    for (uint32_t i = 0; i < count; ++i)
        out.push_back(std::string(entries[i].label) + " " + std::to_string(entries[i].kind) + " " +
                      std::to_string(entries[i].isDefault) + " " + std::to_string(entries[i].trusted));
    ZAVKM_FreeEntries(entries, count);
    std::sort(out.begin(), out.end());
    return out;
}

// PKCS#12 files come onto the token as its own objects: keys that sign only and never leave it,
// certificates beside them, the file's marks as the token's flags; a failure leaves nothing.
TEST_F(TokenTest, Pkcs12FilesComeOntoTheTokenWhole) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    const std::string p = "cd " + dir + " && ";
    ASSERT_EQ(run(p + "openssl req -x509 -nodes -days 9 -subj /CN=ca -newkey rsa:2048 -keyout ca.key "
                  "-out ca.pem 2> /dev/null && openssl req -x509 -nodes -days 9 -subj /CN=rsa -newkey rsa:2048 "
                  "-keyout rsa.key -out rsa.pem && openssl req -x509 -nodes -days 9 -subj /CN=ed "
                  "-newkey ed25519 -keyout ed.key -out ed.pem && openssl req -x509 -nodes -days 9 "
                  "-subj /CN=ec -newkey ec -pkeyopt ec_paramgen_curve:P-384 -keyout ec.key -out ec.pem"
                  " && P=Pfx-passw0rd && openssl pkcs12 -export -in rsa.pem -inkey rsa.key -certfile "
                  "ca.pem -name rsa -passout pass:$P -out rsa.p12 && openssl pkcs12 -export -in ed.pem"
                  " -inkey ed.key -name ed -passout pass:$P -out ed.p12 && openssl pkcs12 -export -in "
                  "ec.pem -inkey ec.key -passout pass:$P -out ec.p12 && openssl pkcs12 -export -nokeys"
                  " -in ca.pem -passout pass:$P -out anchor.p12 2> /dev/null && openssl genpkey -genparam "
                  "-algorithm DSA -pkeyopt dsa_paramgen_bits:1024 -out dsa.par && openssl req -x509 "
                  "-nodes -days 9 -subj /CN=dsa -newkey dsa:dsa.par -keyout dsa.key -out dsa.pem && "
                  "openssl pkcs12 -export -nokeys -in dsa.pem -passout pass:$P -out dsa.p12").status, 0);
    struct Row {
        const char* what;
        const char* file;
        const char* password;
        const char* setup;  // pkcs11-tool arguments run first, or null
        ZAVKM_ReturnCode rc;
        std::vector<std::string> entries;  // "label kind default trusted" afterwards, sorted
    } rows[] = {
        {"wrong password", "rsa.p12", "wrong", nullptr, ZAVKM_ERR_PKCS12_PWD_CORRUPTION, {}},
        {"not PKCS#12", "rsa.pem", "Pfx-passw0rd", nullptr, ZAVKM_ERR_INVALID_PKCS12_DATA, {}},
        {"a DSA signer", "dsa.p12", "Pfx-passw0rd", nullptr, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM, {}},
        {"flags object damaged: undone", "rsa.p12", "Pfx-passw0rd",
         "--write-object /dev/null --type data --private --application-label 'zav7km key flags'",
         ZAVKM_ERR_DATABASE_CORRUPTION, {}},
        {"RSA with its CA", "rsa.p12", "Pfx-passw0rd", "--delete-object --type data --application-label 'zav7km key flags'",
         ZAVKM_OK, {"ca 2 0 0", "rsa 1 0 0"}},
        {"label taken", "rsa.p12", "Pfx-passw0rd", nullptr, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL,
         {"ca 2 0 0", "rsa 1 0 0"}},
        {"Ed25519", "ed.p12", "Pfx-passw0rd", nullptr, ZAVKM_OK,
         {"ca 2 0 0", "ed 1 0 0", "rsa 1 0 0"}},
        {"no name: the common name", "ec.p12", "Pfx-passw0rd", nullptr, ZAVKM_OK,
         {"ca 2 0 0", "ec 1 0 0", "ed 1 0 0", "rsa 1 0 0"}},
        {"a certificate held already", "anchor.p12", "Pfx-passw0rd", nullptr, ZAVKM_OK,
         {"ca 2 0 0", "ec 1 0 0", "ed 1 0 0", "rsa 1 0 0"}},
    };
    for (const Row& r : rows) {
        if (r.setup != nullptr) {
            ASSERT_EQ(tool(r.setup).status, 0) << r.what;
        }
        ZAVKM_CloseKeyDb(handle);  // each row on a fresh handle, as a caller comes back
        handle = 0;
        ASSERT_EQ(open(token()), ZAVKM_OK);
        EXPECT_EQ(ZAVKM_ImportKeysFromPFXFile(handle, (dir + "/" + r.file).c_str(), r.password), r.rc)
            << r.what;
        if (r.rc == ZAVKM_ERR_DATABASE_CORRUPTION) {  // the flags fail last: every object went again
            EXPECT_EQ(tool("--list-objects --type privkey").text.find("label"), std::string::npos);
            continue;
        }
        EXPECT_EQ(entriesOf(handle), r.entries) << r.what;
    }
    std::map<std::string, std::string> seen = fields();
    for (const std::string label : {"rsa", "ed", "ec"}) {
        EXPECT_EQ(seen["Private " + label + " Usage:"], "Usage:      sign") << label;
        EXPECT_EQ(seen["Private " + label + " Access:"], "Access:     sensitive") << label;  // no "extractable"
        EXPECT_EQ(seen["Private " + label + " ID:"], seen["Certificate " + label + " ID:"]) << label;
    }
    // Once the token no longer holds it, the same certificate comes again, as a signer named by
    // its common name (openssl names no certificate bag without a key), not trusted.
    ASSERT_EQ(ZAVKM_DeleteKey(handle, "ca"), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_ImportKeysFromPFXFile(handle, (dir + "/anchor.p12").c_str(), "Pfx-passw0rd"),
              ZAVKM_OK);
    EXPECT_EQ(entriesOf(handle), (std::vector<std::string>{"ca 2 0 0", "ec 1 0 0", "ed 1 0 0",
                                                           "rsa 1 0 0"}));
}

// The default key and trust marks of a token live in its flags object, which only the PIN reads
// or changes; each call sees what the last one set, on a new handle too.
TEST_F(TokenTest, DefaultAndTrustMarksStayOnTheToken) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    ASSERT_EQ(selfSigned("a", 256), ZAVKM_OK);
    ASSERT_EQ(selfSigned("b", 25519), ZAVKM_OK);
    ASSERT_EQ(run("cd " + dir + " && openssl req -x509 -nodes -days 9 -subj /CN=s -newkey ec -pkeyopt "
                  "ec_paramgen_curve:P-256 -keyout s.key -out s.pem").status, 0);
    const std::vector<uint8_t> signer = readFile(dir + "/s.pem");
    ASSERT_EQ(ZAVKM_InsertKey(handle, "s", size(signer), signer.data(), 0, nullptr, 0, 0), ZAVKM_OK);
    ZAVKM_KeyItem* item = nullptr;
    EXPECT_EQ(ZAVKM_GetDefaultKeyItem(handle, &item), ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL);
    struct Row {
        const char* what;
        std::function<ZAVKM_ReturnCode()> call;
        ZAVKM_ReturnCode rc;
        std::vector<std::string> entries;  // "label kind default trusted", sorted
    } rows[] = {
        {"default a", [&] { return ZAVKM_SetDefaultKeyByLabel(handle, "a"); }, ZAVKM_OK,
         {"a 1 1 0", "b 1 0 0", "s 2 0 0"}},
        {"default b moves it", [&] { return ZAVKM_SetDefaultKeyByLabel(handle, "b"); }, ZAVKM_OK,
         {"a 1 0 0", "b 1 1 0", "s 2 0 0"}},
        {"default of a signer", [&] { return ZAVKM_SetDefaultKeyByLabel(handle, "s"); },
         ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL, {"a 1 0 0", "b 1 1 0", "s 2 0 0"}},
        {"default of nothing", [&] { return ZAVKM_SetDefaultKeyByLabel(handle, "x"); },
         ZAVKM_ERR_KEY_GET_BY_LABEL, {"a 1 0 0", "b 1 1 0", "s 2 0 0"}},
        {"trust s", [&] { return ZAVKM_SetTrustStatus(handle, "s", 1); }, ZAVKM_OK,
         {"a 1 0 0", "b 1 1 0", "s 2 0 1"}},
        {"trust nothing", [&] { return ZAVKM_SetTrustStatus(handle, "x", 1); },
         ZAVKM_ERR_KEY_GET_BY_LABEL, {"a 1 0 0", "b 1 1 0", "s 2 0 1"}},
        {"untrust s", [&] { return ZAVKM_SetTrustStatus(handle, "s", 0); }, ZAVKM_OK,
         {"a 1 0 0", "b 1 1 0", "s 2 0 0"}},
        {"trust a", [&] { return ZAVKM_SetTrustStatus(handle, "a", 1); }, ZAVKM_OK,
         {"a 1 0 1", "b 1 1 0", "s 2 0 0"}},
        {"trust b", [&] { return ZAVKM_SetTrustStatus(handle, "b", 1); }, ZAVKM_OK,
         {"a 1 0 1", "b 1 1 1", "s 2 0 0"}},
        {"delete b drops its marks", [&] { return ZAVKM_DeleteKey(handle, "b"); }, ZAVKM_OK,
         {"a 1 0 1", "s 2 0 0"}},
        {"a new b starts unmarked", [&] { return selfSigned("b", 256); }, ZAVKM_OK,
         {"a 1 0 1", "b 1 0 0", "s 2 0 0"}},
        {"inserted as default", [&] {
             ZAVKM_DNItem dn = subject("c");
             return ZAVKM_CreateSelfSignedCert(handle, "c", 1, 3, 448, &dn, 30, nullptr, 1);
         }, ZAVKM_OK, {"a 1 0 1", "b 1 0 0", "c 1 1 0", "s 2 0 0"}},
        {"inserted trusted", [&] {
             return ZAVKM_InsertKey(handle, "t", size(signer), signer.data(), 0, nullptr, 0, 1);
         }, ZAVKM_OK, {"a 1 0 1", "b 1 0 0", "c 1 1 0", "s 2 0 0", "t 2 0 1"}},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.call(), r.rc) << r.what;
        ZAVKM_CloseKeyDb(handle);  // the marks are on the token, not in the handle
        handle = 0;
        ASSERT_EQ(open(token()), ZAVKM_OK);
        EXPECT_EQ(entriesOf(handle), r.entries) << r.what;
    }
    ASSERT_EQ(ZAVKM_GetDefaultKeyItem(handle, &item), ZAVKM_OK);
    EXPECT_STREQ(item->label, "c");
    EXPECT_EQ(item->keyFlag1, 1);
    ZAVKM_FreeKeyItem(item);
    ASSERT_EQ(ZAVKM_GetKeyItemByLabel(handle, "a", &item), ZAVKM_OK);
    EXPECT_EQ(item->keyFlag1, 0);
    EXPECT_EQ(item->keyFlag2, 1);
    ZAVKM_FreeKeyItem(item);
    // One flags object after all these changes (each replaced the one before); pkcs11-tool shows
    // it after a login.
    const std::string data = tool("--list-objects --type data").text;
    EXPECT_NE(data.find("zav7km key flags"), std::string::npos) << data;
    EXPECT_EQ(data.find("Data object", data.find("Data object") + 1), std::string::npos) << data;
    Output read = tool("--read-object --type data --application-label 'zav7km key flags'");
    EXPECT_NE(read.text.find("default c\ntrusted a\n"), std::string::npos) << read.text;
    // A damaged flags object is reported, not skipped.
    ASSERT_EQ(tool("--write-object /dev/null --type data --private --application-label 'zav7km key flags'").status, 0);
    EXPECT_EQ(ZAVKM_SetDefaultKeyByLabel(handle, "a"), ZAVKM_ERR_DATABASE_CORRUPTION);
}

// notAfterByOpenssl - the notAfter of a DER certificate in seconds since 1970, as openssl and
// date read it.
int64_t notAfterByOpenssl(const std::string& dir, const uint8_t* der, uint32_t n) {
    std::ofstream(dir + "/entry.der", std::ios::binary).write(reinterpret_cast<const char*>(der), n);
    return std::stoll(run("date -u -d \"$(openssl x509 -inform DER -noout -enddate -in " + dir +
                          "/entry.der | cut -d= -f2)\" +%s").text);
}

// Listings of a token and of the platform store carry each certificate's exact notAfter, past
// 2038 too, with its kind and key.
TEST_F(TokenTest, ListingsShowExactTimesPast2038) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    ASSERT_EQ(run("cd " + dir + " && openssl req -x509 -nodes -days 9500 -subj /CN=late -newkey ec "
                  "-pkeyopt ec_paramgen_curve:P-256 -keyout late.key -out late.pem").status, 0);
    std::vector<uint8_t> late = readFile(dir + "/late.pem");
    ASSERT_EQ(ZAVKM_InsertKey(handle, "late", size(late), late.data(), 0,
                              nullptr, 0, 0), ZAVKM_OK);
    ZAVKM_DNItem dn = subject("long");
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(handle, "long", 0, 3, 384, &dn, 9999, nullptr, 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(handle, "req", 25519, &dn, nullptr, nullptr, nullptr), ZAVKM_OK);
    ZAVKM_Entry* entries = nullptr;
    uint32_t count = 0, damaged = 9;
    ASSERT_EQ(ZAVKM_ListEntriesX(handle, ZAVKM_LIST_DER, &entries, &count, &damaged), ZAVKM_OK);
    EXPECT_EQ(damaged, 0u);
    std::vector<std::string> seen;
    for (uint32_t i = 0; i < count; ++i) {
        const ZAVKM_Entry& e = entries[i];
        seen.push_back(std::string(e.label) + " " + std::to_string(e.kind) + " " +
                       std::to_string(e.keyType) + "/" + std::to_string(e.keyBits));
        ASSERT_NE(e.der, nullptr) << e.label;
        if (e.kind == ZAVKM_ENTRY_REQUEST) {
            EXPECT_EQ(e.notAfter, 0) << e.label;
            continue;
        }
        EXPECT_GT(e.notAfter, int64_t{INT32_MAX}) << e.label;
        EXPECT_EQ(e.notAfter, notAfterByOpenssl(dir, e.der, e.derLength)) << e.label;
        EXPECT_LT(e.notBefore, e.notAfter) << e.label;
    }
    ZAVKM_FreeEntries(entries, count);
    EXPECT_EQ(seen, (std::vector<std::string>{"late 2 2/256", "long 1 2/384", "req 3 3/256"}));
    ZAVKM_CloseKeyDb(handle);
    handle = 0;

    // The system's trust anchors, among them some valid past 2038.
    KeyStoreDescriptor store{};
    store.storeType = MSCertStore;
    ASSERT_EQ(open(store), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_ListEntriesX(handle, ZAVKM_LIST_DER, &entries, &count, &damaged), ZAVKM_OK);
    const Output anchors = run("trust list --filter=certificates | grep -c 'trust: anchor'");
    uint32_t trusted = 0, late2038 = 0;
    for (uint32_t i = 0; i < count; ++i) {
        trusted += entries[i].trusted;
        if (entries[i].notAfter <= INT32_MAX) continue;
        ++late2038;
        EXPECT_EQ(entries[i].notAfter, notAfterByOpenssl(dir, entries[i].der, entries[i].derLength))
            << entries[i].label;
    }
    ZAVKM_FreeEntries(entries, count);
    EXPECT_EQ(std::to_string(trusted) + "\n", anchors.text);
    EXPECT_GT(late2038, 0u);
}

// A PKCS#11 login belongs to the process: while one handle holds it, the module takes any PIN
// from any session. Each row opens a second handle while the first one holds the login and
// says what it may do with the key of "ca".
TEST_F(TokenTest, EveryOpenProvesItsPinWhileAnotherHandleIsLoggedIn) {
    ASSERT_EQ(open(token()), ZAVKM_OK);
    ASSERT_EQ(selfSigned("ca", 256), ZAVKM_OK);
    ASSERT_EQ(run("cd " + dir + " && openssl req -new -nodes -subj /CN=leaf -newkey ec -pkeyopt "
                  "ec_paramgen_curve:P-256 -keyout leaf.key -out leaf.csr").status, 0);
    const std::vector<uint8_t> csr = readFile(dir + "/leaf.csr");
    const std::string registry = dir + "/registry";
    std::filesystem::create_directory(registry);
    std::ofstream(registry + "/softhsm2.module") << "module: " << kModule << "\n";
    setenv("ZAVKM_P11_REGISTRY", registry.c_str(), 1);
    struct Row {
        const char* name;
        uint32_t type;
        const char* pin;
        ZAVKM_ReturnCode opens, issues, makes;
        uint8_t present;
    } rows[] = {
        {"the PIN", CryptoToken, "1234", ZAVKM_OK, ZAVKM_OK, ZAVKM_OK, 1},
        {"a wrong PIN", CryptoToken, "0000", ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
        {"an empty PIN", CryptoToken, "", ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED},
        {"the store without PIN", MSCertStore, nullptr, ZAVKM_OK, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL,
         ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED, 0},
    };
    int n = 0;
    for (const Row& r : rows) {
        KeyStoreDescriptor d = token("tok", r.pin);
        d.storeType = r.type;
        if (r.type == MSCertStore) d.tokenLabel = "softhsm2/tok";
        ZAVKM_KeyDbHandle second = 0;
        ASSERT_EQ(ZAVKM_OpenKeyDbX(&d, &second), r.opens) << r.name;
        if (second == 0) continue;
        uint8_t present = 9;
        EXPECT_EQ(ZAVKM_IsPrivateKeyPresent(second, "ca", &present), ZAVKM_OK) << r.name;
        EXPECT_EQ(present, r.present) << r.name;
        const std::string out = dir + "/leaf" + std::to_string(++n) + ".pem";
        EXPECT_EQ(ZAVKM_IssueCert(second, csr.data(), size(csr), "ca", 3,
                                  nullptr, 30, out.c_str(), 1, nullptr, nullptr),
                  r.issues) << r.name;
        ZAVKM_DNItem dn = subject("mine");
        EXPECT_EQ(ZAVKM_CreateSelfSignedCert(second, ("mine" + std::to_string(n)).c_str(), 0, 3,
                                             256, &dn, 30, nullptr, 0),
                  r.makes) << r.name;
        ZAVKM_CloseKeyDb(second);
    }
    // The first handle kept its login through all of it.
    EXPECT_EQ(selfSigned("still", 256), ZAVKM_OK);
    // A PIN changed while the token is logged in: from then on only the new PIN opens.
    KeyStoreDescriptor change = token("tok", "1234", "4321");
    ASSERT_EQ(ZAVKM_ChangeKeyDbPwdX(&change), ZAVKM_OK);
    for (auto [pin, rc] : {std::pair{"1234", ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
                           std::pair{"4321", ZAVKM_OK}}) {
        KeyStoreDescriptor d = token("tok", pin);
        ZAVKM_KeyDbHandle second = 0;
        EXPECT_EQ(ZAVKM_OpenKeyDbX(&d, &second), rc) << pin;
        if (second != 0) ZAVKM_CloseKeyDb(second);
    }
    // The last handle to close logs the token out: a store opened without PIN then sees no key.
    ZAVKM_CloseKeyDb(handle);
    handle = 0;
    KeyStoreDescriptor store = token("softhsm2/tok", nullptr);
    store.storeType = MSCertStore;
    ASSERT_EQ(open(store), ZAVKM_OK);
    uint8_t present = 9;
    EXPECT_EQ(ZAVKM_IsPrivateKeyPresent(handle, "ca", &present), ZAVKM_OK);
    EXPECT_EQ(present, 0);
    ZAVKM_CloseKeyDb(handle);
    handle = 0;
    unsetenv("ZAVKM_P11_REGISTRY");
    // Another part of the process logs the token in on the module itself: a right PIN still
    // opens (the login is made again with it), a wrong one does not.
    void* module = dlopen(kModule.c_str(), RTLD_NOW);
    auto get = reinterpret_cast<CK_C_GetFunctionList>(dlsym(module, "C_GetFunctionList"));
    CK_FUNCTION_LIST* f = nullptr;
    CK_SLOT_ID slots[8];
    CK_ULONG count = 8;
    CK_SESSION_HANDLE outside = 0;
    ASSERT_EQ(get(&f), CKR_OK);
    ASSERT_EQ(f->C_GetSlotList(CK_TRUE, slots, &count), CKR_OK);  // the first slot holds "tok"
    ASSERT_EQ(f->C_OpenSession(slots[0], CKF_SERIAL_SESSION, nullptr, nullptr, &outside), CKR_OK);
    ASSERT_EQ(f->C_Login(outside, CKU_USER, reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>("4321")), 4), CKR_OK);
    EXPECT_EQ(open(token("tok", "4321")), ZAVKM_OK);
    KeyStoreDescriptor wrong = token("tok", "0000");
    ZAVKM_KeyDbHandle second = 0;
    EXPECT_EQ(ZAVKM_OpenKeyDbX(&wrong, &second), ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    f->C_CloseSession(outside);
}

}  // namespace

namespace {

// The platform certificate store over a registry of the test's own: the system trust module
// (read-only) and the SoftHSM2 module as a writable provider.
TEST_F(TokenTest, PlatformStoreShowsTheRegisteredProviders) {
    const std::string registry = dir + "/registry";
    std::filesystem::create_directory(registry);
    std::ofstream(registry + "/p11-kit-trust.module") << "module: p11-kit-trust.so\n";
    std::ofstream(registry + "/softhsm2.module") << "module: " << kModule << "\n";
    for (const char* name : {"zz-last", "aa-first"})  // listed by name, whatever the file order
        std::ofstream(registry + "/" + name + ".module") << "module: missing.so\n";
    setenv("ZAVKM_P11_REGISTRY", registry.c_str(), 1);
    ZAVKM_LabelList* list = nullptr;
    ASSERT_EQ(ZAVKM_GetCryptoTokenLabelList("", &list), ZAVKM_OK);
    EXPECT_EQ(labels(list),
              (std::vector<std::string>{"aa-first", "p11-kit-trust", "softhsm2", "zz-last"}));

    KeyStoreDescriptor store{};
    store.storeType = MSCertStore;  // no provider: the system trust store
    ASSERT_EQ(open(store), ZAVKM_OK);
    Output trust = run("trust list --filter=certificates | grep -c '^pkcs11:'");
    std::vector<std::string> all = keyLabels();
    EXPECT_EQ(std::to_string(all.size()) + "\n", trust.text);
    // A label two certificates share: the list lookup gives both.
    std::sort(all.begin(), all.end());
    auto shared = std::adjacent_find(all.begin(), all.end());
    if (shared != all.end()) {
        ZAVKM_KeyItemList* items = nullptr;
        ASSERT_EQ(ZAVKM_GetKeyItemListByLabel(handle, shared->c_str(), &items), ZAVKM_OK);
        ASSERT_NE(items->next, nullptr);
        EXPECT_EQ(items->key->hasPrivateKey, 0);
        ZAVKM_FreeKeyItemList(items);
    }
    EXPECT_EQ(selfSigned("mine", 256), ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT);
    EXPECT_EQ(ZAVKM_DeleteKey(handle, keyLabels().front().c_str()),
              ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT);
    ASSERT_EQ(run("cd " + dir + " && openssl req -x509 -nodes -subj /CN=ro -newkey ec -pkeyopt "
                  "ec_paramgen_curve:P-256 -keyout ro.key -out ro.pem && openssl x509 -in ro.pem "
                  "-x509toreq -signkey ro.key -out ro.csr").status, 0);
    std::vector<uint8_t> roCert = readFile(dir + "/ro.pem"), roKey = readFile(dir + "/ro.key"),
                         roReq = readFile(dir + "/ro.csr");
    const auto n = [](const std::vector<uint8_t>& v) { return size(v); };
    for (const std::vector<uint8_t>& key : {std::vector<uint8_t>(), roKey})
        EXPECT_EQ(ZAVKM_InsertKey(handle, "ro", n(roCert), roCert.data(), n(key),
                                  key.empty() ? nullptr : key.data(), 0, 0),
                  ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT);
    EXPECT_EQ(ZAVKM_InsertReqKey(handle, "ro", n(roReq), roReq.data(), n(roKey), roKey.data()),
              ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT);
    EXPECT_EQ(ZAVKM_ReCreateCertReqSig(handle, all.front().c_str(), 1, (dir + "/ro2.csr").c_str(),
                                       nullptr, nullptr),
              ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT);
    EXPECT_EQ(std::to_string(keyLabels().size()) + "\n", trust.text);
    ZAVKM_CloseKeyDb(handle);

    store.tokenLabel = "softhsm2/tok";  // the provider's token by its label
    store.password = "1234";
    ASSERT_EQ(open(store), ZAVKM_OK);
    ASSERT_EQ(selfSigned("mine", 256), ZAVKM_OK);
    EXPECT_EQ(keyLabels(), std::vector<std::string>{"mine"});
    EXPECT_NE(tool("--list-objects --type cert").text.find("mine"), std::string::npos);
    unsetenv("ZAVKM_P11_REGISTRY");
    // Without the variable the providers are p11-kit's own registered modules.
    ASSERT_EQ(ZAVKM_GetCryptoTokenLabelList("", &list), ZAVKM_OK);
    std::string names;
    for (const std::string& name : labels(list)) names += name + "\n";
    EXPECT_EQ(names, run("p11-kit list-modules | grep -E '^[^ ]+:' | cut -d: -f1 | sort").text);
}

TEST_F(TokenTest, AModuleWithoutInitialisedTokenHasNoTokenPresent) {
    ZAVKM_CleanAll();  // the module reads its configuration again when loaded next
    std::filesystem::create_directory(dir + "/empty");
    std::ofstream(dir + "/empty.conf") << "directories.tokendir = " << dir << "/empty\n";
    setenv("SOFTHSM2_CONF", (dir + "/empty.conf").c_str(), 1);
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    EXPECT_EQ(open(token()), ZAVKM_ERR_NO_TOKEN_PRESENT);
}

}  // namespace
