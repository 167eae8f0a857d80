// Java strings, byte arrays, BER objects and label delivery.
#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>

#include "counting.h"
#include "marshal/jni_access.h"
#include "rows.h"

namespace {

using harness::Blocks;
using harness::Context;
using harness::nothing;
using harness::nullObject;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::someObject;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

// ---- newJavaStringUTF and getJavaBERObject ---------------------------------------------------

std::function<void(Context&, const Returned&)> berBytes(std::vector<uint8_t> bytes) {
    return [bytes](Context&, const Returned& got) {
        EXPECT_EQ(harness::className(got.object), "com.norvex.zav.tolvik.basic.BERObject");
        EXPECT_EQ(harness::callBytes(got.object, "getBytes"), bytes);
    };
}

const std::vector<Row> accessRows = {
    {"StringOfNullTextIsNull", {},
     [](Context& c) { return returned(zavkjni::newJavaStringUTF(c.env, nullptr)); }, {}, {},
     nullObject},
    {"StringWithoutEnvIsNull", {},
     [](Context&) { return returned(zavkjni::newJavaStringUTF(nullptr, "x")); }, {}, {}, nullObject},
    {"StringOfEmptyTextIsEmpty", {},
     [](Context& c) { return returned(zavkjni::newJavaStringUTF(c.env, "")); }, {}, {}, someObject,
     [](Context&, const Returned& got) {
         EXPECT_EQ(harness::text(static_cast<jstring>(got.object)), "");
     }},
    {"BerObjectOfBytes", {},
     [](Context& c) {
         const uint8_t der[] = {0x30, 0x03, 0x02, 0x01, 0x05};
         return returned(zavkjni::getJavaBERObject(c.env, der, sizeof der));
     },
     {}, {"JNI_DEBUG......jBERObjectClass = 0x{ref}"}, someObject,
     berBytes({0x30, 0x03, 0x02, 0x01, 0x05})},
    {"BerObjectOfLengthZeroIsNull", {},
     [](Context& c) {
         const uint8_t der[] = {0x30};
         return returned(zavkjni::getJavaBERObject(c.env, der, 0));
     },
     {}, {}, nullObject,
     [](Context& c, const Returned&) { EXPECT_THAT(c.ledger.calls(), ::testing::IsEmpty()); }},
    {"BerObjectOfNullIsNull", {},
     [](Context& c) { return returned(zavkjni::getJavaBERObject(c.env, nullptr, 4)); }, {}, {},
     nullObject},
};

// ---- JavaByteArrayToUChar ------------------------------------------------------------------

// Calls JavaByteArrayToUChar on a Java array of `bytes` (none: a null array) with the expected
// length; returns true when a buffer came back, after checking and freeing it.
std::function<Returned(Context&)> toBuffer(std::optional<std::vector<uint8_t>> bytes,
                                           int32_t expectedLength, bool failMalloc = false) {
    return [bytes, expectedLength, failMalloc](Context& c) {
        jbyteArray array = bytes ? harness::byteArray(*bytes) : nullptr;
        unsigned char* out = reinterpret_cast<unsigned char*>(&c);  // must be overwritten
        if (failMalloc) counting::failNextMalloc();
        zavkjni::JavaByteArrayToUChar(c.env, array, expectedLength, &out);
        if (out == nullptr) return returned(jboolean{JNI_FALSE});
        EXPECT_EQ(fake::hex(out, static_cast<size_t>(expectedLength)),
                  fake::hex(bytes->data(), bytes->size()));
        free(out);
        return returned(jboolean{JNI_TRUE});
    };
}

const char* const lengthsEqual = "JNI_DEBUG......JavaByteArrayToUChar(): jByteLen == jCertBERLen";
const char* const lengthsDiffer = "JNI_DEBUG......JavaByteArrayToUChar(): jByteLen != jCertBERLen";

std::function<void(Context&, const Returned&)> jniCalls(std::vector<std::string> calls) {
    return [calls](Context& c, const Returned&) { EXPECT_THAT(c.ledger.calls(), ElementsAreArray(calls)); };
}

const std::vector<Row> byteArrayRows = {
    {"Copied", {}, toBuffer(std::vector<uint8_t>{1, 2, 3}, 3), {}, {lengthsEqual}, harness::yes,
     jniCalls({"GetArrayLength", "GetByteArrayElements", "ReleaseByteArrayElements"})},
    {"LengthMismatch", {}, toBuffer(std::vector<uint8_t>(10, 7), 9), {}, {lengthsDiffer},
     harness::no, jniCalls({"GetArrayLength"})},
    {"NullArray", {}, toBuffer(std::nullopt, 3), {}, {}, harness::no, jniCalls({})},
    {"ZeroExpectedLength", {}, toBuffer(std::vector<uint8_t>{1}, 0), {}, {}, harness::no,
     jniCalls({})},
    // Only standard error: a stamped file line would take the failing allocation first.
    {"NoMemory", {}, toBuffer(std::vector<uint8_t>{1, 2}, 2, true), {}, {lengthsEqual},
     harness::no, jniCalls({"GetArrayLength"}), harness::Channels::StderrOnly},
    {"NullOutPlace", {},
     [](Context& c) {
         zavkjni::JavaByteArrayToUChar(c.env, harness::byteArray({1}), 1, nullptr);
         return harness::returnedNothing();
     },
     {}, {}, nothing, jniCalls({})},
};

// ---- Label delivery --------------------------------------------------------------------------

const char* const labelTrace = "JNI_DEBUG......cLabel = %s\n";

// Delivers `labels` (built as a fake list) to an instance callback of a new LabelSink, or to
// the static "addTokenLabel" when isStatic; the list is then released.
std::function<Returned(Context&)> deliver(std::vector<const char*> labels, bool isStatic = false) {
    return [labels, isStatic](Context& c) {
        jclass cls = harness::findClass("zavtest/LabelSink");
        harness::callStaticVoid("zavtest/LabelSink", "clearStatic", "()V");
        c.subject = harness::newObject("zavtest/LabelSink", "()V");
        JNIEnv* java = harness::java();
        zavkjni::LabelCallback callback =
            isStatic ? zavkjni::LabelCallback{cls, java->GetStaticMethodID(cls, "addTokenLabel",
                                                                           "(Ljava/lang/String;)V"),
                                              true}
                     : zavkjni::LabelCallback{c.subject,
                                              java->GetMethodID(cls, "addKeyLabel",
                                                                "(Ljava/lang/String;)V"),
                                              false};
        zavkjni::deliverAndFreeLabels(c.env, fake::labelList(labels), callback, labelTrace);
        return harness::returnedNothing();
    };
}

std::function<void(Context&, const Returned&)> delivered(std::vector<std::string> log,
                                                         bool isStatic = false) {
    return [log, isStatic](Context& c, const Returned&) {
        jobject list = isStatic ? harness::callStaticObject("zavtest/LabelSink", "staticLog",
                                                            "()Ljava/util/List;")
                                : harness::callObject(c.subject, "log", "()Ljava/util/List;");
        EXPECT_THAT(harness::listOfStrings(list), ElementsAreArray(log));
    };
}

const std::string longLabel(300, 'x');

const std::vector<Row> labelRows = {
    {"InListOrder", {}, deliver({"first", "50%s"}), {"ZAVKM_FreeLabelList(non-null)"},
     {"JNI_DEBUG......cLabel = first", "JNI_DEBUG......cLabel = 50%s"}, nothing,
     delivered({"addKeyLabel:first", "addKeyLabel:50%s"})},
    {"StaticCallback", {}, deliver({"tok"}, true), {"ZAVKM_FreeLabelList(non-null)"},
     {"JNI_DEBUG......cLabel = tok"}, nothing, delivered({"addTokenLabel:tok"}, true)},
    // The walk ends at a node without a label; the whole list is released all the same.
    {"StopsAtNullLabel", {}, deliver({"a", nullptr, "c"}), {"ZAVKM_FreeLabelList(non-null)"},
     {"JNI_DEBUG......cLabel = a"}, nothing, delivered({"addKeyLabel:a"})},
    {"EmptyListNothingReleased", {}, deliver({}), {}, {}, nothing, delivered({})},
    // A label longer than the 256-byte buffer arrives cut at 255 bytes.
    {"LongLabelCut", {}, deliver({longLabel.c_str()}), {"ZAVKM_FreeLabelList(non-null)"},
     {"JNI_DEBUG......cLabel = " + longLabel.substr(0, 255)}, nothing,
     delivered({"addKeyLabel:" + longLabel.substr(0, 255)})},
};

}  // namespace

CONFORMANCE_ROWS(AccessRows, accessRows);
CONFORMANCE_ROWS(ByteArrayRows, byteArrayRows);
CONFORMANCE_ROWS(LabelRows, labelRows);
