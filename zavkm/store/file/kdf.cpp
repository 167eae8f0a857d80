// kdf.cpp - PBKDF2 with an in-process cache, HKDF, AES-256-GCM.
#include "store/file/kdf.h"

#include <openssl/core_names.h>
#include <openssl/hmac.h>
#include <openssl/kdf.h>

#include <list>
#include <mutex>

#include "base/ossl.h"
#include "base/trace.h"

namespace zavkm {
namespace {

constexpr size_t kCacheCapacity = 8;

struct CacheEntry {
    Bytes salt;
    uint32_t iterations = 0;
    SecretBytes passwordTag;  // HMAC-SHA256(process key, password)
    SecretBytes master;
};

struct Remembered {
    Bytes lookup;
    SecretBytes secret;
};

struct KdfCache {
    std::mutex mutex;
    SecretBytes processKey;         // random per process, made on first use
    std::list<CacheEntry> entries;  // most recently used first
    std::list<Remembered> secrets;  // most recently used first
    KdfCacheStats stats;
};

KdfCache& cache() {
    static KdfCache* instance = new KdfCache();  // never destroyed: usable until exit
    return *instance;
}

// passwordTag - HMAC-SHA256 of the password under the process key; the caller holds the lock.
Rc passwordTag(KdfCache& c, std::string_view password, SecretBytes& tag) {
    if (c.processKey.empty()) {
        SecretBytes key(kKeySize);
        if (Rc rc = randomBytes(key.data(), key.size()); rc != ZAVKM_OK) return rc;
        c.processKey = std::move(key);
    }
    SecretBytes out(32);
    unsigned int len = 0;
    if (HMAC(EVP_sha256(), c.processKey.data(), static_cast<int>(c.processKey.size()),
             reinterpret_cast<const unsigned char*>(password.data()), password.size(), out.data(),
             &len) == nullptr)
        return sslError(ZAVKM_ERR_CRYPTO);
    tag = std::move(out);
    return ZAVKM_OK;
}

bool sameParams(const CacheEntry& e, const KdfParams& p) {
    return e.iterations == p.iterations && e.salt == p.salt;
}

}  // namespace

Rc deriveMaster(const KdfParams& params, std::string_view password, SecretBytes& master,
                bool& fromCache) {
    fromCache = false;
    if (params.salt.empty() || params.iterations == 0) return ZAVKM_ERR_DATABASE_CORRUPTION;
    {
        KdfCache& c = cache();
        std::lock_guard lock(c.mutex);
        SecretBytes tag;
        if (Rc rc = passwordTag(c, password, tag); rc != ZAVKM_OK) return rc;
        for (auto it = c.entries.begin(); it != c.entries.end(); ++it) {
            if (sameParams(*it, params) && it->passwordTag == tag) {
                c.entries.splice(c.entries.begin(), c.entries, it);
                master = c.entries.front().master;
                ++c.stats.hits;
                fromCache = true;
                return ZAVKM_OK;
            }
        }
        ++c.stats.misses;
    }
    SecretBytes out(kKeySize);
    if (PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()),
                          params.salt.data(), static_cast<int>(params.salt.size()),
                          static_cast<int>(params.iterations), EVP_sha256(),
                          static_cast<int>(out.size()), out.data()) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    master = std::move(out);
    return ZAVKM_OK;
}

void cacheMaster(const KdfParams& params, std::string_view password,
                 const SecretBytes& master) noexcept {
    guardedVoid([&] {
        KdfCache& c = cache();
        std::lock_guard lock(c.mutex);
        SecretBytes tag;
        if (passwordTag(c, password, tag) != ZAVKM_OK) return;
        for (auto it = c.entries.begin(); it != c.entries.end(); ++it) {
            if (sameParams(*it, params) && it->passwordTag == tag) {
                c.entries.splice(c.entries.begin(), c.entries, it);
                return;
            }
        }
        c.entries.push_front(CacheEntry{params.salt, params.iterations, std::move(tag), master});
        while (c.entries.size() > kCacheCapacity) c.entries.pop_back();
    });
}

void rememberSecret(const Bytes& lookup, const SecretBytes& secret) noexcept {
    guardedVoid([&] {
        KdfCache& c = cache();
        std::lock_guard lock(c.mutex);
        for (auto it = c.secrets.begin(); it != c.secrets.end(); ++it)
            if (it->lookup == lookup) {
                c.secrets.splice(c.secrets.begin(), c.secrets, it);
                return;
            }
        c.secrets.push_front(Remembered{lookup, secret});
        while (c.secrets.size() > 4 * kCacheCapacity) c.secrets.pop_back();
    });
}

bool recallSecret(const Bytes& lookup, SecretBytes& secret) noexcept {
    try {
        KdfCache& c = cache();
        std::lock_guard lock(c.mutex);
        for (auto it = c.secrets.begin(); it != c.secrets.end(); ++it)
            if (it->lookup == lookup) {
                c.secrets.splice(c.secrets.begin(), c.secrets, it);
                secret = c.secrets.front().secret;
                return true;
            }
    } catch (...) {
    }
    return false;
}

void wipeKdfCache() noexcept {
    KdfCache& c = cache();
    std::lock_guard lock(c.mutex);
    c.secrets.clear();
    c.entries.clear();  // SecretBytes wipe themselves
    c.processKey = SecretBytes();
    c.stats = KdfCacheStats{};
}

KdfCacheStats kdfCacheStats() noexcept {
    KdfCache& c = cache();
    std::lock_guard lock(c.mutex);
    KdfCacheStats s = c.stats;
    s.entries = c.entries.size();
    return s;
}

Rc wrappingKey(const SecretBytes& master, SecretBytes& kek) {
    return hkdfKey(master, "zavkm data-key wrap v1", kek);
}

Rc hkdfKey(const SecretBytes& master, std::string_view info, SecretBytes& key) {
    SecretBytes out(kKeySize);
    Owned<EVP_KDF_CTX, EVP_KDF_CTX_free> ctx(hkdfAlgorithm() ? EVP_KDF_CTX_new(hkdfAlgorithm()) : nullptr);
    char digest[] = "SHA256";
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<uint8_t*>(master.data()), master.size()),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, const_cast<char*>(info.data()), info.size()),
        OSSL_PARAM_construct_end()};
    if (!ctx || EVP_KDF_derive(ctx.get(), out.data(), out.size(), params) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    key = std::move(out);
    return ZAVKM_OK;
}

Rc sealGcm(const SecretBytes& key, const uint8_t* plain, size_t plainLength, std::string_view aad,
           Bytes& out) {
    if (key.size() != kKeySize) return ZAVKM_ERR_CRYPTO_PARAMETER;
    Bytes sealed(kGcmNonceSize + plainLength + kGcmTagSize);
    if (Rc rc = randomBytes(sealed.data(), kGcmNonceSize); rc != ZAVKM_OK) return rc;
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    int len = 0;
    uint8_t* body = sealed.data() + kGcmNonceSize;
    if (!ctx ||
        gcmAlgorithm() == nullptr ||
        EVP_EncryptInit_ex2(ctx.get(), gcmAlgorithm(), key.data(), sealed.data(), nullptr) != 1 ||
        EVP_EncryptUpdate(ctx.get(), nullptr, &len,
                          reinterpret_cast<const unsigned char*>(aad.data()),
                          static_cast<int>(aad.size())) != 1 ||
        EVP_EncryptUpdate(ctx.get(), body, &len, plain, static_cast<int>(plainLength)) != 1 ||
        EVP_EncryptFinal_ex(ctx.get(), body + len, &len) != 1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_GET_TAG, kGcmTagSize, body + plainLength) !=
            1)
        return sslError(ZAVKM_ERR_CRYPTO);
    out = std::move(sealed);
    return ZAVKM_OK;
}

Rc openGcm(const SecretBytes& key, const uint8_t* sealed, size_t sealedLength, std::string_view aad,
           SecretBytes& plain) {
    if (key.size() != kKeySize) return ZAVKM_ERR_CRYPTO_PARAMETER;
    if (sealed == nullptr || sealedLength < kGcmNonceSize + kGcmTagSize)
        return ZAVKM_ERR_DATABASE_CORRUPTION;
    size_t bodyLength = sealedLength - kGcmNonceSize - kGcmTagSize;
    SecretBytes out(bodyLength);
    CipherCtxPtr ctx(EVP_CIPHER_CTX_new());
    int len = 0;
    const uint8_t* body = sealed + kGcmNonceSize;
    if (!ctx ||
        gcmAlgorithm() == nullptr ||
        EVP_DecryptInit_ex2(ctx.get(), gcmAlgorithm(), key.data(), sealed, nullptr) != 1 ||
        EVP_DecryptUpdate(ctx.get(), nullptr, &len,
                          reinterpret_cast<const unsigned char*>(aad.data()),
                          static_cast<int>(aad.size())) != 1 ||
        EVP_DecryptUpdate(ctx.get(), out.data(), &len, body, static_cast<int>(bodyLength)) !=
            1 ||
        EVP_CIPHER_CTX_ctrl(ctx.get(), EVP_CTRL_GCM_SET_TAG, kGcmTagSize,
                            const_cast<uint8_t*>(body + bodyLength)) != 1)
        return sslError(ZAVKM_ERR_CRYPTO);
    if (EVP_DecryptFinal_ex(ctx.get(), out.data() + len, &len) != 1) {
        clearSslErrors();
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    }
    plain = std::move(out);
    return ZAVKM_OK;
}

}  // namespace zavkm
