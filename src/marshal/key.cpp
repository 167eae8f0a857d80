// Key records, request key records, key lists and PKCS#8 records to Java value objects, and
// the lookup of one key by label.
#include "marshal/classes.h"
#include "marshal/jni_access.h"
#include "marshal/records.h"
#include "trace/trace.h"

namespace zavkjni {
namespace {

jshort low16(int32_t value) noexcept { return static_cast<jshort>(value & 0xFFFF); }
jboolean lowByte(int32_t flag) noexcept { return static_cast<jboolean>(flag & 0xFF); }

jobject keyBerOf(JNIEnv* env, int32_t hasKeyBer, const uint8_t* keyBer, uint32_t length) noexcept {
    return hasKeyBer != 0 && length != 0 ? getJavaBERObject(env, keyBer, length) : nullptr;
}

// setHasPrivateKey on a new KeyItem; null when the method is missing (the object is dropped).
jobject withHasPrivateKey(JNIEnv* env, jclass cls, jobject object, jboolean hasPrivateKey) noexcept {
    jmethodID set = env->GetMethodID(cls, "setHasPrivateKey", "(Z)V");
    if (set == nullptr) return nullptr;
    env->CallVoidMethod(object, set, hasPrivateKey);
    return object;
}

// A Java object of class name built from DER bytes with its "([B)V" constructor.
jobject newDerObject(JNIEnv* env, const char* className, const uint8_t* der, uint32_t length,
                     const char* traceFormat) noexcept {
    jclass cls = env->FindClass(className);
    if (cls == nullptr) return nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", sig::bytesCtor);
    if (ctor == nullptr) return nullptr;
    jbyteArray bytes = newJavaByteArray(env, der, length);
    if (bytes == nullptr) return nullptr;
    jobject object = env->NewObject(cls, ctor, bytes);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    traceMessage(traceFormat, ref(cls), ref(object));
#pragma GCC diagnostic pop
    return object;
}

}  // namespace

jobject getJavaKeyItem(JNIEnv* env, const ZAVKM_KeyItem* key) noexcept {
    if (key == nullptr) return nullptr;
    jclass cls = env->FindClass(sig::keyItemClass);
    traceMessage("JNI_DEBUG......jKeyItemClass = 0x%x\n", ref(cls));
    if (cls == nullptr) return nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", sig::keyItemCtor);
    if (ctor == nullptr) return nullptr;
    traceMessage("JNI_DEBUG......jKeyItemClass = 0x%x, constructor=0x%x\n", ref(cls), ref(ctor));
    jstring label = newJavaStringUTF(env, key->label);
    jobject epki = key->hasPrivateKey != 0 && key->epki != nullptr ? getJavaEPKIItem(env, key->epki)
                                                                    : nullptr;
    jobject keyBer = keyBerOf(env, key->hasKeyBer, key->keyBer, key->keyBerLength);
    jobjectArray certs = key->hasCertList != 0 ? getJavaCertItemArray(env, key->certList) : nullptr;
    jobject object = env->NewObject(cls, ctor, label, low16(key->shortValue1), low16(key->keySize),
                                    epki, certs, keyBer, lowByte(key->keyFlag1),
                                    lowByte(key->keyFlag2));
    if (object == nullptr) return nullptr;
    return withHasPrivateKey(env, cls, object, lowByte(key->hasPrivateKey));
}

jobject getJavaReqKeyItem(JNIEnv* env, const ZAVKM_ReqKeyItem* key) noexcept {
    if (key == nullptr) return nullptr;
    jclass cls = env->FindClass(sig::keyItemClass);
    if (cls == nullptr) return nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", sig::reqKeyItemCtor);
    if (ctor == nullptr) return nullptr;
    traceMessage("JNI_DEBUG......jKeyItemClass = 0x%x, constructor=0x%x\n", ref(cls), ref(ctor));
    jstring label = newJavaStringUTF(env, key->label);
    jobject epki = getJavaEPKIItem(env, key->epki);
    jobject keyBer = keyBerOf(env, key->hasKeyBer, key->keyBer, key->keyBerLength);
    jobject request = getJavaCertReqItem(env, key->certReq);
    jobject object = env->NewObject(cls, ctor, label, low16(key->shortValue1),
                                    low16(key->keySize), epki, request, keyBer);
    if (object == nullptr) return nullptr;
    // A request key always reports its private key.
    return withHasPrivateKey(env, cls, object, JNI_TRUE);
}

jobjectArray getJavaKeyItemArray(JNIEnv* env, const ZAVKM_KeyItemList* head) noexcept {
    jclass cls = env->FindClass(sig::keyItemClass);
    if (cls == nullptr || head == nullptr) return nullptr;
    // Unlike certificate lists, a key list counts nodes without a record too.
    jsize count = 0;
    for (const ZAVKM_KeyItemList* node = head; node != nullptr; node = node->next) ++count;
    traceMessage("JNI_DEBUG......cKeyItemList count is = %d\n", count);
    jobjectArray array = env->NewObjectArray(count, cls, nullptr);
    if (array == nullptr) return nullptr;
    jsize i = 0;
    for (const ZAVKM_KeyItemList* node = head; node != nullptr; node = node->next, ++i) {
        if (node->key != nullptr) env->SetObjectArrayElement(array, i, getJavaKeyItem(env, node->key));
    }
    return array;
}

jobject getJavaEPKIItem(JNIEnv* env, const ZAVKM_EPKIItem* epki) noexcept {
    if (epki == nullptr) return nullptr;
    return newDerObject(env, sig::epkiItemClass, epki->der, epki->derLength,
                        "JNI_DEBUG......jEncryptedPrivateKeyInfoItem = 0x%x, retObj = 0x%x\n");
}

jobject getJavaPrivKeyInfoItem(JNIEnv* env, const ZAVKM_PrivKeyInfoItem* pki) noexcept {
    if (pki == nullptr) return nullptr;
    return newDerObject(env, sig::pkiItemClass, pki->der, pki->derLength,
                        "JNI_DEBUG......jPrivateKeyInfoItem = 0x%x, retObj = 0x%x\n");
}

jobject getJavaKeyItemByLabel(JNIEnv* env, ZAVKM_KeyDbHandle handle, const char* label,
                              jboolean isReqKey) noexcept {
    jobject result = nullptr;
    if (!isReqKey) {
        ZAVKM_KeyItem* key = nullptr;
        ZAVKM_GetKeyItemByLabel(handle, label, &key);  // only the record tells
        traceMessage("JNI_DEBUG......KM_GetKeyItem gets %s\n", nullness(key));
        if (key != nullptr) {
            traceMessage("JNI_DEBUG......cKeyItem->keySize = %d\n", key->keySize);
            result = getJavaKeyItem(env, key);
            ZAVKM_FreeKeyItem(key);
        }
    } else {
        ZAVKM_ReqKeyItem* key = nullptr;
        ZAVKM_GetReqKeyItemByLabel(handle, label, &key);
        traceMessage("JNI_DEBUG......KM_GetReqKeyItem gets %s\n", nullness(key));
        if (key != nullptr) {
            traceMessage("JNI_DEBUG......cReqKeyItem->keySize = %d\n", key->keySize);
            result = getJavaReqKeyItem(env, key);
            ZAVKM_FreeReqKeyItem(key);
        }
    }
    return result;
}

}  // namespace zavkjni
