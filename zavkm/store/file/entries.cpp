// entries.cpp - reading and writing key database rows.
#include "entries.h"

#include <cstring>

#include "rowmac.h"
#include "utf.h"
#include "x509records.h"

namespace zavkm {
namespace {

// The columns of a row, then whether its MAC holds (column kKeySound / kRequestSound).
std::string keyColumns() {
    return "SELECT id, label, cert, spki, subject, key_type, key_bits, private_key, is_default, "
           "trusted, " + keyRowMac() + " IS mac FROM keys ";
}
constexpr int kKeySound = 10;
std::string requestColumns() {
    return "SELECT id, label, request, spki, key_type, key_bits, private_key, " + requestRowMac() +
           " IS mac FROM requests ";
}
constexpr int kRequestSound = 7;

KeyRow keyRow(const Stmt& s) {
    KeyRow r;
    r.id = s.integer(0);
    r.label = s.text(1);
    r.cert = s.blob(2);
    r.spki = s.blob(3);
    r.subject = s.blob(4);
    r.keyType = static_cast<int32_t>(s.integer(5));
    r.keyBits = static_cast<int32_t>(s.integer(6));
    if (!s.isNull(7)) r.privateKey = s.blob(7);
    r.isDefault = s.integer(8) != 0;
    r.trusted = s.integer(9) != 0;
    return r;
}

RequestRow requestRow(const Stmt& s) {
    RequestRow r;
    r.id = s.integer(0);
    r.label = s.text(1);
    r.request = s.blob(2);
    r.spki = s.blob(3);
    r.keyType = static_cast<int32_t>(s.integer(4));
    r.keyBits = static_cast<int32_t>(s.integer(5));
    r.privateKey = s.blob(6);
    return r;
}

// collect - steps s to its end, appending make(s) for each row; a row whose MAC fails (column
// sound is 0) is left out, so it never serves as an issuer or trust anchor.
template <class T, class Make>
Rc collect(sqlite3* db, Stmt& s, std::vector<T>& out, Make make, int sound = -1) {
    for (;;) {
        int code = s.step();
        if (code == SQLITE_DONE) return ZAVKM_OK;
        if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
        if (sound < 0 || s.integer(sound) != 0) out.push_back(make(s));
    }
}

// one - the first row of s; ZAVKM_ERR_DATABASE_KEY_INTEGRITY when its MAC fails.
template <class T, class Make>
Rc one(sqlite3* db, Stmt& s, std::optional<T>& out, Make make, int sound) {
    out.reset();
    int code = s.step();
    if (code == SQLITE_DONE) return ZAVKM_OK;
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
    if (s.integer(sound) == 0) return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    out = make(s);
    return ZAVKM_OK;
}

Rc change(sqlite3* db, Stmt& s, bool mustHit) {
    int code = s.step();
    if ((code & 0xff) == SQLITE_CONSTRAINT) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    if (code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    if (mustHit && sqlite3_changes(db) == 0) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    return ZAVKM_OK;
}

Rc clearDefault(sqlite3* db) {
    Stmt s(db, "UPDATE keys SET is_default = 0 WHERE is_default <> 0 AND " + keyRowMac() + " IS mac");
    return change(db, s, false);
}

// changeSound - runs a change of one row that only touches rows whose MAC holds (a change would
// seal a row anew); ZAVKM_ERR_DATABASE_KEY_INTEGRITY when the row is there but fails its MAC.
Rc changeSound(sqlite3* db, Stmt& s, const char* table, const char* where, int64_t id,
               const std::string& label) {
    Rc rc = change(db, s, true);
    if (rc != ZAVKM_ERR_KEY_GET_BY_LABEL) return rc;
    Stmt there(db, std::string("SELECT count(*) FROM ") + table + " WHERE " + where);
    if (id != 0)
        there.bind(1, id);
    else
        there.bind(1, label);
    int code = there.step();
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
    return there.integer(0) > 0 ? ZAVKM_ERR_DATABASE_KEY_INTEGRITY : rc;
}

}  // namespace

Rc checkLabel(const char* label) noexcept { return checkLabelText(label); }

Rc checkRequestLabelFree(sqlite3* db, const std::string& label) {
    Stmt s(db,
           "SELECT (SELECT count(*) FROM keys WHERE label = ?1) + "
           "(SELECT count(*) FROM requests WHERE label = ?1)");
    s.bind(1, label);
    int code = s.step();
    if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
    return s.integer(0) == 0 ? ZAVKM_OK : ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
}

Rc findKey(sqlite3* db, const std::string& label, std::optional<KeyRow>& out) {
    Stmt s(db, keyColumns() + "WHERE label = ?1");
    s.bind(1, label);
    return one(db, s, out, keyRow, kKeySound);
}

Rc findDefaultKey(sqlite3* db, std::optional<KeyRow>& out) {
    Stmt s(db, keyColumns() + "WHERE is_default <> 0 ORDER BY id LIMIT 1");
    return one(db, s, out, keyRow, kKeySound);
}

Rc findKeysBySpki(sqlite3* db, const Bytes& spki, std::vector<KeyRow>& out) {
    Stmt s(db, keyColumns() + "WHERE spki = ?1 ORDER BY id");
    s.bind(1, spki);
    return collect(db, s, out, keyRow, kKeySound);
}

Rc findKeysBySubject(sqlite3* db, const Bytes& subject, std::vector<KeyRow>& out) {
    Stmt s(db, keyColumns() + "WHERE subject = ?1 ORDER BY id");
    s.bind(1, subject);
    return collect(db, s, out, keyRow, kKeySound);
}

Rc allKeys(sqlite3* db, std::vector<KeyRow>& out) {
    Stmt s(db, keyColumns() + "ORDER BY id");
    return collect(db, s, out, keyRow, kKeySound);
}

Rc listEntries(sqlite3* db, std::vector<EntryRow>& out) {
    Stmt keys(db, "SELECT label, private_key IS NULL, key_type, key_bits, is_default, trusted, cert "
                  "FROM keys WHERE " + keyRowMac() + " IS mac ORDER BY id");
    Rc rc = collect(db, keys, out, [](const Stmt& s) {
        const auto* cert = static_cast<const uint8_t*>(sqlite3_column_blob(s.get(), 6));
        const auto length = static_cast<size_t>(sqlite3_column_bytes(s.get(), 6));
        return EntryRow{s.text(0), s.integer(1) != 0 ? 2 : 1, static_cast<int32_t>(s.integer(2)),
                        static_cast<int32_t>(s.integer(3)), s.integer(4) != 0, s.integer(5) != 0,
                        notAfterOf(cert, length)};
    });
    if (rc != ZAVKM_OK) return rc;
    Stmt requests(db, "SELECT label, key_type, key_bits FROM requests WHERE " + requestRowMac() +
                          " IS mac ORDER BY id");
    return collect(db, requests, out, [](const Stmt& s) {
        return EntryRow{s.text(0), 3, static_cast<int32_t>(s.integer(1)),
                        static_cast<int32_t>(s.integer(2)), false, false, {}};
    });
}

Rc findRequest(sqlite3* db, const std::string& label, std::optional<RequestRow>& out) {
    Stmt s(db, requestColumns() + "WHERE label = ?1");
    s.bind(1, label);
    return one(db, s, out, requestRow, kRequestSound);
}

Rc findRequestsBySpki(sqlite3* db, const Bytes& spki, std::vector<RequestRow>& out) {
    Stmt s(db, requestColumns() + "WHERE spki = ?1 ORDER BY id");
    s.bind(1, spki);
    return collect(db, s, out, requestRow, kRequestSound);
}

Rc keyLabels(sqlite3* db, std::vector<std::string>& out) {
    Stmt s(db, "SELECT label FROM keys WHERE " + keyRowMac() + " IS mac ORDER BY id");
    return collect(db, s, out, [](const Stmt& st) { return st.text(0); });
}

Rc requestLabels(sqlite3* db, std::vector<std::string>& out) {
    Stmt s(db, "SELECT label FROM requests WHERE " + requestRowMac() + " IS mac ORDER BY id");
    return collect(db, s, out, [](const Stmt& st) { return st.text(0); });
}

Rc insertKey(sqlite3* db, const KeyRow& row) {
    if (row.isDefault)
        if (Rc rc = clearDefault(db); rc != ZAVKM_OK) return rc;
    Stmt s(db,
           "INSERT INTO keys(label, cert, spki, subject, key_type, key_bits, private_key, "
           "is_default, trusted) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
    s.bind(1, row.label).bind(2, row.cert).bind(3, row.spki).bind(4, row.subject);
    s.bind(5, int64_t{row.keyType}).bind(6, int64_t{row.keyBits});
    if (row.privateKey.empty())
        s.bindNull(7);
    else
        s.bind(7, row.privateKey);
    s.bind(8, int64_t{row.isDefault ? 1 : 0}).bind(9, int64_t{row.trusted ? 1 : 0});
    return change(db, s, false);
}

Rc insertRequest(sqlite3* db, const RequestRow& row) {
    Stmt s(db,
           "INSERT INTO requests(label, request, spki, key_type, key_bits, private_key) "
           "VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
    s.bind(1, row.label).bind(2, row.request).bind(3, row.spki);
    s.bind(4, int64_t{row.keyType}).bind(5, int64_t{row.keyBits}).bind(6, row.privateKey);
    return change(db, s, false);
}

Rc deleteKey(sqlite3* db, const std::string& label) {
    Stmt s(db, "DELETE FROM keys WHERE label = ?1");
    s.bind(1, label);
    return change(db, s, true);
}

Rc deleteRequest(sqlite3* db, const std::string& label) {
    Stmt s(db, "DELETE FROM requests WHERE label = ?1");
    s.bind(1, label);
    return change(db, s, true);
}

Rc setDefaultKey(sqlite3* db, const std::string& label) {
    if (Rc rc = clearDefault(db); rc != ZAVKM_OK) return rc;
    Stmt s(db, "UPDATE keys SET is_default = 1 WHERE label = ?1 AND " + keyRowMac() + " IS mac");
    s.bind(1, label);
    return changeSound(db, s, "keys", "label = ?1", 0, label);
}

Rc setTrusted(sqlite3* db, const std::string& label, bool trusted) {
    Stmt s(db, "UPDATE keys SET trusted = ?2 WHERE label = ?1 AND " + keyRowMac() + " IS mac");
    s.bind(1, label).bind(2, int64_t{trusted ? 1 : 0});
    return changeSound(db, s, "keys", "label = ?1", 0, label);
}

Rc replaceCertificate(sqlite3* db, int64_t id, const Bytes& cert, const Bytes& subject) {
    Stmt s(db, "UPDATE keys SET cert = ?2, subject = ?3 WHERE id = ?1 AND " + keyRowMac() + " IS mac");
    s.bind(1, id).bind(2, cert).bind(3, subject);
    return changeSound(db, s, "keys", "id = ?1", id, {});
}

Rc updateRequest(sqlite3* db, int64_t id, const Bytes& request) {
    Stmt s(db, "UPDATE requests SET request = ?2 WHERE id = ?1 AND " + requestRowMac() + " IS mac");
    s.bind(1, id).bind(2, request);
    return changeSound(db, s, "requests", "id = ?1", id, {});
}

}  // namespace zavkm
