// The row builder of the CryptographicToken natives: every one names the same token (module
// "mod.so", label "tok", password "pw" unless a row says otherwise), opens it with a descriptor
// of store type 2, works on handle 7 and closes it.
#pragma once

#include "com_norvex_zav_tolvik_basic_CryptographicToken.h"
#include "store_rows.h"

namespace tokenrows {

using namespace storerows;

inline const char* const moduleName = "mod.so";
inline const char* const tokenLabel = "tok";
inline const char* const tokenPassword = "pw";
inline const char* const tokenClass = "com/norvex/zav/tolvik/basic/CryptographicToken";

inline std::string tokenDescriptor(const char* password) {
    return descriptor(
        2, {{"cryptoModuleName", moduleName}, {"tokenLabel", tokenLabel}, {"password", password}});
}

// The secondary key database file's descriptor: store type 1.
inline std::string secondaryDescriptor(const char* fileName, const char* password) {
    return descriptor(1, {{"keyDbFileName", fileName}, {"password", password}});
}

// What the frame traces as it takes the module name, the token label and the token password.
inline std::vector<std::string> frameTrace(const char* password) {
    return {std::string("JNI_DEBUG......cCryptographicModuleName = ") + moduleName,
            std::string("JNI_DEBUG......cCryptographicTokenLabel = ") + tokenLabel,
            password != nullptr
                ? std::string("JNI_DEBUG......cCryptographicTokenPassword = ") + password
                : std::string("JNI_DEBUG......cCryptographicTokenPassword = NULL")};
}

// The texts the frame takes: the token password only when Java passed one.
inline std::vector<std::string> frameTexts(const char* password, std::vector<std::string> more) {
    std::vector<std::string> texts = {moduleName, tokenLabel};
    if (password != nullptr) texts.push_back(password);
    texts.insert(texts.end(), more.begin(), more.end());
    return texts;
}

inline jobject newToken() { return harness::newObject(tokenClass, "()V"); }

using TokenCase = FrameCase;  // its provider and the store's trace names are not used

inline harness::Row tokenRow(std::string name, TokenCase tc, std::function<Returned(Context&)> call,
                             Returned returns) {
    return frameRow(std::move(name), tc, tokenDescriptor(tc.password), frameTrace(tc.password),
                    std::move(call), returns);
}

}  // namespace tokenrows
