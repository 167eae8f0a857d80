// records.cpp - deep release of the ABI records, and the small allocation helpers.
#include "pki/records.h"

#include "pki/record_fields.h"
#include "base/utf.h"

namespace zavkm {

namespace {
// Releases with the C library's free, wiping secret buffers first.
struct Freeing {
    void text(char* t) noexcept { std::free(t); }
    void bytes(uint8_t* p, uint32_t n, bool secret) noexcept {
        if (secret && p != nullptr && n != 0) OPENSSL_cleanse(p, n);
        std::free(p);
    }
    void block(void* p) noexcept { std::free(p); }
};
template <class Record>
void freeAll(Record* r) noexcept {
    Freeing freeing;
    fields::releaseAll(r, freeing);
}
}  // namespace

void freeDN(ZAVKM_DNItem* dn) noexcept { freeAll(dn); }
void freeCertItem(ZAVKM_CertItem* cert) noexcept { freeAll(cert); }
void freeCertItemList(ZAVKM_CertItemList* list) noexcept { freeAll(list); }
void freeCertReqInfoItem(ZAVKM_CertReqInfoItem* info) noexcept { freeAll(info); }
void freeCertReqItem(ZAVKM_CertReqItem* req) noexcept { freeAll(req); }
void freeEPKI(ZAVKM_EPKIItem* epki) noexcept { freeAll(epki); }
void freePrivKeyInfo(ZAVKM_PrivKeyInfoItem* pki) noexcept { freeAll(pki); }
void freeLabelList(ZAVKM_LabelList* list) noexcept { freeAll(list); }
void freeKeyItem(ZAVKM_KeyItem* key) noexcept { freeAll(key); }
void freeReqKeyItem(ZAVKM_ReqKeyItem* key) noexcept { freeAll(key); }
void freeKeyItemList(ZAVKM_KeyItemList* list) noexcept { freeAll(list); }

char* copyText(std::string_view stored) {
    const std::string text = javaText(stored);  // what Java reads through NewStringUTF
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

ZAVKM_LabelList* labelRecords(const std::vector<std::string>& labels) {
    LabelListBuilder builder;
    for (const std::string& label : labels) builder.add(label);
    return builder.take();
}

}  // namespace zavkm
