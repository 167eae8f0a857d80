// stash.h - the stash file of a key database: its password and the key derived from it, for
// unattended opening without the password's key derivation.
//
// Name: the database file name with its extension replaced by ".sth" (or ".sth" appended
// when the name has none). Mode 0600. Format (all integers big-endian):
//   bytes 0-7   "ZAVKMSTH"
//   byte  8     format version, 2 (1: the password alone, still read)
//   byte  9     0
//   bytes 10-11 password length n (1 to 1024)
//   bytes 12..  the password's n bytes
//   version 2, then: the KDF salt (16 bytes), its iteration count (4 bytes) and the master key
//   derived with them (32 bytes)
// Every byte after the header is XORed with 0xA5. The XOR only keeps the contents from being
// read at a glance; the file mode protects them. The derived key gives no more than the
// password beside it does; it spares a process the key derivation (about 0.15 s) when the
// database still has that salt and count.
#pragma once

#include <string>

#include "base/common.h"
#include "store/file/kdf.h"

namespace zavkm {

// stashFileName - the stash file name for a key database file name.
std::string stashFileName(const std::string& keyDbFileName);

// Stash - what a stash file holds; kdf and master are empty in a version 1 file.
struct Stash {
    SecretBytes password;
    KdfParams kdf;
    SecretBytes master;
};

// writeStash - writes the stash for keyDbFileName atomically (temporary file, then rename).
Rc writeStash(const std::string& keyDbFileName, const Stash& stash);

// readStash - the stash: ZAVKM_ERR_PWDFILE_NOT_EXIST when there is no stash file,
// ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION when it is not one (or is cut short).
Rc readStash(const std::string& keyDbFileName, Stash& stash);

}  // namespace zavkm
