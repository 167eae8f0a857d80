// pkcs7.cpp - a PKCS#7 SignedData or PEM bundle of certificates, as a list and as a chain to
// validate.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ZAVKM_CertItemList* list = nullptr;
    if (ZAVKM_ExtractCertListFromPKCS7Data(data, static_cast<uint32_t>(size), &list) == ZAVKM_OK)
        ZAVKM_FreeCertItemList(list);
    uint8_t valid = 0;
    ZAVKM_ValidateCertChain(fuzz::keyDb(), data, static_cast<uint32_t>(size), &valid);
    return 0;
}
