// api_pending.cpp - operations not implemented yet: they check their arguments and report
// ZAVKM_ERR_NOT_INITIALIZED or ZAVKM_ERR_UNSUPPORTED_OPTION.
#include <initializer_list>

#include "state.h"
#include "trace.h"

using namespace zavkm;

namespace {
Rc pending(const char* name, std::initializer_list<const void*> required) noexcept {
    for (const void* p : required)
        if (p == nullptr) return traceResult(name, ZAVKM_ERR_NULL_PARAMETER);
    if (!isInitialized()) return traceResult(name, ZAVKM_ERR_NOT_INITIALIZED);
    return traceResult(name, ZAVKM_ERR_UNSUPPORTED_OPTION);
}
}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_SetSecondaryKeyDb(ZAVKM_KeyDbHandle, ZAVKM_KeyDbHandle) noexcept {
    return pending(__func__, {});
}
ZAVKM_ReturnCode ZAVKM_UnsetSecondaryKeyDb(ZAVKM_KeyDbHandle) noexcept {
    return pending(__func__, {});
}
ZAVKM_ReturnCode ZAVKM_GetCryptoTokenLabelList(const char* moduleName,
                                               ZAVKM_LabelList** list) noexcept {
    return pending(__func__, {moduleName, list});
}
ZAVKM_ReturnCode ZAVKM_GetKeyDbLabelList(ZAVKM_KeyDbHandle, ZAVKM_LabelList** list) noexcept {
    return pending(__func__, {list});
}
ZAVKM_ReturnCode ZAVKM_GetReqKeyDbLabelList(ZAVKM_KeyDbHandle, ZAVKM_LabelList** list) noexcept {
    return pending(__func__, {list});
}
ZAVKM_ReturnCode ZAVKM_GetKeyItemByLabel(ZAVKM_KeyDbHandle, const char* label,
                                         ZAVKM_KeyItem** key) noexcept {
    return pending(__func__, {label, key});
}
ZAVKM_ReturnCode ZAVKM_GetReqKeyItemByLabel(ZAVKM_KeyDbHandle, const char* label,
                                            ZAVKM_ReqKeyItem** key) noexcept {
    return pending(__func__, {label, key});
}
ZAVKM_ReturnCode ZAVKM_GetKeyItemListByLabel(ZAVKM_KeyDbHandle, const char* label,
                                             ZAVKM_KeyItemList** list) noexcept {
    return pending(__func__, {label, list});
}
ZAVKM_ReturnCode ZAVKM_IsPrivateKeyPresent(ZAVKM_KeyDbHandle, const char* label,
                                           uint8_t* present) noexcept {
    return pending(__func__, {label, present});
}
ZAVKM_ReturnCode ZAVKM_GetDefaultKeyItem(ZAVKM_KeyDbHandle, ZAVKM_KeyItem** key) noexcept {
    return pending(__func__, {key});
}
ZAVKM_ReturnCode ZAVKM_GetKeyItemsByPublicKey(ZAVKM_KeyDbHandle, uint32_t,
                                              const uint8_t* publicKey,
                                              ZAVKM_KeyItemList** list) noexcept {
    return pending(__func__, {publicKey, list});
}
ZAVKM_ReturnCode ZAVKM_CreateSelfSignedCert(ZAVKM_KeyDbHandle, const char* label, uint8_t,
                                            int32_t, int32_t, const ZAVKM_DNItem* subject,
                                            int32_t, const char*, uint8_t) noexcept {
    return pending(__func__, {label, subject});
}
ZAVKM_ReturnCode ZAVKM_CreateSelfSignedCertSigExt(ZAVKM_KeyDbHandle, const char* label, uint8_t,
                                                  int32_t, int32_t, const ZAVKM_DNItem* subject,
                                                  int32_t, int32_t, const uint8_t*, uint32_t,
                                                  const char*, uint8_t) noexcept {
    return pending(__func__, {label, subject});
}
ZAVKM_ReturnCode ZAVKM_CreateNewCertReq(ZAVKM_KeyDbHandle, const char* label, int32_t,
                                        const ZAVKM_DNItem* subject, const char* certReqFileName,
                                        const void*, const void*) noexcept {
    return pending(__func__, {label, subject, certReqFileName});
}
ZAVKM_ReturnCode ZAVKM_CreateNewCertReqSigExt(ZAVKM_KeyDbHandle, const char* label, int32_t,
                                              const ZAVKM_DNItem* subject, int32_t,
                                              const uint8_t*, uint32_t,
                                              const char* certReqFileName, const void*,
                                              const void*) noexcept {
    return pending(__func__, {label, subject, certReqFileName});
}
ZAVKM_ReturnCode ZAVKM_ReCreateCertReq(ZAVKM_KeyDbHandle, const char* label,
                                       const char* certReqFileName, const void*,
                                       const void*) noexcept {
    return pending(__func__, {label, certReqFileName});
}
ZAVKM_ReturnCode ZAVKM_ReCreateCertReqSig(ZAVKM_KeyDbHandle, const char* label, int32_t,
                                          const char* certReqFileName, const void*,
                                          const void*) noexcept {
    return pending(__func__, {label, certReqFileName});
}
ZAVKM_ReturnCode ZAVKM_Base64DecodeFileToBuf(const char* fileName, uint8_t** data,
                                             uint32_t* length) noexcept {
    return pending(__func__, {fileName, data, length});
}
ZAVKM_ReturnCode ZAVKM_IssueCert(ZAVKM_KeyDbHandle, const uint8_t* request, uint32_t,
                                 const char* issuerLabel, int32_t, const char*, int32_t,
                                 const char* certFileName, uint8_t, const void*,
                                 const void*) noexcept {
    return pending(__func__, {request, issuerLabel, certFileName});
}
ZAVKM_ReturnCode ZAVKM_IssueCertSig(ZAVKM_KeyDbHandle, const uint8_t* request, uint32_t,
                                    const char* issuerLabel, int32_t, const char*, int32_t,
                                    int32_t, const char* certFileName, uint8_t, const void*,
                                    const void*) noexcept {
    return pending(__func__, {request, issuerLabel, certFileName});
}
ZAVKM_ReturnCode ZAVKM_GetUnsignedCertFromCert(const uint8_t* der, uint32_t, uint8_t** tbs,
                                               uint32_t* tbsLength) noexcept {
    return pending(__func__, {der, tbs, tbsLength});
}
ZAVKM_ReturnCode ZAVKM_DeleteKey(ZAVKM_KeyDbHandle, const char* label) noexcept {
    return pending(__func__, {label});
}
ZAVKM_ReturnCode ZAVKM_DeleteRequestKeyPair(ZAVKM_KeyDbHandle, const char* label) noexcept {
    return pending(__func__, {label});
}
ZAVKM_ReturnCode ZAVKM_InsertKey(ZAVKM_KeyDbHandle, const char* label, uint32_t,
                                 const uint8_t* cert, uint32_t, const uint8_t*, uint8_t,
                                 uint8_t) noexcept {
    return pending(__func__, {label, cert});
}
ZAVKM_ReturnCode ZAVKM_InsertReqKey(ZAVKM_KeyDbHandle, const char* label, uint32_t,
                                    const uint8_t* request, uint32_t,
                                    const uint8_t* key) noexcept {
    return pending(__func__, {label, request, key});
}
ZAVKM_ReturnCode ZAVKM_SetDefaultKeyByLabel(ZAVKM_KeyDbHandle, const char* label) noexcept {
    return pending(__func__, {label});
}
ZAVKM_ReturnCode ZAVKM_SetTrustStatus(ZAVKM_KeyDbHandle, const char* label, uint8_t) noexcept {
    return pending(__func__, {label});
}
ZAVKM_ReturnCode ZAVKM_GetEPKIItemFromPrivateKey(const uint8_t* privateKey, uint32_t,
                                                 const char* password,
                                                 ZAVKM_EPKIItem** epki) noexcept {
    return pending(__func__, {privateKey, password, epki});
}
ZAVKM_ReturnCode ZAVKM_GetPrivKeyInfoItemFromEPKIItem(const ZAVKM_EPKIItem* epki,
                                                      const char* password,
                                                      ZAVKM_PrivKeyInfoItem** pki) noexcept {
    return pending(__func__, {epki, password, pki});
}
ZAVKM_ReturnCode ZAVKM_ExportKeys(ZAVKM_KeyDbHandle, int32_t, const char* pfxFileName,
                                  const char* pfxPassword, const ZAVKM_LabelList*) noexcept {
    return pending(__func__, {pfxFileName, pfxPassword});
}
ZAVKM_ReturnCode ZAVKM_ImportKeysFromPFXFile(ZAVKM_KeyDbHandle, const char* pfxFileName,
                                             const char* pfxPassword) noexcept {
    return pending(__func__, {pfxFileName, pfxPassword});
}
ZAVKM_ReturnCode ZAVKM_Kyr2Kdb(const char* kyrFileName, const char* kyrPassword,
                               const char* keyDbFileName, const char* keyDbPassword) noexcept {
    return pending(__func__, {kyrFileName, kyrPassword, keyDbFileName, keyDbPassword});
}
ZAVKM_ReturnCode ZAVKM_Kdb2Kyr(const char* keyDbFileName, const char* keyDbPassword,
                               const char* kyrFileName, const char* kyrPassword) noexcept {
    return pending(__func__, {keyDbFileName, keyDbPassword, kyrFileName, kyrPassword});
}
ZAVKM_ReturnCode ZAVKM_ReceiveCert(ZAVKM_KeyDbHandle, const uint8_t* cert, uint32_t,
                                   uint8_t) noexcept {
    return pending(__func__, {cert});
}
ZAVKM_ReturnCode ZAVKM_StoreCACert(ZAVKM_KeyDbHandle, const uint8_t* cert, uint32_t,
                                   const char* label) noexcept {
    return pending(__func__, {cert, label});
}
ZAVKM_ReturnCode ZAVKM_ExportCert(ZAVKM_KeyDbHandle, const char* label,
                                  const char* certFileName, uint8_t) noexcept {
    return pending(__func__, {label, certFileName});
}
ZAVKM_ReturnCode ZAVKM_ExtractCertListFromPKCS7Data(const uint8_t* data, uint32_t,
                                                    ZAVKM_CertItemList** list) noexcept {
    return pending(__func__, {data, list});
}
ZAVKM_ReturnCode ZAVKM_CheckCertAsRenewal(ZAVKM_KeyDbHandle, const uint8_t* cert, uint32_t,
                                          uint8_t* isRenewal) noexcept {
    return pending(__func__, {cert, isRenewal});
}
ZAVKM_ReturnCode ZAVKM_RenewCert(ZAVKM_KeyDbHandle, const uint8_t* cert, uint32_t) noexcept {
    return pending(__func__, {cert});
}
ZAVKM_ReturnCode ZAVKM_ValidateCertChain(ZAVKM_KeyDbHandle, const uint8_t* cert, uint32_t,
                                         uint8_t* isValid) noexcept {
    return pending(__func__, {cert, isValid});
}

}  // extern "C"
