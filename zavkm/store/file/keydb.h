// keydb.h - key database files: one SQLite file holding the password KDF parameters, the
// wrapped data key, personal keys, signer certificates, request keys and the authenticated index
// of them.
//
// The file is recognised by its SQLite application id and user version, and must hold exactly
// the key database's schema. It runs in WAL mode with synchronous=FULL (every commit is durable)
// and a busy timeout, so threads and processes using one file wait for each other rather than
// fail. Every change is one transaction.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "base/common.h"
#include "store/file/connpool.h"
#include "store/file/kdf.h"
#include "store/file/rowcode.h"
#include "store/file/sql.h"

namespace zavkm {

inline constexpr int32_t kApplicationId = 0x5A41564B;  // "ZAVK"
// 3: rows and an index of them under MACs computed by the library. 1 and 2 are not read.
inline constexpr int32_t kSchemaVersion = 3;

// Meta - the one row of meta: the password's KDF and the wrapped data key, the file's identity
// and generation, the default key, the next row id and the roots of the index.
struct Meta {
    Bytes fileId;
    int64_t generation = 0;  // raised by one with every committed change
    KdfParams kdf;
    Bytes wrapped;
    int64_t passwordTime = 0;
    int64_t expireSeconds = 0;
    int64_t defaultKey = 0;  // the id of the default key's row, 0 when there is none
    int64_t nextId = 1;
    Hash tagRoot{};
    Hash pageRoot{};
    Bytes mac;
};

// KeyDb - an open key database: the SQLite connection and the secrets proven by the password.
// One thread at a time: callers hold `mutex` while they use it.
struct KeyDb {
    std::mutex mutex;
    Connection db;
    std::string fileName;
    KdfParams kdf;
    Bytes wrapped;         // the data key as the file held it when unlocked
    Bytes fileId;
    SecretBytes master;    // the PBES2 key of private keys leaving the library
    SecretBytes dataKey;   // seals the private keys inside the file
    SecretBytes password;  // for keys that arrive under the password with other parameters
    RowKeys keys;          // derived from dataKey and fileId
    Bytes checkedMeta;     // the meta row, encoded, whose MAC last held
    int64_t passwordExpiry = 0;  // seconds since 1970 when the password expires; 0: never
};

// createKeyDb - creates fileName (mode 0600; ZAVKM_ERR_DATABASE_ALREADY_EXISTS when it exists)
// with a new random data key wrapped under password, and opens it. expireSeconds is the
// password's lifetime from now (0 or less: never). fill, when given, adds the first contents.
// The file appears under its name only complete (with fill's contents); on failure nothing is
// left on disk.
Rc createKeyDb(const char* fileName, std::string_view password, int32_t expireSeconds,
               std::unique_ptr<KeyDb>& out,
               const std::function<Rc(KeyDb&)>& fill = {});

// openKeyDb - opens an existing key database with its password: ZAVKM_ERR_KEYDB_NOT_EXIST for
// a missing file, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE for a file that is not a key database,
// ZAVKM_ERR_DATABASE_INVALID_VERSION for a format this library does not read,
// ZAVKM_ERR_DATABASE_CORRUPTION for a damaged one, ZAVKM_ERR_DATABASE_KEY_INTEGRITY for a
// schema or meta row changed behind the library, ZAVKM_ERR_DATABASE_INVALID_PASSWORD for a
// wrong password, ZAVKM_ERR_PASSWORD_EXPIRATION_TIME past the password's lifetime (checked only
// when checkExpiry). An empty password reads the stash file.
Rc openKeyDb(const char* fileName, std::string_view password, bool checkExpiry,
             std::unique_ptr<KeyDb>& out);

// changeKeyDbPassword - gives the file a new data key wrapped under newPassword (new salt,
// current KDF parameters), re-seals every private key, row MAC and the index under it and
// restarts the lifetime with expireSeconds, in one transaction. A file with a damaged row is
// refused with ZAVKM_ERR_DATABASE_KEY_INTEGRITY (repair it first).
Rc changeKeyDbPassword(const char* fileName, std::string_view oldPassword,
                       std::string_view newPassword, int32_t expireSeconds);

// probeKeyDbFile - ZAVKM_OK when fileName looks like a key database by its header alone;
// otherwise the code openKeyDb would give for it.
Rc probeKeyDbFile(const char* fileName);

// sealPrivateKey / openPrivateKey - a PKCS#8 PrivateKeyInfo sealed with the data key, bound to
// the file and the key's SubjectPublicKeyInfo.
Rc sealPrivateKey(const KeyDb& kdb, const SecretBytes& pkcs8, const Bytes& spki,
                  Bytes& sealed);
Rc openPrivateKey(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki,
                  SecretBytes& pkcs8);

// checkSchema - the connection's database holds exactly the key database's tables and indexes
// (each one's SQL text compared byte for byte) and nothing else: ZAVKM_ERR_DATABASE_KEY_INTEGRITY
// otherwise. Checked again only when the schema cookie moved since the last check.
Rc checkSchema(Link& link);

// readMeta - the meta row of the current transaction: ZAVKM_ERR_DATABASE_CORRUPTION when it is
// missing or malformed.
Rc readMeta(Link& link, Meta& m);

// acceptMeta - whether m, read in a transaction, is the file's own: its MAC holds under the
// handle's keys (ZAVKM_ERR_DATABASE_KEY_INTEGRITY otherwise). When another handle changed the
// password meanwhile, the handle's password must open the new data key
// (ZAVKM_ERR_DATABASE_INVALID_PASSWORD otherwise).
Rc acceptMeta(KeyDb& kdb, const Meta& m);

// writeMeta - replaces the meta row with m under a fresh MAC (filled into m) and remembers it
// as the handle's checked meta once the transaction commits (the caller's business).
Rc writeMeta(KeyDb& kdb, Link& link, Meta& m);

// encodeMeta - the bytes the meta MAC covers (everything in m but the MAC).
Bytes encodeMeta(const Meta& m);

}  // namespace zavkm
