// keydb.cpp - a key database file edited by someone without its password, then used by its
// owner: opened with the password, listed, every entry read, checked, repaired and written to.
//
// An input is a program of edits applied with SQLite to a sound key database sealed with the
// known password (made once per process): set, cut, flip, copy, delete, duplicate or renumber a
// value or row of any table, plant schema objects, change the format numbers. So the fuzzer works
// past SQLite's parsing and the password, on the schema check, the meta MAC, the index and the
// row MACs. An input starting with 'R' is instead the whole file, byte for byte.
#include <sqlite3.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "store/file/connpool.h"
#include "store/file/kdf.h"
#include "fuzz.h"
#include "zavkm_ext.h"

namespace {

struct Table {
    const char* name;
    std::vector<const char*> columns;
};
const Table kTables[] = {
    {"keys", {"id", "label", "flags", "key_type", "key_bits", "not_before", "not_after", "body_hash",
              "mac", "cert", "spki", "subject", "private_key"}},
    {"requests", {"id", "label", "key_type", "key_bits", "body_hash", "mac", "request", "spki", "private_key"}},
    {"nodes", {"id", "data"}},
    {"meta", {"file_id", "generation", "kdf", "kdf_salt", "kdf_iterations", "wrapped_data_key",
              "password_time", "expire_seconds", "default_key", "next_id", "tag_root", "page_root", "mac"}},
};
const char* const kSchemaEdits[] = {
    "CREATE TRIGGER t AFTER INSERT ON keys BEGIN UPDATE keys SET flags = 1; END",
    "CREATE VIEW v AS SELECT * FROM keys",
    "CREATE INDEX i ON keys(cert)",
    "CREATE TABLE extra(x)",
    "DROP INDEX keys_label",
    "DROP INDEX requests_heads",
    "ANALYZE",
    "PRAGMA user_version = 2",
    "PRAGMA user_version = 4",
    "PRAGMA application_id = 7",
    "VACUUM",
};

// Input - the bytes of an input, read front to back; zeros once they run out.
struct Input {
    const uint8_t* p;
    size_t n;
    uint8_t byte() {
        if (n == 0) return 0;
        --n;
        return *p++;
    }
    int64_t integer() {
        int64_t v = 0;
        for (int i = 0; i < 8; ++i) v = (v << 8) | byte();
        return v;
    }
    std::vector<uint8_t> bytes(size_t most) {
        size_t k = std::min<size_t>(byte() % (most + 1), n);
        std::vector<uint8_t> out(p, p + k);
        p += k;
        n -= k;
        return out;
    }
};

std::vector<uint8_t> pristine;  // the sound database's bytes
std::vector<uint8_t> leaf;      // a certificate its CA issued

// makePristine - a key database with a default CA, signers (one untrusted), a received personal
// key and a request key, sealed with the known password.
void makePristine() {
    const std::string file = fuzz::path("pristine.kdb");
    zavkm::newFileIterations = 1000;
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem name{};
    if (ZAVKM_CreateNewKeyDb(file.c_str(), fuzz::kPassword, 0, &h) != ZAVKM_OK) std::abort();
    name.cn = const_cast<char*>("Fuzz CA");
    if (ZAVKM_CreateSelfSignedCert(h, "ca", 1, 3, 256, &name, 30, fuzz::path("ca.der").c_str(), 0) != ZAVKM_OK)
        std::abort();
    std::ifstream in(fuzz::path("ca.der"), std::ios::binary);
    std::vector<uint8_t> ca((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ZAVKM_StoreCACert(h, ca.data(), static_cast<uint32_t>(ca.size()), "signer");
    ZAVKM_StoreCACert(h, ca.data(), static_cast<uint32_t>(ca.size()), "off");
    ZAVKM_SetTrustStatus(h, "off", 0);
    name.cn = const_cast<char*>("srv");
    ZAVKM_CreateNewCertReq(h, "srv", 256, &name, fuzz::path("srv.csr").c_str(), nullptr, nullptr);
    uint8_t* req = nullptr;
    uint32_t length = 0;
    ZAVKM_Base64DecodeFileToBuf(fuzz::path("srv.csr").c_str(), &req, &length);
    ZAVKM_IssueCert(h, req, length, "ca", 3, "", 30, fuzz::path("srv.der").c_str(), 0, nullptr, nullptr);
    ZAVKM_Free(req);
    std::ifstream issued(fuzz::path("srv.der"), std::ios::binary);
    leaf.assign(std::istreambuf_iterator<char>(issued), std::istreambuf_iterator<char>());
    ZAVKM_ReceiveCert(h, leaf.data(), static_cast<uint32_t>(leaf.size()), 0);
    name.cn = const_cast<char*>("req");
    ZAVKM_CreateNewCertReq(h, "req", 256, &name, nullptr, nullptr, nullptr);
    ZAVKM_CloseKeyDb(h);
    zavkm::closeIdleConnections();
    std::ifstream made(file, std::ios::binary);
    pristine.assign(std::istreambuf_iterator<char>(made), std::istreambuf_iterator<char>());
}

// edit - one edit of the program on db.
void edit(sqlite3* db, Input& in) {
    const uint8_t op = in.byte();
    if (op % 10 == 9) {
        sqlite3_exec(db, kSchemaEdits[in.byte() % std::size(kSchemaEdits)], nullptr, nullptr, nullptr);
        return;
    }
    const Table& t = kTables[in.byte() % std::size(kTables)];
    const std::string column = t.columns[in.byte() % t.columns.size()];
    const std::string row = "(SELECT rowid FROM " + std::string(t.name) + " ORDER BY rowid LIMIT 1 OFFSET " +
                            std::to_string(in.byte() % 8) + ")";
    const std::string other = "(SELECT rowid FROM " + std::string(t.name) + " ORDER BY rowid LIMIT 1 OFFSET " +
                              std::to_string(in.byte() % 8) + ")";
    std::string sql;
    sqlite3_stmt* s = nullptr;
    switch (op % 10) {
        case 0: sql = "UPDATE " + std::string(t.name) + " SET " + column + " = ?1 WHERE rowid = " + row; break;
        case 1: sql = "UPDATE " + std::string(t.name) + " SET " + column + " = ?2 WHERE rowid = " + row; break;
        case 2: sql = "UPDATE " + std::string(t.name) + " SET " + column + " = substr(" + column + ", 1, ?3) || ?1 || substr(" +
                      column + ", ?3 + 1 + length(?1)) WHERE rowid = " + row; break;
        case 3: sql = "UPDATE " + std::string(t.name) + " SET " + column + " = substr(" + column + ", 1, ?3) WHERE rowid = " + row; break;
        case 4: sql = "UPDATE " + std::string(t.name) + " SET " + column + " = (SELECT " + column + " FROM " + t.name +
                      " WHERE rowid = " + other + ") WHERE rowid = " + row; break;
        case 5: sql = "DELETE FROM " + std::string(t.name) + " WHERE rowid = " + row; break;
        case 6: {  // a copy under another id
            std::string columns;
            for (size_t i = 1; i < t.columns.size(); ++i) columns += std::string(i > 1 ? ", " : "") + t.columns[i];
            sql = "INSERT INTO " + std::string(t.name) + "(id, " + columns + ") SELECT abs(?2 % 300), " + columns + " FROM " +
                  t.name + " WHERE rowid = " + row;
            break;
        }
        case 7: sql = "UPDATE " + std::string(t.name) + " SET rowid = ?2 WHERE rowid = " + row; break;
        default: sql = "UPDATE " + std::string(t.name) + " SET " + column + " = " + column + " + ?3 WHERE rowid = " + row; break;
    }
    if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) == SQLITE_OK) {
        const std::vector<uint8_t> value = in.bytes(48);
        sqlite3_bind_blob(s, 1, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
        sqlite3_bind_int64(s, 2, in.integer());
        sqlite3_bind_int(s, 3, in.byte());
        sqlite3_step(s);
    }
    sqlite3_finalize(s);
}

// use - what the owner does with the file.
void use(const std::string& file) {
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDb(file.c_str(), fuzz::kPassword, &h) != ZAVKM_OK) return;
    ZAVKM_Entry* entries = nullptr;
    uint32_t count = 0, damaged = 0;
    if (ZAVKM_ListEntriesX(h, ZAVKM_LIST_DER, &entries, &count, &damaged) == ZAVKM_OK) {
        for (uint32_t i = 0; i < count; ++i) {
            if (entries[i].kind == ZAVKM_ENTRY_REQUEST) {
                ZAVKM_ReqKeyItem* req = nullptr;
                if (ZAVKM_GetReqKeyItemByLabel(h, entries[i].label, &req) == ZAVKM_OK) ZAVKM_FreeReqKeyItem(req);
            } else {
                ZAVKM_KeyItem* key = nullptr;
                if (ZAVKM_GetKeyItemByLabel(h, entries[i].label, &key) == ZAVKM_OK) ZAVKM_FreeKeyItem(key);
            }
        }
        ZAVKM_FreeEntries(entries, count);
    }
    for (const char* label : {"ca", "signer", "srv", "off"}) {
        ZAVKM_KeyItem* key = nullptr;
        if (ZAVKM_GetKeyItemByLabel(h, label, &key) == ZAVKM_OK) ZAVKM_FreeKeyItem(key);
    }
    uint8_t valid = 0;
    ZAVKM_ValidateCertChain(h, leaf.data(), static_cast<uint32_t>(leaf.size()), &valid);
    ZAVKM_KeyItem* key = nullptr;
    if (ZAVKM_GetDefaultKeyItem(h, &key) == ZAVKM_OK) ZAVKM_FreeKeyItem(key);
    ZAVKM_LabelList* labels = nullptr;
    if (ZAVKM_GetKeyDbLabelList(h, &labels) == ZAVKM_OK) ZAVKM_FreeLabelList(labels);
    ZAVKM_Damage* damage = nullptr;
    if (ZAVKM_VerifyKeyDb(h, &damage, &count) == ZAVKM_OK) ZAVKM_FreeDamage(damage, count);
    ZAVKM_KeyDbInfo info{};
    ZAVKM_GetKeyDbInfo(h, &info);
    ZAVKM_SetTrustStatus(h, "signer", 0);
    ZAVKM_RenameEntry(h, "req", "req2");
    if (damaged != 0) {
        uint32_t removed = 0;
        ZAVKM_RepairKeyDb(h, &removed);
        if (ZAVKM_ListEntries(h, &entries, &count) == ZAVKM_OK) ZAVKM_FreeEntries(entries, count);
    }
    ZAVKM_DeleteKey(h, "off");
    ZAVKM_CloseKeyDb(h);
}

// costly - whether the file asks for a long password key derivation: such inputs only measure
// PBKDF2 (a file the library writes asks for 600,000 iterations, the database here 1,000).
bool costly(const std::string& file) {
    sqlite3* db = nullptr;
    sqlite3_stmt* s = nullptr;
    bool slow = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
                sqlite3_prepare_v2(db, "SELECT kdf_iterations FROM meta", -1, &s, nullptr) == SQLITE_OK &&
                sqlite3_step(s) == SQLITE_ROW && sqlite3_column_int64(s, 0) > 20000;
    sqlite3_finalize(s);
    sqlite3_close(db);
    return slow;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (pristine.empty()) makePristine();
    zavkm::closeIdleConnections();  // the file is new each time
    std::string file;
    if (size > 0 && data[0] == 'R') {
        file = fuzz::asFile(data + 1, size - 1, "in.kdb");
    } else {
        file = fuzz::asFile(pristine.data(), pristine.size(), "in.kdb");
        sqlite3* db = nullptr;
        if (sqlite3_open(file.c_str(), &db) == SQLITE_OK) {
            sqlite3_exec(db, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
            Input in{data, size};
            for (int i = 0; i < 8 && in.n > 0; ++i) edit(db, in);
        }
        sqlite3_close(db);
    }
    for (const char* side : {"-wal", "-shm"}) ::unlink((file + side).c_str());
    if (!costly(file)) use(file);
    return 0;
}
