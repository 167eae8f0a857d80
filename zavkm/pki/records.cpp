// records.cpp - deep release of the ABI records, and the small allocation helpers.
#include "records.h"

namespace zavkm {

namespace {
void freeBytesWiped(uint8_t* p, uint32_t n) noexcept {
    if (p != nullptr && n != 0) OPENSSL_cleanse(p, n);
    std::free(p);
}
}  // namespace

void freeDN(ZAVKM_DNItem* dn) noexcept {
    if (dn == nullptr) return;
    char* texts[] = {dn->cn,
                     dn->ou,
                     dn->o,
                     dn->l,
                     dn->s,
                     dn->pc,
                     dn->c,
                     dn->optionalField1,
                     dn->optionalField2,
                     dn->optionalField3,
                     dn->optionalField4};
    for (char* t : texts) std::free(t);
    std::free(dn->der);
    std::free(dn);
}

void freeCertItem(ZAVKM_CertItem* cert) noexcept {
    if (cert == nullptr) return;
    std::free(cert->der);
    std::free(cert->serialNumber);
    freeDN(cert->issuer);
    freeDN(cert->subject);
    std::free(cert->signature);
    std::free(cert->sigAlgId);
    std::free(cert->sigAlgIdOID);
    std::free(cert->sigAlgIdOIDName);
    std::free(cert->spki);
    std::free(cert->extensions);
    std::free(cert);
}

void freeCertItemList(ZAVKM_CertItemList* list) noexcept {
    while (list != nullptr) {
        ZAVKM_CertItemList* next = list->next;
        freeCertItem(list->cert);
        std::free(list);
        list = next;
    }
}

void freeCertReqInfoItem(ZAVKM_CertReqInfoItem* info) noexcept {
    if (info == nullptr) return;
    std::free(info->der);
    freeDN(info->subjectName);
    std::free(info->spki);
    std::free(info->attributes);
    std::free(info);
}

void freeCertReqItem(ZAVKM_CertReqItem* req) noexcept {
    if (req == nullptr) return;
    std::free(req->der);
    std::free(req->sig);
    std::free(req->sigAlgId);
    std::free(req->sigAlgIdOID);
    std::free(req->sigAlgIdOIDName);
    freeCertReqInfoItem(req->certReqInfoItem);
    std::free(req);
}

void freeEPKI(ZAVKM_EPKIItem* epki) noexcept {
    if (epki == nullptr) return;
    freeBytesWiped(epki->der, epki->derLength);
    std::free(epki);
}

void freePrivKeyInfo(ZAVKM_PrivKeyInfoItem* pki) noexcept {
    if (pki == nullptr) return;
    freeBytesWiped(pki->der, pki->derLength);  // a plain private key: wiped before release
    std::free(pki);
}

void freeLabelList(ZAVKM_LabelList* list) noexcept {
    while (list != nullptr) {
        ZAVKM_LabelList* next = list->next;
        std::free(list->label);
        std::free(list);
        list = next;
    }
}

void freeKeyItem(ZAVKM_KeyItem* key) noexcept {
    if (key == nullptr) return;
    std::free(key->label);
    freeEPKI(key->epki);
    std::free(key->keyBer);
    freeCertItemList(key->certList);
    std::free(key);
}

void freeReqKeyItem(ZAVKM_ReqKeyItem* key) noexcept {
    if (key == nullptr) return;
    std::free(key->label);
    freeCertReqItem(key->certReq);
    freeEPKI(key->epki);
    std::free(key->keyBer);
    std::free(key);
}

void freeKeyItemList(ZAVKM_KeyItemList* list) noexcept {
    while (list != nullptr) {
        ZAVKM_KeyItemList* next = list->next;
        freeKeyItem(list->key);
        std::free(list);
        list = next;
    }
}

char* copyText(std::string_view text) {
    char* p = static_cast<char*>(std::malloc(text.size() + 1));
    if (p == nullptr) throw std::bad_alloc();
    std::memcpy(p, text.data(), text.size());
    p[text.size()] = '\0';
    return p;
}

void copyBytes(const uint8_t* p, size_t n, uint8_t** out, uint32_t* outLength) {
    auto* block = static_cast<uint8_t*>(std::malloc(n == 0 ? 1 : n));
    if (block == nullptr) throw std::bad_alloc();
    if (n != 0) std::memcpy(block, p, n);
    *out = block;
    *outLength = static_cast<uint32_t>(n);
}

void LabelListBuilder::add(std::string_view label) {
    auto* node = newRecord<ZAVKM_LabelList>();
    if (tail_ == nullptr) {
        head_.reset(node);
    } else {
        tail_->next = node;
    }
    tail_ = node;
    node->label = copyText(label);
}

}  // namespace zavkm
