// CMSKeyDatabase, keyring conversions and the password probes of key database and WEBDB files:
// files named only, no key database opened here. Both conversions take the key database names
// first and give the keyring names back first, whichever file is the source.
#include <gmock/gmock.h>

#include <optional>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "com_norvex_zav_tolvik_basic_WEBDBKeyDatabase.h"
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
using keydb::newDb;
using keydb::str;

// ---- Conversions -------------------------------------------------------------------------------

const std::vector<std::string> convertTrace = {keydb::fileLine, keydb::pwdLine,
                                               "JNI_DEBUG......cKyrFileName = r.kyr",
                                               "JNI_DEBUG......cKyrPwd = rpw"};
const std::vector<std::string> keyringFirst = {"r.kyr", "rpw", "k.kdb", "pw"};

jint kyr2Kdb(JNIEnv* env, jobject self, const char* keyDbPwd) {
    return KEYDB_NATIVE(Kyr2Kdb)(
        env, self, str("r.kyr"), str("rpw"), str("k.kdb"), str(keyDbPwd));
}
jint kdb2Kyr(JNIEnv* env, jobject self, const char* keyDbPwd) {
    return KEYDB_NATIVE(Kdb2Kyr)(
        env, self, str("k.kdb"), str(keyDbPwd), str("r.kyr"), str("rpw"));
}

// A conversion answered `code` by the library.
Row convert(const char* name, jint (*native)(JNIEnv*, jobject, const char*), const char* op,
            std::string call, int64_t code) {
    Row row = {name,
               {{op, fake::returns(code)}},
               [native](Context& c) { return returned(native(c.env, newDb(), "pw")); },
               {std::move(call)},
               convertTrace,
               rc(static_cast<jint>(code))};
    row.givenBack = keyringFirst;
    row.check = [](Context& c, const Returned&) {
        // The key database names are taken first, whichever file Java names first.
        std::vector<std::string> taken;
        for (const auto& event : c.ledger.strings()) {
            if (event.taken) taken.push_back(event.text);
        }
        EXPECT_THAT(taken, ::testing::ElementsAre("k.kdb", "pw", "r.kyr", "rpw"));
        EXPECT_EQ(c.ledger.count("GetObjectClass"), 0u);
    };
    return row;
}

const std::string kyr2KdbCall = R"(ZAVKM_Kyr2Kdb("r.kyr", "rpw", "k.kdb", "pw"))";
const std::string kdb2KyrCall = R"(ZAVKM_Kdb2Kyr("k.kdb", "pw", "r.kyr", "rpw"))";

// A conversion with a missing key database password: not taken, 65, the library not called.
Row missingPassword(const char* name, jint (*native)(JNIEnv*, jobject, const char*)) {
    Row row = {name,
               {},
               [native](Context& c) { return returned(native(c.env, newDb(), nullptr)); },
               {},
               {keydb::fileLine, "JNI_DEBUG......cKeyDbPwd = null",
                "JNI_DEBUG......cKyrFileName = r.kyr", "JNI_DEBUG......cKyrPwd = rpw"},
               rc(ZAVKM_ERR_PARAMETER)};
    row.givenBack = {"r.kyr", "rpw", "k.kdb"};
    return row;
}

// ---- Password probes ---------------------------------------------------------------------------

jboolean probeKeyDb(JNIEnv* env, jobject self, jstring fileName) {
    return KEYDB_NATIVE(IsPasswordRequired)(env, self,
                                                                                 fileName);
}
jboolean probeWebDb(JNIEnv* env, jobject self, jstring fileName) {
    return Java_com_norvex_zav_tolvik_basic_WEBDBKeyDatabase_c_1IsPasswordRequired(env, self,
                                                                                   fileName);
}

struct Probe {
    jboolean (*native)(JNIEnv*, jobject, jstring);
    const char* receiverClass;
    int storeType;
};
const Probe keyDbProbe = {probeKeyDb, keydb::dbClass, 1};
const Probe webDbProbe = {probeWebDb, "com/norvex/zav/tolvik/basic/WEBDBKeyDatabase", 3};

// A probe of "k.kdb" answered `code` and `answer` (written through argument 1).
Row probe(const char* name, const Probe& p, int64_t code, std::optional<uint8_t> answer,
          Returned expected) {
    fake::Step step = fake::returns(code);
    if (answer) step.out(1, *answer);
    return {name,
            {{"ZAVKM_IsPasswordRequired", step}},
            [p](Context& c) {
                return returned(
                    p.native(c.env, harness::newObject(p.receiverClass, "()V"), str("k.kdb")));
            },
            // Only the store type and the file name set; every other byte zero.
            {"ZAVKM_IsPasswordRequired(KeyStoreDescriptor{type=" + std::to_string(p.storeType) +
             R"(, keyDbFileName="k.kdb"}, non-null))"},
            {"JNI_DEBUG......cKeyDbFilename = k.kdb"},
            expected};
}

// A probe that asks nothing and traces nothing: no file name, or else no `this`.
Row probeRefused(const char* name, const Probe& p, bool noFileName) {
    return {name,
            {},
            [p, noFileName](Context& c) {
                jobject self = noFileName ? harness::newObject(p.receiverClass, "()V") : nullptr;
                return returned(p.native(c.env, self, noFileName ? nullptr : str("k.kdb")));
            },
            {},
            {},
            no};
}

const std::vector<Row> convertRows = {
    convert("Kyr2Kdb", kyr2Kdb, "ZAVKM_Kyr2Kdb", kyr2KdbCall, 0),
    convert("Kyr2KdbFails", kyr2Kdb, "ZAVKM_Kyr2Kdb", kyr2KdbCall, ZAVKM_ERR_KYR2KDB),
    convert("Kdb2Kyr", kdb2Kyr, "ZAVKM_Kdb2Kyr", kdb2KyrCall, 0),
    convert("Kdb2KyrFails", kdb2Kyr, "ZAVKM_Kdb2Kyr", kdb2KyrCall, ZAVKM_ERR_KDB2KYR),
    missingPassword("Kyr2KdbNullKeyDbPassword", kyr2Kdb),
    missingPassword("Kdb2KyrNullKeyDbPassword", kdb2Kyr),
    keydb::nullThis("Kyr2KdbWithoutThis", [](JNIEnv* env, jobject self) {
        return returned(kyr2Kdb(env, self, "pw")); }, rc(ZAVKM_ERR_PARAMETER)),
    keydb::nullEnv("Kdb2KyrWithoutEnv", [](JNIEnv* env, jobject self) {
        return returned(kdb2Kyr(env, self, "pw"));
    }, rc(ZAVKM_ERR_PARAMETER)),
    probe("KeyDbPasswordRequired", keyDbProbe, 0, 1, yes),
    probe("KeyDbPasswordNotRequired", keyDbProbe, 0, 0, no),
    probe("KeyDbAnswerTwoIsNotRequired", keyDbProbe, 0, 2, no),
    // A failed question is no, whatever the answer byte says.
    probe("KeyDbProbeFails", keyDbProbe, ZAVKM_ERR_FILE_OPEN_NOT_EXIST, 1, no),
    probeRefused("KeyDbProbeNullFileName", keyDbProbe, true),
    probeRefused("KeyDbProbeWithoutThis", keyDbProbe, false),
    probe("WebDbPasswordRequired", webDbProbe, 0, 1, yes),
    probe("WebDbPasswordNotRequired", webDbProbe, 0, 0, no),
    probe("WebDbProbeFails", webDbProbe, ZAVKM_ERR_WEBDB_DATA_BAD_FORMAT, 1, no),
    probeRefused("WebDbProbeNullFileName", webDbProbe, true),
    probeRefused("WebDbProbeWithoutThis", webDbProbe, false),
};

CONFORMANCE_ROWS(KeyDbConvertRows, convertRows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_Kyr2Kdb", "(SSSS)I", [] { return std::vector{s("r.kyr"), s("rpw"), s("k.kdb"), s("pw")}; },
     {{"ZAVKM_Kyr2Kdb", fake::returns(ZAVKM_ERR_KYR2KDB)}}, ZAVKM_ERR_KYR2KDB, {kyr2KdbCall}},
    {"c_Kdb2Kyr", "(SSSS)I", [] { return std::vector{s("k.kdb"), s("pw"), s("r.kyr"), s("rpw")}; },
     {{"ZAVKM_Kdb2Kyr", fake::returns(ZAVKM_ERR_KDB2KYR)}}, ZAVKM_ERR_KDB2KYR, {kdb2KyrCall}},
    {"c_IsPasswordRequired", "(S)Z", [] { return std::vector{s("k.kdb")}; },
     {{"ZAVKM_IsPasswordRequired", fake::returns(0).out(1, uint8_t{1})}}, JNI_TRUE,
     {R"(ZAVKM_IsPasswordRequired(KeyStoreDescriptor{type=1, keyDbFileName="k.kdb"}, non-null))"}},
};
JAVA_CALLS(KeyDbConvertJava, keydb::dbClass, javaCalls);

const std::vector<JavaCall> webDbCalls = {
    {"c_IsPasswordRequired", "(S)Z", [] { return std::vector{s("w.p12")}; },
     {{"ZAVKM_IsPasswordRequired", fake::returns(0).out(1, uint8_t{1})}}, JNI_TRUE,
     {R"(ZAVKM_IsPasswordRequired(KeyStoreDescriptor{type=3, keyDbFileName="w.p12"}, non-null))"}},
};
JAVA_CALLS(WebDbJava, webDbProbe.receiverClass, webDbCalls);

}  // namespace
