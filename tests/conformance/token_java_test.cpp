// CryptographicToken as Java calls it: each of the 17 natives called once through its Java
// method, which proves that its exported name and signature bind, that its arguments arrive in
// their places and that its callbacks reach the binding's own methods.
#include "java_calls.h"
#include "token_rows.h"

namespace {

using namespace javacalls;
using namespace tokenrows;

#define DN "Lcom/norvex/zav/tolvik/basic/DNItem;"

// The module, token label and password every instance native takes first, then `more`.
std::vector<jvalue> onToken(std::vector<jvalue> more) {
    std::vector<jvalue> args = {s(moduleName), s(tokenLabel), s(tokenPassword)};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}
// The library calls of a native that opens the token (handle 7) and makes `calls` on it.
std::vector<std::string> opened(std::vector<std::string> calls) {
    return concat({{storerows::opened(tokenDescriptor(tokenPassword))}, calls,
        {closed(storeHandle)}});
}
std::vector<std::string> listOf(jobject target, const char* method) {
    return harness::listOfStrings(harness::callObject(target, method, "()Ljava/util/List;"));
}

const std::vector<JavaCall> javaCalls = {
    {"c_GetCryptoTokenLabelList", "(S)I",
     [] {
         harness::callStaticVoid(tokenClass, "clearTokenLabels", "()V");
         return std::vector{s(moduleName)};
     },
     {{"ZAVKM_GetCryptoTokenLabelList", labelsOut(0, 1, {"tokA"})}}, 0,
     {R"(ZAVKM_GetCryptoTokenLabelList("mod.so", non-null))", freedList},
     [](jobject) {
         EXPECT_THAT(harness::listOfStrings(harness::callStaticObject(tokenClass, "getTokenLabels",
                                                                      "()Ljava/util/List;")),
                     ::testing::ElementsAre("tokA"));
     },
     true},
    {"c_IsPasswordRequired", "(SS)Z", [] { return std::vector{s(moduleName), s(tokenLabel)}; },
     {{"ZAVKM_IsPasswordRequired", fake::returns(0).out(1, uint8_t{1})}}, JNI_TRUE,
     {"ZAVKM_IsPasswordRequired(" + tokenDescriptor(nullptr) + ", non-null)"}},
    {"c_ChangeKeyDbPwd", "(SSSS)I",
     [] { return std::vector{s(moduleName), s(tokenLabel), s("old"), s("new")}; },
     {{"ZAVKM_ChangeKeyDbPwdX", fake::returns(ZAVKM_ERR_PWD_TOO_SHORT)}}, ZAVKM_ERR_PWD_TOO_SHORT,
     {"ZAVKM_ChangeKeyDbPwdX(" +
      descriptor(2, {{"cryptoModuleName", moduleName},
                     {"tokenLabel", tokenLabel},
                     {"password", "old"},
                     {"newPassword", "new"}}) +
      ")"}},
    {"c_BuildKeyLabelList", "(SSS)I", [] { return onToken({}); },
     {opens(),
      {"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {"p1"})},
      present(0, 1),
      {"ZAVKM_GetReqKeyDbLabelList", labelsOut(0, 1, {"r1"})}},
     0,
     opened({"ZAVKM_GetKeyDbLabelList(7, non-null)", presentCall("p1"), freedList,
             "ZAVKM_GetReqKeyDbLabelList(7, non-null)", freedList}),
     [](jobject token) {
         EXPECT_THAT(listOf(token, "getPersonalKeyLabels"), ::testing::ElementsAre("p1"));
         EXPECT_THAT(listOf(token, "getRequestKeyLabels"), ::testing::ElementsAre("r1"));
     }},
    {"c_GetKeyItemByLabel", "(SSSSZ)Lcom/norvex/zav/tolvik/basic/KeyItem;",
     [] { return onToken({s("key1"), z(false)}); },
     {opens(),
      {"ZAVKM_GetKeyItemByLabel", fake::returns(0).out(2, [] { return keyRecord("key1", 2048); })}},
     1, opened({R"(ZAVKM_GetKeyItemByLabel(7, "key1", non-null))", "ZAVKM_FreeKeyItem(non-null)"})},
    {"c_DeleteKeyItemByLabel", "(SSSSZ)I", [] { return onToken({s("key1"), z(true)}); },
     {opens(), {"ZAVKM_DeleteRequestKeyPair", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
     ZAVKM_ERR_KEY_GET_BY_LABEL, opened({R"(ZAVKM_DeleteRequestKeyPair(7, "key1"))"})},
    {"c_ReceivePersonalCertificate", "(SSSSSSZ)I",
     [] {
         writeCertFile();
         return onToken({s("sec.kdb"), s("secpw"), s(certFile), z(false)});
     },
     {opens(), opens(secondaryHandle), {"ZAVKM_ReceiveCert", fake::returns(0)}}, 0,
     concat({{"ZAVKM_Malloc(3)"},
             opened({storerows::opened(secondaryDescriptor("sec.kdb", "secpw")),
                     "ZAVKM_SetSecondaryKeyDb(7, 9)", "ZAVKM_ReceiveCert(7, [300102], 3, 0)",
                     "ZAVKM_UnsetSecondaryKeyDb(7)", closed(secondaryHandle)}),
             {"ZAVKM_Free(block(3))"}})},
    {"c_ImportCertificate", "(SSSSSSI[BI[B)I",
     [] {
         return onToken({s(nullptr), s(nullptr), s("key1"), i(3), bytes(certBytes), i(2),
                         bytes({0x0a, 0x0b})});
     },
     {opens(), {"ZAVKM_InsertKey", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_InsertKey(7, "key1", 3, [300102], 2, [0a0b], 0, 0))"})},
    {"c_AddSignerCertificate", "(SSSSSZ)I",
     [] {
         writeCertFile();
         return onToken({s("ca"), s(certFile), z(false)});
     },
     {opens(), {"ZAVKM_StoreCACert", fake::returns(0)}}, 0,
     concat({{"ZAVKM_Malloc(3)"}, opened({R"(ZAVKM_StoreCACert(7, [300102], 3, "ca"))"}),
             {"ZAVKM_Free(block(3))"}})},
    {"c_ExtractCertificate", "(SSSSSZ)I", [] { return onToken({s("key1"), s("out.arm"),
        z(true)}); },
     {opens(), {"ZAVKM_ExportCert", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_ExportCert(7, "key1", "out.arm", 1))"})},
    {"c_ImportPersonalCertificateRequest", "(SSSSI[BI[B)I",
     [] { return onToken({s("key1"), i(3), bytes(certBytes), i(0), o(nullptr)}); },
     {opens(), {"ZAVKM_InsertReqKey", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_InsertReqKey(7, "key1", 3, [300102], 0, null))"})},
    {"c_RecreatePersonalCertificateRequest", "(SSSSIS)I",
     [] { return onToken({s("key1"), i(2), s("req.arm")}); },
     {opens(), {"ZAVKM_ReCreateCertReqSig", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_ReCreateCertReqSig(7, "key1", 2, "req.arm", null, null))"})},
    {"c_CreateSelfSignedCertificate", "(SSSISI" DN "II)I",
     [] { return onToken({i(3), s("key1"), i(2048), o(newDnItem()), i(365), i(1)}); },
     {opens(), {"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(0)}}, 0,
     concat({dnConverted,
             opened({std::string(R"(ZAVKM_CreateSelfSignedCertSigExt(7, "key1", 0, 3, 2048, )") +
                     dnShown + ", 365, 1, null, 0, null, 0)"}),
             {dnFreed}})},
    {"c_CreatePersonalCertificateRequest", "(SSSSI" DN "IS)I",
     [] { return onToken({s("key1"), i(2048), o(newDnItem()), i(2), s("req.arm")}); },
     {opens(), {"ZAVKM_CreateNewCertReqSigExt", fake::returns(0)}}, 0,
     concat({dnConverted,
             opened({std::string(R"(ZAVKM_CreateNewCertReqSigExt(7, "key1", 2048, )") + dnShown +
                     R"(, 2, null, 0, "req.arm", null, null))"}),
             {dnFreed}})},
    {"c_ExtractPersonalCertificateRequest", "(SSSSS)I", [] { return onToken({s("key1"),
        s("req.arm")}); },
     {opens(), {"ZAVKM_ReCreateCertReq", fake::returns(0)}}, 0,
     opened({R"(ZAVKM_ReCreateCertReq(7, "key1", "req.arm", null, null))"})},
    {"c_IsPersonalCertificateRenewal", "(SSSI[B)Z", [] { return onToken({i(3),
        bytes(certBytes)}); },
     {opens(), {"ZAVKM_CheckCertAsRenewal", fake::returns(0).out(3, uint8_t{1})}}, JNI_TRUE,
     opened({"ZAVKM_CheckCertAsRenewal(7, [300102], 3, non-null)"})},
    {"c_RenewPersonalCertificate", "(SSSI[B)I", [] { return onToken({i(3), bytes(certBytes)}); },
     {opens(), {"ZAVKM_RenewCert", fake::returns(ZAVKM_ERR_VALIDATION_KEY)}},
     ZAVKM_ERR_VALIDATION_KEY, opened({"ZAVKM_RenewCert(7, [300102], 3)"})},
};
JAVA_CALLS(TokenJava, tokenClass, javaCalls);

}  // namespace
