// io.cpp - the files tolvik reads and writes: inputs read whole without blocking on a FIFO,
// outputs written through the library's one writer (or to standard output for "-"), and a
// private scratch directory for the library operations that take file names.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tolvik.h"

namespace tolvik {

namespace {

constexpr size_t kInputLimit = 16u << 20;  // the library refuses larger files too

// The scratch directory and the files in it, kept where a signal handler can remove them: the
// names the library may write there (the file and its temporary `<name>.tmp<pid>`).
struct ScratchNames {
    char dir[PATH_MAX];
    char files[8][PATH_MAX];
    int count;
};
ScratchNames scratchNames{};

void remember(const std::string& path) {
    if (scratchNames.count + 2 > 8) return;
    std::snprintf(scratchNames.files[scratchNames.count++], PATH_MAX, "%s", path.c_str());
    std::snprintf(scratchNames.files[scratchNames.count++], PATH_MAX, "%s.tmp%ld", path.c_str(),
                  static_cast<long>(getpid()));
}

}  // namespace

// removeScratch - removes the scratch directory and what the library may have left in it.
// Async-signal-safe: only unlink and rmdir on names kept beforehand.
void removeScratch() noexcept {
    if (scratchNames.dir[0] == '\0') return;
    for (int i = 0; i < scratchNames.count; ++i) unlink(scratchNames.files[i]);
    rmdir(scratchNames.dir);
}

Scratch::Scratch() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/tolvik.XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw Failure{"make a private directory in " + pattern.substr(0, pattern.rfind('/')),
                      ZAVKM_ERR_FILE_WRITE, std::strerror(errno)};
    dir_ = pattern;
    scratchNames = ScratchNames{};
    std::snprintf(scratchNames.dir, PATH_MAX, "%s", dir_.c_str());
}

Scratch::~Scratch() {
    removeScratch();
    scratchNames = ScratchNames{};
}

std::string Scratch::file(const std::string& name) const {
    std::string path = dir_ + "/" + name;
    remember(path);
    return path;
}

std::string Scratch::put(const std::string& name, const Bytes& data) const {
    std::string path = file(name);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    bool ok = fd >= 0;
    for (size_t done = 0; ok && done < data.size();) {
        ssize_t n = write(fd, data.data() + done, data.size() - done);
        ok = n > 0;
        done += ok ? static_cast<size_t>(n) : 0;
    }
    const int error = errno;
    if (fd >= 0) close(fd);
    if (!ok) throw Failure{"write " + path, ZAVKM_ERR_FILE_WRITE, std::strerror(error)};
    return path;
}

Bytes readInput(const std::string& path) {
    const bool standardInput = path == "-";
    const std::string name = standardInput ? "standard input" : path;
    // O_NONBLOCK: opening a FIFO without a writer returns at once.
    int fd = standardInput ? STDIN_FILENO
                           : open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) throw Failure{"read " + name, ZAVKM_ERR_FILE_OPEN_TO_READ, std::strerror(errno)};
    struct Closer {
        int fd;
        bool own;
        ~Closer() {
            if (own) close(fd);
        }
    } closer{fd, !standardInput};
    struct stat st {};
    if (fstat(fd, &st) != 0 || S_ISDIR(st.st_mode) || S_ISBLK(st.st_mode) || S_ISSOCK(st.st_mode))
        throw Failure{"read " + name, ZAVKM_ERR_FILE_OPEN_TO_READ,
                      "not a file, FIFO or character device"};
    if (!standardInput) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    Bytes data;
    uint8_t chunk[65536];
    for (;;) {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) throw Failure{"read " + name, ZAVKM_ERR_IO, std::strerror(errno)};
        if (n == 0) break;
        if (data.size() + static_cast<size_t>(n) > kInputLimit)
            throw Failure{"read " + name, ZAVKM_ERR_PARAMETER, "the file is larger than 16 MiB"};
        data.insert(data.end(), chunk, chunk + n);
    }
    if (data.empty()) throw Failure{"read " + name, ZAVKM_ERR_PARAMETER, "the file is empty"};
    return data;
}

namespace {

// existingFile - whether `path` names (through links) a regular file that exists: one that an
// output replaces, where a FIFO or a device is written through.
bool existingFile(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

Failure exists(const std::string& path) {
    return Failure{"write " + path, ZAVKM_ERR_DATABASE_ALREADY_EXISTS,
                   "the file exists; --force replaces it"};
}

}  // namespace

namespace {

// toStdout - `-`, or a name of this process's standard output: written straight to it, whatever
// it is (a regular file the shell opened is not replaced beside it).
bool toStdout(const std::string& path) {
    return path == "-" || path == "/dev/stdout" || path == "/dev/fd/1" || path == "/proc/self/fd/1";
}

}  // namespace

void checkOutput(const Context& ctx, const std::string& path) {
    if (!ctx.force && !path.empty() && !toStdout(path) && existingFile(path)) throw exists(path);
}

void writeOutput(const Context& ctx, const std::string& path, const uint8_t* data, size_t length,
                 bool secret) {
    if (toStdout(path)) {
        writeOut(std::string_view(reinterpret_cast<const char*>(data), length));
        ctx.dataOnStdout = true;
        return;
    }
    if (length > UINT32_MAX) throw Failure{"write " + path, ZAVKM_ERR_PARAMETER, "too large"};
    struct stat st {};
    const bool through = stat(path.c_str(), &st) == 0 && (S_ISFIFO(st.st_mode) || S_ISCHR(st.st_mode));
    uint32_t flags = secret ? ZAVKM_WRITE_PRIVATE : 0;
    if (!ctx.force && !through) flags |= ZAVKM_WRITE_NO_REPLACE;
    const ZAVKM_ReturnCode rc =
        ZAVKM_WriteFile(path.c_str(), data, static_cast<uint32_t>(length), flags);
    if (rc == ZAVKM_ERR_DATABASE_ALREADY_EXISTS && (flags & ZAVKM_WRITE_NO_REPLACE) != 0)
        throw exists(path);
    check(rc, "write " + path);
}

}  // namespace tolvik
