// pkcs12.cpp - a PKCS#12 file: whether it needs a password, and imported into a key database.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string file = fuzz::asFile(data, size, "in.p12");
    ZAVKM_KeyDbHandle db = fuzz::keyDb();
    ZAVKM_ImportKeysFromPFXFile(db, file.c_str(), fuzz::kPassword);
    return 0;
}
