// CMSKeyDatabase, certificates from files: a signed certificate received, a CA certificate added
// under a label, and the certificate-file reader they share (binary in 1024-byte chunks into a
// block of the library, or base64 decoded by the library), which runs before the key database
// is touched.
#include <gmock/gmock.h>

#include <cstdio>
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
using keydb::newDb;
using keydb::str;

// The bytes of a certificate file of `size` bytes: 1, 2, ... 255, 1, ... (no zero byte).
std::vector<uint8_t> fileBytes(size_t size) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i % 255 + 1);
    return bytes;
}

std::string hexOf(const std::vector<uint8_t>& bytes) {
    return fake::hex(bytes.data(), bytes.size());
}

const char* orNull(const char* text) { return text != nullptr ? text : "null"; }

// A certificate file in the working directory for the length of a call.
class CertFile {
  public:
    CertFile(const char* name, const std::optional<std::vector<uint8_t>>& bytes) : name_(name) {
        if (name_ == nullptr) return;
        remove(name_);
        if (!bytes) return;
        FILE* file = fopen(name_, "wb");
        EXPECT_NE(file, nullptr) << name_;
        if (file == nullptr) return;
        if (!bytes->empty()) fwrite(bytes->data(), 1, bytes->size(), file);
        fclose(file);
    }
    ~CertFile() {
        if (name_ != nullptr) remove(name_);
    }
    CertFile(const CertFile&) = delete;
    CertFile& operator=(const CertFile&) = delete;

  private:
    const char* name_;
};

// How a row's certificate reaches the reader.
struct Source {
    const char* fileName;
    jboolean isBase64;
    std::optional<std::vector<uint8_t>> bytes;  // the binary file's content; nullopt: no file
};

// binary is a file of `size` bytes; missing is no file at all; base64 is a file the library
// decodes (the bridge never opens it, so none is made).
Source binary(size_t size) { return {"c.der", JNI_FALSE, fileBytes(size)}; }
const Source missing = {"no-such.der", JNI_FALSE, std::nullopt};
const Source base64 = {"c.b64", JNI_TRUE, std::nullopt};

// The library's answer to ZAVKM_Base64DecodeFileToBuf: rc, and the decoded block {30 82} when
// withBlock.
Scripted decoded(int64_t code, bool withBlock) {
    fake::Step step = fake::returns(code);
    if (withBlock) {
        step.out(1,
                 [] {
                     return fake::bytes({0x30, 0x82}, "ZAVKM_Base64DecodeFileToBuf");
                 })
            .out(2, uint32_t{2});
    }
    return {"ZAVKM_Base64DecodeFileToBuf", step};
}
const std::string decodeCall = R"(ZAVKM_Base64DecodeFileToBuf("c.b64", non-null, non-null))";

// The reader's calls for a binary file of `size` bytes, and the block it leaves.
std::vector<std::string> readCalls(size_t size) {
    std::vector<std::string> calls;
    for (size_t done = 0; done < size; done += 1024) {
        size_t total = std::min(size, done + 1024);
        calls.push_back(done == 0 ? "ZAVKM_Malloc(" + std::to_string(total) + ")"
                                  : "ZAVKM_Realloc(block(" + std::to_string(done) + "), " +
                                        std::to_string(total) + ")");
    }
    return calls;
}
std::string freeCall(size_t size) { return "ZAVKM_Free(block(" + std::to_string(size) + "))"; }

std::vector<std::string> receiveTrace(const Source& source) {
    return {keydb::fileLine, keydb::pwdLine,
            std::string("JNI_DEBUG......cCertFileName = ") + orNull(source.fileName)};
}
std::vector<std::string> addCaTrace(const Source& source) {
    return {keydb::fileLine, keydb::pwdLine, keydb::labelLine,
            std::string("JNI_DEBUG......cCertFileName = ") + orNull(source.fileName)};
}

// The certificate as the journal shows it ("null" for no block).
std::string shown(const std::string& hex, size_t length) {
    return (hex.empty() && length == 0 ? "null" : "[" + hex + "]") + ", " + std::to_string(length);
}

// One of the two natives: how to call it, what it traces and which library call stores.
struct CertNative {
    const char* storeOp;
    std::function<jint(Context&, jobject self, const Source&)> call;
    std::vector<std::string> (*trace)(const Source&);
    std::string (*storeCall)(const std::string& hex, size_t length);
};

const CertNative receiveCert = {
    "ZAVKM_ReceiveCert",
    [](Context& c, jobject self, const Source& source) {
        return KEYDB_NATIVE(ReceiveCert)(
            c.env, self, str("k.kdb"), str("pw"), str(source.fileName), source.isBase64, JNI_TRUE);
    },
    receiveTrace,
    [](const std::string& hex, size_t length) {
        return "ZAVKM_ReceiveCert(7, " + shown(hex, length) + ", 1)";
    }};

const CertNative addCaCert = {
    "ZAVKM_StoreCACert",
    [](Context& c, jobject self, const Source& source) {
        return KEYDB_NATIVE(AddCaCert)(
            c.env, self, str("k.kdb"), str("pw"), str("lbl"), str(source.fileName),
            source.isBase64);
    },
    addCaTrace,
    [](const std::string& hex, size_t length) {
        return "ZAVKM_StoreCACert(7, " + shown(hex, length) + R"(, "lbl"))";
    }};

Row certRow(const char* name, const CertNative& native, const Source& source,
            std::vector<Scripted> script, std::vector<std::string> journal, Returned expected) {
    return {name,
            std::move(script),
            [call = native.call, source](Context& c) {
                CertFile file(source.fileName, source.bytes);
                return returned(call(c, newDb(), source));
            },
            std::move(journal),
            native.trace(source),
            expected};
}

// A binary file of `size` bytes read, then stored (the library answering `code`) while the key
// database is open; the block freed.
Row stored(const char* name, const CertNative& native, size_t size, int64_t code) {
    const Source source = binary(size);
    std::vector<Scripted> script = {keydb::opened()};
    if (code != 0) script.push_back({native.storeOp, fake::returns(code)});
    std::vector<std::string> journal = keydb::join(
        {readCalls(size), keydb::whileOpen({native.storeCall(hexOf(*source.bytes), size)})});
    if (size != 0) journal.push_back(freeCall(size));
    return certRow(name, native, source, std::move(script), std::move(journal), rc(code));
}

// The block is freed before the strings go back.
Row freedBeforeStringsGoBack() {
    Row row = stored("ReceiveFreesTheBlockBeforeGivingStringsBack", receiveCert, 3, 0);
    Row plain = row;
    row.call = [plain](Context& c) {
        keydb::probeAt("ZAVKM_Free", 0, [&c] { EXPECT_EQ(keydb::stringsGivenBack(c.ledger), 0u); });
        return plain.call(c);
    };
    return row;
}

// A decoded block of length 0 is not freed: the block goes back only when both its pointer
// and its length are set. (The block is the test's, so the harness lets it stay.)
Row emptyBlockKept() {
    fake::Step step = fake::returns(0).out(1, [] { return fake::bytes({}); }).out(2, uint32_t{0});
    Row row = certRow(
        "ReceiveBase64EmptyBlockNotFreed", receiveCert, base64,
        {{"ZAVKM_Base64DecodeFileToBuf", step}, keydb::opened()},
        keydb::join({{decodeCall}, keydb::whileOpen({"ZAVKM_ReceiveCert(7, [], 0, 1)"})}), rc(0));
    row.blocks = harness::Blocks::CallerKeeps;
    row.check = [](Context&, const Returned&) {
        EXPECT_EQ(fake::outstanding().size(), 1u);
        EXPECT_THAT(fake::released(), ::testing::IsEmpty());
    };
    return row;
}

const std::vector<Row> receiveRows = {
    stored("ReceiveThreeBytes", receiveCert, 3, 0),
    stored("Receive1024BytesInOneChunk", receiveCert, 1024, 0),
    stored("Receive1025BytesGrowsOnce", receiveCert, 1025, 0),
    stored("Receive2049BytesGrowsTwice", receiveCert, 2049, 0),
    // An empty file: no block, length 0 handed on, nothing freed; the library's answer returned.
    stored("ReceiveEmptyFile", receiveCert, 0, ZAVKM_ERR_ASN),
    stored("ReceiveRejectedStillClosesAndFrees", receiveCert, 3, ZAVKM_ERR_REQKEY_FOR_CERT_NULL),
    freedBeforeStringsGoBack(),
    certRow("ReceiveMissingFile", receiveCert, missing, {}, {}, rc(ZAVKM_ERR_FILE_OPEN_TO_READ)),
    certRow("ReceiveOpenFails", receiveCert, binary(3),
            {keydb::openFails(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)},
            {"ZAVKM_Malloc(3)", keydb::openCall, freeCall(3)},
            rc(ZAVKM_ERR_DATABASE_INVALID_PASSWORD)),
    certRow("ReceiveFirstChunkNotAllocated", receiveCert, binary(3),
            {{"ZAVKM_Malloc", fake::returnsNull()}}, {"ZAVKM_Malloc(3)"},
            rc(ZAVKM_ERR_MEMORY_ALLOCATE)),
    // The block cannot grow: what was gathered goes back, the key database is never opened.
    certRow("ReceiveBlockNotGrown", receiveCert, binary(1025),
            {{"ZAVKM_Realloc", fake::returnsNull()}},
            {"ZAVKM_Malloc(1024)", "ZAVKM_Realloc(block(1024), 1025)", freeCall(1024)},
            rc(ZAVKM_ERR_MEMORY_ALLOCATE)),
    certRow("ReceiveBase64", receiveCert, base64, {decoded(0, true), keydb::opened()},
            keydb::join({{decodeCall},
                         keydb::whileOpen({receiveCert.storeCall("3082", 2)}),
                         {freeCall(2)}}),
            rc(0)),
    certRow("ReceiveBase64NotDecoded", receiveCert, base64,
            {decoded(ZAVKM_ERR_BASE64_INVALID_DATA, false)}, {decodeCall},
            rc(ZAVKM_ERR_BASE64_INVALID_DATA)),
    // A failed decode that leaves a block behind: the block still goes back.
    certRow("ReceiveBase64FailureLeavesABlock", receiveCert, base64,
            {decoded(ZAVKM_ERR_BASE64_DECODING, true)}, {decodeCall, freeCall(2)},
            rc(ZAVKM_ERR_BASE64_DECODING)),
    emptyBlockKept(),
    // A missing certificate file name is not taken: 65, nothing read or opened.
    certRow("ReceiveNullCertFileName", receiveCert, {nullptr, JNI_FALSE, std::nullopt}, {}, {},
            rc(ZAVKM_ERR_PARAMETER)),
    {"ReceiveWithoutThis",
     {},
     [](Context& c) { return returned(receiveCert.call(c, nullptr, binary(3))); },
     {},
     {},
     rc(ZAVKM_ERR_PARAMETER)},
    stored("AddCaThreeBytes", addCaCert, 3, 0),
    stored("AddCa1025Bytes", addCaCert, 1025, 0),
    stored("AddCaEmptyFile", addCaCert, 0, ZAVKM_ERR_ASN),
    stored("AddCaRejectedStillClosesAndFrees", addCaCert, 3, ZAVKM_ERR_DATABASE_DUPLICATE_LABEL),
    certRow("AddCaMissingFile", addCaCert, missing, {}, {}, rc(ZAVKM_ERR_FILE_OPEN_TO_READ)),
    certRow("AddCaBlockNotGrown", addCaCert, binary(2048),
            {{"ZAVKM_Realloc", fake::returnsNull()}},
            {"ZAVKM_Malloc(1024)", "ZAVKM_Realloc(block(1024), 2048)", freeCall(1024)},
            rc(ZAVKM_ERR_MEMORY_ALLOCATE)),
    certRow("AddCaBase64", addCaCert, base64, {decoded(0, true), keydb::opened()},
            keydb::join(
                {{decodeCall}, keydb::whileOpen({addCaCert.storeCall("3082", 2)}), {freeCall(2)}}),
            rc(0)),
    certRow("AddCaOpenFails", addCaCert, base64,
            {decoded(0, true), keydb::openFails(ZAVKM_ERR_DATABASE_OPEN)},
            {decodeCall, keydb::openCall, freeCall(2)}, rc(ZAVKM_ERR_DATABASE_OPEN)),
    keydb::nullEnv("AddCaWithoutEnv", [](JNIEnv* env, jobject self) {
        return returned(KEYDB_NATIVE(AddCaCert)(env, self, str("k.kdb"), str("pw"), str("lbl"),
            str("c.der"), JNI_FALSE));
    }, rc(ZAVKM_ERR_PARAMETER)),
};

CONFORMANCE_ROWS(KeyDbReceiveRows, receiveRows);

using namespace javacalls;

const std::vector<JavaCall> javaCalls = {
    {"c_ReceiveCert", "(SSSZZ)I",
     [] { return std::vector{s("k.kdb"), s("pw"), s("c.b64"), z(true), z(false)}; },
     {{"ZAVKM_Base64DecodeFileToBuf", fake::returns(ZAVKM_ERR_BASE64_INVALID_DATA)}},
     ZAVKM_ERR_BASE64_INVALID_DATA, {"ZAVKM_Base64DecodeFileToBuf"}},
    {"c_AddCaCert", "(SSSSZ)I",
     [] { return std::vector{s("k.kdb"), s("pw"), s("lbl"), s("no-such.der"), z(false)}; }, {},
     ZAVKM_ERR_FILE_OPEN_TO_READ, {}},
};
JAVA_CALLS(KeyDbReceiveJava, keydb::dbClass, javaCalls);

}  // namespace
