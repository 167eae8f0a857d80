// Natives of MSCertificateStore: the platform certificate store behind a named provider, which
// the key-management library reaches through a descriptor of store type 4.
//
// The store access: the provider name and the password are optional (traced as NULL and never
// taken when absent), then the native's other strings; the descriptor names the provider as its
// token label; open, operation, close whatever the operation returned; strings back in order.
#include <jni.h>

#include "jni/frame.h"
#include "km/km_routines.h"
#include "marshal/classes.h"
#include "marshal/jni_access.h"
#include "marshal/records.h"
#include "trace/trace.h"
#include "zavkm.h"

using namespace zavkjni;

namespace {

constexpr const char* passwordTrace = "JNI_DEBUG......cPassword = %s\n";
// Two natives trace a given store password under the token password's name.
constexpr const char* tokenPasswordTrace = "JNI_DEBUG......cCryptographicTokenPassword = %s\n";

struct StoreNames {
    const char* providerName;
    const char* password;
};

StoreNames takeStoreNames(JavaStrings& strings, jstring cspName, jstring password,
                          const char* passwordFormat = passwordTrace) noexcept {
    StoreNames names{};
    names.providerName = strings.takeOptional(cspName, "JNI_DEBUG......cCSPName = %s\n",
                                              "JNI_DEBUG......cCSPName = NULL\n");
    names.password =
        strings.takeOptional(password, passwordFormat, "JNI_DEBUG......cPassword = NULL\n");
    return names;
}

template <class Operation>
ZAVKM_ReturnCode withCertStore(const JavaStrings& strings, StoreNames store,
                               Operation&& operation) noexcept {
    return withStore(strings, certStoreDescriptor(store.providerName, store.password), operation);
}

}  // namespace

// ---- discovery, listing and lookup ---------------------------------------------------------

ZAVKJNI_NATIVE(jint, MSCertificateStore, c_1GetCSPNameList)(JNIEnv* env, jclass cls) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, cls)) return ZAVKM_ERR_PARAMETER;
    jmethodID addCSPName = env->GetStaticMethodID(cls, "addCSPName", sig::labelCallback);
    if (addCSPName == nullptr) return ZAVKM_ERR_PARAMETER;
    // An empty module name asks for the provider names; no store is opened.
    zavkm::LabelListPtr names;
    ZAVKM_ReturnCode rc = ZAVKM_GetCryptoTokenLabelList("", out(names));
    if (rc == 0) deliverLabels(env, names.get(), {cls, addCSPName, true}, labelTraceNone);
    return rc;
}

ZAVKJNI_NATIVE(jint, MSCertificateStore, c_1BuildKeyLabelList)(JNIEnv* env, jobject self,
                                                              jstring cspName,
                                                              jstring password) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return ZAVKM_ERR_PARAMETER;
    jclass cls = env->GetObjectClass(self);
    if (cls == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID all = env->GetMethodID(cls, "addKeyLabel", sig::labelCallback);
    if (all == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID personal = env->GetMethodID(cls, "addPersonalKeyLabel", sig::labelCallback);
    if (personal == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID signer = env->GetMethodID(cls, "addSignerKeyLabel", sig::labelCallback);
    if (signer == nullptr) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password);
    return withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        zavkm::LabelListPtr labels;  // released before the store is closed
        ZAVKM_ReturnCode rc = ZAVKM_GetKeyDbLabelList(handle, out(labels));
        if (rc != 0) return rc;
        return deliverSortedLabels(env, handle, labels.get(), {self, all, personal, signer});
    });
}

ZAVKJNI_NATIVE(jobject, MSCertificateStore, c_1GetKeyItemByLabel)(JNIEnv* env, jobject self,
                                                                 jstring cspName,
                                                                 jstring password,
                                                                 jstring keyLabel) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self) || keyLabel == nullptr) return nullptr;  // no class lookup here
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    jobject keyItem = nullptr;
    withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        keyItem = getJavaKeyItemByLabel(env, handle, label, JNI_FALSE);  // never a request key
        return 0;
    });
    return keyItem;
}

ZAVKJNI_NATIVE(jobjectArray, MSCertificateStore, c_1GetKeyItemListByLabel)(
    JNIEnv* env, jobject self, jstring cspName, jstring password, jstring keyLabel) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return nullptr;
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    jobjectArray keyItems = nullptr;
    withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        keyItems = keyItemArray(env, handle, "JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets %s\n",
                                [label](ZAVKM_KeyDbHandle h, ZAVKM_KeyItemList** list) {
                                    return ZAVKM_GetKeyItemListByLabel(h, label, list);
                                });
        return 0;
    });
    return keyItems;
}

ZAVKJNI_NATIVE(jobjectArray, MSCertificateStore, c_1GetKeyItemsByPublicKey)(
    JNIEnv* env, jobject self, jstring cspName, jstring password, jint publicKeyLen,
    jbyteArray publicKey) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self) || publicKeyLen <= 0) return nullptr;
    JavaBytes key;  // freed after the strings are given back
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password, tokenPasswordTrace);
    if (key.from(env, publicKey, publicKeyLen) == nullptr) return nullptr;
    jobjectArray keyItems = nullptr;
    withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        keyItems = keyItemArray(env, handle, "JNI_DEBUG......ZAVKM_GetKeyItemsByPublicKey gets %s\n",
                                [&key, publicKeyLen](ZAVKM_KeyDbHandle h, ZAVKM_KeyItemList** list) {
                                    return ZAVKM_GetKeyItemsByPublicKey(
                                        h, static_cast<uint32_t>(publicKeyLen), key.data, list);
                                });
        return 0;
    });
    return keyItems;
}

// ---- maintenance and certificate creation --------------------------------------------------

ZAVKJNI_NATIVE(jint, MSCertificateStore, c_1DeleteKeyItemByLabel)(JNIEnv* env, jobject self,
                                                                 jstring cspName,
                                                                 jstring password,
                                                                 jstring keyLabel) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self) || keyLabel == nullptr) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    return withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        return KM_DeleteKeyItem(handle, label, false);  // a key record, never a request key
    });
}

ZAVKJNI_NATIVE(jint, MSCertificateStore, c_1ImportCertificate)(
    JNIEnv* env, jobject self, jstring cspName, jstring password, jstring keyLabel,
    jint certDataLen, jbyteArray certData, jint keyDataLen, jbyteArray keyData) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self) || keyLabel == nullptr || certData == nullptr || certDataLen == 0) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes cert;
    JavaBytes key;
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password, tokenPasswordTrace);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    // A certificate copy that cannot be made reaches the library as null with its length.
    cert.from(env, certData, certDataLen);
    if (keyDataLen > 0) key.from(env, keyData, keyDataLen);
    return withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_InsertKey(handle, label, static_cast<uint32_t>(certDataLen), cert.data,
                               static_cast<uint32_t>(keyDataLen), key.data, 0, 0);
    });
}

ZAVKJNI_NATIVE(jint, MSCertificateStore, c_1AddSignerCertificate)(
    JNIEnv* env, jobject self, jstring cspName, jstring password, jstring keyLabel,
    jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self) || keyLabel == nullptr || certFileName == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* certFile = strings.take(certFileName, msg::certFileName);
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    LibraryBlock cert;
    ZAVKM_ReturnCode rc = KM_ReadCertFileToBuf(certFile, isBase64, &cert.data, &cert.length);
    if (rc != 0) return rc;  // the store is not opened
    return withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_StoreCACert(handle, cert.data, cert.length, label);
    });
}

ZAVKJNI_NATIVE(jint, MSCertificateStore, c_1CreateNewSelfSignedCertificate)(
    JNIEnv* env, jobject self, jstring cspName, jstring password, jint selfSignArg1,
    jstring keyLabel, jint selfSignArg2, jobject dnItem, jint selfSignArg3,
    jint signatureAlgorithm, jint extensionsDataLen, jbyteArray extensionsData) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self) || !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes extensions;
    JavaStrings strings(env);
    StoreNames store = takeStoreNames(strings, cspName, password);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    if (extensionsDataLen > 0) extensions.from(env, extensionsData, extensionsDataLen);
    return createSelfSigned(
        env, strings, dnItem,
        {"JNI_DEBUG......to call ZAVKM_CreateSelfSignedCertSig()\n",
         "JNI_DEBUG......after call ZAVKM_CreateSelfSignedCertSig()\n",
         "JNI_DEBUG......to exit MSCertificateStore_c_1CreateNewSelfSignedCertificate()\n"},
        [&](const ZAVKM_DNItem* dn) {
            return withCertStore(strings, store, [&](ZAVKM_KeyDbHandle handle) {
                // Not the default key, no certificate file.
                return ZAVKM_CreateSelfSignedCertSigExt(
                    handle, label, 0, selfSignArg1, selfSignArg2, dn, selfSignArg3,
                    signatureAlgorithm, extensions.data, static_cast<uint32_t>(extensionsDataLen),
                    nullptr, 0);
            });
        });
}
