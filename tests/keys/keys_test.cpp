// keys_test.cpp - the key algorithms on key database files (RSA, EC, Ed25519, Ed448) and the
// signature policy of FIPS mode, through the C ABI; what the library writes is judged by openssl
// and keytool, what comes in is made by them.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "zavkm.h"
#include "zavkm_ext.h"

namespace {

struct Output {
    int status;
    std::string text;
};

Output run(const std::string& command) {
    Output out{-1, {}};
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr) return out;
    std::array<char, 4096> buf{};
    size_t n = 0;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.text.append(buf.data(), n);
    out.status = pclose(p);
    return out;
}

std::vector<uint8_t> readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

uint32_t size(const std::vector<uint8_t>& v) { return static_cast<uint32_t>(v.size()); }

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
// PKCS#12 file read by openssl and keytool and brought into another key database.
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

        // PKCS#12: openssl and keytool read it, another key database takes it in.
        ZAVKM_LabelList one{const_cast<char*>(key.c_str()), nullptr};
        ASSERT_EQ(ZAVKM_ExportKeys(h, 1, at(key + ".p12").c_str(), "p12-Pass", &one), ZAVKM_OK);
        EXPECT_EQ(ssl("pkcs12 -in " + key + ".p12 -passin pass:p12-Pass -nodes -out " + key +
                      ".p12.pem").status, 0);
        EXPECT_EQ(pubkey("pkey", key + ".p12.pem"), pubkey("x509", key + ".pem"));
        Output listed = run("keytool -list -storetype PKCS12 -storepass p12-Pass -keystore " +
                            at(key + ".p12"));
        EXPECT_NE(listed.text.find(key + ", "), std::string::npos) << listed.text;
        EXPECT_NE(listed.text.find("PrivateKeyEntry"), std::string::npos) << listed.text;
        ZAVKM_KeyDbHandle other = 0;
        ASSERT_EQ(ZAVKM_CreateNewKeyDb(at(key + ".kdb").c_str(), kPassword, 0, &other), ZAVKM_OK);
        EXPECT_EQ(ZAVKM_ImportKeysFromPFXFile(other, at(key + ".p12").c_str(), "p12-Pass"), ZAVKM_OK);
        ZAVKM_KeyItem* imported = nullptr;
        EXPECT_EQ(ZAVKM_GetKeyItemByLabel(other, key.c_str(), &imported), ZAVKM_OK);
        if (imported != nullptr) {
            EXPECT_EQ(imported->shortValue1, r.key.type);
        }
        ZAVKM_FreeKeyItem(imported);
        ZAVKM_CloseKeyDb(other);
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

// EdDSA keys and certificates made by openssl and keytool come in every way a key database
// takes them: as a signer, as a personal key with its key, as a request key, in PKCS#12 files.
TEST_F(KeysTest, EdDsaMadeElsewhereComesIn) {
    for (const std::string alg : {"ED25519", "ED448"}) {
        SCOPED_TRACE(alg);
        const std::string name = alg == "ED25519" ? "ed25519" : "ed448";
        ASSERT_EQ(ssl("genpkey -algorithm " + alg + " -out " + name + ".key && openssl genpkey "
                      "-algorithm " + alg + " -out " + name + "-r.key && openssl req -x509 -key " +
                      name + ".key -subj /CN=" + name + " -days 30 -out " + name + ".pem && "
                      "openssl req -new -key " + name + "-r.key -subj /CN=" + name + "-leaf -out " +
                      name + ".csr && openssl pkcs12 -export -inkey " + name + ".key -in " + name +
                      ".pem -name " + name + "-p12 -passout pass:pw -out " + name + ".p12").status, 0);
        std::vector<uint8_t> cert = readFile(at(name + ".pem")), key = readFile(at(name + ".key")),
                             csr = readFile(at(name + ".csr")), reqKey = readFile(at(name + "-r.key"));
        const int32_t type = alg == "ED25519" ? 3 : 4;
        EXPECT_EQ(ZAVKM_StoreCACert(h, cert.data(), size(cert), (name + "-signer").c_str()), ZAVKM_OK);
        EXPECT_EQ(ZAVKM_InsertKey(h, (name + "-key").c_str(), size(cert), cert.data(), size(key),
                                  key.data(), 0, 0), ZAVKM_OK);
        EXPECT_EQ(ZAVKM_InsertReqKey(h, (name + "-req").c_str(), size(csr), csr.data(), size(reqKey),
                                     reqKey.data()), ZAVKM_OK);
        EXPECT_EQ(ZAVKM_ImportKeysFromPFXFile(h, at(name + ".p12").c_str(), "pw"), ZAVKM_OK);
        for (const std::string& label : {name + "-signer", name + "-key", name + "-p12"}) {
            ZAVKM_KeyItem* item = nullptr;
            ASSERT_EQ(ZAVKM_GetKeyItemByLabel(h, label.c_str(), &item), ZAVKM_OK) << label;
            EXPECT_EQ(item->shortValue1, type) << label;
            EXPECT_EQ(item->hasPrivateKey, label != name + "-signer") << label;
            ZAVKM_FreeKeyItem(item);
        }
        // The personal key signs: a certificate for the request key, verified by openssl.
        EXPECT_EQ(ZAVKM_IssueCert(h, csr.data(), size(csr), (name + "-key").c_str(), 3, nullptr, 30,
                                  at(name + ".leaf").c_str(), 1, nullptr, nullptr), ZAVKM_OK);
        EXPECT_EQ(ssl("verify -CAfile " + name + ".pem " + name + ".leaf").status, 0);
    }
    // keytool's own EdDSA key pair in a PKCS#12 file.
    ASSERT_EQ(run("keytool -genkeypair -keyalg Ed25519 -alias jdk -dname CN=jdk -validity 30 "
                  "-storetype PKCS12 -storepass jdk-Pass -keystore " + at("jdk.p12")).status, 0);
    EXPECT_EQ(ZAVKM_ImportKeysFromPFXFile(h, at("jdk.p12").c_str(), "jdk-Pass"), ZAVKM_OK);
    ZAVKM_KeyItem* jdk = nullptr;
    ASSERT_EQ(ZAVKM_GetKeyItemByLabel(h, "jdk", &jdk), ZAVKM_OK);
    EXPECT_EQ(jdk->shortValue1, 3);
    EXPECT_EQ(jdk->hasPrivateKey, 1);
    ZAVKM_FreeKeyItem(jdk);
}

// FIPS mode refuses MD5 and SHA-1 signatures on what comes in, RSA keys below 2048 bits, and
// nothing else: EdDSA and SHA-256 pass. Each row: what comes in, and how each mode answers.
TEST_F(KeysTest, FipsModeRefusesWeakSignaturesComingIn) {
    ASSERT_EQ(ssl("req -x509 -nodes -newkey rsa:2048 -keyout ca.key -subj /CN=ca -days 30 -out ca.pem "
                  "&& openssl req -x509 -nodes -newkey rsa:2048 -sha1 -keyout sha1.key -subj /CN=sha1 "
                  "-days 30 -out sha1.pem && openssl req -x509 -nodes -newkey rsa:2048 -md5 -keyout "
                  "md5.key -subj /CN=md5 -days 30 -out md5.pem && openssl req -x509 -nodes -newkey "
                  "rsa:1024 -keyout small.key -subj /CN=small -days 30 -out small.pem && openssl req "
                  "-new -key sha1.key -sha1 -subj /CN=sha1req -out sha1.csr && openssl genpkey "
                  "-algorithm ED448 -out ed.key && openssl req -x509 -key ed.key -subj /CN=ed -days "
                  "30 -out ed.pem").status, 0);
    ZAVKM_DNItem dn = subject("renewed");
    ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "issuer", 0, 3, 256, &dn, 30, nullptr, 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(h, "renewed", 2048, &dn, at("renewed.csr").c_str(), nullptr,
                                     nullptr), ZAVKM_OK);
    ASSERT_EQ(ssl("x509 -req -in renewed.csr -CA ca.pem -CAkey ca.key -days 30 -sha256 -out "
                  "renewed.pem && openssl x509 -req -in renewed.csr -CA ca.pem -CAkey ca.key -days "
                  "30 -sha1 -set_serial 7 -out renewed-sha1.pem").status, 0);
    std::vector<uint8_t> renewed = readFile(at("renewed.pem"));
    ASSERT_EQ(ZAVKM_ReceiveCert(h, renewed.data(), size(renewed), 0), ZAVKM_OK);
    ASSERT_EQ(ZAVKM_CreateNewCertReq(h, "waiting", 2048, &dn, at("waiting.csr").c_str(), nullptr,
                                     nullptr), ZAVKM_OK);
    ASSERT_EQ(ssl("x509 -req -in waiting.csr -CA ca.pem -CAkey ca.key -days 30 -sha1 -out "
                  "waiting.pem").status, 0);
    auto bytes = [&](const std::string& file) { return readFile(at(file)); };
    std::string pass;  // labels of a pass: each pass stores its own
    auto label = [&](const char* name) { return pass + name; };
    struct Row {
        const char* name;
        std::function<ZAVKM_ReturnCode()> call;
        ZAVKM_ReturnCode normal, fips;
    } rows[] = {
        {"a SHA-1 signer", [&] { auto c = bytes("sha1.pem"); return ZAVKM_StoreCACert(h, c.data(), size(c), label("s1").c_str()); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"an MD5 signer", [&] { auto c = bytes("md5.pem"); return ZAVKM_StoreCACert(h, c.data(), size(c), label("m5").c_str()); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"a SHA-1 key", [&] { auto c = bytes("sha1.pem"), k = bytes("sha1.key");
             return ZAVKM_InsertKey(h, label("k1").c_str(), size(c), c.data(), size(k), k.data(), 0, 0); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"a SHA-1 request key", [&] { auto c = bytes("sha1.csr"), k = bytes("sha1.key");
             return ZAVKM_InsertReqKey(h, label("r1").c_str(), size(c), c.data(), size(k), k.data()); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"a SHA-1 request to issue", [&] { auto c = bytes("sha1.csr");
             return ZAVKM_IssueCert(h, c.data(), size(c), "issuer", 3, nullptr, 30,
                                    at("out.pem").c_str(), 1, nullptr, nullptr); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"a SHA-1 certificate received", [&] { auto c = bytes("waiting.pem");
             return ZAVKM_ReceiveCert(h, c.data(), size(c), 0); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"a SHA-1 renewal", [&] { auto c = bytes("renewed-sha1.pem"); return ZAVKM_RenewCert(h, c.data(), size(c)); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM},
        {"an RSA-1024 signer", [&] { auto c = bytes("small.pem"); return ZAVKM_StoreCACert(h, c.data(), size(c), label("sm").c_str()); },
         ZAVKM_OK, ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE},
        {"an Ed448 signer", [&] { auto c = bytes("ed.pem"); return ZAVKM_StoreCACert(h, c.data(), size(c), label("ed").c_str()); },
         ZAVKM_OK, ZAVKM_OK},
        {"a new Ed25519 key", [&] { return ZAVKM_CreateSelfSignedCert(h, label("new").c_str(), 0, 3, 25519, &dn, 30, nullptr, 0); },
         ZAVKM_OK, ZAVKM_OK},
        {"a SHA-256 certificate received", [&] { return ZAVKM_RenewCert(h, renewed.data(), size(renewed)); },
         ZAVKM_OK, ZAVKM_OK},
    };
    for (bool fips : {true, false}) {
        pass = fips ? "fips " : "";
        auto* info = static_cast<uint8_t*>(std::calloc(1, 16));  // the library keeps the block
        info[0] = fips ? 1 : 0;
        ASSERT_EQ(ZAVKM_SetCryptoInfo(info), ZAVKM_OK);
        for (const Row& r : rows) EXPECT_EQ(r.call(), fips ? r.fips : r.normal) << r.name << (fips ? " (FIPS)" : "");
    }
}

}  // namespace
