// The trace step itself: what each channel gets, what a message costs, and arguments that hold
// "%" printed as they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>

#include "capture.h"
#include "counting.h"
#include "trace/trace.h"

namespace {

using harness::lines;
using harness::matchLines;
using harness::StderrCapture;
using zavkjni::traceMessage;

// Arguments that would do harm if they were ever used as formats.
const char* const percentArgument = "50%s%d%n%%";
const char* const passwordFormat = "JNI_DEBUG......cKeyDbPwd = %s\n";
const std::string passwordLine = std::string("JNI_DEBUG......cKeyDbPwd = ") + percentArgument;

class TraceFile : public ::testing::Test {
protected:
    void SetUp() override {
        remove(harness::traceFileName);
        start_ = static_cast<long>(time(nullptr));
        zavkjni::openTraceFile();
    }
    void TearDown() override { zavkjni::closeTraceFile(); }

    // closeAndRead closes the file channel and reads the file back.
    harness::FileTrace closeAndRead() {
        zavkjni::closeTraceFile();
        return harness::readTraceFile(harness::traceFileName, start_, static_cast<long>(time(nullptr)));
    }

    long start_ = 0;
};

// The harness's line matching: wildcards stand for references only, everything else is exact.
TEST(TraceLines, WildcardsStandForReferencesOnly) {
    EXPECT_EQ(matchLines({"c = 0x{ref}, m {ptr}"}, {"c = 0x7f3a, m 0x55aa"}), "");
    EXPECT_EQ(matchLines({"m {ptr}"}, {"m (nil)"}), "");
    EXPECT_NE(matchLines({"c = 0x{ref}"}, {"c = 0x"}), "");
    EXPECT_NE(matchLines({"c = 0x{ref}"}, {"c = 0x12 "}), "");
    EXPECT_NE(matchLines({"a", "b"}, {"a"}), "");
    EXPECT_NE(matchLines({"a"}, {"a", "b"}), "");
}

TEST(TraceOff, AMessageCostsNoAllocationNoClockAndWritesNothing) {
    if (harness::stderrChannelOn()) GTEST_SKIP() << "for runs without TOLVIK_JNI_DEBUG";
    StderrCapture capture;
    counting::arm();
    traceMessage(passwordFormat, percentArgument);
    counting::Counts counts = counting::disarm();
    EXPECT_EQ(capture.finish(), "");
    EXPECT_EQ(counts.mallocs, 0);
    EXPECT_EQ(counts.times, 0);
    EXPECT_EQ(counts.localtimes, 0);
}

TEST(TraceStderr, ArgumentsArePrintedVerbatimWithoutStamp) {
    StderrCapture capture;
    traceMessage(passwordFormat, percentArgument);
    traceMessage("JNI_DEBUG......%s and %d\n", "%x%p", 42);
    std::vector<std::string> expected;
    if (harness::stderrChannelOn()) expected = {passwordLine, "JNI_DEBUG......%x%p and 42"};
    EXPECT_EQ(matchLines(expected, lines(capture.finish())), "");
}

TEST_F(TraceFile, EachLineStampedOneAllocationAndOneClockReadEach) {
    StderrCapture capture;
    counting::arm();
    traceMessage(passwordFormat, percentArgument);
    traceMessage("JNI_DEBUG......errKeyIndex = %d\n", -7);
    counting::Counts counts = counting::disarm();
    std::string err = capture.finish();
    EXPECT_EQ(counts.mallocs, 2);
    EXPECT_EQ(counts.times, 2);
    EXPECT_EQ(counts.localtimes, 2);

    harness::FileTrace file = closeAndRead();
    EXPECT_THAT(file.problems, ::testing::IsEmpty());
    EXPECT_EQ(matchLines({passwordLine, "JNI_DEBUG......errKeyIndex = -7"}, file.lines), "");
    // The raw file: exactly "YYYYmmdd|HH:MM:SS || " in front of each message.
    std::vector<std::string> raw = lines(harness::readFile(harness::traceFileName));
    ASSERT_EQ(raw.size(), 2u);
    EXPECT_EQ(raw[0].size(), 17 + 4 + passwordLine.size());
    EXPECT_EQ(raw[0].substr(8, 1) + raw[0].substr(11, 1) + raw[0].substr(14, 1), "|::");
    EXPECT_EQ(raw[0].substr(17, 4), " || ");
    // Standard error, when on, gets the same messages unstamped.
    std::vector<std::string> expected;
    if (harness::stderrChannelOn()) expected = {passwordLine, "JNI_DEBUG......errKeyIndex = -7"};
    EXPECT_EQ(matchLines(expected, lines(err)), "");
}

TEST_F(TraceFile, AMessageWithoutLineEndRunsIntoTheNext) {
    traceMessage("JNI_DEBUG......to construct a cert");
    traceMessage("JNI_DEBUG......next\n");
    harness::FileTrace file = closeAndRead();
    EXPECT_THAT(file.problems, ::testing::IsEmpty());
    EXPECT_EQ(matchLines({"JNI_DEBUG......to construct a certJNI_DEBUG......next"}, file.lines), "");
}

// When no stamped copy can be made the message still reaches the file, without its stamp.
TEST_F(TraceFile, AFailedStampAllocationWritesTheLineUnstamped) {
    counting::failNextMalloc();
    traceMessage(passwordFormat, percentArgument);
    traceMessage("JNI_DEBUG......after\n");
    zavkjni::closeTraceFile();
    std::vector<std::string> raw = lines(harness::readFile(harness::traceFileName));
    ASSERT_EQ(raw.size(), 2u);
    EXPECT_EQ(raw[0], passwordLine);
    EXPECT_THAT(raw[1], ::testing::EndsWith(" || JNI_DEBUG......after"));
}

TEST_F(TraceFile, NothingReachesTheFileOnceClosed) {
    traceMessage("JNI_DEBUG......before\n");
    zavkjni::closeTraceFile();
    StderrCapture capture;
    counting::arm();
    traceMessage("JNI_DEBUG......after\n");
    counting::Counts counts = counting::disarm();
    std::string err = capture.finish();
    harness::FileTrace file =
        harness::readTraceFile(harness::traceFileName, start_, static_cast<long>(time(nullptr)));
    EXPECT_EQ(matchLines({"JNI_DEBUG......before"}, file.lines), "");
    EXPECT_EQ(counts.times, 0) << "no stamp once the file is closed";
    EXPECT_EQ(lines(err).size(), harness::stderrChannelOn() ? 1u : 0u);
}

}  // namespace
