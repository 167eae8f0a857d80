// pkcs10.cpp - a certificate request (DER or PEM) issued by the database's CA.
#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string out = fuzz::path("issued.der");
    ZAVKM_IssueCert(fuzz::keyDb(), data, static_cast<uint32_t>(size), "ca", 3, "", 30, out.c_str(), 0,
                    nullptr, nullptr);
    ::unlink(out.c_str());
    return 0;
}
