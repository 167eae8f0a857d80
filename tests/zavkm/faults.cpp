// faults.cpp - the fault injectors of faults.h. The allocator hooks go in before anything
// allocates (a constructor of the test binary, which links the library's objects and so shares
// its libcrypto and libsqlite3); the system calls are replaced by definitions in the binary.
#include "faults.h"

#include <dirent.h>
#include <dlfcn.h>
#include <openssl/crypto.h>
#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>

namespace zavkm_test {
namespace {

std::atomic<bool> armed{false};
std::atomic<long> seen[kFaultKinds];
std::atomic<long> failAt[kFaultKinds];
bool crashing = false;
thread_local bool insideVfs = false;  // SQLite's own system calls are counted at the VFS

bool fire(Fault kind) {
    if (!armed.load()) return false;
    long n = ++seen[kind];
    if (n == failAt[kind].load() && crashing) ::_exit(kCrashed);
    return n == failAt[kind].load();
}

// ---- allocators -------------------------------------------------------------------------------
void* osslMalloc(size_t n, const char*, int) { return fire(kAlloc) ? nullptr : std::malloc(n); }
void* osslRealloc(void* p, size_t n, const char*, int) {
    return fire(kAlloc) ? nullptr : std::realloc(p, n);
}
void osslFree(void* p, const char*, int) { std::free(p); }

sqlite3_mem_methods sqliteHeap;
void* sqlMalloc(int n) { return fire(kAlloc) ? nullptr : sqliteHeap.xMalloc(n); }
void* sqlRealloc(void* p, int n) { return fire(kAlloc) ? nullptr : sqliteHeap.xRealloc(p, n); }

// ---- a VFS that forwards to the default one and fails the n-th write, sync or truncate -------
sqlite3_vfs* baseVfs;
sqlite3_vfs faultVfs;
sqlite3_io_methods faultIo;

struct FaultFile {
    sqlite3_file base;
    sqlite3_file* real;  // the default VFS's file, allocated right after this record
};
sqlite3_file* real(sqlite3_file* f) { return reinterpret_cast<FaultFile*>(f)->real; }

struct InVfs {
    InVfs() { insideVfs = true; }
    ~InVfs() { insideVfs = false; }
};

template <auto Method>
struct Forward;
template <typename R, typename... A, R (*sqlite3_io_methods::*Method)(sqlite3_file*, A...)>
struct Forward<Method> {
    static R call(sqlite3_file* f, A... a) {
        InVfs guard;
        return (real(f)->pMethods->*Method)(real(f), a...);
    }
};

int faultWrite(sqlite3_file* f, const void* p, int n, sqlite3_int64 at) {
    if (fire(kWrite)) return seen[kWrite] % 2 ? SQLITE_FULL : SQLITE_IOERR_WRITE;
    return Forward<&sqlite3_io_methods::xWrite>::call(f, p, n, at);
}
int faultSync(sqlite3_file* f, int flags) {
    return fire(kWrite) ? SQLITE_IOERR_FSYNC : Forward<&sqlite3_io_methods::xSync>::call(f, flags);
}
int faultTruncate(sqlite3_file* f, sqlite3_int64 n) {
    return fire(kWrite) ? SQLITE_IOERR_TRUNCATE : Forward<&sqlite3_io_methods::xTruncate>::call(f, n);
}

int faultOpen(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* f, int flags, int* outFlags) {
    auto* ff = reinterpret_cast<FaultFile*>(f);
    ff->real = reinterpret_cast<sqlite3_file*>(ff + 1);
    ff->real->pMethods = nullptr;
    InVfs guard;
    int rc = baseVfs->xOpen(baseVfs, name, ff->real, flags, outFlags);
    ff->base.pMethods = ff->real->pMethods != nullptr ? &faultIo : nullptr;
    return rc;
}
int faultDelete(sqlite3_vfs*, const char* name, int syncDir) {
    InVfs guard;
    return baseVfs->xDelete(baseVfs, name, syncDir);
}

void registerFaultVfs() {
    baseVfs = sqlite3_vfs_find(nullptr);
    faultVfs = *baseVfs;
    faultVfs.zName = "fault";
    faultVfs.pNext = nullptr;
    faultVfs.szOsFile = static_cast<int>(sizeof(FaultFile)) + baseVfs->szOsFile;
    faultVfs.xOpen = faultOpen;
    faultVfs.xDelete = faultDelete;
    using M = sqlite3_io_methods;
    faultIo = M{3, Forward<&M::xClose>::call, Forward<&M::xRead>::call, faultWrite, faultTruncate,
                faultSync, Forward<&M::xFileSize>::call, Forward<&M::xLock>::call,
                Forward<&M::xUnlock>::call, Forward<&M::xCheckReservedLock>::call,
                Forward<&M::xFileControl>::call, Forward<&M::xSectorSize>::call,
                Forward<&M::xDeviceCharacteristics>::call, Forward<&M::xShmMap>::call,
                Forward<&M::xShmLock>::call, Forward<&M::xShmBarrier>::call,
                Forward<&M::xShmUnmap>::call, Forward<&M::xFetch>::call, Forward<&M::xUnfetch>::call};
    if (sqlite3_vfs_register(&faultVfs, 1) != SQLITE_OK) std::abort();
}

[[gnu::constructor]] void installFaults() {
    if (CRYPTO_set_mem_functions(osslMalloc, osslRealloc, osslFree) != 1) std::abort();
    sqlite3_config(SQLITE_CONFIG_GETMALLOC, &sqliteHeap);
    static sqlite3_mem_methods counted = sqliteHeap;
    counted.xMalloc = sqlMalloc;
    counted.xRealloc = sqlRealloc;
    if (sqlite3_config(SQLITE_CONFIG_MALLOC, &counted) != SQLITE_OK) std::abort();
    registerFaultVfs();
}

template <typename F>
F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void armFault(Fault kind, long n, bool crash) {
    crashing = crash;
    for (auto& s : seen) s = 0;
    for (auto& f : failAt) f = 0;
    failAt[kind] = n;
    armed = true;
}

long disarmFault(Fault kind) {
    armed = false;
    return seen[kind].load();
}

int openDescriptors() {
    int n = 0;
    DIR* d = ::opendir("/proc/self/fd");
    while (::readdir(d) != nullptr) ++n;
    ::closedir(d);
    return n;
}

}  // namespace zavkm_test

using namespace zavkm_test;

// ---- the library's own file writes --------------------------------------------------------------
extern "C" ssize_t write(int fd, const void* p, size_t n) {
    static auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
    if (fd > 2 && !insideVfs && fire(kWrite)) {  // half of it lands, then the disk is full
        if (n > 1) real(fd, p, n / 2);
        errno = ENOSPC;
        return -1;
    }
    return real(fd, p, n);
}
int ioError() {
    errno = EIO;
    return -1;
}
extern "C" int fsync(int fd) {
    static auto real = next<int (*)(int)>("fsync");
    return !insideVfs && fire(kWrite) ? ioError() : real(fd);
}
extern "C" int rename(const char* from, const char* to) noexcept {
    static auto real = next<int (*)(const char*, const char*)>("rename");
    return fire(kWrite) ? ioError() : real(from, to);
}
extern "C" int link(const char* from, const char* to) noexcept {
    static auto real = next<int (*)(const char*, const char*)>("link");
    return fire(kWrite) ? ioError() : real(from, to);
}
