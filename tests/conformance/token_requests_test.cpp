// CryptographicToken: request keys and self-signed certificates made on a token, requests
// imported, written again and extracted.
#include "token_rows.h"

#define TOKEN_NATIVE(method) Java_com_norvex_zav_tolvik_basic_CryptographicToken_c_1##method

namespace {

using harness::byteArray;
using harness::rc;
using harness::returned;
using harness::Row;
using harness::str;
using namespace tokenrows;

const char* const keyLabel = "key1";
const std::string keyLabelTrace = std::string("JNI_DEBUG......cKeyLabel = ") + keyLabel;
const char* const requestFile = "req.arm";
const std::string requestFileTrace =
    std::string("JNI_DEBUG......cCertReqFileName = ") + requestFile;

// ---- c_ImportPersonalCertificateRequest ------------------------------------------------------

std::function<Returned(Context&)> importRequest(const char* password, jint requestLength,
                                                bool withRequest, jint keyLength) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(ImportPersonalCertificateRequest)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), str(keyLabel),
            requestLength, withRequest ? byteArray(certBytes) : nullptr, keyLength,
            byteArray({0x0a, 0x0b})));
    };
}

TokenCase requestImported(const char* password, int code, std::string call,
                          std::vector<std::string> conversions) {
    return {.password = password,
            .script = {{"ZAVKM_InsertReqKey", fake::returns(code)}},
            .operation = {std::move(call)},
            .trace = concat({{keyLabelTrace}, conversions}),
            .check = takes(frameTexts(password, {keyLabel}))};
}

const std::vector<Row> importRequestRows = {
    tokenRow("RequestAndKey",
             requestImported(tokenPassword, 0,
                             R"(ZAVKM_InsertReqKey(7, "key1", 3, [300102], 2, [0a0b]))",
                             {bytesMatch, bytesMatch}),
             importRequest(tokenPassword, 3, true, 2), rc(0)),
    // keyDataLen 0: no key copy, the library gets null and 0.
    tokenRow(
        "KeyDataLenZero",
        requestImported(nullptr, ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL,
                        R"(ZAVKM_InsertReqKey(7, "key1", 3, [300102], 0, null))", {bytesMatch}),
        importRequest(nullptr, 3, true, 0), rc(ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL)),
    tokenRow("TokenDoesNotOpen",
             {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED,
              .trace = {keyLabelTrace, bytesMatch, bytesMatch}},
             importRequest(tokenPassword, 3, true, 2),
             rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)),
    refused("CertReqDataLenZero", importRequest(tokenPassword, 0, true, 2),
            rc(ZAVKM_ERR_PARAMETER)),
    refused("NullCertReqData", importRequest(tokenPassword, 3, false, 2), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenImportRequestRows, importRequestRows);

// ---- c_RecreatePersonalCertificateRequest ----------------------------------------------------

std::function<Returned(Context&)> recreate(const char* password, jint signatureAlgorithm,
                                           const char* file = requestFile) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(RecreatePersonalCertificateRequest)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), str(keyLabel),
            signatureAlgorithm, str(file)));
    };
}

Row recreated(const char* name, const char* password, jint signatureAlgorithm, int code) {
    return tokenRow(
        name,
        {.password = password,
         .script = {{"ZAVKM_ReCreateCertReqSig", fake::returns(code)}},
         .operation = {R"(ZAVKM_ReCreateCertReqSig(7, "key1", )" +
                       std::to_string(signatureAlgorithm) + R"(, "req.arm", null, null))"},
         .trace = {keyLabelTrace, requestFileTrace},
         .check = takes(frameTexts(password, {keyLabel, requestFile}))},
        recreate(password, signatureAlgorithm), rc(code));
}

const std::vector<Row> recreateRows = {
    recreated("SignatureAlgorithmOne", tokenPassword, 1, 0),
    recreated("SignatureAlgorithmTwoWithoutTokenPassword", nullptr, 2, ZAVKM_ERR_REQKEYDB_NULL),
    tokenRow("TokenDoesNotOpen",
             {.openCode = ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST,
              .trace = {keyLabelTrace, requestFileTrace}},
             recreate(tokenPassword, 1), rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST)),
    refused("SignatureAlgorithmZero", recreate(tokenPassword, 0), rc(ZAVKM_ERR_PARAMETER)),
    refused("SignatureAlgorithmThree", recreate(tokenPassword, 3), rc(ZAVKM_ERR_PARAMETER)),
    refused("NullCertReqFileName", recreate(tokenPassword, 1, nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenRecreateRequestRows, recreateRows);

// ---- c_CreateSelfSignedCertificate and c_CreatePersonalCertificateRequest ---------------------

// Both convert the name before taking any string and release it after the token is closed.
TokenCase onConvertedName(const char* password, int openCode, std::vector<Scripted> script,
                          std::string call, std::vector<std::string> more) {
    std::vector<std::string> texts = {"Alice", "US"};
    for (const std::string& text : frameTexts(password, more)) texts.push_back(text);
    std::vector<std::string> trace = {keyLabelTrace};
    if (more.size() > 1) trace.push_back(requestFileTrace);
    return {.password = password,
            .openCode = openCode,
            .script = std::move(script),
            .before = dnConverted,
            .operation = {std::move(call)},
            .after = {dnFreed},
            .conversion = dnTrace,
            .trace = trace,
            .check = takes(texts)};
}

// A name that does not convert: 116, nothing taken, nothing opened.
Row nameNotConverted(std::function<Returned(Context&)> call) {
    return {"DNItemDoesNotConvert",
            {dnNotConverted()},
            std::move(call),
            {"ZAVKM_InitDNItem(non-null)"},
            {},
            rc(ZAVKM_ERR_INVALID_DN_INPUT),
            takes({})};
}

std::function<Returned(Context&)> selfSigned(const char* password, jint signatureAlgorithm,
                                             bool withName = true) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(CreateSelfSignedCertificate)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), 3, str(keyLabel),
            2048, withName ? newDnItem() : nullptr, 365, signatureAlgorithm));
    };
}

std::string selfSignedCall(jint signatureAlgorithm) {
    return std::string(R"(ZAVKM_CreateSelfSignedCertSigExt(7, "key1", 0, 3, 2048, )") + dnShown +
           ", 365, " + std::to_string(signatureAlgorithm) + ", null, 0, null, 0)";
}

const std::vector<Row> selfSignedRows = {
    tokenRow(
        "Created",
        onConvertedName(tokenPassword, 0, {{"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(0)}},
                        selfSignedCall(1), {keyLabel}),
        selfSigned(tokenPassword, 1), rc(0)),
    tokenRow("SignatureAlgorithmTwoWithoutTokenPassword",
             onConvertedName(
                 nullptr, 0,
                 {{"ZAVKM_CreateSelfSignedCertSigExt", fake::returns(ZAVKM_ERR_CRYPTO_SIGN)}},
                 selfSignedCall(2), {keyLabel}),
             selfSigned(nullptr, 2), rc(ZAVKM_ERR_CRYPTO_SIGN)),
    // A wrong token password: the open's code, and the name is still released.
    tokenRow(
        "WrongTokenPassword",
        onConvertedName(tokenPassword, ZAVKM_ERR_DATABASE_INVALID_PASSWORD, {}, "", {keyLabel}),
        selfSigned(tokenPassword, 1), rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    nameNotConverted(selfSigned(tokenPassword, 1)),
    refused("SignatureAlgorithmZero", selfSigned(tokenPassword, 0), rc(ZAVKM_ERR_PARAMETER)),
    refused("SignatureAlgorithmThree", selfSigned(tokenPassword, 3), rc(ZAVKM_ERR_PARAMETER)),
    refused("NullDNItem", selfSigned(tokenPassword, 1, false), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenSelfSignedRows, selfSignedRows);

std::function<Returned(Context&)> newRequest(const char* password, jint signatureAlgorithm,
                                             const char* file = requestFile) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(CreatePersonalCertificateRequest)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), str(keyLabel), 2048,
            newDnItem(), signatureAlgorithm, str(file)));
    };
}

const std::string newRequestCall =
    std::string(R"(ZAVKM_CreateNewCertReqSigExt(7, "key1", 2048, )") + dnShown +
    R"(, 2, null, 0, "req.arm", null, null))";

const std::vector<Row> newRequestRows = {
    tokenRow("Created",
             onConvertedName(tokenPassword, 0, {{"ZAVKM_CreateNewCertReqSigExt", fake::returns(0)}},
                             newRequestCall, {keyLabel, requestFile}),
             newRequest(tokenPassword, 2), rc(0)),
    tokenRow("TokenDoesNotOpen",
             onConvertedName(nullptr, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED, {}, "",
                             {keyLabel, requestFile}),
             newRequest(nullptr, 2), rc(ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED)),
    nameNotConverted(newRequest(tokenPassword, 2)),
    refused("SignatureAlgorithmZero", newRequest(tokenPassword, 0), rc(ZAVKM_ERR_PARAMETER)),
    refused("SignatureAlgorithmThree", newRequest(tokenPassword, 3), rc(ZAVKM_ERR_PARAMETER)),
    refused("NullCertReqFileName", newRequest(tokenPassword, 2, nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenCreateRequestRows, newRequestRows);

// ---- c_ExtractPersonalCertificateRequest -----------------------------------------------------

std::function<Returned(Context&)> extractRequest(const char* password,
                                                 const char* label = keyLabel) {
    return [=](Context& c) {
        return returned(TOKEN_NATIVE(ExtractPersonalCertificateRequest)(
            c.env, newToken(), str(moduleName), str(tokenLabel), str(password), str(label),
            str(requestFile)));
    };
}

Row extracted(const char* name, const char* password, int code) {
    return tokenRow(name,
                    {.password = password,
                     .script = {{"ZAVKM_ReCreateCertReq", fake::returns(code)}},
                     .operation = {R"(ZAVKM_ReCreateCertReq(7, "key1", "req.arm", null, null))"},
                     .trace = {keyLabelTrace, requestFileTrace},
                     .check = takes(frameTexts(password, {keyLabel, requestFile}))},
                    extractRequest(password), rc(code));
}

const std::vector<Row> extractRequestRows = {
    extracted("Extracted", tokenPassword, 0),
    extracted("NoRequestKeyUnderTheLabel", nullptr, ZAVKM_ERR_KEY_GET_BY_LABEL),
    refused("NullKeyLabel", extractRequest(tokenPassword, nullptr), rc(ZAVKM_ERR_PARAMETER)),
};
CONFORMANCE_ROWS(TokenExtractRequestRows, extractRequestRows);

}  // namespace
