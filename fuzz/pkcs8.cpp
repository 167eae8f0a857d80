// pkcs8.cpp - a private key as an EncryptedPrivateKeyInfo under a password, and as a key
// inserted with a certificate.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ZAVKM_EPKIItem epki{const_cast<uint8_t*>(data), static_cast<uint32_t>(size)};
    ZAVKM_PrivKeyInfoItem* pki = nullptr;
    if (ZAVKM_GetPrivKeyInfoItemFromEPKIItem(&epki, fuzz::kPassword, &pki) == ZAVKM_OK)
        ZAVKM_FreePrivKeyInfoItem(pki);
    return 0;
}
