#include "km/token.h"

#include "km/descriptor.h"

namespace zavkjni {

ZAVKM_ReturnCode OpenTokenAndSecondaryKeyDb(const char* moduleName, const char* tokenLabel,
                                            const char* tokenPassword, ZAVKM_KeyDbHandle* token,
                                            const char* secondaryFile,
                                            const char* secondaryPassword,
                                            ZAVKM_KeyDbHandle* secondary) noexcept {
    *token = 0;
    *secondary = 0;
    KeyStoreDescriptor descriptor = tokenDescriptor(moduleName, tokenLabel, tokenPassword);
    ZAVKM_ReturnCode rc = ZAVKM_OpenKeyDbX(&descriptor, token);
    if (rc != 0) return rc;
    if (secondaryFile == nullptr) return 0;
    descriptor = keyDbFileDescriptor(secondaryFile, secondaryPassword);
    rc = ZAVKM_OpenKeyDbX(&descriptor, secondary);
    if (rc != 0) {
        ZAVKM_CloseKeyDb(*token);
        *token = 0;
        return rc;
    }
    rc = ZAVKM_SetSecondaryKeyDb(*token, *secondary);
    if (rc != 0) {
        ZAVKM_CloseKeyDb(*secondary);
        *secondary = 0;
        ZAVKM_CloseKeyDb(*token);
        *token = 0;
    }
    return rc;
}

void CloseTokenAndSecondaryKeyDb(ZAVKM_KeyDbHandle token, ZAVKM_KeyDbHandle secondary) noexcept {
    if (secondary != 0) {
        ZAVKM_UnsetSecondaryKeyDb(token);
        ZAVKM_CloseKeyDb(secondary);
    }
    if (token != 0) ZAVKM_CloseKeyDb(token);
}

}  // namespace zavkjni
