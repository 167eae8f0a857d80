// sql.h - SQLite handles held by deleter-typed unique_ptr, a statement wrapper, transactions,
// and the mapping of SQLite result codes to return codes.
#pragma once

#include <sqlite3.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/common.h"

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

// LabelMemo - a table's labels as the last listing on a connection found them, every row sound,
// with the file's data version they hold for (SQLite's count of changes to the file by this or
// any other connection) in that listing's transaction.
struct LabelMemo {
    unsigned dataVersion = 0;
    std::vector<std::string> labels;
};

// Link - one SQLite connection with the statements prepared on it, the schema cookie at which
// its schema was last found to be exactly the key database's, and the last sound label list of
// each table. The statements are finalized before the connection closes.
struct Link {
    SqlitePtr db;
    std::vector<std::pair<const char*, StmtPtr>> statements;  // by the address of their text
    int64_t checkedCookie = -1;  // -1: the schema was never checked on this connection
    std::optional<LabelMemo> labelMemos[2];  // keys, requests
    ~Link();
    // prepared - the statement for sql (a text that lives as long as the program, such as a
    // literal), prepared once and kept; null when it does not prepare (the code in *code).
    sqlite3_stmt* prepared(const char* sql, int* code);
    // idle - no statement of the connection is running.
    bool idle() const noexcept;
};

// Stmt - one prepared statement; bind by 1-based index, step, read columns. Made on a Link from a
// lasting text it borrows the kept statement and resets it when done; made from any text it owns
// a statement of its own.
class Stmt {
  public:
    Stmt(sqlite3* db, std::string_view sql);
    Stmt(Link& link, const char* sql);
    Stmt(const Stmt&) = delete;
    Stmt& operator=(const Stmt&) = delete;
    ~Stmt();
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
    // view - the bytes of a text or blob column, valid until the next step.
    std::string_view view(int col) const noexcept;
    bool isNull(int col) const noexcept;
    sqlite3_stmt* get() const noexcept { return stmt_; }

  private:
    StmtPtr owned_;
    sqlite3_stmt* stmt_ = nullptr;
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
    WriteTransaction(const WriteTransaction&) = delete;
    WriteTransaction& operator=(const WriteTransaction&) = delete;
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
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;
    int beginCode() const noexcept { return begin_; }

  private:
    sqlite3* db_;
    int begin_;
};

}  // namespace zavkm
