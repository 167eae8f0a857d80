// CryptographicToken: the labels of a module's tokens, the password probe and change (no store
// opened), and the listing, lookup and deletion of the keys on a token.
#include "token_rows.h"

#define TOKEN_NATIVE(method) Java_com_norvex_zav_tolvik_basic_CryptographicToken_c_1##method

namespace {

using harness::no;
using harness::nullObject;
using harness::rc;
using harness::returned;
using harness::Row;
using harness::someObject;
using harness::str;
using harness::yes;
using namespace tokenrows;

const char* const sink = "zavtest/LabelSink";

// ---- c_GetCryptoTokenLabelList ---------------------------------------------------------------

const char* const tokenListCall = R"(ZAVKM_GetCryptoTokenLabelList("mod.so", non-null))";
const std::string moduleTrace = frameTrace(nullptr)[0];
const std::string addTokenLabelLookup = "GetStaticMethodID addTokenLabel (Ljava/lang/String;)V";

// Calls the static native on the class `receiver` (null: no class) after emptying the sink's
// static log.
std::function<Returned(Context&)> tokenLabels(const char* receiver,
                                              const char* module = moduleName) {
    return [receiver, module](Context& c) {
        harness::callStaticVoid(sink, "clearStatic", "()V");
        jclass cls = receiver != nullptr ? harness::findClass(receiver) : nullptr;
        return returned(TOKEN_NATIVE(GetCryptoTokenLabelList)(c.env, cls, str(module)));
    };
}

// The module lists `labels`; the sink receives `received` through addTokenLabel.
Row listed(const char* name, std::vector<const char*> labels, std::vector<std::string> received) {
    std::vector<std::string> journal = {tokenListCall};
    if (!labels.empty()) journal.push_back(freedList);
    return {
        name,
        {{"ZAVKM_GetCryptoTokenLabelList", labelsOut(0, 1, labels)}},
        tokenLabels(sink),
        journal,
        {moduleTrace},
        rc(0),
        all({sinkClassReceived(received), lookups({addTokenLabelLookup}), takes({moduleName})})};
}

// A label longer than the 255 bytes a label may have is cut there, never copied past it.
const std::string longLabel(300, 'x');

const std::vector<Row> tokenLabelRows = {
    listed("EachLabelToAddTokenLabel", {"tokA", "tokB"},
           {"addTokenLabel:tokA", "addTokenLabel:tokB"}),
    listed("LongLabelCutAt255Bytes", {longLabel.c_str()},
           {"addTokenLabel:" + longLabel.substr(0, 255)}),
    listed("SecondLabelNullEndsTheWalk", {"tokA", nullptr, "tokC"}, {"addTokenLabel:tokA"}),
    listed("ModuleWithoutTokens", {}, {}),
    {"ListingFails",
     {{"ZAVKM_GetCryptoTokenLabelList",
       fake::returns(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED)}},
     tokenLabels(sink),
     {tokenListCall},
     {moduleTrace},
     rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED),
     sinkClassReceived({})},
    refused("NullModuleName", tokenLabels(sink, nullptr), rc(ZAVKM_ERR_PARAMETER)),
    refused("NullClass", tokenLabels(nullptr), rc(ZAVKM_ERR_PARAMETER)),
    // The lookup comes first: no string is taken and the library is not asked.
    refused("ClassWithoutAddTokenLabel", tokenLabels("zavtest/NoCallbacks"),
            rc(ZAVKM_ERR_PARAMETER),
            all({lookups({addTokenLabelLookup}), takes({}), noSuchMethod()})),
};
CONFORMANCE_ROWS(TokenLabelListRows, tokenLabelRows);

// ---- c_IsPasswordRequired ----------------------------------------------------------------------

std::function<Returned(Context&)> passwordRequired(const char* label) {
    return [label](Context& c) {
        return returned(
            TOKEN_NATIVE(IsPasswordRequired)(c.env, newToken(), str(moduleName), str(label)));
    };
}

// The probe answers code and leaves flag; no store is opened and no password is involved.
Row probe(const char* name, int code, uint8_t flag, Returned expected) {
    const std::vector<std::string> frame = frameTrace(nullptr);
    return {name,
            {{"ZAVKM_IsPasswordRequired", fake::returns(code).out(1, flag)}},
            passwordRequired(tokenLabel),
            {"ZAVKM_IsPasswordRequired(" + tokenDescriptor(nullptr) + ", non-null)"},
            {frame[0], frame[1]},
            expected,
            takes({moduleName, tokenLabel})};
}

const std::vector<Row> passwordRequiredRows = {
    probe("FlagOne", 0, 1, yes),
    probe("FlagZero", 0, 0, no),
    probe("FlagTwo", 0, 2, no),
    probe("ErrorWithFlagOne", ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST, 1, no),
    refused("NullTokenLabel", passwordRequired(nullptr), no),
};
CONFORMANCE_ROWS(TokenPasswordRequiredRows, passwordRequiredRows);

// ---- c_ChangeKeyDbPwd --------------------------------------------------------------------------

std::function<Returned(Context&)> changePassword(const char* module, const char* label,
                                                 const char* oldPassword, const char* newPassword) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(ChangeKeyDbPwd)(c.env, newToken(), str(module), str(label),
                                                     str(oldPassword), str(newPassword)));
    };
}

Row changed(const char* name, int code) {
    std::vector<std::string> trace = frameTrace(nullptr);
    trace.resize(2);
    trace.push_back("JNI_DEBUG......cCryptographicTokenOldPassword = old");
    trace.push_back("JNI_DEBUG......cCryptographicTokenNewPassword = new");
    return {name,
            {{"ZAVKM_ChangeKeyDbPwdX", fake::returns(code)}},
            changePassword(moduleName, tokenLabel, "old", "new"),
            {"ZAVKM_ChangeKeyDbPwdX(" +
             descriptor(2, {{"cryptoModuleName", moduleName},
                            {"tokenLabel", tokenLabel},
                            {"password", "old"},
                            {"newPassword", "new"}}) +
             ")"},
            trace,
            rc(code),
            takes({moduleName, tokenLabel, "old", "new"})};
}

const std::vector<Row> changePasswordRows = {
    changed("Changed", 0),
    changed("LibraryCodeUnchanged", ZAVKM_ERR_PWD_TOO_SHORT),
    refused("NullModuleName", changePassword(nullptr, tokenLabel, "old", "new"),
            rc(ZAVKM_ERR_PARAMETER)),
    refused("NullTokenLabel", changePassword(moduleName, nullptr, "old", "new"),
            rc(ZAVKM_ERR_PARAMETER)),
    refused("NullOldPassword", changePassword(moduleName, tokenLabel, nullptr, "new"),
            rc(ZAVKM_ERR_PARAMETER)),
    refused("NullNewPassword", changePassword(moduleName, tokenLabel, "old", nullptr),
            rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenChangePasswordRows, changePasswordRows);

// ---- c_BuildKeyLabelList -----------------------------------------------------------------------

const std::vector<std::string> labelCallbackLookups = {
    "GetMethodID addPersonalKeyLabel (Ljava/lang/String;)V",
    "GetMethodID addSignerKeyLabel (Ljava/lang/String;)V",
    "GetMethodID addRequestKeyLabel (Ljava/lang/String;)V"};
const char* const keyLabelList = "ZAVKM_GetKeyDbLabelList(7, non-null)";
const char* const requestLabelList = "ZAVKM_GetReqKeyDbLabelList(7, non-null)";

// Calls the native on a new object of `receiver`, kept as the row's subject.
std::function<Returned(Context&)> buildList(const char* password, const char* receiver = sink,
                                            const char* label = tokenLabel) {
    return [=](Context& c) {
        c.subject = harness::newObject(receiver, "()V");
        return returned(TOKEN_NATIVE(BuildKeyLabelList)(c.env, c.subject, str(moduleName),
                                                        str(label), str(password)));
    };
}

Scripted keyLabels(int code, std::vector<const char*> labels) {
    return {"ZAVKM_GetKeyDbLabelList", labelsOut(code, 1, std::move(labels))};
}
Scripted requestLabels(int code, std::vector<const char*> labels) {
    return {"ZAVKM_GetReqKeyDbLabelList", labelsOut(code, 1, std::move(labels))};
}
// The private-key test answers code and leaves flag.
// The sink received `received`; the three callbacks were looked up first; the frame's strings
// were taken.
Check delivered(std::vector<std::string> received, const char* password = tokenPassword) {
    return all({sinkReceived(std::move(received)), lookups(labelCallbackLookups),
                takes(frameTexts(password, {}))});
}

const std::vector<Row> buildListRows = {
    tokenRow("PersonalSignerAndRequestKeys",
             {.script = {keyLabels(0, {"p1", "s1", "p2"}), present(0, 1), present(0, 0),
                         present(0, 1), requestLabels(0, {"r1", "r2"})},
              .operation = {keyLabelList, presentCall("p1"), presentCall("s1"), presentCall("p2"),
                            freedList, requestLabelList, freedList},
              .check = delivered({"addPersonalKeyLabel:p1", "addSignerKeyLabel:s1",
                                  "addPersonalKeyLabel:p2", "addRequestKeyLabel:r1",
                                  "addRequestKeyLabel:r2"})},
             buildList(tokenPassword), rc(0)),
    // The walk stops at the failing test: that label and the request keys are not listed.
    tokenRow("PrivateKeyTestFailsOnTheThirdLabel",
             {.script = {keyLabels(0, {"a", "b", "c", "d"}), present(0, 1), present(0, 0),
                         present(ZAVKM_ERR_KEY_GET_BY_LABEL, 1)},
              .operation = {keyLabelList, presentCall("a"), presentCall("b"), presentCall("c"),
                            freedList},
              .check = delivered({"addPersonalKeyLabel:a", "addSignerKeyLabel:b"})},
             buildList(tokenPassword), rc(ZAVKM_ERR_KEY_GET_BY_LABEL)),
    tokenRow("NoRecords",
             {.script = {keyLabels(0, {}), requestLabels(0, {})},
              .operation = {keyLabelList, requestLabelList},
              .check = delivered({})},
             buildList(tokenPassword), rc(0)),
    tokenRow("EmptyKeyListStillListsRequestKeys",
             {.script = {keyLabels(0, {}), requestLabels(0, {"r1"})},
              .operation = {keyLabelList, requestLabelList, freedList},
              .check = delivered({"addRequestKeyLabel:r1"})},
             buildList(tokenPassword), rc(0)),
    tokenRow("KeyListFails",
             {.script = {keyLabels(ZAVKM_ERR_LABEL_LIST_CORRUPT, {})},
              .operation = {keyLabelList},
              .check = delivered({})},
             buildList(tokenPassword), rc(ZAVKM_ERR_LABEL_LIST_CORRUPT)),
    tokenRow("RequestListFailsAfterTheKeys",
             {.script = {keyLabels(0, {"p1"}), present(0, 1),
                         requestLabels(ZAVKM_ERR_LABEL_LIST_CORRUPT, {})},
              .operation = {keyLabelList, presentCall("p1"), freedList, requestLabelList},
              .check = delivered({"addPersonalKeyLabel:p1"})},
             buildList(tokenPassword), rc(ZAVKM_ERR_LABEL_LIST_CORRUPT)),
    tokenRow("NoTokenPassword",
             {.password = nullptr,
              .script = {keyLabels(0, {"s1"}), present(0, 0), requestLabels(0, {})},
              .operation = {keyLabelList, presentCall("s1"), freedList, requestLabelList},
              .check = delivered({"addSignerKeyLabel:s1"}, nullptr)},
             buildList(nullptr), rc(0)),
    tokenRow("TokenDoesNotOpen",
             {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED, .check = delivered({})},
             buildList(tokenPassword), rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)),
    refused("ClassWithoutAddRequestKeyLabel",
            buildList(tokenPassword, "zavtest/NoRequestKeyCallback"), rc(ZAVKM_ERR_PARAMETER),
            all({lookups(labelCallbackLookups), takes({}), noSuchMethod()})),
    refused("NullTokenLabel", buildList(tokenPassword, sink, nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenBuildKeyLabelListRows, buildListRows);

// ---- c_GetKeyItemByLabel and c_DeleteKeyItemByLabel -----------------------------------------

const char* const keyLabel = "key1";
const std::string keyLabelTrace = std::string("JNI_DEBUG......cKeyLabel = ") + keyLabel;

std::function<Returned(Context&)> getKey(const char* password, jboolean isReqKey,
                                         const char* label = keyLabel) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(GetKeyItemByLabel)(c.env, newToken(), str(moduleName),
                                                        str(tokenLabel), str(password), str(label),
                                                        isReqKey));
    };
}

Check keyItemIs(const char* label, bool isRequestKey) {
    return [label, isRequestKey](Context&, const Returned& got) {
        EXPECT_EQ(harness::callString(got.object, "getLabel"), label);
        EXPECT_EQ(harness::callBoolean(got.object, "isRequestKey", "()Z"), isRequestKey);
    };
}

ZAVKM_ReqKeyItem* requestKeyRecord(const char* label, int32_t keySize) {
    auto* key = fake::record<ZAVKM_ReqKeyItem>();
    key->shortValue1 = 1;
    key->label = fake::text(label);
    key->keySize = keySize;
    return key;
}

const std::vector<Row> getKeyRows = {
    tokenRow(
        "KeyRecord",
        {.script = {{"ZAVKM_GetKeyItemByLabel",
                     fake::returns(0).out(2, [] { return keyRecord(keyLabel, 2048); })}},
         .operation = {R"(ZAVKM_GetKeyItemByLabel(7, "key1", non-null))",
                       "ZAVKM_FreeKeyItem(non-null)"},
         .trace = concat({{keyLabelTrace, "JNI_DEBUG......KM_GetKeyItem gets NON-NULL",
                           "JNI_DEBUG......cKeyItem->keySize = 2048"},
                          keyItemTrace()}),
         .check = all({keyItemIs(keyLabel, false), takes(frameTexts(tokenPassword, {keyLabel}))})},
        getKey(tokenPassword, JNI_FALSE), someObject),
    tokenRow(
        "RequestKey",
        {.password = nullptr,
         .script = {{"ZAVKM_GetReqKeyItemByLabel",
                     fake::returns(0).out(2, [] { return requestKeyRecord(keyLabel, 1024); })}},
         .operation = {R"(ZAVKM_GetReqKeyItemByLabel(7, "key1", non-null))",
                       "ZAVKM_FreeReqKeyItem(non-null)"},
         .trace = {keyLabelTrace, "JNI_DEBUG......KM_GetReqKeyItem gets NON-NULL",
                   "JNI_DEBUG......cReqKeyItem->keySize = 1024",
                   "JNI_DEBUG......jKeyItemClass = 0x{ref}, constructor=0x{ref}"},
         .check = all({keyItemIs(keyLabel, true), takes(frameTexts(nullptr, {keyLabel}))})},
        getKey(nullptr, JNI_TRUE), someObject),
    // A label that names only a request key has no key record.
    tokenRow("NoKeyRecordUnderTheLabel",
             {.script = {{"ZAVKM_GetKeyItemByLabel", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
              .operation = {R"(ZAVKM_GetKeyItemByLabel(7, "key1", non-null))"},
              .trace = {keyLabelTrace, "JNI_DEBUG......KM_GetKeyItem gets NULL"}},
             getKey(tokenPassword, JNI_FALSE), nullObject),
    tokenRow("TokenDoesNotOpen",
             {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST, .trace = {keyLabelTrace}},
             getKey(tokenPassword, JNI_FALSE), nullObject),
    refused("NullKeyLabel", getKey(tokenPassword, JNI_FALSE, nullptr), nullObject),
};
CONFORMANCE_ROWS(TokenGetKeyItemByLabelRows, getKeyRows);

std::function<Returned(Context&)> deleteKey(const char* password, jboolean isReqKey,
                                            const char* label = keyLabel) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(DeleteKeyItemByLabel)(c.env, newToken(), str(moduleName),
                                                           str(tokenLabel), str(password),
                                                           str(label), isReqKey));
    };
}

const std::vector<Row> deleteKeyRows = {
    tokenRow("KeyRecord",
             {.script = {{"ZAVKM_DeleteKey", fake::returns(0)}},
              .operation = {R"(ZAVKM_DeleteKey(7, "key1"))"},
              .trace = {keyLabelTrace},
              .check = takes(frameTexts(tokenPassword, {keyLabel}))},
             deleteKey(tokenPassword, JNI_FALSE), rc(0)),
    tokenRow("RequestKeyPair",
             {.password = nullptr,
              .script = {{"ZAVKM_DeleteRequestKeyPair", fake::returns(0)}},
              .operation = {R"(ZAVKM_DeleteRequestKeyPair(7, "key1"))"},
              .trace = {keyLabelTrace},
              .check = takes(frameTexts(nullptr, {keyLabel}))},
             deleteKey(nullptr, JNI_TRUE), rc(0)),
    tokenRow("LibraryCodeAfterTheClose",
             {.script = {{"ZAVKM_DeleteKey", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
              .operation = {R"(ZAVKM_DeleteKey(7, "key1"))"},
              .trace = {keyLabelTrace}},
             deleteKey(tokenPassword, JNI_FALSE), rc(ZAVKM_ERR_KEY_GET_BY_LABEL)),
    tokenRow(
        "TokenDoesNotOpen",
        {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED, .trace = {keyLabelTrace}},
        deleteKey(tokenPassword, JNI_FALSE), rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)),
    refused("NullKeyLabel", deleteKey(tokenPassword, JNI_FALSE, nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenDeleteKeyItemByLabelRows, deleteKeyRows);

}  // namespace
