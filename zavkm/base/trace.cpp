// trace.cpp - the library's own trace file.
#include "trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace zavkm {
namespace {
std::mutex traceMutex;
std::FILE* traceFile = nullptr;  // guarded by traceMutex
std::atomic<bool> tracing{false};
char traceTag[64] = "";  // guarded by traceMutex
}  // namespace

Rc startTrace(const char* tag, const char* fileName, int32_t /*level*/) noexcept {
    if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
    std::lock_guard lock(traceMutex);
    if (traceFile != nullptr) std::fclose(traceFile);
    traceFile = std::fopen(fileName, "a");
    tracing.store(traceFile != nullptr);
    if (traceFile == nullptr) return ZAVKM_ERR_FILE_OPEN_TO_WRITE;
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
