// companions.cpp - the checking VFS around SQLite's default VFS.
#include "store/file/companions.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstring>
#include <mutex>
#include <string>

#include "base/files.h"
#include "base/trace.h"

namespace zavkm {
namespace {

sqlite3_vfs* baseVfs = nullptr;
sqlite3_vfs checkedVfs;

// databaseOf - the database a "-wal" or "-journal" name belongs to (empty for another name).
std::string databaseOf(const char* name, int flags) {
    const char* suffix = (flags & SQLITE_OPEN_WAL) != 0 ? "-wal" : "-journal";
    const size_t n = std::strlen(name), s = std::strlen(suffix);
    if (n <= s || std::strcmp(name + n - s, suffix) != 0) return {};
    return std::string(name, n - s);
}

// checkedOpen - xOpen: the companions of a write-ahead log or journal are made safe first, and
// the log or journal SQLite opened must be the file that was checked.
int checkedOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    const bool companion =
        name != nullptr && (flags & (SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL)) != 0;
    const std::string db = companion ? databaseOf(name, flags) : std::string();
    if (db.empty()) return baseVfs->xOpen(baseVfs, name, file, flags, outFlags);
    struct stat dbStat {};
    const uid_t owner = ::stat(db.c_str(), &dbStat) == 0 ? dbStat.st_uid : ::geteuid();
    dev_t dev = 0, shmDev = 0;
    ino_t ino = 0, shmIno = 0;
    if (prepareCompanion(name, owner, dev, ino) != ZAVKM_OK ||
        ((flags & SQLITE_OPEN_WAL) != 0 &&
         prepareCompanion(db + "-shm", owner, shmDev, shmIno) != ZAVKM_OK)) {
        trace("refused a file planted beside %s", db.c_str());
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN;
    }
    const int rc = baseVfs->xOpen(baseVfs, name, file, flags, outFlags);
    struct stat now {};
    // Another process's last connection may have removed the checked log meanwhile, and SQLite
    // made it anew: the new one must pass the same checks.
    if (rc == SQLITE_OK && dev != 0 &&
        (::lstat(name, &now) != 0 || now.st_dev != dev || now.st_ino != ino) &&
        (prepareCompanion(name, owner, dev, ino) != ZAVKM_OK || ::lstat(name, &now) != 0 ||
         now.st_dev != dev || now.st_ino != ino)) {
        trace("%s changed while SQLite opened it", name);
        if (file->pMethods != nullptr) file->pMethods->xClose(file);
        file->pMethods = nullptr;
        return SQLITE_CANTOPEN;
    }
    return rc;
}

}  // namespace

const char* checkedVfsName() noexcept {
    static std::once_flag once;
    static const char* registered = nullptr;
    std::call_once(once, [] {
        baseVfs = sqlite3_vfs_find(nullptr);
        if (baseVfs == nullptr) return;
        checkedVfs = *baseVfs;
        checkedVfs.zName = "zavkm-checked";
        checkedVfs.pNext = nullptr;
        checkedVfs.xOpen = checkedOpen;
        if (sqlite3_vfs_register(&checkedVfs, 0) == SQLITE_OK) registered = checkedVfs.zName;
    });
    return registered;
}

}  // namespace zavkm
