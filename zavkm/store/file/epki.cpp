// epki.cpp - PKCS#8 EncryptedPrivateKeyInfo.
#include "store/file/epki.h"

#include <openssl/rand.h>

#include "base/ossl.h"
#include "base/sizes.h"
#include "base/state.h"
#include "pki/pbe.h"

namespace zavkm {
namespace {

constexpr size_t kIvSize = 16;

Rc sigFrom(const Bytes& der, X509SigPtr& out) {
    const unsigned char* p = der.data();
    out.reset(d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())));
    if (!out || p != der.data() + der.size()) return sslError(ZAVKM_ERR_ASN);
    return ZAVKM_OK;
}

bool fitsKeyDb(const Pbes2View& view, const KeyDb& kdb) {
    if (!view.pbe2 || view.prf != NID_hmacWithSHA256 || view.cipher != NID_aes_256_cbc ||
        view.iterations != static_cast<long>(kdb.kdf.iterations) ||
        view.kdf->salt->type != V_ASN1_OCTET_STRING || view.kdf->keylength != nullptr)
        return false;
    const ASN1_OCTET_STRING* salt = view.kdf->salt->value.octet_string;
    return static_cast<size_t>(ASN1_STRING_length(salt)) == kdb.kdf.salt.size() &&
           std::memcmp(ASN1_STRING_get0_data(salt), kdb.kdf.salt.data(), kdb.kdf.salt.size()) == 0;
}

// cbc - AES-256-CBC with PKCS#7 padding in either direction.
Rc cbc(bool encrypt, const SecretBytes& key, const uint8_t* iv, const uint8_t* in, size_t n,
       SecretBytes& out) {
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    SecretBytes buf(n + kIvSize);
    int len = 0, tail = 0;
    if (!ctx ||
        EVP_CipherInit_ex(ctx.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv, encrypt ? 1 : 0) !=
            1 ||
        EVP_CipherUpdate(ctx.get(), buf.data(), &len, in, static_cast<int>(n)) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    if (EVP_CipherFinal_ex(ctx.get(), buf.data() + len, &tail) != 1) {
        clearSslErrors();
        return encrypt ? ZAVKM_ERR_CRYPTO : ZAVKM_ERR_DATABASE_INVALID_PASSWORD;
    }
    buf.resize(static_cast<size_t>(len + tail));
    out = std::move(buf);
    return ZAVKM_OK;
}

// checkPrivateKeyInfo - the decrypted bytes are one DER PrivateKeyInfo; a wrong key that
// happened to pad correctly is caught here.
Rc checkPrivateKeyInfo(const SecretBytes& pkcs8) {
    const unsigned char* p = pkcs8.data();
    P8InfPtr p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(pkcs8.size())));
    clearSslErrors();
    if (!p8 || p != pkcs8.data() + pkcs8.size()) return ZAVKM_ERR_DATABASE_INVALID_PASSWORD;
    return ZAVKM_OK;
}

}  // namespace

Rc epkiForKeyDb(const KeyDb& kdb, const SecretBytes& pkcs8, Bytes& out) {
    uint8_t iv[kIvSize];
    if (Rc rc = randomBytes(iv, sizeof iv); rc != ZAVKM_OK) return rc;
    X509AlgorPtr alg(PKCS5_pbe2_set_iv_ex(
        EVP_aes_256_cbc(), static_cast<int>(kdb.kdf.iterations),
        const_cast<unsigned char*>(kdb.kdf.salt.data()), static_cast<int>(kdb.kdf.salt.size()),
        iv, NID_hmacWithSHA256, nullptr));
    if (!alg) return sslError(ZAVKM_ERR_CRYPTO);
    SecretBytes cipherText;
    if (Rc rc = cbc(true, kdb.master, iv, pkcs8.data(), pkcs8.size(), cipherText);
        rc != ZAVKM_OK)
        return rc;
    X509SigPtr sig(X509_SIG_new());
    if (!sig) return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    X509_ALGOR* sigAlg = nullptr;
    ASN1_OCTET_STRING* digest = nullptr;
    X509_SIG_getm(sig.get(), &sigAlg, &digest);
    if (X509_ALGOR_copy(sigAlg, alg.get()) != 1 ||
        ASN1_OCTET_STRING_set(digest, cipherText.data(), static_cast<int>(cipherText.size())) !=
            1)
        return sslError(ZAVKM_ERR_MEMORY_ALLOCATE);
    out = toDer(sig.get(), i2d_X509_SIG);
    return out.empty() ? sslError(ZAVKM_ERR_ASN) : ZAVKM_OK;
}

Rc epkiWithPassword(std::string_view password, const SecretBytes& pkcs8, Bytes& out) {
    const unsigned char* p = pkcs8.data();
    P8InfPtr p8(d2i_PKCS8_PRIV_KEY_INFO(nullptr, &p, static_cast<long>(pkcs8.size())));
    if (!p8) return sslError(ZAVKM_ERR_ASN);
    uint8_t salt[kKdfSaltSize];
    if (Rc rc = randomBytes(salt, sizeof salt); rc != ZAVKM_OK) return rc;
    X509AlgorPtr alg(PKCS5_pbe2_set_iv_ex(EVP_aes_256_cbc(), static_cast<int>(kKdfIterations),
                                          salt, sizeof salt, nullptr, NID_hmacWithSHA256,
                                          nullptr));
    if (!alg) return sslError(ZAVKM_ERR_CRYPTO);
    X509SigPtr sig(PKCS8_set0_pbe_ex(password.data(), static_cast<int>(password.size()),
                                     p8.get(), alg.get(), nullptr, nullptr));
    if (!sig) return sslError(ZAVKM_ERR_CRYPTO);
    alg.release();  // the signature owns it now
    out = toDer(sig.get(), i2d_X509_SIG);
    return out.empty() ? sslError(ZAVKM_ERR_ASN) : ZAVKM_OK;
}

Rc decryptEpki(const uint8_t* der, size_t n, std::string_view password, const KeyDb* kdb,
               SecretBytes& pkcs8) {
    if (der == nullptr || n == 0) return ZAVKM_ERR_NULL_PARAMETER;
    if (Rc rc = withinSize(n, kMaxItemBytes); rc != ZAVKM_OK) return rc;
    X509SigPtr sig;
    if (Rc rc = sigFrom(Bytes(der, der + n), sig); rc != ZAVKM_OK) return rc;
    const X509_ALGOR* alg = nullptr;
    const ASN1_OCTET_STRING* data = nullptr;
    X509_SIG_get0(sig.get(), &alg, &data);
    long iterations = 0;
    if (Rc rc = checkPbe(alg, iterations); rc != ZAVKM_OK) return rc;
    Pbes2View view;
    if (Rc rc = viewPbes2(alg, view); rc != ZAVKM_OK) return rc;
    if (kdb != nullptr && fitsKeyDb(view, *kdb)) {
        const ASN1_TYPE* ivType = view.pbe2->encryption->parameter;
        if (ivType == nullptr || ivType->type != V_ASN1_OCTET_STRING ||
            ASN1_STRING_length(ivType->value.octet_string) != static_cast<int>(kIvSize))
            return ZAVKM_ERR_ASN;
        SecretBytes plain;
        Rc rc = cbc(false, kdb->master, ASN1_STRING_get0_data(ivType->value.octet_string),
                    ASN1_STRING_get0_data(data), static_cast<size_t>(ASN1_STRING_length(data)),
                    plain);
        if (rc == ZAVKM_OK) rc = checkPrivateKeyInfo(plain);
        if (rc == ZAVKM_OK) pkcs8 = std::move(plain);
        return rc;
    }
    P8InfPtr p8(PKCS8_decrypt_ex(sig.get(), password.data(), static_cast<int>(password.size()),
                                 nullptr, nullptr));
    if (!p8) return sslError(ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    int len = i2d_PKCS8_PRIV_KEY_INFO(p8.get(), nullptr);
    if (len <= 0) return sslError(ZAVKM_ERR_ASN);
    SecretBytes out(static_cast<size_t>(len));
    unsigned char* q = out.data();
    i2d_PKCS8_PRIV_KEY_INFO(p8.get(), &q);
    pkcs8 = std::move(out);
    return ZAVKM_OK;
}

}  // namespace zavkm
