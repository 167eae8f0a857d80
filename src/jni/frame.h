// What every native shares: the export macro, the reference checks, the holder of the Java
// strings a native takes, holders of the buffers and records it owns, and the key-database
// frame (open, operate only after a successful open, close).
#pragma once

#include <jni.h>
#include <string.h>

#include <array>
#include <initializer_list>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "km/descriptor.h"
#include "km/token.h"
#include "marshal/jni_access.h"
#include "marshal/records.h"
#include "trace/trace.h"
#include "zavkm.h"
#include "zavkm.hpp"

#define ZAVKJNI_NATIVE(type, cls, method) \
    extern "C" JNIEXPORT type JNICALL Java_com_norvex_zav_tolvik_basic_##cls##_##method

// Natives are noexcept; the signature check compiles them without it, against the declarations
// javac generates.
#ifndef ZAVKJNI_NOEXCEPT
#define ZAVKJNI_NOEXCEPT noexcept
#endif

namespace zavkjni {

// Messages shared by many natives.
namespace msg {
inline constexpr const char* keyDbFileName = "JNI_DEBUG......cKeyDbFileName = %s\n";
inline constexpr const char* keyDbPwd = "JNI_DEBUG......cKeyDbPwd = %s\n";
inline constexpr const char* keyLabel = "JNI_DEBUG......cKeyLabel = %s\n";
inline constexpr const char* certFileName = "JNI_DEBUG......cCertFileName = %s\n";
inline constexpr const char* certReqFileName = "JNI_DEBUG......cCertReqFileName = %s\n";
inline constexpr const char* moduleName = "JNI_DEBUG......cCryptographicModuleName = %s\n";
inline constexpr const char* tokenLabel = "JNI_DEBUG......cCryptographicTokenLabel = %s\n";
}  // namespace msg

// hasSelf: the JNIEnv pointer and the calling object (or class) are there.
inline bool hasSelf(JNIEnv* env, jobject self) noexcept { return env != nullptr && self != nullptr; }

// hasClass: hasSelf, and the class of the calling object can be had.
inline bool hasClass(JNIEnv* env, jobject self) noexcept {
    return hasSelf(env, self) && env->GetObjectClass(self) != nullptr;
}

// JavaStrings holds the UTF-8 texts a native takes from Java strings and gives them back in the
// order they were taken (first in, first out), on release() or at the latest when it goes.
//
// A Java string the caller must pass but passed as null is not taken (taking it would bring the
// JVM down): its text stays null, its message shows "null", and missing() turns true, so that
// the native answers its early-failure value instead of opening anything.
class JavaStrings {
public:
    explicit JavaStrings(JNIEnv* env) noexcept : env_(env) {}
    ~JavaStrings() { release(); }
    JavaStrings(const JavaStrings&) = delete;
    JavaStrings& operator=(const JavaStrings&) = delete;

    // take takes a required string and traces it at once with traceFormat (one "%s").
    const char* take(jstring string, const char* traceFormat) noexcept;

    // takeOptional takes string when present and traces traceFormat with it; when null it traces
    // nullFormat (no argument), or traceFormat with "null" when nullFormat is null.
    const char* takeOptional(jstring string, const char* traceFormat,
                             const char* nullFormat = nullptr) noexcept;

    // takeIfPresent takes an optional string without tracing it (null stays null).
    const char* takeIfPresent(jstring string) noexcept { return get(string); }

    bool missing() const noexcept { return missing_; }

    // release gives every taken text back, in the order taken. Idempotent.
    void release() noexcept;

    // releaseInOrder gives the listed texts back first, in the listed order, then the rest in
    // the order taken: for the few natives that return their strings in another order.
    void releaseInOrder(std::initializer_list<const char*> order) noexcept;

private:
    const char* get(jstring string) noexcept;

    struct Taken {
        jstring string;
        const char* text;
    };
    JNIEnv* env_;
    std::array<Taken, 8> taken_{};
    size_t count_ = 0;
    bool missing_ = false;
};

// A buffer made from a Java byte array with malloc, freed with free.
struct JavaBytes {
    unsigned char* data = nullptr;
    size_t length = 0;
    JavaBytes() = default;
    JavaBytes(const JavaBytes&) = delete;
    JavaBytes& operator=(const JavaBytes&) = delete;
    // The copy may hold a private key: wiped before it is freed.
    ~JavaBytes() {
        zavkm::wipe(data, length);
        free(data);
    }
    // from converts array when its length equals expectedLength (traced); else data stays null.
    unsigned char* from(JNIEnv* env, jbyteArray array, int32_t expectedLength) noexcept {
        JavaByteArrayToUChar(env, array, expectedLength, &data);
        length = data != nullptr && expectedLength > 0 ? static_cast<size_t>(expectedLength) : 0;
        return data;
    }
};

// A block the key-management library allocated, freed with ZAVKM_Free only when both its
// pointer and its length are set.
struct LibraryBlock {
    uint8_t* data = nullptr;
    uint32_t length = 0;
    LibraryBlock() = default;
    LibraryBlock(const LibraryBlock&) = delete;
    LibraryBlock& operator=(const LibraryBlock&) = delete;
    ~LibraryBlock() { reset(); }
    // reset frees the block when both its pointer and its length are set: a certificate
    // buffer that is empty was never allocated.
    void reset() noexcept {
        if (data != nullptr && length != 0) ZAVKM_Free(data);
        data = nullptr;
        length = 0;
    }
    // release frees whatever block there is, empty or not (a decoded request is always the
    // library's block).
    void release() noexcept {
        if (data != nullptr) ZAVKM_Free(data);
        data = nullptr;
        length = 0;
    }
};

// Records the library returned are held by the owners of zavkm.hpp (KeyItemPtr, EPKIPtr, ...),
// each released with its own operation; out(owner) is the out-parameter that fills one.
using zavkm::out;

// The key database file and password every key-database native takes first.
struct KeyDbNames {
    const char* fileName;
    const char* password;
};

// takeKeyDbNames takes and traces the file name, then the password (in clear).
inline KeyDbNames takeKeyDbNames(JavaStrings& strings, jstring fileName, jstring password) noexcept {
    const char* file = strings.take(fileName, msg::keyDbFileName);
    return {file, strings.take(password, msg::keyDbPwd)};
}

// withKeyDb opens the key database, runs operation(handle) only when the open returned 0, then
// closes it. Returns the open's code or the operation's; 65 without opening anything when a
// required string was missing.
template <class Operation>
ZAVKM_ReturnCode withKeyDb(const JavaStrings& strings, KeyDbNames db,
                           Operation&& operation) noexcept {
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    ZAVKM_KeyDbHandle handle = 0;
    ZAVKM_ReturnCode rc = ZAVKM_OpenKeyDb(db.fileName, db.password, &handle);
    if (rc != 0) return rc;
    rc = operation(handle);
    if (handle != 0) ZAVKM_CloseKeyDb(handle);
    return rc;
}

// withStore opens the store a descriptor names, runs operation(handle) only when the open
// returned 0, then closes it. 65 without opening anything when a required string was missing.
template <class Operation>
ZAVKM_ReturnCode withStore(const JavaStrings& strings, const KeyStoreDescriptor& descriptor,
                           Operation&& operation) noexcept {
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    ZAVKM_KeyDbHandle handle = 0;
    ZAVKM_ReturnCode rc = ZAVKM_OpenKeyDbX(&descriptor, &handle);
    if (rc != 0) return rc;
    rc = operation(handle);
    ZAVKM_CloseKeyDb(handle);  // whatever the operation returned
    return rc;
}

// The module, token label and optional token password every token native takes first.
struct TokenNames {
    const char* moduleName;
    const char* tokenLabel;
    const char* password;
};

// takeTokenNames takes and traces the module name, the token label and, when present, the
// token password (in clear); an absent password is traced as NULL and not taken.
TokenNames takeTokenNames(JavaStrings& strings, jstring moduleName, jstring tokenLabel,
                          jstring password) noexcept;

// withToken opens the token alone and runs operation(handle) on it (see withStore).
template <class Operation>
ZAVKM_ReturnCode withToken(const JavaStrings& strings, TokenNames token,
                           Operation&& operation) noexcept {
    return withStore(strings, tokenDescriptor(token.moduleName, token.tokenLabel, token.password),
                     operation);
}

// The optional secondary key database of a token native.
struct SecondaryNames {
    const char* fileName;
    const char* password;
};

// takeSecondaryNames takes the optional secondary file name and password (NULL forms when
// absent).
SecondaryNames takeSecondaryNames(JavaStrings& strings, jstring fileName,
                                  jstring password) noexcept;

// withTokenAndSecondary opens the token with its secondary file attached (when named), runs
// operation(token handle) and closes both.
template <class Operation>
ZAVKM_ReturnCode withTokenAndSecondary(const JavaStrings& strings, TokenNames token,
                                       SecondaryNames secondary, Operation&& operation) noexcept {
    if (strings.missing()) return ZAVKM_ERR_PARAMETER;
    ZAVKM_KeyDbHandle tokenHandle = 0;
    ZAVKM_KeyDbHandle secondaryHandle = 0;
    ZAVKM_ReturnCode rc = OpenTokenAndSecondaryKeyDb(
        token.moduleName, token.tokenLabel, token.password, &tokenHandle, secondary.fileName,
        secondary.password, &secondaryHandle);
    if (rc != 0) return rc;
    rc = operation(tokenHandle);
    CloseTokenAndSecondaryKeyDb(tokenHandle, secondaryHandle);
    return rc;
}

// The callbacks that receive the labels of a store sorted by whether their private key is
// there; allKeys, when set, first receives every label.
struct SortedLabelCallbacks {
    jobject self;
    jmethodID allKeys;
    jmethodID personal;
    jmethodID signer;
};

// deliverSortedLabels walks list, asks the store whether each label's private key is present
// and hands the label to personal or signer (after allKeys). A failing question stops the walk
// there, that label undelivered, and its code is returned. The list is not freed here.
ZAVKM_ReturnCode deliverSortedLabels(JNIEnv* env, ZAVKM_KeyDbHandle handle,
                                     const ZAVKM_LabelList* list,
                                     SortedLabelCallbacks callbacks) noexcept;

// keyItemArray runs a key-list lookup on an open store, traces whether a list came back,
// converts it and releases it with its own operation. A list that comes back with a failure
// code is released unconverted.
template <class Lookup>
jobjectArray keyItemArray(JNIEnv* env, ZAVKM_KeyDbHandle handle, const char* gotTrace,
                          Lookup lookup) noexcept {
    zavkm::KeyItemListPtr list;
    ZAVKM_ReturnCode rc = lookup(handle, out(list));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    traceMessage(gotTrace, nullness(list.get()));
#pragma GCC diagnostic pop
    return rc == 0 && list ? getJavaKeyItemArray(env, list.get()) : nullptr;
}

// The trace texts of a self-signed certificate creation.
struct SelfSignedTexts {
    const char* beforeCall;
    const char* afterCall;
    const char* exit;
};

// createSelfSigned converts the subject (116 when it does not convert), runs create(dn) (which
// opens the store and makes the call) between its trace lines, releases the name, gives the
// strings back and traces the exit line.
template <class Create>
jint createSelfSigned(JNIEnv* env, JavaStrings& strings, jobject dnItem,
                      const SelfSignedTexts& texts, Create create) noexcept {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    traceMessage("JNI_DEBUG......to call JavaDNItem2CDN()\n");
    zavkm::DNPtr dn;
    JavaDNItem2CDN(env, dnItem, out(dn));
    ZAVKM_ReturnCode rc = ZAVKM_ERR_INVALID_DN_INPUT;
    if (dn) {
        traceMessage(texts.beforeCall);
        rc = create(static_cast<const ZAVKM_DNItem*>(dn.get()));
        traceMessage(texts.afterCall);
        dn.reset();
        traceMessage("JNI_DEBUG......after call ZAVKM_FreeDNItem()\n");
    }
    strings.release();
    traceMessage(texts.exit);
#pragma GCC diagnostic pop
    return rc;
}

// validSignatureAlgorithm: the selector is 1 or 2.
inline bool validSignatureAlgorithm(jint selector) noexcept { return selector == 1 || selector == 2; }

// The millisecond expiry Java passes, as the library's signed 32-bit whole seconds: divided with
// truncation toward zero, low 32 bits kept.
inline int32_t expirySeconds(jlong milliseconds) noexcept {
    return static_cast<int32_t>(static_cast<uint64_t>(milliseconds / 1000) & 0xFFFFFFFFu);
}

}  // namespace zavkjni
