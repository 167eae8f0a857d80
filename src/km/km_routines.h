// Routines over the key-management library that natives of several classes share.
#pragma once

#include <cstdint>

#include "zavkm.h"

namespace zavkjni {

// KM_DeleteKeyItem deletes, on an open store, the request key pair under label when isReqKey,
// else the key under label. Returns the library's code; opens, closes and traces nothing.
ZAVKM_ReturnCode KM_DeleteKeyItem(ZAVKM_KeyDbHandle handle, const char* label,
                                  bool isReqKey) noexcept;

// KM_ReadCertFileToBuf reads a certificate file into a block of the key-management library:
// base64 text through ZAVKM_Base64DecodeFileToBuf when isBase64, else the bytes as they stand,
// in 1024-byte chunks grown with ZAVKM_Realloc. *data and *length are reset first; the caller
// frees the block with ZAVKM_Free when both are set. Returns 0, 87 when the file does not open,
// 79 when memory runs out (the block gathered so far is released), 65 for a null file name, or
// the library's base64 code.
ZAVKM_ReturnCode KM_ReadCertFileToBuf(const char* fileName, uint8_t isBase64, uint8_t** data,
                                      uint32_t* length) noexcept;

}  // namespace zavkjni
