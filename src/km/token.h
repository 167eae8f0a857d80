// Opening a token, alone or with a secondary key database file attached for one call.
#pragma once

#include "zavkm.h"

namespace zavkjni {

// OpenTokenAndSecondaryKeyDb opens the token (password may be null) and, when secondaryFile is
// not null, the key database file (secondaryPassword may be null) and attaches it to the token.
// Returns 0 with the token open (and the file open and attached when named), or a non-zero code
// with nothing left open and both handles 0. A secondary password without a file is ignored.
ZAVKM_ReturnCode OpenTokenAndSecondaryKeyDb(const char* moduleName, const char* tokenLabel,
                                            const char* tokenPassword, ZAVKM_KeyDbHandle* token,
                                            const char* secondaryFile,
                                            const char* secondaryPassword,
                                            ZAVKM_KeyDbHandle* secondary) noexcept;

// CloseTokenAndSecondaryKeyDb detaches and closes the secondary file (when open), then closes
// the token. Only for what OpenTokenAndSecondaryKeyDb opened.
void CloseTokenAndSecondaryKeyDb(ZAVKM_KeyDbHandle token, ZAVKM_KeyDbHandle secondary) noexcept;

}  // namespace zavkjni
