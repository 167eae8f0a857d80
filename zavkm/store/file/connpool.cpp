// connpool.cpp - idle SQLite connections, most recently let go first.
#include "store/file/connpool.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <list>
#include <mutex>

#include "store/file/companions.h"
#include "base/files.h"

namespace zavkm {
namespace {

constexpr size_t kMaxIdle = 8;

struct Idle {
    std::unique_ptr<Link> link;
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
        for (Idle& i : idle) {
            for (auto& kept : i.link->statements) (void)kept.second.release();
            (void)i.link->db.release();
        }
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

// closeConnection - closes link, a connection to the file that had identity `was` at path. When
// path now names another file (or none), the connection must not fold its log back nor delete
// the log and index: those names belong to the other file now.
void closeConnection(std::unique_ptr<Link>& link, const std::string& path, const struct stat& was) {
    if (!link) return;
    struct stat now {};
    if (::stat(path.c_str(), &now) != 0 || !sameFile(now, was))
        sqlite3_db_config(link->db.get(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    link.reset();
}

// retire - closes every connection of a list taken out of the pool (outside its lock).
void retire(std::list<Idle>& entries) {
    for (Idle& e : entries) closeConnection(e.link, e.path, e.st);
    entries.clear();
}

bool unchanged(const struct stat& a, const struct stat& b) {
    return sameFile(a, b) && a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// harden - the settings for a file that may come from someone else (see connpool.h).
int harden(sqlite3* db) {
    for (auto [option, value] : {std::pair{SQLITE_DBCONFIG_DEFENSIVE, 1},
                                 std::pair{SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
                                 std::pair{SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},
                                 std::pair{SQLITE_DBCONFIG_ENABLE_VIEW, 0},
                                 std::pair{SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0},
                                 std::pair{SQLITE_DBCONFIG_DQS_DDL, 0},
                                 std::pair{SQLITE_DBCONFIG_DQS_DML, 0}})
        if (int code = sqlite3_db_config(db, option, value, nullptr); code != SQLITE_OK) return code;
    for (auto [limit, value] : {std::pair{SQLITE_LIMIT_LENGTH, kMaxValueBytes},
                                std::pair{SQLITE_LIMIT_SQL_LENGTH, 100000},
                                std::pair{SQLITE_LIMIT_COLUMN, 100},
                                std::pair{SQLITE_LIMIT_EXPR_DEPTH, 20},
                                std::pair{SQLITE_LIMIT_COMPOUND_SELECT, 3},
                                std::pair{SQLITE_LIMIT_VDBE_OP, 25000},
                                std::pair{SQLITE_LIMIT_FUNCTION_ARG, 8},
                                std::pair{SQLITE_LIMIT_ATTACHED, 0},
                                std::pair{SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 50},
                                std::pair{SQLITE_LIMIT_VARIABLE_NUMBER, 32},
                                std::pair{SQLITE_LIMIT_TRIGGER_DEPTH, 1}})
        sqlite3_limit(db, limit, value);
    return exec(db, "PRAGMA trusted_schema=OFF; PRAGMA cell_size_check=ON; PRAGMA mmap_size=0; "
                    "PRAGMA synchronous=FULL;");
}

Rc openNew(const std::string& path, std::unique_ptr<Link>& out) {
    int flags = ::access(path.c_str(), W_OK) == 0 ? SQLITE_OPEN_READWRITE : SQLITE_OPEN_READONLY;
    auto link = std::make_unique<Link>();
    sqlite3* raw = nullptr;
    if (Rc rc = checkCompanions(path); rc != ZAVKM_OK) return rc;
    int code = sqlite3_open_v2(path.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, checkedVfsName());
    link->db.reset(raw);
    if (code != SQLITE_OK) return sqlRc(raw, code, ZAVKM_ERR_DATABASE_OPEN);
    sqlite3_extended_result_codes(raw, 1);
    sqlite3_busy_timeout(raw, kBusyTimeoutMs);
    if ((code = harden(raw)) != SQLITE_OK) return sqlRc(raw, code, ZAVKM_ERR_DATABASE_OPEN);
    out = std::move(link);
    return ZAVKM_OK;
}

}  // namespace

Connection::Connection(Connection&& other) noexcept
    : link_(std::move(other.link_)),
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
        link_ = std::move(other.link_);
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
    if (!link_) return;
    forgetOpenDatabase(path_, dev_, ino_);
    std::unique_ptr<Link> link = std::move(link_);
    sqlite3* db = link->db.get();
    struct stat was {};
    was.st_dev = dev_;
    was.st_ino = ino_;
    try {
        if (!reusable_ || sqlite3_get_autocommit(db) == 0 || !link->idle()) {
            closeConnection(link, path_, was);
            return;
        }
        if (sqlite3_total_changes64(db) != changesAtTake_)
            exec(db, "PRAGMA wal_checkpoint(PASSIVE)");  // busy or not, the log is safe
        Idle entry;
        if (::stat(path_.c_str(), &entry.st) != 0 || !sameFile(entry.st, was)) {
            closeConnection(link, path_, was);  // the file went away or was replaced
            return;
        }
        entry.link = std::move(link);
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
        closeConnection(link, path_, was);
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
                c.link_ = std::move(it->link);
                p.idle.erase(it);
            } else {
                stale.splice(stale.begin(), p.idle, it);
            }
            it = next;
        }
    }
    retire(stale);
    if (!c)
        if (Rc rc = openNew(path, c.link_); rc != ZAVKM_OK) return rc;
    c.changesAtTake_ = sqlite3_total_changes64(c.get());
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
