// epki.cpp - PKCS#8 EncryptedPrivateKeyInfo.
#include "store/file/epki.h"

#include <openssl/rand.h>

#include "base/ossl.h"
#include "base/sizes.h"
#include "base/state.h"

namespace zavkm {
namespace {

using Pbe2Ptr = Owned<PBE2PARAM, PBE2PARAM_free>;
using Pbkdf2Ptr = Owned<PBKDF2PARAM, PBKDF2PARAM_free>;

constexpr size_t kIvSize = 16;

Rc sigFrom(const Bytes& der, X509SigPtr& out) {
    const unsigned char* p = der.data();
    out.reset(d2i_X509_SIG(nullptr, &p, static_cast<long>(der.size())));
    if (!out || p != der.data() + der.size()) return sslError(ZAVKM_ERR_ASN);
    return ZAVKM_OK;
}

// Pbes2View - the parts of a PBES2 AlgorithmIdentifier that decide whether a cached key fits.
struct Pbes2View {
    Pbe2Ptr pbe2;
    Pbkdf2Ptr kdf;
    int prf = NID_hmacWithSHA1;  // the default when the field is absent
    long iterations = 0;
    int cipher = NID_undef;
};

// viewPbes2 - ZAVKM_OK and the view for PBES2 with PBKDF2; ZAVKM_ERR_PBE_ALG_UNSUPPORT for
// another scheme (legacy PKCS#12 PBEs are left to OpenSSL, view.pbe2 stays null).
Rc viewPbes2(const X509_ALGOR* alg, Pbes2View& view) {
    const ASN1_OBJECT* obj = nullptr;
    int ptype = 0;
    const void* pval = nullptr;
    X509_ALGOR_get0(&obj, &ptype, &pval, alg);
    if (OBJ_obj2nid(obj) != NID_pbes2) return ZAVKM_OK;
    if (ptype != V_ASN1_SEQUENCE) return ZAVKM_ERR_ASN;
    const ASN1_TYPE* param = nullptr;
    // X509_ALGOR_get0 hands the parameter's value; the whole ASN1_TYPE is alg->parameter.
    param = alg->parameter;
    view.pbe2.reset(
        static_cast<PBE2PARAM*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBE2PARAM), param)));
    if (!view.pbe2) return sslError(ZAVKM_ERR_ASN);
    if (OBJ_obj2nid(view.pbe2->keyfunc->algorithm) != NID_id_pbkdf2)
        return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
    view.kdf.reset(static_cast<PBKDF2PARAM*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBKDF2PARAM), view.pbe2->keyfunc->parameter)));
    if (!view.kdf) return sslError(ZAVKM_ERR_ASN);
    if (view.kdf->prf != nullptr) view.prf = OBJ_obj2nid(view.kdf->prf->algorithm);
    view.iterations = ASN1_INTEGER_get(view.kdf->iter);
    view.cipher = OBJ_obj2nid(view.pbe2->encryption->algorithm);
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

Rc checkPbe(const X509_ALGOR* alg, long& iterations) {
    Pbes2View view;
    if (Rc rc = viewPbes2(alg, view); rc != ZAVKM_OK) return rc;
    if (view.pbe2) {
        iterations = view.iterations;
        if (fipsMode() && view.cipher != NID_aes_128_cbc && view.cipher != NID_aes_192_cbc &&
            view.cipher != NID_aes_256_cbc)
            return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
    } else {
        if (fipsMode()) return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
        if (alg == nullptr || alg->parameter == nullptr) return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
        Owned<PBEPARAM, PBEPARAM_free> pbe(static_cast<PBEPARAM*>(
            ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(PBEPARAM), alg->parameter)));
        if (!pbe) return sslError(ZAVKM_ERR_PBE_ALG_UNSUPPORT);
        iterations = ASN1_INTEGER_get(pbe->iter);
    }
    if (iterations <= 0 || iterations > static_cast<long>(kMaxPbeIterations))
        return ZAVKM_ERR_PBE_ALG_UNSUPPORT;
    return ZAVKM_OK;
}

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
