// certificate.cpp - bytes taken as one certificate (DER or PEM): its to-be-signed part, its
// record, and storing it as a signer.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto n = static_cast<uint32_t>(size);
    uint8_t* tbs = nullptr;
    uint32_t tbsLength = 0;
    if (ZAVKM_GetUnsignedCertFromCert(data, n, &tbs, &tbsLength) == ZAVKM_OK) ZAVKM_Free(tbs);
    if (ZAVKM_StoreCACert(fuzz::keyDb(), data, n, "fuzzed") == ZAVKM_OK)
        ZAVKM_DeleteKey(fuzz::keyDb(), "fuzzed");
    uint8_t renewal = 0;
    ZAVKM_CheckCertAsRenewal(fuzz::keyDb(), data, n, &renewal);
    return 0;
}
