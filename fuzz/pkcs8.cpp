// pkcs8.cpp - a private key as an EncryptedPrivateKeyInfo under the known password, and the
// same bytes inserted with a certificate as the key database reads a caller's key (a plain
// PrivateKeyInfo, or one encrypted under the database's password): a mutant that breaks the
// encryption still reaches the key decoding through the plain form.
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz.h"

namespace {

// caCertificate - the DER of the CA certificate in fuzz::keyDb().
const std::vector<uint8_t>& caCertificate() {
    static const std::vector<uint8_t> der = [] {
        fuzz::keyDb();
        std::ifstream in(fuzz::path("ca.der"), std::ios::binary);
        return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    }();
    return der;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto n = static_cast<uint32_t>(size);
    ZAVKM_EPKIItem epki{const_cast<uint8_t*>(data), n};
    ZAVKM_PrivKeyInfoItem* pki = nullptr;
    if (ZAVKM_GetPrivKeyInfoItemFromEPKIItem(&epki, fuzz::kPassword, &pki) == ZAVKM_OK)
        ZAVKM_FreePrivKeyInfoItem(pki);
    const std::vector<uint8_t>& ca = caCertificate();
    if (ZAVKM_InsertKey(fuzz::keyDb(), "fuzzed", static_cast<uint32_t>(ca.size()), ca.data(), n, data, 0, 0) ==
        ZAVKM_OK)
        ZAVKM_DeleteKey(fuzz::keyDb(), "fuzzed");
    return 0;
}
