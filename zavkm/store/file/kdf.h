// kdf.h - password-derived keys, their in-process cache, and the AEAD used for the data key
// and the private keys.
//
// A key database stores a KDF salt and an iteration count. The password master key is
// PBKDF2-HMAC-SHA256(password, salt, iterations, 32 bytes); one KDF run gives both
//   - the key-encryption key, HKDF-SHA256(master, info "zavkm data-key wrap v1"), which wraps
//     the database's random data key with AES-256-GCM, and
//   - the PBES2 key under which private keys leave the library (PBKDF2 with the same salt and
//     iteration count, AES-256-CBC), so that `openssl pkcs8` decrypts them with the password.
#pragma once

#include <string_view>

#include "base/common.h"

namespace zavkm {

inline constexpr uint32_t kKdfIterations = 600000;  // the floor for new and re-keyed files
// newFileIterations - the count new and re-keyed files get: kKdfIterations, unless a program
// linked with the library's objects lowered it (the fuzz targets do, so that inputs that change a
// salt do not spend their time in the KDF). Not reachable through the C ABI.
inline uint32_t newFileIterations = kKdfIterations;
inline constexpr size_t kKdfSaltSize = 16;
inline constexpr size_t kKeySize = 32;
inline constexpr size_t kGcmNonceSize = 12;
inline constexpr size_t kGcmTagSize = 16;

// KdfParams - what a file stores about its password KDF.
struct KdfParams {
    Bytes salt;
    uint32_t iterations = 0;
};

// deriveMaster - the password master key for params: from the cache when this process derived
// it before, else one PBKDF2 run. The result is not cached here; cacheMaster does that once the
// key proved right (a wrong password never enters the cache).
Rc deriveMaster(const KdfParams& params, std::string_view password, SecretBytes& master,
                bool& fromCache);

// cacheMaster - remembers master for (params, password). The cache is keyed by the salt, the
// iteration count and an HMAC of the password under a random per-process key; the password
// itself is never stored. It holds a handful of entries and forgets the oldest.
void cacheMaster(const KdfParams& params, std::string_view password,
                 const SecretBytes& master) noexcept;

// wipeKdfCache - forgets every cached key, every remembered secret and the per-process HMAC key
// (ZAVKM_CleanAll).
void wipeKdfCache() noexcept;

// rememberSecret / recallSecret - secrets the library derives again and again from the same
// secret inputs (the data key unwrapped by a master key, the keys derived from a data key),
// remembered under lookup, a SHA-256 over those inputs, so that an open of a file whose key this
// process already proved costs no unwrapping nor key derivation. A handful are kept, the least
// recently used forgotten first.
void rememberSecret(const Bytes& lookup, const SecretBytes& secret) noexcept;
bool recallSecret(const Bytes& lookup, SecretBytes& secret) noexcept;

// kdfCacheStats - hits and misses since the last wipe (for tests and the trace).
struct KdfCacheStats {
    uint64_t hits = 0;
    uint64_t misses = 0;
    size_t entries = 0;
};
KdfCacheStats kdfCacheStats() noexcept;

// wrappingKey - the key-encryption key derived from master (HKDF-SHA256).
Rc wrappingKey(const SecretBytes& master, SecretBytes& kek);
// hkdfKey - a 32-byte key derived from master for one purpose, named by info (HKDF-SHA256).
Rc hkdfKey(const SecretBytes& master, std::string_view info, SecretBytes& key);

// sealGcm - nonce || AES-256-GCM(key, plain, aad) || tag into out.
Rc sealGcm(const SecretBytes& key, const uint8_t* plain, size_t plainLength, std::string_view aad,
           Bytes& out);

// openGcm - the inverse of sealGcm. A failed tag gives ZAVKM_ERR_DATABASE_KEY_INTEGRITY; a
// block too short to hold nonce and tag gives ZAVKM_ERR_DATABASE_CORRUPTION.
Rc openGcm(const SecretBytes& key, const uint8_t* sealed, size_t sealedLength, std::string_view aad,
           SecretBytes& plain);

}  // namespace zavkm
