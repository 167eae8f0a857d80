#include "km/km_routines.h"

#include <cstdio>
#include <cstring>

namespace zavkjni {

ZAVKM_ReturnCode KM_DeleteKeyItem(ZAVKM_KeyDbHandle handle, const char* label,
                                  bool isReqKey) noexcept {
    return isReqKey ? ZAVKM_DeleteRequestKeyPair(handle, label) : ZAVKM_DeleteKey(handle, label);
}

ZAVKM_ReturnCode KM_ReadCertFileToBuf(const char* fileName, uint8_t isBase64, uint8_t** data,
                                      uint32_t* length) noexcept {
    *data = nullptr;
    *length = 0;
    if (fileName == nullptr) return ZAVKM_ERR_PARAMETER;
    if (isBase64 != 0) return ZAVKM_Base64DecodeFileToBuf(fileName, data, length);
    FILE* file = fopen(fileName, "rb");
    if (file == nullptr) return ZAVKM_ERR_FILE_OPEN_TO_READ;
    ZAVKM_ReturnCode rc = 0;
    unsigned char chunk[1024];
    for (;;) {
        memset(chunk, 0, sizeof chunk);
        size_t n = fread(chunk, 1, sizeof chunk, file);
        if (n == 0) break;  // end of file and read errors are not told apart
        *length += static_cast<uint32_t>(n);
        void* grown = *length == n ? ZAVKM_Malloc(static_cast<uint32_t>(n))
                                   : ZAVKM_Realloc(*data, *length);
        if (grown == nullptr) {
            // What was gathered is given back rather than left behind with a zero length.
            if (*data != nullptr) ZAVKM_Free(*data);
            *data = nullptr;
            *length = 0;
            rc = ZAVKM_ERR_MEMORY_ALLOCATE;
            break;
        }
        *data = static_cast<uint8_t*>(grown);
        memcpy(*data + (*length - n), chunk, n);
    }
    fclose(file);
    return rc;
}

}  // namespace zavkjni
