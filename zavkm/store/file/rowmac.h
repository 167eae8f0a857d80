// rowmac.h - a MAC on every row of a key database. The key is derived once per open from the
// data key (HKDF-SHA256, info "zavkm row mac v1"); the MAC is HMAC-SHA256 over every column of
// the row but its id and the MAC itself. Whoever can write the file without knowing its
// password cannot make a row that passes: a changed flag, certificate or label, a row moved
// between databases, or a row inserted by hand fails its check. The MAC cannot tell that a row
// was deleted, nor that the whole file was put back to an older copy.
//
// On a connection armed with the key, the SQL function zavkm_rowmac(table, columns...) gives a
// row's MAC, and temporary triggers keep the mac column of every inserted or changed row current.
#pragma once

#include <sqlite3.h>

#include <string>

#include "common.h"

namespace zavkm {

// keyRowMac / requestRowMac - the MAC a row of keys / requests should carry, as SQL over its
// columns (each name prefixed with prefix, e.g. "NEW.").
std::string keyRowMac(const std::string& prefix = "");
std::string requestRowMac(const std::string& prefix = "");

// armRowMacs - registers zavkm_rowmac under the key derived from dataKey, and the triggers, on
// db; again on a pooled connection, with the key of the database opened now.
Rc armRowMacs(sqlite3* db, const SecretBytes& dataKey) noexcept;

// sealAllRows - gives every row its MAC (a database from before row MACs, on its first open).
Rc sealAllRows(sqlite3* db) noexcept;

}  // namespace zavkm
