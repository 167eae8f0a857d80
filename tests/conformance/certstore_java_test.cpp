// MSCertificateStore as Java calls it: each of the 9 natives called once through its Java
// method, which proves that its exported name and signature bind, that its arguments arrive in
// their places and that its callbacks reach the binding's own methods.
#include "java_calls.h"
#include "store_rows.h"

namespace {

using namespace javacalls;
using namespace storerows;

const char* const storeClass = "com/norvex/zav/tolvik/basic/MSCertificateStore";
#define KEY_ITEMS "[Lcom/norvex/zav/tolvik/basic/KeyItem;"

// Provider "csp" and password "pw", which every instance native takes first, then `more`.
std::vector<jvalue> onStore(std::vector<jvalue> more) {
    std::vector<jvalue> args = {s("csp"), s("pw")};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}
// The store opens as handle 7 and `calls` are made on it, between `before` and `after`.
std::vector<std::string> opened(std::vector<std::string> calls,
    std::vector<std::string> before = {},
                                std::vector<std::string> after = {}) {
    return concat({before, {storerows::opened(descriptor(4, {{"tokenLabel", "csp"}, {"password",
        "pw"}}))},
                   calls, {closed(storeHandle)}, after});
}
std::vector<std::string> listOf(jobject target, const char* method) {
    return harness::listOfStrings(harness::callObject(target, method, "()Ljava/util/List;"));
}
ZAVKM_KeyItemList* oneKey() { return fake::keyList({keyRecord("k1", 2048)}); }

const std::vector<JavaCall> javaCalls = {
    {"c_GetCSPNameList", "()I",
     [] {
         harness::callStaticVoid(storeClass, "clearCSPNames", "()V");
         return std::vector<jvalue>{};
     },
     {{"ZAVKM_GetCryptoTokenLabelList", labelsOut(0, 1, {"csp1"})}}, 0,
     {R"(ZAVKM_GetCryptoTokenLabelList("", non-null))", freedList},
     [](jobject) {
         EXPECT_THAT(harness::listOfStrings(harness::callStaticObject(storeClass, "getCSPNames",
                                                                      "()Ljava/util/List;")),
                     ::testing::ElementsAre("csp1"));
     },
     true},
    {"c_BuildKeyLabelList", "(SS)I", [] { return onStore({}); },
     {opens(), {"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {"k1"})}, present(0, 0)}, 0,
     opened({"ZAVKM_GetKeyDbLabelList(7, non-null)", presentCall("k1"), freedList}),
     [](jobject store) {
         EXPECT_THAT(listOf(store, "getKeyLabels"), ::testing::ElementsAre("k1"));
         EXPECT_THAT(listOf(store, "getSignerKeyLabels"), ::testing::ElementsAre("k1"));
     }},
    {"c_GetKeyItemByLabel", "(SSS)Lcom/norvex/zav/tolvik/basic/KeyItem;",
     [] { return onStore({s("k1")}); },
     {opens(),
      {"ZAVKM_GetKeyItemByLabel", fake::returns(0).out(2, [] { return keyRecord("k1", 2048); })}},
     1, opened({R"(ZAVKM_GetKeyItemByLabel(7, "k1", non-null))", "ZAVKM_FreeKeyItem(non-null)"})},
    {"c_GetKeyItemListByLabel", "(SSS)" KEY_ITEMS, [] { return onStore({s("k1")}); },
     {opens(), {"ZAVKM_GetKeyItemListByLabel", fake::returns(0).out(2, oneKey)}}, 1,
     opened({R"(ZAVKM_GetKeyItemListByLabel(7, "k1", non-null))",
         "ZAVKM_FreeKeyItemList(non-null)"})},
    {"c_GetKeyItemsByPublicKey", "(SSI[B)" KEY_ITEMS,
     [] { return onStore({i(3), bytes(certBytes)}); },
     {opens(), {"ZAVKM_GetKeyItemsByPublicKey", fake::returns(0).out(3, oneKey)}}, 1,
     opened({"ZAVKM_GetKeyItemsByPublicKey(7, 3, [300102], non-null)",
         "ZAVKM_FreeKeyItemList(non-null)"})},
    {"c_DeleteKeyItemByLabel", "(SSS)I", [] { return onStore({s("k1")}); },
     {opens(), {"ZAVKM_DeleteKey", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
     ZAVKM_ERR_KEY_GET_BY_LABEL, opened({R"(ZAVKM_DeleteKey(7, "k1"))"})},
    {"c_ImportCertificate", "(SSSI[BI[B)I",
     [] { return onStore({s("k1"), i(3), bytes(certBytes), i(2), bytes({0x0a, 0x0b})}); },
     {opens(), {"ZAVKM_InsertKey", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_InsertKey(7, "k1", 3, [300102], 2, [0a0b], 0, 0))"})},
    {"c_AddSignerCertificate", "(SSSSZ)I",
     [] {
         writeCertFile();
         return onStore({s("ca"), s(certFile), z(false)});
     },
     {opens(), {"ZAVKM_StoreCACert", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_StoreCACert(7, [300102], 3, "ca"))"}, {"ZAVKM_Malloc(3)"},
         {"ZAVKM_Free(block(3))"})},
    {"c_CreateNewSelfSignedCertificate", "(SSISILcom/norvex/zav/tolvik/basic/DNItem;III[B)I",
     [] { return onStore({i(3), s("k1"), i(2048), o(newDnItem()), i(365), i(1), i(0),
         o(nullptr)}); },
     {opens(), {"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(0)}}, 0,
     opened({std::string(R"(ZAVKM_CreateSelfSignedCertSigExt(7, "k1", 0, 3, 2048, )") + dnShown +
             ", 365, 1, null, 0, null, 0)"},
            dnConverted, {dnFreed})},
};
JAVA_CALLS(StoreJava, storeClass, javaCalls);

}  // namespace
