// stash.cpp - the stash file of a key database.
#include "stash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "files.h"
#include "trace.h"

namespace zavkm {
namespace {

constexpr char kMagic[8] = {'Z', 'A', 'V', 'K', 'M', 'S', 'T', 'H'};
constexpr uint8_t kVersion = 1;
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

Rc writeStash(const std::string& keyDbFileName, const std::string& password) noexcept {
    return guarded([&]() -> Rc {
        if (password.empty() || password.size() > kMaxPassword) return ZAVKM_ERR_PARAMETER;
        SecretBytes block(kHeader + password.size());
        std::memcpy(block.data(), kMagic, sizeof kMagic);
        block.data()[8] = kVersion;
        block.data()[10] = static_cast<uint8_t>(password.size() >> 8);
        block.data()[11] = static_cast<uint8_t>(password.size() & 0xff);
        for (size_t i = 0; i < password.size(); ++i)
            block.data()[kHeader + i] = static_cast<uint8_t>(password[i]) ^ kMask;

        std::string target = stashFileName(keyDbFileName);
        if (Rc rc = writeFile(target.c_str(), block.data(), block.size(), 0600); rc != ZAVKM_OK)
            return rc;
        trace("stash written: %s", target.c_str());
        return ZAVKM_OK;
    });
}

Rc readStash(const std::string& keyDbFileName, SecretBytes& password) noexcept {
    return guarded([&]() -> Rc {
        std::string name = stashFileName(keyDbFileName);
        int fd = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            return errno == ENOENT ? ZAVKM_ERR_PWDFILE_NOT_EXIST : ZAVKM_ERR_FILE_OPEN_TO_READ;
        SecretBytes block(kHeader + kMaxPassword + 1);
        size_t got = 0;
        for (;;) {
            ssize_t r = ::read(fd, block.data() + got, block.size() - got);
            if (r < 0 && errno == EINTR) continue;
            if (r <= 0) break;
            got += static_cast<size_t>(r);
            if (got == block.size()) break;
        }
        ::close(fd);
        if (got < kHeader || std::memcmp(block.data(), kMagic, sizeof kMagic) != 0 ||
            block.data()[8] != kVersion)
            return ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION;
        size_t n = (size_t{block.data()[10]} << 8) | block.data()[11];
        if (n == 0 || n > kMaxPassword || got != kHeader + n)
            return ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION;
        SecretBytes out(n);
        for (size_t i = 0; i < n; ++i) out.data()[i] = block.data()[kHeader + i] ^ kMask;
        password = std::move(out);
        return ZAVKM_OK;
    });
}

}  // namespace zavkm
