// stash.cpp - the stash file of a key database.
#include "store/file/stash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/files.h"
#include "base/trace.h"

namespace zavkm {
namespace {

constexpr char kMagic[8] = {'Z', 'A', 'V', 'K', 'M', 'S', 'T', 'H'};
constexpr uint8_t kVersion = 2;
constexpr size_t kKdfPart = kKdfSaltSize + 4 + kKeySize;  // salt, iterations, master
constexpr uint8_t kMask = 0xA5;
constexpr size_t kHeader = 12;
constexpr size_t kMaxPassword = 1024;

}  // namespace

std::string stashFileName(const std::string& keyDbFileName) {
    size_t slash = keyDbFileName.find_last_of('/');
    size_t dot = keyDbFileName.find_last_of('.');
    bool hasExtension = dot != std::string::npos && (slash == std::string::npos || dot > slash + 1);
    return (hasExtension ? keyDbFileName.substr(0, dot) : keyDbFileName) + ".sth";
}

Rc writeStash(const std::string& keyDbFileName, const Stash& stash) {
    const size_t n = stash.password.size();
    if (n == 0 || n > kMaxPassword || stash.kdf.salt.size() != kKdfSaltSize ||
        stash.master.size() != kKeySize)
        return ZAVKM_ERR_PARAMETER;
    SecretBytes block(kHeader + n + kKdfPart);
    uint8_t* b = block.data();
    std::memcpy(b, kMagic, sizeof kMagic);
    b[8] = kVersion;
    b[10] = static_cast<uint8_t>(n >> 8);
    b[11] = static_cast<uint8_t>(n & 0xff);
    uint8_t* at = b + kHeader;
    at = std::copy(stash.password.data(), stash.password.data() + n, at);
    at = std::copy(stash.kdf.salt.begin(), stash.kdf.salt.end(), at);
    for (int shift = 24; shift >= 0; shift -= 8)
        *at++ = static_cast<uint8_t>(stash.kdf.iterations >> shift);
    std::copy(stash.master.data(), stash.master.data() + kKeySize, at);
    for (size_t i = kHeader; i < block.size(); ++i) b[i] ^= kMask;

    std::string target = stashFileName(keyDbFileName);
    if (Rc rc = writeFile(target.c_str(), block.data(), block.size(), 0600); rc != ZAVKM_OK)
        return rc;
    trace("stash written: %s", target.c_str());
    return ZAVKM_OK;
}

Rc readStash(const std::string& keyDbFileName, Stash& stash) {
    std::string name = stashFileName(keyDbFileName);
    // Never through a link, never waiting on a FIFO; only a private regular file of ours.
    int fd = ::open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return errno == ENOENT ? ZAVKM_ERR_PWDFILE_NOT_EXIST
               : errno == ELOOP || errno == EACCES ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED
                                                   : ZAVKM_ERR_FILE_OPEN_TO_READ;
    struct stat st {};
    SecretBytes block(kHeader + kMaxPassword + kKdfPart + 1);
    Rc rc = checkPrivateFile(fd, ::geteuid(), false, st);
    if (rc == ZAVKM_OK && static_cast<size_t>(st.st_size) >= block.size())
        rc = ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION;
    size_t got = 0;
    while (rc == ZAVKM_OK) {
        ssize_t r = ::read(fd, block.data() + got, block.size() - got);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        got += static_cast<size_t>(r);
        if (got == block.size()) break;
    }
    ::close(fd);
    if (rc != ZAVKM_OK) return rc;
    uint8_t* b = block.data();
    if (got < kHeader || std::memcmp(b, kMagic, sizeof kMagic) != 0 ||
        (b[8] != 1 && b[8] != kVersion))
        return ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION;
    const size_t n = (size_t{b[10]} << 8) | b[11];
    const size_t extra = b[8] == kVersion ? kKdfPart : 0;
    if (n == 0 || n > kMaxPassword || got != kHeader + n + extra)
        return ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION;
    for (size_t i = kHeader; i < got; ++i) b[i] ^= kMask;
    const uint8_t* at = b + kHeader;
    Stash out;
    out.password = SecretBytes(at, n);
    if (extra != 0) {
        at += n;
        out.kdf.salt.assign(at, at + kKdfSaltSize);
        at += kKdfSaltSize;
        for (int k = 0; k < 4; ++k) out.kdf.iterations = (out.kdf.iterations << 8) | *at++;
        out.master = SecretBytes(at, kKeySize);
    }
    stash = std::move(out);
    return ZAVKM_OK;
}

}  // namespace zavkm
