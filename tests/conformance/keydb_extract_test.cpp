// CMSKeyDatabase, extraction: a certificate or request written out by the library under a
// label, and the certificates of a PKCS#7 file read into Java (no key database involved; the
// file's name goes back before its data is used).
#include <gmock/gmock.h>

#include <cstdio>

#include "../marshal/records.h"
#include "com_norvex_zav_tolvik_basic_CMSKeyDatabase.h"
#include "java_calls.h"
#include "keydb_rows.h"

namespace {

using harness::Context;
using harness::nullObject;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::Scripted;
using harness::someObject;
using keydb::newDb;
using keydb::str;

// ---- Writing out a certificate or a request ---------------------------------------------------

const std::string certFileLine = "JNI_DEBUG......cCertFileName = out.der";
const std::string reqFileLine = "JNI_DEBUG......cCertReqFileName = out.csr";
const std::string exportCall = R"(ZAVKM_ExportCert(7, "lbl", "out.der", 1))";
const std::string reCreateCall = R"(ZAVKM_ReCreateCertReq(7, "lbl", "out.csr", null, null))";

std::string reCreateSigCall(int selector) {
    return R"(ZAVKM_ReCreateCertReqSig(7, "lbl", )" + std::to_string(selector) +
           R"(, "out.csr", null, null))";
}

// The three writers, called with `this` (and, for the signing one, `selector`).
jint extractCert(Context& c, jobject self, int) {
    return KEYDB_NATIVE(ExtractCert)(
        c.env, self, str("k.kdb"), str("pw"), str("lbl"), str("out.der"), JNI_TRUE);
}
jint extractReq(Context& c, jobject self, int) {
    return KEYDB_NATIVE(ExtractCertReq)(
        c.env, self, str("k.kdb"), str("pw"), str("lbl"), str("out.csr"));
}
jint extractReqSig(Context& c, jobject self, int selector) {
    return KEYDB_NATIVE(ExtractCertReqSig)(
        c.env, self, str("k.kdb"), str("pw"), str("lbl"), selector, str("out.csr"));
}

using Writer = jint (*)(Context&, jobject, int);

// A writer row: the open answers `openStep`, the operation `operationStep` (both when given);
// withThis false calls it without `this`.
Row writer(const char* name, Writer native, int selector, std::vector<Scripted> script,
           std::vector<std::string> journal, std::vector<std::string> trace, Returned expected,
           bool withThis = true) {
    return {name,
            std::move(script),
            [native, selector, withThis](Context& c) {
                return returned(native(c, withThis ? newDb() : nullptr, selector));
            },
            std::move(journal),
            std::move(trace),
            expected};
}

const std::vector<std::string> certTrace = {keydb::fileLine, keydb::pwdLine, keydb::labelLine,
                                            certFileLine};
const std::vector<std::string> reqTrace = {keydb::fileLine, keydb::pwdLine, keydb::labelLine,
                                           reqFileLine};

// A selector other than 1 or 2: 65 before anything is taken, traced or opened.
Row badSelector(const char* name, int selector) {
    Row row = writer(name, extractReqSig, selector, {}, {}, {}, rc(ZAVKM_ERR_PARAMETER));
    row.check = [](Context& c, const Returned&) {
        EXPECT_THAT(c.ledger.strings(), ::testing::IsEmpty());
    };
    return row;
}

const std::vector<Row> writerRows = {
    writer("ExtractCertAsBase64", extractCert, 0, {keydb::opened()}, keydb::whileOpen({exportCall}),
           certTrace, rc(0)),
    writer("ExtractCertLabelNotFoundStillCloses", extractCert, 0,
           {keydb::opened(), {"ZAVKM_ExportCert", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}},
           keydb::whileOpen({exportCall}), certTrace, rc(ZAVKM_ERR_KEY_GET_BY_LABEL)),
    writer("ExtractCertOpenFails", extractCert, 0,
           {keydb::openFails(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)}, {keydb::openCall}, certTrace,
           rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    writer("ExtractCertWithoutThis", extractCert, 0, {}, {}, {}, rc(ZAVKM_ERR_PARAMETER), false),
    writer("ExtractReq", extractReq, 0, {keydb::opened()}, keydb::whileOpen({reCreateCall}),
           reqTrace, rc(0)),
    writer(
        "ExtractReqNotWritableStillCloses", extractReq, 0,
        {keydb::opened(), {"ZAVKM_ReCreateCertReq", fake::returns(ZAVKM_ERR_FILE_OPEN_TO_WRITE)}},
        keydb::whileOpen({reCreateCall}), reqTrace, rc(ZAVKM_ERR_FILE_OPEN_TO_WRITE)),
    writer("ExtractReqOpenFails", extractReq, 0, {keydb::openFails(ZAVKM_ERR_DATABASE_OPEN)},
           {keydb::openCall}, reqTrace, rc(ZAVKM_ERR_DATABASE_OPEN)),
    writer("ExtractReqWithoutThis", extractReq, 0, {}, {}, {}, rc(ZAVKM_ERR_PARAMETER), false),
    writer("ExtractReqSigSelector1", extractReqSig, 1, {keydb::opened()},
           keydb::whileOpen({reCreateSigCall(1)}), reqTrace, rc(0)),
    writer("ExtractReqSigSelector2Fails", extractReqSig, 2,
           {keydb::opened(),
            {"ZAVKM_ReCreateCertReqSig", fake::returns(ZAVKM_ERR_SIGNATURE_ALGORITHM)}},
           keydb::whileOpen({reCreateSigCall(2)}), reqTrace, rc(ZAVKM_ERR_SIGNATURE_ALGORITHM)),
    writer("ExtractReqSigOpenFails", extractReqSig, 1, {keydb::openFails(ZAVKM_ERR_DATABASE_OPEN)},
           {keydb::openCall}, reqTrace, rc(ZAVKM_ERR_DATABASE_OPEN)),
    badSelector("ExtractReqSigSelector0", 0),
    badSelector("ExtractReqSigSelector3", 3),
    badSelector("ExtractReqSigSelectorMinus1", -1),
    writer("ExtractReqSigWithoutThis", extractReqSig, 1, {}, {}, {}, rc(ZAVKM_ERR_PARAMETER),
           false),
};

CONFORMANCE_ROWS(KeyDbExtractRows, writerRows);

// ---- Certificates of a PKCS#7 file --------------------------------------------------------------

const std::vector<uint8_t> p7Bytes = {0x30, 0x80, 0x06, 0x09};
const std::string p7Hex = "30800609";
const std::string p7FileLine = "JNI_DEBUG......cCertFileName = p7.der";
const std::string extractListCall =
    "ZAVKM_ExtractCertListFromPKCS7Data([" + p7Hex + "], 4, non-null)";
const std::string freeListCall = "ZAVKM_FreeCertItemList(non-null)";
const std::string freeDataCall = "ZAVKM_Free(block(4))";

// The PKCS#7 file "p7.der" (binary) in the working directory for the length of a call.
struct P7File {
    P7File() {
        FILE* file = fopen("p7.der", "wb");
        EXPECT_NE(file, nullptr);
        if (file == nullptr) return;
        fwrite(p7Bytes.data(), 1, p7Bytes.size(), file);
        fclose(file);
    }
    ~P7File() { remove("p7.der"); }
    P7File(const P7File&) = delete;
    P7File& operator=(const P7File&) = delete;
};

jobjectArray fromPkcs7(Context& c, jobject self, const char* fileName, jboolean isBase64) {
    return KEYDB_NATIVE(ExtractCertFromPKCS7Data)(
        c.env, self, str(fileName), isBase64);
}

// The list the library hands out: certificates whose DER is {30 0i} for i = 1, 2, ...; a null
// entry is a node without certificate.
fake::Step certsOut(int64_t code, std::vector<bool> certs) {
    return fake::returns(code).out(2, [certs] {
        std::vector<ZAVKM_CertItem*> items;
        uint8_t i = 0;
        for (bool present : certs) {
            ++i;
            items.push_back(present ? records::derOnlyCert({0x30, i}) : nullptr);
        }
        return fake::certList(items);
    });
}

// The array holds certificates with these DER second bytes, in order.
std::function<void(Context&, const Returned&)> arrayOf(std::vector<uint8_t> seconds) {
    return [seconds](Context&, const Returned& got) {
        std::vector<jobject> items = harness::objects(static_cast<jobjectArray>(got.object));
        ASSERT_EQ(items.size(), seconds.size());
        for (size_t i = 0; i < items.size(); ++i) {
            EXPECT_EQ(harness::callBytes(items[i], "getDer"),
                      (std::vector<uint8_t>{0x30, seconds[i]}));
        }
        // The list went back whole through its own operation, the data through ZAVKM_Free.
        for (const fake::Block& block : fake::released()) {
            if (block.origin == "test") {
                EXPECT_EQ(block.releasedBy, "ZAVKM_FreeCertItemList");
            }
        }
    };
}

std::vector<std::string> certsTrace(int count) {
    std::vector<std::string> certs;
    for (int i = 0; i < count; ++i) {
        for (const std::string& line : records::derOnlyCertTrace()) certs.push_back(line);
    }
    return records::certArrayTrace(count, certs);
}

// A binary file read whole (one chunk), the list extracted with `step`.
Row pkcs7(const char* name, fake::Step step, std::vector<std::string> afterExtract,
          std::vector<std::string> trace, Returned expected,
          std::function<void(Context&, const Returned&)> check = nullptr) {
    return {name,
            {{"ZAVKM_ExtractCertListFromPKCS7Data", std::move(step)}},
            [](Context& c) {
                P7File file;
                return returned(fromPkcs7(c, newDb(), "p7.der", JNI_FALSE));
            },
            keydb::join({{"ZAVKM_Malloc(4)", extractListCall}, afterExtract}),
            keydb::join({{p7FileLine}, trace}),
            expected,
            std::move(check)};
}

// The file's name is still held while the file is read, and given back before the data is
// handed to the library.
Row nameGivenBackBeforeExtraction() {
    Row row = pkcs7("Pkcs7NameGivenBackBeforeExtraction", fake::returns(0), {freeDataCall}, {},
                    nullObject);
    row.script.clear();
    row.call = [](Context& c) {
        keydb::probeAt("ZAVKM_Malloc", 0,
                       [&c] { EXPECT_EQ(keydb::stringsGivenBack(c.ledger), 0u); });
        keydb::probeAt("ZAVKM_ExtractCertListFromPKCS7Data", 0,
                       [&c] { EXPECT_EQ(keydb::stringsGivenBack(c.ledger), 1u); });
        P7File file;
        return returned(fromPkcs7(c, newDb(), "p7.der", JNI_FALSE));
    };
    return row;
}

const std::vector<Row> pkcs7Rows = {
    pkcs7("Pkcs7ThreeCertificatesInListOrder", certsOut(0, {true, true, true}),
          {freeListCall, freeDataCall}, certsTrace(3), someObject, arrayOf({1, 2, 3})),
    // The walk stops at the first node without a certificate.
    pkcs7("Pkcs7SecondNodeWithoutCertificate", certsOut(0, {true, false, true}),
          {freeListCall, freeDataCall}, certsTrace(1), someObject, arrayOf({1})),
    pkcs7("Pkcs7FirstNodeWithoutCertificateGivesEmptyArray", certsOut(0, {false}),
          {freeListCall, freeDataCall}, certsTrace(0), someObject, arrayOf({})),
    pkcs7("Pkcs7NoListGivesNull", fake::returns(0), {freeDataCall}, {}, nullObject),
    pkcs7("Pkcs7ExtractionFails", fake::returns(ZAVKM_ERR_ASN), {freeDataCall}, {}, nullObject),
    // A list handed out with a failure code is released unconverted.
    pkcs7("Pkcs7ExtractionFailsWithAList", certsOut(ZAVKM_ERR_ASN, {true}),
          {freeListCall, freeDataCall}, {}, nullObject),
    nameGivenBackBeforeExtraction(),
    {"Pkcs7Base64",
     {{"ZAVKM_Base64DecodeFileToBuf",
       fake::returns(0)
           .out(1, [] { return fake::bytes(p7Bytes, "ZAVKM_Base64DecodeFileToBuf"); })
           .out(2, uint32_t{4})},
      {"ZAVKM_ExtractCertListFromPKCS7Data", certsOut(0, {true})}},
     [](Context& c) { return returned(fromPkcs7(c, newDb(), "p7.b64", JNI_TRUE)); },
     {R"(ZAVKM_Base64DecodeFileToBuf("p7.b64", non-null, non-null))", extractListCall, freeListCall,
      freeDataCall},
     keydb::join({{"JNI_DEBUG......cCertFileName = p7.b64"}, certsTrace(1)}),
     someObject,
     arrayOf({1})},
    {"Pkcs7Base64NotDecoded",
     {{"ZAVKM_Base64DecodeFileToBuf", fake::returns(ZAVKM_ERR_BASE64_INVALID_MSGTYPE)}},
     [](Context& c) { return returned(fromPkcs7(c, newDb(), "p7.b64", JNI_TRUE)); },
     {R"(ZAVKM_Base64DecodeFileToBuf("p7.b64", non-null, non-null))"},
     {"JNI_DEBUG......cCertFileName = p7.b64"},
     nullObject},
    {"Pkcs7MissingFile",
     {},
     [](Context& c) { return returned(fromPkcs7(c, newDb(), "no-such.p7", JNI_FALSE)); },
     {},
     {"JNI_DEBUG......cCertFileName = no-such.p7"},
     nullObject},
    {"Pkcs7NullFileName",
     {},
     [](Context& c) { return returned(fromPkcs7(c, newDb(), nullptr, JNI_FALSE)); },
     {},
     {"JNI_DEBUG......cCertFileName = null"},
     nullObject},
    {"Pkcs7WithoutThis",
     {},
     [](Context& c) { return returned(fromPkcs7(c, nullptr, "p7.der", JNI_FALSE)); },
     {},
     {},
     nullObject},
};

CONFORMANCE_ROWS(KeyDbPkcs7Rows, pkcs7Rows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_ExtractCert", "(SSSSZ)I",
     [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"), s("out.der"), z(false)}; },
     {{"ZAVKM_ExportCert", fake::returns(ZAVKM_ERR_KEY_GET_BY_LABEL)}}, ZAVKM_ERR_KEY_GET_BY_LABEL,
     {"ZAVKM_OpenKeyDb", "ZAVKM_ExportCert"}},
    {"c_ExtractCertReq", "(SSSS)I", [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"),
        s("out.csr")}; },
     {{"ZAVKM_ReCreateCertReq", fake::returns(ZAVKM_ERR_FILE_OPEN_TO_WRITE)}},
     ZAVKM_ERR_FILE_OPEN_TO_WRITE, {"ZAVKM_OpenKeyDb", "ZAVKM_ReCreateCertReq"}},
    {"c_ExtractCertReqSig", "(SSSIS)I",
     [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"), i(3), s("out.csr")}; }, {},
     ZAVKM_ERR_PARAMETER, {}},
    {"c_ExtractCertFromPKCS7Data", "(SZ)[Lcom/norvex/zav/tolvik/basic/CertificateItem;",
     [] { return std::vector{s("p7.b64"), z(true)}; },
     {{"ZAVKM_Base64DecodeFileToBuf",
       fake::returns(0)
           .out(1, [] { return fake::bytes(p7Bytes, "ZAVKM_Base64DecodeFileToBuf"); })
           .out(2, uint32_t{4})},
      {"ZAVKM_ExtractCertListFromPKCS7Data", certsOut(0, {true, true})}},
     2,
     {"ZAVKM_Base64DecodeFileToBuf", "ZAVKM_ExtractCertListFromPKCS7Data", "ZAVKM_FreeCertItemList",
      "ZAVKM_Free"}},
};
JAVA_CALLS(KeyDbExtractJava, keydb::dbClass, javaCalls);

}  // namespace
