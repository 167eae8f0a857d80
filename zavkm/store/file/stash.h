// stash.h - the stash file of a key database: its password, for unattended opening.
//
// Name: the database file name with its extension replaced by ".sth" (or ".sth" appended
// when the name has none). Mode 0600. Format (all integers big-endian):
//   bytes 0-7   "ZAVKMSTH"
//   byte  8     format version, 1
//   byte  9     0
//   bytes 10-11 password length n (1 to 1024)
//   bytes 12..  the password's n bytes, each XORed with 0xA5
// The XOR only keeps the password from being read at a glance; the file mode protects it.
#pragma once

#include <string>

#include "common.h"

namespace zavkm {

// stashFileName - the stash file name for a key database file name.
std::string stashFileName(const std::string& keyDbFileName);

// writeStash - writes the stash for keyDbFileName atomically (temporary file, then rename).
Rc writeStash(const std::string& keyDbFileName, const std::string& password) noexcept;

// readStash - the stashed password: ZAVKM_ERR_PWDFILE_NOT_EXIST when there is no stash file,
// ZAVKM_ERR_DATABASE_PASSWORD_CORRUPTION when it is not one.
Rc readStash(const std::string& keyDbFileName, SecretBytes& password) noexcept;

}  // namespace zavkm
