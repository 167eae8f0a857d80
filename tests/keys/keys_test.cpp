// keys_test.cpp - the key algorithms on key database files (RSA, EC, Ed25519, Ed448), through
// the C ABI; what the library writes is judged by openssl and keytool, what comes in is made by
// them.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "shell.h"
#include "zavkm.h"
#include "zavkm_ext.h"

namespace {

using zavkm_test::Output;
using zavkm_test::readFile;
using zavkm_test::run;
using zavkm_test::size;

ZAVKM_DNItem subject(const char* cn) {
    ZAVKM_DNItem dn{};
    dn.cn = const_cast<char*>(cn);
    dn.o = const_cast<char*>("Norvex");
    return dn;
}

constexpr char kPassword[] = "Keys-Passw0rd-1";

// KeysTest - a scratch directory and a fresh key database "keys.kdb" in it.
class KeysTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zavkeys-XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);  // under TMPDIR
        dir = tmpl;
        ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
        ASSERT_EQ(ZAVKM_CreateNewKeyDb(at("keys.kdb").c_str(), kPassword, 0, &h), ZAVKM_OK);
    }
    void TearDown() override {
        ZAVKM_CloseKeyDb(h);
        ZAVKM_CleanAll();
        std::filesystem::remove_all(dir);
    }
    std::string at(const std::string& name) const { return dir + "/" + name; }
    Output ssl(const std::string& args) { return run("cd " + dir + " && openssl " + args); }
    // text - what openssl shows of a certificate (x509) or request (req) file.
    std::string text(const std::string& kind, const std::string& file) {
        return ssl(kind + " -noout -text -in " + file).text;
    }
    std::string pubkey(const std::string& kind, const std::string& file) {
        return ssl(kind + (kind == "pkey" ? " -pubout" : " -noout -pubkey") + " -in " + file).text;
    }
    std::string dir;
    ZAVKM_KeyDbHandle h = 0;
};

// KeyKind - how openssl names a key of a size asked for, and the signature it makes with the
// selector SHA-384 (EdDSA keys sign without a digest, whatever the selector).
struct KeyKind {
    int32_t size;
    const char* keyText;
    const char* signature;
    int32_t type, bits;
};
const KeyKind kRsa{2048, "Public Key Algorithm: rsaEncryption", "sha384WithRSAEncryption", 1, 2048};
const KeyKind kP384{384, "NIST CURVE: P-384", "ecdsa-with-SHA384", 2, 384};
const KeyKind kEd25519{25519, "Public Key Algorithm: ED25519", "Signature Algorithm: ED25519", 3, 256};
const KeyKind kEd448{448, "Public Key Algorithm: ED448", "Signature Algorithm: ED448", 4, 456};

// A CA and a key it certifies, each row a pair of key algorithms: the CA made self-signed, the
// key's request made, signed again, issued, received, validated, listed, its private key and its
// PKCS#12 file read by openssl and keytool.
TEST_F(KeysTest, EveryKeyAlgorithmCertifiesAndIsCertifiedByEveryOther) {
    struct Row {
        const char* name;
        KeyKind ca, key;
    } rows[] = {
        {"Ed25519 CA, Ed25519 key", kEd25519, kEd25519},
        {"Ed448 CA, RSA key", kEd448, kRsa},
        {"RSA CA, Ed448 key", kRsa, kEd448},
        {"EC CA, Ed25519 key", kP384, kEd25519},
        {"Ed25519 CA, EC key", kEd25519, kP384},
    };
    int n = 0;
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        const std::string ca = "ca" + std::to_string(++n), key = "key" + std::to_string(n);
        ZAVKM_DNItem caName = subject(ca.c_str()), keyName = subject(key.c_str());
        ASSERT_EQ(ZAVKM_CreateSelfSignedCertSigExt(h, ca.c_str(), 0, 3, r.ca.size, &caName, 30, 2,
                                                   nullptr, 0, at(ca + ".pem").c_str(), 1),
                  ZAVKM_OK);
        const std::string caText = text("x509", ca + ".pem");
        EXPECT_NE(caText.find(r.ca.keyText), std::string::npos) << caText;
        EXPECT_NE(caText.find(r.ca.signature), std::string::npos) << caText;
        EXPECT_EQ(ssl("verify -CAfile " + ca + ".pem " + ca + ".pem").status, 0);

        ASSERT_EQ(ZAVKM_CreateNewCertReqSigExt(h, key.c_str(), r.key.size, &keyName, 2, nullptr, 0,
                                               at(key + ".csr").c_str(), nullptr, nullptr),
                  ZAVKM_OK);
        ASSERT_EQ(ZAVKM_ReCreateCertReqSig(h, key.c_str(), 1, at(key + ".again").c_str(), nullptr,
                                           nullptr),
                  ZAVKM_OK);
        for (const std::string& file : {key + ".csr", key + ".again"}) {
            EXPECT_EQ(ssl("req -verify -noout -in " + file).status, 0) << file;
            EXPECT_NE(text("req", file).find(r.key.keyText), std::string::npos) << file;
        }
        ZAVKM_ReqKeyItem* request = nullptr;
        ASSERT_EQ(ZAVKM_GetReqKeyItemByLabel(h, key.c_str(), &request), ZAVKM_OK);
        EXPECT_EQ(request->shortValue1, r.key.type);
        EXPECT_EQ(request->keySize, r.key.bits);
        ZAVKM_FreeReqKeyItem(request);

        std::vector<uint8_t> csr = readFile(at(key + ".csr"));
        ASSERT_EQ(ZAVKM_IssueCertSig(h, csr.data(), size(csr), ca.c_str(), 3, nullptr, 30, 2,
                                     at(key + ".pem").c_str(), 1, nullptr, nullptr),
                  ZAVKM_OK);
        EXPECT_EQ(ssl("verify -CAfile " + ca + ".pem " + key + ".pem").status, 0);
        EXPECT_NE(text("x509", key + ".pem").find(r.ca.signature), std::string::npos);
        std::vector<uint8_t> cert = readFile(at(key + ".pem"));
        ASSERT_EQ(ZAVKM_ReceiveCert(h, cert.data(), size(cert), 0), ZAVKM_OK);
        uint8_t valid = 0;
        EXPECT_EQ(ZAVKM_ValidateCertChain(h, cert.data(), size(cert), &valid), ZAVKM_OK);
        EXPECT_EQ(valid, 1);

        // The key item: its algorithm and size, its private key under the password.
        ZAVKM_KeyItem* item = nullptr;
        ASSERT_EQ(ZAVKM_GetKeyItemByLabel(h, key.c_str(), &item), ZAVKM_OK);
        EXPECT_EQ(item->shortValue1, r.key.type);
        EXPECT_EQ(item->keySize, r.key.bits);
        ASSERT_NE(item->epki, nullptr);
        std::ofstream(at(key + ".epki"), std::ios::binary)
            .write(reinterpret_cast<const char*>(item->epki->der), item->epki->derLength);
        ZAVKM_FreeKeyItem(item);
        EXPECT_EQ(ssl("pkcs8 -inform DER -in " + key + ".epki -passin pass:" + kPassword +
                      " -out " + key + ".key").status, 0);
        EXPECT_EQ(pubkey("pkey", key + ".key"), pubkey("x509", key + ".pem"));

        // PKCS#12: openssl and keytool read it.
        ZAVKM_LabelList one{const_cast<char*>(key.c_str()), nullptr};
        ASSERT_EQ(ZAVKM_ExportKeys(h, 1, at(key + ".p12").c_str(), "p12-Pass", &one), ZAVKM_OK);
        EXPECT_EQ(ssl("pkcs12 -in " + key + ".p12 -passin pass:p12-Pass -nodes -out " + key +
                      ".p12.pem").status, 0);
        EXPECT_EQ(pubkey("pkey", key + ".p12.pem"), pubkey("x509", key + ".pem"));
        Output listed = run("keytool -list -storetype PKCS12 -storepass p12-Pass -keystore " +
                            at(key + ".p12"));
        EXPECT_NE(listed.text.find(key + ", "), std::string::npos) << listed.text;
        EXPECT_NE(listed.text.find("PrivateKeyEntry"), std::string::npos) << listed.text;
    }
    // The listing names each key's algorithm and size.
    ZAVKM_Entry* entries = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(ZAVKM_ListEntries(h, &entries, &count), ZAVKM_OK);
    std::string listing;
    for (uint32_t i = 0; i < count; ++i)
        listing += std::string(entries[i].label) + " " + std::to_string(entries[i].keyType) + "/" +
                   std::to_string(entries[i].keyBits) + "\n";
    ZAVKM_FreeEntries(entries, count);
    EXPECT_EQ(listing, "ca1 3/256\nkey1 3/256\nca2 4/456\nkey2 1/2048\nca3 1/2048\nkey3 4/456\n"
                       "ca4 2/384\nkey4 3/256\nca5 3/256\nkey5 2/384\n");
}

// EdDSA keys made by openssl and keytool come in: a key with its certificate, PKCS#12 files of
// both; each then signs a certificate that openssl verifies.
TEST_F(KeysTest, EdDsaMadeElsewhereComesIn) {
    ASSERT_EQ(ssl("req -x509 -nodes -newkey ed25519 -keyout ed25519.key -subj /CN=ed25519 -out "
                  "ed25519.pem && openssl req -x509 -nodes -newkey ed448 -keyout ed448.key -subj "
                  "/CN=ed448 -out ed448.pem && openssl pkcs12 -export -inkey ed448.key -in ed448.pem "
                  "-name ed448 -passout pass:pw -out ed448.p12 && openssl req -new -nodes -newkey "
                  "ed25519 -keyout leaf.key -subj /CN=leaf -out leaf.csr").status, 0);
    ASSERT_EQ(run("keytool -genkeypair -keyalg Ed25519 -alias jdk -dname CN=jdk -ext bc:c=ca:true "
                  "-validity 30 -storetype PKCS12 -storepass jdk-Pass -keystore " + at("jdk.p12")).status, 0);
    std::vector<uint8_t> cert = readFile(at("ed25519.pem")), key = readFile(at("ed25519.key")),
                         csr = readFile(at("leaf.csr"));
    ASSERT_EQ(ZAVKM_InsertKey(h, "ed25519", size(cert), cert.data(), size(key), key.data(), 0, 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_ImportKeysFromPFXFile(h, at("ed448.p12").c_str(), "pw"), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_ImportKeysFromPFXFile(h, at("jdk.p12").c_str(), "jdk-Pass"), ZAVKM_OK);
    ASSERT_EQ(ssl("pkcs12 -in " + at("jdk.p12") + " -passin pass:jdk-Pass -nokeys -out jdk.pem").status, 0);
    for (auto [label, type] : {std::pair{"ed25519", 3}, std::pair{"ed448", 4}, std::pair{"jdk", 3}}) {
        ZAVKM_KeyItem* item = nullptr;
        ASSERT_EQ(ZAVKM_GetKeyItemByLabel(h, label, &item), ZAVKM_OK) << label;
        EXPECT_EQ(item->shortValue1, type) << label;
        EXPECT_EQ(item->hasPrivateKey, 1) << label;
        ZAVKM_FreeKeyItem(item);
        const std::string out = at(std::string(label) + ".leaf");
        EXPECT_EQ(ZAVKM_IssueCert(h, csr.data(), size(csr), label, 3, nullptr, 30, out.c_str(), 1,
                                  nullptr, nullptr), ZAVKM_OK) << label;
        EXPECT_EQ(ssl("verify -partial_chain -CAfile " + std::string(label) + ".pem " + out).status, 0) << label;
    }
}

}  // namespace
