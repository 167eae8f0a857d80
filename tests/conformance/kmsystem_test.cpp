// KMSystem: starting and ending the library, its traces and ours, the FIPS block, the key
// strength probe and the build information.
#include <gmock/gmock.h>

#include "capture.h"
#include "natives.h"
#include "rows.h"

namespace {

using harness::Channels;
using harness::Context;
using harness::no;
using harness::rc;
using harness::returned;
using harness::Returned;
using harness::Row;
using harness::yes;

const char* const enteredInit = "JNI_DEBUG......Entered KMSystem_c_ZAVKMInit().";
const char* const enteredInitDebug = "JNI_KMSystem::ZAVKMInitDebug 0000, entered ...";
const char* const beforeStartTrace = "JNI_KMSystem::ZAVKMInitDebug 0010, before ZAVKM_StartTrace";
const char* const enteredCleanAll = "JNI_DEBUG......Entered KMSystem_c_ZAVKMCleanAll().";
const char* const enteredKeySize = "JNI_DEBUG......Entered KMSystem_c_IsUSSharedLibraryLoaded().";
const char* const kmTraceCall = R"(ZAVKM_StartTrace("jnidump", "jnitrace", 0, 6144))";
const char* const debugTraceCall =
    R"(ZAVKM_StartTrace("specialDifferentLogTag", "tvkcdbg.log", 8, 4096))";

Row keySize(const char* name, int64_t maxKeySize, Returned expected) {
    return {name,
            {{"ZAVKM_GetMaxCryptoKeySize", fake::returns(maxKeySize)}},
            [](Context& c) {
                return returned(
                    Java_com_norvex_zav_tolvik_basic_KMSystem_c_1IsUSSharedLibraryLoaded(c.env, nullptr));
            },
            {"ZAVKM_GetMaxCryptoKeySize(1)"},
            {enteredKeySize},
            expected};
}

// The FIPS block handed over: its first three bytes (the third as the library made it).
std::function<void(Context&, const Returned&)> fipsBlock(std::vector<uint8_t> bytes) {
    return [bytes](Context&, const Returned&) {
        ASSERT_EQ(fake::adopted().size(), 1u);
        const auto* block = static_cast<const uint8_t*>(fake::adopted()[0].ptr);
        EXPECT_EQ(fake::hex(block, 3), fake::hex(bytes.data(), bytes.size()));
    };
}

Row fips(const char* name, jboolean flag0, jboolean flag1, std::vector<uint8_t> bytes) {
    return {name,
            {{"ZAVKM_SetCryptoInfo", fake::returns(33)}},
            [flag0, flag1](Context& c) {
                return returned(Java_com_norvex_zav_tolvik_basic_KMSystem_c_1enableFIPSMode(
                    c.env, nullptr, flag0, flag1));
            },
            {"ZAVKM_Malloc(256)", "ZAVKM_SetCryptoInfo(block(256))"},
            {},
            rc(33),
            fipsBlock(std::move(bytes))};
}

// c_ZAVKMInit; the library's trace, when started, answers 5.
Row init(const char* name, jboolean kmTrace, std::vector<std::string> journal,
         std::vector<std::string> trace) {
    std::vector<harness::Scripted> script = {{"ZAVKM_Init", fake::returns(77)}};
    if (kmTrace == 1) script.push_back({"ZAVKM_StartTrace", fake::returns(5)});
    return {name,
            script,
            [kmTrace](Context& c) {
                return returned(
                    Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInit(c.env, nullptr, kmTrace));
            },
            std::move(journal),
            std::move(trace),
            rc(77)};
}

// c_ZAVKMInitDebug without the trace file: one line more than c_ZAVKMInit.
Row initDebug(const char* name, jboolean kmTrace, std::vector<std::string> journal,
              std::vector<std::string> trace) {
    Row row = init(name, kmTrace, std::move(journal), std::move(trace));
    row.call = [kmTrace](Context& c) {
        return returned(Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug(
            c.env, nullptr, kmTrace, JNI_FALSE));
    };
    row.trace.insert(row.trace.begin(), enteredInitDebug);
    return row;
}

// c_ZAVKMInitDebug with the trace file, closed again by c_ZAVKMCleanAll; the file then holds
// the lines from the 0010 line on.
Row initDebugWithFile(const char* name, jboolean kmTrace, std::vector<std::string> journal,
                      std::vector<std::string> traceAfterOpening) {
    std::vector<std::string> trace = {enteredInitDebug, beforeStartTrace,
                                      "JNI_KMSystem::ZAVKMInitDebug 0020, rc=5"};
    trace.insert(trace.end(), traceAfterOpening.begin(), traceAfterOpening.end());
    trace.push_back(enteredCleanAll);
    std::vector<std::string> file(trace.begin() + 1, trace.end());
    journal.push_back("ZAVKM_CleanAll()");
    Row row = init(name, JNI_FALSE, std::move(journal), std::move(trace));
    // The trace of the debug files answers 5; the library's own trace, when asked for, 6.
    row.script.push_back({"ZAVKM_StartTrace", fake::returns(5)});
    if (kmTrace) row.script.push_back({"ZAVKM_StartTrace", fake::returns(6)});
    row.channels = Channels::StderrOnly;
    row.call = [kmTrace](Context& c) {
        remove(harness::traceFileName);
        jint code = Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug(c.env, nullptr,
                                                                                 kmTrace, JNI_TRUE);
        Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll(c.env, nullptr);
        return returned(code);
    };
    row.check = [file](Context&, const Returned&) {
        const long now = static_cast<long>(time(nullptr));
        harness::FileTrace trace = harness::readTraceFile(harness::traceFileName, now - 60, now);
        EXPECT_EQ(harness::matchLines(file, trace.lines), "");
        EXPECT_THAT(trace.problems, ::testing::IsEmpty());
    };
    return row;
}

const std::vector<Row> kmSystemRows = {
    keySize("KeySize512IsNotMore", 512, no),
    keySize("KeySize513IsMore", 513, yes),
    keySize("KeySizeTakenUnsigned", 0x80000000LL, yes),
    fips("FipsTrueFalse", JNI_TRUE, JNI_FALSE, {1, 0, 0xa5}),
    fips("FipsFalseTrue", JNI_FALSE, JNI_TRUE, {0, 1, 0xa5}),
    {"FipsBlockNotAllocated",
     {{"ZAVKM_Malloc", fake::returnsNull()}},
     [](Context& c) {
         return returned(Java_com_norvex_zav_tolvik_basic_KMSystem_c_1enableFIPSMode(
             c.env, nullptr, JNI_TRUE, JNI_TRUE));
     },
     {"ZAVKM_Malloc(256)"},
     {},
     rc(ZAVKM_ERR_MEMORY_ALLOCATE)},
    init("InitWithoutKmTrace", JNI_FALSE, {"ZAVKM_Init()"}, {enteredInit}),
    init("InitWithKmTrace", JNI_TRUE, {kmTraceCall, "ZAVKM_Init()"},
         {enteredInit, "JNI_DEBUG......ZAVKM_StartTrace returns = 5"}),
    // Only the value 1 asks for the library's trace.
    init("InitWithKmTraceTwo", 2, {"ZAVKM_Init()"}, {enteredInit}),
    initDebug("InitDebugNoFilesNoKmTrace", JNI_FALSE, {"ZAVKM_Init()"}, {enteredInit}),
    initDebug("InitDebugNoFilesKmTrace", JNI_TRUE, {kmTraceCall, "ZAVKM_Init()"},
              {enteredInit, "JNI_DEBUG......ZAVKM_StartTrace returns = 5"}),
    initDebugWithFile("InitDebugFilesNoKmTrace", JNI_FALSE, {debugTraceCall, "ZAVKM_Init()"}, {}),
    initDebugWithFile("InitDebugFilesKmTrace", JNI_TRUE,
                      {debugTraceCall, kmTraceCall, "ZAVKM_Init()"},
                      {enteredInit, "JNI_DEBUG......ZAVKM_StartTrace returns = 6"}),
    {"CleanAllTwiceAnswersOneEachTime",
     {{"ZAVKM_CleanAll", fake::returns(5)}},
     [](Context& c) {
         jint first = Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll(c.env, nullptr);
         jint second = Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll(c.env, nullptr);
         return returned(first * 10 + second);
     },
     {"ZAVKM_CleanAll()", "ZAVKM_CleanAll()"},
     {enteredCleanAll, enteredCleanAll},
     rc(11),
     nullptr,
     Channels::StderrOnly},
};

CONFORMANCE_ROWS(KMSystemRows, kmSystemRows);

// The build information: "@(#)" lines whose values start in column 23, in a fixed order.
TEST(KMSystem, ShowLibInfoPrintsTheBuildInformation) {
    harness::FdCapture capture(1);
    Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ShowLibInfo(nullptr, nullptr);
    std::vector<std::string> printed = harness::lines(capture.finish());
    ASSERT_GE(printed.size(), 4u);
    EXPECT_EQ(printed[0], "KJNI");
    EXPECT_EQ(printed[1], "============");
    const std::vector<std::string> labels = {
        "CompanyName",  "LegalTrademarks", "FileDescription",  "FileVersion", "InternalName",
        "LegalCopyright", "OriginalFilename", "ProductName", "ProductVersion", "ProductInfo"};
    std::vector<std::string> seen;
    for (size_t i = 2; i < printed.size() && !printed[i].empty(); ++i) {
        const std::string& line = printed[i];
        if (line.rfind("@(#)", 0) == 0) {
            size_t colon = line.find(':');
            ASSERT_NE(colon, std::string::npos) << line;
            seen.push_back(line.substr(4, colon - 4));
            EXPECT_EQ(line.find_first_not_of(' ', colon + 1), 22u) << line;
        } else {
            EXPECT_EQ(line.find_first_not_of(' '), 22u) << "a continued value: " << line;
        }
        if (!seen.empty() && seen.back() == "InternalName") {
            EXPECT_EQ(line.substr(22), "zavkjni");
        }
    }
    EXPECT_EQ(seen, labels);
}

}  // namespace
