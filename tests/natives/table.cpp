// One row per native for its normal call, and rows for the branches that are decisions of
// their own. The arguments are the ones Java would pass; the script is what the fake library
// answers (every call not scripted answers 0 and writes nothing). The outcome of every row and
// of its variants is in expected.txt.
#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "com_norvex_zav_tolvik_basic_CMSKeyDatabaseException.h"
#include "com_norvex_zav_tolvik_basic_CryptographicToken.h"
#include "com_norvex_zav_tolvik_basic_KMSystem.h"
#include "com_norvex_zav_tolvik_basic_MSCertificateStore.h"
#include "com_norvex_zav_tolvik_basic_WEBDBKeyDatabase.h"
#include "jvm.h"
#include "natives.h"

// R(Class, native[, ".Branch"]): the row's name and native.
#define R(cls, method, ...) \
    #cls "." #method __VA_ARGS__, natives::native(&Java_com_norvex_zav_tolvik_basic_##cls##_c_1##method)

namespace {

using natives::Arg;
using Bytes = std::vector<uint8_t>;

jvalue value(jobject l) {
    jvalue v{};
    v.l = l;
    return v;
}
Arg s(const char* text) { return [text] { return value(harness::str(text)); }; }
Arg b(Bytes bytes) { return [bytes] { return value(harness::byteArray(bytes)); }; }
Arg i(jint n) { return [n] { jvalue v{}; v.i = n; return v; }; }
Arg j(jlong n) { return [n] { jvalue v{}; v.j = n; return v; }; }
Arg z(bool flag) { return [flag] { jvalue v{}; v.z = flag ? JNI_TRUE : JNI_FALSE; return v; }; }
Arg obj(const char* cls) { return [cls] { return value(harness::newObject(cls, "()V")); }; }
Arg cls(const char* name) { return [name] { return value(harness::findClass(name)); }; }
const Arg db = obj("com/norvex/zav/tolvik/basic/CMSKeyDatabase");
const Arg token = obj("com/norvex/zav/tolvik/basic/CryptographicToken");
const Arg store = obj("com/norvex/zav/tolvik/basic/MSCertificateStore");
const Arg sink = obj("zavtest/LabelSink");
const Arg kms = cls("com/norvex/zav/tolvik/basic/KMSystem");
const Arg dn = [] {
    return value(harness::newObject(
        "com/norvex/zav/tolvik/basic/DNItem",
        "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
        "Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;[B)V",
        harness::str("Alice"), harness::str("Unit"), harness::str("Org"), harness::str("Oslo"),
        harness::str("Viken"), harness::str("0150"), harness::str("US"),
        harness::str("SN=x"), harness::byteArray({0x30, 0x00})));
};
const Arg labels = [] {
    jobjectArray array = harness::java()->NewObjectArray(2, harness::findClass("java/lang/String"), nullptr);
    harness::java()->SetObjectArrayElement(array, 0, harness::str("a"));
    harness::java()->SetObjectArrayElement(array, 1, harness::str("b"));
    return value(array);
};
const std::string longLabel(300, 'x');

// ---- The library's records, made when the call comes -------------------------------------------

using fake::setBytes;
using fake::text;
ZAVKM_CertItem* cert() {
    auto* c = fake::record<ZAVKM_CertItem>();
    *c = {.shortValue1 = 3, .shortValue2 = 2048, .serialNumber = text("0A"),
          .issuer = fake::dnItem({"CA", nullptr, nullptr, nullptr, nullptr, nullptr, "NO"}),
          .subject = fake::dnItem({"Alice", "Unit", "Org", "Oslo", "Viken", "0150", "NO", "SN=x", "T=y"}, {0x30, 0x00}),
          .effectTime = 1000, .expireTime = 2000, .sigAlgIdOID = text("1.2.840.113549.1.1.11"),
          .sigAlgIdOIDName = text("sha256WithRSAEncryption")};
    setBytes(c->der, c->derLength, {0x30, 0x03, 0x01, 0x02, 0x03});
    setBytes(c->signature, c->signatureLength, {0xaa, 0xbb});
    setBytes(c->sigAlgId, c->sigAlgIdLength, {0x30, 0x0d});
    setBytes(c->spki, c->spkiLength, {0x30, 0x02});
    setBytes(c->extensions, c->extensionsLength, {0x30, 0x00});
    return c;
}
ZAVKM_KeyItem* key() {
    auto* k = fake::record<ZAVKM_KeyItem>();
    *k = {.shortValue1 = 1, .label = text("lbl"), .keySize = 2048, .hasPrivateKey = 1, .hasCertList = 1,
          .hasKeyBer = 1, .keyFlag1 = 1, .epki = fake::epkiItem({0x30, 0x05}),
          .certList = fake::certList({cert(), cert()})};
    setBytes(k->keyBer, k->keyBerLength, {0x30, 0x01, 0x05});
    return k;
}
ZAVKM_ReqKeyItem* reqKey() {
    auto* info = fake::record<ZAVKM_CertReqInfoItem>();
    *info = {.keySize = 2048, .subjectName = fake::dnItem({"Req", nullptr, nullptr, nullptr, nullptr, nullptr, "NO"})};
    setBytes(info->der, info->derLength, {0x30, 0x06});
    setBytes(info->spki, info->spkiLength, {0x30, 0x02});
    setBytes(info->attributes, info->attributesLength, {0xa0, 0x00});
    auto* r = fake::record<ZAVKM_CertReqItem>();
    *r = {.sigAlgIdOID = text("1.2.840.113549.1.1.11"), .sigAlgIdOIDName = text("sha256WithRSAEncryption"),
          .certReqInfoItem = info};
    setBytes(r->der, r->derLength, {0x30, 0x04});
    setBytes(r->sig, r->sigLength, {0xcc});
    setBytes(r->sigAlgId, r->sigAlgIdLength, {0x30, 0x0d});
    auto* k = fake::record<ZAVKM_ReqKeyItem>();
    *k = {.shortValue1 = 1, .label = text("req"), .keySize = 2048, .hasKeyBer = 1, .certReq = r,
          .epki = fake::epkiItem({0x30, 0x07})};
    setBytes(k->keyBer, k->keyBerLength, {0x30, 0x01, 0x05});
    return k;
}

// ---- The library's answers ------------------------------------------------------------------

using Script = std::vector<std::pair<std::string, fake::Step>>;
using fake::returns;
const Script kdb = {{"ZAVKM_OpenKeyDb", returns(0).out(2, ZAVKM_KeyDbHandle{7})}};
const Script x = {{"ZAVKM_OpenKeyDbX", returns(0).out(1, ZAVKM_KeyDbHandle{7})}};
const Script xx = {{"ZAVKM_OpenKeyDbX", returns(0).out(1, ZAVKM_KeyDbHandle{7})},
                   {"ZAVKM_OpenKeyDbX", returns(0).out(1, ZAVKM_KeyDbHandle{9})}};
Script with(Script script, Script more) {
    script.insert(script.end(), more.begin(), more.end());
    return script;
}
std::pair<std::string, fake::Step> out(const char* op, size_t index, auto make) {
    return {op, returns(0).out(index, make)};
}
auto labelsOf(std::vector<const char*> texts) { return [texts] { return fake::labelList(texts); }; }
auto keys() { return [] { return fake::keyList({key(), nullptr, key()}); }; }
const Script decoded = {{"ZAVKM_Base64DecodeFileToBuf",
                         returns(0).out(1, [] { return fake::bytes({0x30, 0x01, 0x02}); })
                             .out(2, uint32_t{3})}};

const char* const kdbFile = "k.kdb";
const char* const mod = "mod.so";
const char* const tok = "tok";

const std::vector<natives::Row> rows = {
    // KMSystem
    {R(KMSystem, IsUSSharedLibraryLoaded), {kms}, {{"ZAVKM_GetMaxCryptoKeySize", returns(0x80000000LL)}}},
    {R(KMSystem, IsUSSharedLibraryLoaded, ".512"), {kms}, {{"ZAVKM_GetMaxCryptoKeySize", returns(512)}}},
    {R(KMSystem, enableFIPSMode), {kms, z(true), z(false)}, {{"ZAVKM_SetCryptoInfo", returns(33)}}},
    {R(KMSystem, ZAVKMInit), {kms, z(true)}, {{"ZAVKM_StartTrace", returns(5)}, {"ZAVKM_Init", returns(77)}}},
    {R(KMSystem, ZAVKMInit, ".NoLibraryTrace"), {kms, z(false)}},
    {R(KMSystem, ZAVKMInitDebug), {kms, z(true), z(false)}},
    {R(KMSystem, ZAVKMInitDebug, ".Files"), {kms, z(true), z(true)},
     {{"ZAVKM_StartTrace", returns(5)}, {"ZAVKM_StartTrace", returns(6)}}, true},
    {R(KMSystem, ZAVKMCleanAll), {kms}, {{"ZAVKM_CleanAll", returns(5)}}, true},
    {R(KMSystem, ShowLibInfo), {kms}},
    // CMSKeyDatabaseException
    {R(CMSKeyDatabaseException, BuildErrCodeNameTable), {cls("zavtest/ErrCodes")}},
    {R(CMSKeyDatabaseException, BuildErrCodeNameTable, ".Refused"), {cls("zavtest/ErrCodesRefusedAtTen")}},
    // CMSKeyDatabase
    {R(CMSKeyDatabase, CreateNewKeyDb), {db, s(kdbFile), s("pw"), j(86400LL * 400)},
     {{"ZAVKM_CreateNewKeyDb", returns(0).out(3, ZAVKM_KeyDbHandle{7})}}},
    {R(CMSKeyDatabase, OpenKeyDb), {db, s(kdbFile), s("pw")}, kdb},
    {R(CMSKeyDatabase, ChangeKeyDbPwd), {db, s(kdbFile), s("pw"), s("new"), j(3600)}},
    {R(CMSKeyDatabase, StashKeyDbPwd), {db, s(kdbFile), s("pw")}},
    {R(CMSKeyDatabase, BuildKeyLabelList), {sink, s(kdbFile), s("pw")},
     with(kdb, {out("ZAVKM_GetKeyDbLabelList", 1, labelsOf({"a", nullptr, "b"})),
                out("ZAVKM_GetReqKeyDbLabelList", 1, labelsOf({"r"}))})},
    {R(CMSKeyDatabase, BuildKeyLabelList, ".NoCallbacks"), {obj("zavtest/NoCallbacks"), s(kdbFile), s("pw")}},
    {R(CMSKeyDatabase, GetKeyItemByLabel),
     {db, s(kdbFile), s("pw"), s("lbl"), z(false)}, with(kdb, {out("ZAVKM_GetKeyItemByLabel", 2, key)})},
    {R(CMSKeyDatabase, GetKeyItemByLabel, ".Request"),
     {db, s(kdbFile), s("pw"), s("req"), z(true)}, with(kdb, {out("ZAVKM_GetReqKeyItemByLabel", 2, reqKey)})},
    {R(CMSKeyDatabase, GetKeyItemByLabel, ".LongLabel"),
     {db, s(kdbFile), s("pw"), s(longLabel.c_str()), z(false)}, kdb},
    {R(CMSKeyDatabase, GetKeyItemListByLabel),
     {db, s(kdbFile), s("pw"), s("lbl")}, with(kdb, {out("ZAVKM_GetKeyItemListByLabel", 2, keys())})},
    {R(CMSKeyDatabase, IsPrivateKeyPresent),
     {db, s(kdbFile), s("pw"), s("lbl")}, with(kdb, {{"ZAVKM_IsPrivateKeyPresent", returns(0).out(2, uint8_t{1})}})},
    {R(CMSKeyDatabase, GetDefaultKeyItem), {db, s(kdbFile), s("pw")},
     with(kdb, {out("ZAVKM_GetDefaultKeyItem", 1, key)})},
    {R(CMSKeyDatabase, GetKeyItemsByPublicKey),
     {db, s(kdbFile), s("pw"), i(3), b({1, 2, 3})}, with(kdb, {out("ZAVKM_GetKeyItemsByPublicKey", 3, keys())})},
    {R(CMSKeyDatabase, GetKeyItemsByPublicKey, ".LengthDiffers"), {db, s(kdbFile), s("pw"), i(2), b({1, 2, 3})}},
    {R(CMSKeyDatabase, CreateNewSelfSignedCertificate),
     {db, s(kdbFile), s("pw"), i(3), s("lbl"), z(true), i(2048), dn, i(365), s("c.arm"), z(true)}, kdb},
    {R(CMSKeyDatabase, CreateNewSelfSignedCertificateSigExt),
     {db, s(kdbFile), s("pw"), i(3), s("lbl"), z(true), i(2048), dn, i(365), i(2), i(2), b({0x30, 0}), s("c.arm"), z(false)},
     kdb},
    {R(CMSKeyDatabase, CreateNewSelfSignedCertificateSigExt, ".Algorithm3"),
     {db, s(kdbFile), s("pw"), i(3), s("lbl"), z(true), i(2048), dn, i(365), i(3), i(2), b({0x30, 0}), s("c.arm"), z(false)}},
    {R(CMSKeyDatabase, CreateNewCertRequest),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2048), dn, s("r.csr"), z(true)}, kdb},
    {R(CMSKeyDatabase, CreateNewCertRequest, ".Again"),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2048), dn, s("r.csr"), z(false)}, kdb},
    {R(CMSKeyDatabase, CreateNewCertRequestSigExt),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2048), dn, i(1), i(2), b({0x30, 0}), s("r.csr"), z(true)}, kdb},
    {R(CMSKeyDatabase, IssueCertificate),
     {db, s(kdbFile), s("pw"), s("ca"), i(3), s("0A"), i(365), s("c.der"), s("out.arm"), z(false)}, kdb},
    {R(CMSKeyDatabase, IssueCertificate, ".Base64"),
     {db, s(kdbFile), s("pw"), s("ca"), i(3), s("0A"), i(365), s("c.der"), s("out.arm"), z(true)}, with(decoded, kdb)},
    {R(CMSKeyDatabase, IssueCertificateSig),
     {db, s(kdbFile), s("pw"), s("ca"), i(3), s("0A"), i(365), i(2), s("c.der"), s("out.arm"), z(false)}, kdb},
    {R(CMSKeyDatabase, DeleteKeyByLabel), {db, s(kdbFile), s("pw"), s("lbl"), z(false)}, kdb},
    {R(CMSKeyDatabase, DeleteKeyByLabel, ".Request"), {db, s(kdbFile), s("pw"), s("lbl"), z(true)}, kdb},
    {R(CMSKeyDatabase, InsertKey),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3}), z(true), z(false)}, kdb},
    {R(CMSKeyDatabase, InsertReqKey), {db, s(kdbFile), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, kdb},
    {R(CMSKeyDatabase, SetDefaultKey), {db, s(kdbFile), s("pw"), s("lbl")}, kdb},
    {R(CMSKeyDatabase, SetKeyTrust), {db, s(kdbFile), s("pw"), s("lbl"), z(true)}, kdb},
    {R(CMSKeyDatabase, EncryptPrivateKey), {db, i(3), b({1, 2, 3}), s("pw")},
     {out("ZAVKM_GetEPKIItemFromPrivateKey", 3, [] { return fake::epkiItem({0x30, 0x09}); })}},
    {R(CMSKeyDatabase, DecryptPrivateKey), {db, i(3), b({1, 2, 3}), s("pw")},
     {out("ZAVKM_GetPrivKeyInfoItemFromEPKIItem", 2, [] { return fake::privKeyInfoItem({0x30, 0x0a}); })}},
    {R(CMSKeyDatabase, ExportToPFXFile), {db, s(kdbFile), s("pw"), s("k.p12"), s("ppw"), labels}, kdb},
    {R(CMSKeyDatabase, ImportFromPFXFile), {db, s(kdbFile), s("pw"), s("k.p12"), s("ppw")}, kdb},
    {R(CMSKeyDatabase, ReceiveCert), {db, s(kdbFile), s("pw"), s("c.der"), z(false), z(true)}, kdb},
    {R(CMSKeyDatabase, ReceiveCert, ".Base64"), {db, s(kdbFile), s("pw"), s("c.der"), z(true), z(true)},
     with(decoded, kdb)},
    {R(CMSKeyDatabase, AddCaCert), {db, s(kdbFile), s("pw"), s("ca"), s("c.der"), z(false)}, kdb},
    {R(CMSKeyDatabase, ExtractCert), {db, s(kdbFile), s("pw"), s("lbl"), s("o.der"), z(true)}, kdb},
    {R(CMSKeyDatabase, ExtractCertReq), {db, s(kdbFile), s("pw"), s("lbl"), s("r.csr")}, kdb},
    {R(CMSKeyDatabase, ExtractCertReqSig), {db, s(kdbFile), s("pw"), s("lbl"), i(2), s("r.csr")}, kdb},
    {R(CMSKeyDatabase, ExtractCertFromPKCS7Data), {db, s("c.der"), z(false)},
     {out("ZAVKM_ExtractCertListFromPKCS7Data", 2, [] { return fake::certList({cert(), cert()}); })}},
    {R(CMSKeyDatabase, CheckCertAsRenewal), {db, s(kdbFile), s("pw"), i(3), b({1, 2, 3})},
     with(kdb, {{"ZAVKM_CheckCertAsRenewal", returns(0).out(3, uint8_t{1})}})},
    {R(CMSKeyDatabase, RenewCert), {db, s(kdbFile), s("pw"), i(3), b({1, 2, 3})}, kdb},
    {R(CMSKeyDatabase, ValidateCertificateChain),
     {db, s(kdbFile), s("pw"), b({1, 2, 3}), i(3)}, with(kdb, {{"ZAVKM_ValidateCertChain", returns(0).out(3, uint8_t{1})}})},
    {R(CMSKeyDatabase, Kyr2Kdb), {db, s("k.kyr"), s("kpw"), s(kdbFile), s("pw")}},
    {R(CMSKeyDatabase, Kdb2Kyr), {db, s(kdbFile), s("pw"), s("k.kyr"), s("kpw")}},
    {R(CMSKeyDatabase, IsPasswordRequired), {db, s(kdbFile)},
     {{"ZAVKM_IsPasswordRequired", returns(0).out(1, uint8_t{1})}}},
    {R(WEBDBKeyDatabase, IsPasswordRequired),
     {obj("com/norvex/zav/tolvik/basic/WEBDBKeyDatabase"), s("w.p12")},
     {{"ZAVKM_IsPasswordRequired", returns(0).out(1, uint8_t{1})}}},
    // CryptographicToken
    {R(CryptographicToken, GetCryptoTokenLabelList),
     {cls("zavtest/LabelSink"), s(mod)}, {out("ZAVKM_GetCryptoTokenLabelList", 1, labelsOf({"t1", "t2"}))}},
    {R(CryptographicToken, IsPasswordRequired), {token, s(mod), s(tok)},
     {{"ZAVKM_IsPasswordRequired", returns(0).out(1, uint8_t{1})}}},
    {R(CryptographicToken, ChangeKeyDbPwd), {token, s(mod), s(tok), s("pw"), s("new")}},
    {R(CryptographicToken, BuildKeyLabelList), {sink, s(mod), s(tok), s("pw")},
     with(x, {out("ZAVKM_GetKeyDbLabelList", 1, labelsOf({"a", "b"})),
              out("ZAVKM_GetReqKeyDbLabelList", 1, labelsOf({"r"}))})},
    {R(CryptographicToken, GetKeyItemByLabel),
     {token, s(mod), s(tok), s("pw"), s("lbl"), z(false)}, with(x, {out("ZAVKM_GetKeyItemByLabel", 2, key)})},
    {R(CryptographicToken, GetKeyItemByLabel, ".Request"),
     {token, s(mod), s(tok), s("pw"), s("req"), z(true)}, with(x, {out("ZAVKM_GetReqKeyItemByLabel", 2, reqKey)})},
    {R(CryptographicToken, DeleteKeyItemByLabel), {token, s(mod), s(tok), s("pw"), s("lbl"), z(true)}, x},
    {R(CryptographicToken, ReceivePersonalCertificate),
     {token, s(mod), s(tok), s("pw"), s("sec.kdb"), s("spw"), s("c.der"), z(false)}, xx},
    {R(CryptographicToken, ImportCertificate),
     {token, s(mod), s(tok), s("pw"), s("sec.kdb"), s("spw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, xx},
    {R(CryptographicToken, AddSignerCertificate), {token, s(mod), s(tok), s("pw"), s("ca"), s("c.der"), z(false)}, x},
    {R(CryptographicToken, ExtractCertificate), {token, s(mod), s(tok), s("pw"), s("lbl"), s("o.der"), z(true)}, x},
    {R(CryptographicToken, ImportPersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, x},
    {R(CryptographicToken, RecreatePersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), i(2), s("r.csr")}, x},
    {R(CryptographicToken, CreateSelfSignedCertificate),
     {token, s(mod), s(tok), s("pw"), i(3), s("lbl"), i(2048), dn, i(365), i(2)}, x},
    {R(CryptographicToken, CreatePersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), i(2048), dn, i(2), s("r.csr")}, x},
    {R(CryptographicToken, ExtractPersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), s("r.csr")}, x},
    {R(CryptographicToken, IsPersonalCertificateRenewal),
     {token, s(mod), s(tok), s("pw"), i(3), b({1, 2, 3})},
     with(x, {{"ZAVKM_CheckCertAsRenewal", returns(0).out(3, uint8_t{1})}})},
    {R(CryptographicToken, RenewPersonalCertificate), {token, s(mod), s(tok), s("pw"), i(3), b({1, 2, 3})}, x},
    // MSCertificateStore
    {R(MSCertificateStore, GetCSPNameList), {cls("zavtest/LabelSink")},
     {out("ZAVKM_GetCryptoTokenLabelList", 1, labelsOf({"csp1", "csp2"}))}},
    {R(MSCertificateStore, BuildKeyLabelList), {sink, s("csp"), s("pw")},
     with(x, {out("ZAVKM_GetKeyDbLabelList", 1, labelsOf({"a", "b"}))})},
    {R(MSCertificateStore, GetKeyItemByLabel), {store, s("csp"), s("pw"), s("lbl")},
     with(x, {out("ZAVKM_GetKeyItemByLabel", 2, key)})},
    {R(MSCertificateStore, GetKeyItemListByLabel),
     {store, s("csp"), s("pw"), s("lbl")}, with(x, {out("ZAVKM_GetKeyItemListByLabel", 2, keys())})},
    {R(MSCertificateStore, GetKeyItemsByPublicKey),
     {store, s("csp"), s("pw"), i(3), b({1, 2, 3})}, with(x, {out("ZAVKM_GetKeyItemsByPublicKey", 3, keys())})},
    {R(MSCertificateStore, DeleteKeyItemByLabel), {store, s("csp"), s("pw"), s("lbl")}, x},
    {R(MSCertificateStore, ImportCertificate),
     {store, s("csp"), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, x},
    {R(MSCertificateStore, AddSignerCertificate), {store, s("csp"), s("pw"), s("ca"), s("c.der"), z(false)}, x},
    {R(MSCertificateStore, CreateNewSelfSignedCertificate),
     {store, s("csp"), s("pw"), i(3), s("lbl"), i(2048), dn, i(365), i(2), i(2), b({0x30, 0})}, x},
};

}  // namespace

const std::vector<natives::Row>& natives::table() { return rows; }
