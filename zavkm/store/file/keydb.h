// keydb.h - key database files: one SQLite file holding the password KDF parameters, the
// wrapped data key, personal keys, signer certificates and request keys.
//
// The file is recognised by its SQLite application id and user version. It runs in WAL mode
// with synchronous=FULL (every commit is durable) and a busy timeout, so threads and processes
// using one file wait for each other rather than fail. Every change is one transaction.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "common.h"
#include "connpool.h"
#include "kdf.h"
#include "sql.h"

namespace zavkm {

inline constexpr int32_t kApplicationId = 0x5A41564B;  // "ZAVK"
inline constexpr int32_t kSchemaVersion = 2;  // 2: a MAC on every row (1 is migrated on open)

// KeyDb - an open key database: the SQLite connection and the secrets proven by the password.
// One thread at a time: callers hold `mutex` while they use it.
struct KeyDb {
    std::mutex mutex;
    Connection db;
    std::string fileName;
    KdfParams kdf;
    Bytes wrapped;         // the data key as the file held it when opened
    SecretBytes master;    // the PBES2 key of private keys leaving the library
    SecretBytes dataKey;   // seals the private keys inside the file
    SecretBytes password;  // for keys that arrive under the password with other parameters
    int64_t passwordExpiry = 0;  // seconds since 1970 when the password expires; 0: never
};

// createKeyDb - creates fileName (mode 0600; ZAVKM_ERR_DATABASE_ALREADY_EXISTS when it exists)
// with a new random data key wrapped under password, and opens it. expireSeconds is the
// password's lifetime from now (0 or less: never). fill, when given, adds the first contents.
// The file appears under its name only complete (with fill's contents); on failure nothing is
// left on disk.
Rc createKeyDb(const char* fileName, std::string_view password, int32_t expireSeconds,
               std::unique_ptr<KeyDb>& out,
               const std::function<Rc(KeyDb&)>& fill = {}) noexcept;

// openKeyDb - opens an existing key database with its password: ZAVKM_ERR_KEYDB_NOT_EXIST for
// a missing file, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE for a file that is not a key database,
// ZAVKM_ERR_DATABASE_CORRUPTION for a damaged one, ZAVKM_ERR_DATABASE_INVALID_PASSWORD for a
// wrong password, ZAVKM_ERR_PASSWORD_EXPIRATION_TIME past the password's lifetime (checked
// only when checkExpiry). An empty password reads the stash file.
Rc openKeyDb(const char* fileName, std::string_view password, bool checkExpiry,
             std::unique_ptr<KeyDb>& out) noexcept;

// changeKeyDbPassword - rewraps the data key under newPassword (new salt, current KDF
// parameters) and restarts the lifetime with expireSeconds, in one transaction.
Rc changeKeyDbPassword(const char* fileName, std::string_view oldPassword,
                       std::string_view newPassword, int32_t expireSeconds) noexcept;

// probeKeyDbFile - ZAVKM_OK when fileName looks like a key database by its header alone;
// otherwise the code openKeyDb would give for it.
Rc probeKeyDbFile(const char* fileName) noexcept;

// sealPrivateKey / openPrivateKey - a PKCS#8 PrivateKeyInfo sealed with the data key, bound to
// the key's SubjectPublicKeyInfo.
Rc sealPrivateKey(const KeyDb& kdb, const SecretBytes& pkcs8, const Bytes& spki,
                  Bytes& sealed) noexcept;
Rc openPrivateKey(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki,
                  SecretBytes& pkcs8) noexcept;

}  // namespace zavkm
