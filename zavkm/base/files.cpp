// files.cpp - reading input files, writing outputs, the files around open key databases.
#include "base/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace zavkm {
namespace {

constexpr int kMaxLinks = 40;  // as the kernel's own limit on links followed in one path
constexpr const char* kCompanions[] = {"-wal", "-shm", "-journal"};

std::string dirOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool sameFile(const struct stat& a, dev_t dev, ino_t ino) {
    return a.st_dev == dev && a.st_ino == ino;
}

// OpenDatabase - a key database file with a connection open in this process.
struct OpenDatabase {
    dev_t dev = 0;
    ino_t ino = 0;
    dev_t dirDev = 0;
    ino_t dirIno = 0;
    std::string name;  // its name in that directory, which its companions extend
    std::string path;  // as it was opened
    int count = 0;
};

std::mutex openMutex;
std::vector<OpenDatabase>& openDatabases() {  // guarded by openMutex; never destroyed
    static auto* all = new std::vector<OpenDatabase>();
    return *all;
}

// isOpenDatabaseOrCompanion - whether the name path (target: what it names now, null when
// nothing) is an open key database, one of its companions (by name in the same directory, or
// the same file under another name), whatever the name it was reached by.
bool isOpenDatabaseOrCompanion(const std::string& path, const struct stat* target) {
    struct stat dir {};
    const bool dirKnown = ::stat(dirOf(path).c_str(), &dir) == 0;
    const std::string name = baseOf(path);
    std::lock_guard lock(openMutex);
    for (const OpenDatabase& db : openDatabases()) {
        if (target != nullptr && sameFile(*target, db.dev, db.ino)) return true;
        const bool sameDir = dirKnown && sameFile(dir, db.dirDev, db.dirIno);
        for (const char* suffix : kCompanions) {
            if (sameDir && name == db.name + suffix) return true;
            struct stat companion {};
            if (target != nullptr && ::lstat((db.path + suffix).c_str(), &companion) == 0 &&
                sameFile(companion, target->st_dev, target->st_ino))
                return true;
        }
    }
    return false;
}

// Target - what an output name leads to once the links the caller may follow are followed.
struct Target {
    std::string path;      // the name to write
    bool exists = false;   // st is valid
    bool viaProc = false;  // a kernel link (/proc/self/fd/N) to a pipe or deleted file
    struct stat st {};
};

// resolveTarget - follows fileName's links while each belongs to the effective user or root.
Rc resolveTarget(const char* fileName, Target& t) {
    std::string path = fileName;
    const uid_t me = ::geteuid();
    for (int hop = 0; hop <= kMaxLinks; ++hop) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) {
            if (errno != ENOENT)
                return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED
                                       : ZAVKM_ERR_FILE_OPEN_TO_WRITE;
            t.path = path;
            return ZAVKM_OK;
        }
        if (!S_ISLNK(st.st_mode)) {
            t.path = path;
            t.exists = true;
            t.st = st;
            return ZAVKM_OK;
        }
        if (st.st_uid != me && st.st_uid != 0) return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
        char link[PATH_MAX];
        const ssize_t n = ::readlink(path.c_str(), link, sizeof link);
        if (n <= 0 || static_cast<size_t>(n) >= sizeof link) return ZAVKM_ERR_FILE_OPEN_TO_WRITE;
        std::string next(link, static_cast<size_t>(n));
        if (next[0] != '/') next = dirOf(path) + "/" + next;
        struct stat via {};
        if (::lstat(next.c_str(), &via) != 0 && errno == ENOENT &&
            ::stat(path.c_str(), &via) == 0) {
            t.path = path;  // "pipe:[123]": only the link itself opens it
            t.exists = t.viaProc = true;
            t.st = via;
            return ZAVKM_OK;
        }
        path = std::move(next);
    }
    return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
}

bool writeAll(int fd, const uint8_t* p, size_t left) {
    while (left > 0) {
        const ssize_t w = ::write(fd, p, left);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        left -= static_cast<size_t>(w);
    }
    return true;
}

// writeThrough - writes to a FIFO or character device as it is: the open does not wait for a
// reader, the writes do.
Rc writeThrough(const std::string& path, const uint8_t* data, size_t n) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ERR_FILE_OPEN_TO_WRITE;
    struct stat st {};
    Rc rc = ::fstat(fd, &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode))
                ? ZAVKM_OK
                : ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    const int fl = ::fcntl(fd, F_GETFL);
    if (rc == ZAVKM_OK && (fl < 0 || ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0))
        rc = ZAVKM_ERR_FILE_WRITE;
    if (rc == ZAVKM_OK && !writeAll(fd, data, n)) rc = ZAVKM_ERR_FILE_WRITE;
    ::close(fd);
    return rc;
}

// createTemporary - fileName.tmp<pid>, new (O_EXCL, never through a link); a leftover of a
// killed writer with this process id is removed first when it is the caller's.
int createTemporary(const std::string& temp, mode_t mode) {
    int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    struct stat st {};
    if (fd < 0 && errno == EEXIST && ::lstat(temp.c_str(), &st) == 0 && st.st_uid == ::geteuid()) {
        ::unlink(temp.c_str());
        fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    }
    return fd;
}

// writeWhole - t.path replaced whole, or created: temporary beside it, synced, renamed (linked
// with kWriteNoReplace, so that a file that appeared meanwhile is kept), directory synced.
Rc writeWhole(const Target& t, const uint8_t* data, size_t n, uint32_t flags) {
    removeStaleTemporaries(t.path);
    const std::string temp = t.path + ".tmp" + std::to_string(::getpid());
    const bool isPrivate = (flags & kWritePrivate) != 0;
    const int fd = createTemporary(temp, isPrivate ? 0600 : 0644);
    if (fd < 0)
        return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ERR_FILE_OPEN_TO_WRITE;
    bool ok = true;
    if (t.exists) {  // the replaced file's owner (only root can give it), group and mode stay
        if (::geteuid() == 0)
            ok = ::fchown(fd, t.st.st_uid, t.st.st_gid) == 0;
        else
            (void)::fchown(fd, static_cast<uid_t>(-1), t.st.st_gid);
        ok = ok && ::fchmod(fd, t.st.st_mode & 07777) == 0;
    } else if (isPrivate) {
        ok = ::fchmod(fd, 0600) == 0;
    }
    ok = ok && writeAll(fd, data, n) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    Rc rc = ok ? ZAVKM_OK : ZAVKM_ERR_FILE_WRITE;
    if (rc == ZAVKM_OK && (flags & kWriteNoReplace) != 0) {
        if (::link(temp.c_str(), t.path.c_str()) != 0)
            rc = errno == EEXIST ? ZAVKM_ERR_DATABASE_ALREADY_EXISTS : ZAVKM_ERR_FILE_WRITE;
        ::unlink(temp.c_str());
    } else if (rc == ZAVKM_OK && ::rename(temp.c_str(), t.path.c_str()) != 0) {
        rc = ZAVKM_ERR_FILE_WRITE;
    }
    if (rc != ZAVKM_OK) {
        ::unlink(temp.c_str());
        return rc;
    }
    return syncDirectoryOf(t.path) ? ZAVKM_OK : ZAVKM_ERR_FILE_WRITE;
}

}  // namespace

Rc readFile(const char* fileName, Bytes& out) {
    if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
    const int fd = ::open(fileName, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return ZAVKM_ERR_FILE_OPEN_NOT_EXIST;
        return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ERR_FILE_OPEN_TO_READ;
    }
    struct stat st {};
    Rc rc = ::fstat(fd, &st) == 0 ? ZAVKM_OK : ZAVKM_ERR_IO;
    const int fl = ::fcntl(fd, F_GETFL);  // a pipe's data is waited for once it is open
    if (rc == ZAVKM_OK && !S_ISREG(st.st_mode) &&
        (fl < 0 || ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK) != 0))
        rc = ZAVKM_ERR_IO;
    Bytes data;
    uint8_t chunk[65536];
    while (rc == ZAVKM_OK) {
        const ssize_t r = ::read(fd, chunk, sizeof chunk);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            rc = errno == EISDIR ? ZAVKM_ERR_FILE_OPEN_TO_READ : ZAVKM_ERR_IO;
            break;
        }
        if (r == 0) break;
        if (data.size() + static_cast<size_t>(r) > kMaxInputFile) {
            rc = ZAVKM_ERR_PARAMETER;
            break;
        }
        data.insert(data.end(), chunk, chunk + r);
    }
    ::close(fd);
    if (rc == ZAVKM_OK) out = std::move(data);
    return rc;
}

void removeStaleTemporaries(const std::string& fileName) noexcept {
    guardedVoid([&] {
        const std::string folder = dirOf(fileName);
        const std::string prefix = baseOf(fileName) + ".tmp";
        const bool bare = fileName.find('/') == std::string::npos;
        DIR* d = ::opendir(folder.c_str());
        if (d == nullptr) return;
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            if (name.compare(0, prefix.size(), prefix) != 0) continue;
            char* end = nullptr;
            const long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
            const std::string rest = end;
            if (pid <= 0 || end == name.c_str() + prefix.size() ||
                !(rest.empty() || rest == "-wal" || rest == "-shm" || rest == "-journal"))
                continue;
            const std::string path = bare ? name : folder + "/" + name;
            struct stat st {};
            if (::lstat(path.c_str(), &st) == 0 && st.st_uid == ::geteuid() &&
                ::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)  // its writer is gone
                ::unlink(path.c_str());
        }
        ::closedir(d);
    });
}

Rc writeOutput(const char* fileName, const uint8_t* data, size_t n, uint32_t flags) {
    if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
    Target t;
    if (Rc rc = resolveTarget(fileName, t); rc != ZAVKM_OK) return rc;
    if (t.exists && (S_ISFIFO(t.st.st_mode) || S_ISCHR(t.st.st_mode)))
        return writeThrough(t.path, data, n);
    if (t.exists && (!S_ISREG(t.st.st_mode) || t.viaProc))
        return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    if (isOpenDatabaseOrCompanion(t.path, t.exists ? &t.st : nullptr))
        return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    if (t.exists && (flags & kWriteNoReplace) != 0) return ZAVKM_ERR_DATABASE_ALREADY_EXISTS;
    if (t.exists && t.st.st_uid != ::geteuid() && ::geteuid() != 0)
        return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    return writeWhole(t, data, n, flags);
}

bool syncDirectoryOf(const std::string& fileName) noexcept {
    const int fd = ::open(dirOf(fileName).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool ok = ::fsync(fd) == 0;
    return (::close(fd) == 0) && ok;
}

Rc publishNewFile(const std::string& temp, const std::string& fileName) noexcept {
    if (::link(temp.c_str(), fileName.c_str()) != 0) {
        const int err = errno;
        ::unlink(temp.c_str());
        return err == EEXIST ? ZAVKM_ERR_DATABASE_ALREADY_EXISTS : ZAVKM_ERR_DATABASE_CREATE;
    }
    ::unlink(temp.c_str());
    return syncDirectoryOf(fileName) ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CREATE;
}

Rc checkPrivateFile(int fd, uid_t alsoOwner, bool tighten, struct stat& st) noexcept {
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink > 1)
        return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    if (st.st_uid != ::geteuid() && st.st_uid != alsoOwner) return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    if ((st.st_mode & 077) == 0) return ZAVKM_OK;
    if (!tighten) return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    const mode_t mode = st.st_mode & 07700;
    char self[32];
    std::snprintf(self, sizeof self, "/proc/self/fd/%d", fd);
    if (::fchmod(fd, mode) != 0 && ::chmod(self, mode) != 0) return ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED;
    st.st_mode = (st.st_mode & ~07777) | mode;
    return ZAVKM_OK;
}

namespace {

// unlinked - the regular file behind fd has lost its last name: another process's connection,
// the last one closing, removed a companion it made.
bool unlinked(int fd) noexcept {
    struct stat st {};
    return ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 0;
}

}  // namespace

Rc prepareCompanion(const std::string& path, uid_t dbOwner, dev_t& dev, ino_t& ino) noexcept {
    dev = 0;
    ino = 0;
    // mknod creates without opening (nor following a link): no descriptor is closed on a file
    // whose locks SQLite holds in this process.
    (void)::mknod(path.c_str(), S_IFREG | 0600, 0);  // whatever is there then is checked
    const int fd = ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return ZAVKM_OK;  // gone again (the last connection closing): SQLite creates it
    struct stat st {};
    const Rc rc = unlinked(fd) ? ZAVKM_OK : checkPrivateFile(fd, dbOwner, true, st);
    ::close(fd);
    if (rc == ZAVKM_OK) {
        dev = st.st_dev;
        ino = st.st_ino;
    }
    return rc;
}

Rc checkCompanions(const std::string& dbPath) {
    struct stat db {};
    if (::stat(dbPath.c_str(), &db) != 0) return ZAVKM_OK;  // the open reports it
    for (const char* suffix : kCompanions) {
        const std::string path = dbPath + suffix;
        const int fd = ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) continue;
        struct stat st {};
        const Rc rc = unlinked(fd) ? ZAVKM_OK : checkPrivateFile(fd, db.st_uid, true, st);
        ::close(fd);
        if (rc != ZAVKM_OK) return rc;
    }
    return ZAVKM_OK;
}

void noteOpenDatabase(const std::string& path, dev_t dev, ino_t ino) noexcept {
    guardedVoid([&] {
        struct stat dir {};
        if (::stat(dirOf(path).c_str(), &dir) != 0) dir = {};
        std::lock_guard lock(openMutex);
        for (OpenDatabase& db : openDatabases())
            if (db.dev == dev && db.ino == ino && db.dirDev == dir.st_dev &&
                db.dirIno == dir.st_ino && db.name == baseOf(path)) {
                ++db.count;
                return;
            }
        openDatabases().push_back({dev, ino, dir.st_dev, dir.st_ino, baseOf(path), path, 1});
    });
}

void forgetOpenDatabase(const std::string& path, dev_t dev, ino_t ino) noexcept {
    guardedVoid([&] {
        const std::string name = baseOf(path);
        std::lock_guard lock(openMutex);
        std::vector<OpenDatabase>& all = openDatabases();
        for (auto it = all.begin(); it != all.end(); ++it)
            if (it->dev == dev && it->ino == ino && it->name == name) {
                if (--it->count == 0) all.erase(it);
                return;
            }
    });
}

}  // namespace zavkm
