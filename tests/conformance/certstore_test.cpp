// MSCertificateStore: the providers, the labels and keys of a platform certificate store, and
// its maintenance. Every native but the provider listing opens the store with a descriptor of
// store type 4 naming the provider ("csp") and the password ("pw"), both optional.
#include "com_norvex_zav_tolvik_basic_MSCertificateStore.h"
#include "store_rows.h"

#define STORE_NATIVE(method) Java_com_norvex_zav_tolvik_basic_MSCertificateStore_c_1##method

namespace {

using harness::byteArray;
using harness::nullObject;
using harness::rc;
using harness::returned;
using harness::Row;
using harness::someObject;
using harness::str;
using namespace storerows;

const char* const providerName = "csp";
const char* const storePassword = "pw";
const char* const keyLabel = "k1";
const std::string keyLabelTrace = std::string("JNI_DEBUG......cKeyLabel = ") + keyLabel;
const char* const sink = "zavtest/LabelSink";

jobject newStore() {
    return harness::newObject("com/norvex/zav/tolvik/basic/MSCertificateStore", "()V");
}

using StoreCase = FrameCase;

std::vector<std::string> storeTrace(const char* provider, const char* password,
                                    bool tokenPasswordName) {
    return {provider != nullptr ? std::string("JNI_DEBUG......cCSPName = ") + provider
                                : "JNI_DEBUG......cCSPName = NULL",
            password == nullptr ? std::string("JNI_DEBUG......cPassword = NULL")
            : tokenPasswordName
                ? std::string("JNI_DEBUG......cCryptographicTokenPassword = ") + password
                : std::string("JNI_DEBUG......cPassword = ") + password};
}

std::string storeDescriptor(const char* provider, const char* password) {
    return descriptor(4, {{"tokenLabel", provider}, {"password", password}});
}

Row storeRow(std::string name, StoreCase sc, std::function<Returned(Context&)> call,
             Returned returns) {
    return frameRow(std::move(name), sc, storeDescriptor(sc.provider, sc.password),
                    storeTrace(sc.provider, sc.password, sc.tokenPasswordName), std::move(call),
                    returns);
}

// ---- c_GetCSPNameList ------------------------------------------------------------------------

const char* const providerListCall = R"(ZAVKM_GetCryptoTokenLabelList("", non-null))";
const std::string addCSPNameLookup = "GetStaticMethodID addCSPName (Ljava/lang/String;)V";

std::function<Returned(Context&)> providers(const char* receiver) {
    return [receiver](Context& c) {
        harness::callStaticVoid(sink, "clearStatic", "()V");
        jclass cls = receiver != nullptr ? harness::findClass(receiver) : nullptr;
        return returned(STORE_NATIVE(GetCSPNameList)(c.env, cls));
    };
}

// Nothing is traced; the names reach addCSPName in list order.
Row providersListed(const char* name, std::vector<const char*> names,
                    std::vector<std::string> received) {
    std::vector<std::string> journal = {providerListCall};
    if (!names.empty()) journal.push_back(freedList);
    return {name,
            {{"ZAVKM_GetCryptoTokenLabelList", labelsOut(0, 1, names)}},
            providers(sink),
            journal,
            {},
            rc(0),
            all({sinkClassReceived(received), lookups({addCSPNameLookup}), takes({})})};
}

const std::vector<Row> providerRows = {
    providersListed("ProviderNames", {"csp1", "csp2"}, {"addCSPName:csp1", "addCSPName:csp2"}),
    providersListed("SecondNameNullEndsTheWalk", {"csp1", nullptr, "csp3"}, {"addCSPName:csp1"}),
    providersListed("NoProviders", {}, {}),
    {"ListingFails",
     {{"ZAVKM_GetCryptoTokenLabelList", fake::returns(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT)}},
     providers(sink),
     {providerListCall},
     {},
     rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT),
     sinkClassReceived({})},
    refused("ClassWithoutAddCSPName", providers("zavtest/NoCallbacks"), rc(ZAVKM_ERR_PARAMETER),
            all({lookups({addCSPNameLookup}), noSuchMethod()})),
    refused("NullClass", providers(nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(StoreProviderListRows, providerRows);

// ---- c_BuildKeyLabelList
// -------------------------------------------------------------------------

const std::vector<std::string> labelCallbackLookups = {
    "GetMethodID addKeyLabel (Ljava/lang/String;)V",
    "GetMethodID addPersonalKeyLabel (Ljava/lang/String;)V",
    "GetMethodID addSignerKeyLabel (Ljava/lang/String;)V"};
const char* const labelListCall = "ZAVKM_GetKeyDbLabelList(7, non-null)";

std::function<Returned(Context&)> buildList(const char* provider, const char* password,
                                            const char* receiver = sink) {
    return [=](Context& c) {
        c.subject = harness::newObject(receiver, "()V");
        return returned(
            STORE_NATIVE(BuildKeyLabelList)(c.env, c.subject, str(provider), str(password)));
    };
}

Check delivered(std::vector<std::string> received, std::vector<std::string> texts) {
    return all({sinkReceived(std::move(received)), lookups(labelCallbackLookups),
                takes(std::move(texts))});
}

const std::vector<Row> buildListRows = {
    storeRow("OneWithAndOneWithoutPrivateKey",
             {.script = {{"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {"k1", "k2"})},
                         present(0, 1),
                         present(0, 0)},
              .operation = {labelListCall, presentCall("k1"), presentCall("k2"), freedList},
              .check = delivered({"addKeyLabel:k1", "addPersonalKeyLabel:k1", "addKeyLabel:k2",
                                  "addSignerKeyLabel:k2"},
                                 {providerName, storePassword})},
             buildList(providerName, storePassword), rc(0)),
    // Neither given: the descriptor holds the store type alone, both NULL messages traced.
    storeRow("NoProviderNoPassword",
             {.provider = nullptr,
              .password = nullptr,
              .script = {{"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {})}},
              .operation = {labelListCall},
              .check = delivered({}, {})},
             buildList(nullptr, nullptr), rc(0)),
    storeRow("PrivateKeyTestFailsOnTheSecondLabel",
             {.script = {{"ZAVKM_GetKeyDbLabelList", labelsOut(0, 1, {"k1", "k2", "k3"})},
                         present(0, 0),
                         present(ZAVKM_ERR_KEY_GET_BY_LABEL, 1)},
              .operation = {labelListCall, presentCall("k1"), presentCall("k2"), freedList},
              .check = delivered({"addKeyLabel:k1", "addSignerKeyLabel:k1"},
                                 {providerName, storePassword})},
             buildList(providerName, storePassword), rc(ZAVKM_ERR_KEY_GET_BY_LABEL)),
    storeRow("LabelListFails",
             {.password = nullptr,
              .script = {{"ZAVKM_GetKeyDbLabelList", fake::returns(ZAVKM_ERR_LABEL_LIST_CORRUPT)}},
              .operation = {labelListCall},
              .check = delivered({}, {providerName})},
             buildList(providerName, nullptr), rc(ZAVKM_ERR_LABEL_LIST_CORRUPT)),
    storeRow("StoreDoesNotOpen",
             {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST,
              .check = delivered({}, {providerName, storePassword})},
             buildList(providerName, storePassword),
             rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST)),
    refused("ClassWithoutCallbacks", buildList(providerName, storePassword, "zavtest/NoCallbacks"),
            rc(ZAVKM_ERR_PARAMETER),
            all({lookups({labelCallbackLookups[0]}), takes({}), noSuchMethod()})),
};
CONFORMANCE_ROWS(StoreBuildKeyLabelListRows, buildListRows);

// ---- c_GetKeyItemByLabel and c_GetKeyItemListByLabel ------------------------------------------

std::function<Returned(Context&)> getKey(const char* provider, const char* password,
                                         const char* label = keyLabel) {
    return [=](Context& c) {
        return returned(STORE_NATIVE(GetKeyItemByLabel)(c.env, newStore(), str(provider),
                                                        str(password), str(label)));
    };
}

const std::vector<Row> getKeyRows = {
    storeRow("Found",
             {.script = {{"ZAVKM_GetKeyItemByLabel",
                          fake::returns(0).out(2, [] { return keyRecord(keyLabel, 2048); })}},
              .operation = {R"(ZAVKM_GetKeyItemByLabel(7, "k1", non-null))",
                            "ZAVKM_FreeKeyItem(non-null)"},
              .trace = concat({{keyLabelTrace, "JNI_DEBUG......KM_GetKeyItem gets NON-NULL",
                                "JNI_DEBUG......cKeyItem->keySize = 2048"},
                               keyItemTrace()}),
              .check = all({[](Context&, const Returned& got) {
                                EXPECT_EQ(harness::callString(got.object, "getLabel"), keyLabel);
                            },
                            takes({providerName, storePassword, keyLabel})})},
             getKey(providerName, storePassword), someObject),
    storeRow("NotFound",
             {.script = {{"ZAVKM_GetKeyItemByLabel", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
              .operation = {R"(ZAVKM_GetKeyItemByLabel(7, "k1", non-null))"},
              .trace = {keyLabelTrace, "JNI_DEBUG......KM_GetKeyItem gets NULL"}},
             getKey(providerName, storePassword), nullObject),
    storeRow("StoreDoesNotOpen",
             {.provider = nullptr,
              .password = nullptr,
              .openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST,
              .trace = {keyLabelTrace},
              .check = takes({keyLabel})},
             getKey(nullptr, nullptr), nullObject),
    refused("NullKeyLabel", getKey(providerName, storePassword, nullptr), nullObject),
};
CONFORMANCE_ROWS(StoreGetKeyItemByLabelRows, getKeyRows);

std::function<Returned(Context&)> getKeyList(const char* provider, const char* password) {
    return [=](Context& c) {
        return returned(static_cast<jobject>(STORE_NATIVE(GetKeyItemListByLabel)(
            c.env, newStore(), str(provider), str(password), str(keyLabel))));
    };
}

const char* const keyListCall = R"(ZAVKM_GetKeyItemListByLabel(7, "k1", non-null))";

const std::vector<Row> getKeyListRows = {
    storeRow(
        "TwoKeys",
        {.script =
             {{"ZAVKM_GetKeyItemListByLabel",
               fake::returns(0).out(
                   2,
                   [] {
                       return fake::keyList({keyRecord(keyLabel, 2048), keyRecord(keyLabel, 1024)});
                   })}},
         .operation = {keyListCall, "ZAVKM_FreeKeyItemList(non-null)"},
         .trace =
             concat({{keyLabelTrace, "JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets NON-NULL",
                      "JNI_DEBUG......cKeyItemList count is = 2"},
                     keyItemTrace(),
                     keyItemTrace()}),
         .check = keyLabels({keyLabel, keyLabel})},
        getKeyList(providerName, storePassword), someObject),
    storeRow(
        "NoneFound",
        {.password = nullptr,
         .script = {{"ZAVKM_GetKeyItemListByLabel", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
         .operation = {keyListCall},
         .trace = {keyLabelTrace, "JNI_DEBUG......ZAVKM_GetKeyItemListByLabel gets NULL"}},
        getKeyList(providerName, nullptr), nullObject),
    storeRow("StoreDoesNotOpen",
             {.openCode = ZAVKM_ERR_DATABASE_INVALID_PASSWORD, .trace = {keyLabelTrace}},
             getKeyList(providerName, storePassword), nullObject),
};
CONFORMANCE_ROWS(StoreGetKeyItemListByLabelRows, getKeyListRows);

// ---- c_GetKeyItemsByPublicKey ----------------------------------------------------------------

std::function<Returned(Context&)> byPublicKey(const char* password, jint length) {
    return [=](Context& c) {
        return returned(static_cast<jobject>(STORE_NATIVE(GetKeyItemsByPublicKey)(
            c.env, newStore(), str(providerName), str(password), length, byteArray(certBytes))));
    };
}

const char* const publicKeyCall = "ZAVKM_GetKeyItemsByPublicKey(7, 3, [300102], non-null)";

const std::vector<Row> publicKeyRows = {
    // The byte count goes before the bytes; a given password is traced as the token password.
    storeRow(
        "OneKey",
        {.tokenPasswordName = true,
         .script = {{"ZAVKM_GetKeyItemsByPublicKey",
                     fake::returns(0).out(
                         3, [] { return fake::keyList({keyRecord(keyLabel, 2048)}); })}},
         .operation = {publicKeyCall, "ZAVKM_FreeKeyItemList(non-null)"},
         .trace = concat({{bytesMatch, "JNI_DEBUG......ZAVKM_GetKeyItemsByPublicKey gets NON-NULL",
                           "JNI_DEBUG......cKeyItemList count is = 1"},
                          keyItemTrace()}),
         .check = all({keyLabels({keyLabel}), takes({providerName, storePassword})})},
        byPublicKey(storePassword, 3), someObject),
    storeRow(
        "NoneWithoutPassword",
        {.password = nullptr,
         .script = {{"ZAVKM_GetKeyItemsByPublicKey", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
         .operation = {publicKeyCall},
         .trace = {bytesMatch, "JNI_DEBUG......ZAVKM_GetKeyItemsByPublicKey gets NULL"}},
        byPublicKey(nullptr, 3), nullObject),
    // An array of another length: the strings are given back and the store is not opened.
    {"LengthDiffers",
     {},
     byPublicKey(storePassword, 4),
     {},
     concat({storeTrace(providerName, storePassword, true), {bytesDiffer}}),
     nullObject,
     takes({providerName, storePassword})},
    refused("PublicKeyLenZero", byPublicKey(storePassword, 0), nullObject, takes({})),
};
CONFORMANCE_ROWS(StoreGetKeyItemsByPublicKeyRows, publicKeyRows);

// ---- c_DeleteKeyItemByLabel and c_ImportCertificate -------------------------------------------

std::function<Returned(Context&)> deleteKey(const char* provider, const char* password,
                                            const char* label = keyLabel) {
    return [=](Context& c) {
        return returned(STORE_NATIVE(DeleteKeyItemByLabel)(c.env, newStore(), str(provider),
                                                           str(password), str(label)));
    };
}

const std::vector<Row> deleteRows = {
    storeRow("Deleted",
             {.script = {{"ZAVKM_DeleteKey", fake::returns(0)}},
              .operation = {R"(ZAVKM_DeleteKey(7, "k1"))"},
              .trace = {keyLabelTrace},
              .check = takes({providerName, storePassword, keyLabel})},
             deleteKey(providerName, storePassword), rc(0)),
    storeRow("NoProviderNoPasswordKeyNotFound",
             {.provider = nullptr,
              .password = nullptr,
              .script = {{"ZAVKM_DeleteKey", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
              .operation = {R"(ZAVKM_DeleteKey(7, "k1"))"},
              .trace = {keyLabelTrace},
              .check = takes({keyLabel})},
             deleteKey(nullptr, nullptr), rc(ZAVKM_ERR_KEY_GET_BY_LABEL)),
    storeRow("StoreDoesNotOpen",
             {.openCode = ZAVKM_ERR_DATABASE_INVALID_PASSWORD, .trace = {keyLabelTrace}},
             deleteKey(providerName, storePassword), rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    refused("NullKeyLabel", deleteKey(providerName, storePassword, nullptr),
            rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(StoreDeleteKeyItemByLabelRows, deleteRows);

std::function<Returned(Context&)> importCert(const char* password, jint certLength,
                                             jint keyLength) {
    return [=](Context& c) {
        return returned(STORE_NATIVE(ImportCertificate)(
            c.env, newStore(), str(providerName), str(password), str(keyLabel), certLength,
            byteArray(certBytes), keyLength, byteArray({0x0a, 0x0b})));
    };
}

const std::vector<Row> importRows = {
    storeRow("CertificateAndKey",
             {.tokenPasswordName = true,
              .script = {{"ZAVKM_InsertKey", fake::returns(0)}},
              .operation = {R"(ZAVKM_InsertKey(7, "k1", 3, [300102], 2, [0a0b], 0, 0))"},
              .trace = {keyLabelTrace, bytesMatch, bytesMatch},
              .check = takes({providerName, storePassword, keyLabel})},
             importCert(storePassword, 3, 2), rc(0)),
    // keyDataLen 0: no key buffer; a null password is traced under its own name.
    storeRow("KeyDataLenZeroWithoutPassword",
             {.password = nullptr,
              .script = {{"ZAVKM_InsertKey", fake::returns(ZAVKM_ERR_DATABASE_DUPLICATE_KEY)}},
              .operation = {R"(ZAVKM_InsertKey(7, "k1", 3, [300102], 0, null, 0, 0))"},
              .trace = {keyLabelTrace, bytesMatch}},
             importCert(nullptr, 3, 0), rc(ZAVKM_ERR_DATABASE_DUPLICATE_KEY)),
    storeRow("StoreDoesNotOpen",
             {.tokenPasswordName = true,
              .openCode = ZAVKM_ERR_DATABASE_INVALID_PASSWORD,
              .trace = {keyLabelTrace, bytesMatch, bytesMatch}},
             importCert(storePassword, 3, 2), rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    refused("CertDataLenZero", importCert(storePassword, 0, 2), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(StoreImportCertificateRows, importRows);

// ---- c_AddSignerCertificate ------------------------------------------------------------------

std::function<Returned(Context&)> addSigner(const char* file, jboolean isBase64 = JNI_FALSE) {
    return [=](Context& c) {
        writeCertFile();
        return returned(STORE_NATIVE(AddSignerCertificate)(c.env, newStore(), str(providerName),
                                                           str(storePassword), str(keyLabel),
                                                           str(file), isBase64));
    };
}

StoreCase signerStored(const char* read, std::vector<Scripted> script, int code) {
    script.push_back({"ZAVKM_StoreCACert", fake::returns(code)});
    return {.script = std::move(script),
            .before = {read},
            .operation = {R"(ZAVKM_StoreCACert(7, [300102], 3, "k1"))"},
            .after = {"ZAVKM_Free(block(3))"},
            .trace = {keyLabelTrace, std::string("JNI_DEBUG......cCertFileName = ") + certFile},
            .check = takes({providerName, storePassword, keyLabel, certFile})};
}

const std::vector<Row> addSignerRows = {
    storeRow("BinaryFile", signerStored("ZAVKM_Malloc(3)", {}, 0), addSigner(certFile), rc(0)),
    storeRow(
        "Base64File",
        signerStored(R"(ZAVKM_Base64DecodeFileToBuf("store_rows_cert.der", non-null, non-null))",
                     {base64Decoded()}, ZAVKM_ERR_DATABASE_DUPLICATE_KEY),
        addSigner(certFile, JNI_TRUE), rc(ZAVKM_ERR_DATABASE_DUPLICATE_KEY)),
    // A file that cannot be read opens no store.
    {"CertFileMissing",
     {},
     addSigner("missing.der"),
     {},
     concat({storeTrace(providerName, storePassword, false),
             {keyLabelTrace, "JNI_DEBUG......cCertFileName = missing.der"}}),
     rc(ZAVKM_ERR_FILE_OPEN_TO_READ)},
    refused("NullCertFileName", addSigner(nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(StoreAddSignerCertificateRows, addSignerRows);

// ---- c_CreateNewSelfSignedCertificate --------------------------------------------------------

std::function<Returned(Context&)> selfSigned(jint signatureAlgorithm, jint extensionsLength) {
    return [=](Context& c) {
        return returned(STORE_NATIVE(CreateNewSelfSignedCertificate)(
            c.env, newStore(), str(providerName), str(storePassword), 3, str(keyLabel), 2048,
            newDnItem(), 365, signatureAlgorithm, extensionsLength, byteArray({0x0a, 0x0b})));
    };
}

const char* const toConvert = "JNI_DEBUG......to call JavaDNItem2CDN()";
const char* const toExit =
    "JNI_DEBUG......to exit MSCertificateStore_c_1CreateNewSelfSignedCertificate()";
const std::vector<std::string> aroundTheCall = {
    "JNI_DEBUG......to call ZAVKM_CreateSelfSignedCertSig()",
    "JNI_DEBUG......after call ZAVKM_CreateSelfSignedCertSig()",
    "JNI_DEBUG......after call ZAVKM_FreeDNItem()", toExit};

// The conversion gives the name's texts back as soon as it has copied them, before the store's.
const std::vector<std::string> convertedFirst = {"Alice", "US", providerName, storePassword,
                                                 keyLabel};

const std::vector<Row> selfSignedRows = {
    storeRow(
        "WithExtensions",
        {.script = {{"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(0)}},
         .before = dnConverted,
         .operation = {std::string(R"(ZAVKM_CreateSelfSignedCertSigExt(7, "k1", 0, 3, 2048, )") +
                       dnShown + ", 365, 2, [0a0b], 2, null, 0)"},
         .after = {dnFreed},
         .trace = concat({{keyLabelTrace, bytesMatch, toConvert}, dnTrace, aroundTheCall}),
         .check = takes({providerName, storePassword, keyLabel, "Alice", "US"}),
         .givenBack = convertedFirst},
        selfSigned(2, 2), rc(0)),
    // The lines around the call are written even when the store does not open.
    storeRow("NoExtensionsStoreDoesNotOpen",
             {.openCode = ZAVKM_ERR_DATABASE_INVALID_PASSWORD,
              .before = dnConverted,
              .after = {dnFreed},
              .trace = concat({{keyLabelTrace, toConvert}, dnTrace, aroundTheCall}),
              .givenBack = convertedFirst},
             selfSigned(1, 0), rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    // No certificate-call lines, but the exit line; nothing opened.
    {"DNItemDoesNotConvert",
     {dnNotConverted()},
     selfSigned(1, 0),
     {"ZAVKM_InitDNItem(non-null)"},
     concat({storeTrace(providerName, storePassword, false), {keyLabelTrace, toConvert, toExit}}),
     rc(ZAVKM_ERR_INVALID_DN_INPUT),
     takes({providerName, storePassword, keyLabel})},
    refused("SignatureAlgorithmThree", selfSigned(3, 0), rc(ZAVKM_ERR_PARAMETER), takes({})),
};
CONFORMANCE_ROWS(StoreSelfSignedRows, selfSignedRows);

}  // namespace
