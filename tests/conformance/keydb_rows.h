// What the rows of the key-database natives share: the file every row names, the fake's step
// that opens it, the trace lines every native writes first, a few records and their trace, and
// the fixture of the calls made through Java.
#pragma once

#include <gmock/gmock.h>
#include <jni.h>

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#include "rows.h"
#include "store_rows.h"

// KEYDB_NATIVE(method) names the CMSKeyDatabase native of Java's `method`.
#define KEYDB_NATIVE(method) Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1##method

namespace keydb {

inline constexpr const char* dbClass = "com/norvex/zav/tolvik/basic/CMSKeyDatabase";
inline constexpr ZAVKM_KeyDbHandle openHandle = 7;

// The key database every row names ("k.kdb", password "pw") and the label it asks for ("lbl").
inline const std::string openCall = R"(ZAVKM_OpenKeyDb("k.kdb", "pw", non-null))";
inline const std::string closeCall = "ZAVKM_CloseKeyDb(7)";
inline const std::string fileLine = "JNI_DEBUG......cKeyDbFileName = k.kdb";
inline const std::string pwdLine = "JNI_DEBUG......cKeyDbPwd = pw";
inline const std::string labelLine = "JNI_DEBUG......cKeyLabel = lbl";
inline const std::string bytesFit = storerows::bytesMatch;
using storerows::bytesDiffer;

// The lines getJavaKeyItem writes for a key record without private key, certificates or BER.
inline const std::vector<std::string> keyItemTrace = storerows::keyItemTrace();

// opened is the fake's answer "open, as handle 7"; openFails(rc) its refusal.
inline harness::Scripted opened() {
    return {"ZAVKM_OpenKeyDb", fake::returns(0).out(2, openHandle)};
}
inline harness::Scripted openFails(int64_t rc) { return {"ZAVKM_OpenKeyDb", fake::returns(rc)}; }

using storerows::concat;
inline constexpr auto& join = concat;  // chains line lists

// whileOpen is the journal of calls made on the open file: the open, the calls, the close.
inline std::vector<std::string> whileOpen(std::vector<std::string> calls) {
    return join({{openCall}, calls, {closeCall}});
}

// newDb is a new CMSKeyDatabase, the `this` of most rows.
inline jobject newDb() { return harness::newObject(dbClass, "()V"); }

inline jstring str(const char* text) { return harness::str(text); }

// A native of the file, password and label, called with the env and `this` it is given.
using LabelNative = std::function<harness::Returned(JNIEnv*, jobject)>;

// onLabel plays native with c.env and a new CMSKeyDatabase; its trace starts with the file,
// password and label lines.
inline harness::Row onLabel(const char* name, LabelNative native,
                            std::vector<harness::Scripted> script, std::vector<std::string> journal,
                            std::vector<std::string> traceAfterLabel, harness::Returned expected,
                            std::function<void(harness::Context&, const harness::Returned&)> check =
                                nullptr) {
    return {name,
            script,
            [native](harness::Context& c) { return native(c.env, newDb()); },
            journal,
            join({{fileLine, pwdLine, labelLine}, traceAfterLabel}),
            expected,
            check};
}

// nullThis plays native with a null `this`: nothing may happen but the early answer.
inline harness::Row nullThis(const char* name, LabelNative native, harness::Returned expected,
                            std::vector<std::string> trace = {}) {
    return {name, {}, [native](harness::Context& c) { return native(c.env, nullptr); }, {}, trace,
            expected};
}

// nullEnv plays native with a null JNIEnv and a new CMSKeyDatabase: only the early answer.
inline harness::Row nullEnv(const char* name, LabelNative native, harness::Returned expected) {
    return {name, {}, [native](harness::Context&) { return native(nullptr, newDb()); }, {}, {},
            expected};
}

using storerows::keyRecord;  // a key record of a label and size, made at call time

// reqKeyRecord is a request key record of the given label and size, without its request.
inline ZAVKM_ReqKeyItem* reqKeyRecord(const char* label, int32_t keySize) {
    auto* key = fake::record<ZAVKM_ReqKeyItem>();
    key->label = fake::text(label);
    key->keySize = keySize;
    return key;
}

// expectReleasedBy: every block of the records the row scripted went back through op.
inline void expectReleasedBy(const std::string& op) {
    for (const fake::Block& block : fake::released()) {
        if (block.origin == "test") {
            EXPECT_EQ(block.releasedBy, op);
        }
    }
}

// labelOf reads KeyItem.getLabel().
inline std::optional<std::string> labelOf(jobject keyItem) {
    return harness::text(static_cast<jstring>(
        harness::callObject(keyItem, "getLabel", "()Ljava/lang/String;")));
}

// dnItem is a Java DNItem with common name cn and country c, the other parts null.
inline jobject dnItem(const char* cn, const char* c) {
    return harness::newObject(
        "com/norvex/zav/tolvik/basic/DNItem",
        "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
        "Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;[B)V",
        str(cn), static_cast<jstring>(nullptr), static_cast<jstring>(nullptr),
        static_cast<jstring>(nullptr), static_cast<jstring>(nullptr),
        static_cast<jstring>(nullptr), str(c), static_cast<jstring>(nullptr),
        static_cast<jbyteArray>(nullptr));
}

// The journal and trace of JavaDNItem2CDN for dnItem("Alice", "NO").
inline const std::vector<std::string> aliceCalls = {"ZAVKM_InitDNItem(non-null)",
                                                    R"(ZAVKM_Strdup("Alice"))",
                                                    R"(ZAVKM_Strdup("NO"))"};
inline const std::string aliceRecord = R"(DN{cn="Alice", c="NO"})";
inline const std::vector<std::string> aliceTrace = {
    "JNI_DEBUG......ccn = Alice", "JNI_DEBUG......cou = null", "JNI_DEBUG......co = null",
    "JNI_DEBUG......cl = null",   "JNI_DEBUG......cs = null",  "JNI_DEBUG......cpc = null",
    "JNI_DEBUG......cc = NO"};

// probeAt queues, on top of a row's script, a step of op that answers rc and runs probe when
// op is called: for what must (or must not) have happened by then. Call it in the row's call,
// before the native.
inline void probeAt(const char* op, int64_t rc, std::function<void()> probe) {
    fake::script(op, fake::returns(rc).then([probe](const fake::Call&) { probe(); }));
}

// stringsGivenBack is how many texts of Java strings the native has given back so far.
inline size_t stringsGivenBack(const harness::Ledger& ledger) {
    size_t count = 0;
    for (const auto& event : ledger.strings()) count += event.taken ? 0 : 1;
    return count;
}

}  // namespace keydb
