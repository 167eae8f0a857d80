// files.h - reading input files whole and writing output files atomically.
#pragma once

#include <string>

#include "common.h"
#include "sizes.h"

namespace zavkm {

// readFile - the whole file into out: ZAVKM_ERR_FILE_OPEN_NOT_EXIST when it does not exist,
// ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED without permission, ZAVKM_ERR_FILE_OPEN_TO_READ otherwise,
// ZAVKM_ERR_IO on a read error, ZAVKM_ERR_PARAMETER for a file over kMaxInputFile.
Rc readFile(const char* fileName, Bytes& out) noexcept;

// removeStaleTemporaries - removes what a writer killed while making fileName left beside it
// (fileName.tmp<pid> and its SQLite companions) when that process is gone.
void removeStaleTemporaries(const std::string& fileName) noexcept;

// writeFile - writes data to fileName through a temporary file in the same directory and a
// rename, so a reader sees the old file or the whole new one. mode is applied to the new file
// (0600 for files holding private keys). Returns ZAVKM_ERR_FILE_OPEN_TO_WRITE or
// ZAVKM_ERR_FILE_WRITE on failure, leaving no temporary file behind.
Rc writeFile(const char* fileName, const uint8_t* data, size_t n, unsigned mode) noexcept;
inline Rc writeFile(const char* fileName, const Bytes& data, unsigned mode) noexcept {
    return writeFile(fileName, data.data(), data.size(), mode);
}

// syncDirectoryOf - fsyncs the directory that holds fileName, so a rename or link into it
// survives a crash.
bool syncDirectoryOf(const std::string& fileName) noexcept;

// publishNewFile - gives the complete file temp (fsynced) the name fileName unless that name is
// taken (ZAVKM_ERR_DATABASE_ALREADY_EXISTS), and syncs the directory. temp is gone afterwards.
Rc publishNewFile(const std::string& temp, const std::string& fileName) noexcept;

}  // namespace zavkm
