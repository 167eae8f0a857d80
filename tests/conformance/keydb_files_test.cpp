// CMSKeyDatabase, whole files: creating one (left closed), proving that one opens, changing and
// stashing its password; the expiry in milliseconds reaching the library as seconds.
#include <gmock/gmock.h>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::no;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::yes;
using keydb::closeCall;
using keydb::fileLine;
using keydb::newDb;
using keydb::openCall;
using keydb::pwdLine;
using keydb::str;

const char* const changeEntered = "JNI_DEBUG......c_ChangeKeyDbPwd......";
const char* const stashEntered = "JNI_DEBUG......c_StashKeyDbPwd......";

std::string createCall(const char* seconds) {
    return std::string(R"(ZAVKM_CreateNewKeyDb("k.kdb", "pw", )") + seconds + ", non-null)";
}

// c_CreateNewKeyDb with pwdExpireTime `milliseconds`, which reaches the library as `seconds`;
// the library answers `step`.
Row create(const char* name, jlong milliseconds, const char* seconds, fake::Step step,
           bool closed, Returned expected) {
    std::vector<std::string> journal = {createCall(seconds)};
    if (closed) journal.push_back(closeCall);
    return {name,
            {{"ZAVKM_CreateNewKeyDb", step}},
            [milliseconds](Context& c) {
                return returned(KEYDB_NATIVE(CreateNewKeyDb)(
                    c.env, newDb(), str("k.kdb"), str("pw"), milliseconds));
            },
            journal,
            {fileLine, pwdLine},
            expected};
}
Row createExpiry(const char* name, jlong milliseconds, const char* seconds) {
    return create(name, milliseconds, seconds, fake::returns(0).out(3, keydb::openHandle), true,
                  rc(0));
}

Row open(const char* name, const char* password, std::vector<harness::Scripted> script,
         std::vector<std::string> journal, std::vector<std::string> trace, Returned expected) {
    return {name,
            script,
            [password](Context& c) {
                return returned(KEYDB_NATIVE(OpenKeyDb)(
                    c.env, newDb(), str("k.kdb"), str(password)));
            },
            journal,
            trace,
            expected};
}

// c_ChangeKeyDbPwd from "old" to "new" with pwdExpireTime `milliseconds`; the library answers
// code.
Row change(const char* name, jlong milliseconds, const char* seconds, int64_t code,
           Returned expected) {
    return {name,
            {{"ZAVKM_ChangeKeyDbPwd", fake::returns(code)}},
            [milliseconds](Context& c) {
                return returned(KEYDB_NATIVE(ChangeKeyDbPwd)(
                    c.env, newDb(), str("k.kdb"), str("old"), str("new"), milliseconds));
            },
            {std::string(R"(ZAVKM_ChangeKeyDbPwd("k.kdb", "old", "new", )") + seconds + ")"},
            {changeEntered, fileLine, "JNI_DEBUG......cOldKeyDbPwd = old",
             "JNI_DEBUG......cNewKeyDbPwd = new"},
            expected};
}

Row stash(const char* name, int64_t code, Returned expected) {
    return {name,
            {{"ZAVKM_StashKeyDbPwd", fake::returns(code)}},
            [](Context& c) {
                return returned(KEYDB_NATIVE(StashKeyDbPwd)(
                    c.env, newDb(), str("k.kdb"), str("pw")));
            },
            {R"(ZAVKM_StashKeyDbPwd("k.kdb", "pw"))"},
            {stashEntered, fileLine, pwdLine},
            expected,
            [](Context& c, const Returned&) {
                EXPECT_EQ(c.ledger.count("GetObjectClass"), 0u) << "no class lookup here";
            }};
}

const std::vector<Row> fileRows = {
    createExpiry("CreateExpiry0", 0, "0"),
    createExpiry("CreateExpiry999", 999, "0"),
    createExpiry("CreateExpiry1000", 1000, "1"),
    createExpiry("CreateExpiryMinus1999", -1999, "-1"),
    // Truncated, then cut to the low 32 bits: neither clamped nor rounded.
    createExpiry("CreateExpiryKeepsLow32Bits", -2147483649999LL, "2147483647"),
    create("CreateFailsLeavesNothingToClose", 0, "0",
           fake::returns(23).out(3, keydb::openHandle), false, rc(23)),
    create("CreateWithoutHandleClosesNothing", 0, "0", fake::returns(0), false, rc(0)),
    keydb::nullThis("CreateNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(CreateNewKeyDb)(env, self, str("k.kdb"), str("pw"), 0));
    }, rc(65)),

    open("OpenClosesAgain", "pw", {keydb::opened()}, {openCall, closeCall}, {fileLine, pwdLine},
         rc(0)),
    open("OpenWrongPassword", "pw", {keydb::openFails(13)}, {openCall}, {fileLine, pwdLine},
         rc(13)),
    // A password Java should never leave out: nothing is opened, the file name is given back.
    open("OpenNullPassword", nullptr, {}, {}, {fileLine, "JNI_DEBUG......cKeyDbPwd = null"},
         rc(65)),
    keydb::nullThis("OpenNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(OpenKeyDb)(env, self, str("k.kdb"), str("pw")));
    }, rc(65)),
    keydb::nullEnv("OpenNoEnv", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(OpenKeyDb)(env, self, str("k.kdb"), str("pw")));
    }, rc(65)),

    change("ChangeSucceeds", 1000, "1", 0, yes),
    change("ChangeFails", -1999, "-1", 13, no),
    keydb::nullThis("ChangeNullThisTracesItsEntry", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(ChangeKeyDbPwd)(env, self, str("k.kdb"), str("old"),
            str("new"), 0));
    }, no, {changeEntered}),

    stash("StashSucceeds", 0, yes),
    stash("StashFails", 1, no),
    keydb::nullThis("StashNullThisTracesItsEntry", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(StashKeyDbPwd)(env, self, str("k.kdb"), str("pw")));
    }, no, {stashEntered}),
};

CONFORMANCE_ROWS(KeyDbFileRows, fileRows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_CreateNewKeyDb", "(SSJ)I", [] { return std::vector{s("k.kdb"), s("pw"), j(5000)}; },
     {{"ZAVKM_CreateNewKeyDb", fake::returns(0).out(3, keydb::openHandle)}}, 0,
     {createCall("5"), closeCall}},
    {"c_OpenKeyDb", "(SS)I", [] { return std::vector{s("k.kdb"), s("pw")}; },
     {{"ZAVKM_OpenKeyDb", fake::returns(13)}}, 13, {"ZAVKM_OpenKeyDb"}},
    {"c_ChangeKeyDbPwd", "(SSSJ)Z", [] { return std::vector{s("k.kdb"), s("pw"), s("new"), j(0)}; },
     {}, JNI_TRUE, {"ZAVKM_ChangeKeyDbPwd"}},
    {"c_StashKeyDbPwd", "(SS)Z", [] { return std::vector{s("k.kdb"), s("pw")}; },
     {{"ZAVKM_StashKeyDbPwd", fake::returns(2)}}, JNI_FALSE, {"ZAVKM_StashKeyDbPwd"}},
};
JAVA_CALLS(KeyDbFilesJava, keydb::dbClass, javaCalls);

}  // namespace
