// Natives of CMSKeyDatabase and WEBDBKeyDatabase: key database files.
//
// Each native runs the key-database frame (jni/frame.h): reference check with its early-failure
// value, strings taken and traced one by one, conversions, the open, the operation only after a
// successful open, the close, records converted and released with their own operation, strings
// given back in the order taken. What follows each native's opening lines is what it adds.
//
// A required Java string that arrives null is not taken; the native then opens nothing and
// answers its early-failure value (65, false or null).
#include <jni.h>

#include <cstdlib>
#include <cstring>

#include "jni/frame.h"
#include "km/descriptor.h"
#include "marshal/classes.h"
#include "km/km_routines.h"
#include "marshal/jni_access.h"
#include "marshal/records.h"
#include "trace/trace.h"
#include "zavkm.h"

using namespace zavkjni;

namespace {

constexpr const char* keyLabelsTrace = "JNI_DEBUG......cLabel = %s\n";
constexpr const char* reqLabelsTrace = "JNI_DEBUG......cReqLabel = %s\n";

// The password probes of key database and WEBDB files differ only in the descriptor.
jboolean isPasswordRequired(JNIEnv* env, jobject self, jstring keyDbFileName,
                            KeyStoreDescriptor (*describe)(const char*)) noexcept {
    if (!hasSelf(env, self) || keyDbFileName == nullptr) return JNI_FALSE;
    JavaStrings strings(env);
    const char* fileName = strings.take(keyDbFileName, "JNI_DEBUG......cKeyDbFilename = %s\n");
    if (strings.missing()) return JNI_FALSE;
    KeyStoreDescriptor descriptor = describe(fileName);
    uint8_t required = 0;
    ZAVKM_ReturnCode rc = ZAVKM_IsPasswordRequired(&descriptor, &required);
    return rc == 0 && required == 1 ? JNI_TRUE : JNI_FALSE;
}

KeyStoreDescriptor describeKeyDbFile(const char* fileName) noexcept {
    return keyDbFileDescriptor(fileName, nullptr);
}

}  // namespace

// ---- files and passwords -------------------------------------------------------------------

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1CreateNewKeyDb)(JNIEnv* env, jobject self,
                                                       jstring keyDbFileName, jstring keyDbPwd,
                                                       jlong pwdExpireTime) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    ZAVKM_KeyDbHandle handle = 0;
    ZAVKM_ReturnCode rc =
        ZAVKM_CreateNewKeyDb(db.fileName, db.password, expirySeconds(pwdExpireTime), &handle);
    if (rc == 0 && handle != 0) ZAVKM_CloseKeyDb(handle);  // the new file is left closed
    return rc;
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1OpenKeyDb)(JNIEnv* env, jobject self,
                                                  jstring keyDbFileName,
                                                  jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    // Only proves that the file opens with this password.
    return withKeyDb(strings, db, [](ZAVKM_KeyDbHandle) { return 0; });
}

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabase, c_1ChangeKeyDbPwd)(JNIEnv* env, jobject self,
                                                           jstring keyDbFileName,
                                                           jstring oldKeyDbPwd,
                                                           jstring newKeyDbPwd,
                                                           jlong pwdExpireTime) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......c_ChangeKeyDbPwd......\n");
    if (!hasClass(env, self)) return JNI_FALSE;
    JavaStrings strings(env);
    const char* fileName = strings.take(keyDbFileName, msg::keyDbFileName);
    const char* oldPwd = strings.take(oldKeyDbPwd, "JNI_DEBUG......cOldKeyDbPwd = %s\n");
    const char* newPwd = strings.take(newKeyDbPwd, "JNI_DEBUG......cNewKeyDbPwd = %s\n");
    if (strings.missing()) return JNI_FALSE;
    // Works on the named file; nothing is opened here.
    return ZAVKM_ChangeKeyDbPwd(fileName, oldPwd, newPwd, expirySeconds(pwdExpireTime)) == 0;
}

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabase, c_1StashKeyDbPwd)(JNIEnv* env, jobject self,
                                                          jstring keyDbFileName,
                                                          jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......c_StashKeyDbPwd......\n");
    if (!hasSelf(env, self)) return JNI_FALSE;  // no class lookup here
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    if (strings.missing()) return JNI_FALSE;
    return ZAVKM_StashKeyDbPwd(db.fileName, db.password) == 0;
}

// ---- labels and lookup ---------------------------------------------------------------------

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1BuildKeyLabelList)(JNIEnv* env, jobject self,
                                                          jstring keyDbFileName,
                                                          jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return ZAVKM_ERR_PARAMETER;
    jclass cls = env->GetObjectClass(self);
    if (cls == nullptr) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    jmethodID addKeyLabel = env->GetMethodID(cls, "addKeyLabel", sig::labelCallback);
    if (addKeyLabel == nullptr) return ZAVKM_ERR_PARAMETER;  // before the file is opened
    zavkm::LabelListPtr keyLabels;
    zavkm::LabelListPtr reqLabels;
    ZAVKM_ReturnCode rc = withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        ZAVKM_ReturnCode listed = ZAVKM_GetKeyDbLabelList(handle, out(keyLabels));
        if (listed == 0) listed = ZAVKM_GetReqKeyDbLabelList(handle, out(reqLabels));
        return listed;
    });
    // Delivered after the close: the key labels whatever happened, the request labels only when
    // every call succeeded and Java has a method for them.
    deliverAndFreeLabels(env, keyLabels.release(), {self, addKeyLabel, false}, keyLabelsTrace);
    if (rc == 0 && reqLabels) {
        jmethodID addReqKeyLabel = env->GetMethodID(cls, "addReqKeyLabel", sig::labelCallback);
        if (addReqKeyLabel != nullptr) {
            deliverLabels(env, reqLabels.get(), {self, addReqKeyLabel, false}, reqLabelsTrace);
        }
    }
    reqLabels.reset();
    return rc;
}

ZAVKJNI_NATIVE(jobject, CMSKeyDatabase, c_1GetKeyItemByLabel)(JNIEnv* env, jobject self,
                                                             jstring keyDbFileName,
                                                             jstring keyDbPwd, jstring keyLabel,
                                                             jboolean isReqKey) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return nullptr;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    jobject keyItem = nullptr;
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        keyItem = getJavaKeyItemByLabel(env, handle, label, isReqKey);
        return 0;
    });
    return keyItem;
}

ZAVKJNI_NATIVE(jobjectArray, CMSKeyDatabase, c_1GetKeyItemListByLabel)(JNIEnv* env, jobject self,
                                                                      jstring keyDbFileName,
                                                                      jstring keyDbPwd,
                                                                      jstring keyLabel) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return nullptr;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    jobjectArray keyItems = nullptr;
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        keyItems = keyItemArray(env, handle, "JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets %s\n",
                                [label](ZAVKM_KeyDbHandle h, ZAVKM_KeyItemList** list) {
                                    return ZAVKM_GetKeyItemListByLabel(h, label, list);
                                });
        return 0;
    });
    return keyItems;
}

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabase, c_1IsPrivateKeyPresent)(JNIEnv* env, jobject self,
                                                                jstring keyDbFileName,
                                                                jstring keyDbPwd,
                                                                jstring keyLabel) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return JNI_FALSE;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    uint8_t present = 0;
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        ZAVKM_IsPrivateKeyPresent(handle, label, &present);  // only the flag is used
        return 0;
    });
    return present == 1 ? JNI_TRUE : JNI_FALSE;
}

ZAVKJNI_NATIVE(jobject, CMSKeyDatabase, c_1GetDefaultKeyItem)(JNIEnv* env, jobject self,
                                                             jstring keyDbFileName,
                                                             jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return nullptr;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    zavkm::KeyItemPtr key;
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_GetDefaultKeyItem(handle, out(key));
    });
    // Converted after the close, on every path.
    traceMessage("JNI_DEBUG......ZAVKM_GetDefaultKeyItem gets %s\n", nullness(key.get()));
    jobject keyItem = nullptr;
    if (key) {
        traceMessage("JNI_DEBUG......cKeyItem->keySize = %d\n", key->keySize);
        keyItem = getJavaKeyItem(env, key.get());
        key.reset();
    }
    return keyItem;
}

ZAVKJNI_NATIVE(jobjectArray, CMSKeyDatabase, c_1GetKeyItemsByPublicKey)(JNIEnv* env,
                                                                       jobject self,
                                                                       jstring keyDbFileName,
                                                                       jstring keyDbPwd,
                                                                       jint publicKeyLen,
                                                                       jbyteArray publicKey) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self) || publicKeyLen <= 0) return nullptr;
    JavaBytes key;  // freed after the strings are given back
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    if (key.from(env, publicKey, publicKeyLen) == nullptr) return nullptr;
    jobjectArray keyItems = nullptr;
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        keyItems = keyItemArray(env, handle, "JNI_DEBUG......ZAVKM_GetKeyItemsByPublicKey gets %s\n",
                                [&key, publicKeyLen](ZAVKM_KeyDbHandle h, ZAVKM_KeyItemList** list) {
                                    return ZAVKM_GetKeyItemsByPublicKey(
                                        h, static_cast<uint32_t>(publicKeyLen), key.data, list);
                                });
        return 0;
    });
    return keyItems;
}

// ---- certificate and request creation ------------------------------------------------------

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1CreateNewSelfSignedCertificate)(
    JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd, jint selfSignArg1,
    jstring keyLabel, jboolean selfSignFlag, jint selfSignArg2, jobject dnItem, jint selfSignArg3,
    jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* certFile = strings.takeOptional(certFileName, msg::certFileName);
    return createSelfSigned(
        env, strings, dnItem,
        {"JNI_DEBUG......to call ZAVKM_CreateSelfSignedCert()\n",
         "JNI_DEBUG......after call ZAVKM_CreateSelfSignedCert()\n",
         "JNI_DEBUG......to exit CMSKeyDatabase_c_1CreateNewSelfSignedCertificate()\n"},
        [&](const ZAVKM_DNItem* dn) {
            return withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
                return ZAVKM_CreateSelfSignedCert(handle, label, selfSignFlag, selfSignArg1,
                                                  selfSignArg2, dn, selfSignArg3, certFile,
                                                  isBase64);
            });
        });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1CreateNewSelfSignedCertificateSigExt)(
    JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd, jint selfSignArg1,
    jstring keyLabel, jboolean selfSignFlag, jint selfSignArg2, jobject dnItem, jint selfSignArg3,
    jint signatureAlgorithm, jint extensionsDataLen, jbyteArray extensionsData,
    jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self) || !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes extensions;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* certFile = strings.takeOptional(certFileName, msg::certFileName);
    if (extensionsDataLen > 0) extensions.from(env, extensionsData, extensionsDataLen);
    return createSelfSigned(
        env, strings, dnItem,
        {"JNI_DEBUG......to call ZAVKM_CreateSelfSignedCertSig()\n",
         "JNI_DEBUG......after call ZAVKM_CreateSelfSignedCertSig()\n",
         "JNI_DEBUG......to exit CMSKeyDatabase_c_1CreateNewSelfSignedCertificateSig()\n"},
        [&](const ZAVKM_DNItem* dn) {
            return withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
                return ZAVKM_CreateSelfSignedCertSigExt(
                    handle, label, selfSignFlag, selfSignArg1, selfSignArg2, dn, selfSignArg3,
                    signatureAlgorithm, extensions.data, static_cast<uint32_t>(extensionsDataLen),
                    certFile, isBase64);
            });
        });
}

namespace {

// A new request needs the subject converted first (116 when it does not convert); the same
// request made again uses neither the subject nor the key size.
template <class CreateNew, class MakeAgain>
jint createRequest(JNIEnv* env, const JavaStrings& strings, KeyDbNames db, jboolean isNewCertReq,
                   jobject dnItem, CreateNew createNew, MakeAgain makeAgain) noexcept {
    if (!isNewCertReq) return withKeyDb(strings, db, makeAgain);
    zavkm::DNPtr dn;
    JavaDNItem2CDN(env, dnItem, out(dn));
    if (!dn) return ZAVKM_ERR_INVALID_DN_INPUT;
    return withKeyDb(strings, db,
                     [&](ZAVKM_KeyDbHandle handle) { return createNew(handle, dn.get()); });
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1CreateNewCertRequest)(
    JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd, jstring keyLabel,
    jint certReqArg, jobject dnItem, jstring certReqFileName, jboolean isNewCertReq) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* reqFile = strings.take(certReqFileName, msg::certReqFileName);
    return createRequest(
        env, strings, db, isNewCertReq, dnItem,
        [&](ZAVKM_KeyDbHandle handle, const ZAVKM_DNItem* dn) {
            return ZAVKM_CreateNewCertReq(handle, label, certReqArg, dn, reqFile, nullptr, nullptr);
        },
        [&](ZAVKM_KeyDbHandle handle) {
            return ZAVKM_ReCreateCertReq(handle, label, reqFile, nullptr, nullptr);
        });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1CreateNewCertRequestSigExt)(
    JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd, jstring keyLabel,
    jint certReqArg, jobject dnItem, jint signatureAlgorithm, jint extensionsDataLen,
    jbyteArray extensionsData, jstring certReqFileName, jboolean isNewCertReq) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self) || !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes extensions;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* reqFile = strings.takeIfPresent(certReqFileName);  // not traced
    if (extensionsDataLen > 0) extensions.from(env, extensionsData, extensionsDataLen);
    return createRequest(
        env, strings, db, isNewCertReq, dnItem,
        [&](ZAVKM_KeyDbHandle handle, const ZAVKM_DNItem* dn) {
            return ZAVKM_CreateNewCertReqSigExt(handle, label, certReqArg, dn, signatureAlgorithm,
                                                extensions.data,
                                                static_cast<uint32_t>(extensionsDataLen), reqFile,
                                                nullptr, nullptr);
        },
        [&](ZAVKM_KeyDbHandle handle) {
            return ZAVKM_ReCreateCertReqSig(handle, label, signatureAlgorithm, reqFile, nullptr,
                                            nullptr);
        });
}

namespace {

// The issue natives: the request file is read before the key database is touched, and the two
// file names go back request first.
template <class Issue>
jint issueCertificate(JNIEnv* env, jstring keyDbFileName, jstring keyDbPwd,
                      jstring issuerKeyLabel, jstring serialNumber, jstring certReqFileName,
                      jstring certFileName, Issue issue) noexcept {
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* issuer = strings.take(issuerKeyLabel, "JNI_DEBUG......cIssuerKeyLabel = %s\n");
    const char* serial = strings.take(serialNumber, "JNI_DEBUG......cSerialNumber = %s\n");
    const char* certFile = strings.take(certFileName, msg::certFileName);
    const char* reqFile = strings.take(certReqFileName, msg::certReqFileName);
    ZAVKM_ReturnCode rc = ZAVKM_ERR_PARAMETER;
    if (!strings.missing()) {
        LibraryBlock request;
        rc = ZAVKM_Base64DecodeFileToBuf(reqFile, &request.data, &request.length);
        if (rc == 0) {
            rc = withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
                return issue(handle, request.data, request.length, issuer, serial, certFile);
            });
            request.release();  // also when the open failed
        }
    }
    strings.releaseInOrder(
        {db.fileName, db.password, issuer, serial, reqFile, certFile});
    return rc;
}

bool issueArgumentsPresent(JNIEnv* env, jobject self, jstring certReqFileName,
                           jstring certFileName, jstring issuerKeyLabel,
                           jstring serialNumber) noexcept {
    return hasSelf(env, self) && certReqFileName != nullptr && certFileName != nullptr &&
           issuerKeyLabel != nullptr && serialNumber != nullptr &&
           env->GetObjectClass(self) != nullptr;
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1IssueCertificate)(
    JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd, jstring issuerKeyLabel,
    jint issueArg1, jstring serialNumber, jint issueArg2, jstring certReqFileName,
    jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!issueArgumentsPresent(env, self, certReqFileName, certFileName, issuerKeyLabel,
                               serialNumber)) {
        return ZAVKM_ERR_PARAMETER;
    }
    return issueCertificate(
        env, keyDbFileName, keyDbPwd, issuerKeyLabel, serialNumber, certReqFileName, certFileName,
        [&](ZAVKM_KeyDbHandle handle, const uint8_t* request, uint32_t length, const char* issuer,
            const char* serial, const char* certFile) {
            return ZAVKM_IssueCert(handle, request, length, issuer, issueArg1, serial, issueArg2,
                                   certFile, isBase64 == 1, nullptr, nullptr);
        });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1IssueCertificateSig)(
    JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd, jstring issuerKeyLabel,
    jint issueArg1, jstring serialNumber, jint issueArg2, jint signatureAlgorithm,
    jstring certReqFileName, jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!issueArgumentsPresent(env, self, certReqFileName, certFileName, issuerKeyLabel,
                               serialNumber) ||
        !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    return issueCertificate(
        env, keyDbFileName, keyDbPwd, issuerKeyLabel, serialNumber, certReqFileName, certFileName,
        [&](ZAVKM_KeyDbHandle handle, const uint8_t* request, uint32_t length, const char* issuer,
            const char* serial, const char* certFile) {
            return ZAVKM_IssueCertSig(handle, request, length, issuer, issueArg1, serial,
                                      issueArg2, signatureAlgorithm, certFile, isBase64 == 1,
                                      nullptr, nullptr);
        });
}

// ---- key record maintenance ----------------------------------------------------------------

namespace {

// The label natives that change one record: reference check, file, password, label, operation.
template <class Operation>
jint onLabel(JNIEnv* env, jobject self, jstring keyDbFileName, jstring keyDbPwd,
             jstring keyLabel, Operation operation) noexcept {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    return withKeyDb(strings, db,
                     [&](ZAVKM_KeyDbHandle handle) { return operation(handle, label); });
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1DeleteKeyByLabel)(JNIEnv* env, jobject self,
                                                         jstring keyDbFileName, jstring keyDbPwd,
                                                         jstring keyLabel,
                                                         jboolean isReqKey) ZAVKJNI_NOEXCEPT {
    return onLabel(env, self, keyDbFileName, keyDbPwd, keyLabel,
                   [isReqKey](ZAVKM_KeyDbHandle handle, const char* label) {
                       return KM_DeleteKeyItem(handle, label, isReqKey);
                   });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1SetDefaultKey)(JNIEnv* env, jobject self,
                                                      jstring keyDbFileName, jstring keyDbPwd,
                                                      jstring keyLabel) ZAVKJNI_NOEXCEPT {
    return onLabel(env, self, keyDbFileName, keyDbPwd, keyLabel, ZAVKM_SetDefaultKeyByLabel);
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1SetKeyTrust)(JNIEnv* env, jobject self,
                                                    jstring keyDbFileName, jstring keyDbPwd,
                                                    jstring keyLabel,
                                                    jboolean isTrusted) ZAVKJNI_NOEXCEPT {
    return onLabel(env, self, keyDbFileName, keyDbPwd, keyLabel,
                   [isTrusted](ZAVKM_KeyDbHandle handle, const char* label) {
                       return ZAVKM_SetTrustStatus(handle, label, isTrusted ? 1 : 0);
                   });
}

// The insert natives look at neither `this` nor its class. Without an environment nothing can
// be taken at all, so that alone is refused.
ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1InsertKey)(JNIEnv* env, jobject, jstring keyDbFileName,
                                                  jstring keyDbPwd, jstring keyLabel,
                                                  jint certDataLen, jbyteArray certData,
                                                  jint keyDataLen, jbyteArray keyData,
                                                  jboolean insertKeyFlag1,
                                                  jboolean insertKeyFlag2) ZAVKJNI_NOEXCEPT {
    if (env == nullptr) return ZAVKM_ERR_PARAMETER;
    JavaBytes cert;
    JavaBytes key;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    // A certificate that does not convert reaches the library as null with its length.
    cert.from(env, certData, certDataLen);
    if (keyDataLen > 0) key.from(env, keyData, keyDataLen);
    return withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_InsertKey(handle, label, static_cast<uint32_t>(certDataLen), cert.data,
                               static_cast<uint32_t>(keyDataLen), key.data, insertKeyFlag1,
                               insertKeyFlag2);
    });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1InsertReqKey)(JNIEnv* env, jobject,
                                                     jstring keyDbFileName, jstring keyDbPwd,
                                                     jstring keyLabel, jint certReqDataLen,
                                                     jbyteArray certReqData, jint keyDataLen,
                                                     jbyteArray keyData) ZAVKJNI_NOEXCEPT {
    if (env == nullptr) return ZAVKM_ERR_PARAMETER;
    JavaBytes request;
    JavaBytes key;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    request.from(env, certReqData, certReqDataLen);
    if (keyDataLen > 0) key.from(env, keyData, keyDataLen);
    return withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_InsertReqKey(handle, label, static_cast<uint32_t>(certReqDataLen),
                                  request.data, static_cast<uint32_t>(keyDataLen), key.data);
    });
}

// The private-key natives open no file: the key database password is the PKCS#8 password.
ZAVKJNI_NATIVE(jobject, CMSKeyDatabase, c_1EncryptPrivateKey)(JNIEnv* env, jobject self,
                                                             jint privateKeyDataLen,
                                                             jbyteArray privateKeyData,
                                                             jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return nullptr;  // no class lookup here
    JavaBytes privateKey;
    JavaStrings strings(env);
    const char* password = strings.take(keyDbPwd, msg::keyDbPwd);
    if (privateKeyDataLen <= 0 || strings.missing()) return nullptr;
    if (privateKey.from(env, privateKeyData, privateKeyDataLen) == nullptr) return nullptr;
    zavkm::EPKIPtr epki;  // released even when it comes back with a failure code
    ZAVKM_ReturnCode rc = ZAVKM_GetEPKIItemFromPrivateKey(
        privateKey.data, static_cast<uint32_t>(privateKeyDataLen), password, out(epki));
    traceMessage("JNI_DEBUG......ZAVKM_GetEPKIItemFromPrivateKey returns %d\n", rc);
    return rc == 0 ? getJavaEPKIItem(env, epki.get()) : nullptr;
}

ZAVKJNI_NATIVE(jobject, CMSKeyDatabase, c_1DecryptPrivateKey)(JNIEnv* env, jobject self,
                                                             jint epkiDataLen,
                                                             jbyteArray epkiData,
                                                             jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return nullptr;
    JavaBytes encrypted;
    JavaStrings strings(env);
    const char* password = strings.take(keyDbPwd, msg::keyDbPwd);
    if (epkiDataLen <= 0 || strings.missing()) return nullptr;
    encrypted.from(env, epkiData, epkiDataLen);  // may stay null; the library answers that
    auto* record = static_cast<ZAVKM_EPKIItem*>(ZAVKM_Malloc(32));
    if (record == nullptr) return nullptr;
    ZAVKM_InitEPKIItem(&record);
    zavkm::EPKIPtr epki(record);
    if (!epki) return nullptr;
    epki->der = encrypted.data;  // from here the buffer belongs to the record
    epki->derLength = static_cast<uint32_t>(epkiDataLen);
    encrypted.data = nullptr;
    zavkm::PrivKeyInfoPtr pki;
    ZAVKM_ReturnCode rc = ZAVKM_GetPrivKeyInfoItemFromEPKIItem(epki.get(), password, out(pki));
    traceMessage("JNI_DEBUG......ZAVKM_GetPrivKeyInfoItemFromEPKIItem returns %d\n", rc);
    jobject result = rc == 0 ? getJavaPrivKeyInfoItem(env, pki.get()) : nullptr;
    pki.reset();
    strings.release();
    return result;  // the EPKI record goes last
}

// ---- PKCS#12 files -------------------------------------------------------------------------

namespace {

// exportLabelList builds the label list of an export: one malloc'd node per element, the labels
// copied with ZAVKM_Strdup. The head exists before the first label is read, so an empty array
// gives one node without a label. Once a node cannot be made no further label is added.
ZAVKM_LabelList* exportLabelList(JNIEnv* env, jobjectArray labels) noexcept {
    jsize count = env->GetArrayLength(labels);
    auto* head = static_cast<ZAVKM_LabelList*>(malloc(sizeof(ZAVKM_LabelList)));
    if (head != nullptr) *head = {nullptr, nullptr};
    ZAVKM_LabelList* current = head;
    for (jsize i = 0; i < count && current != nullptr; ++i) {
        auto element = static_cast<jstring>(env->GetObjectArrayElement(labels, i));
        const char* text = element != nullptr ? env->GetStringUTFChars(element, nullptr) : nullptr;
        if (i == 0) {
            current->label = text != nullptr ? ZAVKM_Strdup(text) : nullptr;
        } else {
            auto* node = static_cast<ZAVKM_LabelList*>(malloc(sizeof(ZAVKM_LabelList)));
            if (node != nullptr) {
                *node = {text != nullptr ? ZAVKM_Strdup(text) : nullptr, nullptr};
                current->next = node;
                traceMessage("JNI_DEBUG......exportLabel = %s\n", orNull(text));
            }
            current = node;
        }
        if (text != nullptr) env->ReleaseStringUTFChars(element, text);
    }
    return head;
}

// The four strings of both PKCS#12 natives.
struct PfxNames {
    KeyDbNames db;
    const char* fileName;
    const char* password;
};

PfxNames takePfxNames(JavaStrings& strings, jstring keyDbFileName, jstring keyDbPwd,
                      jstring pfxFileName, jstring pfxPwd) noexcept {
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* file = strings.take(pfxFileName, "JNI_DEBUG......cPfxFileName = %s\n");
    return {db, file, strings.take(pfxPwd, "JNI_DEBUG......cPfxPwd = %s\n")};
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1ExportToPFXFile)(JNIEnv* env, jobject self,
                                                        jstring keyDbFileName, jstring keyDbPwd,
                                                        jstring pfxFileName, jstring pfxPwd,
                                                        jobjectArray exportLabels) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    PfxNames pfx = takePfxNames(strings, keyDbFileName, keyDbPwd, pfxFileName, pfxPwd);
    if (exportLabels == nullptr) return ZAVKM_ERR_PARAMETER;
    ZAVKM_LabelList* labels = exportLabelList(env, exportLabels);
    ZAVKM_ReturnCode rc = withKeyDb(strings, pfx.db, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_ExportKeys(handle, 1, pfx.fileName, pfx.password, labels);
    });
    ZAVKM_FreeLabelList(labels);  // whether or not the file opened
    return rc;
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1ImportFromPFXFile)(JNIEnv* env, jobject self,
                                                          jstring keyDbFileName, jstring keyDbPwd,
                                                          jstring pfxFileName,
                                                          jstring pfxPwd) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    PfxNames pfx = takePfxNames(strings, keyDbFileName, keyDbPwd, pfxFileName, pfxPwd);
    return withKeyDb(strings, pfx.db, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_ImportKeysFromPFXFile(handle, pfx.fileName, pfx.password);
    });
}

// ---- receiving and adding certificates -----------------------------------------------------

namespace {

// Reads the certificate file before the key database is touched, then stores it.
template <class Store>
jint storeCertFile(const JavaStrings& strings, KeyDbNames db, const char* certFile,
                   jboolean isBase64, Store store) noexcept {
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    LibraryBlock cert;
    ZAVKM_ReturnCode rc = KM_ReadCertFileToBuf(certFile, isBase64, &cert.data, &cert.length);
    if (rc != 0) return rc;
    return withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        return store(handle, cert.data, cert.length);
    });
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1ReceiveCert)(JNIEnv* env, jobject self,
                                                    jstring keyDbFileName, jstring keyDbPwd,
                                                    jstring certFileName, jboolean isBase64,
                                                    jboolean receiveOption) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* certFile = strings.take(certFileName, msg::certFileName);
    return storeCertFile(strings, db, certFile, isBase64,
                         [&](ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t length) {
                             return ZAVKM_ReceiveCert(handle, cert, length, receiveOption);
                         });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1AddCaCert)(JNIEnv* env, jobject self,
                                                  jstring keyDbFileName, jstring keyDbPwd,
                                                  jstring keyLabel, jstring certFileName,
                                                  jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* certFile = strings.take(certFileName, msg::certFileName);
    return storeCertFile(strings, db, certFile, isBase64,
                         [&](ZAVKM_KeyDbHandle handle, const uint8_t* cert, uint32_t length) {
                             return ZAVKM_StoreCACert(handle, cert, length, label);
                         });
}

// ---- extraction ----------------------------------------------------------------------------

namespace {

// The natives that write what a label holds to a file, after their reference check: the file,
// the password, the label and the output file name, then the operation on the open database.
template <class Operation>
jint writeLabel(JNIEnv* env, jstring keyDbFileName, jstring keyDbPwd, jstring keyLabel,
                jstring outputFileName, const char* outputTrace, Operation operation) noexcept {
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* output = strings.take(outputFileName, outputTrace);
    return withKeyDb(strings, db,
                     [&](ZAVKM_KeyDbHandle handle) { return operation(handle, label, output); });
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1ExtractCert)(JNIEnv* env, jobject self,
                                                    jstring keyDbFileName, jstring keyDbPwd,
                                                    jstring keyLabel, jstring certFileName,
                                                    jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    return writeLabel(env, keyDbFileName, keyDbPwd, keyLabel, certFileName,
                      msg::certFileName,
                      [isBase64](ZAVKM_KeyDbHandle handle, const char* label, const char* file) {
                          return ZAVKM_ExportCert(handle, label, file, isBase64);
                      });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1ExtractCertReq)(JNIEnv* env, jobject self,
                                                       jstring keyDbFileName, jstring keyDbPwd,
                                                       jstring keyLabel,
                                                       jstring certReqFileName) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self)) return ZAVKM_ERR_PARAMETER;
    return writeLabel(env, keyDbFileName, keyDbPwd, keyLabel, certReqFileName,
                      msg::certReqFileName,
                      [](ZAVKM_KeyDbHandle handle, const char* label, const char* file) {
                          return ZAVKM_ReCreateCertReq(handle, label, file, nullptr, nullptr);
                      });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1ExtractCertReqSig)(JNIEnv* env, jobject self,
                                                          jstring keyDbFileName, jstring keyDbPwd,
                                                          jstring keyLabel,
                                                          jint signatureAlgorithm,
                                                          jstring certReqFileName) ZAVKJNI_NOEXCEPT {
    if (!hasClass(env, self) || !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    return writeLabel(env, keyDbFileName, keyDbPwd, keyLabel, certReqFileName,
                      msg::certReqFileName,
                      [signatureAlgorithm](ZAVKM_KeyDbHandle handle, const char* label,
                                           const char* file) {
                          return ZAVKM_ReCreateCertReqSig(handle, label, signatureAlgorithm, file,
                                                          nullptr, nullptr);
                      });
}

ZAVKJNI_NATIVE(jobjectArray, CMSKeyDatabase, c_1ExtractCertFromPKCS7Data)(
    JNIEnv* env, jobject self, jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return nullptr;  // no class lookup here
    LibraryBlock data;
    JavaStrings strings(env);
    const char* certFile = strings.take(certFileName, msg::certFileName);
    ZAVKM_ReturnCode rc = KM_ReadCertFileToBuf(certFile, isBase64, &data.data, &data.length);
    strings.release();  // given back at once, before the data is used
    if (rc != 0) return nullptr;
    zavkm::CertItemListPtr certs;
    if (ZAVKM_ExtractCertListFromPKCS7Data(data.data, data.length, out(certs)) != 0) {
        return nullptr;
    }
    jobjectArray array = getJavaCertItemArray(env, certs.get());
    certs.reset();  // the list first, then the data
    return array;
}

// ---- renewal and chain validation ----------------------------------------------------------

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabase, c_1CheckCertAsRenewal)(JNIEnv* env, jobject self,
                                                               jstring keyDbFileName,
                                                               jstring keyDbPwd, jint certDataLen,
                                                               jbyteArray certData) ZAVKJNI_NOEXCEPT {
    uint8_t isRenewal = 0;
    if (!hasSelf(env, self)) return JNI_FALSE;  // no class lookup here
    JavaBytes cert;
    JavaStrings strings(env);
    KeyDbNames db{
        strings.take(keyDbFileName,
                     "CMSKeyDatabase::c_CheckCertAsRenewal 0010, cKeyDbFileName = %s\n"),
        strings.take(keyDbPwd, "CMSKeyDatabase::c_CheckCertAsRenewal 0020, cKeyDbPwd = %s\n")};
    cert.from(env, certData, certDataLen);
    traceBytesAsText("CMSKeyDatabase::c_CheckCertAsRenewal 0030, Check Duplicate CertData = %s\n",
                     cert.data, static_cast<size_t>(certDataLen));
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        ZAVKM_ReturnCode rc = ZAVKM_CheckCertAsRenewal(
            handle, cert.data, static_cast<uint32_t>(certDataLen), &isRenewal);
        traceMessage(
            "CMSKeyDatabase::c_CheckCertAsRenewal 0100, after calling ZAVKM_CheckCertAsRenewal, "
            "jrc=%d\n",
            rc);
        return rc;
    });
    return isRenewal != 0 ? JNI_TRUE : JNI_FALSE;
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1RenewCert)(JNIEnv* env, jobject self,
                                                  jstring keyDbFileName, jstring keyDbPwd,
                                                  jint certDataLen,
                                                  jbyteArray certData) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return ZAVKM_ERR_PARAMETER;  // no class lookup here
    JavaBytes cert;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    cert.from(env, certData, certDataLen);
    traceBytesAsText("JNI_DEBUG......Renew CertData = %s\n", cert.data,
                     static_cast<size_t>(certDataLen));
    // Called even without a buffer: the library answers a missing certificate itself.
    return withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_RenewCert(handle, cert.data, static_cast<uint32_t>(certDataLen));
    });
}

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabase, c_1ValidateCertificateChain)(JNIEnv* env, jobject self,
                                                                     jstring keyDbFileName,
                                                                     jstring keyDbPwd,
                                                                     jbyteArray certData,
                                                                     jint certDataLen) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......c_ValidateCertificateChain......\n");
    if (!hasClass(env, self)) return JNI_FALSE;
    JavaBytes cert;
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    if (cert.from(env, certData, certDataLen) == nullptr) return JNI_FALSE;
    uint8_t judgement = 0;
    withKeyDb(strings, db, [&](ZAVKM_KeyDbHandle handle) {
        ZAVKM_ReturnCode rc = ZAVKM_ValidateCertChain(
            handle, cert.data, static_cast<uint32_t>(certDataLen), &judgement);
        traceMessage("JNI_DEBUG......c_ValidateCertificateChain() = %d\n", rc);
        return rc;
    });
    return judgement == 1 ? JNI_TRUE : JNI_FALSE;
}

// ---- format conversion and password probes -------------------------------------------------

namespace {

// Both conversions take and trace the key database names first, then the keyring names, and
// give the keyring names back first.
template <class Convert>
jint convert(JNIEnv* env, jstring keyDbFileName, jstring keyDbPwd, jstring kyrFileName,
             jstring kyrPwd, Convert conversion) noexcept {
    JavaStrings strings(env);
    KeyDbNames db = takeKeyDbNames(strings, keyDbFileName, keyDbPwd);
    KeyDbNames kyr{strings.take(kyrFileName, "JNI_DEBUG......cKyrFileName = %s\n"),
                   strings.take(kyrPwd, "JNI_DEBUG......cKyrPwd = %s\n")};
    ZAVKM_ReturnCode rc = strings.missing() ? ZAVKM_ERR_PARAMETER : conversion(db, kyr);
    strings.releaseInOrder({kyr.fileName, kyr.password, db.fileName, db.password});
    return rc;
}

}  // namespace

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1Kyr2Kdb)(JNIEnv* env, jobject self, jstring kyrFileName,
                                                jstring kyrPwd, jstring keyDbFileName,
                                                jstring keyDbPwd) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return ZAVKM_ERR_PARAMETER;  // no class lookup here
    return convert(env, keyDbFileName, keyDbPwd, kyrFileName, kyrPwd,
                   [](KeyDbNames db, KeyDbNames kyr) {
                       return ZAVKM_Kyr2Kdb(kyr.fileName, kyr.password, db.fileName, db.password);
                   });
}

ZAVKJNI_NATIVE(jint, CMSKeyDatabase, c_1Kdb2Kyr)(JNIEnv* env, jobject self,
                                                jstring keyDbFileName, jstring keyDbPwd,
                                                jstring kyrFileName, jstring kyrPwd) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, self)) return ZAVKM_ERR_PARAMETER;
    return convert(env, keyDbFileName, keyDbPwd, kyrFileName, kyrPwd,
                   [](KeyDbNames db, KeyDbNames kyr) {
                       return ZAVKM_Kdb2Kyr(db.fileName, db.password, kyr.fileName, kyr.password);
                   });
}

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabase, c_1IsPasswordRequired)(JNIEnv* env, jobject self,
                                                               jstring keyDbFileName) ZAVKJNI_NOEXCEPT {
    return isPasswordRequired(env, self, keyDbFileName, describeKeyDbFile);
}

ZAVKJNI_NATIVE(jboolean, WEBDBKeyDatabase, c_1IsPasswordRequired)(JNIEnv* env, jobject self,
                                                                 jstring keyDbFileName) ZAVKJNI_NOEXCEPT {
    return isPasswordRequired(env, self, keyDbFileName, webDbFileDescriptor);
}
