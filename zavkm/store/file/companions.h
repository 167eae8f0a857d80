// companions.h - the VFS every key database connection opens through: SQLite's default VFS
// with an open that checks the files SQLite keeps beside a database.
//
// SQLite opens "<name>-wal" and "<name>-journal" through its VFS and "<name>-shm" through its own
// open right after the write-ahead log; none of them with O_EXCL. So when SQLite is about to open
// a write-ahead log or journal, the log (and the index beside it) are made first: created empty
// with O_EXCL, never through a link, mode 0600, or, when they exist, accepted only as regular
// files with one name, owned by the user (or by the database file's owner) that group and others
// cannot reach (prepareCompanion, files.h). After SQLite's open the name must still be the file
// that was checked; otherwise the open fails. A refused companion fails SQLite's open with
// SQLITE_CANTOPEN; the open of a key database checks them first (checkCompanions, files.h) and
// answers ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED before SQLite meets them.
#pragma once

namespace zavkm {

// checkedVfsName - the name of that VFS, registered (not as the default) on first use around the
// default VFS of that moment. Null when it cannot be registered (SQLite's default is used then).
const char* checkedVfsName() noexcept;

}  // namespace zavkm
