// api_chain.cpp - certificates from PKCS#7 data, renewal, and chain validation.
#include <openssl/pem.h>

#include "store/file/entries.h"
#include "store/file/keyitems.h"
#include "api/session.h"
#include "base/sizes.h"
#include "store/keystore/keyops.h"
#include "pki/x509records.h"
#include "pki/x509util.h"
#include "zavkm_ext.h"

using namespace zavkm;


extern "C" {

ZAVKM_ReturnCode ZAVKM_ExtractCertListFromPKCS7Data(const uint8_t* data, uint32_t length,
                                                    ZAVKM_CertItemList** list) noexcept {
    return withLibrary(__func__, {data, list}, [&]() -> Rc {
        *list = nullptr;
        std::vector<X509Ptr> certs;
        if (Rc rc = readCertificates(data, length, certs); rc != ZAVKM_OK) return rc;
        CertItemListPtr out;
        if (Rc rc = certListRecord(certs, out); rc != ZAVKM_OK) return rc;
        *list = out.release();
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_CheckCertAsRenewal(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                          uint32_t certLength, uint8_t* isRenewal) noexcept {
    return withKeyStore(__func__, handle, {cert, isRenewal},
                        [&](KeyStore& s) { return zavkm::isRenewal(s, cert, certLength, isRenewal); });
}

ZAVKM_ReturnCode ZAVKM_RenewCert(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                 uint32_t certLength) noexcept {
    return withKeyStore(__func__, handle, {cert},
                        [&](KeyStore& s) { return renewWith(s, cert, certLength); });
}

ZAVKM_ReturnCode ZAVKM_ValidateCertChain(ZAVKM_KeyDbHandle handle, const uint8_t* cert,
                                         uint32_t certLength, uint8_t* isValid) noexcept {
    return withKeyStore(__func__, handle, {cert, isValid}, [&](KeyStore& s) -> Rc {
        *isValid = 0;
        X509Ptr leaf;
        if (Rc rc = readCertificate(cert, certLength, leaf); rc != ZAVKM_OK) return rc;
        return validate(s, leaf.get(), {}, isValid);
    });
}

ZAVKM_ReturnCode ZAVKM_ValidateCertChainX(ZAVKM_KeyDbHandle handle, const uint8_t* certs,
                                          uint32_t length, uint8_t* isValid) noexcept {
    return withKeyStore(__func__, handle, {certs, isValid}, [&](KeyStore& s) -> Rc {
        *isValid = 0;
        std::vector<X509Ptr> read;
        if (Rc rc = readCertificates(certs, length, read); rc != ZAVKM_OK) return rc;
        if (read.empty()) return ZAVKM_ERR_ASN;
        X509Ptr leaf = std::move(read.front());
        read.erase(read.begin());
        return validate(s, leaf.get(), std::move(read), isValid);
    });
}

}  // extern "C"
