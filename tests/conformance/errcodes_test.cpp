// CMSKeyDatabaseException.c_BuildErrCodeNameTable: the 151 return-code names offered to a Java
// class, in code order, until the class refuses one.
#include <gmock/gmock.h>

#include "natives.h"
#include "rows.h"

namespace {

using harness::Context;
using harness::no;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::yes;

#define ERRCODES_NAME_(code, name) #name,
const std::vector<std::string> codeNames = {ZAVKM_RETURN_CODES(ERRCODES_NAME_)};
#undef ERRCODES_NAME_

const char* const tableEntered = "JNI_DEBUG......c_BuildErrCodeNameTable......";

// The trace of a table offered up to and including code `last`.
std::vector<std::string> offeredTrace(int last) {
    std::vector<std::string> trace = {tableEntered, "JNI_DEBUG......jmethodId is found."};
    for (int code = 1; code <= last; ++code) {
        trace.push_back("JNI_DEBUG......errKeyIndex = " + std::to_string(code));
        trace.push_back("JNI_DEBUG......errKey = " + codeNames[static_cast<size_t>(code - 1)]);
    }
    return trace;
}

// Calls the native on the class `receiver` (null: no class) after clearing the Java log.
std::function<Returned(Context&)> buildTable(const char* receiver, bool withEnv = true) {
    return [receiver, withEnv](Context& c) {
        harness::callStaticVoid("zavtest/ErrCodeLog", "clear", "()V");
        jclass cls = receiver != nullptr ? harness::findClass(receiver) : nullptr;
        return returned(
            Java_com_norvex_zav_tolvik_basic_CMSKeyDatabaseException_c_1BuildErrCodeNameTable(
                withEnv ? c.env : nullptr, cls));
    };
}

// What the Java class received: codes 1 to `last`, each with its name.
std::function<void(Context&, const Returned&)> received(int last) {
    return [last](Context& c, const Returned&) {
        std::vector<jint> codes = harness::ints(static_cast<jintArray>(
            harness::callStaticObject("zavtest/ErrCodeLog", "codes", "()[I")));
        std::vector<std::optional<std::string>> names = harness::strings(static_cast<jobjectArray>(
            harness::callStaticObject("zavtest/ErrCodeLog", "names", "()[Ljava/lang/String;")));
        ASSERT_EQ(codes.size(), static_cast<size_t>(last));
        ASSERT_EQ(names.size(), static_cast<size_t>(last));
        for (int i = 0; i < last; ++i) {
            EXPECT_EQ(codes[static_cast<size_t>(i)], i + 1);
            EXPECT_EQ(names[static_cast<size_t>(i)], codeNames[static_cast<size_t>(i)]);
        }
        if (last > 0) {
            EXPECT_EQ(names.front(), "ZAVKM_ERR_UNKNOWN");
        }
        if (last == 151) {
            EXPECT_EQ(names.back(), "ZAVKM_ERR_NO_TOKEN_PRESENT");
        }
        if (last > 0) {
            EXPECT_EQ(c.ledger.count("CallStaticBooleanMethod"), static_cast<size_t>(last));
            EXPECT_EQ(c.ledger.count("NewStringUTF"), static_cast<size_t>(last));
            EXPECT_THAT(c.ledger.lookups(), ::testing::ElementsAre(
                                                "GetStaticMethodID addCMSErrCode (ILjava/lang/String;)Z"));
        } else {
            EXPECT_THAT(c.ledger.calls(), ::testing::IsEmpty());
        }
    };
}

const std::vector<Row> errCodeRows = {
    {"AllAccepted", {}, buildTable("zavtest/ErrCodesAccepted"), {}, offeredTrace(151), yes,
     received(151)},
    {"RefusedAtTen", {}, buildTable("zavtest/ErrCodesRefusedAtTen"), {}, offeredTrace(10), no,
     received(10)},
    {"NoCallback", {}, buildTable("zavtest/NoCallbacks"), {}, {tableEntered}, no,
     [](Context& c, const Returned&) {
         // The failed lookup's exception is left for Java to see when the native returns.
         EXPECT_THAT(harness::exceptionText(), ::testing::HasSubstr("NoSuchMethodError"));
         EXPECT_EQ(c.ledger.calls(), std::vector<std::string>{"GetStaticMethodID"});
     }},
    {"NoClass", {}, buildTable(nullptr), {}, {tableEntered}, no, received(0)},
    {"NoEnv", {}, buildTable("zavtest/ErrCodesAccepted", false), {}, {tableEntered}, no,
     received(0)},
};

CONFORMANCE_ROWS(ErrCodeTableRows, errCodeRows);

}  // namespace
