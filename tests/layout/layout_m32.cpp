// Pins the record layouts of the 32-bit interface. Compiled with -m32 only; it has no code.
#include "zavkm.h"

#define AT(type, field, offset) static_assert(offsetof(type, field) == (offset), #type "." #field)

static_assert(sizeof(void*) == 4, "compile this file with -m32");

AT(ZAVKM_LabelList, label, 0);
AT(ZAVKM_LabelList, next, 4);
static_assert(sizeof(ZAVKM_LabelList) == 8);

AT(ZAVKM_DNItem, cn, 0);
AT(ZAVKM_DNItem, ou, 4);
AT(ZAVKM_DNItem, o, 8);
AT(ZAVKM_DNItem, l, 12);
AT(ZAVKM_DNItem, s, 16);
AT(ZAVKM_DNItem, pc, 20);
AT(ZAVKM_DNItem, c, 24);
AT(ZAVKM_DNItem, optionalField1, 28);
AT(ZAVKM_DNItem, optionalField4, 40);
AT(ZAVKM_DNItem, der, 44);
AT(ZAVKM_DNItem, derLength, 48);
static_assert(sizeof(ZAVKM_DNItem) == 52);

AT(ZAVKM_CertItem, der, 0);
AT(ZAVKM_CertItem, derLength, 4);
AT(ZAVKM_CertItem, shortValue1, 8);
AT(ZAVKM_CertItem, shortValue2, 12);
AT(ZAVKM_CertItem, serialNumber, 16);
AT(ZAVKM_CertItem, issuer, 20);
AT(ZAVKM_CertItem, subject, 24);
AT(ZAVKM_CertItem, effectTime, 28);
AT(ZAVKM_CertItem, expireTime, 32);
AT(ZAVKM_CertItem, signature, 36);
AT(ZAVKM_CertItem, signatureLength, 40);
AT(ZAVKM_CertItem, sigAlgId, 44);
AT(ZAVKM_CertItem, sigAlgIdLength, 48);
AT(ZAVKM_CertItem, sigAlgIdOID, 52);
AT(ZAVKM_CertItem, sigAlgIdOIDName, 56);
AT(ZAVKM_CertItem, spki, 72);
AT(ZAVKM_CertItem, spkiLength, 76);
AT(ZAVKM_CertItem, extensions, 80);

AT(ZAVKM_CertItemList, cert, 0);
AT(ZAVKM_CertItemList, next, 4);

AT(ZAVKM_CertReqItem, der, 0);
AT(ZAVKM_CertReqItem, derLength, 4);
AT(ZAVKM_CertReqItem, sig, 8);
AT(ZAVKM_CertReqItem, sigLength, 12);
AT(ZAVKM_CertReqItem, sigAlgId, 16);
AT(ZAVKM_CertReqItem, sigAlgIdLength, 20);
AT(ZAVKM_CertReqItem, sigAlgIdOID, 24);
AT(ZAVKM_CertReqItem, sigAlgIdOIDName, 28);
AT(ZAVKM_CertReqItem, certReqInfoItem, 32);

AT(ZAVKM_CertReqInfoItem, der, 0);
AT(ZAVKM_CertReqInfoItem, derLength, 4);
AT(ZAVKM_CertReqInfoItem, keySize, 8);
AT(ZAVKM_CertReqInfoItem, subjectName, 12);
AT(ZAVKM_CertReqInfoItem, spki, 16);
AT(ZAVKM_CertReqInfoItem, spkiLength, 20);
AT(ZAVKM_CertReqInfoItem, attributes, 24);
AT(ZAVKM_CertReqInfoItem, attributesLength, 28);

AT(ZAVKM_KeyItem, shortValue1, 0);
AT(ZAVKM_KeyItem, label, 4);
AT(ZAVKM_KeyItem, keySize, 8);
AT(ZAVKM_KeyItem, hasPrivateKey, 12);
AT(ZAVKM_KeyItem, hasCertList, 16);
AT(ZAVKM_KeyItem, hasKeyBer, 20);
AT(ZAVKM_KeyItem, keyFlag1, 24);
AT(ZAVKM_KeyItem, keyFlag2, 28);
AT(ZAVKM_KeyItem, epki, 32);
AT(ZAVKM_KeyItem, keyBer, 36);
AT(ZAVKM_KeyItem, keyBerLength, 40);
AT(ZAVKM_KeyItem, certList, 44);

AT(ZAVKM_ReqKeyItem, shortValue1, 0);
AT(ZAVKM_ReqKeyItem, label, 4);
AT(ZAVKM_ReqKeyItem, keySize, 8);
AT(ZAVKM_ReqKeyItem, hasKeyBer, 12);
AT(ZAVKM_ReqKeyItem, certReq, 16);
AT(ZAVKM_ReqKeyItem, epki, 20);
AT(ZAVKM_ReqKeyItem, keyBer, 24);
AT(ZAVKM_ReqKeyItem, keyBerLength, 28);

AT(ZAVKM_KeyItemList, key, 0);
AT(ZAVKM_KeyItemList, next, 4);

AT(ZAVKM_EPKIItem, der, 0);
AT(ZAVKM_EPKIItem, derLength, 4);
static_assert(sizeof(ZAVKM_EPKIItem) <= 32, "a client allocates 32 bytes for it");
AT(ZAVKM_PrivKeyInfoItem, der, 0);
AT(ZAVKM_PrivKeyInfoItem, derLength, 4);

AT(KeyStoreDescriptor, storeType, 0);
AT(KeyStoreDescriptor, keyDbFileName, 4);
AT(KeyStoreDescriptor, cryptoModuleName, 8);
AT(KeyStoreDescriptor, tokenLabel, 12);
AT(KeyStoreDescriptor, password, 256);
AT(KeyStoreDescriptor, newPassword, 260);
static_assert(sizeof(KeyStoreDescriptor) == 512);
