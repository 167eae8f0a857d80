// files.h - reading input files, the one writer of every output file, the files around an open
// key database (its companions, temporaries, the stash) and the set of key databases this
// process has open.
//
// Every directory may be shared with other users: an output never goes through a symbolic link
// another user planted, never replaces anything but a regular file of the caller's, and never
// lands on an open key database or one of its companions; private files are checked on the open
// descriptor before a byte of them is trusted.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

#include "base/common.h"
#include "base/sizes.h"

namespace zavkm {

// readFile - the whole file into out: ZAVKM_ERR_FILE_OPEN_NOT_EXIST when it does not exist,
// ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED without permission, ZAVKM_ERR_FILE_OPEN_TO_READ otherwise,
// ZAVKM_ERR_IO on a read error, ZAVKM_ERR_PARAMETER for a file over kMaxInputFile. The open never
// waits: a FIFO without a writer reads as empty.
Rc readFile(const char* fileName, Bytes& out);

// removeStaleTemporaries - removes what a writer killed while making fileName left beside it
// (fileName.tmp<pid> and its SQLite companions) when that process is gone and the file is the
// caller's.
void removeStaleTemporaries(const std::string& fileName) noexcept;

// Flags of writeOutput, the values of ZAVKM_WRITE_PRIVATE and ZAVKM_WRITE_NO_REPLACE.
inline constexpr uint32_t kWritePrivate = 1;    // a new file gets mode 0600 (else 0644)
inline constexpr uint32_t kWriteNoReplace = 2;  // an existing regular file is not replaced

// writeOutput - writes data to fileName, the one way every output of the library is written:
// - a new name, or a regular file of the caller's (the root user may replace anyone's, keeping
//   its owner): written whole beside it (fileName.tmp<pid>, created O_EXCL|O_NOFOLLOW), synced,
//   renamed over it and the directory synced; an existing file keeps its mode;
// - a FIFO or character device: written straight through, opened without waiting first (a
//   FIFO without a reader fails at once with ZAVKM_ERR_FILE_OPEN_TO_WRITE);
// - a symbolic link: followed, link by link, only while each link belongs to the caller or to
//   root, and its target written as above;
// - anything else (a directory, socket, block device, another user's file or link, an open key
//   database or one of its companions): ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED, nothing written.
// With kWriteNoReplace an existing regular file gives ZAVKM_ERR_DATABASE_ALREADY_EXISTS. A
// failed write gives ZAVKM_ERR_FILE_OPEN_TO_WRITE or ZAVKM_ERR_FILE_WRITE and leaves the old
// file and no temporary.
Rc writeOutput(const char* fileName, const uint8_t* data, size_t n, uint32_t flags);

// writeFile - writeOutput for the library's own outputs: mode 0600 makes a private file.
inline Rc writeFile(const char* fileName, const uint8_t* data, size_t n, unsigned mode) noexcept {
    return writeOutput(fileName, data, n, (mode & 077) == 0 ? kWritePrivate : 0);
}
inline Rc writeFile(const char* fileName, const Bytes& data, unsigned mode) noexcept {
    return writeFile(fileName, data.data(), data.size(), mode);
}

// syncDirectoryOf - fsyncs the directory that holds fileName, so a rename or link into it
// survives a crash.
bool syncDirectoryOf(const std::string& fileName) noexcept;

// publishNewFile - gives the complete file temp (fsynced) the name fileName unless that name is
// taken (ZAVKM_ERR_DATABASE_ALREADY_EXISTS), and syncs the directory. temp is gone afterwards.
Rc publishNewFile(const std::string& temp, const std::string& fileName) noexcept;

// checkPrivateFile - the file open on fd (opened with O_NOFOLLOW, O_PATH allowed) is a regular
// file with no second name (none at all when another process removed it since it was opened),
// owned by the effective user or by alsoOwner, that group and others cannot
// read or write; with tighten, such access is taken away when the caller may (fchmod, or chmod
// through /proc for an O_PATH descriptor, so that no second descriptor is opened and closed on a
// file SQLite holds locks on). ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED otherwise. st receives the
// file's status.
Rc checkPrivateFile(int fd, uid_t alsoOwner, bool tighten, struct stat& st) noexcept;

// prepareCompanion - makes sure the file at path, which SQLite is about to open beside a key
// database owned by dbOwner, is one the library may trust: a missing one is created empty with
// O_CREAT|O_EXCL|O_NOFOLLOW and mode 0600, an existing one must pass checkPrivateFile. dev and
// ino receive its identity (0 when it could not be created: SQLite then meets the same
// failure). ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED for a planted file: a link, FIFO, another user's
// file, one with more than one name.
Rc prepareCompanion(const std::string& path, uid_t dbOwner, dev_t& dev, ino_t& ino) noexcept;

// checkCompanions - prepareCompanion for the "-wal", "-shm" and "-journal" files beside the key
// database dbPath that exist already (SQLite's own open creates the others through the
// library's VFS, companions.h). ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED for a planted one.
Rc checkCompanions(const std::string& dbPath);

// noteOpenDatabase / forgetOpenDatabase - the key database files with a connection open in this
// process, by device and inode, with the directory and name their companions live under.
// Counted: a file noted twice stays noted until it is forgotten twice.
void noteOpenDatabase(const std::string& path, dev_t dev, ino_t ino) noexcept;
void forgetOpenDatabase(const std::string& path, dev_t dev, ino_t ino) noexcept;

}  // namespace zavkm
