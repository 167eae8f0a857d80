// record_fields.h - what each ABI record owns, described once: its texts, its byte buffers
// (secret ones are wiped before release), the records it holds and, for lists, the next node.
// The library's release operations walk records with it; so does the recording fake of the
// tests, which counts every block a release gives back.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zavkm.h"

namespace zavkm::fields {

// releaseAll - what r owns, then r itself (v.block), node after node for a list.
template <class Record, class V>
void releaseAll(Record* r, V& v);

// Each `owned` overload calls, in release order, v.text(char*) for every owned text,
// v.bytes(uint8_t*, uint32_t length, bool secret) for every owned buffer and releaseAll for
// every record held.
template <class V>
void owned(ZAVKM_DNItem* r, V& v) {
    for (char* t : {r->cn, r->ou, r->o, r->l, r->s, r->pc, r->c, r->optionalField1,
                    r->optionalField2, r->optionalField3, r->optionalField4}) {
        v.text(t);
    }
    v.bytes(r->der, r->derLength, false);
}

template <class V>
void owned(ZAVKM_CertItem* r, V& v) {
    v.bytes(r->der, r->derLength, false);
    v.text(r->serialNumber);
    releaseAll(r->issuer, v);
    releaseAll(r->subject, v);
    v.bytes(r->signature, r->signatureLength, false);
    v.bytes(r->sigAlgId, r->sigAlgIdLength, false);
    v.text(r->sigAlgIdOID);
    v.text(r->sigAlgIdOIDName);
    v.bytes(r->spki, r->spkiLength, false);
    v.bytes(r->extensions, r->extensionsLength, false);
}

template <class V>
void owned(ZAVKM_CertItemList* r, V& v) { releaseAll(r->cert, v); }

template <class V>
void owned(ZAVKM_CertReqInfoItem* r, V& v) {
    v.bytes(r->der, r->derLength, false);
    releaseAll(r->subjectName, v);
    v.bytes(r->spki, r->spkiLength, false);
    v.bytes(r->attributes, r->attributesLength, false);
}

template <class V>
void owned(ZAVKM_CertReqItem* r, V& v) {
    v.bytes(r->der, r->derLength, false);
    v.bytes(r->sig, r->sigLength, false);
    v.bytes(r->sigAlgId, r->sigAlgIdLength, false);
    v.text(r->sigAlgIdOID);
    v.text(r->sigAlgIdOIDName);
    releaseAll(r->certReqInfoItem, v);
}

// Private keys, encrypted or not, are wiped before release.
template <class V>
void owned(ZAVKM_EPKIItem* r, V& v) { v.bytes(r->der, r->derLength, true); }
template <class V>
void owned(ZAVKM_PrivKeyInfoItem* r, V& v) { v.bytes(r->der, r->derLength, true); }

template <class V>
void owned(ZAVKM_LabelList* r, V& v) { v.text(r->label); }

template <class V>
void owned(ZAVKM_KeyItem* r, V& v) {
    v.text(r->label);
    releaseAll(r->epki, v);
    v.bytes(r->keyBer, r->keyBerLength, false);
    releaseAll(r->certList, v);
}

template <class V>
void owned(ZAVKM_ReqKeyItem* r, V& v) {
    v.text(r->label);
    releaseAll(r->certReq, v);
    releaseAll(r->epki, v);
    v.bytes(r->keyBer, r->keyBerLength, false);
}

template <class V>
void owned(ZAVKM_KeyItemList* r, V& v) { releaseAll(r->key, v); }

template <class Record, class V>
void releaseAll(Record* r, V& v) {
    while (r != nullptr) {
        Record* next = nullptr;
        if constexpr (requires { r->next; }) next = r->next;
        owned(r, v);
        v.block(r);
        r = next;
    }
}

}  // namespace zavkm::fields
