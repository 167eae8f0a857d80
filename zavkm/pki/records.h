// records.h - the ABI records in C memory: allocation and deep release.
//
// Every record, text and byte block handed over the ABI is allocated with calloc/malloc, so the
// caller may release it with ZAVKM_Free or the release operation of its type, and the release
// operations accept records the caller built with malloc and ZAVKM_Strdup. The owners of
// zavkm.hpp (and CertItemPtr, CertReqItemPtr below) hold a record while it is being built;
// release() hands it to the caller.
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "base/common.h"

namespace zavkm {

void freeDN(ZAVKM_DNItem* dn) noexcept;
void freeCertItem(ZAVKM_CertItem* cert) noexcept;
void freeCertItemList(ZAVKM_CertItemList* list) noexcept;
void freeCertReqInfoItem(ZAVKM_CertReqInfoItem* info) noexcept;
void freeCertReqItem(ZAVKM_CertReqItem* req) noexcept;
void freeEPKI(ZAVKM_EPKIItem* epki) noexcept;
void freePrivKeyInfo(ZAVKM_PrivKeyInfoItem* pki) noexcept;
void freeLabelList(ZAVKM_LabelList* list) noexcept;
void freeKeyItem(ZAVKM_KeyItem* key) noexcept;
void freeReqKeyItem(ZAVKM_ReqKeyItem* key) noexcept;
void freeKeyItemList(ZAVKM_KeyItemList* list) noexcept;

// The records the ABI releases have their owners in zavkm.hpp (DNPtr, KeyItemPtr, ...); these
// two have no release operation of their own there.
using CertItemPtr = Owned<ZAVKM_CertItem, freeCertItem>;
using CertReqItemPtr = Owned<ZAVKM_CertReqItem, freeCertReqItem>;

// newRecord - a zeroed record from calloc; throws std::bad_alloc when memory runs out.
template <class T>
T* newRecord() {
    void* p = std::calloc(1, sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
}

// keyItemListOf - one key item per source, each made by make(source, KeyItemPtr&), in order; on
// the first failure nothing is handed over and its code is returned.
template <class Source, class Make>
Rc keyItemListOf(const std::vector<Source>& sources, Make&& make, ZAVKM_KeyItemList** list) {
    KeyItemListPtr head;
    ZAVKM_KeyItemList* tail = nullptr;
    for (const Source& source : sources) {
        KeyItemPtr item;
        if (Rc rc = make(source, item); rc != ZAVKM_OK) return rc;
        auto* node = newRecord<ZAVKM_KeyItemList>();
        node->key = item.release();
        if (tail == nullptr)
            head.reset(node);
        else
            tail->next = node;
        tail = node;
    }
    *list = head.release();
    return ZAVKM_OK;
}

// copyText - a malloc'd copy of a stored text as the records of zavkm.h carry texts: Java's
// modified UTF-8 (javaText, utf.h), which the JNI bridge hands to NewStringUTF; throws
// std::bad_alloc.
char* copyText(std::string_view stored);

// copyBytes - a malloc'd copy of n bytes into *out and n into *outLength (a zero length still
// gives a non-null one-byte block); throws std::bad_alloc.
void copyBytes(const uint8_t* p, size_t n, uint8_t** out, uint32_t* outLength);
inline void copyBytes(const Bytes& b, uint8_t** out, uint32_t* outLength) {
    copyBytes(b.data(), b.size(), out, outLength);
}

// LabelListBuilder - appends labels to a list in order; take() hands the head over.
class LabelListBuilder {
  public:
    void add(std::string_view label);
    ZAVKM_LabelList* take() noexcept {
        tail_ = nullptr;
        return head_.release();
    }

  private:
    LabelListPtr head_;
    ZAVKM_LabelList* tail_ = nullptr;
};

// labelRecords - the labels as a list, in order (null for none); throws std::bad_alloc.
ZAVKM_LabelList* labelRecords(const std::vector<std::string>& labels);

}  // namespace zavkm
