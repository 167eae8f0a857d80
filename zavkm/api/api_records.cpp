// api_records.cpp - preparing and releasing the ABI records.
#include <cstdlib>
#include <cstring>

#include "pki/records.h"

using namespace zavkm;

namespace {

// initRecord - *slot non-null: zero the caller's record in place; null: allocate a zeroed one.
template <class T>
Rc initRecord(T** slot) noexcept {
    if (slot == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
    if (*slot != nullptr) {
        std::memset(*slot, 0, sizeof(T));
        return ZAVKM_OK;
    }
    *slot = static_cast<T*>(std::calloc(1, sizeof(T)));
    return *slot != nullptr ? ZAVKM_OK : ZAVKM_ERR_MEMORY_ALLOCATE;
}

}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_InitDNItem(ZAVKM_DNItem** dn) noexcept { return initRecord(dn); }

void ZAVKM_FreeDNItem(ZAVKM_DNItem* dn) noexcept { freeDN(dn); }

ZAVKM_ReturnCode ZAVKM_InitEPKIItem(ZAVKM_EPKIItem** epki) noexcept { return initRecord(epki); }

void ZAVKM_FreeEPKIItem(ZAVKM_EPKIItem* epki) noexcept { freeEPKI(epki); }

void ZAVKM_FreePrivKeyInfoItem(ZAVKM_PrivKeyInfoItem* pki) noexcept { freePrivKeyInfo(pki); }

void ZAVKM_FreeLabelList(ZAVKM_LabelList* list) noexcept { freeLabelList(list); }

void ZAVKM_FreeCertItemList(ZAVKM_CertItemList* list) noexcept { freeCertItemList(list); }

void ZAVKM_FreeKeyItem(ZAVKM_KeyItem* key) noexcept { freeKeyItem(key); }

void ZAVKM_FreeReqKeyItem(ZAVKM_ReqKeyItem* key) noexcept { freeReqKeyItem(key); }

void ZAVKM_FreeKeyItemList(ZAVKM_KeyItemList* list) noexcept { freeKeyItemList(list); }

}  // extern "C"
