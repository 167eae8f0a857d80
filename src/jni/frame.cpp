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

}  // namespace zavkjni
