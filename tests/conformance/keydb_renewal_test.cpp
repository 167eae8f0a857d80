// CMSKeyDatabase, a DER certificate judged against a key database: is it a renewal, store it
// as one, does its chain validate. The certificate bytes are traced as text up to their first
// zero byte and never past their end (they carry no terminator).
#include <gmock/gmock.h>

#include <optional>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::no;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::Scripted;
using harness::yes;
using keydb::bytesDiffer;
using keydb::bytesFit;
using keydb::newDb;
using keydb::str;

// The certificate a row hands over: its bytes (nullopt: a null array) and the length given.
struct Cert {
    std::optional<std::vector<uint8_t>> bytes;
    jint length;
};
const Cert abc = {std::vector<uint8_t>{'A', 'B', 'C'}, 3};        // no zero byte at all
const Cert zeroInside = {std::vector<uint8_t>{'A', 0, 'B'}, 3};   // text ends at the zero
const Cert oneLonger = {std::vector<uint8_t>{'A', 'B', 'C'}, 4};  // length not the array's
const Cert noArray = {std::nullopt, 3};

jbyteArray arrayOf(const Cert& cert) {
    return cert.bytes ? harness::byteArray(*cert.bytes) : nullptr;
}

// How the library sees the certificate in the journal.
std::string shown(const Cert& cert) {
    bool converted = cert.bytes && static_cast<jint>(cert.bytes->size()) == cert.length;
    return (converted ? "[" + fake::hex(cert.bytes->data(), cert.bytes->size()) + "]" : "null") +
           ", " + std::to_string(cert.length);
}

// The bytes as the trace shows them, and the conversion's own line when there was an array.
std::string asText(const Cert& cert) {
    bool converted = cert.bytes && static_cast<jint>(cert.bytes->size()) == cert.length;
    if (!converted) return "null";
    std::string text(cert.bytes->begin(), cert.bytes->end());
    return text.substr(0, text.find('\0'));
}
std::vector<std::string> conversionLine(const Cert& cert) {
    if (!cert.bytes) return {};
    return {static_cast<jint>(cert.bytes->size()) == cert.length ? bytesFit : bytesDiffer};
}

// The judgement the library writes through argument 3, and its code.
fake::Step judged(int64_t code, std::optional<uint8_t> judgement) {
    fake::Step step = fake::returns(code);
    if (judgement) step.out(3, *judgement);
    return step;
}

// ---- c_CheckCertAsRenewal -------------------------------------------------------------------

const char* const renewal0010 = "CMSKeyDatabase::c_CheckCertAsRenewal 0010, cKeyDbFileName = k.kdb";
const char* const renewal0020 = "CMSKeyDatabase::c_CheckCertAsRenewal 0020, cKeyDbPwd = pw";

std::string renewal0030(const Cert& cert) {
    return "CMSKeyDatabase::c_CheckCertAsRenewal 0030, Check Duplicate CertData = " + asText(cert);
}
std::string renewal0100(int64_t code) {
    return "CMSKeyDatabase::c_CheckCertAsRenewal 0100, after calling ZAVKM_CheckCertAsRenewal, "
           "jrc=" +
           std::to_string(code);
}

// c_CheckCertAsRenewal of `cert`; opened: the key database opens and the library answers
// `code` and `judgement`.
Row isRenewal(const char* name, const Cert& cert, bool opened, int64_t code,
              std::optional<uint8_t> judgement, Returned expected) {
    std::vector<Scripted> script = {keydb::opened()};
    std::vector<std::string> journal = {keydb::openCall};
    std::vector<std::string> trace =
        keydb::join({{renewal0010, renewal0020}, conversionLine(cert), {renewal0030(cert)}});
    if (opened) {
        script.push_back({"ZAVKM_CheckCertAsRenewal", judged(code, judgement)});
        journal = keydb::whileOpen({"ZAVKM_CheckCertAsRenewal(7, " + shown(cert) + ", non-null)"});
        trace.push_back(renewal0100(code));
    } else {
        script = {keydb::openFails(code)};
    }
    Row row = {
        name,
        std::move(script),
        [cert](Context& c) {
            return returned(KEYDB_NATIVE(CheckCertAsRenewal)(
                c.env, newDb(), str("k.kdb"), str("pw"), cert.length, arrayOf(cert)));
        },
        std::move(journal),
        std::move(trace),
        expected};
    // This native does not ask for the class of `this`.
    row.check = [](Context& c, const Returned&) {
        EXPECT_EQ(c.ledger.count("GetObjectClass"), 0u);
    };
    return row;
}

// ---- c_RenewCert -----------------------------------------------------------------------------

Row renew(const char* name, const Cert& cert, std::vector<Scripted> script,
          std::vector<std::string> journal, Returned expected) {
    Row row = {name,
               std::move(script),
               [cert](Context& c) {
                   return returned(KEYDB_NATIVE(RenewCert)(
                       c.env, newDb(), str("k.kdb"), str("pw"), cert.length, arrayOf(cert)));
               },
               std::move(journal),
               keydb::join({{keydb::fileLine, keydb::pwdLine},
                            conversionLine(cert),
                            {"JNI_DEBUG......Renew CertData = " + asText(cert)}}),
               expected};
    row.check = [](Context& c, const Returned&) {
        EXPECT_EQ(c.ledger.count("GetObjectClass"), 0u);
    };
    return row;
}

std::string renewCall(const Cert& cert) { return "ZAVKM_RenewCert(7, " + shown(cert) + ")"; }

// ---- c_ValidateCertificateChain --------------------------------------------------------------

const char* const validateEntered = "JNI_DEBUG......c_ValidateCertificateChain......";

std::string validated(int64_t code) {
    return "JNI_DEBUG......c_ValidateCertificateChain() = " + std::to_string(code);
}

Row validate(const char* name, const Cert& cert, std::vector<Scripted> script,
             std::vector<std::string> journal, std::vector<std::string> traceAfter,
             Returned expected) {
    return {
        name,
        std::move(script),
        [cert](Context& c) {
            return returned(
                KEYDB_NATIVE(ValidateCertificateChain)(
                    c.env, newDb(), str("k.kdb"), str("pw"), arrayOf(cert), cert.length));
        },
        std::move(journal),
        keydb::join(
            {{validateEntered, keydb::fileLine, keydb::pwdLine}, conversionLine(cert), traceAfter}),
        expected};
}

// The chain judged `judgement` with code `code` on the open key database.
Row chain(const char* name, int64_t code, std::optional<uint8_t> judgement, Returned expected) {
    return validate(name, abc,
                    {keydb::opened(), {"ZAVKM_ValidateCertChain", judged(code, judgement)}},
                    keydb::whileOpen({"ZAVKM_ValidateCertChain(7, [414243], 3, non-null)"}),
                    {validated(code)}, expected);
}

const std::vector<Row> renewalRows = {
    isRenewal("IsRenewalYes", abc, true, 0, 1, yes),
    isRenewal("IsRenewalNo", abc, true, 0, 0, no),
    // Any non-zero judgement is a renewal.
    isRenewal("IsRenewalJudgementTwo", abc, true, 0, 2, yes),
    // The library's code reaches Java only through the trace.
    isRenewal("IsRenewalLibraryFails", abc, true, ZAVKM_ERR_ASN, std::nullopt, no),
    isRenewal("IsRenewalTracesBytesUpToTheirZero", zeroInside, true, 0, 1, yes),
    // The open still happens without usable bytes; the library answers for a missing buffer.
    isRenewal("IsRenewalLengthOneTooLong", oneLonger, true, ZAVKM_ERR_NULL_PARAMETER, std::nullopt,
              no),
    // A wrong password: false, and no 0100 line.
    isRenewal("IsRenewalWrongPassword", abc, false, ZAVKM_ERR_DATABASE_INVALID_PASSWORD,
              std::nullopt, no),
    keydb::nullThis("IsRenewalWithoutThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(CheckCertAsRenewal)(env, self, str("k.kdb"), str("pw"), 3,
            arrayOf(abc)));
    }, no),
    renew("RenewMain", abc, {keydb::opened()}, keydb::whileOpen({renewCall(abc)}), rc(0)),
    renew("RenewRejectedStillCloses", abc,
          {keydb::opened(), {"ZAVKM_RenewCert", fake::returns(ZAVKM_ERR_VALIDATION_KEY_PAIR)}},
          keydb::whileOpen({renewCall(abc)}), rc(ZAVKM_ERR_VALIDATION_KEY_PAIR)),
    // No array: the key database is still opened and the library's code for it returned.
    renew("RenewNullCertData", noArray,
          {keydb::opened(), {"ZAVKM_RenewCert", fake::returns(ZAVKM_ERR_NULL_PARAMETER)}},
          keydb::whileOpen({renewCall(noArray)}), rc(ZAVKM_ERR_NULL_PARAMETER)),
    renew("RenewLengthOneTooLong", oneLonger,
          {keydb::opened(), {"ZAVKM_RenewCert", fake::returns(ZAVKM_ERR_NULL_PARAMETER)}},
          keydb::whileOpen({renewCall(oneLonger)}), rc(ZAVKM_ERR_NULL_PARAMETER)),
    renew("RenewOpenFails", abc, {keydb::openFails(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)},
          {keydb::openCall}, rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    keydb::nullEnv("RenewWithoutEnv", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(RenewCert)(env, self, str("k.kdb"), str("pw"), 3,
            arrayOf(abc)));
    }, rc(ZAVKM_ERR_PARAMETER)),
    chain("ValidateValid", 0, 1, yes),
    chain("ValidateJudgementTwoIsNotValid", 0, 2, no),
    chain("ValidateInvalid", ZAVKM_ERR_INVALID_CERT_CHAIN, 0, no),
    chain("ValidateLibraryFailsWithoutJudgement", ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED, std::nullopt,
          no),
    // Unusable bytes: false before the key database is opened.
    validate("ValidateLengthOneTooLong", oneLonger, {}, {}, {}, no),
    validate("ValidateNullCertData", noArray, {}, {}, {}, no),
    validate("ValidateOpenFails", abc, {keydb::openFails(ZAVKM_ERR_DATABASE_OPEN)},
             {keydb::openCall}, {}, no),
    // The entry line comes before any check.
    keydb::nullThis("ValidateWithoutThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(ValidateCertificateChain)(env, self, str("k.kdb"), str("pw"),
            arrayOf(abc), 3));
    }, no, {validateEntered}),
};

CONFORMANCE_ROWS(KeyDbRenewalRows, renewalRows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_CheckCertAsRenewal", "(SSI[B)Z",
     [] { return std::vector{s("k.kdb"), s("pw"), i(2), bytes({0x30, 0x03})}; },
     {{"ZAVKM_CheckCertAsRenewal", judged(0, 1)}}, JNI_TRUE,
     {"ZAVKM_OpenKeyDb", "ZAVKM_CheckCertAsRenewal"}},
    {"c_RenewCert", "(SSI[B)I", [] { return std::vector{s("k.kdb"), s("pw"), i(2), bytes({0x30,
        0x03})}; },
     {{"ZAVKM_RenewCert", fake::returns(ZAVKM_ERR_VALIDATION_KEY_PAIR)}},
     ZAVKM_ERR_VALIDATION_KEY_PAIR, {"ZAVKM_OpenKeyDb", "ZAVKM_RenewCert"}},
    {"c_ValidateCertificateChain", "(SS[BI)Z",
     [] { return std::vector{s("k.kdb"), s("pw"), bytes({0x30, 0x03}), i(2)}; },
     {{"ZAVKM_ValidateCertChain", judged(0, 1)}}, JNI_TRUE,
     {"ZAVKM_OpenKeyDb", "ZAVKM_ValidateCertChain"}},
};
JAVA_CALLS(KeyDbRenewalJava, keydb::dbClass, javaCalls);

}  // namespace
