// Natives of CryptographicToken: PKCS#11 tokens, optionally paired for one call with a
// secondary key database file.
//
// Each native runs the token frame (jni/frame.h): its own argument checks (module name and
// token label always required, the token password never), the strings taken and traced in
// declaration order (absent optional ones traced as NULL and never taken), conversions, the
// open, the operation only after a successful open, the close, the records and buffers freed,
// the strings given back in the order taken.
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

bool hasToken(JNIEnv* env, jobject self, jstring moduleName, jstring tokenLabel) noexcept {
    return hasSelf(env, self) && moduleName != nullptr && tokenLabel != nullptr;
}

// The natives that work on one label of the token, after their checks: the token names, the key
// label and, when outputTrace is given, a file name; then operation(handle, label, file) on the
// open token.
template <class Operation>
ZAVKM_ReturnCode onTokenLabel(JNIEnv* env, jstring moduleName, jstring tokenLabel,
                              jstring password, jstring keyLabel, jstring fileName,
                              const char* fileTrace, Operation operation) noexcept {
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, moduleName, tokenLabel, password);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* file = fileTrace != nullptr ? strings.take(fileName, fileTrace) : nullptr;
    return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
        return operation(handle, label, file);
    });
}

}  // namespace

// ---- token labels and passwords ------------------------------------------------------------

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1GetCryptoTokenLabelList)(
    JNIEnv* env, jclass cls, jstring cryptographicModuleName) ZAVKJNI_NOEXCEPT {
    if (!hasSelf(env, cls) || cryptographicModuleName == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID addTokenLabel = env->GetStaticMethodID(cls, "addTokenLabel", sig::labelCallback);
    if (addTokenLabel == nullptr) return ZAVKM_ERR_PARAMETER;  // before any string is taken
    JavaStrings strings(env);
    const char* moduleName = strings.take(cryptographicModuleName, msg::moduleName);
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    zavkm::LabelListPtr labels;  // released even when it comes back with a failure code
    ZAVKM_ReturnCode rc = ZAVKM_GetCryptoTokenLabelList(moduleName, out(labels));
    if (rc == 0) deliverLabels(env, labels.get(), {cls, addTokenLabel, true}, labelTraceNone);
    return rc;
}

ZAVKJNI_NATIVE(jboolean, CryptographicToken, c_1IsPasswordRequired)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName,
    jstring cryptographicTokenLabel) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel)) return JNI_FALSE;
    JavaStrings strings(env);
    const char* moduleName = strings.take(cryptographicModuleName, msg::moduleName);
    const char* tokenLabel = strings.take(cryptographicTokenLabel, msg::tokenLabel);
    if (strings.missing()) return JNI_FALSE;
    // Probed without a password: no store is opened.
    KeyStoreDescriptor descriptor = tokenDescriptor(moduleName, tokenLabel, nullptr);
    uint8_t required = 0;
    ZAVKM_ReturnCode rc = ZAVKM_IsPasswordRequired(&descriptor, &required);
    return rc == 0 && required == 1 ? JNI_TRUE : JNI_FALSE;
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1ChangeKeyDbPwd)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenOldPassword, jstring cryptographicTokenNewPassword) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        cryptographicTokenOldPassword == nullptr || cryptographicTokenNewPassword == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaStrings strings(env);
    const char* moduleName = strings.take(cryptographicModuleName, msg::moduleName);
    const char* tokenLabel = strings.take(cryptographicTokenLabel, msg::tokenLabel);
    const char* oldPassword = strings.take(
        cryptographicTokenOldPassword, "JNI_DEBUG......cCryptographicTokenOldPassword = %s\n");
    const char* newPassword = strings.take(
        cryptographicTokenNewPassword, "JNI_DEBUG......cCryptographicTokenNewPassword = %s\n");
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    KeyStoreDescriptor descriptor =
        tokenPasswordChangeDescriptor(moduleName, tokenLabel, oldPassword, newPassword);
    return ZAVKM_ChangeKeyDbPwdX(&descriptor);  // needs no open store
}

// ---- key listing and lookup ----------------------------------------------------------------

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1BuildKeyLabelList)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel)) {
        return ZAVKM_ERR_PARAMETER;
    }
    jclass cls = env->GetObjectClass(self);
    if (cls == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID personal = env->GetMethodID(cls, "addPersonalKeyLabel", sig::labelCallback);
    if (personal == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID signer = env->GetMethodID(cls, "addSignerKeyLabel", sig::labelCallback);
    if (signer == nullptr) return ZAVKM_ERR_PARAMETER;
    jmethodID request = env->GetMethodID(cls, "addRequestKeyLabel", sig::labelCallback);
    if (request == nullptr) return ZAVKM_ERR_PARAMETER;  // before the token is opened
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, cryptographicModuleName, cryptographicTokenLabel,
                                      cryptographicTokenPassword);
    // Keys first, each as personal or signer, then the request keys; all while the token is open.
    return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
        ZAVKM_ReturnCode rc;
        {
            zavkm::LabelListPtr keys;
            rc = ZAVKM_GetKeyDbLabelList(handle, out(keys));
            if (rc == 0) rc = deliverSortedLabels(env, handle, keys.get(), {self, nullptr, personal, signer});
        }
        if (rc != 0) return rc;
        zavkm::LabelListPtr requests;
        rc = ZAVKM_GetReqKeyDbLabelList(handle, out(requests));
        if (rc == 0) deliverLabels(env, requests.get(), {self, request, false}, labelTraceNone);
        return rc;
    });
}

ZAVKJNI_NATIVE(jobject, CryptographicToken, c_1GetKeyItemByLabel)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jboolean isReqKey) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr) {
        return nullptr;
    }
    jobject keyItem = nullptr;
    onTokenLabel(env, cryptographicModuleName, cryptographicTokenLabel, cryptographicTokenPassword,
                 keyLabel, nullptr, nullptr,
                 [&](ZAVKM_KeyDbHandle handle, const char* label, const char*) {
                     keyItem = getJavaKeyItemByLabel(env, handle, label, isReqKey);  // before the close
                     return 0;
                 });
    return keyItem;
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1DeleteKeyItemByLabel)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jboolean isReqKey) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    return onTokenLabel(env, cryptographicModuleName, cryptographicTokenLabel,
                        cryptographicTokenPassword, keyLabel, nullptr, nullptr,
                        [isReqKey](ZAVKM_KeyDbHandle handle, const char* label, const char*) {
                            return KM_DeleteKeyItem(handle, label, isReqKey);
                        });
}

// ---- certificate import and extraction -----------------------------------------------------

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1ReceivePersonalCertificate)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring secondaryKeyDbFileName,
    jstring secondaryKeyDbFilePassword, jstring certFileName, jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        certFileName == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, cryptographicModuleName, cryptographicTokenLabel,
                                      cryptographicTokenPassword);
    SecondaryNames secondary =
        takeSecondaryNames(strings, secondaryKeyDbFileName, secondaryKeyDbFilePassword);
    const char* certFile = strings.take(certFileName, msg::certFileName);
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    // The file is read completely before any store is opened.
    LibraryBlock cert;
    ZAVKM_ReturnCode rc = KM_ReadCertFileToBuf(certFile, isBase64, &cert.data, &cert.length);
    if (rc != 0) return rc;
    return withTokenAndSecondary(strings, token, secondary, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_ReceiveCert(handle, cert.data, cert.length, 0);
    });
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1ImportCertificate)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring secondaryKeyDbFileName,
    jstring secondaryKeyDbFilePassword, jstring keyLabel, jint certDataLen, jbyteArray certData,
    jint keyDataLen, jbyteArray keyData) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || certDataLen == 0 || certData == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes cert;
    JavaBytes key;
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, cryptographicModuleName, cryptographicTokenLabel,
                                      cryptographicTokenPassword);
    SecondaryNames secondary =
        takeSecondaryNames(strings, secondaryKeyDbFileName, secondaryKeyDbFilePassword);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    // A copy that cannot be made reaches the library as null with its length.
    cert.from(env, certData, certDataLen);
    if (keyDataLen > 0) key.from(env, keyData, keyDataLen);
    return withTokenAndSecondary(strings, token, secondary, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_InsertKey(handle, label, static_cast<uint32_t>(certDataLen), cert.data,
                               static_cast<uint32_t>(keyDataLen), key.data, 0, 0);
    });
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1AddSignerCertificate)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jstring certFileName,
    jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || certFileName == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, cryptographicModuleName, cryptographicTokenLabel,
                                      cryptographicTokenPassword);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    const char* certFile = strings.take(certFileName, msg::certFileName);
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    LibraryBlock cert;
    ZAVKM_ReturnCode rc = KM_ReadCertFileToBuf(certFile, isBase64, &cert.data, &cert.length);
    if (rc != 0) return rc;
    return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_StoreCACert(handle, cert.data, cert.length, label);
    });
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1ExtractCertificate)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jstring certFileName,
    jboolean isBase64) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || certFileName == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    return onTokenLabel(env, cryptographicModuleName, cryptographicTokenLabel,
                        cryptographicTokenPassword, keyLabel, certFileName, msg::certFileName,
                        [isBase64](ZAVKM_KeyDbHandle handle, const char* label, const char* file) {
                            return ZAVKM_ExportCert(handle, label, file, isBase64);  // it writes
                        });
}

// ---- requests and self-signed certificates -------------------------------------------------

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1ImportPersonalCertificateRequest)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jint certReqDataLen,
    jbyteArray certReqData, jint keyDataLen, jbyteArray keyData) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || certReqDataLen == 0 || certReqData == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes request;
    JavaBytes key;
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, cryptographicModuleName, cryptographicTokenLabel,
                                      cryptographicTokenPassword);
    const char* label = strings.take(keyLabel, msg::keyLabel);
    request.from(env, certReqData, certReqDataLen);
    if (keyDataLen > 0) key.from(env, keyData, keyDataLen);
    return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_InsertReqKey(handle, label, static_cast<uint32_t>(certReqDataLen),
                                  request.data, static_cast<uint32_t>(keyDataLen), key.data);
    });
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1RecreatePersonalCertificateRequest)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jint signatureAlgorithm,
    jstring certReqFileName) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || certReqFileName == nullptr ||
        !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    return onTokenLabel(env, cryptographicModuleName, cryptographicTokenLabel,
                        cryptographicTokenPassword, keyLabel, certReqFileName,
                        msg::certReqFileName,
                        [signatureAlgorithm](ZAVKM_KeyDbHandle handle, const char* label,
                                             const char* file) {
                            return ZAVKM_ReCreateCertReqSig(handle, label, signatureAlgorithm,
                                                            file, nullptr, nullptr);
                        });
}

namespace {

// The two creating natives convert the subject before any string is taken (116 when it does
// not convert); create(dn) takes the strings into `strings` and works on the token. The name
// is released after the token is closed, also when it did not open, then the strings go back.
template <class Create>
jint createOnToken(JNIEnv* env, jobject dnItem, JavaStrings& strings, Create create) noexcept {
    zavkm::DNPtr dn;
    JavaDNItem2CDN(env, dnItem, out(dn));
    if (!dn) return ZAVKM_ERR_INVALID_DN_INPUT;
    ZAVKM_ReturnCode rc = create(static_cast<const ZAVKM_DNItem*>(dn.get()));
    dn.reset();
    strings.release();
    return rc;
}

}  // namespace

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1CreateSelfSignedCertificate)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jint selfSignArg1, jstring keyLabel, jint selfSignArg2,
    jobject dnItem, jint selfSignArg3, jint signatureAlgorithm) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || dnItem == nullptr || !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaStrings strings(env);
    return createOnToken(env, dnItem, strings, [&](const ZAVKM_DNItem* dn) {
        TokenNames token = takeTokenNames(strings, cryptographicModuleName,
                                          cryptographicTokenLabel, cryptographicTokenPassword);
        const char* label = strings.take(keyLabel, msg::keyLabel);
        return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
            // No extensions, no certificate file, not made the default key.
            return ZAVKM_CreateSelfSignedCertSigExt(handle, label, 0, selfSignArg1, selfSignArg2,
                                                    dn, selfSignArg3, signatureAlgorithm, nullptr,
                                                    0, nullptr, 0);
        });
    });
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1CreatePersonalCertificateRequest)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jint certReqArg, jobject dnItem,
    jint signatureAlgorithm, jstring certReqFileName) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || dnItem == nullptr || certReqFileName == nullptr ||
        !validSignatureAlgorithm(signatureAlgorithm)) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaStrings strings(env);
    return createOnToken(env, dnItem, strings, [&](const ZAVKM_DNItem* dn) {
        TokenNames token = takeTokenNames(strings, cryptographicModuleName,
                                          cryptographicTokenLabel, cryptographicTokenPassword);
        const char* label = strings.take(keyLabel, msg::keyLabel);
        const char* reqFile = strings.take(certReqFileName, msg::certReqFileName);
        return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
            return ZAVKM_CreateNewCertReqSigExt(handle, label, certReqArg, dn, signatureAlgorithm,
                                                nullptr, 0, reqFile, nullptr, nullptr);
        });
    });
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1ExtractPersonalCertificateRequest)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jstring keyLabel, jstring certReqFileName) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        keyLabel == nullptr || certReqFileName == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    return onTokenLabel(env, cryptographicModuleName, cryptographicTokenLabel,
                        cryptographicTokenPassword, keyLabel, certReqFileName,
                        msg::certReqFileName,
                        [](ZAVKM_KeyDbHandle handle, const char* label, const char* file) {
                            return ZAVKM_ReCreateCertReq(handle, label, file, nullptr, nullptr);
                        });
}

// ---- renewal -------------------------------------------------------------------------------

ZAVKJNI_NATIVE(jboolean, CryptographicToken, c_1IsPersonalCertificateRenewal)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jint certDataLen, jbyteArray certData) ZAVKJNI_NOEXCEPT {
    uint8_t isRenewal = 0;
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        certDataLen < 1 || certData == nullptr) {
        return JNI_FALSE;
    }
    JavaBytes cert;
    JavaStrings strings(env);
    // This native numbers its own messages instead of the frame's.
    TokenNames token{};
    token.moduleName = strings.take(
        cryptographicModuleName,
        "JNI_CryptographicToken::IsPersonalCertificateRenewal 0010, cCryptographicModuleName = "
        "%s\n");
    token.tokenLabel = strings.take(
        cryptographicTokenLabel,
        "JNI_CryptographicToken::IsPersonalCertificateRenewal 0020, cCryptographicTokenLabel = "
        "%s\n");
    token.password = strings.takeOptional(
        cryptographicTokenPassword,
        "JNI_CryptographicToken::IsPersonalCertificateRenewal 0040, cCryptographicTokenPassword "
        "= %s\n",
        "JNI_CryptographicToken::IsPersonalCertificateRenewal 0030, cCryptographicTokenPassword "
        "= NULL\n");
    cert.from(env, certData, certDataLen);
    traceBytesAsText(
        "JNI_CryptographicToken::IsPersonalCertificateRenewal 0050, Check Duplicate CertData = "
        "%s\n",
        cert.data, static_cast<size_t>(certDataLen));
    withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
        ZAVKM_ReturnCode rc = ZAVKM_CheckCertAsRenewal(
            handle, cert.data, static_cast<uint32_t>(certDataLen), &isRenewal);
        traceMessage("JNI_CryptographicToken::IsPersonalCertificateRenewal 0060, jrc = %d\n", rc);
        return rc;
    });
    return isRenewal != 0 ? JNI_TRUE : JNI_FALSE;
}

ZAVKJNI_NATIVE(jint, CryptographicToken, c_1RenewPersonalCertificate)(
    JNIEnv* env, jobject self, jstring cryptographicModuleName, jstring cryptographicTokenLabel,
    jstring cryptographicTokenPassword, jint certDataLen, jbyteArray certData) ZAVKJNI_NOEXCEPT {
    if (!hasToken(env, self, cryptographicModuleName, cryptographicTokenLabel) ||
        certDataLen < 1 || certData == nullptr) {
        return ZAVKM_ERR_PARAMETER;
    }
    JavaBytes cert;
    JavaStrings strings(env);
    TokenNames token = takeTokenNames(strings, cryptographicModuleName, cryptographicTokenLabel,
                                      cryptographicTokenPassword);
    cert.from(env, certData, certDataLen);
    traceBytesAsText("JNI_DEBUG......Renew CertData = %s\n", cert.data,
                     static_cast<size_t>(certDataLen));
    // Called even without a buffer: the library answers a missing certificate itself.
    return withToken(strings, token, [&](ZAVKM_KeyDbHandle handle) {
        return ZAVKM_RenewCert(handle, cert.data, static_cast<uint32_t>(certDataLen));
    });
}
