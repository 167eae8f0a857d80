// keydb.cpp - creating, opening and re-keying key database files.
#include "keydb.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "files.h"
#include "ossl.h"
#include "rowmac.h"
#include "stash.h"
#include "trace.h"

namespace zavkm {
namespace {

constexpr char kKdfName[] = "pbkdf2-hmac-sha256";
constexpr char kDataKeyAad[] = "zavkm/data-key/v1";
constexpr char kPrivateKeyAad[] = "zavkm/private-key/v1:";

constexpr char kSchema[] = R"sql(
CREATE TABLE meta(
  id INTEGER PRIMARY KEY CHECK (id = 1),
  kdf TEXT NOT NULL,
  kdf_salt BLOB NOT NULL,
  kdf_iterations INTEGER NOT NULL,
  wrapped_data_key BLOB NOT NULL,
  password_time INTEGER NOT NULL,
  expire_seconds INTEGER NOT NULL,
  meta_check BLOB NOT NULL);
CREATE TABLE keys(
  id INTEGER PRIMARY KEY,
  label TEXT NOT NULL UNIQUE,
  cert BLOB NOT NULL,
  spki BLOB NOT NULL,
  subject BLOB NOT NULL,
  key_type INTEGER NOT NULL,
  key_bits INTEGER NOT NULL,
  private_key BLOB,
  is_default INTEGER NOT NULL DEFAULT 0,
  trusted INTEGER NOT NULL DEFAULT 0,
  mac BLOB);
CREATE INDEX keys_spki ON keys(spki);
CREATE INDEX keys_labels ON keys(id, label);
CREATE INDEX keys_subject ON keys(subject);
CREATE TABLE requests(
  id INTEGER PRIMARY KEY,
  label TEXT NOT NULL UNIQUE,
  request BLOB NOT NULL,
  spki BLOB NOT NULL,
  key_type INTEGER NOT NULL,
  key_bits INTEGER NOT NULL,
  private_key BLOB NOT NULL,
  mac BLOB);
CREATE INDEX requests_spki ON requests(spki);
CREATE INDEX requests_labels ON requests(id, label);
)sql";

// Meta - the meta row.
struct Meta {
    KdfParams kdf;
    Bytes wrapped;
    int64_t passwordTime = 0;
    int64_t expireSeconds = 0;
    Bytes check;
};

void put64(Bytes& out, int64_t v) {
    for (int i = 7; i >= 0; --i)
        out.push_back(static_cast<uint8_t>(static_cast<uint64_t>(v) >> (8 * i)));
}

// metaCheck - SHA-256 over the meta fields, telling a damaged meta row from a wrong password.
Bytes metaCheck(const Meta& m) {
    Bytes in(kKdfName, kKdfName + sizeof kKdfName);
    put64(in, m.kdf.iterations);
    put64(in, static_cast<int64_t>(m.kdf.salt.size()));
    in.insert(in.end(), m.kdf.salt.begin(), m.kdf.salt.end());
    put64(in, static_cast<int64_t>(m.wrapped.size()));
    in.insert(in.end(), m.wrapped.begin(), m.wrapped.end());
    put64(in, m.passwordTime);
    put64(in, m.expireSeconds);
    return sha256(in.data(), in.size());
}

int64_t now() { return static_cast<int64_t>(std::time(nullptr)); }

void removeFileSet(const std::string& name) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) ::unlink((name + suffix).c_str());
}

uint32_t be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// openConnection - a configured connection to an existing file, pooled or new.
Rc openConnection(const std::string& name, Connection& out) { return takeConnection(name, out); }

Rc readMeta(sqlite3* db, Meta& m) {
    Stmt s(db,
           "SELECT kdf, kdf_salt, kdf_iterations, wrapped_data_key, password_time, "
           "expire_seconds, meta_check FROM meta WHERE id = 1");
    int code = s.step();
    if (code == SQLITE_DONE) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_CORRUPTION);
    if (s.text(0) != kKdfName) return ZAVKM_ERR_DATABASE_INVALID_VERSION;
    m.kdf.salt = s.blob(1);
    int64_t iterations = s.integer(2);
    m.wrapped = s.blob(3);
    m.passwordTime = s.integer(4);
    m.expireSeconds = s.integer(5);
    m.check = s.blob(6);
    if (iterations <= 0 || iterations > 0x7fffffff) return ZAVKM_ERR_DATABASE_CORRUPTION;
    m.kdf.iterations = static_cast<uint32_t>(iterations);
    if (m.check != metaCheck(m)) return ZAVKM_ERR_DATABASE_CORRUPTION;
    return ZAVKM_OK;
}

Rc writeMeta(sqlite3* db, Meta& m, bool insert) {
    m.check = metaCheck(m);
    Stmt s(db, insert ? "INSERT INTO meta(kdf, kdf_salt, kdf_iterations, wrapped_data_key, "
                        "password_time, expire_seconds, meta_check, id) "
                        "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, 1)"
                      : "UPDATE meta SET kdf = ?1, kdf_salt = ?2, kdf_iterations = ?3, "
                        "wrapped_data_key = ?4, password_time = ?5, expire_seconds = ?6, "
                        "meta_check = ?7 WHERE id = 1");
    s.bind(1, std::string_view(kKdfName))
        .bind(2, m.kdf.salt)
        .bind(3, int64_t{m.kdf.iterations})
        .bind(4, m.wrapped)
        .bind(5, m.passwordTime)
        .bind(6, m.expireSeconds)
        .bind(7, m.check);
    int code = s.step();
    if (code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    return sqlite3_changes(db) == 1 ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CORRUPTION;
}

// unlockDataKey - derives (or finds in the cache) the master key for password and unwraps the
// data key; a tag failure is a wrong password. A proven key enters the cache. A stashed key
// for the file's salt and count is tried first, in place of the derivation.
Rc unlockDataKey(const Meta& m, std::string_view password, SecretBytes& master,
                 SecretBytes& dataKey, const Stash* stash = nullptr) {
    if (stash != nullptr && stash->master.size() == kKeySize && stash->kdf.salt == m.kdf.salt &&
        stash->kdf.iterations == m.kdf.iterations) {
        SecretBytes kek;
        if (wrappingKey(stash->master, kek) == ZAVKM_OK &&
            openGcm(kek, m.wrapped.data(), m.wrapped.size(), kDataKeyAad, dataKey) == ZAVKM_OK &&
            dataKey.size() == kKeySize) {
            master = stash->master;
            cacheMaster(m.kdf, password, master);
            trace("key database unlocked (stashed key)");
            return ZAVKM_OK;
        }
        clearSslErrors();  // a stale or damaged stashed key: derive as without one
    }
    bool fromCache = false;
    if (Rc rc = deriveMaster(m.kdf, password, master, fromCache); rc != ZAVKM_OK) return rc;
    SecretBytes kek;
    if (Rc rc = wrappingKey(master, kek); rc != ZAVKM_OK) return rc;
    Rc rc = openGcm(kek, m.wrapped.data(), m.wrapped.size(), kDataKeyAad, dataKey);
    if (rc == ZAVKM_ERR_DATABASE_KEY_INTEGRITY) return ZAVKM_ERR_DATABASE_INVALID_PASSWORD;
    if (rc != ZAVKM_OK) return rc;
    if (dataKey.size() != kKeySize) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (!fromCache) cacheMaster(m.kdf, password, master);
    trace("key database unlocked (%s)", fromCache ? "cached key" : "KDF run");
    return ZAVKM_OK;
}

// wrapDataKey - fills m.kdf (new salt) and m.wrapped for dataKey under password.
Rc wrapDataKey(const SecretBytes& dataKey, std::string_view password, Meta& m,
               SecretBytes& master) {
    m.kdf.salt.assign(kKdfSaltSize, 0);
    if (Rc rc = randomBytes(m.kdf.salt.data(), m.kdf.salt.size()); rc != ZAVKM_OK) return rc;
    if (m.kdf.iterations < kKdfIterations) m.kdf.iterations = kKdfIterations;
    bool fromCache = false;
    if (Rc rc = deriveMaster(m.kdf, password, master, fromCache); rc != ZAVKM_OK) return rc;
    SecretBytes kek;
    if (Rc rc = wrappingKey(master, kek); rc != ZAVKM_OK) return rc;
    return sealGcm(kek, dataKey.data(), dataKey.size(), kDataKeyAad, m.wrapped);
}

// addRowMacs - brings a database from before row MACs to the current schema in one
// transaction: the mac columns, every row's MAC (it vouches for the rows as they are now), the
// version. Another process may have done it first.
Rc addRowMacs(sqlite3* db) {
    WriteTransaction tx(db);
    if (tx.beginCode() != SQLITE_OK) return sqlRc(db, tx.beginCode(), ZAVKM_ERR_DATABASE_WRITE);
    Stmt ver(db, "PRAGMA user_version");
    int code = ver.step();
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
    if (ver.integer(0) != 1) return ZAVKM_OK;
    const std::string sql = "ALTER TABLE keys ADD COLUMN mac BLOB; "
                            "ALTER TABLE requests ADD COLUMN mac BLOB; PRAGMA user_version=" +
                            std::to_string(kSchemaVersion);
    if ((code = exec(db, sql.c_str())) != SQLITE_OK) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    if (Rc rc = sealAllRows(db); rc != ZAVKM_OK) return rc;
    if ((code = tx.commit()) != SQLITE_OK) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    trace("key database given row MACs");
    return ZAVKM_OK;
}

// checkSchema - application id and schema version of an open connection; version receives the
// version, which may be 1 (before row MACs, migrated by the open).
Rc checkSchema(sqlite3* db, int64_t& version) {
    Stmt app(db, "PRAGMA application_id");
    int code = app.step();
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_CORRUPTION);
    if (app.integer(0) != kApplicationId) return ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
    Stmt ver(db, "PRAGMA user_version");
    code = ver.step();
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_CORRUPTION);
    version = ver.integer(0);
    if (version == 0) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (version != kSchemaVersion && version != 1) return ZAVKM_ERR_DATABASE_INVALID_VERSION;
    return ZAVKM_OK;
}

// resolvePassword - the password given, else the stash's (with the key it holds, if any).
Rc resolvePassword(const std::string& fileName, std::string_view password, Stash& out) {
    if (!password.empty()) {
        out = Stash{SecretBytes(reinterpret_cast<const uint8_t*>(password.data()), password.size()), {}, {}};
        return ZAVKM_OK;
    }
    Rc rc = readStash(fileName, out);
    return rc == ZAVKM_ERR_PWDFILE_NOT_EXIST ? ZAVKM_ERR_DATABASE_INVALID_PASSWORD : rc;
}

std::string_view view(const SecretBytes& b) {
    return {reinterpret_cast<const char*>(b.data()), b.size()};
}

// checkHeader - the file behind an open connection is a key database by its first 100 bytes
// and its size. The bytes are read through SQLite's own file handle: opening and closing a
// second descriptor on the file would drop the POSIX locks that other connections of this
// process hold on it.
Rc checkHeader(sqlite3* db) {
    sqlite3_file* file = nullptr;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file == nullptr || file->pMethods == nullptr)
        return ZAVKM_ERR_DATABASE_OPEN;
    sqlite3_int64 size = 0;
    if (file->pMethods->xFileSize(file, &size) != SQLITE_OK) return ZAVKM_ERR_DATABASE_READ;
    uint8_t header[100] = {};
    int code = file->pMethods->xRead(file, header, sizeof header, 0);
    if (code != SQLITE_OK && code != SQLITE_IOERR_SHORT_READ) return ZAVKM_ERR_DATABASE_READ;
    static const char magic[16] = "SQLite format 3";  // with its terminating zero
    size_t n = size < 100 ? static_cast<size_t>(size) : sizeof header;
    if (n == 0) return ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
    if (std::memcmp(header, magic, n < 16 ? n : 16) != 0)
        return ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
    if (n < sizeof header) return ZAVKM_ERR_DATABASE_CORRUPTION;  // a cut-off key database
    if (be32(header + 68) != static_cast<uint32_t>(kApplicationId))
        return ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
    uint32_t pageSize = (uint32_t{header[16]} << 8) | header[17];
    if (pageSize == 1) pageSize = 65536;
    if (pageSize < 512 || (pageSize & (pageSize - 1)) != 0) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (size % pageSize != 0) return ZAVKM_ERR_DATABASE_CORRUPTION;
    return ZAVKM_OK;
}

// statKeyDbFile - ZAVKM_ERR_KEYDB_NOT_EXIST for a missing file, and no directories or devices.
Rc statKeyDbFile(const char* fileName) {
    if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
    struct stat st {};
    if (::stat(fileName, &st) != 0)
        return errno == ENOENT || errno == ENOTDIR ? ZAVKM_ERR_KEYDB_NOT_EXIST
                                                   : ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    if (!S_ISREG(st.st_mode)) return ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
    return ZAVKM_OK;
}

}  // namespace

Rc probeKeyDbFile(const char* fileName) noexcept {
    return guarded([&]() -> Rc {
        if (Rc rc = statKeyDbFile(fileName); rc != ZAVKM_OK) return rc;
        Connection db;
        if (Rc rc = openConnection(fileName, db); rc != ZAVKM_OK) return rc;
        Rc rc = checkHeader(db.get());
        if (rc == ZAVKM_OK) db.markReusable();
        return rc;
    });
}

Rc createKeyDb(const char* fileName, std::string_view password, int32_t expireSeconds,
               std::unique_ptr<KeyDb>& out, const std::function<Rc(KeyDb&)>& fill) noexcept {
    return guarded([&]() -> Rc {
        if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
        if (password.empty()) return ZAVKM_ERR_PWD_TOO_SHORT;
        struct stat st {};
        if (::lstat(fileName, &st) == 0) return ZAVKM_ERR_DATABASE_ALREADY_EXISTS;
        // Built beside its final name and linked there only when whole: a crash leaves no file
        // or the complete one.
        const std::string final(fileName);
        removeStaleTemporaries(final);
        const std::string name = final + ".tmp" + std::to_string(::getpid());
        removeFileSet(name);  // left by a killed creator with this process id
        int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (fd < 0)
            return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ERR_DATABASE_CREATE;
        bool modeOk = ::fchmod(fd, 0600) == 0;
        ::close(fd);

        auto kdb = std::make_unique<KeyDb>();
        kdb->fileName = name;
        Rc rc = modeOk ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CREATE;
        Meta m;
        if (rc == ZAVKM_OK) {
            kdb->dataKey = SecretBytes(kKeySize);
            rc = randomBytes(kdb->dataKey.data(), kdb->dataKey.size());
        }
        if (rc == ZAVKM_OK) rc = wrapDataKey(kdb->dataKey, password, m, kdb->master);
        if (rc == ZAVKM_OK) rc = openConnection(name, kdb->db);
        if (rc == ZAVKM_OK) {
            sqlite3* db = kdb->db.get();
            int code = exec(db, "PRAGMA journal_mode=WAL");
            WriteTransaction tx(db);
            if (code == SQLITE_OK) code = tx.beginCode();
            if (code == SQLITE_OK) code = exec(db, kSchema);
            if (code == SQLITE_OK) {
                std::string pragmas = "PRAGMA application_id=" + std::to_string(kApplicationId) +
                                      "; PRAGMA user_version=" + std::to_string(kSchemaVersion);
                code = exec(db, pragmas.c_str());
            }
            if (code != SQLITE_OK) rc = sqlRc(db, code, ZAVKM_ERR_DATABASE_CREATE);
            if (rc == ZAVKM_OK) {
                m.passwordTime = now();
                m.expireSeconds = expireSeconds > 0 ? expireSeconds : 0;
                rc = writeMeta(db, m, true);
            }
            if (rc == ZAVKM_OK && (code = tx.commit()) != SQLITE_OK)
                rc = sqlRc(db, code, ZAVKM_ERR_DATABASE_CREATE);
            // The new file holds its header, schema and password record by itself.
        }
        if (rc == ZAVKM_OK) rc = armRowMacs(kdb->db.get(), kdb->dataKey);
        kdb->kdf = m.kdf;
        kdb->passwordExpiry = m.expireSeconds > 0 ? m.passwordTime + m.expireSeconds : 0;
        kdb->password =
            SecretBytes(reinterpret_cast<const uint8_t*>(password.data()), password.size());
        if (rc == ZAVKM_OK && fill) rc = fill(*kdb);
        if (rc == ZAVKM_OK) {
            sqlite3* db = kdb->db.get();
            if (int code = exec(db, "PRAGMA wal_checkpoint(TRUNCATE)"); code != SQLITE_OK)
                rc = sqlRc(db, code, ZAVKM_ERR_DATABASE_CREATE);
        }
        kdb->db.forbidReuse();
        { Connection closing = std::move(kdb->db); }
        if (rc == ZAVKM_OK) rc = publishNewFile(name, final);
        if (rc == ZAVKM_OK) {
            kdb->fileName = final;
            rc = openConnection(final, kdb->db);
            if (rc == ZAVKM_OK) rc = armRowMacs(kdb->db.get(), kdb->dataKey);
            if (rc != ZAVKM_OK) removeFileSet(final);
        }
        if (rc != ZAVKM_OK) {
            kdb.reset();
            removeFileSet(name);
            return rc;
        }
        cacheMaster(m.kdf, password, kdb->master);
        kdb->db.markReusable();
        out = std::move(kdb);
        return ZAVKM_OK;
    });
}

Rc openKeyDb(const char* fileName, std::string_view password, bool checkExpiry,
             std::unique_ptr<KeyDb>& out) noexcept {
    return guarded([&]() -> Rc {
        if (Rc rc = statKeyDbFile(fileName); rc != ZAVKM_OK) return rc;
        auto kdb = std::make_unique<KeyDb>();
        kdb->fileName = fileName;
        if (Rc rc = openConnection(kdb->fileName, kdb->db); rc != ZAVKM_OK) return rc;
        sqlite3* db = kdb->db.get();
        if (Rc rc = checkHeader(db); rc != ZAVKM_OK) return rc;
        Stash secret;
        if (Rc rc = resolvePassword(kdb->fileName, password, secret); rc != ZAVKM_OK) return rc;
        Meta m;
        int64_t version = 0;
        {
            ReadTransaction tx(db);
            if (tx.beginCode() != SQLITE_OK)
                return sqlRc(db, tx.beginCode(), ZAVKM_ERR_DATABASE_OPEN);
            if (Rc rc = checkSchema(db, version); rc != ZAVKM_OK) return rc;
            if (Rc rc = readMeta(db, m); rc != ZAVKM_OK) return rc;
        }
        kdb->db.markReusable();  // a sound key database, whatever the password turns out
        if (Rc rc = unlockDataKey(m, view(secret.password), kdb->master, kdb->dataKey, &secret);
            rc != ZAVKM_OK)
            return rc;
        if (Rc rc = armRowMacs(db, kdb->dataKey); rc != ZAVKM_OK) return rc;
        if (version == 1)
            if (Rc rc = addRowMacs(db); rc != ZAVKM_OK) return rc;
        if (checkExpiry && m.expireSeconds > 0 && now() >= m.passwordTime + m.expireSeconds)
            return ZAVKM_ERR_PASSWORD_EXPIRATION_TIME;
        kdb->kdf = m.kdf;
        kdb->wrapped = m.wrapped;
        kdb->passwordExpiry = m.expireSeconds > 0 ? m.passwordTime + m.expireSeconds : 0;
        kdb->password = std::move(secret.password);
        out = std::move(kdb);
        return ZAVKM_OK;
    });
}

Rc changeKeyDbPassword(const char* fileName, std::string_view oldPassword,
                       std::string_view newPassword, int32_t expireSeconds) noexcept {
    return guarded([&]() -> Rc {
        if (newPassword.empty()) return ZAVKM_ERR_PWD_TOO_SHORT;
        if (newPassword == oldPassword) return ZAVKM_ERR_PASSWORD_CHANGE_MATCH;
        std::unique_ptr<KeyDb> kdb;
        if (Rc rc = openKeyDb(fileName, oldPassword, false, kdb); rc != ZAVKM_OK) return rc;
        Stash old;
        if (Rc rc = resolvePassword(kdb->fileName, oldPassword, old); rc != ZAVKM_OK) return rc;
        oldPassword = view(old.password);
        // The new password's key derivation runs before the write lock is taken, so other
        // writers do not wait for it; the data key it wraps never changes.
        Meta fresh;
        fresh.kdf.iterations = kdb->kdf.iterations;
        SecretBytes master;
        if (Rc rc = wrapDataKey(kdb->dataKey, newPassword, fresh, master); rc != ZAVKM_OK) return rc;
        sqlite3* db = kdb->db.get();
        WriteTransaction tx(db);
        if (tx.beginCode() != SQLITE_OK) return sqlRc(db, tx.beginCode(), ZAVKM_ERR_DATABASE_WRITE);
        Meta m;  // read again under the write lock: another writer may have re-keyed it
        if (Rc rc = readMeta(db, m); rc != ZAVKM_OK) return rc;
        if (m.kdf.salt != kdb->kdf.salt || m.wrapped != kdb->wrapped) {
            SecretBytes oldMaster, dataKey;  // then the old password must still open it
            if (Rc rc = unlockDataKey(m, oldPassword, oldMaster, dataKey); rc != ZAVKM_OK) return rc;
        }
        m.kdf = fresh.kdf;
        m.wrapped = fresh.wrapped;
        m.passwordTime = now();
        m.expireSeconds = expireSeconds > 0 ? expireSeconds : 0;
        if (Rc rc = writeMeta(db, m, false); rc != ZAVKM_OK) return rc;
        if (int code = tx.commit(); code != SQLITE_OK)
            return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
        cacheMaster(m.kdf, newPassword, master);
        return ZAVKM_OK;
    });
}

Rc sealPrivateKey(const KeyDb& kdb, const SecretBytes& pkcs8, const Bytes& spki,
                  Bytes& sealed) noexcept {
    return guarded([&]() -> Rc {
        std::string aad(kPrivateKeyAad);
        aad.append(reinterpret_cast<const char*>(spki.data()), spki.size());
        return sealGcm(kdb.dataKey, pkcs8.data(), pkcs8.size(), aad, sealed);
    });
}

Rc openPrivateKey(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki,
                  SecretBytes& pkcs8) noexcept {
    return guarded([&]() -> Rc {
        std::string aad(kPrivateKeyAad);
        aad.append(reinterpret_cast<const char*>(spki.data()), spki.size());
        return openGcm(kdb.dataKey, sealed.data(), sealed.size(), aad, pkcs8);
    });
}

}  // namespace zavkm
