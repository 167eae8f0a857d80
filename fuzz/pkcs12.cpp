// pkcs12.cpp - the contents of a PKCS#12 file past its MAC: whether it needs a password, and
// imported into a key database.
//
// Random bytes almost never pass a PKCS#12 MAC, so the input is taken as the file's contents: a
// PKCS#12 file (its MAC ignored; its encrypted safes opened with the known password), or the
// DER of its AuthenticatedSafe alone. The safes are packed again as plain data under a fresh MAC
// with the known password (one iteration), and the import reads the bags, keys, certificates
// and names the fuzzer chose. Each import goes into a fresh copy of the same key database.
#include <openssl/err.h>
#include <openssl/pkcs12.h>

#include <fstream>
#include <iterator>
#include <vector>

#include "store/file/connpool.h"
#include "store/file/kdf.h"
#include "fuzz.h"

namespace {

void freeSafes(STACK_OF(PKCS7) * s) { sk_PKCS7_pop_free(s, PKCS7_free); }
void freeBags(STACK_OF(PKCS12_SAFEBAG) * s) { sk_PKCS12_SAFEBAG_pop_free(s, PKCS12_SAFEBAG_free); }

// safesOf - the safes of the input, encrypted ones opened with the known password.
STACK_OF(PKCS7) * safesOf(const uint8_t* data, size_t size) {
    const unsigned char* p = data;
    STACK_OF(PKCS7)* safes = nullptr;
    if (PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(size))) {
        safes = PKCS12_unpack_authsafes(p12);
        PKCS12_free(p12);
    } else {
        p = data;
        safes = reinterpret_cast<STACK_OF(PKCS7)*>(
            ASN1_item_d2i(nullptr, &p, static_cast<long>(size), ASN1_ITEM_rptr(PKCS12_AUTHSAFES)));
    }
    for (int i = 0; safes != nullptr && i < sk_PKCS7_num(safes); ++i) {
        PKCS7* safe = sk_PKCS7_value(safes, i);
        if (OBJ_obj2nid(safe->type) != NID_pkcs7_encrypted) continue;
        STACK_OF(PKCS12_SAFEBAG)* bags = PKCS12_unpack_p7encdata(safe, fuzz::kPassword, -1);
        PKCS7* plain = bags != nullptr ? PKCS12_pack_p7data(bags) : nullptr;
        freeBags(bags);
        if (plain == nullptr) continue;
        sk_PKCS7_set(safes, i, plain);
        PKCS7_free(safe);
    }
    return safes;
}

std::vector<uint8_t> pristine;  // a key database holding a CA, as made once

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (pristine.empty()) {
        zavkm::newFileIterations = 1000;
        fuzz::keyDb();
        ZAVKM_CleanAll();
        ZAVKM_Init();
        std::ifstream in(fuzz::path("target.kdb"), std::ios::binary);
        pristine.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    STACK_OF(PKCS7)* safes = safesOf(data, size);
    PKCS12* p12 = safes != nullptr ? PKCS12_add_safes(safes, NID_pkcs7_data) : nullptr;
    freeSafes(safes);
    unsigned char* der = nullptr;
    int length = p12 != nullptr && PKCS12_set_mac(p12, fuzz::kPassword, -1, nullptr, 0, 1, EVP_sha256()) == 1
                     ? i2d_PKCS12(p12, &der)
                     : 0;
    PKCS12_free(p12);
    ERR_clear_error();
    if (length <= 0) return 0;
    const std::string file = fuzz::asFile(der, static_cast<size_t>(length), "in.p12");
    OPENSSL_free(der);
    zavkm::closeIdleConnections();
    const std::string db = fuzz::asFile(pristine.data(), pristine.size(), "import.kdb");
    KeyStoreDescriptor webdb{};
    webdb.storeType = WebDbFile;
    webdb.keyDbFileName = const_cast<char*>(file.c_str());
    uint8_t required = 0;
    ZAVKM_IsPasswordRequired(&webdb, &required);
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDb(db.c_str(), fuzz::kPassword, &h) != ZAVKM_OK) std::abort();
    if (ZAVKM_ImportKeysFromPFXFile(h, file.c_str(), fuzz::kPassword) == ZAVKM_OK) {
        ZAVKM_LabelList* labels = nullptr;
        if (ZAVKM_GetKeyDbLabelList(h, &labels) != ZAVKM_OK) std::abort();  // an import is whole
        for (ZAVKM_LabelList* l = labels; l != nullptr && l->label != nullptr; l = l->next) {
            ZAVKM_KeyItem* key = nullptr;
            if (ZAVKM_GetKeyItemByLabel(h, l->label, &key) != ZAVKM_OK) std::abort();
            ZAVKM_FreeKeyItem(key);
        }
        ZAVKM_FreeLabelList(labels);
    }
    ZAVKM_CloseKeyDb(h);
    return 0;
}
