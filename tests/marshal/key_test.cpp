// Key records, request key records, key lists and PKCS#8 records to Java objects, and the
// lookup of one key by label.
#include <gmock/gmock.h>

#include "marshal/records.h"
#include "records.h"
#include "rows.h"

namespace {

using harness::Blocks;
using harness::Channels;
using harness::Context;
using harness::nullObject;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::someObject;
using records::berTrace;
using records::concat;
using records::epkiTrace;

using Bytes = std::optional<std::vector<uint8_t>>;

const std::string keyClassTrace = "JNI_DEBUG......jKeyItemClass = 0x{ref}";
const std::string keyCtorTrace = "JNI_DEBUG......jKeyItemClass = 0x{ref}, constructor=0x{ref}";
const char* const epkiSig = "()Lcom/norvex/zav/tolvik/basic/EncryptedPrivateKeyInfoItem;";

Row conversion(std::string name, std::vector<harness::Scripted> script,
               std::function<jobject(JNIEnv*)> convert, std::vector<std::string> journal,
               std::vector<std::string> trace, Returned returns,
               std::function<void(jobject)> check = nullptr, Blocks blocks = Blocks::CallerKeeps) {
    return {std::move(name),
            std::move(script),
            [convert](Context& c) { return returned(convert(c.env)); },
            std::move(journal),
            std::move(trace),
            returns,
            [check](Context&, const Returned& got) {
                if (check) check(got.object);
            },
            Channels::Both,
            blocks};
}

// ---- getJavaKeyItem --------------------------------------------------------------------------

// A key record with everything present; flags chosen so that only their low byte counts.
ZAVKM_KeyItem* fullKey() {
    auto* key = fake::record<ZAVKM_KeyItem>();
    key->shortValue1 = 0x10001;  // low 16 bits: 1
    key->label = fake::text("my key");
    key->keySize = 0x10800;  // low 16 bits: 2048
    key->hasPrivateKey = 1;
    key->hasCertList = 1;
    key->hasKeyBer = 1;
    key->keyFlag1 = 0x100;  // low byte 0: false
    key->keyFlag2 = 0x201;  // low byte 1: true
    key->epki = fake::epkiItem({0x30, 0x05});
    fake::setBytes(key->keyBer, key->keyBerLength, {0x30, 0x59});
    key->certList = fake::certList({records::derOnlyCert()});
    return key;
}

std::function<jobject(JNIEnv*)> key(void (*change)(ZAVKM_KeyItem*)) {
    return [change](JNIEnv* env) {
        ZAVKM_KeyItem* record = fullKey();
        change(record);
        return zavkjni::getJavaKeyItem(env, record);
    };
}

struct KeyExpect {
    bool epki;
    bool publicKey;
    int chain;  // -1: no chain
    bool hasPrivateKey;
};

std::function<void(jobject)> keyItem(KeyExpect want) {
    return [want](jobject item) {
        EXPECT_FALSE(harness::callBoolean(item, "isRequestKey", "()Z"));
        EXPECT_EQ(harness::callString(item, "getLabel"), "my key");
        EXPECT_EQ(harness::callShort(item, "getKeyAlgorithm", "()S"), 1);
        EXPECT_EQ(harness::callShort(item, "getKeySize", "()S"), 2048);
        EXPECT_FALSE(harness::callBoolean(item, "isDefaultKey", "()Z")) << "low byte of 0x100";
        EXPECT_TRUE(harness::callBoolean(item, "isTrusted", "()Z")) << "low byte of 0x201";
        EXPECT_EQ(harness::callBoolean(item, "hasPrivateKey", "()Z"), want.hasPrivateKey);
        jobject epki = harness::callObject(item, "getEncryptedPrivateKeyInfo", epkiSig);
        EXPECT_EQ(epki != nullptr, want.epki);
        if (epki != nullptr) {
            EXPECT_EQ(harness::callBytes(epki, "getDer"), (Bytes{{0x30, 0x05}}));
        }
        jobject ber = harness::callObject(item, "getPublicKey", "()Lcom/norvex/zav/tolvik/basic/BERObject;");
        EXPECT_EQ(ber != nullptr, want.publicKey);
        auto chain = static_cast<jobjectArray>(harness::callObject(
            item, "getCertificateChain", "()[Lcom/norvex/zav/tolvik/basic/CertificateItem;"));
        EXPECT_EQ(chain == nullptr ? -1 : harness::java()->GetArrayLength(chain), want.chain);
    };
}

// The lines of getJavaKeyItem: class, constructor, then those of the parts it converts.
std::vector<std::string> keyTrace(bool epki, bool publicKey, bool chain) {
    std::vector<std::string> trace = {keyClassTrace, keyCtorTrace};
    if (epki) trace.push_back(epkiTrace);
    if (publicKey) trace.push_back(berTrace);
    if (chain) {
        std::vector<std::string> certs = records::certArrayTrace(1, records::derOnlyCertTrace());
        trace.insert(trace.end(), certs.begin(), certs.end());
    }
    return trace;
}

const std::vector<Row> keyRows = {
    conversion("Full", {}, key([](ZAVKM_KeyItem*) {}), {}, keyTrace(true, true, true), someObject,
               keyItem({true, true, 1, true})),
    // Without its flag the encrypted key is not converted even when present.
    conversion("NoPrivateKeyFlag", {}, key([](ZAVKM_KeyItem* k) { k->hasPrivateKey = 0; }), {},
               keyTrace(false, true, true), someObject, keyItem({false, true, 1, false})),
    // The constructor sees the whole word, setHasPrivateKey its low byte.
    conversion("PrivateKeyFlagLowByteZero", {}, key([](ZAVKM_KeyItem* k) { k->hasPrivateKey = 0x100; }),
               {}, keyTrace(true, true, true), someObject, keyItem({true, true, 1, false})),
    conversion("NoCertListFlag", {}, key([](ZAVKM_KeyItem* k) { k->hasCertList = 0; }), {},
               keyTrace(true, true, false), someObject, keyItem({true, true, -1, true})),
    conversion("CertListFlagButNoList", {}, key([](ZAVKM_KeyItem* k) { k->certList = nullptr; }), {},
               keyTrace(true, true, false), someObject, keyItem({true, true, -1, true})),
    conversion("KeyBerOfLengthZero", {}, key([](ZAVKM_KeyItem* k) { k->keyBerLength = 0; }), {},
               keyTrace(true, false, true), someObject, keyItem({true, false, 1, true})),
    conversion("NoKeyBerFlag", {}, key([](ZAVKM_KeyItem* k) { k->hasKeyBer = 0; }), {},
               keyTrace(true, false, true), someObject, keyItem({true, false, 1, true})),
    conversion("NullRecord", {}, [](JNIEnv* env) { return zavkjni::getJavaKeyItem(env, nullptr); },
               {}, {}, nullObject),
};

// ---- getJavaReqKeyItem -----------------------------------------------------------------------

const std::vector<Row> reqKeyRows = {
    // A request key always reports its private key, even without one.
    conversion("AlwaysHasPrivateKey", {},
               [](JNIEnv* env) {
                   auto* key = fake::record<ZAVKM_ReqKeyItem>();
                   key->shortValue1 = 0x20002;
                   key->label = fake::text("req");
                   key->keySize = 256;
                   key->hasKeyBer = 1;
                   fake::setBytes(key->keyBer, key->keyBerLength, {0x30, 0x59});
                   return zavkjni::getJavaReqKeyItem(env, key);
               },
               {}, {keyCtorTrace, berTrace}, someObject,
               [](jobject item) {
                   EXPECT_TRUE(harness::callBoolean(item, "isRequestKey", "()Z"));
                   EXPECT_TRUE(harness::callBoolean(item, "hasPrivateKey", "()Z"));
                   EXPECT_EQ(harness::callShort(item, "getKeyAlgorithm", "()S"), 2);
                   EXPECT_EQ(harness::callShort(item, "getKeySize", "()S"), 256);
                   EXPECT_EQ(harness::callObject(item, "getEncryptedPrivateKeyInfo", epkiSig), nullptr);
                   EXPECT_EQ(harness::callObject(item, "getCertificateRequest",
                                                 "()Lcom/norvex/zav/tolvik/basic/CertificateRequestItem;"),
                             nullptr);
               }),
    conversion("NullRecord", {}, [](JNIEnv* env) { return zavkjni::getJavaReqKeyItem(env, nullptr); },
               {}, {}, nullObject),
};

// ---- getJavaKeyItemArray ---------------------------------------------------------------------

const std::vector<Row> keyArrayRows = {
    // Unlike a certificate list, a key list keeps its nodes without a record, as null elements.
    conversion("KeepsNodeWithoutRecord", {},
               [](JNIEnv* env) {
                   ZAVKM_KeyItem* first = fullKey();
                   first->hasCertList = first->hasKeyBer = first->hasPrivateKey = 0;
                   ZAVKM_KeyItem* third = fullKey();
                   third->hasCertList = third->hasKeyBer = third->hasPrivateKey = 0;
                   return zavkjni::getJavaKeyItemArray(env, fake::keyList({first, nullptr, third}));
               },
               {},
               concat({{"JNI_DEBUG......cKeyItemList count is = 3"}, keyTrace(false, false, false),
                       keyTrace(false, false, false)}),
               someObject,
               [](jobject array) {
                   std::vector<jobject> items = harness::objects(static_cast<jobjectArray>(array));
                   ASSERT_EQ(items.size(), 3u);
                   EXPECT_NE(items[0], nullptr);
                   EXPECT_EQ(items[1], nullptr);
                   EXPECT_NE(items[2], nullptr);
               }),
    conversion("EmptyList", {}, [](JNIEnv* env) { return zavkjni::getJavaKeyItemArray(env, nullptr); },
               {}, {}, nullObject),
};

// ---- getJavaEPKIItem and getJavaPrivKeyInfoItem ----------------------------------------------

const std::vector<Row> pkcs8Rows = {
    conversion("EncryptedKey", {},
               [](JNIEnv* env) { return zavkjni::getJavaEPKIItem(env, fake::epkiItem({0x30, 0x01, 0x02})); },
               {}, {epkiTrace}, someObject,
               [](jobject item) { EXPECT_EQ(harness::callBytes(item, "getDer"), (Bytes{{0x30, 0x01, 0x02}})); }),
    conversion("PlainKey", {},
               [](JNIEnv* env) {
                   return zavkjni::getJavaPrivKeyInfoItem(env, fake::privKeyInfoItem({0x30, 0x03}));
               },
               {}, {"JNI_DEBUG......jPrivateKeyInfoItem = 0x{ref}, retObj = 0x{ref}"}, someObject,
               [](jobject item) { EXPECT_EQ(harness::callBytes(item, "getDer"), (Bytes{{0x30, 0x03}})); }),
    conversion("NullEncryptedKey", {}, [](JNIEnv* env) { return zavkjni::getJavaEPKIItem(env, nullptr); },
               {}, {}, nullObject),
    conversion("NullPlainKey", {},
               [](JNIEnv* env) { return zavkjni::getJavaPrivKeyInfoItem(env, nullptr); }, {}, {},
               nullObject),
};

// ---- getJavaKeyItemByLabel -------------------------------------------------------------------

std::function<jobject(JNIEnv*)> lookup(jboolean isReqKey) {
    return [isReqKey](JNIEnv* env) { return zavkjni::getJavaKeyItemByLabel(env, 7, "my key", isReqKey); };
}

// The lookup releases the record it obtained: the test's records go with it.
const std::vector<Row> lookupRows = {
    conversion("KeyFound",
               {{"ZAVKM_GetKeyItemByLabel", fake::returns(0).out(2, [] {
                     ZAVKM_KeyItem* k = fullKey();
                     k->hasCertList = 0;
                     return k;
                 })}},
               lookup(JNI_FALSE),
               {R"(ZAVKM_GetKeyItemByLabel(7, "my key", non-null))", "ZAVKM_FreeKeyItem(non-null)"},
               concat({{"JNI_DEBUG......KM_GetKeyItem gets NON-NULL",
                        "JNI_DEBUG......cKeyItem->keySize = 67584"},
                       keyTrace(true, true, false)}),
               someObject, keyItem({true, true, -1, true}), Blocks::AllReleased),
    // Only keys are looked up: a label that names a request key alone finds nothing.
    conversion("KeyNotFound", {{"ZAVKM_GetKeyItemByLabel", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
               lookup(JNI_FALSE), {R"(ZAVKM_GetKeyItemByLabel(7, "my key", non-null))"},
               {"JNI_DEBUG......KM_GetKeyItem gets NULL"}, nullObject, nullptr, Blocks::AllReleased),
    conversion("RequestKeyFound",
               {{"ZAVKM_GetReqKeyItemByLabel", fake::returns(0).out(2, [] {
                     auto* k = fake::record<ZAVKM_ReqKeyItem>();
                     k->label = fake::text("my key");
                     k->keySize = 3072;
                     k->epki = fake::epkiItem({0x30});
                     return k;
                 })}},
               lookup(JNI_TRUE),
               {R"(ZAVKM_GetReqKeyItemByLabel(7, "my key", non-null))", "ZAVKM_FreeReqKeyItem(non-null)"},
               {"JNI_DEBUG......KM_GetReqKeyItem gets NON-NULL",
                "JNI_DEBUG......cReqKeyItem->keySize = 3072", keyCtorTrace, epkiTrace},
               someObject,
               [](jobject item) {
                   EXPECT_TRUE(harness::callBoolean(item, "isRequestKey", "()Z"));
                   EXPECT_EQ(harness::callShort(item, "getKeySize", "()S"), 3072);
               },
               Blocks::AllReleased),
    conversion("RequestKeyNotFound", {}, lookup(JNI_TRUE),
               {R"(ZAVKM_GetReqKeyItemByLabel(7, "my key", non-null))"},
               {"JNI_DEBUG......KM_GetReqKeyItem gets NULL"}, nullObject, nullptr, Blocks::AllReleased),
};

}  // namespace

CONFORMANCE_ROWS(KeyItemRows, keyRows);
CONFORMANCE_ROWS(ReqKeyItemRows, reqKeyRows);
CONFORMANCE_ROWS(KeyItemArrayRows, keyArrayRows);
CONFORMANCE_ROWS(Pkcs8Rows, pkcs8Rows);
CONFORMANCE_ROWS(KeyLookupRows, lookupRows);
