// CMSKeyDatabase, reading: the labels handed to Java one by one after the file is closed, one
// key or all keys of a label, the private-key flag, the default key, keys by public key.
#include <gmock/gmock.h>

#include <algorithm>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::no;
using harness::nullObject;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::Scripted;
using harness::someObject;
using harness::yes;
using keydb::fileLine;
using keydb::join;
using keydb::keyItemTrace;
using keydb::labelLine;
using keydb::LabelNative;
using keydb::nullThis;
using keydb::onLabel;
using keydb::newDb;
using keydb::openCall;
using keydb::pwdLine;
using keydb::str;
using keydb::whileOpen;
using Lines = std::vector<std::string>;

// ---- c_BuildKeyLabelList ---------------------------------------------------------------------

const char* const keyListCall = "ZAVKM_GetKeyDbLabelList(7, non-null)";
const char* const reqListCall = "ZAVKM_GetReqKeyDbLabelList(7, non-null)";
const char* const freeLabels = "ZAVKM_FreeLabelList(non-null)";
const char* const addKeyLabelLookup = "GetMethodID addKeyLabel (Ljava/lang/String;)V";

// A list step: the code, and the labels handed out (none: a null list).
Scripted labelsStep(const char* op, int64_t code, std::vector<std::string> labels) {
    fake::Step step = fake::returns(code);
    if (!labels.empty()) {
        step.out(1, [labels] {
            std::vector<const char*> texts;
            for (const std::string& label : labels) texts.push_back(label.c_str());
            return fake::labelList(texts);
        });
    }
    return {op, step};
}

// c_BuildKeyLabelList on a new object of class receiver; a receiver with a log() must have
// logged `delivered`, none of it before the file was closed.
Row labels(const char* name, const char* receiver, std::vector<Scripted> script, Lines journal,
           Lines traceAfterPassword, Returned expected, Lines delivered,
           const char* pendingError = nullptr) {
    const bool closes = std::find(journal.begin(), journal.end(), keydb::closeCall) != journal.end();
    return {name,
            script,
            [receiver, closes](Context& c) {
                c.subject = harness::newObject(receiver, "()V");
                if (closes) {
                    keydb::probeAt("ZAVKM_CloseKeyDb", 0, [&c] {
                        EXPECT_EQ(c.ledger.count("CallVoidMethod"), 0u) << "a label before the close";
                    });
                }
                return returned(KEYDB_NATIVE(BuildKeyLabelList)(
                    c.env, c.subject, str("k.kdb"), str("pw")));
            },
            journal,
            join({{fileLine, pwdLine}, traceAfterPassword}),
            expected,
            [receiver, delivered, pendingError](Context& c, const Returned&) {
                if (pendingError != nullptr) {
                    EXPECT_THAT(harness::exceptionText(), ::testing::HasSubstr(pendingError));
                }
                if (std::string(receiver) != "zavtest/NoCallbacks") {
                    EXPECT_EQ(harness::listOfStrings(
                                  harness::callObject(c.subject, "log", "()Ljava/util/List;")),
                              delivered);
                }
                keydb::expectReleasedBy("ZAVKM_FreeLabelList");
            }};
}

const std::string longLabel(255, 'x');
const std::string tooLongLabel = std::string(255, 'y') + "z";

const std::vector<Row> labelRows = {
    labels("LabelsOfBothLists", "zavtest/LabelSink",
           {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 0, {"a", "b"}),
            labelsStep("ZAVKM_GetReqKeyDbLabelList", 0, {"r"})},
           join({whileOpen({keyListCall, reqListCall}), {freeLabels, freeLabels}}),
           {"JNI_DEBUG......cLabel = a", "JNI_DEBUG......cLabel = b", "JNI_DEBUG......cReqLabel = r"},
           rc(0), {"addKeyLabel:a", "addKeyLabel:b", "addReqKeyLabel:r"}),
    {"LabelsNullRequestListLooksUpNoCallback",
     {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 0, {"a"})},
     [](Context& c) {
         c.subject = harness::newObject("zavtest/LabelSink", "()V");
         return returned(KEYDB_NATIVE(BuildKeyLabelList)(
             c.env, c.subject, str("k.kdb"), str("pw")));
     },
     join({whileOpen({keyListCall, reqListCall}), {freeLabels}}),
     {fileLine, pwdLine, "JNI_DEBUG......cLabel = a"},
     rc(0),
     [](Context& c, const Returned&) {
         EXPECT_THAT(c.ledger.lookups(), ::testing::ElementsAre(addKeyLabelLookup));
     }},
    // The key labels are delivered whatever failed later; a request list that comes back with a
    // failure is freed undelivered.
    labels("LabelsRequestListFails", "zavtest/LabelSink",
           {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 0, {"a"}),
            labelsStep("ZAVKM_GetReqKeyDbLabelList", 5, {"r"})},
           join({whileOpen({keyListCall, reqListCall}), {freeLabels, freeLabels}}),
           {"JNI_DEBUG......cLabel = a"}, rc(5), {"addKeyLabel:a"}),
    labels("LabelsKeyListFailsStillDelivered", "zavtest/LabelSink",
           {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 9, {"a"})},
           join({whileOpen({keyListCall}), {freeLabels}}), {"JNI_DEBUG......cLabel = a"}, rc(9),
           {"addKeyLabel:a"}),
    labels("LabelsWrongPassword", "zavtest/LabelSink", {keydb::openFails(13)}, {openCall}, {},
           rc(13), {}),
    labels("LabelOf255BytesWhole", "zavtest/LabelSink",
           {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 0, {longLabel})},
           join({whileOpen({keyListCall, reqListCall}), {freeLabels}}),
           {"JNI_DEBUG......cLabel = " + longLabel}, rc(0), {"addKeyLabel:" + longLabel}),
    labels("LabelOf256BytesCutNotOverrun", "zavtest/LabelSink",
           {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 0, {tooLongLabel})},
           join({whileOpen({keyListCall, reqListCall}), {freeLabels}}),
           {"JNI_DEBUG......cLabel = " + std::string(255, 'y')}, rc(0),
           {"addKeyLabel:" + std::string(255, 'y')}),
    labels("LabelsWithoutAddKeyLabel", "zavtest/NoCallbacks", {}, {}, {}, rc(65), {},
           "NoSuchMethodError"),
    labels("LabelsWithoutAddReqKeyLabel", "zavtest/KeyLabelsOnly",
           {keydb::opened(), labelsStep("ZAVKM_GetKeyDbLabelList", 0, {"a"}),
            labelsStep("ZAVKM_GetReqKeyDbLabelList", 0, {"r"})},
           join({whileOpen({keyListCall, reqListCall}), {freeLabels, freeLabels}}),
           {"JNI_DEBUG......cLabel = a"}, rc(0), {"addKeyLabel:a"}, "NoSuchMethodError"),
    keydb::nullThis("LabelsNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(BuildKeyLabelList)(env, self, str("k.kdb"), str("pw")));
    }, rc(65)),
};

CONFORMANCE_ROWS(KeyDbLabelRows, labelRows);

// ---- c_GetKeyItemByLabel, c_GetKeyItemListByLabel, c_IsPrivateKeyPresent -----------------------

// The key record "lbl" of 2048 bits, handed out through argument `index`.
fake::Step keyFound(size_t index) {
    return fake::returns(0).out(index, [] { return keydb::keyRecord("lbl", 2048); });
}

// checkKey: the KeyItem came back with the label, and the record went back through op.
std::function<void(Context&, const Returned&)> checkKey(const char* op) {
    return [op](Context&, const Returned& got) {
        EXPECT_EQ(keydb::labelOf(got.object), "lbl");
        keydb::expectReleasedBy(op);
    };
}

LabelNative byLabel(jboolean isReqKey) {
    return [isReqKey](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(GetKeyItemByLabel)(
            env, self, str("k.kdb"), str("pw"), str("lbl"), isReqKey));
    };
}
const LabelNative listByLabel = [](JNIEnv* env, jobject self) {
    return returned(static_cast<jobject>(
        KEYDB_NATIVE(GetKeyItemListByLabel)(
            env, self, str("k.kdb"), str("pw"), str("lbl"))));
};
const LabelNative present = [](JNIEnv* env, jobject self) {
    return returned(KEYDB_NATIVE(IsPrivateKeyPresent)(
        env, self, str("k.kdb"), str("pw"), str("lbl")));
};

const char* const getKeyCall = R"(ZAVKM_GetKeyItemByLabel(7, "lbl", non-null))";
const char* const getReqKeyCall = R"(ZAVKM_GetReqKeyItemByLabel(7, "lbl", non-null))";
const char* const listCall = R"(ZAVKM_GetKeyItemListByLabel(7, "lbl", non-null))";
const char* const presentCall = R"(ZAVKM_IsPrivateKeyPresent(7, "lbl", non-null))";
const char* const freeKeyList = "ZAVKM_FreeKeyItemList(non-null)";

Scripted presentFlag(int64_t code, uint8_t flag) {
    return {"ZAVKM_IsPrivateKeyPresent", fake::returns(code).out(2, flag)};
}

const std::vector<Row> lookupRows = {
    onLabel("ByLabelKey", byLabel(JNI_FALSE),
            {keydb::opened(), {"ZAVKM_GetKeyItemByLabel", keyFound(2)}},
            whileOpen({getKeyCall, "ZAVKM_FreeKeyItem(non-null)"}),
            join({{"JNI_DEBUG......KM_GetKeyItem gets NON-NULL",
                   "JNI_DEBUG......cKeyItem->keySize = 2048"},
                  keyItemTrace}),
            someObject, checkKey("ZAVKM_FreeKeyItem")),
    onLabel("ByLabelRequestKey", byLabel(JNI_TRUE),
            {keydb::opened(),
             {"ZAVKM_GetReqKeyItemByLabel",
              fake::returns(0).out(2, [] { return keydb::reqKeyRecord("lbl", 1024); })}},
            whileOpen({getReqKeyCall, "ZAVKM_FreeReqKeyItem(non-null)"}),
            {"JNI_DEBUG......KM_GetReqKeyItem gets NON-NULL",
             "JNI_DEBUG......cReqKeyItem->keySize = 1024", keyItemTrace[1]},
            someObject,
            [](Context&, const Returned& got) {
                EXPECT_TRUE(harness::callBoolean(got.object, "isRequestKey", "()Z"));
                keydb::expectReleasedBy("ZAVKM_FreeReqKeyItem");
            }),
    onLabel("ByLabelKeyNotFound", byLabel(JNI_FALSE),
            {keydb::opened(), {"ZAVKM_GetKeyItemByLabel", fake::returns(117)}},
            whileOpen({getKeyCall}), {"JNI_DEBUG......KM_GetKeyItem gets NULL"}, nullObject),
    onLabel("ByLabelRequestKeyNotFound", byLabel(JNI_TRUE),
            {keydb::opened(), {"ZAVKM_GetReqKeyItemByLabel", fake::returns(117)}},
            whileOpen({getReqKeyCall}), {"JNI_DEBUG......KM_GetReqKeyItem gets NULL"}, nullObject),
    onLabel("ByLabelWrongPassword", byLabel(JNI_FALSE), {keydb::openFails(13)}, {openCall}, {},
            nullObject),
    nullThis("ByLabelNullThis", byLabel(JNI_FALSE), nullObject),

    {"ListOfTwoKeysConvertedBeforeFreed",
     {keydb::opened(),
      {"ZAVKM_GetKeyItemListByLabel",
       fake::returns(0).out(2, [] {
           return fake::keyList({keydb::keyRecord("lbl", 2048), keydb::keyRecord("lbl", 1024)});
       })}},
     [](Context& c) {
         keydb::probeAt("ZAVKM_FreeKeyItemList", 0, [&c] {
             EXPECT_EQ(c.ledger.count("NewObjectArray"), 1u) << "freed before it was converted";
         });
         return listByLabel(c.env, newDb());
     },
     whileOpen({listCall, freeKeyList}),
     join({{fileLine, pwdLine, labelLine, "JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets NON-NULL",
            "JNI_DEBUG......cKeyItemList count is = 2"},
           keyItemTrace, keyItemTrace}),
     someObject,
     [](Context&, const Returned& got) {
         std::vector<jobject> keys = harness::objects(static_cast<jobjectArray>(got.object));
         ASSERT_EQ(keys.size(), 2u);
         EXPECT_EQ(harness::callShort(keys[1], "getKeySize", "()S"), 1024);
         keydb::expectReleasedBy("ZAVKM_FreeKeyItemList");
     }},
    // A list that comes back with a failure is freed unconverted.
    onLabel("ListFailsWithAList", listByLabel,
            {keydb::opened(),
             {"ZAVKM_GetKeyItemListByLabel",
              fake::returns(5).out(2, [] { return fake::keyList({keydb::keyRecord("lbl", 2048)}); })}},
            whileOpen({listCall, freeKeyList}),
            {"JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets NON-NULL"}, nullObject),
    onLabel("ListEmpty", listByLabel, {keydb::opened()}, whileOpen({listCall}),
            {"JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets NULL"}, nullObject),
    onLabel("ListWrongPassword", listByLabel, {keydb::openFails(13)}, {openCall}, {}, nullObject),
    nullThis("ListNullThis", listByLabel, nullObject),

    onLabel("PresentFlagOne", present, {keydb::opened(), presentFlag(0, 1)},
            whileOpen({presentCall}), {}, yes),
    onLabel("PresentFlagTwoIsNo", present, {keydb::opened(), presentFlag(0, 2)},
            whileOpen({presentCall}), {}, no),
    // Only the flag counts, not the code that came with it.
    onLabel("PresentFlagOneWithAFailure", present, {keydb::opened(), presentFlag(5, 1)},
            whileOpen({presentCall}), {}, yes),
    onLabel("PresentWrongPassword", present, {keydb::openFails(13)}, {openCall}, {}, no),
    nullThis("PresentNullThis", present, no),
};

CONFORMANCE_ROWS(KeyDbLookupRows, lookupRows);

// ---- c_GetDefaultKeyItem, c_GetKeyItemsByPublicKey -------------------------------------------

Row defaultKey(const char* name, std::vector<Scripted> script, Lines journal, Lines traceAfter,
               Returned expected, std::function<void(Context&, const Returned&)> check = nullptr) {
    return {name,
            script,
            [](Context& c) {
                return returned(KEYDB_NATIVE(GetDefaultKeyItem)(
                    c.env, newDb(), str("k.kdb"), str("pw")));
            },
            journal,
            join({{fileLine, pwdLine}, traceAfter}),
            expected,
            check};
}

const char* const defaultCall = "ZAVKM_GetDefaultKeyItem(7, non-null)";
const char* const publicKeyCall = "ZAVKM_GetKeyItemsByPublicKey(7, 3, [010203], non-null)";

// c_GetKeyItemsByPublicKey with publicKeyLen `length` and the array `key` (none: null).
Row byPublicKey(const char* name, jint length, std::optional<std::vector<uint8_t>> key,
                std::vector<Scripted> script, Lines journal, Lines trace, Returned expected) {
    return {name,
            script,
            [length, key](Context& c) {
                jbyteArray array = key ? harness::byteArray(*key) : nullptr;
                return returned(static_cast<jobject>(
                    KEYDB_NATIVE(GetKeyItemsByPublicKey)(
                        c.env, newDb(), str("k.kdb"), str("pw"), length, array)));
            },
            journal,
            trace,
            expected};
}
const std::vector<uint8_t> publicKey = {1, 2, 3};

const std::vector<Row> defaultAndPublicKeyRows = {
    // Converted after the close.
    defaultKey("DefaultFound", {keydb::opened(), {"ZAVKM_GetDefaultKeyItem", keyFound(1)}},
               {openCall, defaultCall, keydb::closeCall, "ZAVKM_FreeKeyItem(non-null)"},
               join({{"JNI_DEBUG......ZAVKM_GetDefaultKeyItem gets NON-NULL",
                      "JNI_DEBUG......cKeyItem->keySize = 2048"},
                     keyItemTrace}),
               someObject, checkKey("ZAVKM_FreeKeyItem")),
    defaultKey("DefaultNone", {keydb::opened(), {"ZAVKM_GetDefaultKeyItem", fake::returns(110)}},
               whileOpen({defaultCall}), {"JNI_DEBUG......ZAVKM_GetDefaultKeyItem gets NULL"},
               nullObject),
    defaultKey("DefaultWrongPasswordStillTraced", {keydb::openFails(13)}, {openCall},
               {"JNI_DEBUG......ZAVKM_GetDefaultKeyItem gets NULL"}, nullObject),
    keydb::nullThis("DefaultNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(GetDefaultKeyItem)(env, self, str("k.kdb"), str("pw")));
    }, nullObject),

    byPublicKey("PublicKeyFound", 3, publicKey,
                {keydb::opened(),
                 {"ZAVKM_GetKeyItemsByPublicKey",
                  fake::returns(0).out(3, [] { return fake::keyList({keydb::keyRecord("lbl", 2048)}); })}},
                whileOpen({publicKeyCall, freeKeyList}),
                join({{fileLine, pwdLine, keydb::bytesFit,
                       "JNI_DEBUG......ZAVKM_GetKeyItemsByPublicKey gets NON-NULL",
                       "JNI_DEBUG......cKeyItemList count is = 1"},
                      keyItemTrace}),
                someObject),
    byPublicKey("PublicKeyNoneFound", 3, publicKey, {keydb::opened()}, whileOpen({publicKeyCall}),
                {fileLine, pwdLine, keydb::bytesFit,
                 "JNI_DEBUG......ZAVKM_GetKeyItemsByPublicKey gets NULL"},
                nullObject),
    byPublicKey("PublicKeyWrongPassword", 3, publicKey, {keydb::openFails(13)}, {openCall},
                {fileLine, pwdLine, keydb::bytesFit}, nullObject),
    // Lengths refused before anything is taken.
    byPublicKey("PublicKeyLength0", 0, publicKey, {}, {}, {}, nullObject),
    byPublicKey("PublicKeyNegativeLength", -3, publicKey, {}, {}, {}, nullObject),
    // Lengths that do not fit the array: the file is not opened.
    byPublicKey("PublicKeyOneShort", 2, publicKey, {}, {}, {fileLine, pwdLine, keydb::bytesDiffer},
                nullObject),
    byPublicKey("PublicKeyNullArray", 3, std::nullopt, {}, {}, {fileLine, pwdLine}, nullObject),
    keydb::nullThis("PublicKeyNullThis", [](JNIEnv* env, jobject self) {
        return returned(static_cast<jobject>(KEYDB_NATIVE(GetKeyItemsByPublicKey)(env, self,
            str("k.kdb"), str("pw"), 3, harness::byteArray(publicKey))));
    }, nullObject),
};

CONFORMANCE_ROWS(KeyDbDefaultAndPublicKeyRows, defaultAndPublicKeyRows);

using namespace javacalls;

#define KEY_ITEM "Lcom/norvex/zav/tolvik/basic/KeyItem;"
const std::vector<JavaCall> javaCalls = {
    {"c_BuildKeyLabelList", "(SS)I", [] { return std::vector{s("k.kdb"), s("pw")}; },
     {labelsStep("ZAVKM_GetKeyDbLabelList", 0, {"a"})}, 0,
     {"ZAVKM_OpenKeyDb", "ZAVKM_GetKeyDbLabelList", "ZAVKM_GetReqKeyDbLabelList",
      "ZAVKM_FreeLabelList"},
     [](jobject db) {
         EXPECT_THAT(harness::listOfStrings(harness::callObject(db, "getKeyLabels",
             "()Ljava/util/List;")),
                     ::testing::ElementsAre("a"));
     }},
    {"c_GetKeyItemByLabel", "(SSSZ)" KEY_ITEM,
     [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"), z(true)}; },
     {{"ZAVKM_GetReqKeyItemByLabel",
       fake::returns(0).out(2, [] { return keydb::reqKeyRecord("lbl", 1024); })}},
     1, {"ZAVKM_OpenKeyDb", "ZAVKM_GetReqKeyItemByLabel", "ZAVKM_FreeReqKeyItem"}},
    {"c_GetKeyItemListByLabel", "(SSS)[" KEY_ITEM,
     [] { return std::vector{s("k.kdb"), s("pw"), s("lbl")}; },
     {{"ZAVKM_GetKeyItemListByLabel",
       fake::returns(0).out(2, [] { return fake::keyList({keydb::keyRecord("lbl", 2048)}); })}},
     1, {"ZAVKM_OpenKeyDb", "ZAVKM_GetKeyItemListByLabel", "ZAVKM_FreeKeyItemList"}},
    {"c_IsPrivateKeyPresent", "(SSS)Z", [] { return std::vector{s("k.kdb"), s("pw"), s("lbl")}; },
     {{"ZAVKM_IsPrivateKeyPresent", fake::returns(0).out(2, uint8_t{1})}}, JNI_TRUE,
     {"ZAVKM_OpenKeyDb", "ZAVKM_IsPrivateKeyPresent"}},
    {"c_GetDefaultKeyItem", "(SS)" KEY_ITEM, [] { return std::vector{s("k.kdb"), s("pw")}; },
     {{"ZAVKM_GetDefaultKeyItem", keyFound(1)}}, 1,
     {"ZAVKM_OpenKeyDb", "ZAVKM_GetDefaultKeyItem", "ZAVKM_FreeKeyItem"}},
    {"c_GetKeyItemsByPublicKey", "(SSI[B)[" KEY_ITEM,
     [] { return std::vector{s("k.kdb"), s("pw"), i(3), bytes(publicKey)}; }, {}, -1,
     {"ZAVKM_OpenKeyDb", "ZAVKM_GetKeyItemsByPublicKey"}},
};
#undef KEY_ITEM
JAVA_CALLS(KeyDbLabelsJava, keydb::dbClass, javaCalls);

}  // namespace
