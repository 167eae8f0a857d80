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

// TokenCase - one scenario of a native that runs the token frame.
struct TokenCase {
    const char* password = tokenPassword;  // the token password Java passes (null: none)
    int openCode = 0;                      // the open's answer; 0 opens the token as handle 7
    std::vector<Scripted> script;          // answers of the native's own operations
    std::vector<std::string> before;       // library calls before the open
    std::vector<std::string> operation;    // library calls on the open token, before its close
    std::vector<std::string> after;        // library calls after the close or the failed open
    std::vector<std::string> conversion;   // trace lines before the frame's (conversions first)
    std::vector<std::string> trace;        // trace lines after the frame's
    Check check = nullptr;
};

inline harness::Row tokenRow(std::string name, TokenCase tc, std::function<Returned(Context&)> call,
                             Returned returns) {
    std::vector<Scripted> script = {tc.openCode == 0 ? opens() : openFails(tc.openCode)};
    script.insert(script.end(), tc.script.begin(), tc.script.end());
    std::vector<std::string> journal = tc.before;
    journal.push_back(opened(tokenDescriptor(tc.password)));
    if (tc.openCode == 0) {
        journal.insert(journal.end(), tc.operation.begin(), tc.operation.end());
        journal.push_back(closed(storeHandle));
    }
    journal.insert(journal.end(), tc.after.begin(), tc.after.end());
    return {std::move(name),
            script,
            std::move(call),
            journal,
            concat({tc.conversion, frameTrace(tc.password), tc.trace}),
            returns,
            tc.check};
}

}  // namespace tokenrows
