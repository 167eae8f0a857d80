// pkcs12.h - PKCS#12 files: export, import, keyring files, and the WEBDB password probe.
#pragma once

#include "common.h"

namespace zavkm {

// pkcs12NeedsPassword - whether the PKCS#12 file fileName needs a password: it carries a MAC,
// encrypted content or a shrouded key. ZAVKM_ERR_KEYDB_NOT_EXIST when the file does not exist,
// ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT when it is not PKCS#12.
Rc pkcs12NeedsPassword(const char* fileName, bool& needed) noexcept;

}  // namespace zavkm
