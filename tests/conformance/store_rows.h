// Pieces the token and certificate-store rows share: the store handles the fake hands out, the
// journal lines of a descriptor, of opening and closing, lists made at call time, and checks
// of what Java received and which strings were taken.
#pragma once

#include <gmock/gmock.h>

#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "rows.h"

namespace storerows {

using harness::Context;
using harness::Returned;
using harness::Scripted;
using Check = std::function<void(Context&, const Returned&)>;

// The handles the fake writes on a successful open: the token (or store), the secondary file.
inline constexpr ZAVKM_KeyDbHandle storeHandle = 7;
inline constexpr ZAVKM_KeyDbHandle secondaryHandle = 9;

// A descriptor as the fake journals it: its type, then each field given as non-null, in the
// order of the record; every other byte must be zero.
inline std::string descriptor(int type, std::vector<std::pair<const char*, const char*>> fields) {
    std::string shown = "KeyStoreDescriptor{type=" + std::to_string(type);
    for (const auto& [name, value] : fields) {
        if (value != nullptr) shown += std::string(", ") + name + "=\"" + value + "\"";
    }
    return shown + "}";
}

inline std::string opened(const std::string& descriptor) {
    return "ZAVKM_OpenKeyDbX(" + descriptor + ", non-null)";
}
inline std::string closed(ZAVKM_KeyDbHandle handle) {
    return "ZAVKM_CloseKeyDb(" + std::to_string(handle) + ")";
}

// The open answers 0 and writes handle; or answers code and writes nothing.
inline Scripted opens(ZAVKM_KeyDbHandle handle = storeHandle) {
    return {"ZAVKM_OpenKeyDbX", fake::returns(0).out(1, handle)};
}
inline Scripted openFails(int code) { return {"ZAVKM_OpenKeyDbX", fake::returns(code)}; }

// A step that answers code and hands out a label list (made when the call comes) at `index`.
inline fake::Step labelsOut(int code, size_t index, std::vector<const char*> labels) {
    return fake::returns(code).out(index, [labels] { return fake::labelList(labels); });
}

// The private-key test answers code and leaves flag; its journal line for label.
inline Scripted present(int code, uint8_t flag) {
    return {"ZAVKM_IsPrivateKeyPresent", fake::returns(code).out(2, flag)};
}
inline std::string presentCall(const char* label) {
    return std::string("ZAVKM_IsPrivateKeyPresent(7, \"") + label + "\", non-null)";
}
inline const char* const freedList = "ZAVKM_FreeLabelList(non-null)";

// A key record the library hands out: a label and a key size, nothing more.
inline ZAVKM_KeyItem* keyRecord(const char* label, int32_t keySize) {
    auto* key = fake::record<ZAVKM_KeyItem>();
    key->shortValue1 = 1;
    key->label = fake::text(label);
    key->keySize = keySize;
    return key;
}

// The lines getJavaKeyItem traces for each key it converts.
inline std::vector<std::string> keyItemTrace() {
    return {"JNI_DEBUG......jKeyItemClass = 0x{ref}",
            "JNI_DEBUG......jKeyItemClass = 0x{ref}, constructor=0x{ref}"};
}

// The line JavaByteArrayToUChar traces: the lengths agree or not.
inline const char* const bytesMatch =
    "JNI_DEBUG......JavaByteArrayToUChar(): jByteLen == jCertBERLen";
inline const char* const bytesDiffer =
    "JNI_DEBUG......JavaByteArrayToUChar(): jByteLen != jCertBERLen";

// A certificate file in the working directory, written by the row's call: 30 01 02.
inline const char* const certFile = "store_rows_cert.der";
inline const std::vector<uint8_t> certBytes = {0x30, 0x01, 0x02};
inline void writeCertFile() {
    std::ofstream file(certFile, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(certBytes.data()),
               static_cast<std::streamsize>(certBytes.size()));
}
// The answer of the base64 reader: the decoded block 30 01 02 and its length.
inline Scripted base64Decoded() {
    return {"ZAVKM_Base64DecodeFileToBuf", fake::returns(0)
                                               .out(1, [] { return fake::bytes(certBytes); })
                                               .out(2, static_cast<uint32_t>(certBytes.size()))};
}

// The subject of a new certificate or request: a Java DNItem with a common name and a country.
inline jobject newDnItem() {
    return harness::newObject(
        "com/norvex/zav/tolvik/basic/DNItem",
        "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
        "Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;[B)V",
        harness::str("Alice"), nullptr, nullptr, nullptr, nullptr, nullptr, harness::str("US"),
        nullptr, nullptr);
}
// Its conversion: the library's calls, the trace of the seven parts, the record as journaled.
inline const std::vector<std::string> dnConverted = {
    "ZAVKM_InitDNItem(non-null)", R"(ZAVKM_Strdup("Alice"))", R"(ZAVKM_Strdup("US"))"};
inline const std::vector<std::string> dnTrace = {
    "JNI_DEBUG......ccn = Alice", "JNI_DEBUG......cou = null", "JNI_DEBUG......co = null",
    "JNI_DEBUG......cl = null",   "JNI_DEBUG......cs = null",  "JNI_DEBUG......cpc = null",
    "JNI_DEBUG......cc = US"};
inline const char* const dnShown = R"(DN{cn="Alice", c="US"})";
inline const char* const dnFreed = "ZAVKM_FreeDNItem(non-null)";
// A name that does not convert: the library leaves no record to fill.
inline Scripted dnNotConverted() {
    return {"ZAVKM_InitDNItem", fake::returns(0).out(0, static_cast<ZAVKM_DNItem*>(nullptr))};
}

// ---- Checks -------------------------------------------------------------------------------------

// all runs every check in turn.
inline Check all(std::vector<Check> checks) {
    return [checks](Context& c, const Returned& got) {
        for (const Check& check : checks) {
            if (check) check(c, got);
        }
    };
}

// takes: the texts of exactly these Java strings were taken, in this order (the ledger checks
// that each went back in the order taken).
inline Check takes(std::vector<std::string> texts) {
    return [texts](Context& c, const Returned&) {
        std::vector<std::string> taken;
        for (const auto& event : c.ledger.strings()) {
            if (event.taken) taken.push_back(event.text);
        }
        EXPECT_THAT(taken, ::testing::ElementsAreArray(texts)) << "strings taken";
    };
}

// untouched: the native made no JNI call at all.
inline Check untouched() {
    return [](Context& c, const Returned&) {
        EXPECT_THAT(c.ledger.calls(), ::testing::IsEmpty()) << "JNI calls";
    };
}

// lookups: the class and method lookups, in order.
inline Check lookups(std::vector<std::string> expected) {
    return [expected](Context& c, const Returned&) {
        EXPECT_THAT(c.ledger.lookups(), ::testing::ElementsAreArray(expected));
    };
}

// noSuchMethod: the failed lookup left its NoSuchMethodError for Java to see.
inline Check noSuchMethod() {
    return [](Context&, const Returned&) {
        EXPECT_THAT(harness::exceptionText(), ::testing::HasSubstr("NoSuchMethodError"));
    };
}

// The callbacks a zavtest/LabelSink received: its own log (in the row's subject) or the static
// log of its class.
inline Check sinkReceived(std::vector<std::string> expected) {
    return [expected](Context& c, const Returned&) {
        EXPECT_THAT(
            harness::listOfStrings(harness::callObject(c.subject, "log", "()Ljava/util/List;")),
            ::testing::ElementsAreArray(expected));
    };
}
inline Check sinkClassReceived(std::vector<std::string> expected) {
    return [expected](Context&, const Returned&) {
        EXPECT_THAT(harness::listOfStrings(harness::callStaticObject(
                        "zavtest/LabelSink", "staticLog", "()Ljava/util/List;")),
                    ::testing::ElementsAreArray(expected));
    };
}

// keyLabels: the objects of a KeyItem array carry these labels.
inline Check keyLabels(std::vector<std::string> expected) {
    return [expected](Context&, const Returned& got) {
        std::vector<std::string> labels;
        for (jobject key : harness::objects(static_cast<jobjectArray>(got.object))) {
            labels.push_back(harness::callString(key, "getLabel").value_or("null"));
        }
        EXPECT_THAT(labels, ::testing::ElementsAreArray(expected));
    };
}

// concat joins lists of lines.
inline std::vector<std::string> concat(std::initializer_list<std::vector<std::string>> parts) {
    std::vector<std::string> joined;
    for (const auto& part : parts) joined.insert(joined.end(), part.begin(), part.end());
    return joined;
}

// FrameCase - one scenario of a native that opens a token or store (handle 7) with a
// descriptor, works on it and closes it.
struct FrameCase {
    const char* provider = "csp";    // a store's provider name (null: none)
    const char* password = "pw";     // the token or store password Java passes (null: none)
    bool tokenPasswordName = false;  // a store password traced as the token password's
    int openCode = 0;                // the open's answer; 0 opens as handle 7
    std::vector<Scripted> script;    // answers of the native's own operations
    std::vector<std::string> before;      // library calls before the open
    std::vector<std::string> operation;   // library calls on the open store, before its close
    std::vector<std::string> after;       // library calls after the close or the failed open
    std::vector<std::string> conversion;  // trace lines before the frame's (conversions first)
    std::vector<std::string> trace;       // trace lines after the frame's
    Check check = nullptr;
    std::vector<std::string> givenBack = {};  // texts given back out of the order taken
};

// frameRow: the open (of `descriptor`), the case's calls, and the trace `frame` writes as it
// takes its strings.
inline harness::Row frameRow(std::string name, FrameCase fc, const std::string& descriptor,
                             std::vector<std::string> frame,
                             std::function<Returned(Context&)> call, Returned returns) {
    std::vector<Scripted> script = {fc.openCode == 0 ? opens() : openFails(fc.openCode)};
    script.insert(script.end(), fc.script.begin(), fc.script.end());
    std::vector<std::string> journal = concat({fc.before, {opened(descriptor)}});
    if (fc.openCode == 0) journal = concat({journal, fc.operation, {closed(storeHandle)}});
    harness::Row row = {std::move(name), script, std::move(call),
                        concat({journal, fc.after}), concat({fc.conversion, frame, fc.trace}),
                        returns, fc.check};
    row.givenBack = fc.givenBack;
    return row;
}

// refused: an early failure; nothing taken, traced or called (by default no JNI call at all).
inline harness::Row refused(std::string name, std::function<Returned(Context&)> call,
                            Returned returns, Check check = untouched()) {
    return {std::move(name), {}, std::move(call), {}, {}, returns, check};
}

}  // namespace storerows
