#include "trace/trace.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace zavkjni {
namespace {

// The process-wide trace state. debugMsgEnvExist is set once, at load, before any native runs.
const char* debugMsgEnvExist = nullptr;
// Read without the lock on every message (a relaxed load is a plain load); changed only by the
// KMSystem natives under the lock.
std::atomic<int> fileTraceOn{0};
FILE* traceFile = nullptr;
char* stampedFormat = nullptr;

// Serialises the file channel: every file line frees and replaces the one shared stampedFormat
// before it formats from it, so stamp and write happen under this lock.
pthread_mutex_t fileLock = PTHREAD_MUTEX_INITIALIZER;

class FileLock {
public:
    FileLock() noexcept { pthread_mutex_lock(&fileLock); }
    ~FileLock() { pthread_mutex_unlock(&fileLock); }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
};

constexpr const char* traceFileName = "tvkjdbg.log";

}  // namespace

char* stampTraceFormat(const char* format) noexcept {
    free(stampedFormat);
    stampedFormat = static_cast<char*>(malloc(strlen(format) + 150));
    if (stampedFormat == nullptr) return nullptr;
    char stamp[128];
    time_t now = time(nullptr);
    struct tm local;
    if (localtime_r(&now, &local) == nullptr ||
        strftime(stamp, sizeof stamp, "%Y%m%d|%H:%M:%S", &local) == 0) {
        stamp[0] = '\0';
    }
    strcpy(stampedFormat, stamp);
    strcat(stampedFormat, " || ");
    strcat(stampedFormat, format);
    return stampedFormat;
}

void traceMessage(const char* format, ...) noexcept {
    if (debugMsgEnvExist != nullptr) {
        va_list args;
        va_start(args, format);
        vfprintf(stderr, format, args);
        va_end(args);
    }
    if (fileTraceOn.load(std::memory_order_relaxed) != 0) {
        FileLock lock;
        if (traceFile == nullptr) return;
        // When no stamped copy can be made the line is still written, unstamped.
        const char* stamped = stampTraceFormat(format);
        va_list args;
        va_start(args, format);
        vfprintf(traceFile, stamped != nullptr ? stamped : format, args);
        va_end(args);
    }
}

bool traceOn() noexcept {
    return debugMsgEnvExist != nullptr || fileTraceOn.load(std::memory_order_relaxed) != 0;
}

void traceBytesAsText(const char* format, const unsigned char* bytes, size_t length) noexcept {
    if (!traceOn()) return;
    size_t shown = bytes != nullptr ? strnlen(reinterpret_cast<const char*>(bytes), length) : 0;
    char* text = static_cast<char*>(malloc(shown + 1));
    if (text == nullptr) return;
    if (shown != 0) memcpy(text, bytes, shown);
    text[shown] = '\0';
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    traceMessage(format, bytes != nullptr ? text : "null");
#pragma GCC diagnostic pop
    free(text);
}

void openTraceFile() noexcept {
    FileLock lock;
    // A second opening while the file is open starts the file afresh rather than leaking the
    // first stream.
    if (traceFile != nullptr) {
        fclose(traceFile);
        traceFile = nullptr;
    }
    fileTraceOn.store(1, std::memory_order_relaxed);
    // The file holds passwords: never reached through a link, never a FIFO or device, never
    // another user's file nor one with a second name; created for its owner only, an existing
    // one of ours tightened. Emptied only once it passed these checks.
    int fd = open(traceFileName, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                  S_IRUSR | S_IWUSR);
    struct stat st = {};
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != geteuid() ||
                    st.st_nlink != 1 || fchmod(fd, S_IRUSR | S_IWUSR) != 0 || ftruncate(fd, 0) != 0)) {
        close(fd);
        fd = -1;
    }
    if (fd >= 0) {
        traceFile = fdopen(fd, "w+");
        if (traceFile == nullptr) close(fd);
    }
    // A file that cannot be opened leaves the channel off: nothing is ever written to null.
    if (traceFile == nullptr) fileTraceOn.store(0, std::memory_order_relaxed);
}

void closeTraceFile() noexcept {
    FileLock lock;
    free(stampedFormat);
    stampedFormat = nullptr;
    if (traceFile != nullptr) {
        fclose(traceFile);
        traceFile = nullptr;
    }
    fileTraceOn.store(0, std::memory_order_relaxed);
}

namespace {

// The load and unload hooks, run as the constructor and destructor of one static object.
struct LoadHooks {
    LoadHooks() noexcept {  // staticInit
        debugMsgEnvExist = getenv("TOLVIK_JNI_DEBUG");
        traceMessage("JNI_DEBUG......debugMsgEnvExist=%s\n", orNull(debugMsgEnvExist));
        traceMessage("JNI_DEBUG......staticInit: DLL_PROCESS_ATTACH\n");
    }
    ~LoadHooks() {  // staticFini: the file, if still open, is closed only at process exit
        traceMessage("JNI_DEBUG......staticFini: DLL_PROCESS_DETACH\n");
    }
    LoadHooks(const LoadHooks&) = delete;
    LoadHooks& operator=(const LoadHooks&) = delete;
};

LoadHooks loadHooks;

}  // namespace
}  // namespace zavkjni
