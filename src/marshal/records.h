// The key-management library's records to and from Java value objects.
// Every conversion returns a local reference or null and never frees the record it reads.
#pragma once

#include <jni.h>

#include "zavkm.h"

namespace zavkjni {

// JavaDNItem2CDN leaves in *out a new record made from the seven named parts of dnItem (texts
// copied with ZAVKM_Strdup), or null. The caller releases it with ZAVKM_FreeDNItem.
void JavaDNItem2CDN(JNIEnv* env, jobject dnItem, ZAVKM_DNItem** out) noexcept;

// getJavaDNItem returns a DNItem of dn (with its DER and further parts), or null.
jobject getJavaDNItem(JNIEnv* env, const ZAVKM_DNItem* dn) noexcept;

// getJavaCertItem returns a CertificateItem of cert: the full form when the record is decoded
// (serialNumber set), else the DER-only form; null on any failure.
jobject getJavaCertItem(JNIEnv* env, const ZAVKM_CertItem* cert) noexcept;

// getJavaCertItemArray returns an array with one CertificateItem per node up to the first node
// without a certificate, or null for an empty list or a failure.
jobjectArray getJavaCertItemArray(JNIEnv* env, const ZAVKM_CertItemList* head) noexcept;

// getJavaCertReqItem returns a CertificateRequestItem of request, or null.
jobject getJavaCertReqItem(JNIEnv* env, const ZAVKM_CertReqItem* request) noexcept;

// getJavaKeyItem returns the key form of KeyItem for key, with setHasPrivateKey called, or null.
jobject getJavaKeyItem(JNIEnv* env, const ZAVKM_KeyItem* key) noexcept;

// getJavaReqKeyItem returns the request form of KeyItem for key, or null.
jobject getJavaReqKeyItem(JNIEnv* env, const ZAVKM_ReqKeyItem* key) noexcept;

// getJavaKeyItemArray returns an array with one element per node, null records included (as
// null elements), or null for an empty list or a failure.
jobjectArray getJavaKeyItemArray(JNIEnv* env, const ZAVKM_KeyItemList* head) noexcept;

// getJavaEPKIItem returns an EncryptedPrivateKeyInfoItem of epki, or null.
jobject getJavaEPKIItem(JNIEnv* env, const ZAVKM_EPKIItem* epki) noexcept;

// getJavaPrivKeyInfoItem returns a PrivateKeyInfoItem of pki, or null.
jobject getJavaPrivKeyInfoItem(JNIEnv* env, const ZAVKM_PrivKeyInfoItem* pki) noexcept;

// getJavaKeyItemByLabel looks label up on the open store (a request key when isReqKey, else a
// key), converts what it finds and releases the record. Returns the KeyItem or null.
jobject getJavaKeyItemByLabel(JNIEnv* env, ZAVKM_KeyDbHandle handle, const char* label,
                              jboolean isReqKey) noexcept;

}  // namespace zavkjni
