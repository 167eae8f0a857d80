// CMSKeyDatabase, whole files: creating one (left closed), proving that one opens, changing and
// stashing its password; the expiry in milliseconds reaching the library as seconds.
#include <gmock/gmock.h>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
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
                return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1CreateNewKeyDb(
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
                return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1OpenKeyDb(
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
                return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1ChangeKeyDbPwd(
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
                return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1StashKeyDbPwd(
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
    {"CreateNullThis", {},
     [](Context& c) {
         return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1CreateNewKeyDb(
             c.env, nullptr, str("k.kdb"), str("pw"), 0));
     },
     {}, {}, rc(65)},

    open("OpenClosesAgain", "pw", {keydb::opened()}, {openCall, closeCall}, {fileLine, pwdLine},
         rc(0)),
    open("OpenWrongPassword", "pw", {keydb::openFails(13)}, {openCall}, {fileLine, pwdLine},
         rc(13)),
    // A password Java should never leave out: nothing is opened, the file name is given back.
    open("OpenNullPassword", nullptr, {}, {}, {fileLine, "JNI_DEBUG......cKeyDbPwd = null"},
         rc(65)),
    {"OpenNullThis", {},
     [](Context& c) {
         return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1OpenKeyDb(
             c.env, nullptr, str("k.kdb"), str("pw")));
     },
     {}, {}, rc(65)},
    {"OpenNoEnv", {},
     [](Context&) {
         return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1OpenKeyDb(
             nullptr, newDb(), str("k.kdb"), str("pw")));
     },
     {}, {}, rc(65)},

    change("ChangeSucceeds", 1000, "1", 0, yes),
    change("ChangeFails", -1999, "-1", 13, no),
    {"ChangeNullThisTracesItsEntry", {},
     [](Context& c) {
         return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1ChangeKeyDbPwd(
             c.env, nullptr, str("k.kdb"), str("old"), str("new"), 0));
     },
     {}, {changeEntered}, no},

    stash("StashSucceeds", 0, yes),
    stash("StashFails", 1, no),
    {"StashNullThisTracesItsEntry", {},
     [](Context& c) {
         return returned(Java_com_norvex_zav_tolvik_basic_CMSKeyDatabase_c_1StashKeyDbPwd(
             c.env, nullptr, str("k.kdb"), str("pw")));
     },
     {}, {stashEntered}, no},
};

CONFORMANCE_ROWS(KeyDbFileRows, fileRows);

class KeyDbFilesThroughJava : public keydb::JavaCalls {};

TEST_F(KeyDbFilesThroughJava, NativesBind) {
    jstring file = str("k.kdb");
    jstring pwd = str("pw");
    fake::script("ZAVKM_CreateNewKeyDb", fake::returns(0).out(3, keydb::openHandle));
    EXPECT_EQ(checked(env->CallIntMethod(db, method("c_CreateNewKeyDb", "(Ljava/lang/String;Ljava/lang/String;J)I"),
                                         file, pwd, jlong{5000})), 0);
    EXPECT_THAT(fake::journal(), ::testing::ElementsAre(createCall("5"), closeCall));
    fake::reset();

    fake::script("ZAVKM_OpenKeyDb", fake::returns(13));
    EXPECT_EQ(checked(env->CallIntMethod(db, method("c_OpenKeyDb", "(Ljava/lang/String;Ljava/lang/String;)I"),
                                         file, pwd)), 13);
    EXPECT_THAT(ops(), ::testing::ElementsAre("ZAVKM_OpenKeyDb"));

    EXPECT_TRUE(checked(env->CallBooleanMethod(
        db, method("c_ChangeKeyDbPwd", "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;J)Z"),
        file, pwd, str("new"), jlong{0})));
    EXPECT_THAT(ops(), ::testing::ElementsAre("ZAVKM_ChangeKeyDbPwd"));

    fake::script("ZAVKM_StashKeyDbPwd", fake::returns(2));
    EXPECT_FALSE(checked(env->CallBooleanMethod(
        db, method("c_StashKeyDbPwd", "(Ljava/lang/String;Ljava/lang/String;)Z"), file, pwd)));
    EXPECT_THAT(ops(), ::testing::ElementsAre("ZAVKM_StashKeyDbPwd"));
}

}  // namespace
