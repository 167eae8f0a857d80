// state.h - the library's process-wide switches: initialised or not, FIPS mode.
#pragma once

#include "base/common.h"

namespace zavkm {

// setInitialized / isInitialized - ZAVKM_Init sets the flag, ZAVKM_CleanAll clears it.
void setInitialized(bool on) noexcept;
bool isInitialized() noexcept;

// setFipsMode / fipsMode - FIPS mode applies to every operation started after the switch.
void setFipsMode(bool on) noexcept;
bool fipsMode() noexcept;

// adoptCryptoInfo - takes over the block handed to ZAVKM_SetCryptoInfo (from ZAVKM_Malloc); the
// block handed before it is freed, and ZAVKM_CleanAll frees the last one.
void adoptCryptoInfo(void* block) noexcept;

// requireInit - ZAVKM_OK when ZAVKM_Init has run, else ZAVKM_ERR_NOT_INITIALIZED.
inline Rc requireInit() noexcept { return isInitialized() ? ZAVKM_OK : ZAVKM_ERR_NOT_INITIALIZED; }

}  // namespace zavkm
