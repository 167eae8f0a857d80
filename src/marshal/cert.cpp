// Certificates and certificate requests to Java value objects.
#include <cstdlib>

#include "marshal/classes.h"
#include "marshal/jni_access.h"
#include "marshal/records.h"
#include "trace/trace.h"

namespace zavkjni {
namespace {

// The low 16 bits of a 32-bit record field.
jshort low16(int32_t value) noexcept { return static_cast<jshort>(value & 0xFFFF); }

// The full form: the record decoded into its parts, with the unsigned certificate. Null at the
// first required part that cannot be made.
jobject newFullCertItem(JNIEnv* env, jclass cls, jmethodID ctor, const ZAVKM_CertItem* cert,
                        jbyteArray der) noexcept {
    jstring serial = newJavaStringUTF(env, cert->serialNumber);
    jobject issuer = getJavaDNItem(env, cert->issuer);
    jobject subject = getJavaDNItem(env, cert->subject);
    traceMessage("JNI_DEBUG......jCertificateItemClass effectTime = %ld\n",
                 static_cast<long>(cert->effectTime));
    jobject spki = getJavaBERObject(env, cert->spki, cert->spkiLength);
    if (spki == nullptr) return nullptr;
    jbyteArray signature = newJavaByteArray(env, cert->signature, cert->signatureLength);
    if (signature == nullptr) return nullptr;
    jobject sigAlgId = getJavaBERObject(env, cert->sigAlgId, cert->sigAlgIdLength);
    if (sigAlgId == nullptr) return nullptr;
    jstring oid = newJavaStringUTF(env, cert->sigAlgIdOID);
    jstring oidName = newJavaStringUTF(env, cert->sigAlgIdOIDName);
    // Sign-extended from 32 to 64 bits.
    jlong effectTime = cert->effectTime;
    jlong expireTime = cert->expireTime;
    uint8_t* tbs = nullptr;
    uint32_t tbsLength = 0;
    if (ZAVKM_GetUnsignedCertFromCert(cert->der, cert->derLength, &tbs, &tbsLength) != 0) {
        return nullptr;
    }
    jbyteArray unsignedCert = newJavaByteArray(env, tbs, tbsLength);
    free(tbs);  // this buffer alone is released with free
    if (unsignedCert == nullptr) return nullptr;
    return env->NewObject(cls, ctor, low16(cert->shortValue1), low16(cert->shortValue2), serial,
                          issuer, subject, effectTime, expireTime, spki, nullptr, signature,
                          sigAlgId, oid, oidName, unsignedCert, der);
}

}  // namespace

jobject getJavaCertItem(JNIEnv* env, const ZAVKM_CertItem* cert) noexcept {
    if (cert == nullptr) return nullptr;
    jclass cls = env->FindClass(sig::certItemClass);
    if (cls == nullptr) return nullptr;
    const bool decoded = cert->serialNumber != nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", decoded ? sig::certItemCtor : sig::bytesCtor);
    if (ctor == nullptr) return nullptr;
    traceMessage("JNI_DEBUG......constructorMID %p\n", static_cast<void*>(ctor));
    jbyteArray der = newJavaByteArray(env, cert->der, cert->derLength);
    if (der == nullptr) return nullptr;
    jobject object;
    if (!decoded) {
        traceMessage("JNI_DEBUG......to construct a cert");
        object = env->NewObject(cls, ctor, der);
    } else {
        object = newFullCertItem(env, cls, ctor, cert, der);
        if (object == nullptr) return nullptr;
    }
    traceMessage("JNI_DEBUG......exit(): produced jCertificateItem = 0x%x\n", ref(object));
    traceMessage("JNI_DEBUG......exit(): jCertificateItemClass = 0x%x\n", ref(cls));
    return object;
}

jobjectArray getJavaCertItemArray(JNIEnv* env, const ZAVKM_CertItemList* head) noexcept {
    if (head == nullptr) return nullptr;
    jclass cls = env->FindClass(sig::certItemClass);
    if (cls == nullptr) return nullptr;
    traceMessage("JNI_DEBUG......jCertificateItemClass = 0x%x\n", ref(cls));
    // A certificate list ends at the first node without a certificate.
    jsize count = 0;
    for (const ZAVKM_CertItemList* node = head; node != nullptr && node->cert != nullptr;
         node = node->next) {
        ++count;
    }
    traceMessage("JNI_DEBUG......certCnt = %d\n", count);
    jobjectArray array = env->NewObjectArray(count, cls, nullptr);
    if (array == nullptr) return nullptr;
    const ZAVKM_CertItemList* node = head;
    for (jsize i = 0; i < count; ++i, node = node->next) {
        env->SetObjectArrayElement(array, i, getJavaCertItem(env, node->cert));
    }
    traceMessage("JNI_DEBUG......retArray = 0x%x\n", ref(array));
    return array;
}

jobject getJavaCertReqItem(JNIEnv* env, const ZAVKM_CertReqItem* request) noexcept {
    if (request == nullptr) return nullptr;
    jclass cls = env->FindClass(sig::certReqItemClass);
    if (cls == nullptr) return nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", sig::certReqItemCtor);
    if (ctor == nullptr) return nullptr;
    const ZAVKM_CertReqInfoItem* info = request->certReqInfoItem;
    if (info == nullptr) return nullptr;  // a request without its information part is unusable
    jbyteArray der = newJavaByteArray(env, request->der, request->derLength);
    if (der == nullptr) return nullptr;
    jbyteArray infoDer = newJavaByteArray(env, info->der, info->derLength);
    if (infoDer == nullptr) return nullptr;
    jobject subject = getJavaDNItem(env, info->subjectName);
    jobject spki = getJavaBERObject(env, info->spki, info->spkiLength);
    if (spki == nullptr) return nullptr;
    jobject attributes = info->attributesLength != 0
                             ? getJavaBERObject(env, info->attributes, info->attributesLength)
                             : nullptr;
    jbyteArray signature = newJavaByteArray(env, request->sig, request->sigLength);
    if (signature == nullptr) return nullptr;
    jobject sigAlgId = getJavaBERObject(env, request->sigAlgId, request->sigAlgIdLength);
    if (sigAlgId == nullptr) return nullptr;
    jstring oid = newJavaStringUTF(env, request->sigAlgIdOID);
    jstring oidName = newJavaStringUTF(env, request->sigAlgIdOIDName);
    traceMessage(
        "JNI_DEBUG......getJavaCertReqItem(): produced certReqItem->certReqInfoItem->keySize = "
        "0x%x\n",
        static_cast<unsigned>(info->keySize));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jSubjectName = 0x%x\n",
                 ref(subject));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jSPKI = 0x%x\n", ref(spki));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jSig = 0x%x\n", ref(signature));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jSigAlgId = 0x%x\n",
                 ref(sigAlgId));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jSigAlgIdOID = 0x%x\n", ref(oid));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jsigAlgIdOIDName = 0x%x\n",
                 ref(oidName));
    traceMessage("JNI_DEBUG......getJavaCertReqItem(): produced jBerData = 0x%x\n", ref(der));
    jobject object = env->NewObject(cls, ctor, low16(info->keySize), subject, spki, attributes,
                                    signature, sigAlgId, oid, oidName, der, infoDer);
    traceMessage("JNI_DEBUG......jCertReqItemClass = 0x%x, retObj = 0x%x\n", ref(cls),
                 ref(object));
    return object;
}

}  // namespace zavkjni
