// base64.cpp - a base64 (PEM-armoured or bare) file decoded.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = fuzz::asFile(data, size, "in.b64");
    uint8_t* der = nullptr;
    uint32_t length = 0;
    if (ZAVKM_Base64DecodeFileToBuf(file.c_str(), &der, &length) == ZAVKM_OK) ZAVKM_Free(der);
    return 0;
}
