// CryptographicToken: certificates into and out of a token, with or without a secondary key
// database file attached for the call, and the renewal check and renewal.
#include "token_rows.h"

#define TOKEN_NATIVE(method) Java_com_norvex_zav_tolvik_basic_CryptographicToken_c_1##method

namespace {

using harness::byteArray;
using harness::no;
using harness::rc;
using harness::returned;
using harness::Row;
using harness::str;
using harness::yes;
using namespace tokenrows;

const char* const keyLabel = "key1";
const std::string keyLabelTrace = std::string("JNI_DEBUG......cKeyLabel = ") + keyLabel;
const std::string certFileTrace = std::string("JNI_DEBUG......cCertFileName = ") + certFile;
const char* const secondaryFile = "sec.kdb";
const char* const secondaryPassword = "secpw";

// What the file reader asks of the library for the binary certificate file, and the release
// of the block it gathered.
const char* const certFileRead = "ZAVKM_Malloc(3)";
const char* const certBase64Read =
    R"(ZAVKM_Base64DecodeFileToBuf("store_rows_cert.der", non-null, non-null))";
const char* const certBlockFreed = "ZAVKM_Free(block(3))";

std::vector<std::string> secondaryTrace(const char* file, const char* password) {
    return {file != nullptr ? std::string("JNI_DEBUG......cSecondaryKeyDbFileName = ") + file
                            : "JNI_DEBUG......cSecondaryKeyDbFileName = NULL",
            password != nullptr
                ? std::string("JNI_DEBUG......cSecondaryKeyDbFilePassword = ") + password
                : "JNI_DEBUG......cSecondaryKeyDbFilePassword = NULL"};
}

// The calls around `operation` when the secondary file opens (handle 9) and is attached: the
// file is detached and closed before the token.
std::vector<std::string> attached(const char* password, std::string operation) {
    return {opened(secondaryDescriptor(secondaryFile, password)), "ZAVKM_SetSecondaryKeyDb(7, 9)",
            std::move(operation), "ZAVKM_UnsetSecondaryKeyDb(7)", closed(secondaryHandle)};
}

// ---- c_ReceivePersonalCertificate ------------------------------------------------------------

std::function<Returned(Context&)> receive(const char* secondary, const char* password,
                                          const char* file = certFile,
                                          jboolean isBase64 = JNI_FALSE) {
    return [=](Context& c) {
        writeCertFile();
        return returned(TOKEN_NATIVE(ReceivePersonalCertificate)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(tokenPassword), str(secondary),
            str(password), str(file), isBase64));
    };
}

const char* const receiveCall = "ZAVKM_ReceiveCert(7, [300102], 3, 0)";

// A receipt from the binary file: read, token (and secondary) opened, ReceiveCert, closed, freed.
TokenCase receipt(const char* secondary, const char* password, std::vector<Scripted> script,
                  std::vector<std::string> operation) {
    std::vector<std::string> texts = {tokenPassword};
    if (secondary != nullptr) texts.push_back(secondary);
    if (password != nullptr) texts.push_back(password);
    return {.script = std::move(script),
            .before = {certFileRead},
            .operation = std::move(operation),
            .after = {certBlockFreed},
            .trace = concat({secondaryTrace(secondary, password), {certFileTrace}}),
            .check = takes(concat({{moduleName, tokenLabel}, texts, {certFile}}))};
}

const std::vector<Row> receiveRows = {
    tokenRow("TokenAlone",
             receipt(nullptr, nullptr, {{"ZAVKM_ReceiveCert", fake::returns(0)}}, {receiveCall}),
             receive(nullptr, nullptr), rc(0)),
    tokenRow("WithSecondaryKeyDb",
             receipt(secondaryFile, secondaryPassword,
                     {opens(secondaryHandle), {"ZAVKM_ReceiveCert", fake::returns(0)}},
                     attached(secondaryPassword, receiveCall)),
             receive(secondaryFile, secondaryPassword), rc(0)),
    // The secondary file's failure closes the token again; nothing is received.
    tokenRow(
        "SecondaryKeyDbDoesNotOpen",
        receipt(secondaryFile, secondaryPassword, {openFails(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)},
                {opened(secondaryDescriptor(secondaryFile, secondaryPassword))}),
        receive(secondaryFile, secondaryPassword), rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    tokenRow(
        "AttachmentFails",
        receipt(secondaryFile, secondaryPassword,
                {opens(secondaryHandle),
                 {"ZAVKM_SetSecondaryKeyDb", fake::returns(ZAVKM_ERR_SECONDARY_KEYDB_TO_OTHER)}},
                {opened(secondaryDescriptor(secondaryFile, secondaryPassword)),
                 "ZAVKM_SetSecondaryKeyDb(7, 9)", closed(secondaryHandle)}),
        receive(secondaryFile, secondaryPassword), rc(ZAVKM_ERR_SECONDARY_KEYDB_TO_OTHER)),
    // A secondary password without a file is taken and traced, and otherwise ignored.
    tokenRow("SecondaryPasswordWithoutFile",
             receipt(nullptr, secondaryPassword, {{"ZAVKM_ReceiveCert", fake::returns(0)}},
                     {receiveCall}),
             receive(nullptr, secondaryPassword), rc(0)),
    tokenRow("SecondaryKeyDbWithoutPasswordReceiveFails",
             receipt(secondaryFile, nullptr,
                     {opens(secondaryHandle),
                      {"ZAVKM_ReceiveCert", fake::returns(ZAVKM_ERR_REQKEY_FOR_CERT_NULL)}},
                     attached(nullptr, receiveCall)),
             receive(secondaryFile, nullptr), rc(ZAVKM_ERR_REQKEY_FOR_CERT_NULL)),
    [] {
        TokenCase tc = receipt(nullptr, nullptr, {}, {});
        tc.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED;
        return tokenRow("TokenDoesNotOpen", tc, receive(nullptr, nullptr),
                        rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED));
    }(),
    [] {
        TokenCase tc =
            receipt(nullptr, nullptr, {base64Decoded(), {"ZAVKM_ReceiveCert", fake::returns(0)}},
                    {receiveCall});
        tc.before = {certBase64Read};
        return tokenRow("Base64File", tc, receive(nullptr, nullptr, certFile, JNI_TRUE), rc(0));
    }(),
    // A file that cannot be read opens no store.
    {"CertFileMissing",
     {},
     receive(nullptr, nullptr, "missing.der"),
     {},
     concat({frameTrace(tokenPassword),
             secondaryTrace(nullptr, nullptr),
             {"JNI_DEBUG......cCertFileName = missing.der"}}),
     rc(ZAVKM_ERR_FILE_OPEN_TO_READ)},
    refused("NullCertFileName", receive(nullptr, nullptr, nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenReceiveCertificateRows, receiveRows);

// ---- c_ImportCertificate -----------------------------------------------------------------------

const std::vector<uint8_t> keyBytes = {0x0a, 0x0b};

std::function<Returned(Context&)> importCert(const char* secondary, jint certLength, bool withCert,
                                             jint keyLength) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(ImportCertificate)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(tokenPassword), str(secondary),
            str(secondary != nullptr ? secondaryPassword : nullptr), str(keyLabel), certLength,
            withCert ? byteArray(certBytes) : nullptr, keyLength, byteArray(keyBytes)));
    };
}

TokenCase imported(std::vector<Scripted> script, std::vector<std::string> operation,
                   std::vector<std::string> conversions, const char* secondary = nullptr) {
    return {.script = std::move(script),
            .operation = std::move(operation),
            .trace = concat(
                {secondaryTrace(secondary, secondary != nullptr ? secondaryPassword : nullptr),
                 {keyLabelTrace},
                 conversions})};
}

const char* const insertWithKey = R"(ZAVKM_InsertKey(7, "key1", 3, [300102], 2, [0a0b], 0, 0))";
const char* const insertWithoutKey = R"(ZAVKM_InsertKey(7, "key1", 3, [300102], 0, null, 0, 0))";

const std::vector<Row> importRows = {
    tokenRow("CertificateAndKey",
             imported({{"ZAVKM_InsertKey", fake::returns(0)}}, {insertWithKey},
                      {bytesMatch, bytesMatch}),
             importCert(nullptr, 3, true, 2), rc(0)),
    // keyDataLen 0: the key array is not read, the library gets null and 0.
    tokenRow("KeyDataLenZero",
             imported({{"ZAVKM_InsertKey", fake::returns(0)}}, {insertWithoutKey}, {bytesMatch}),
             importCert(nullptr, 3, true, 0), rc(0)),
    tokenRow("WithSecondaryKeyDbInsertFails",
             imported({opens(secondaryHandle),
                       {"ZAVKM_InsertKey", fake::returns(ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL)}},
                      attached(secondaryPassword, insertWithKey), {bytesMatch, bytesMatch},
                      secondaryFile),
             importCert(secondaryFile, 3, true, 2), rc(ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL)),
    // A certificate array of another length reaches the library as null with the given length.
    tokenRow("CertificateLengthDiffers",
             imported({{"ZAVKM_InsertKey", fake::returns(ZAVKM_ERR_NULL_PARAMETER)}},
                      {R"(ZAVKM_InsertKey(7, "key1", 4, null, 0, null, 0, 0))"}, {bytesDiffer}),
             importCert(nullptr, 4, true, 0), rc(ZAVKM_ERR_NULL_PARAMETER)),
    [] {
        TokenCase tc = imported({}, {}, {bytesMatch, bytesMatch});
        tc.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST;
        return tokenRow("TokenDoesNotOpen", tc, importCert(nullptr, 3, true, 2),
                        rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST));
    }(),
    refused("CertDataLenZero", importCert(nullptr, 0, true, 2), rc(ZAVKM_ERR_PARAMETER)),
    refused("NullCertData", importCert(nullptr, 3, false, 2), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenImportCertificateRows, importRows);

// ---- c_AddSignerCertificate and c_ExtractCertificate ----------------------------------------

std::function<Returned(Context&)> addSigner(const char* label, const char* file,
                                            jboolean isBase64 = JNI_FALSE) {
    return [=](Context& c) {
        writeCertFile();
        return returned(TOKEN_NATIVE(AddSignerCertificate)(c.env, newToken(), str(moduleName),
                                                           str(tokenLabel), str(tokenPassword),
                                                           str(label), str(file), isBase64));
    };
}

const char* const storeCall = R"(ZAVKM_StoreCACert(7, [300102], 3, "key1"))";

TokenCase signerStored(const char* read, std::vector<Scripted> script, int openCode = 0) {
    return {.openCode = openCode,
            .script = std::move(script),
            .before = {read},
            .operation = {storeCall},
            .after = {certBlockFreed},
            .trace = {keyLabelTrace, certFileTrace},
            .check = takes(frameTexts(tokenPassword, {keyLabel, certFile}))};
}

const std::vector<Row> addSignerRows = {
    tokenRow("BinaryFile", signerStored(certFileRead, {{"ZAVKM_StoreCACert", fake::returns(0)}}),
             addSigner(keyLabel, certFile), rc(0)),
    tokenRow("Base64File",
             signerStored(certBase64Read,
                          {base64Decoded(),
                           {"ZAVKM_StoreCACert", fake::returns(ZAVKM_ERR_DATABASE_DUPLICATE_KEY)}}),
             addSigner(keyLabel, certFile, JNI_TRUE), rc(ZAVKM_ERR_DATABASE_DUPLICATE_KEY)),
    // The block read is given back even when the token does not open.
    tokenRow("TokenDoesNotOpen",
             signerStored(certFileRead, {}, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED),
             addSigner(keyLabel, certFile), rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)),
    {"CertFileMissing",
     {},
     addSigner(keyLabel, "missing.der"),
     {},
     concat({frameTrace(tokenPassword),
             {keyLabelTrace, "JNI_DEBUG......cCertFileName = missing.der"}}),
     rc(ZAVKM_ERR_FILE_OPEN_TO_READ)},
    refused("NullKeyLabel", addSigner(nullptr, certFile), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenAddSignerCertificateRows, addSignerRows);

std::function<Returned(Context&)> extract(const char* file, jboolean isBase64) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(ExtractCertificate)(c.env, newToken(), str(moduleName),
                                                         str(tokenLabel), str(tokenPassword),
                                                         str(keyLabel), str(file), isBase64));
    };
}

Row extracted(const char* name, jboolean isBase64, int code) {
    return tokenRow(name,
                    {.script = {{"ZAVKM_ExportCert", fake::returns(code)}},
                     .operation = {std::string(R"(ZAVKM_ExportCert(7, "key1", "out.arm", )") +
                                   std::to_string(isBase64) + ")"},
                     .trace = {keyLabelTrace, "JNI_DEBUG......cCertFileName = out.arm"},
                     .check = takes(frameTexts(tokenPassword, {keyLabel, "out.arm"}))},
                    extract("out.arm", isBase64), rc(code));
}

const std::vector<Row> extractRows = {
    extracted("Base64", JNI_TRUE, 0),
    extracted("BinaryLabelNotOnTheToken", JNI_FALSE, ZAVKM_ERR_KEY_GET_BY_LABEL),
    refused("NullCertFileName", extract(nullptr, JNI_TRUE), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenExtractCertificateRows, extractRows);

// ---- c_IsPersonalCertificateRenewal and c_RenewPersonalCertificate --------------------------

// "ABC": a certificate without a zero byte; its trace must stop at its end.
const std::vector<uint8_t> abc = {0x41, 0x42, 0x43};

std::function<Returned(Context&)> isRenewal(const char* password, jint length,
                                            std::vector<uint8_t> cert = abc) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(IsPersonalCertificateRenewal)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), length,
            byteArray(cert)));
    };
}

std::string renewalLine(const char* number, const std::string& text) {
    return std::string("JNI_CryptographicToken::IsPersonalCertificateRenewal ") + number + ", " +
           text;
}

// A renewal check: the numbered messages replace the frame's; 0060 only once the token is open.
Row checked(const char* name, const char* password, int openCode, std::vector<Scripted> script,
            std::vector<std::string> operation, std::vector<std::string> last, const char* shown,
            std::function<Returned(Context&)> call, Returned expected) {
    Row row = tokenRow(name,
                       {.password = password,
                        .openCode = openCode,
                        .script = std::move(script),
                        .operation = std::move(operation),
                        .check = takes(frameTexts(password, {}))},
                       std::move(call), expected);
    row.trace = {renewalLine("0010", std::string("cCryptographicModuleName = ") + moduleName),
                 renewalLine("0020", std::string("cCryptographicTokenLabel = ") + tokenLabel),
                 password != nullptr
                     ? renewalLine("0040", std::string("cCryptographicTokenPassword = ") + password)
                     : renewalLine("0030", "cCryptographicTokenPassword = NULL"),
                 bytesMatch,
                 renewalLine("0050", std::string("Check Duplicate CertData = ") + shown)};
    row.trace.insert(row.trace.end(), last.begin(), last.end());
    return row;
}

Scripted judged(int code, uint8_t isRenewalFlag) {
    return {"ZAVKM_CheckCertAsRenewal", fake::returns(code).out(3, isRenewalFlag)};
}
const char* const checkCall = "ZAVKM_CheckCertAsRenewal(7, [414243], 3, non-null)";

const std::vector<Row> isRenewalRows = {
    checked("Renewal", tokenPassword, 0, {judged(0, 1)}, {checkCall},
            {renewalLine("0060", "jrc = 0")}, "ABC", isRenewal(tokenPassword, 3), yes),
    checked("NoRenewalWithoutTokenPassword", nullptr, 0, {judged(0, 0)}, {checkCall},
            {renewalLine("0060", "jrc = 0")}, "ABC", isRenewal(nullptr, 3), no),
    // The check's failure reaches Java only through message 0060.
    checked("CheckFails", tokenPassword, 0, {judged(ZAVKM_ERR_ASN, 0)}, {checkCall},
            {renewalLine("0060", "jrc = 2")}, "ABC", isRenewal(tokenPassword, 3), no),
    checked("TokenDoesNotOpen", tokenPassword, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED, {},
            {}, {}, "ABC", isRenewal(tokenPassword, 3), no),
    // The trace shows the bytes up to the first zero byte.
    checked("CertificateWithZeroByte", tokenPassword, 0, {judged(0, 1)},
            {"ZAVKM_CheckCertAsRenewal(7, [410042], 3, non-null)"},
            {renewalLine("0060", "jrc = 0")}, "A", isRenewal(tokenPassword, 3, {0x41, 0x00, 0x42}),
            yes),
    refused("CertDataLenZero", isRenewal(tokenPassword, 0), no),
    refused("CertDataLenNegative", isRenewal(tokenPassword, -3), no),
};
CONFORMANCE_ROWS(TokenIsRenewalRows, isRenewalRows);

std::function<Returned(Context&)> renew(const char* password, jint length, bool withCert = true) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(RenewPersonalCertificate)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), length,
            withCert ? byteArray(abc) : nullptr));
    };
}

Row renewed(const char* name, const char* password, int code, jint length = 3) {
    const bool matches = length == 3;
    return tokenRow(
        name,
        {.password = password,
         .script = {{"ZAVKM_RenewCert", fake::returns(code)}},
         .operation = {matches ? "ZAVKM_RenewCert(7, [414243], 3)"
                               : "ZAVKM_RenewCert(7, null, " + std::to_string(length) + ")"},
         .trace = {matches ? bytesMatch : bytesDiffer,
                   std::string("JNI_DEBUG......Renew CertData = ") + (matches ? "ABC" : "null")},
         .check = takes(frameTexts(password, {}))},
        renew(password, length), rc(code));
}

const std::vector<Row> renewRows = {
    renewed("Renewed", tokenPassword, 0),
    renewed("RenewalRefusedWithoutTokenPassword", nullptr, ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL),
    // Longer than the array: the library gets no buffer and the given length, and answers.
    renewed("LengthLongerThanTheArray", tokenPassword, ZAVKM_ERR_NULL_PARAMETER, 5),
    tokenRow("TokenDoesNotOpen",
             {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED,
              .trace = {bytesMatch, "JNI_DEBUG......Renew CertData = ABC"}},
             renew(tokenPassword, 3), rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)),
    refused("CertDataLenNegative", renew(tokenPassword, -1), rc(ZAVKM_ERR_PARAMETER)),
    refused("NullCertData", renew(tokenPassword, 3, false), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenRenewRows, renewRows);

}  // namespace
