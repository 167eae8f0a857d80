#include "jni/frame.h"

namespace zavkjni {

const char* JavaStrings::get(jstring string) noexcept {
    if (string == nullptr) return nullptr;
    const char* text = env_->GetStringUTFChars(string, nullptr);
    if (text != nullptr && count_ < taken_.size()) taken_[count_++] = {string, text};
    return text;
}

const char* JavaStrings::take(jstring string, const char* traceFormat) noexcept {
    const char* text = get(string);
    if (text == nullptr) missing_ = true;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    traceMessage(traceFormat, orNull(text));
#pragma GCC diagnostic pop
    return text;
}

const char* JavaStrings::takeOptional(jstring string, const char* traceFormat,
                                      const char* nullFormat) noexcept {
    const char* text = get(string);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    if (text != nullptr || nullFormat == nullptr) {
        traceMessage(traceFormat, orNull(text));
    } else {
        traceMessage(nullFormat);
    }
#pragma GCC diagnostic pop
    return text;
}

void JavaStrings::release() noexcept {
    for (size_t i = 0; i < count_; ++i) {
        env_->ReleaseStringUTFChars(taken_[i].string, taken_[i].text);
    }
    count_ = 0;
}

void JavaStrings::releaseInOrder(std::initializer_list<const char*> order) noexcept {
    for (const char* text : order) {
        for (size_t i = 0; i < count_; ++i) {
            if (taken_[i].text != text || text == nullptr) continue;
            env_->ReleaseStringUTFChars(taken_[i].string, taken_[i].text);
            for (size_t j = i + 1; j < count_; ++j) taken_[j - 1] = taken_[j];
            --count_;
            break;
        }
    }
    release();
}

TokenNames takeTokenNames(JavaStrings& strings, jstring moduleName, jstring tokenLabel,
                          jstring password) noexcept {
    TokenNames names{};
    names.moduleName = strings.take(moduleName, msg::moduleName);
    names.tokenLabel = strings.take(tokenLabel, msg::tokenLabel);
    names.password =
        strings.takeOptional(password, "JNI_DEBUG......cCryptographicTokenPassword = %s\n",
                             "JNI_DEBUG......cCryptographicTokenPassword = NULL\n");
    return names;
}

SecondaryNames takeSecondaryNames(JavaStrings& strings, jstring fileName,
                                  jstring password) noexcept {
    SecondaryNames names{};
    names.fileName =
        strings.takeOptional(fileName, "JNI_DEBUG......cSecondaryKeyDbFileName = %s\n",
                             "JNI_DEBUG......cSecondaryKeyDbFileName = NULL\n");
    names.password =
        strings.takeOptional(password, "JNI_DEBUG......cSecondaryKeyDbFilePassword = %s\n",
                             "JNI_DEBUG......cSecondaryKeyDbFilePassword = NULL\n");
    return names;
}

ZAVKM_ReturnCode deliverSortedLabels(JNIEnv* env, ZAVKM_KeyDbHandle handle,
                                     const ZAVKM_LabelList* list,
                                     SortedLabelCallbacks callbacks) noexcept {
    char labelBuffer[256] = {};
    for (const ZAVKM_LabelList* node = list; node != nullptr && node->label != nullptr;
         node = node->next) {
        uint8_t present = 0;
        ZAVKM_ReturnCode rc = ZAVKM_IsPrivateKeyPresent(handle, node->label, &present);
        if (rc != 0) return rc;
        jstring label = newJavaStringUTF(env, copyLabel(labelBuffer, node->label));
        if (callbacks.allKeys != nullptr) env->CallVoidMethod(callbacks.self, callbacks.allKeys, label);
        env->CallVoidMethod(callbacks.self, present != 0 ? callbacks.personal : callbacks.signer,
                            label);
    }
    return 0;
}

}  // namespace zavkjni
