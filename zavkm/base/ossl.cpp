// ossl.cpp - the OpenSSL error queue and small helpers.
#include "base/ossl.h"

#include <openssl/err.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>

#include "base/trace.h"

namespace zavkm {

Rc sslError(Rc fallback) noexcept {
    unsigned long first = ERR_peek_error();
    Rc rc = fallback;
    if (first != 0) {
        if (ERR_GET_REASON(first) == ERR_R_MALLOC_FAILURE) rc = ZAVKM_ERR_MEMORY_ALLOCATE;
        if (traceOn()) {
            char text[256];
            ERR_error_string_n(first, text, sizeof text);
            trace("openssl: %s -> %d", text, rc);
        }
    }
    ERR_clear_error();
    return rc;
}

void clearSslErrors() noexcept { ERR_clear_error(); }

Rc randomBytes(uint8_t* out, size_t n) noexcept {
    if (RAND_bytes(out, static_cast<int>(n)) != 1) return sslError(ZAVKM_ERR_CRYPTO);
    return ZAVKM_OK;
}

Bytes sha256(const uint8_t* data, size_t n) {
    Bytes out(32);
    unsigned int len = 0;
    if (EVP_Digest(data, n, out.data(), &len, EVP_sha256(), nullptr) != 1) {
        clearSslErrors();
        out.clear();
    }
    return out;
}

const EVP_MD* sha256Algorithm() noexcept {
    static EVP_MD* const md = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return md;
}

EVP_MAC* hmacAlgorithm() noexcept {
    static EVP_MAC* const mac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    return mac;
}

EVP_KDF* hkdfAlgorithm() noexcept {
    static EVP_KDF* const kdf = EVP_KDF_fetch(nullptr, "HKDF", nullptr);
    return kdf;
}

EVP_CIPHER* gcmAlgorithm() noexcept {
    static EVP_CIPHER* const cipher = EVP_CIPHER_fetch(nullptr, "AES-256-GCM", nullptr);
    return cipher;
}

}  // namespace zavkm
