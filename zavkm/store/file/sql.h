// sql.h - SQLite handles held by deleter-typed unique_ptr, a statement wrapper, transactions,
// and the mapping of SQLite result codes to return codes.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <string_view>

#include "common.h"

namespace zavkm {

inline void closeSqlite(sqlite3* db) noexcept { sqlite3_close_v2(db); }
using SqlitePtr = Owned<sqlite3, closeSqlite>;
using StmtPtr = Owned<sqlite3_stmt, sqlite3_finalize>;

// sqlRc - the return code for a failed SQLite call: corruption gives
// ZAVKM_ERR_DATABASE_CORRUPTION, a file that is not a database
// ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE, a full disk or I/O failure ZAVKM_ERR_DATABASE_WRITE or
// ZAVKM_ERR_DATABASE_READ, memory ZAVKM_ERR_MEMORY_ALLOCATE, anything else fallback. Traces the
// SQLite message.
Rc sqlRc(sqlite3* db, int code, Rc fallback) noexcept;

// Stmt - one prepared statement; bind by 1-based index, step, read columns.
class Stmt {
  public:
    Stmt(sqlite3* db, std::string_view sql);
    Stmt& bind(int i, int64_t v);
    Stmt& bind(int i, std::string_view text);
    Stmt& bind(int i, const uint8_t* p, size_t n);
    Stmt& bind(int i, const Bytes& b) { return bind(i, b.data(), b.size()); }
    Stmt& bindNull(int i);
    // step - SQLITE_ROW, SQLITE_DONE or an error code.
    int step() noexcept;
    int64_t integer(int col) const noexcept;
    std::string text(int col) const;
    Bytes blob(int col) const;
    bool isNull(int col) const noexcept;
    sqlite3_stmt* get() const noexcept { return stmt_.get(); }

  private:
    StmtPtr stmt_;
    int prepareCode_ = SQLITE_OK;
};

// exec - runs one or more statements without results.
int exec(sqlite3* db, const char* sql) noexcept;

// WriteTransaction - BEGIN IMMEDIATE (waiting under the busy timeout for other writers);
// rolled back on destruction unless commit() succeeded.
class WriteTransaction {
  public:
    explicit WriteTransaction(sqlite3* db) noexcept;
    ~WriteTransaction();
    int beginCode() const noexcept { return begin_; }
    int commit() noexcept;

  private:
    sqlite3* db_;
    int begin_;
    bool done_ = false;
};

// ReadTransaction - BEGIN (deferred) for a consistent view over several statements.
class ReadTransaction {
  public:
    explicit ReadTransaction(sqlite3* db) noexcept;
    ~ReadTransaction();
    int beginCode() const noexcept { return begin_; }

  private:
    sqlite3* db_;
    int begin_;
};

}  // namespace zavkm
