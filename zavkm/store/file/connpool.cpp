// connpool.cpp - idle SQLite connections, most recently let go first.
#include "connpool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <list>
#include <mutex>

#include "companions.h"
#include "files.h"

namespace zavkm {
namespace {

constexpr size_t kMaxIdle = 8;

struct Idle {
    SqlitePtr db;
    std::string path;
    struct stat st {};  // the file as it was when the connection was let go
};

struct Pool {
    std::mutex mutex;
    std::list<Idle> idle;  // guarded by mutex
    pid_t pid = ::getpid();

    // A child process must not use, nor close, its parent's connections: they are dropped.
    void forgetAfterFork() {
        if (pid == ::getpid()) return;
        for (Idle& i : idle) (void)i.db.release();
        idle.clear();
        pid = ::getpid();
    }
};

void closeAtExit() { closeIdleConnections(); }

Pool& pool() {
    static Pool* instance = [] {   // never destroyed: usable until the very end
        std::atexit(closeAtExit);  // the journals are folded back when the process ends
        return new Pool();
    }();
    return *instance;
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// closeConnection - closes db, a connection to the file that had identity `was` at path. When
// path now names another file (or none), the connection must not fold its log back nor delete
// the log and index: those names belong to the other file now.
void closeConnection(SqlitePtr& db, const std::string& path, const struct stat& was) {
    if (!db) return;
    struct stat now {};
    if (::stat(path.c_str(), &now) != 0 || !sameFile(now, was))
        sqlite3_db_config(db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    db.reset();
}

// retire - closes every connection of a list taken out of the pool (outside its lock).
void retire(std::list<Idle>& entries) {
    for (Idle& e : entries) closeConnection(e.db, e.path, e.st);
    entries.clear();
}

bool unchanged(const struct stat& a, const struct stat& b) {
    return sameFile(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

Rc openNew(const std::string& path, SqlitePtr& out) {
    int flags = ::access(path.c_str(), W_OK) == 0 ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
    sqlite3* raw = nullptr;
    if (Rc rc = checkCompanions(path); rc != ZAVKM_OK) return rc;
    int code = sqlite3_open_v2(path.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, checkedVfsName());
    SqlitePtr db(raw);
    if (code != SQLITE_OK) return sqlRc(raw, code, ZAVKM_ERR_DATABASE_OPEN);
    sqlite3_extended_result_codes(raw, 1);
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    code = exec(raw, "PRAGMA synchronous=FULL; PRAGMA trusted_schema=OFF;");
    if (code != SQLITE_OK) return sqlRc(raw, code, ZAVKM_ERR_DATABASE_OPEN);
    out = std::move(db);
    return ZAVKM_OK;
}

}  // namespace

Connection::Connection(Connection&& other) noexcept
    : db_(std::move(other.db_)),
      changesAtTake_(other.changesAtTake_),
      path_(std::move(other.path_)),
      dev_(other.dev_),
      ino_(other.ino_),
      reusable_(other.reusable_) {
    other.reusable_ = false;
}

Connection& Connection::operator=(Connection&& other) noexcept {
    if (this != &other) {
        giveBack();
        db_ = std::move(other.db_);
        changesAtTake_ = other.changesAtTake_;
        path_ = std::move(other.path_);
        dev_ = other.dev_;
        ino_ = other.ino_;
        reusable_ = other.reusable_;
        other.reusable_ = false;
    }
    return *this;
}

Connection::~Connection() { giveBack(); }

void Connection::giveBack() noexcept {
    if (!db_) return;
    forgetOpenDatabase(path_, dev_, ino_);
    SqlitePtr db = std::move(db_);
    struct stat was {};
    was.st_dev = dev_;
    was.st_ino = ino_;
    try {
        if (!reusable_ || sqlite3_get_autocommit(db.get()) == 0 ||
            sqlite3_next_stmt(db.get(), nullptr) != nullptr) {
            closeConnection(db, path_, was);
            return;
        }
        if (sqlite3_total_changes64(db.get()) != changesAtTake_)
            exec(db.get(), "PRAGMA wal_checkpoint(PASSIVE)");  // busy or not, the log is safe
        Idle entry;
        if (::stat(path_.c_str(), &entry.st) != 0 || !sameFile(entry.st, was)) {
            closeConnection(db, path_, was);  // the file went away or was replaced
            return;
        }
        entry.db = std::move(db);
        entry.path = path_;
        std::list<Idle> evicted;
        {
            Pool& p = pool();
            std::lock_guard lock(p.mutex);
            p.forgetAfterFork();
            p.idle.push_front(std::move(entry));
            while (p.idle.size() > kMaxIdle)
                evicted.splice(evicted.begin(), p.idle, std::prev(p.idle.end()));
        }
        retire(evicted);
    } catch (...) {
        closeConnection(db, path_, was);
    }
}

Rc takeConnection(const std::string& path, Connection& out) {
    struct stat now {};
    if (::stat(path.c_str(), &now) != 0)
        return errno == ENOENT || errno == ENOTDIR ? ZAVKM_ERR_KEYDB_NOT_EXIST
                                                   : ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    Connection c;
    std::list<Idle> stale;  // closed after the lock
    {
        Pool& p = pool();
        std::lock_guard lock(p.mutex);
        p.forgetAfterFork();
        for (auto it = p.idle.begin(); it != p.idle.end();) {
            if (it->path != path || !sameFile(it->st, now)) {
                ++it;
                continue;
            }
            auto next = std::next(it);
            if (unchanged(it->st, now) && !c) {
                c.db_ = std::move(it->db);
                p.idle.erase(it);
            } else {
                stale.splice(stale.begin(), p.idle, it);
            }
            it = next;
        }
    }
    retire(stale);
    if (!c)
        if (Rc rc = openNew(path, c.db_); rc != ZAVKM_OK) return rc;
    c.changesAtTake_ = sqlite3_total_changes64(c.db_.get());
    c.path_ = path;
    c.dev_ = now.st_dev;
    c.ino_ = now.st_ino;
    noteOpenDatabase(path, now.st_dev, now.st_ino);
    out = std::move(c);
    return ZAVKM_OK;
}

void closeIdleConnections() noexcept {
    std::list<Idle> closing;
    {
        Pool& p = pool();
        std::lock_guard lock(p.mutex);
        p.forgetAfterFork();
        closing.swap(p.idle);
    }
    retire(closing);
}

size_t idleConnectionCount() noexcept {
    Pool& p = pool();
    std::lock_guard lock(p.mutex);
    p.forgetAfterFork();
    return p.idle.size();
}

}  // namespace zavkm
