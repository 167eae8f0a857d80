// CMSKeyDatabase, making certificates: self-signed certificates and requests with a subject
// converted from Java (116 when it does not convert), the selector and extension bytes of the
// Sig forms, and certificates issued from a request file read before the file is opened.
#include <gmock/gmock.h>

#include <optional>

#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::Scripted;
using keydb::aliceCalls;
using keydb::aliceRecord;
using keydb::aliceTrace;
using keydb::closeCall;
using keydb::fileLine;
using keydb::join;
using keydb::labelLine;
using keydb::newDb;
using keydb::openCall;
using keydb::pwdLine;
using keydb::str;
using Lines = std::vector<std::string>;

const char* const freeDN = "ZAVKM_FreeDNItem(non-null)";
const std::vector<uint8_t> extensions = {0x30, 0x00};

// The arguments of a creating call that vary from row to row.
struct Args {
    bool subject = true;            // dnItem("Alice", "NO"), or null
    const char* outFile = nullptr;  // certificate or request file name
    jint signatureAlgorithm = 2;
    jint extensionsDataLen = 2;     // with the array {30 00}
    jboolean isNew = JNI_TRUE;      // the requests' isNewCertReq
};

jobject subjectOf(const Args& args) { return args.subject ? keydb::dnItem("Alice", "NO") : nullptr; }

// withSubjectGivenBack: a row whose subject converts gives back the subject's texts at once,
// while its own are held; its own then go back in the order taken.
Row withSubjectGivenBack(Row row, bool converts, Lines own) {
    if (converts) row.givenBack = join({{"Alice", "NO"}, own});
    return row;
}
Lines ownTexts(const char* last) {
    Lines texts = {"k.kdb", "pw", "lbl"};
    if (last != nullptr) texts.push_back(last);
    return texts;
}

// The journal of a creating call that converted the subject: the record made, the call on the
// open file (or only the open, when it fails), the record freed.
Lines withSubject(const std::string& call) {
    return join({aliceCalls, call.empty() ? Lines{openCall} : Lines{openCall, call, closeCall},
                 {freeDN}});
}

// ---- self-signed certificates ----------------------------------------------------------------

// The trace lines after the file name of a self-signed creation; `call` names the library
// call as the lines do, `exit` the native.
Lines selfSignedTail(bool converts, const std::string& call, const std::string& exit) {
    Lines tail = {"JNI_DEBUG......to call JavaDNItem2CDN()"};
    if (converts) {
        tail = join({tail, aliceTrace,
                     {"JNI_DEBUG......to call " + call + "()", "JNI_DEBUG......after call " + call + "()",
                      "JNI_DEBUG......after call ZAVKM_FreeDNItem()"}});
    }
    tail.push_back("JNI_DEBUG......to exit CMSKeyDatabase_c_1" + exit + "()");
    return tail;
}

Lines selfSignedHead(const char* certFile) {
    return {fileLine, pwdLine, labelLine,
            std::string("JNI_DEBUG......cCertFileName = ") + (certFile ? certFile : "null")};
}

// c_CreateNewSelfSignedCertificate("k.kdb", "pw", version 3, "lbl", makeDefault, keySize 2048,
// subject, validity 365, certFile, isBase64 true).
Row selfSigned(const char* name, Args args, std::vector<Scripted> script, Lines journal,
               Returned expected) {
    return withSubjectGivenBack({name,
            script,
            [args](Context& c) {
                return returned(
                    KEYDB_NATIVE(CreateNewSelfSignedCertificate)(
                        c.env, newDb(), str("k.kdb"), str("pw"), 3, str("lbl"), JNI_TRUE, 2048,
                        subjectOf(args), 365, str(args.outFile), JNI_TRUE));
            },
            journal,
            join({selfSignedHead(args.outFile),
                  selfSignedTail(args.subject, "ZAVKM_CreateSelfSignedCert",
                                 "CreateNewSelfSignedCertificate")}),
            expected},
        args.subject, ownTexts(args.outFile));
}
std::string selfSignedCall(const char* certFile) {
    return R"(ZAVKM_CreateSelfSignedCert(7, "lbl", 1, 3, 2048, )" + aliceRecord + ", 365, " +
           (certFile ? "\"" + std::string(certFile) + "\"" : "null") + ", 1)";
}

// The SigExt form, with isBase64 false; `bytesLine` is the conversion's line, if any.
Row selfSignedSigExt(const char* name, Args args, std::vector<Scripted> script, Lines journal,
                     Lines bytesLine, Returned expected) {
    const bool refused = args.signatureAlgorithm != 1 && args.signatureAlgorithm != 2;
    return withSubjectGivenBack({name,
            script,
            [args](Context& c) {
                return returned(
                    KEYDB_NATIVE(CreateNewSelfSignedCertificateSigExt)(
                        c.env, newDb(), str("k.kdb"), str("pw"), 3, str("lbl"), JNI_TRUE, 2048,
                        subjectOf(args), 365, args.signatureAlgorithm, args.extensionsDataLen,
                        harness::byteArray(extensions), str(args.outFile), JNI_FALSE));
            },
            journal,
            refused ? Lines{}
                    : join({selfSignedHead(args.outFile), bytesLine,
                            selfSignedTail(args.subject, "ZAVKM_CreateSelfSignedCertSig",
                                           "CreateNewSelfSignedCertificateSig")}),
            expected},
        args.subject && !refused, ownTexts(args.outFile));
}
std::string sigExtCall(const char* extensionsShown, const char* length) {
    return R"(ZAVKM_CreateSelfSignedCertSigExt(7, "lbl", 1, 3, 2048, )" + aliceRecord + ", 365, 2, " +
           extensionsShown + ", " + length + R"(, "c.arm", 0))";
}

const Args certFile = {.outFile = "c.arm"};
const Args noSubject = {.subject = false, .outFile = "c.arm"};

const std::vector<Row> selfSignedRows = {
    selfSigned("SelfSignedCreates", certFile, {keydb::opened()},
               withSubject(selfSignedCall("c.arm")), rc(0)),
    selfSigned("SelfSignedFails", certFile,
               {keydb::opened(), {"ZAVKM_CreateSelfSignedCert", fake::returns(23)}},
               withSubject(selfSignedCall("c.arm")), rc(23)),
    selfSigned("SelfSignedWithoutCertFile", {}, {keydb::opened()},
               withSubject(selfSignedCall(nullptr)), rc(0)),
    selfSigned("SelfSignedWrongPassword", certFile, {keydb::openFails(13)}, withSubject(""),
               rc(13)),
    selfSigned("SelfSignedSubjectDoesNotConvert", noSubject, {}, {}, rc(116)),
    keydb::nullThis("SelfSignedNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(CreateNewSelfSignedCertificate)(env, self, str("k.kdb"),
            str("pw"), 3, str("lbl"), JNI_TRUE, 2048, keydb::dnItem("Alice", "NO"), 365,
            str("c.arm"), JNI_TRUE));
    }, rc(65)),

    selfSignedSigExt("SigExtCreates", certFile, {keydb::opened()},
                     withSubject(sigExtCall("[3000]", "2")), {keydb::bytesFit}, rc(0)),
    selfSignedSigExt("SigExtWithoutExtensions", {.outFile = "c.arm", .extensionsDataLen = 0},
                     {keydb::opened()}, withSubject(sigExtCall("null", "0")), {}, rc(0)),
    selfSignedSigExt("SigExtExtensionsLengthDiffers", {.outFile = "c.arm", .extensionsDataLen = 3},
                     {keydb::opened()}, withSubject(sigExtCall("null", "3")), {keydb::bytesDiffer},
                     rc(0)),
    selfSignedSigExt("SigExtAlgorithm0", {.outFile = "c.arm", .signatureAlgorithm = 0}, {}, {}, {},
                     rc(65)),
    selfSignedSigExt("SigExtAlgorithm3", {.outFile = "c.arm", .signatureAlgorithm = 3}, {}, {}, {},
                     rc(65)),
    selfSignedSigExt("SigExtSubjectDoesNotConvert", noSubject, {}, {}, {keydb::bytesFit}, rc(116)),
};

CONFORMANCE_ROWS(KeyDbSelfSignedRows, selfSignedRows);

// ---- certificate requests --------------------------------------------------------------------

// c_CreateNewCertRequest("k.kdb", "pw", "lbl", keySize 2048, subject, "r.csr", isNew).
Row request(const char* name, Args args, std::vector<Scripted> script, Lines journal,
            Returned expected) {
    return withSubjectGivenBack({name,
            script,
            [args](Context& c) {
                return returned(KEYDB_NATIVE(CreateNewCertRequest)(
                    c.env, newDb(), str("k.kdb"), str("pw"), str("lbl"), 2048, subjectOf(args),
                    str("r.csr"), args.isNew));
            },
            journal,
            join({{fileLine, pwdLine, labelLine, "JNI_DEBUG......cCertReqFileName = r.csr"},
                  args.isNew && args.subject ? aliceTrace : Lines{}}),
            expected,
            [args](Context& c, const Returned&) {
                if (!args.isNew) {
                    EXPECT_EQ(c.ledger.count("GetFieldID"), 0u) << "subject read";
                }
            }},
        args.isNew && args.subject, ownTexts("r.csr"));
}

// The SigExt form; the request file name is neither required nor traced.
Row requestSigExt(const char* name, Args args, std::vector<Scripted> script, Lines journal,
                  Lines bytesLine, Returned expected) {
    const bool refused = args.signatureAlgorithm != 1 && args.signatureAlgorithm != 2;
    return withSubjectGivenBack({name,
            script,
            [args](Context& c) {
                return returned(
                    KEYDB_NATIVE(CreateNewCertRequestSigExt)(
                        c.env, newDb(), str("k.kdb"), str("pw"), str("lbl"), 2048,
                        subjectOf(args), args.signatureAlgorithm, args.extensionsDataLen,
                        harness::byteArray(extensions), str(args.outFile), args.isNew));
            },
            journal,
            refused ? Lines{}
                    : join({{fileLine, pwdLine, labelLine}, bytesLine,
                            args.isNew && args.subject ? aliceTrace : Lines{}}),
            expected},
        args.isNew && args.subject && !refused, ownTexts(args.outFile));
}

const std::string newRequestCall =
    R"(ZAVKM_CreateNewCertReq(7, "lbl", 2048, )" + aliceRecord + R"(, "r.csr", null, null))";
const Args again = {.isNew = JNI_FALSE};
const Args requestFile = {.outFile = "r.csr", .signatureAlgorithm = 1};

const std::vector<Row> requestRows = {
    request("RequestNew", {}, {keydb::opened()}, withSubject(newRequestCall), rc(0)),
    request("RequestNewFails", {},
            {keydb::opened(), {"ZAVKM_CreateNewCertReq", fake::returns(31)}},
            withSubject(newRequestCall), rc(31)),
    // The same request made again needs neither the subject nor the key size.
    request("RequestAgainIgnoresTheSubject", again, {keydb::opened()},
            {openCall, R"(ZAVKM_ReCreateCertReq(7, "lbl", "r.csr", null, null))", closeCall}, rc(0)),
    request("RequestWrongPassword", {}, {keydb::openFails(13)}, withSubject(""), rc(13)),
    request("RequestSubjectDoesNotConvert", {.subject = false}, {}, {}, rc(116)),
    keydb::nullThis("RequestNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(CreateNewCertRequest)(env, self, str("k.kdb"), str("pw"),
            str("lbl"), 2048, keydb::dnItem("Alice", "NO"), str("r.csr"), JNI_TRUE));
    }, rc(65)),

    requestSigExt("RequestSigExtNew", requestFile, {keydb::opened()},
                  withSubject(R"(ZAVKM_CreateNewCertReqSigExt(7, "lbl", 2048, )" + aliceRecord +
                              R"(, 1, [3000], 2, "r.csr", null, null))"),
                  {keydb::bytesFit}, rc(0)),
    requestSigExt("RequestSigExtWithoutExtensions",
                  {.outFile = "r.csr", .signatureAlgorithm = 1, .extensionsDataLen = 0},
                  {keydb::opened()},
                  withSubject(R"(ZAVKM_CreateNewCertReqSigExt(7, "lbl", 2048, )" + aliceRecord +
                              R"(, 1, null, 0, "r.csr", null, null))"),
                  {}, rc(0)),
    requestSigExt("RequestSigExtAgainWithoutFileName",
                  {.signatureAlgorithm = 2, .extensionsDataLen = 0, .isNew = JNI_FALSE},
                  {keydb::opened()},
                  {openCall, R"(ZAVKM_ReCreateCertReqSig(7, "lbl", 2, null, null, null))", closeCall},
                  {}, rc(0)),
    requestSigExt("RequestSigExtAlgorithm3", {.outFile = "r.csr", .signatureAlgorithm = 3}, {}, {},
                  {}, rc(65)),
    requestSigExt("RequestSigExtSubjectDoesNotConvert",
                  {.subject = false, .outFile = "r.csr", .signatureAlgorithm = 1}, {}, {},
                  {keydb::bytesFit}, rc(116)),
};

CONFORMANCE_ROWS(KeyDbRequestRows, requestRows);

// ---- issuing ---------------------------------------------------------------------------------

// The file names go back request first.
const Lines issueGivenBack = {"k.kdb", "pw", "ca", "0A1B", "r.csr", "c.arm"};
const Lines issueTrace = {fileLine,
                          pwdLine,
                          "JNI_DEBUG......cIssuerKeyLabel = ca",
                          "JNI_DEBUG......cSerialNumber = 0A1B",
                          "JNI_DEBUG......cCertFileName = c.arm",
                          "JNI_DEBUG......cCertReqFileName = r.csr"};
const char* const decodeCall = R"(ZAVKM_Base64DecodeFileToBuf("r.csr", non-null, non-null))";
const char* const freeRequest = "ZAVKM_Free(block(2))";

Scripted requestRead() {
    return {"ZAVKM_Base64DecodeFileToBuf",
            fake::returns(0).out(1, [] { return fake::bytes({0x30, 0x82}); }).out(2, uint32_t{2})};
}

// c_IssueCertificate("k.kdb", "pw", "ca", version 3, serial, validity 365, "r.csr", "c.arm",
// isBase64), or c_IssueCertificateSig when a signatureAlgorithm is given.
Row issue(const char* name, std::optional<jint> signatureAlgorithm, jboolean isBase64,
          const char* serial, std::vector<Scripted> script, Lines journal, Returned expected) {
    const bool refused = serial == nullptr || (signatureAlgorithm && *signatureAlgorithm != 1 &&
                                               *signatureAlgorithm != 2);
    Row row = {name,
               script,
               [=](Context& c) {
                   return returned(
                       !signatureAlgorithm
                           ? KEYDB_NATIVE(IssueCertificate)(
                                 c.env, newDb(), str("k.kdb"), str("pw"), str("ca"), 3, str(serial),
                                 365, str("r.csr"), str("c.arm"), isBase64)
                           : KEYDB_NATIVE(IssueCertificateSig)(
                                 c.env, newDb(), str("k.kdb"), str("pw"), str("ca"), 3, str(serial),
                                 365, *signatureAlgorithm, str("r.csr"), str("c.arm"), isBase64));
               },
               journal,
               refused ? Lines{} : issueTrace,
               expected,
               [](Context&, const Returned&) { keydb::expectReleasedBy("ZAVKM_Free"); }};
    if (!refused) row.givenBack = issueGivenBack;
    return row;
}

const std::string issueCall = R"(ZAVKM_IssueCert(7, [3082], 2, "ca", 3, "0A1B", 365, "c.arm", )";

const std::vector<Row> issueRows = {
    issue("IssueIssues", std::nullopt, JNI_TRUE, "0A1B", {requestRead(), keydb::opened()},
          {decodeCall, openCall, issueCall + "1, null, null)", closeCall, freeRequest}, rc(0)),
    // Only the value 1 asks for base64.
    issue("IssueFailsBase64TwoIsNot", std::nullopt, 2, "0A1B",
          {requestRead(), keydb::opened(), {"ZAVKM_IssueCert", fake::returns(24)}},
          {decodeCall, openCall, issueCall + "0, null, null)", closeCall, freeRequest}, rc(24)),
    // An empty request is still a block of the library's, given back like any other.
    issue("IssueEmptyRequestStillFreed", std::nullopt, JNI_TRUE, "0A1B",
          {{"ZAVKM_Base64DecodeFileToBuf",
            fake::returns(0).out(1, [] { return fake::bytes({}); }).out(2, uint32_t{0})},
           keydb::opened()},
          {decodeCall, openCall,
           R"(ZAVKM_IssueCert(7, [], 0, "ca", 3, "0A1B", 365, "c.arm", 1, null, null))", closeCall,
           "ZAVKM_Free(block(0))"},
          rc(0)),
    issue("IssueRequestUnreadable", std::nullopt, JNI_TRUE, "0A1B",
          {{"ZAVKM_Base64DecodeFileToBuf", fake::returns(40)}}, {decodeCall}, rc(40)),
    issue("IssueWrongPasswordFreesTheRequest", std::nullopt, JNI_TRUE, "0A1B",
          {requestRead(), keydb::openFails(13)}, {decodeCall, openCall, freeRequest}, rc(13)),
    issue("IssueNullSerialNumber", std::nullopt, JNI_TRUE, nullptr, {}, {}, rc(65)),
    keydb::nullThis("IssueNullThis", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(IssueCertificate)(env, self, str("k.kdb"), str("pw"),
            str("ca"), 3, str("0A1B"), 365, str("r.csr"), str("c.arm"), JNI_TRUE));
    }, rc(65)),
    issue("IssueSigIssues", 2, JNI_TRUE, "0A1B", {requestRead(), keydb::opened()},
          {decodeCall, openCall,
           R"(ZAVKM_IssueCertSig(7, [3082], 2, "ca", 3, "0A1B", 365, 2, "c.arm", 1, null, null))",
           closeCall, freeRequest},
          rc(0)),
    issue("IssueSigAlgorithm0", 0, JNI_TRUE, "0A1B", {}, {}, rc(65)),
    issue("IssueSigAlgorithm3", 3, JNI_TRUE, "0A1B", {}, {}, rc(65)),
};

CONFORMANCE_ROWS(KeyDbIssueRows, issueRows);

using namespace javacalls;

#define DN "Lcom/norvex/zav/tolvik/basic/DNItem;"
const std::vector<JavaCall> javaCalls = {
    {"c_CreateNewSelfSignedCertificate", "(SSISZI" DN "ISZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), i(3), s("lbl"), z(true), i(2048),
                            o(keydb::dnItem("Alice", "NO")), i(365), s("c.arm"), z(true)};
     },
     {}, 0,
     {"ZAVKM_InitDNItem", "ZAVKM_Strdup", "ZAVKM_Strdup", "ZAVKM_OpenKeyDb",
      "ZAVKM_CreateSelfSignedCert", "ZAVKM_FreeDNItem"}},
    {"c_CreateNewSelfSignedCertificateSigExt", "(SSISZI" DN "III[BSZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), i(3), s("lbl"), z(true), i(2048),
                            o(keydb::dnItem("Alice", "NO")), i(365), i(3), i(2), bytes(extensions),
                            s("c.arm"), z(true)};
     },
     {}, 65, {}},
    {"c_CreateNewCertRequest", "(SSSI" DN "SZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), s("lbl"), i(2048), o(keydb::dnItem("Alice", "NO")),
                            s("r.csr"), z(false)};
     },
     {}, 0, {"ZAVKM_OpenKeyDb", "ZAVKM_ReCreateCertReq"}},
    {"c_CreateNewCertRequestSigExt", "(SSSI" DN "II[BSZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), s("lbl"), i(2048), o(nullptr), i(1), i(2),
                            bytes(extensions), s("r.csr"), z(true)};
     },
     {}, 116, {}},
    {"c_IssueCertificate", "(SSSISISSZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), s("ca"), i(3), s("0A1B"), i(365), s("r.csr"),
                            s("c.arm"), z(true)};
     },
     {{"ZAVKM_Base64DecodeFileToBuf", fake::returns(40)}}, 40, {"ZAVKM_Base64DecodeFileToBuf"}},
    {"c_IssueCertificateSig", "(SSSISIISSZ)I",
     [] {
         return std::vector{s("k.kdb"), s("pw"), s("ca"), i(3), s("0A1B"), i(365), i(1), s("r.csr"),
                            s("c.arm"), z(false)};
     },
     {requestRead()}, 0,
     {"ZAVKM_Base64DecodeFileToBuf", "ZAVKM_OpenKeyDb", "ZAVKM_IssueCertSig", "ZAVKM_Free"}},
};
#undef DN
JAVA_CALLS(KeyDbCreateJava, keydb::dbClass, javaCalls);

}  // namespace
