// CMSKeyDatabase, changing records: deleting, inserting (no reference check there), the default
// key and trust; and a private key encrypted or decrypted with the password, no file opened.
#include <gmock/gmock.h>

#include <algorithm>
#include <optional>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::nullObject;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::Scripted;
using harness::someObject;
using keydb::bytesDiffer;
using keydb::bytesFit;
using keydb::LabelNative;
using keydb::newDb;
using keydb::nullThis;
using keydb::onLabel;
using keydb::openCall;
using keydb::pwdLine;
using keydb::str;
using keydb::whileOpen;
using Lines = std::vector<std::string>;

// ---- delete, default, trust ------------------------------------------------------------------

LabelNative deleteKey(jboolean isReqKey) {
    return [isReqKey](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(DeleteKeyByLabel)(
            env, self, str("k.kdb"), str("pw"), str("lbl"), isReqKey));
    };
}
const LabelNative setDefault = [](JNIEnv* env, jobject self) {
    return returned(KEYDB_NATIVE(SetDefaultKey)(
        env, self, str("k.kdb"), str("pw"), str("lbl")));
};
LabelNative setTrust(jboolean isTrusted) {
    return [isTrusted](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(SetKeyTrust)(
            env, self, str("k.kdb"), str("pw"), str("lbl"), isTrusted));
    };
}

// A label operation on the open file that answers code.
Row labelOperation(const char* name, LabelNative native, const char* op, const std::string& call,
                   int64_t code) {
    return onLabel(name, native, {keydb::opened(), {op, fake::returns(code)}}, whileOpen({call}), {},
                   rc(static_cast<jint>(code)));
}

const std::vector<Row> labelRows = {
    labelOperation("DeleteKey", deleteKey(JNI_FALSE), "ZAVKM_DeleteKey",
                   R"(ZAVKM_DeleteKey(7, "lbl"))", 0),
    labelOperation("DeleteRequestKeyPair", deleteKey(JNI_TRUE), "ZAVKM_DeleteRequestKeyPair",
                   R"(ZAVKM_DeleteRequestKeyPair(7, "lbl"))", 117),
    onLabel("DeleteWrongPassword", deleteKey(JNI_FALSE), {keydb::openFails(13)}, {openCall}, {},
            rc(13)),
    nullThis("DeleteNullThis", deleteKey(JNI_FALSE), rc(65)),
    labelOperation("SetDefault", setDefault, "ZAVKM_SetDefaultKeyByLabel",
                   R"(ZAVKM_SetDefaultKeyByLabel(7, "lbl"))", 0),
    labelOperation("SetDefaultFails", setDefault, "ZAVKM_SetDefaultKeyByLabel",
                   R"(ZAVKM_SetDefaultKeyByLabel(7, "lbl"))", 117),
    nullThis("SetDefaultNullThis", setDefault, rc(65)),
    labelOperation("TrustTrue", setTrust(JNI_TRUE), "ZAVKM_SetTrustStatus",
                   R"(ZAVKM_SetTrustStatus(7, "lbl", 1))", 0),
    labelOperation("TrustFalseFails", setTrust(JNI_FALSE), "ZAVKM_SetTrustStatus",
                   R"(ZAVKM_SetTrustStatus(7, "lbl", 0))", 21),
    onLabel("TrustWrongPassword", setTrust(JNI_TRUE), {keydb::openFails(13)}, {openCall}, {},
            rc(13)),
    nullThis("TrustNullThis", setTrust(JNI_TRUE), rc(65)),
};

CONFORMANCE_ROWS(KeyDbLabelOperationRows, labelRows);

// ---- inserting -------------------------------------------------------------------------------

const std::vector<uint8_t> cert = {0x30, 0x82};
const std::vector<uint8_t> keyData = {1, 2, 3};

// What an insert native is handed: `this` (or null), the data lengths given with the arrays
// cert and keyData, and the two flags of c_InsertKey.
struct Insert {
    bool self = true;
    jint certLength = 2;
    jint keyLength = 3;
    jboolean flag1 = JNI_TRUE;
    jboolean flag2 = JNI_FALSE;
};

// c_InsertKey, or c_InsertReqKey when request is true; the library answers code.
Row insert(const char* name, bool request, Insert in, const std::string& shownCall, Lines bytesLines,
           int64_t code = 0) {
    return {name,
            {keydb::opened(), {request ? "ZAVKM_InsertReqKey" : "ZAVKM_InsertKey", fake::returns(code)}},
            [request, in](Context& c) {
                jobject self = in.self ? newDb() : nullptr;
                return returned(
                    request ? KEYDB_NATIVE(InsertReqKey)(
                                  c.env, self, str("k.kdb"), str("pw"), str("lbl"), in.certLength,
                                  harness::byteArray(cert), in.keyLength, harness::byteArray(keyData))
                            : KEYDB_NATIVE(InsertKey)(
                                  c.env, self, str("k.kdb"), str("pw"), str("lbl"), in.certLength,
                                  harness::byteArray(cert), in.keyLength, harness::byteArray(keyData),
                                  in.flag1, in.flag2));
            },
            whileOpen({shownCall}),
            keydb::join({{keydb::fileLine, pwdLine, keydb::labelLine}, bytesLines}),
            rc(static_cast<jint>(code))};
}

const std::vector<Row> insertRows = {
    insert("InsertKeyWithKeyData", false, {},
           R"(ZAVKM_InsertKey(7, "lbl", 2, [3082], 3, [010203], 1, 0))", {bytesFit, bytesFit}),
    insert("InsertKeyWithoutKeyData", false, {.keyLength = 0, .flag1 = JNI_FALSE, .flag2 = JNI_TRUE},
           R"(ZAVKM_InsertKey(7, "lbl", 2, [3082], 0, null, 0, 1))", {bytesFit}),
    // The certificate is not checked: the library gets null with the length given, and answers.
    insert("InsertKeyCertificateLengthDiffers", false, {.certLength = 3, .keyLength = 0},
           R"(ZAVKM_InsertKey(7, "lbl", 3, null, 0, null, 1, 0))", {bytesDiffer}, 16),
    insert("InsertKeyNullThisStillInserts", false, {.self = false},
           R"(ZAVKM_InsertKey(7, "lbl", 2, [3082], 3, [010203], 1, 0))", {bytesFit, bytesFit}),
    insert("InsertReqKey", true, {}, R"(ZAVKM_InsertReqKey(7, "lbl", 2, [3082], 3, [010203]))",
           {bytesFit, bytesFit}, 29),
    insert("InsertReqKeyNullThisWithoutKeyData", true, {.self = false, .keyLength = 0},
           R"(ZAVKM_InsertReqKey(7, "lbl", 2, [3082], 0, null))", {bytesFit}),
    // Only a length greater than 0 converts the key data.
    insert("InsertReqKeyNegativeKeyLength", true, {.keyLength = -1},
           R"(ZAVKM_InsertReqKey(7, "lbl", 2, [3082], 4294967295, null))", {bytesFit}),
    {"InsertKeyWrongPassword",
     {keydb::openFails(13)},
     [](Context& c) {
         return returned(KEYDB_NATIVE(InsertKey)(
             c.env, newDb(), str("k.kdb"), str("pw"), str("lbl"), 2, harness::byteArray(cert), 0,
             nullptr, JNI_FALSE, JNI_FALSE));
     },
     {openCall},
     {keydb::fileLine, pwdLine, keydb::labelLine, bytesFit},
     rc(13)},
};

CONFORMANCE_ROWS(KeyDbInsertRows, insertRows);

// ---- private keys ----------------------------------------------------------------------------

const char* const epkiTrace = "JNI_DEBUG......jEncryptedPrivateKeyInfoItem = 0x{ref}, retObj = 0x{ref}";
const char* const pkiTrace = "JNI_DEBUG......jPrivateKeyInfoItem = 0x{ref}, retObj = 0x{ref}";
const char* const encryptCall = R"(ZAVKM_GetEPKIItemFromPrivateKey([010203], 3, "pw", non-null))";
const char* const freeEpki = "ZAVKM_FreeEPKIItem(non-null)";
const std::string encryptReturns = "JNI_DEBUG......ZAVKM_GetEPKIItemFromPrivateKey returns ";
const std::string decryptReturns = "JNI_DEBUG......ZAVKM_GetPrivKeyInfoItemFromEPKIItem returns ";

// derOf: the result's getDer() is der.
std::function<void(Context&, const Returned&)> derOf(std::vector<uint8_t> der, const char* releasedBy) {
    return [der, releasedBy](Context& c, const Returned& got) {
        EXPECT_EQ(harness::bytes(static_cast<jbyteArray>(harness::callObject(got.object, "getDer", "()[B"))),
                  der);
        keydb::expectReleasedBy(releasedBy);
        EXPECT_EQ(c.ledger.count("GetObjectClass"), 0u) << "no class lookup here";
    };
}

// c_EncryptPrivateKey or c_DecryptPrivateKey (decrypt true) with the length and array given.
// An EPKI record the native frees goes before the password is given back when it came from the
// encryption, after it when the decryption built it.
Row privateKey(const char* name, bool decrypt, jint length, std::optional<std::vector<uint8_t>> data,
               std::vector<Scripted> script, Lines journal, Lines traceAfterPassword,
               Returned expected, std::function<void(Context&, const Returned&)> check = nullptr) {
    const bool freesRecord = std::find(journal.begin(), journal.end(), freeEpki) != journal.end();
    return {name,
            script,
            [decrypt, length, data, freesRecord](Context& c) {
                if (freesRecord) {
                    keydb::probeAt("ZAVKM_FreeEPKIItem", 0, [&c, decrypt] {
                        EXPECT_EQ(keydb::stringsGivenBack(c.ledger), decrypt ? 1u : 0u);
                    });
                }
                jbyteArray array = data ? harness::byteArray(*data) : nullptr;
                return returned(
                    decrypt ? KEYDB_NATIVE(DecryptPrivateKey)(
                                  c.env, newDb(), length, array, str("pw"))
                            : KEYDB_NATIVE(EncryptPrivateKey)(
                                  c.env, newDb(), length, array, str("pw")));
            },
            journal,
            keydb::join({{pwdLine}, traceAfterPassword}),
            expected,
            check};
}

const std::vector<uint8_t> plainKey = {1, 2, 3};

Scripted encrypted(int64_t code) {
    return {"ZAVKM_GetEPKIItemFromPrivateKey",
            fake::returns(code).out(3, [] { return fake::epkiItem({0x30, 0x0a}); })};
}
Scripted decrypted(int64_t code) {
    fake::Step step = fake::returns(code);
    if (code == 0) step.out(2, [] { return fake::privKeyInfoItem({0x30, 0x0b}); });
    return {"ZAVKM_GetPrivKeyInfoItemFromEPKIItem", step};
}
Lines decryptJournal(const std::string& record, bool converted) {
    Lines journal = {"ZAVKM_Malloc(32)", "ZAVKM_InitEPKIItem(non-null)",
                     "ZAVKM_GetPrivKeyInfoItemFromEPKIItem(" + record + R"(, "pw", non-null))"};
    if (converted) journal.push_back("ZAVKM_FreePrivKeyInfoItem(non-null)");
    journal.push_back(freeEpki);
    return journal;
}

const std::vector<Row> privateKeyRows = {
    privateKey("EncryptEncrypts", false, 3, plainKey, {encrypted(0)}, {encryptCall, freeEpki},
               {bytesFit, encryptReturns + "0", epkiTrace}, someObject,
               derOf({0x30, 0x0a}, "ZAVKM_FreeEPKIItem")),
    // A record that comes with a failure is freed unconverted.
    privateKey("EncryptFails", false, 3, plainKey, {encrypted(9)}, {encryptCall, freeEpki},
               {bytesFit, encryptReturns + "9"}, nullObject),
    privateKey("EncryptLength0", false, 0, plainKey, {}, {}, {}, nullObject),
    privateKey("EncryptOneShort", false, 2, plainKey, {}, {}, {bytesDiffer}, nullObject),
    keydb::nullThis("EncryptNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(EncryptPrivateKey)(env, self, 3, harness::byteArray(plainKey),
            str("pw")));
    }, nullObject),

    privateKey("DecryptDecrypts", true, 3, plainKey, {decrypted(0)},
               decryptJournal("EPKI[010203]", true), {bytesFit, decryptReturns + "0", pkiTrace},
               someObject,
               [](Context& c, const Returned& got) {
                   derOf({0x30, 0x0b}, "ZAVKM_FreePrivKeyInfoItem")(c, got);
                   for (const fake::Block& block : fake::released()) {
                       if (block.origin == "ZAVKM_Malloc") {
                           EXPECT_EQ(block.releasedBy, "ZAVKM_FreeEPKIItem");
                       }
                   }
               }),
    // No bytes, but a length: the record is built, handed over and freed all the same.
    privateKey("DecryptNullDataLength5", true, 5, std::nullopt, {decrypted(7)},
               decryptJournal("EPKI{der=null, derLength=5}", false), {decryptReturns + "7"},
               nullObject),
    privateKey("DecryptWrongPassword", true, 3, plainKey, {decrypted(20)},
               decryptJournal("EPKI[010203]", false), {bytesFit, decryptReturns + "20"}, nullObject),
    {"DecryptNoRecord",
     {{"ZAVKM_Malloc", fake::returnsNull()}},
     [](Context& c) {
         return returned(KEYDB_NATIVE(DecryptPrivateKey)(
             c.env, newDb(), 3, harness::byteArray(plainKey), str("pw")));
     },
     {"ZAVKM_Malloc(32)"},
     {pwdLine, bytesFit},
     nullObject},
    {"DecryptLength0", {},
     [](Context& c) {
         return returned(KEYDB_NATIVE(DecryptPrivateKey)(
             c.env, newDb(), 0, harness::byteArray(plainKey), str("pw")));
     },
     {}, {pwdLine}, nullObject},
    keydb::nullThis("DecryptNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(DecryptPrivateKey)(env, self, 3, harness::byteArray(plainKey),
            str("pw")));
    }, nullObject),
};

CONFORMANCE_ROWS(KeyDbPrivateKeyRows, privateKeyRows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_DeleteKeyByLabel", "(SSSZ)I", [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"),
        z(true)}; },
     {}, 0, {"ZAVKM_OpenKeyDb", "ZAVKM_DeleteRequestKeyPair"}},
    {"c_InsertKey", "(SSSI[BI[BZZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), s("lbl"), i(2), bytes(cert), i(0), o(nullptr),
                            z(false), z(true)};
     },
     {}, 0, {"ZAVKM_OpenKeyDb", "ZAVKM_InsertKey"}},
    {"c_InsertReqKey", "(SSSI[BI[B)I",
     [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"), i(2), bytes(cert), i(3),
         bytes(keyData)}; },
     {}, 0, {"ZAVKM_OpenKeyDb", "ZAVKM_InsertReqKey"}},
    {"c_SetDefaultKey", "(SSS)I", [] { return std::vector{s("k.kdb"), s("pw"), s("lbl")}; }, {}, 0,
     {"ZAVKM_OpenKeyDb", "ZAVKM_SetDefaultKeyByLabel"}},
    {"c_SetKeyTrust", "(SSSZ)I", [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"),
        z(false)}; },
     {}, 0, {"ZAVKM_OpenKeyDb", "ZAVKM_SetTrustStatus"}},
    {"c_EncryptPrivateKey", "(I[BS)Lcom/norvex/zav/tolvik/basic/EncryptedPrivateKeyInfoItem;",
     [] { return std::vector{i(3), bytes(plainKey), s("pw")}; }, {encrypted(0)}, 1,
     {"ZAVKM_GetEPKIItemFromPrivateKey", "ZAVKM_FreeEPKIItem"}},
    {"c_DecryptPrivateKey", "(I[BS)Lcom/norvex/zav/tolvik/basic/PrivateKeyInfoItem;",
     [] { return std::vector{i(3), bytes(plainKey), s("pw")}; }, {decrypted(0)}, 1,
     {"ZAVKM_Malloc", "ZAVKM_InitEPKIItem", "ZAVKM_GetPrivKeyInfoItemFromEPKIItem",
      "ZAVKM_FreePrivKeyInfoItem", "ZAVKM_FreeEPKIItem"}},
};
JAVA_CALLS(KeyDbRecordsJava, keydb::dbClass, javaCalls);

}  // namespace
