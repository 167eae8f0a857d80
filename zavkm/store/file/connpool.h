// connpool.h - SQLite connections to key database files, kept open between uses.
//
// Opening a SQLite connection costs more than everything else an open does once the password
// key is cached: the schema is parsed, the write-ahead log found and its index mapped, and the
// last connection to close folds the log back into the file. So a connection that a key
// database handle let go stays open, idle, for the next open of the same file in this process.
// An idle connection is used again only while the file is the same file (device and inode)
// and has not been changed behind SQLite's back (size and modification time as when it was let
// go); otherwise it is closed. ZAVKM_CleanAll and the end of the process close them all.
//
// Every connection is opened for a file that may have been written by someone else: SQLite's
// defensive mode is on, the schema is not trusted (no function or virtual table runs from it),
// triggers, views and extension loading are off, memory-mapped reads are off, cell sizes are
// checked as pages are read, and the lengths SQLite accepts are bounded.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "store/file/sql.h"

namespace zavkm {

inline constexpr int kBusyTimeoutMs = 60000;  // how long a writer waits for another
inline constexpr int kMaxValueBytes = 64 << 20;  // the longest text or blob SQLite reads or writes

// Connection - one connection to a key database file. Moved, never copied. On destruction it
// goes back to the pool when it was marked reusable, is outside any transaction and the file is
// still the same; otherwise it closes. When this use changed the file, the log is first copied
// into it (a passive checkpoint), so the file alone holds every change once a handle closes.
class Connection {
  public:
    Connection() = default;
    Connection(Connection&& other) noexcept;
    Connection& operator=(Connection&& other) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    sqlite3* get() const noexcept { return link_ ? link_->db.get() : nullptr; }
    explicit operator bool() const noexcept { return static_cast<bool>(link_); }
    // link - the connection with its kept statements; only on a connection that is there.
    Link& link() const noexcept { return *link_; }

    // markReusable - the connection proved the file a sound key database; it may be pooled.
    void markReusable() noexcept { reusable_ = true; }

    // forbidReuse - the file is about to be removed: close rather than pool.
    void forbidReuse() noexcept { reusable_ = false; }

  private:
    friend Rc takeConnection(const std::string& path, Connection& out);
    std::unique_ptr<Link> link_;
    sqlite3_int64 changesAtTake_ = 0;  // to tell whether this use wrote to the file
    std::string path_;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    bool reusable_ = false;
    void giveBack() noexcept;
};

// takeConnection - an idle connection to path from the pool, or a new configured one
// (extended result codes, busy timeout, synchronous=FULL). ZAVKM_ERR_KEYDB_NOT_EXIST when the
// file is gone, or the code of the failed open.
Rc takeConnection(const std::string& path, Connection& out);

// closeIdleConnections - closes every pooled connection (ZAVKM_CleanAll, before a file is
// removed).
void closeIdleConnections() noexcept;

// idleConnectionCount - how many connections wait in the pool (for tests).
size_t idleConnectionCount() noexcept;

}  // namespace zavkm
