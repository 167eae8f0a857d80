// sql.cpp - SQLite helpers.
#include "store/file/sql.h"

#include "base/trace.h"

namespace zavkm {

Rc sqlRc(sqlite3* db, int code, Rc fallback) noexcept {
    Rc rc = fallback;
    switch (code & 0xff) {
        case SQLITE_CORRUPT:
            rc = ZAVKM_ERR_DATABASE_CORRUPTION;
            break;
        case SQLITE_NOTADB:
            rc = ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE;
            break;
        case SQLITE_NOMEM:
            rc = ZAVKM_ERR_MEMORY_ALLOCATE;
            break;
        case SQLITE_FULL:
            rc = ZAVKM_ERR_DATABASE_WRITE;
            break;
        case SQLITE_READONLY:
            rc = ZAVKM_ERR_DATABASE_WRITE;
            break;
        case SQLITE_IOERR:
            rc = (code == SQLITE_IOERR_READ || code == SQLITE_IOERR_SHORT_READ)
                     ? ZAVKM_ERR_DATABASE_READ
                     : ZAVKM_ERR_DATABASE_WRITE;
            break;
        case SQLITE_CANTOPEN:
            rc = ZAVKM_ERR_DATABASE_OPEN;
            break;
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            rc = ZAVKM_ERR_DATABASE;
            break;
        default:
            break;
    }
    trace("sqlite: %d (%s) -> %d", code, db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(code),
          rc);
    return rc;
}

Link::~Link() {
    statements.clear();  // finalized before the connection closes
}

sqlite3_stmt* Link::prepared(const char* sql, int* code) {
    for (auto& [text, stmt] : statements)
        if (text == sql) return stmt.get();
    sqlite3_stmt* s = nullptr;
    *code = sqlite3_prepare_v3(db.get(), sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr);
    if (*code != SQLITE_OK) {
        sqlite3_finalize(s);
        return nullptr;
    }
    StmtPtr kept(s);
    statements.emplace_back(sql, std::move(kept));
    return s;
}

bool Link::idle() const noexcept {
    for (sqlite3_stmt* s = sqlite3_next_stmt(db.get(), nullptr); s != nullptr;
         s = sqlite3_next_stmt(db.get(), s))
        if (sqlite3_stmt_busy(s) != 0) return false;
    return true;
}

Stmt::Stmt(sqlite3* db, std::string_view sql) {
    sqlite3_stmt* s = nullptr;
    prepareCode_ = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &s, nullptr);
    owned_.reset(s);
    stmt_ = s;
    if (prepareCode_ == SQLITE_NOMEM) throw std::bad_alloc();
}

Stmt::Stmt(Link& link, const char* sql) {
    stmt_ = link.prepared(sql, &prepareCode_);
    if (prepareCode_ == SQLITE_NOMEM) throw std::bad_alloc();
}

Stmt::~Stmt() {
    if (stmt_ != nullptr && !owned_) {
        sqlite3_reset(stmt_);
        sqlite3_clear_bindings(stmt_);
    }
}

Stmt& Stmt::bind(int i, int64_t v) {
    sqlite3_bind_int64(stmt_, i, v);
    return *this;
}

Stmt& Stmt::bind(int i, std::string_view text) {
    sqlite3_bind_text(stmt_, i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
}

Stmt& Stmt::bind(int i, const uint8_t* p, size_t n) {
    static const uint8_t empty = 0;
    sqlite3_bind_blob(stmt_, i, p != nullptr ? p : &empty, static_cast<int>(n),
                      SQLITE_TRANSIENT);
    return *this;
}

Stmt& Stmt::bindNull(int i) {
    sqlite3_bind_null(stmt_, i);
    return *this;
}

int Stmt::step() noexcept { return stmt_ != nullptr ? sqlite3_step(stmt_) : prepareCode_; }

int64_t Stmt::integer(int col) const noexcept { return sqlite3_column_int64(stmt_, col); }

std::string_view Stmt::view(int col) const noexcept {
    const void* p = sqlite3_column_blob(stmt_, col);
    int n = sqlite3_column_bytes(stmt_, col);
    return p != nullptr ? std::string_view(static_cast<const char*>(p), static_cast<size_t>(n))
                        : std::string_view();
}

std::string Stmt::text(int col) const {
    const unsigned char* p = sqlite3_column_text(stmt_, col);
    int n = sqlite3_column_bytes(stmt_, col);
    return p != nullptr ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(n))
                        : std::string();
}

Bytes Stmt::blob(int col) const {
    const auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(stmt_, col));
    int n = sqlite3_column_bytes(stmt_, col);
    return p != nullptr ? Bytes(p, p + n) : Bytes();
}

bool Stmt::isNull(int col) const noexcept {
    return sqlite3_column_type(stmt_, col) == SQLITE_NULL;
}

int exec(sqlite3* db, const char* sql) noexcept {
    return sqlite3_exec(db, sql, nullptr, nullptr, nullptr);
}

WriteTransaction::WriteTransaction(sqlite3* db) noexcept
    : db_(db), begin_(exec(db, "BEGIN IMMEDIATE")) {}

WriteTransaction::~WriteTransaction() {
    if (begin_ == SQLITE_OK && !done_) exec(db_, "ROLLBACK");
}

int WriteTransaction::commit() noexcept {
    int rc = exec(db_, "COMMIT");
    if (rc == SQLITE_OK) done_ = true;
    return rc;
}

ReadTransaction::ReadTransaction(sqlite3* db) noexcept : db_(db), begin_(exec(db, "BEGIN")) {}

ReadTransaction::~ReadTransaction() {
    if (begin_ == SQLITE_OK) exec(db_, "COMMIT");
}

}  // namespace zavkm
