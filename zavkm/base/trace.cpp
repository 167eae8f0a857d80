// trace.cpp - the library's own trace file.
#include "base/trace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

#include "base/files.h"

namespace zavkm {
namespace {
std::mutex traceMutex;
std::FILE* traceFile = nullptr;  // guarded by traceMutex
std::atomic<bool> tracing{false};
char traceTag[64] = "";  // guarded by traceMutex

// openTraceFile - fileName for appending: never through a link, never waiting on a FIFO, and only
// a regular file of the user's own with one name (made readable by its owner alone); a new one
// is created with mode 0600. Null with rc set otherwise.
std::FILE* openTraceFile(const char* fileName, Rc& rc) {
    const int fd = ::open(fileName, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK |
                                        O_NOCTTY | O_CLOEXEC, 0600);
    if (fd < 0) {
        rc = errno == ELOOP || errno == EACCES || errno == ENXIO ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED
                                               : ZAVKM_ERR_FILE_OPEN_TO_WRITE;
        return nullptr;
    }
    struct stat st {};
    rc = checkPrivateFile(fd, ::geteuid(), true, st);
    std::FILE* file = rc == ZAVKM_OK ? ::fdopen(fd, "a") : nullptr;
    if (file == nullptr) {
        if (rc == ZAVKM_OK) rc = ZAVKM_ERR_FILE_OPEN_TO_WRITE;
        ::close(fd);
    }
    return file;
}

}  // namespace

Rc startTrace(const char* tag, const char* fileName, int32_t /*level*/) noexcept {
    if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
    std::lock_guard lock(traceMutex);
    if (traceFile != nullptr) std::fclose(traceFile);
    Rc rc = ZAVKM_OK;
    traceFile = openTraceFile(fileName, rc);
    tracing.store(traceFile != nullptr);
    if (traceFile == nullptr) return rc;
    std::snprintf(traceTag, sizeof traceTag, "%s", tag != nullptr ? tag : "");
    return ZAVKM_OK;
}

void stopTrace() noexcept {
    std::lock_guard lock(traceMutex);
    if (traceFile != nullptr) std::fclose(traceFile);
    traceFile = nullptr;
    tracing.store(false);
}

bool traceOn() noexcept { return tracing.load(std::memory_order_relaxed); }

void trace(const char* fmt, ...) noexcept {
    if (!traceOn()) return;
    char line[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d|%H:%M:%S", &local);
    std::lock_guard lock(traceMutex);
    if (traceFile == nullptr) return;
    std::fprintf(traceFile, "%s %s || %s\n", stamp, traceTag, line);
    std::fflush(traceFile);
}

Rc traceResult(const char* operation, Rc rc) noexcept {
    trace("%s -> %d", operation, rc);
    return rc;
}

}  // namespace zavkm
