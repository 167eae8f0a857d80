// CryptographicToken as Java calls it: each of the 17 natives called once through its Java
// method, which proves that its exported name and signature bind, that its arguments arrive in
// their places and that its callbacks reach the binding's own methods.
#include "java_calls.h"
#include "token_rows.h"

namespace {

using namespace javacalls;
using namespace tokenrows;

const char* const dnItem = "Lcom/norvex/zav/tolvik/basic/DNItem;";

class TokenThroughJava : public ThroughJava {
  protected:
    void SetUp() override {
        ThroughJava::SetUp();
        token = newToken();
    }
    // Calls an instance native of the token object with the module, token label and password
    // first, then `more`.
    void onToken(const char* name, std::initializer_list<const char*> parameters,
                 const char* result, std::vector<jvalue> more, std::vector<Scripted> script,
                 int64_t expected, std::vector<std::string> journal) {
        std::vector<jvalue> args = {s(moduleName), s(tokenLabel), s(tokenPassword)};
        args.insert(args.end(), more.begin(), more.end());
        std::vector<const char*> types = {S, S, S};
        types.insert(types.end(), parameters.begin(), parameters.end());
        std::string signature = "(";
        for (const char* type : types) signature += type;
        call(token, false, name, signature + ")" + result, args, script, expected, journal);
    }
    // The library calls of a native that opens the token (handle 7) and makes `calls` on it.
    static std::vector<std::string> opened(std::vector<std::string> calls) {
        return concat(
            {{storerows::opened(tokenDescriptor(tokenPassword))}, calls, {closed(storeHandle)}});
    }
    std::vector<std::string> list(const char* method) {
        return harness::listOfStrings(harness::callObject(token, method, "()Ljava/util/List;"));
    }

    jobject token = nullptr;
};

TEST_F(TokenThroughJava, LabelsAndPasswords) {
    harness::callStaticVoid(tokenClass, "clearTokenLabels", "()V");
    call(harness::findClass(tokenClass), true, "c_GetCryptoTokenLabelList", sig({S}, "I"),
         {s(moduleName)}, {{"ZAVKM_GetCryptoTokenLabelList", labelsOut(0, 1, {"tokA"})}}, 0,
         {R"(ZAVKM_GetCryptoTokenLabelList("mod.so", non-null))", "ZAVKM_FreeLabelList(non-null)"});
    EXPECT_THAT(harness::listOfStrings(
                    harness::callStaticObject(tokenClass, "getTokenLabels", "()Ljava/util/List;")),
                ::testing::ElementsAre("tokA"));
    call(token, false, "c_IsPasswordRequired", sig({S, S}, "Z"), {s(moduleName), s(tokenLabel)},
         {{"ZAVKM_IsPasswordRequired", fake::returns(0).out(1, uint8_t{1})}}, JNI_TRUE,
         {"ZAVKM_IsPasswordRequired(" + tokenDescriptor(nullptr) + ", non-null)"});
    call(token, false, "c_ChangeKeyDbPwd", sig({S, S, S, S}, "I"),
         {s(moduleName), s(tokenLabel), s("old"), s("new")},
         {{"ZAVKM_ChangeKeyDbPwdX", fake::returns(ZAVKM_ERR_PWD_TOO_SHORT)}},
         ZAVKM_ERR_PWD_TOO_SHORT,
         {"ZAVKM_ChangeKeyDbPwdX(" +
          descriptor(2, {{"cryptoModuleName", moduleName},
                         {"tokenLabel", tokenLabel},
                         {"password", "old"},
                         {"newPassword", "new"}}) +
          ")"});
}

TEST_F(TokenThroughJava, KeysListedReadAndDeleted) {
    onToken(
        "c_BuildKeyLabelList", {}, "I", {},
        {opens(),
         {"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {"p1"})},
         {"ZAVKM_IsPrivateKeyPresent", fake::returns(0).out(2, uint8_t{1})},
         {"ZAVKM_GetReqKeyDbLabelList", labelsOut(0, 1, {"r1"})}},
        0,
        opened({"ZAVKM_GetKeyDbLabelList(7, non-null)",
                R"(ZAVKM_IsPrivateKeyPresent(7, "p1", non-null))", "ZAVKM_FreeLabelList(non-null)",
                "ZAVKM_GetReqKeyDbLabelList(7, non-null)", "ZAVKM_FreeLabelList(non-null)"}));
    EXPECT_THAT(list("getPersonalKeyLabels"), ::testing::ElementsAre("p1"));
    EXPECT_THAT(list("getRequestKeyLabels"), ::testing::ElementsAre("r1"));
    onToken(
        "c_GetKeyItemByLabel", {S, "Z"}, "Lcom/norvex/zav/tolvik/basic/KeyItem;",
        {s("key1"), z(false)},
        {opens(),
         {"ZAVKM_GetKeyItemByLabel",
          fake::returns(0).out(2, [] { return keyRecord("key1", 2048); })}},
        1,
        opened({R"(ZAVKM_GetKeyItemByLabel(7, "key1", non-null))", "ZAVKM_FreeKeyItem(non-null)"}));
    onToken("c_DeleteKeyItemByLabel", {S, "Z"}, "I", {s("key1"), z(true)},
            {opens(), {"ZAVKM_DeleteRequestKeyPair", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
            ZAVKM_ERR_KEY_GET_BY_LABEL, opened({R"(ZAVKM_DeleteRequestKeyPair(7, "key1"))"}));
}

TEST_F(TokenThroughJava, CertificatesInAndOut) {
    writeCertFile();
    onToken("c_ReceivePersonalCertificate", {S, S, S, "Z"}, "I",
            {s("sec.kdb"), s("secpw"), s(certFile), z(false)},
            {opens(), opens(secondaryHandle), {"ZAVKM_ReceiveCert", fake::returns(0)}}, 0,
            concat({{"ZAVKM_Malloc(3)"},
                    opened({storerows::opened(secondaryDescriptor("sec.kdb", "secpw")),
                            "ZAVKM_SetSecondaryKeyDb(7, 9)", "ZAVKM_ReceiveCert(7, [300102], 3, 0)",
                            "ZAVKM_UnsetSecondaryKeyDb(7)", closed(secondaryHandle)}),
                    {"ZAVKM_Free(block(3))"}}));
    onToken("c_ImportCertificate", {S, S, S, "I", "[B", "I", "[B"}, "I",
            {s(nullptr), s(nullptr), s("key1"), i(3), bytes(certBytes), i(2), bytes({0x0a, 0x0b})},
            {opens(), {"ZAVKM_InsertKey", fake::returns(0)}}, 0,
            opened({R"(ZAVKM_InsertKey(7, "key1", 3, [300102], 2, [0a0b], 0, 0))"}));
    onToken("c_AddSignerCertificate", {S, S, "Z"}, "I", {s("ca"), s(certFile), z(false)},
            {opens(), {"ZAVKM_StoreCACert", fake::returns(0)}}, 0,
            concat({{"ZAVKM_Malloc(3)"},
                    opened({R"(ZAVKM_StoreCACert(7, [300102], 3, "ca"))"}),
                    {"ZAVKM_Free(block(3))"}}));
    onToken("c_ExtractCertificate", {S, S, "Z"}, "I", {s("key1"), s("out.arm"), z(true)},
            {opens(), {"ZAVKM_ExportCert", fake::returns(0)}}, 0,
            opened({R"(ZAVKM_ExportCert(7, "key1", "out.arm", 1))"}));
}

TEST_F(TokenThroughJava, RequestsAndSelfSignedCertificates) {
    onToken("c_ImportPersonalCertificateRequest", {S, "I", "[B", "I", "[B"}, "I",
            {s("key1"), i(3), bytes(certBytes), i(0), o(nullptr)},
            {opens(), {"ZAVKM_InsertReqKey", fake::returns(0)}}, 0,
            opened({R"(ZAVKM_InsertReqKey(7, "key1", 3, [300102], 0, null))"}));
    onToken("c_RecreatePersonalCertificateRequest", {S, "I", S}, "I",
            {s("key1"), i(2), s("req.arm")},
            {opens(), {"ZAVKM_ReCreateCertReqSig", fake::returns(0)}}, 0,
            opened({R"(ZAVKM_ReCreateCertReqSig(7, "key1", 2, "req.arm", null, null))"}));
    onToken(
        "c_CreateSelfSignedCertificate", {"I", S, "I", dnItem, "I", "I"}, "I",
        {i(3), s("key1"), i(2048), o(newDnItem()), i(365), i(1)},
        {opens(), {"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(0)}}, 0,
        concat({dnConverted,
                opened({std::string(R"(ZAVKM_CreateSelfSignedCertSigExt(7, "key1", 0, 3, 2048, )") +
                        dnShown + ", 365, 1, null, 0, null, 0)"}),
                {dnFreed}}));
    onToken("c_CreatePersonalCertificateRequest", {S, "I", dnItem, "I", S}, "I",
            {s("key1"), i(2048), o(newDnItem()), i(2), s("req.arm")},
            {opens(), {"ZAVKM_CreateNewCertReqSigExt", fake::returns(0)}}, 0,
            concat({dnConverted,
                    opened({std::string(R"(ZAVKM_CreateNewCertReqSigExt(7, "key1", 2048, )") +
                            dnShown + R"(, 2, null, 0, "req.arm", null, null))"}),
                    {dnFreed}}));
    onToken("c_ExtractPersonalCertificateRequest", {S, S}, "I", {s("key1"), s("req.arm")},
            {opens(), {"ZAVKM_ReCreateCertReq", fake::returns(0)}}, 0,
            opened({R"(ZAVKM_ReCreateCertReq(7, "key1", "req.arm", null, null))"}));
}

TEST_F(TokenThroughJava, Renewal) {
    onToken("c_IsPersonalCertificateRenewal", {"I", "[B"}, "Z", {i(3), bytes(certBytes)},
            {opens(), {"ZAVKM_CheckCertAsRenewal", fake::returns(0).out(3, uint8_t{1})}}, JNI_TRUE,
            opened({"ZAVKM_CheckCertAsRenewal(7, [300102], 3, non-null)"}));
    onToken("c_RenewPersonalCertificate", {"I", "[B"}, "I", {i(3), bytes(certBytes)},
            {opens(), {"ZAVKM_RenewCert", fake::returns(ZAVKM_ERR_VALIDATION_KEY)}},
            ZAVKM_ERR_VALIDATION_KEY, opened({"ZAVKM_RenewCert(7, [300102], 3)"}));
}

}  // namespace
