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

#define N(cls, method) natives::native(&Java_com_norvex_zav_tolvik_basic_##cls##_c_1##method)

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
    jstring none = nullptr;
    return value(harness::newObject(
        "com/norvex/zav/tolvik/basic/DNItem",
        "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;"
        "Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;[B)V",
        harness::str("Alice"), none, harness::str("Org"), none, none, none, harness::str("US"),
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

ZAVKM_CertItem* cert() {
    auto* c = fake::record<ZAVKM_CertItem>();
    fake::setBytes(c->der, c->derLength, {0x30, 0x03, 0x01, 0x02, 0x03});
    c->shortValue1 = 3;
    c->shortValue2 = 2048;
    c->serialNumber = fake::text("0A");
    c->issuer = fake::dnItem({.cn = "CA", .c = "NO"});
    c->subject = fake::dnItem({.cn = "Alice", .o = "Org", .optionalField1 = "SN=x", .der = {0x30, 0x00}});
    c->effectTime = 1000;
    c->expireTime = 2000;
    fake::setBytes(c->signature, c->signatureLength, {0xaa, 0xbb});
    fake::setBytes(c->sigAlgId, c->sigAlgIdLength, {0x30, 0x0d});
    c->sigAlgIdOID = fake::text("1.2.840.113549.1.1.11");
    c->sigAlgIdOIDName = fake::text("sha256WithRSAEncryption");
    fake::setBytes(c->spki, c->spkiLength, {0x30, 0x02});
    fake::setBytes(c->extensions, c->extensionsLength, {0x30, 0x00});
    return c;
}
ZAVKM_KeyItem* key() {
    auto* k = fake::record<ZAVKM_KeyItem>();
    k->shortValue1 = 1;
    k->label = fake::text("lbl");
    k->keySize = 2048;
    k->hasPrivateKey = k->hasCertList = k->hasKeyBer = k->keyFlag1 = 1;
    k->epki = fake::epkiItem({0x30, 0x05});
    fake::setBytes(k->keyBer, k->keyBerLength, {0x30, 0x01, 0x05});
    k->certList = fake::certList({cert(), cert()});
    return k;
}
ZAVKM_ReqKeyItem* reqKey() {
    auto* k = fake::record<ZAVKM_ReqKeyItem>();
    k->shortValue1 = 1;
    k->label = fake::text("req");
    k->keySize = 2048;
    k->hasKeyBer = 1;
    auto* r = k->certReq = fake::record<ZAVKM_CertReqItem>();
    fake::setBytes(r->der, r->derLength, {0x30, 0x04});
    fake::setBytes(r->sig, r->sigLength, {0xcc});
    fake::setBytes(r->sigAlgId, r->sigAlgIdLength, {0x30, 0x0d});
    r->sigAlgIdOID = fake::text("1.2.840.113549.1.1.11");
    r->sigAlgIdOIDName = fake::text("sha256WithRSAEncryption");
    auto* info = r->certReqInfoItem = fake::record<ZAVKM_CertReqInfoItem>();
    fake::setBytes(info->der, info->derLength, {0x30, 0x06});
    info->keySize = 2048;
    info->subjectName = fake::dnItem({.cn = "Req", .c = "NO"});
    fake::setBytes(info->spki, info->spkiLength, {0x30, 0x02});
    fake::setBytes(info->attributes, info->attributesLength, {0xa0, 0x00});
    k->epki = fake::epkiItem({0x30, 0x07});
    fake::setBytes(k->keyBer, k->keyBerLength, {0x30, 0x01, 0x05});
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
    {"KMSystem.IsUSSharedLibraryLoaded", N(KMSystem, IsUSSharedLibraryLoaded), {kms},
     {{"ZAVKM_GetMaxCryptoKeySize", returns(0x80000000LL)}}},
    {"KMSystem.IsUSSharedLibraryLoaded.512", N(KMSystem, IsUSSharedLibraryLoaded), {kms},
     {{"ZAVKM_GetMaxCryptoKeySize", returns(512)}}},
    {"KMSystem.enableFIPSMode", N(KMSystem, enableFIPSMode), {kms, z(true), z(false)},
     {{"ZAVKM_SetCryptoInfo", returns(33)}}},
    {"KMSystem.ZAVKMInit", N(KMSystem, ZAVKMInit), {kms, z(true)},
     {{"ZAVKM_StartTrace", returns(5)}, {"ZAVKM_Init", returns(77)}}},
    {"KMSystem.ZAVKMInit.NoLibraryTrace", N(KMSystem, ZAVKMInit), {kms, z(false)}},
    {"KMSystem.ZAVKMInitDebug", N(KMSystem, ZAVKMInitDebug), {kms, z(true), z(false)}},
    {"KMSystem.ZAVKMInitDebug.Files", N(KMSystem, ZAVKMInitDebug), {kms, z(true), z(true)},
     {{"ZAVKM_StartTrace", returns(5)}, {"ZAVKM_StartTrace", returns(6)}}, true},
    {"KMSystem.ZAVKMCleanAll", N(KMSystem, ZAVKMCleanAll), {kms}, {{"ZAVKM_CleanAll", returns(5)}}, true},
    {"KMSystem.ShowLibInfo", N(KMSystem, ShowLibInfo), {kms}},
    // CMSKeyDatabaseException
    {"CMSKeyDatabaseException.BuildErrCodeNameTable", N(CMSKeyDatabaseException, BuildErrCodeNameTable),
     {cls("zavtest/ErrCodesAccepted")}},
    {"CMSKeyDatabaseException.BuildErrCodeNameTable.Refused", N(CMSKeyDatabaseException, BuildErrCodeNameTable),
     {cls("zavtest/ErrCodesRefusedAtTen")}},
    // CMSKeyDatabase
    {"CMSKeyDatabase.CreateNewKeyDb", N(CMSKeyDatabase, CreateNewKeyDb), {db, s(kdbFile), s("pw"), j(86400LL * 400)},
     {{"ZAVKM_CreateNewKeyDb", returns(0).out(3, ZAVKM_KeyDbHandle{7})}}},
    {"CMSKeyDatabase.OpenKeyDb", N(CMSKeyDatabase, OpenKeyDb), {db, s(kdbFile), s("pw")}, kdb},
    {"CMSKeyDatabase.ChangeKeyDbPwd", N(CMSKeyDatabase, ChangeKeyDbPwd),
     {db, s(kdbFile), s("pw"), s("new"), j(3600)}},
    {"CMSKeyDatabase.StashKeyDbPwd", N(CMSKeyDatabase, StashKeyDbPwd), {db, s(kdbFile), s("pw")}},
    {"CMSKeyDatabase.BuildKeyLabelList", N(CMSKeyDatabase, BuildKeyLabelList), {sink, s(kdbFile), s("pw")},
     with(kdb, {out("ZAVKM_GetKeyDbLabelList", 1, labelsOf({"a", nullptr, "b"})),
                out("ZAVKM_GetReqKeyDbLabelList", 1, labelsOf({"r"}))})},
    {"CMSKeyDatabase.BuildKeyLabelList.NoCallbacks", N(CMSKeyDatabase, BuildKeyLabelList),
     {obj("zavtest/NoCallbacks"), s(kdbFile), s("pw")}},
    {"CMSKeyDatabase.GetKeyItemByLabel", N(CMSKeyDatabase, GetKeyItemByLabel),
     {db, s(kdbFile), s("pw"), s("lbl"), z(false)}, with(kdb, {out("ZAVKM_GetKeyItemByLabel", 2, key)})},
    {"CMSKeyDatabase.GetKeyItemByLabel.Request", N(CMSKeyDatabase, GetKeyItemByLabel),
     {db, s(kdbFile), s("pw"), s("req"), z(true)}, with(kdb, {out("ZAVKM_GetReqKeyItemByLabel", 2, reqKey)})},
    {"CMSKeyDatabase.GetKeyItemByLabel.LongLabel", N(CMSKeyDatabase, GetKeyItemByLabel),
     {db, s(kdbFile), s("pw"), s(longLabel.c_str()), z(false)}, kdb},
    {"CMSKeyDatabase.GetKeyItemListByLabel", N(CMSKeyDatabase, GetKeyItemListByLabel),
     {db, s(kdbFile), s("pw"), s("lbl")}, with(kdb, {out("ZAVKM_GetKeyItemListByLabel", 2, keys())})},
    {"CMSKeyDatabase.IsPrivateKeyPresent", N(CMSKeyDatabase, IsPrivateKeyPresent),
     {db, s(kdbFile), s("pw"), s("lbl")}, with(kdb, {{"ZAVKM_IsPrivateKeyPresent", returns(0).out(2, uint8_t{1})}})},
    {"CMSKeyDatabase.GetDefaultKeyItem", N(CMSKeyDatabase, GetDefaultKeyItem), {db, s(kdbFile), s("pw")},
     with(kdb, {out("ZAVKM_GetDefaultKeyItem", 1, key)})},
    {"CMSKeyDatabase.GetKeyItemsByPublicKey", N(CMSKeyDatabase, GetKeyItemsByPublicKey),
     {db, s(kdbFile), s("pw"), i(3), b({1, 2, 3})}, with(kdb, {out("ZAVKM_GetKeyItemsByPublicKey", 3, keys())})},
    {"CMSKeyDatabase.GetKeyItemsByPublicKey.LengthDiffers", N(CMSKeyDatabase, GetKeyItemsByPublicKey),
     {db, s(kdbFile), s("pw"), i(2), b({1, 2, 3})}},
    {"CMSKeyDatabase.CreateNewSelfSignedCertificate", N(CMSKeyDatabase, CreateNewSelfSignedCertificate),
     {db, s(kdbFile), s("pw"), i(3), s("lbl"), z(true), i(2048), dn, i(365), s("c.arm"), z(true)}, kdb},
    {"CMSKeyDatabase.CreateNewSelfSignedCertificateSigExt", N(CMSKeyDatabase, CreateNewSelfSignedCertificateSigExt),
     {db, s(kdbFile), s("pw"), i(3), s("lbl"), z(true), i(2048), dn, i(365), i(2), i(2), b({0x30, 0}), s("c.arm"), z(false)},
     kdb},
    {"CMSKeyDatabase.CreateNewSelfSignedCertificateSigExt.Algorithm3", N(CMSKeyDatabase, CreateNewSelfSignedCertificateSigExt),
     {db, s(kdbFile), s("pw"), i(3), s("lbl"), z(true), i(2048), dn, i(365), i(3), i(2), b({0x30, 0}), s("c.arm"), z(false)}},
    {"CMSKeyDatabase.CreateNewCertRequest", N(CMSKeyDatabase, CreateNewCertRequest),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2048), dn, s("r.csr"), z(true)}, kdb},
    {"CMSKeyDatabase.CreateNewCertRequest.Again", N(CMSKeyDatabase, CreateNewCertRequest),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2048), dn, s("r.csr"), z(false)}, kdb},
    {"CMSKeyDatabase.CreateNewCertRequestSigExt", N(CMSKeyDatabase, CreateNewCertRequestSigExt),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2048), dn, i(1), i(2), b({0x30, 0}), s("r.csr"), z(true)}, kdb},
    {"CMSKeyDatabase.IssueCertificate", N(CMSKeyDatabase, IssueCertificate),
     {db, s(kdbFile), s("pw"), s("ca"), i(3), s("0A"), i(365), s("c.der"), s("out.arm"), z(false)}, kdb},
    {"CMSKeyDatabase.IssueCertificate.Base64", N(CMSKeyDatabase, IssueCertificate),
     {db, s(kdbFile), s("pw"), s("ca"), i(3), s("0A"), i(365), s("c.der"), s("out.arm"), z(true)},
     with(decoded, kdb)},
    {"CMSKeyDatabase.IssueCertificateSig", N(CMSKeyDatabase, IssueCertificateSig),
     {db, s(kdbFile), s("pw"), s("ca"), i(3), s("0A"), i(365), i(2), s("c.der"), s("out.arm"), z(false)}, kdb},
    {"CMSKeyDatabase.DeleteKeyByLabel", N(CMSKeyDatabase, DeleteKeyByLabel), {db, s(kdbFile), s("pw"), s("lbl"), z(false)}, kdb},
    {"CMSKeyDatabase.DeleteKeyByLabel.Request", N(CMSKeyDatabase, DeleteKeyByLabel), {db, s(kdbFile), s("pw"), s("lbl"), z(true)}, kdb},
    {"CMSKeyDatabase.InsertKey", N(CMSKeyDatabase, InsertKey),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3}), z(true), z(false)}, kdb},
    {"CMSKeyDatabase.InsertReqKey", N(CMSKeyDatabase, InsertReqKey),
     {db, s(kdbFile), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, kdb},
    {"CMSKeyDatabase.SetDefaultKey", N(CMSKeyDatabase, SetDefaultKey), {db, s(kdbFile), s("pw"), s("lbl")}, kdb},
    {"CMSKeyDatabase.SetKeyTrust", N(CMSKeyDatabase, SetKeyTrust), {db, s(kdbFile), s("pw"), s("lbl"), z(true)}, kdb},
    {"CMSKeyDatabase.EncryptPrivateKey", N(CMSKeyDatabase, EncryptPrivateKey), {db, i(3), b({1, 2, 3}), s("pw")},
     {out("ZAVKM_GetEPKIItemFromPrivateKey", 3, [] { return fake::epkiItem({0x30, 0x09}); })}},
    {"CMSKeyDatabase.DecryptPrivateKey", N(CMSKeyDatabase, DecryptPrivateKey), {db, i(3), b({1, 2, 3}), s("pw")},
     {out("ZAVKM_GetPrivKeyInfoItemFromEPKIItem", 2, [] { return fake::privKeyInfoItem({0x30, 0x0a}); })}},
    {"CMSKeyDatabase.ExportToPFXFile", N(CMSKeyDatabase, ExportToPFXFile),
     {db, s(kdbFile), s("pw"), s("k.p12"), s("ppw"), labels}, kdb},
    {"CMSKeyDatabase.ImportFromPFXFile", N(CMSKeyDatabase, ImportFromPFXFile), {db, s(kdbFile), s("pw"), s("k.p12"), s("ppw")}, kdb},
    {"CMSKeyDatabase.ReceiveCert", N(CMSKeyDatabase, ReceiveCert), {db, s(kdbFile), s("pw"), s("c.der"), z(false), z(true)}, kdb},
    {"CMSKeyDatabase.ReceiveCert.Base64", N(CMSKeyDatabase, ReceiveCert), {db, s(kdbFile), s("pw"), s("c.der"), z(true), z(true)},
     with(decoded, kdb)},
    {"CMSKeyDatabase.AddCaCert", N(CMSKeyDatabase, AddCaCert), {db, s(kdbFile), s("pw"), s("ca"), s("c.der"), z(false)}, kdb},
    {"CMSKeyDatabase.ExtractCert", N(CMSKeyDatabase, ExtractCert), {db, s(kdbFile), s("pw"), s("lbl"), s("o.der"), z(true)}, kdb},
    {"CMSKeyDatabase.ExtractCertReq", N(CMSKeyDatabase, ExtractCertReq), {db, s(kdbFile), s("pw"), s("lbl"), s("r.csr")}, kdb},
    {"CMSKeyDatabase.ExtractCertReqSig", N(CMSKeyDatabase, ExtractCertReqSig), {db, s(kdbFile), s("pw"), s("lbl"), i(2), s("r.csr")}, kdb},
    {"CMSKeyDatabase.ExtractCertFromPKCS7Data", N(CMSKeyDatabase, ExtractCertFromPKCS7Data), {db, s("c.der"), z(false)},
     {out("ZAVKM_ExtractCertListFromPKCS7Data", 2, [] { return fake::certList({cert(), cert()}); })}},
    {"CMSKeyDatabase.CheckCertAsRenewal", N(CMSKeyDatabase, CheckCertAsRenewal), {db, s(kdbFile), s("pw"), i(3), b({1, 2, 3})},
     with(kdb, {{"ZAVKM_CheckCertAsRenewal", returns(0).out(3, uint8_t{1})}})},
    {"CMSKeyDatabase.RenewCert", N(CMSKeyDatabase, RenewCert), {db, s(kdbFile), s("pw"), i(3), b({1, 2, 3})}, kdb},
    {"CMSKeyDatabase.ValidateCertificateChain", N(CMSKeyDatabase, ValidateCertificateChain),
     {db, s(kdbFile), s("pw"), b({1, 2, 3}), i(3)}, with(kdb, {{"ZAVKM_ValidateCertChain", returns(0).out(3, uint8_t{1})}})},
    {"CMSKeyDatabase.Kyr2Kdb", N(CMSKeyDatabase, Kyr2Kdb), {db, s("k.kyr"), s("kpw"), s(kdbFile), s("pw")}},
    {"CMSKeyDatabase.Kdb2Kyr", N(CMSKeyDatabase, Kdb2Kyr), {db, s(kdbFile), s("pw"), s("k.kyr"), s("kpw")}},
    {"CMSKeyDatabase.IsPasswordRequired", N(CMSKeyDatabase, IsPasswordRequired), {db, s(kdbFile)},
     {{"ZAVKM_IsPasswordRequired", returns(0).out(1, uint8_t{1})}}},
    {"WEBDBKeyDatabase.IsPasswordRequired", N(WEBDBKeyDatabase, IsPasswordRequired),
     {obj("com/norvex/zav/tolvik/basic/WEBDBKeyDatabase"), s("w.p12")},
     {{"ZAVKM_IsPasswordRequired", returns(0).out(1, uint8_t{1})}}},
    // CryptographicToken
    {"CryptographicToken.GetCryptoTokenLabelList", N(CryptographicToken, GetCryptoTokenLabelList),
     {cls("zavtest/LabelSink"), s(mod)}, {out("ZAVKM_GetCryptoTokenLabelList", 1, labelsOf({"t1", "t2"}))}},
    {"CryptographicToken.IsPasswordRequired", N(CryptographicToken, IsPasswordRequired), {token, s(mod), s(tok)},
     {{"ZAVKM_IsPasswordRequired", returns(0).out(1, uint8_t{1})}}},
    {"CryptographicToken.ChangeKeyDbPwd", N(CryptographicToken, ChangeKeyDbPwd), {token, s(mod), s(tok), s("pw"), s("new")}},
    {"CryptographicToken.BuildKeyLabelList", N(CryptographicToken, BuildKeyLabelList), {sink, s(mod), s(tok), s("pw")},
     with(x, {out("ZAVKM_GetKeyDbLabelList", 1, labelsOf({"a", "b"})),
              out("ZAVKM_GetReqKeyDbLabelList", 1, labelsOf({"r"}))})},
    {"CryptographicToken.GetKeyItemByLabel", N(CryptographicToken, GetKeyItemByLabel),
     {token, s(mod), s(tok), s("pw"), s("lbl"), z(false)}, with(x, {out("ZAVKM_GetKeyItemByLabel", 2, key)})},
    {"CryptographicToken.GetKeyItemByLabel.Request", N(CryptographicToken, GetKeyItemByLabel),
     {token, s(mod), s(tok), s("pw"), s("req"), z(true)}, with(x, {out("ZAVKM_GetReqKeyItemByLabel", 2, reqKey)})},
    {"CryptographicToken.DeleteKeyItemByLabel", N(CryptographicToken, DeleteKeyItemByLabel),
     {token, s(mod), s(tok), s("pw"), s("lbl"), z(true)}, x},
    {"CryptographicToken.ReceivePersonalCertificate", N(CryptographicToken, ReceivePersonalCertificate),
     {token, s(mod), s(tok), s("pw"), s("sec.kdb"), s("spw"), s("c.der"), z(false)}, xx},
    {"CryptographicToken.ImportCertificate", N(CryptographicToken, ImportCertificate),
     {token, s(mod), s(tok), s("pw"), s("sec.kdb"), s("spw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, xx},
    {"CryptographicToken.AddSignerCertificate", N(CryptographicToken, AddSignerCertificate),
     {token, s(mod), s(tok), s("pw"), s("ca"), s("c.der"), z(false)}, x},
    {"CryptographicToken.ExtractCertificate", N(CryptographicToken, ExtractCertificate),
     {token, s(mod), s(tok), s("pw"), s("lbl"), s("o.der"), z(true)}, x},
    {"CryptographicToken.ImportPersonalCertificateRequest", N(CryptographicToken, ImportPersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, x},
    {"CryptographicToken.RecreatePersonalCertificateRequest", N(CryptographicToken, RecreatePersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), i(2), s("r.csr")}, x},
    {"CryptographicToken.CreateSelfSignedCertificate", N(CryptographicToken, CreateSelfSignedCertificate),
     {token, s(mod), s(tok), s("pw"), i(3), s("lbl"), i(2048), dn, i(365), i(2)}, x},
    {"CryptographicToken.CreatePersonalCertificateRequest", N(CryptographicToken, CreatePersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), i(2048), dn, i(2), s("r.csr")}, x},
    {"CryptographicToken.ExtractPersonalCertificateRequest", N(CryptographicToken, ExtractPersonalCertificateRequest),
     {token, s(mod), s(tok), s("pw"), s("lbl"), s("r.csr")}, x},
    {"CryptographicToken.IsPersonalCertificateRenewal", N(CryptographicToken, IsPersonalCertificateRenewal),
     {token, s(mod), s(tok), s("pw"), i(3), b({1, 2, 3})},
     with(x, {{"ZAVKM_CheckCertAsRenewal", returns(0).out(3, uint8_t{1})}})},
    {"CryptographicToken.RenewPersonalCertificate", N(CryptographicToken, RenewPersonalCertificate),
     {token, s(mod), s(tok), s("pw"), i(3), b({1, 2, 3})}, x},
    // MSCertificateStore
    {"MSCertificateStore.GetCSPNameList", N(MSCertificateStore, GetCSPNameList), {cls("zavtest/LabelSink")},
     {out("ZAVKM_GetCryptoTokenLabelList", 1, labelsOf({"csp1", "csp2"}))}},
    {"MSCertificateStore.BuildKeyLabelList", N(MSCertificateStore, BuildKeyLabelList), {sink, s("csp"), s("pw")},
     with(x, {out("ZAVKM_GetKeyDbLabelList", 1, labelsOf({"a", "b"}))})},
    {"MSCertificateStore.GetKeyItemByLabel", N(MSCertificateStore, GetKeyItemByLabel), {store, s("csp"), s("pw"), s("lbl")},
     with(x, {out("ZAVKM_GetKeyItemByLabel", 2, key)})},
    {"MSCertificateStore.GetKeyItemListByLabel", N(MSCertificateStore, GetKeyItemListByLabel),
     {store, s("csp"), s("pw"), s("lbl")}, with(x, {out("ZAVKM_GetKeyItemListByLabel", 2, keys())})},
    {"MSCertificateStore.GetKeyItemsByPublicKey", N(MSCertificateStore, GetKeyItemsByPublicKey),
     {store, s("csp"), s("pw"), i(3), b({1, 2, 3})}, with(x, {out("ZAVKM_GetKeyItemsByPublicKey", 3, keys())})},
    {"MSCertificateStore.DeleteKeyItemByLabel", N(MSCertificateStore, DeleteKeyItemByLabel), {store, s("csp"), s("pw"), s("lbl")}, x},
    {"MSCertificateStore.ImportCertificate", N(MSCertificateStore, ImportCertificate),
     {store, s("csp"), s("pw"), s("lbl"), i(2), b({0x30, 0}), i(3), b({1, 2, 3})}, x},
    {"MSCertificateStore.AddSignerCertificate", N(MSCertificateStore, AddSignerCertificate),
     {store, s("csp"), s("pw"), s("ca"), s("c.der"), z(false)}, x},
    {"MSCertificateStore.CreateNewSelfSignedCertificate", N(MSCertificateStore, CreateNewSelfSignedCertificate),
     {store, s("csp"), s("pw"), i(3), s("lbl"), i(2048), dn, i(365), i(2), i(2), b({0x30, 0})}, x},
};

}  // namespace

const std::vector<natives::Row>& natives::table() { return rows; }
