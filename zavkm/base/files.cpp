// files.cpp - whole-file reads and atomic writes.
#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace zavkm {

Rc readFile(const char* fileName, Bytes& out) noexcept {
    return guarded([&]() -> Rc {
        if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
        int fd = ::open(fileName, O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOENT || errno == ENOTDIR) return ZAVKM_ERR_FILE_OPEN_NOT_EXIST;
            return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ERR_FILE_OPEN_TO_READ;
        }
        Bytes data;
        uint8_t chunk[65536];
        Rc rc = ZAVKM_OK;
        for (;;) {
            ssize_t r = ::read(fd, chunk, sizeof chunk);
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
    });
}

void removeStaleTemporaries(const std::string& fileName) noexcept {
    const size_t slash = fileName.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : fileName.substr(0, slash + 1);
    const std::string prefix = (slash == std::string::npos ? fileName : fileName.substr(slash + 1)) + ".tmp";
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
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH)  // its writer is gone
            ::unlink((slash == std::string::npos ? name : folder + name).c_str());
    }
    ::closedir(d);
}

Rc writeFile(const char* fileName, const uint8_t* data, size_t n, unsigned mode) noexcept {
    return guarded([&]() -> Rc {
        if (isEmpty(fileName)) return ZAVKM_ERR_FILENAME_NULL;
        removeStaleTemporaries(fileName);
        std::string temp = std::string(fileName) + ".tmp" + std::to_string(::getpid());
        int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                        static_cast<mode_t>(mode));
        if (fd < 0) {
            ::unlink(temp.c_str());  // a leftover of a killed writer of this process id
            fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW,
                        static_cast<mode_t>(mode));
        }
        if (fd < 0)
            return errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ERR_FILE_OPEN_TO_WRITE;
        bool ok = (mode & 077) != 0 || ::fchmod(fd, static_cast<mode_t>(mode)) == 0;
        const uint8_t* p = data;
        size_t left = n;
        while (ok && left > 0) {
            ssize_t w = ::write(fd, p, left);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) {
                ok = false;
                break;
            }
            p += w;
            left -= static_cast<size_t>(w);
        }
        ok = ok && ::fsync(fd) == 0;
        ok = (::close(fd) == 0) && ok;
        if (!ok || ::rename(temp.c_str(), fileName) != 0) {
            ::unlink(temp.c_str());
            return ZAVKM_ERR_FILE_WRITE;
        }
        return syncDirectoryOf(fileName) ? ZAVKM_OK : ZAVKM_ERR_FILE_WRITE;
    });
}

bool syncDirectoryOf(const std::string& fileName) noexcept {
    size_t slash = fileName.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : fileName.substr(0, slash);
    int fd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = ::fsync(fd) == 0;
    return (::close(fd) == 0) && ok;
}

Rc publishNewFile(const std::string& temp, const std::string& fileName) noexcept {
    if (::link(temp.c_str(), fileName.c_str()) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        return err == EEXIST ? ZAVKM_ERR_DATABASE_ALREADY_EXISTS : ZAVKM_ERR_DATABASE_CREATE;
    }
    ::unlink(temp.c_str());
    return syncDirectoryOf(fileName) ? ZAVKM_OK : ZAVKM_ERR_DATABASE_CREATE;
}

}  // namespace zavkm
