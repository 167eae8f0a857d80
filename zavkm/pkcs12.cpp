// pkcs12.cpp - PKCS#12 files.
#include "pkcs12.h"

#include "files.h"
#include "ossl.h"

namespace zavkm {
namespace {

void freeAuthSafes(STACK_OF(PKCS7) * s) noexcept { sk_PKCS7_pop_free(s, PKCS7_free); }
void freeBags(STACK_OF(PKCS12_SAFEBAG) * s) noexcept {
    sk_PKCS12_SAFEBAG_pop_free(s, PKCS12_SAFEBAG_free);
}
using AuthSafesPtr = Owned<STACK_OF(PKCS7), freeAuthSafes>;
using BagsPtr = Owned<STACK_OF(PKCS12_SAFEBAG), freeBags>;

// parsePkcs12 - decodes DER data as PKCS#12; null when it is not.
Pkcs12Ptr parsePkcs12(const Bytes& data) {
    const unsigned char* p = data.data();
    Pkcs12Ptr p12(d2i_PKCS12(nullptr, &p, static_cast<long>(data.size())));
    if (!p12) clearSslErrors();
    return p12;
}

}  // namespace

Rc pkcs12NeedsPassword(const char* fileName, bool& needed) noexcept {
    return guarded([&]() -> Rc {
        Bytes data;
        Rc rc = readFile(fileName, data);
        if (rc == ZAVKM_ERR_FILE_OPEN_NOT_EXIST) return ZAVKM_ERR_KEYDB_NOT_EXIST;
        if (rc != ZAVKM_OK) return rc;
        Pkcs12Ptr p12 = parsePkcs12(data);
        if (!p12) return ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT;
        needed = PKCS12_mac_present(p12.get()) != 0;
        AuthSafesPtr safes(PKCS12_unpack_authsafes(p12.get()));
        if (!safes) return sslError(ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT);
        for (int i = 0; i < sk_PKCS7_num(safes.get()) && !needed; ++i) {
            PKCS7* safe = sk_PKCS7_value(safes.get(), i);
            if (OBJ_obj2nid(safe->type) != NID_pkcs7_data) {
                needed = true;  // encrypted or enveloped content
                continue;
            }
            BagsPtr bags(PKCS12_unpack_p7data(safe));
            if (!bags) return sslError(ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT);
            for (int j = 0; j < sk_PKCS12_SAFEBAG_num(bags.get()); ++j)
                if (PKCS12_SAFEBAG_get_nid(sk_PKCS12_SAFEBAG_value(bags.get(), j)) ==
                    NID_pkcs8ShroudedKeyBag)
                    needed = true;
        }
        return ZAVKM_OK;
    });
}

}  // namespace zavkm
