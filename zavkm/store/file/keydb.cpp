// keydb.cpp - creating, opening and re-keying key database files; their schema and meta row.
#include "store/file/keydb.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "store/file/entries.h"
#include "base/files.h"
#include "base/ossl.h"
#include "store/file/stash.h"
#include "base/trace.h"

namespace zavkm {
namespace {

constexpr char kKdfName[] = "pbkdf2-hmac-sha256";
constexpr char kDataKeyAad[] = "zavkm/data-key/v3:";
constexpr char kPrivateKeyAad[] = "zavkm/private-key/v3:";
constexpr uint32_t kMaxKdfIterations = 10000000;  // more would burn minutes at every open

// The schema: each object's SQL text exactly as SQLite keeps it in sqlite_master.
struct SchemaObject {
    const char* type;
    const char* name;
    const char* table;
    const char* sql;
};
constexpr SchemaObject kSchema[] = {
    {"table", "meta", "meta",
     "CREATE TABLE meta(\n"
     "  id INTEGER PRIMARY KEY CHECK (id = 1),\n"
     "  file_id BLOB NOT NULL,\n"
     "  generation INTEGER NOT NULL,\n"
     "  kdf TEXT NOT NULL,\n"
     "  kdf_salt BLOB NOT NULL,\n"
     "  kdf_iterations INTEGER NOT NULL,\n"
     "  wrapped_data_key BLOB NOT NULL,\n"
     "  password_time INTEGER NOT NULL,\n"
     "  expire_seconds INTEGER NOT NULL,\n"
     "  default_key INTEGER NOT NULL,\n"
     "  next_id INTEGER NOT NULL,\n"
     "  tag_root BLOB NOT NULL,\n"
     "  page_root BLOB NOT NULL,\n"
     "  mac BLOB NOT NULL)"},
    {"table", "keys", "keys",
     "CREATE TABLE keys(\n"
     "  id INTEGER PRIMARY KEY,\n"
     "  label TEXT NOT NULL,\n"
     "  flags INTEGER NOT NULL,\n"
     "  key_type INTEGER NOT NULL,\n"
     "  key_bits INTEGER NOT NULL,\n"
     "  not_before INTEGER NOT NULL,\n"
     "  not_after INTEGER NOT NULL,\n"
     "  body_hash BLOB NOT NULL,\n"
     "  mac BLOB NOT NULL,\n"
     "  cert BLOB NOT NULL,\n"
     "  spki BLOB NOT NULL,\n"
     "  subject BLOB NOT NULL,\n"
     "  private_key BLOB)"},
    {"index", "keys_heads", "keys",
     "CREATE INDEX keys_heads ON keys(id, label, flags, key_type, key_bits, not_before, "
     "not_after, body_hash, mac)"},
    {"index", "keys_label", "keys", "CREATE INDEX keys_label ON keys(label)"},
    {"table", "requests", "requests",
     "CREATE TABLE requests(\n"
     "  id INTEGER PRIMARY KEY,\n"
     "  label TEXT NOT NULL,\n"
     "  key_type INTEGER NOT NULL,\n"
     "  key_bits INTEGER NOT NULL,\n"
     "  body_hash BLOB NOT NULL,\n"
     "  mac BLOB NOT NULL,\n"
     "  request BLOB NOT NULL,\n"
     "  spki BLOB NOT NULL,\n"
     "  private_key BLOB NOT NULL)"},
    {"index", "requests_heads", "requests",
     "CREATE INDEX requests_heads ON requests(id, label, key_type, key_bits, body_hash, mac)"},
    {"index", "requests_label", "requests", "CREATE INDEX requests_label ON requests(label)"},
    {"table", "nodes", "nodes",
     "CREATE TABLE nodes(\n"
     "  id INTEGER PRIMARY KEY,\n"
     "  data BLOB NOT NULL)"},
};

int64_t now() { return static_cast<int64_t>(std::time(nullptr)); }

void removeFileSet(const std::string& name) {
    for (const char* suffix : {"", "-wal", "-shm", "-journal"}) ::unlink((name + suffix).c_str());
}

uint32_t be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

std::string_view view(const SecretBytes& b) {
    return {reinterpret_cast<const char*>(b.data()), b.size()};
}

// dataKeyAad - the additional data of the wrapped data key: the file and the KDF parameters, so
// that changed parameters fail the unwrap.
std::string dataKeyAad(const Meta& m) {
    Bytes aad;
    Encoder e{aad};
    e.raw(kDataKeyAad, sizeof kDataKeyAad - 1).field(m.fileId).field(std::string_view(kKdfName));
    e.u32(m.kdf.iterations).field(m.kdf.salt);
    return std::string(aad.begin(), aad.end());
}

// unlockDataKey - derives (or finds in the cache) the master key for password and unwraps the
// data key; a tag failure is a wrong password, or KDF parameters changed behind the library. A
// proven key enters the cache. A stashed key for the file's salt and count is tried first, in
// place of the derivation.
Rc unlockDataKey(const Meta& m, std::string_view password, SecretBytes& master,
                 SecretBytes& dataKey, const Stash* stash = nullptr) {
    const std::string aad = dataKeyAad(m);
    if (stash != nullptr && stash->master.size() == kKeySize && stash->kdf.salt == m.kdf.salt &&
        stash->kdf.iterations == m.kdf.iterations) {
        SecretBytes kek;
        if (wrappingKey(stash->master, kek) == ZAVKM_OK &&
            openGcm(kek, m.wrapped.data(), m.wrapped.size(), aad, dataKey) == ZAVKM_OK &&
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
    Digest d;  // a data key this master unwrapped before is remembered
    d.add(master.data(), master.size()).add(m.wrapped.data(), m.wrapped.size()).add(aad);
    Bytes lookup(kHashSize);
    if (fromCache && d.finish(lookup.data()) && recallSecret(lookup, dataKey) && dataKey.size() == kKeySize) {
        trace("key database unlocked (cached key)");
        return ZAVKM_OK;
    }
    SecretBytes kek;
    if (Rc rc = wrappingKey(master, kek); rc != ZAVKM_OK) return rc;
    Rc rc = openGcm(kek, m.wrapped.data(), m.wrapped.size(), aad, dataKey);
    if (rc == ZAVKM_ERR_DATABASE_KEY_INTEGRITY) {
        trace("the data key does not unwrap: a wrong password, or KDF parameters changed");
        return ZAVKM_ERR_DATABASE_INVALID_PASSWORD;
    }
    if (rc != ZAVKM_OK) return rc;
    if (dataKey.size() != kKeySize) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (!fromCache) cacheMaster(m.kdf, password, master);
    if (fromCache) rememberSecret(lookup, dataKey);
    trace("key database unlocked (%s)", fromCache ? "cached key" : "KDF run");
    return ZAVKM_OK;
}

// wrapDataKey - fills m.kdf (new salt) and m.wrapped for dataKey under password; m.fileId must
// be set.
Rc wrapDataKey(const SecretBytes& dataKey, std::string_view password, Meta& m,
               SecretBytes& master) {
    m.kdf.salt.assign(kKdfSaltSize, 0);
    if (Rc rc = randomBytes(m.kdf.salt.data(), m.kdf.salt.size()); rc != ZAVKM_OK) return rc;
    if (m.kdf.iterations < newFileIterations) m.kdf.iterations = newFileIterations;
    bool fromCache = false;
    if (Rc rc = deriveMaster(m.kdf, password, master, fromCache); rc != ZAVKM_OK) return rc;
    SecretBytes kek;
    if (Rc rc = wrappingKey(master, kek); rc != ZAVKM_OK) return rc;
    return sealGcm(kek, dataKey.data(), dataKey.size(), dataKeyAad(m), m.wrapped);
}

// unlock - makes the handle's keys those of m's data key, unwrapped with the handle's password
// (or the stash's key).
Rc unlock(KeyDb& kdb, const Meta& m, const Stash* stash) {
    SecretBytes master, dataKey;
    if (Rc rc = unlockDataKey(m, view(kdb.password), master, dataKey, stash); rc != ZAVKM_OK)
        return rc;
    RowKeys keys;
    if (Rc rc = deriveRowKeys(dataKey, m.fileId, keys); rc != ZAVKM_OK) return rc;
    kdb.master = std::move(master);
    kdb.dataKey = std::move(dataKey);
    kdb.keys = std::move(keys);
    kdb.kdf = m.kdf;
    kdb.wrapped = m.wrapped;
    kdb.fileId = m.fileId;
    kdb.passwordExpiry = m.expireSeconds > 0 ? m.passwordTime + m.expireSeconds : 0;
    return ZAVKM_OK;
}

// metaMac - the MAC of m under the meta key.
Rc metaMac(KeyDb& kdb, const Meta& m, Bytes& mac) {
    mac.assign(kHashSize, 0);
    const Bytes form = encodeMeta(m);
    return kdb.keys.meta.add(form).finish(mac.data(), kHashSize) ? ZAVKM_OK : ZAVKM_ERR_CRYPTO;
}

// checkedForm - meta with its MAC, as the handle remembers the one that last held.
Bytes checkedForm(const Meta& m) {
    Bytes form = encodeMeta(m);
    form.insert(form.end(), m.mac.begin(), m.mac.end());
    return form;
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

// checkVersion - the application id and format number of an open connection: a file of
// another format than this library's, older or newer, is not read.
Rc checkVersion(Link& link) {
    Stmt app(link, "PRAGMA application_id");
    int code = app.step();
    if (code != SQLITE_ROW) return sqlRc(link.db.get(), code, ZAVKM_ERR_DATABASE_CORRUPTION);
    if (app.integer(0) != kApplicationId) return ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
    Stmt ver(link, "PRAGMA user_version");
    code = ver.step();
    if (code != SQLITE_ROW) return sqlRc(link.db.get(), code, ZAVKM_ERR_DATABASE_CORRUPTION);
    const int64_t version = ver.integer(0);
    if (version == 0) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (version != kSchemaVersion) {
        trace("key database format %lld is not read (this library reads %d)",
              static_cast<long long>(version), kSchemaVersion);
        return ZAVKM_ERR_DATABASE_INVALID_VERSION;
    }
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

// insertMeta - the first meta row of a new file.
Rc insertMeta(KeyDb& kdb, Link& link, Meta& m) {
    Stmt s(link.db.get(),
           "INSERT INTO meta(id, file_id, generation, kdf, kdf_salt, kdf_iterations, "
           "wrapped_data_key, password_time, expire_seconds, default_key, next_id, tag_root, "
           "page_root, mac) VALUES(1, ?1, 0, ?2, ?3, ?4, ?5, 0, 0, 0, 1, zeroblob(32), "
           "zeroblob(32), zeroblob(32))");
    s.bind(1, m.fileId).bind(2, std::string_view(kKdfName)).bind(3, m.kdf.salt);
    s.bind(4, int64_t{m.kdf.iterations}).bind(5, m.wrapped);
    if (int code = s.step(); code != SQLITE_DONE) return sqlRc(link.db.get(), code, ZAVKM_ERR_DATABASE_CREATE);
    return writeMeta(kdb, link, m);
}

// createSchema - the tables, indexes and version numbers of a new file.
int createSchema(sqlite3* db) {
    for (const SchemaObject& o : kSchema)
        if (int code = exec(db, o.sql); code != SQLITE_OK) return code;
    const std::string pragmas = "PRAGMA application_id=" + std::to_string(kApplicationId) +
                                "; PRAGMA user_version=" + std::to_string(kSchemaVersion);
    return exec(db, pragmas.c_str());
}

// reseal - the change of a password: every row and the index rebuilt under the keys of
// dataKey, the meta row rewrapped, all in the write view v.
Rc reseal(KeyDb& kdb, View& v, const SecretBytes& dataKey, const Meta& fresh,
          int32_t expireSeconds) {
    RowKeys keys;
    if (Rc rc = deriveRowKeys(dataKey, kdb.fileId, keys); rc != ZAVKM_OK) return rc;
    KeyDb next;  // the handle's secrets once the change is made
    next.dataKey = dataKey;
    next.fileId = kdb.fileId;
    next.keys = std::move(keys);
    Rebuild plan;
    plan.to = &next;
    if (Rc rc = rebuild(v, plan); rc != ZAVKM_OK) return rc;
    v.meta.kdf = fresh.kdf;
    v.meta.wrapped = fresh.wrapped;
    v.meta.passwordTime = now();
    v.meta.expireSeconds = expireSeconds > 0 ? expireSeconds : 0;
    kdb.dataKey = std::move(next.dataKey);
    kdb.keys = std::move(next.keys);
    kdb.kdf = fresh.kdf;
    kdb.wrapped = fresh.wrapped;
    return v.finish();
}

}  // namespace

Bytes encodeMeta(const Meta& m) {
    Bytes out;
    Encoder e{out};
    e.field(std::string_view("zavkm meta v3")).u32(kSchemaVersion).field(m.fileId);
    e.u64(static_cast<uint64_t>(m.generation)).field(std::string_view(kKdfName));
    e.field(m.kdf.salt).u32(m.kdf.iterations).field(m.wrapped);
    e.u64(static_cast<uint64_t>(m.passwordTime)).u64(static_cast<uint64_t>(m.expireSeconds));
    e.u64(static_cast<uint64_t>(m.defaultKey)).u64(static_cast<uint64_t>(m.nextId));
    e.raw(m.tagRoot.data(), kHashSize).raw(m.pageRoot.data(), kHashSize);
    return out;
}

Rc checkSchema(Link& link) {
    sqlite3* db = link.db.get();
    Stmt cookie(link, "PRAGMA schema_version");
    int code = cookie.step();
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_CORRUPTION);
    const int64_t now = cookie.integer(0);
    if (now == link.checkedCookie) return ZAVKM_OK;
    Stmt s(link, "SELECT type, name, tbl_name, sql FROM sqlite_master ORDER BY name");
    size_t at = 0;
    constexpr size_t count = sizeof kSchema / sizeof kSchema[0];
    bool same = true;
    while ((code = s.step()) == SQLITE_ROW) {
        // kSchema is in the order of the names.
        const SchemaObject* want = nullptr;
        for (const SchemaObject& o : kSchema)
            if (s.view(1) == o.name) want = &o;
        same = same && want != nullptr && s.view(0) == want->type && s.view(2) == want->table &&
               !s.isNull(3) && s.view(3) == want->sql;
        ++at;
    }
    if (code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_CORRUPTION);
    if (!same || at != count) {
        trace("key database schema is not the library's: %zu objects", at);
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    }
    link.checkedCookie = now;
    return ZAVKM_OK;
}

Rc readMeta(Link& link, Meta& m) {
    sqlite3* db = link.db.get();
    Stmt s(link,
           "SELECT file_id, generation, kdf, kdf_salt, kdf_iterations, wrapped_data_key, "
           "password_time, expire_seconds, default_key, next_id, tag_root, page_root, mac "
           "FROM meta WHERE id = 1");
    int code = s.step();
    if (code == SQLITE_DONE) return ZAVKM_ERR_DATABASE_CORRUPTION;
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_CORRUPTION);
    if (s.view(2) != kKdfName) return ZAVKM_ERR_DATABASE_INVALID_VERSION;
    m.fileId = s.blob(0);
    m.generation = s.integer(1);
    m.kdf.salt = s.blob(3);
    const int64_t iterations = s.integer(4);
    m.wrapped = s.blob(5);
    m.passwordTime = s.integer(6);
    m.expireSeconds = s.integer(7);
    m.defaultKey = s.integer(8);
    m.nextId = s.integer(9);
    const Bytes tagRoot = s.blob(10), pageRoot = s.blob(11);
    m.mac = s.blob(12);
    if (m.fileId.size() != kFileIdSize || m.kdf.salt.size() != kKdfSaltSize ||
        iterations <= 0 || iterations > kMaxKdfIterations ||
        m.wrapped.size() != kGcmNonceSize + kKeySize + kGcmTagSize ||
        tagRoot.size() != kHashSize || pageRoot.size() != kHashSize ||
        m.mac.size() != kHashSize || m.generation < 0 || m.nextId < 1 || m.defaultKey < 0 ||
        m.expireSeconds < 0)
        return ZAVKM_ERR_DATABASE_CORRUPTION;
    m.kdf.iterations = static_cast<uint32_t>(iterations);
    std::memcpy(m.tagRoot.data(), tagRoot.data(), kHashSize);
    std::memcpy(m.pageRoot.data(), pageRoot.data(), kHashSize);
    return ZAVKM_OK;
}

Rc acceptMeta(KeyDb& kdb, const Meta& m) {
    Bytes form = checkedForm(m);
    if (form == kdb.checkedMeta) return ZAVKM_OK;
    if (m.fileId != kdb.fileId || m.wrapped != kdb.wrapped || m.kdf.salt != kdb.kdf.salt ||
        m.kdf.iterations != kdb.kdf.iterations) {
        trace("key database re-keyed since the handle was opened");
        if (Rc rc = unlock(kdb, m, nullptr); rc != ZAVKM_OK) return rc;
    }
    Bytes mac;
    if (Rc rc = metaMac(kdb, m, mac); rc != ZAVKM_OK) return rc;
    if (CRYPTO_memcmp(mac.data(), m.mac.data(), kHashSize) != 0) {
        trace("key database meta fails its MAC");
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    }
    kdb.passwordExpiry = m.expireSeconds > 0 ? m.passwordTime + m.expireSeconds : 0;
    kdb.checkedMeta = std::move(form);
    return ZAVKM_OK;
}

Rc writeMeta(KeyDb& kdb, Link& link, Meta& m) {
    if (Rc rc = metaMac(kdb, m, m.mac); rc != ZAVKM_OK) return rc;
    Stmt s(link,
           "UPDATE meta SET file_id = ?1, generation = ?2, kdf = ?3, kdf_salt = ?4, "
           "kdf_iterations = ?5, wrapped_data_key = ?6, password_time = ?7, "
           "expire_seconds = ?8, default_key = ?9, next_id = ?10, tag_root = ?11, "
           "page_root = ?12, mac = ?13 WHERE id = 1");
    s.bind(1, m.fileId).bind(2, m.generation).bind(3, std::string_view(kKdfName));
    s.bind(4, m.kdf.salt).bind(5, int64_t{m.kdf.iterations}).bind(6, m.wrapped);
    s.bind(7, m.passwordTime).bind(8, m.expireSeconds).bind(9, m.defaultKey);
    s.bind(10, m.nextId).bind(11, m.tagRoot.data(), kHashSize);
    s.bind(12, m.pageRoot.data(), kHashSize).bind(13, m.mac);
    sqlite3* db = link.db.get();
    int code = s.step();
    if (code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    if (sqlite3_changes(db) != 1) return ZAVKM_ERR_DATABASE_CORRUPTION;
    kdb.checkedMeta = checkedForm(m);  // true of these bytes whether or not they commit
    return ZAVKM_OK;
}

Rc probeKeyDbFile(const char* fileName) {
    if (Rc rc = statKeyDbFile(fileName); rc != ZAVKM_OK) return rc;
    Connection db;
    if (Rc rc = takeConnection(fileName, db); rc != ZAVKM_OK) return rc;
    Rc rc = checkHeader(db.get());
    if (rc == ZAVKM_OK) db.markReusable();
    return rc;
}

Rc createKeyDb(const char* fileName, std::string_view password, int32_t expireSeconds,
               std::unique_ptr<KeyDb>& out, const std::function<Rc(KeyDb&)>& fill) {
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
    kdb->password = SecretBytes(reinterpret_cast<const uint8_t*>(password.data()), password.size());
    Rc rc = modeOk ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CREATE;
    Meta m;
    if (rc == ZAVKM_OK) {
        kdb->dataKey = SecretBytes(kKeySize);
        m.fileId.assign(kFileIdSize, 0);
        rc = randomBytes(kdb->dataKey.data(), kdb->dataKey.size());
        if (rc == ZAVKM_OK) rc = randomBytes(m.fileId.data(), m.fileId.size());
    }
    if (rc == ZAVKM_OK) rc = wrapDataKey(kdb->dataKey, password, m, kdb->master);
    if (rc == ZAVKM_OK) rc = deriveRowKeys(kdb->dataKey, m.fileId, kdb->keys);
    if (rc == ZAVKM_OK) rc = takeConnection(name, kdb->db);
    if (rc == ZAVKM_OK) {
        sqlite3* db = kdb->db.get();
        int code = exec(db, "PRAGMA journal_mode=WAL");
        WriteTransaction tx(db);
        if (code == SQLITE_OK) code = tx.beginCode();
        if (code == SQLITE_OK) code = createSchema(db);
        if (code != SQLITE_OK) rc = sqlRc(db, code, ZAVKM_ERR_DATABASE_CREATE);
        m.passwordTime = now();
        m.expireSeconds = expireSeconds > 0 ? expireSeconds : 0;
        if (rc == ZAVKM_OK) rc = insertMeta(*kdb, kdb->db.link(), m);
        if (rc == ZAVKM_OK && (code = tx.commit()) != SQLITE_OK)
            rc = sqlRc(db, code, ZAVKM_ERR_DATABASE_CREATE);
        // The new file holds its header, schema and password record by itself.
    }
    kdb->kdf = m.kdf;
    kdb->wrapped = m.wrapped;
    kdb->fileId = m.fileId;
    kdb->passwordExpiry = m.expireSeconds > 0 ? m.passwordTime + m.expireSeconds : 0;
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
        rc = takeConnection(final, kdb->db);
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
}

Rc openKeyDb(const char* fileName, std::string_view password, bool checkExpiry,
             std::unique_ptr<KeyDb>& out) {
    if (Rc rc = statKeyDbFile(fileName); rc != ZAVKM_OK) return rc;
    auto kdb = std::make_unique<KeyDb>();
    kdb->fileName = fileName;
    if (Rc rc = takeConnection(kdb->fileName, kdb->db); rc != ZAVKM_OK) return rc;
    Link& link = kdb->db.link();
    if (Rc rc = checkHeader(link.db.get()); rc != ZAVKM_OK) return rc;
    Stash secret;
    if (Rc rc = resolvePassword(kdb->fileName, password, secret); rc != ZAVKM_OK) return rc;
    kdb->password = std::move(secret.password);
    Meta m;
    {
        ReadTransaction tx(link.db.get());
        if (tx.beginCode() != SQLITE_OK)
            return sqlRc(link.db.get(), tx.beginCode(), ZAVKM_ERR_DATABASE_OPEN);
        if (Rc rc = checkVersion(link); rc != ZAVKM_OK) return rc;
        if (Rc rc = checkSchema(link); rc != ZAVKM_OK) return rc;
        if (Rc rc = readMeta(link, m); rc != ZAVKM_OK) return rc;
    }
    kdb->db.markReusable();  // the key database's own schema, whatever the password turns out
    if (Rc rc = unlock(*kdb, m, &secret); rc != ZAVKM_OK) return rc;
    if (Rc rc = acceptMeta(*kdb, m); rc != ZAVKM_OK) return rc;
    if (checkExpiry && m.expireSeconds > 0 && now() >= m.passwordTime + m.expireSeconds)
        return ZAVKM_ERR_PASSWORD_EXPIRATION_TIME;
    out = std::move(kdb);
    return ZAVKM_OK;
}

Rc changeKeyDbPassword(const char* fileName, std::string_view oldPassword,
                       std::string_view newPassword, int32_t expireSeconds) {
    if (newPassword.empty()) return ZAVKM_ERR_PWD_TOO_SHORT;
    if (newPassword == oldPassword) return ZAVKM_ERR_PASSWORD_CHANGE_MATCH;
    std::unique_ptr<KeyDb> kdb;
    if (Rc rc = openKeyDb(fileName, oldPassword, false, kdb); rc != ZAVKM_OK) return rc;
    // The new password's key derivation runs before the write lock is taken, so other
    // writers do not wait for it.
    Meta fresh;
    fresh.fileId = kdb->fileId;
    fresh.kdf.iterations = kdb->kdf.iterations;
    SecretBytes dataKey(kKeySize), master;
    if (Rc rc = randomBytes(dataKey.data(), dataKey.size()); rc != ZAVKM_OK) return rc;
    if (Rc rc = wrapDataKey(dataKey, newPassword, fresh, master); rc != ZAVKM_OK) return rc;
    // Under the write lock the meta row is read again: another writer may have changed the
    // file, or its password (then the old password must still open it).
    View v(*kdb, true);
    if (v.status() != ZAVKM_OK) return v.status();
    if (Rc rc = reseal(*kdb, v, dataKey, fresh, expireSeconds); rc != ZAVKM_OK) return rc;
    cacheMaster(fresh.kdf, newPassword, master);
    trace("key database re-keyed under a new password");
    return ZAVKM_OK;
}

Rc sealPrivateKey(const KeyDb& kdb, const SecretBytes& pkcs8, const Bytes& spki,
                  Bytes& sealed) {
    std::string aad(kPrivateKeyAad);
    aad.append(kdb.fileId.begin(), kdb.fileId.end());
    aad.append(reinterpret_cast<const char*>(spki.data()), spki.size());
    return sealGcm(kdb.dataKey, pkcs8.data(), pkcs8.size(), aad, sealed);
}

Rc openPrivateKey(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki,
                  SecretBytes& pkcs8) {
    std::string aad(kPrivateKeyAad);
    aad.append(kdb.fileId.begin(), kdb.fileId.end());
    aad.append(reinterpret_cast<const char*>(spki.data()), spki.size());
    return openGcm(kdb.dataKey, sealed.data(), sealed.size(), aad, pkcs8);
}

}  // namespace zavkm
