// api_services.cpp - library services and memory: initialisation, cleanup, trace, crypto
// settings, and the malloc-compatible memory operations.
#include <openssl/crypto.h>

#include <cstdlib>
#include <cstring>

#include "api/lifecycle.h"
#include "base/state.h"
#include "base/trace.h"
#include "store/file/filestore.h"

using namespace zavkm;

extern "C" {

ZAVKM_ReturnCode ZAVKM_Init(void) noexcept {
    if (OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr) != 1)
        return traceResult("ZAVKM_Init", ZAVKM_ERR_CRYPTO);
    if (initFileStore() != ZAVKM_OK) return traceResult("ZAVKM_Init", ZAVKM_ERR_DATABASE);
    setInitialized(true);
    return traceResult("ZAVKM_Init", ZAVKM_OK);
}

ZAVKM_ReturnCode ZAVKM_CleanAll(void) noexcept {
    traceResult("ZAVKM_CleanAll", ZAVKM_OK);
    releaseProcessState();
    setInitialized(false);
    stopTrace();
    return ZAVKM_OK;
}

ZAVKM_ReturnCode ZAVKM_StartTrace(const char* tag, const char* fileName, int32_t level,
                                  int32_t /*size*/) noexcept {
    Rc rc = startTrace(tag, fileName, level);
    return traceResult("ZAVKM_StartTrace", rc);
}

uint32_t ZAVKM_GetMaxCryptoKeySize(int32_t keyType) noexcept { return keyType == 1 ? 16384u : 0u; }

ZAVKM_ReturnCode ZAVKM_SetCryptoInfo(void* cryptoInfo) noexcept {
    if (cryptoInfo == nullptr) return traceResult("ZAVKM_SetCryptoInfo", ZAVKM_ERR_NULL_PARAMETER);
    const bool fips = static_cast<const uint8_t*>(cryptoInfo)[0] != 0;
    adoptCryptoInfo(cryptoInfo);
    setFipsMode(fips);
    trace("ZAVKM_SetCryptoInfo fips=%d", fips ? 1 : 0);
    return ZAVKM_OK;
}

void* ZAVKM_Malloc(uint32_t size) noexcept { return std::malloc(size); }

void* ZAVKM_Realloc(void* block, uint32_t size) noexcept { return std::realloc(block, size); }

void ZAVKM_Free(void* block) noexcept { std::free(block); }

char* ZAVKM_Strdup(const char* text) noexcept { return text != nullptr ? strdup(text) : nullptr; }

}  // extern "C"
