// sql.cpp - SQLite helpers.
#include "sql.h"

#include "trace.h"

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

Stmt::Stmt(sqlite3* db, std::string_view sql) {
    sqlite3_stmt* s = nullptr;
    prepareCode_ = sqlite3_prepare_v2(db, sql.data(), static_cast<int>(sql.size()), &s, nullptr);
    stmt_.reset(s);
    if (prepareCode_ == SQLITE_NOMEM) throw std::bad_alloc();
}

Stmt& Stmt::bind(int i, int64_t v) {
    sqlite3_bind_int64(stmt_.get(), i, v);
    return *this;
}

Stmt& Stmt::bind(int i, std::string_view text) {
    sqlite3_bind_text(stmt_.get(), i, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    return *this;
}

Stmt& Stmt::bind(int i, const uint8_t* p, size_t n) {
    static const uint8_t empty = 0;
    sqlite3_bind_blob(stmt_.get(), i, p != nullptr ? p : &empty, static_cast<int>(n),
                      SQLITE_TRANSIENT);
    return *this;
}

Stmt& Stmt::bindNull(int i) {
    sqlite3_bind_null(stmt_.get(), i);
    return *this;
}

int Stmt::step() noexcept { return stmt_ ? sqlite3_step(stmt_.get()) : prepareCode_; }

int64_t Stmt::integer(int col) const noexcept { return sqlite3_column_int64(stmt_.get(), col); }

std::string Stmt::text(int col) const {
    const unsigned char* p = sqlite3_column_text(stmt_.get(), col);
    int n = sqlite3_column_bytes(stmt_.get(), col);
    return p != nullptr ? std::string(reinterpret_cast<const char*>(p), static_cast<size_t>(n))
                        : std::string();
}

Bytes Stmt::blob(int col) const {
    const auto* p = static_cast<const uint8_t*>(sqlite3_column_blob(stmt_.get(), col));
    int n = sqlite3_column_bytes(stmt_.get(), col);
    return p != nullptr ? Bytes(p, p + n) : Bytes();
}

bool Stmt::isNull(int col) const noexcept {
    return sqlite3_column_type(stmt_.get(), col) == SQLITE_NULL;
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
