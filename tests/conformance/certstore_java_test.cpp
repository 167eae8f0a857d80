// MSCertificateStore as Java calls it: each of the 9 natives called once through its Java
// method, which proves that its exported name and signature bind, that its arguments arrive in
// their places and that its callbacks reach the binding's own methods.
#include "java_calls.h"
#include "store_rows.h"

namespace {

using namespace javacalls;
using namespace storerows;

const char* const storeClass = "com/norvex/zav/tolvik/basic/MSCertificateStore";
const char* const keyItems = "[Lcom/norvex/zav/tolvik/basic/KeyItem;";

class StoreThroughJava : public ThroughJava {
  protected:
    void SetUp() override {
        ThroughJava::SetUp();
        store = harness::newObject(storeClass, "()V");
    }
    // Calls an instance native of the store object with provider "csp" and password "pw" first,
    // then `more`; the store opens as handle 7 and `calls` are made on it.
    void onStore(const char* name, std::initializer_list<const char*> parameters,
                 const char* result, std::vector<jvalue> more, std::vector<Scripted> script,
                 int64_t expected, std::vector<std::string> calls,
                 std::vector<std::string> before = {}, std::vector<std::string> after = {}) {
        std::vector<jvalue> args = {s("csp"), s("pw")};
        args.insert(args.end(), more.begin(), more.end());
        std::string signature = std::string("(") + S + S;
        for (const char* type : parameters) signature += type;
        script.insert(script.begin(), opens());
        call(store, false, name, signature + ")" + result, args, script, expected,
             concat({before,
                     {opened(descriptor(4, {{"tokenLabel", "csp"}, {"password", "pw"}}))},
                     calls,
                     {closed(storeHandle)},
                     after}));
    }
    std::vector<std::string> list(const char* method) {
        return harness::listOfStrings(harness::callObject(store, method, "()Ljava/util/List;"));
    }

    jobject store = nullptr;
};

TEST_F(StoreThroughJava, ProvidersLabelsAndKeys) {
    harness::callStaticVoid(storeClass, "clearCSPNames", "()V");
    call(harness::findClass(storeClass), true, "c_GetCSPNameList", "()I", {},
         {{"ZAVKM_GetCryptoTokenLabelList", labelsOut(0, 1, {"csp1"})}}, 0,
         {R"(ZAVKM_GetCryptoTokenLabelList("", non-null))", "ZAVKM_FreeLabelList(non-null)"});
    EXPECT_THAT(harness::listOfStrings(
                    harness::callStaticObject(storeClass, "getCSPNames", "()Ljava/util/List;")),
                ::testing::ElementsAre("csp1"));
    onStore("c_BuildKeyLabelList", {}, "I", {},
            {{"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {"k1"})},
             {"ZAVKM_IsPrivateKeyPresent", fake::returns(0).out(2, uint8_t{0})}},
            0,
            {"ZAVKM_GetKeyDbLabelList(7, non-null)",
             R"(ZAVKM_IsPrivateKeyPresent(7, "k1", non-null))", "ZAVKM_FreeLabelList(non-null)"});
    EXPECT_THAT(list("getKeyLabels"), ::testing::ElementsAre("k1"));
    EXPECT_THAT(list("getSignerKeyLabels"), ::testing::ElementsAre("k1"));
    onStore("c_GetKeyItemByLabel", {S}, "Lcom/norvex/zav/tolvik/basic/KeyItem;", {s("k1")},
            {{"ZAVKM_GetKeyItemByLabel",
              fake::returns(0).out(2, [] { return keyRecord("k1", 2048); })}},
            1, {R"(ZAVKM_GetKeyItemByLabel(7, "k1", non-null))", "ZAVKM_FreeKeyItem(non-null)"});
    auto oneKey = [] { return fake::keyList({keyRecord("k1", 2048)}); };
    onStore(
        "c_GetKeyItemListByLabel", {S}, keyItems, {s("k1")},
        {{"ZAVKM_GetKeyItemListByLabel", fake::returns(0).out(2, oneKey)}}, 1,
        {R"(ZAVKM_GetKeyItemListByLabel(7, "k1", non-null))", "ZAVKM_FreeKeyItemList(non-null)"});
    onStore("c_GetKeyItemsByPublicKey", {"I", "[B"}, keyItems, {i(3), bytes(certBytes)},
            {{"ZAVKM_GetKeyItemsByPublicKey", fake::returns(0).out(3, oneKey)}}, 1,
            {"ZAVKM_GetKeyItemsByPublicKey(7, 3, [300102], non-null)",
             "ZAVKM_FreeKeyItemList(non-null)"});
}

TEST_F(StoreThroughJava, Maintenance) {
    writeCertFile();
    onStore("c_DeleteKeyItemByLabel", {S}, "I", {s("k1")},
            {{"ZAVKM_DeleteKey", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
            ZAVKM_ERR_KEY_GET_BY_LABEL, {R"(ZAVKM_DeleteKey(7, "k1"))"});
    onStore("c_ImportCertificate", {S, "I", "[B", "I", "[B"}, "I",
            {s("k1"), i(3), bytes(certBytes), i(2), bytes({0x0a, 0x0b})},
            {{"ZAVKM_InsertKey", fake::returns(0)}}, 0,
            {R"(ZAVKM_InsertKey(7, "k1", 3, [300102], 2, [0a0b], 0, 0))"});
    onStore("c_AddSignerCertificate", {S, S, "Z"}, "I", {s("ca"), s(certFile), z(false)},
            {{"ZAVKM_StoreCACert", fake::returns(0)}}, 0,
            {R"(ZAVKM_StoreCACert(7, [300102], 3, "ca"))"}, {"ZAVKM_Malloc(3)"},
            {"ZAVKM_Free(block(3))"});
    onStore("c_CreateNewSelfSignedCertificate",
            {"I", S, "I", "Lcom/norvex/zav/tolvik/basic/DNItem;", "I", "I", "I", "[B"}, "I",
            {i(3), s("k1"), i(2048), o(newDnItem()), i(365), i(1), i(0), o(nullptr)},
            {{"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(0)}}, 0,
            {std::string(R"(ZAVKM_CreateSelfSignedCertSigExt(7, "k1", 0, 3, 2048, )") + dnShown +
             ", 365, 1, null, 0, null, 0)"},
            dnConverted, {dnFreed});
}

}  // namespace
