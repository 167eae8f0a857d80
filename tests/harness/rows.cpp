#include "rows.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>

#include "capture.h"
#include "natives.h"

namespace harness {

void PrintTo(const Returned& value, std::ostream* out) {
    switch (value.kind) {
        case Returned::Kind::Nothing: *out << "nothing"; break;
        case Returned::Kind::Int: *out << "int " << value.value; break;
        case Returned::Kind::Boolean: *out << (value.value ? "true" : "false"); break;
        case Returned::Kind::Object: *out << (value.value ? "an object" : "null"); break;
    }
}

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

std::string rowName(const ::testing::TestParamInfo<Row>& info) { return info.param.name; }

std::vector<std::string> traceFileOpeningLines() {
    return {"JNI_KMSystem::ZAVKMInitDebug 0010, before ZAVKM_StartTrace",
            "JNI_KMSystem::ZAVKMInitDebug 0020, rc=0"};
}

std::vector<std::string> traceFileClosingLines() {
    return {"JNI_DEBUG......Entered KMSystem_c_ZAVKMCleanAll()."};
}

namespace {

std::string describe(const fake::Block& block) {
    return block.origin + " block of " + std::to_string(block.size) + " bytes" +
           (block.releasedBy.empty() ? "" : ", released by " + block.releasedBy);
}

// What is wrong with the fake's blocks after the call, given who owns them.
std::vector<std::string> blockProblems(const Row& row) {
    std::vector<std::string> problems;
    for (const fake::Block& block : fake::outstanding()) {
        if (row.blocks == Blocks::AllReleased || block.origin != "test") {
            problems.push_back("left behind: " + describe(block));
        }
    }
    if (row.blocks == Blocks::CallerKeeps) {
        for (const fake::Block& block : fake::released()) {
            if (block.origin == "test") problems.push_back("released: " + describe(block));
        }
    }
    return problems;
}

void play(const Row& row, bool traceFile) {
    SCOPED_TRACE(traceFile ? "played with the trace file on" : "played with the trace file off");
    const long start = static_cast<long>(time(nullptr));
    if (traceFile) {
        remove(traceFileName);
        Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug(nullptr, nullptr, JNI_FALSE,
                                                                      JNI_TRUE);
    }
    fake::reset();
    for (const Scripted& scripted : row.script) fake::script(scripted.op, scripted.step);

    Ledger ledger(java());
    Context context{ledger.env(), ledger};
    StderrCapture capture;
    Returned got = row.call(context);
    std::string stderrText = capture.finish();

    EXPECT_EQ(got, row.returns);
    EXPECT_THAT(fake::journal(), ::testing::ElementsAreArray(row.journal));
    EXPECT_THAT(fake::unusedScripts(), ::testing::IsEmpty()) << "scripted but never called";
    EXPECT_THAT(fake::errors(), ::testing::IsEmpty());
    EXPECT_THAT(blockProblems(row), ::testing::IsEmpty());
    const std::vector<std::string> noLines;
    EXPECT_EQ(matchLines(stderrChannelOn() ? row.trace : noLines, lines(stderrText)), "")
        << "standard error:\n" << stderrText;
    EXPECT_THAT(ledger.forbidden(), ::testing::IsEmpty()) << "JNI functions outside the set";
    if (row.givenBack.empty()) {
        EXPECT_THAT(ledger.stringProblems(), ::testing::IsEmpty());
    } else {
        std::map<const char*, std::string> texts;  // a given-back event holds no text
        std::vector<std::string> given;
        for (const Ledger::StringEvent& event : ledger.strings()) {
            if (event.taken) texts[event.chars] = event.text;
            else given.push_back(texts[event.chars]);
        }
        EXPECT_THAT(given, ::testing::ElementsAreArray(row.givenBack)) << "texts given back";
        for (const std::string& problem : ledger.stringProblems()) {
            EXPECT_EQ(problem.rfind("text released out of the order taken", 0), 0u) << problem;
        }
    }
    EXPECT_THAT(ledger.arrayProblems(), ::testing::IsEmpty());
    if (row.check) row.check(context, got);
    std::string pending = exceptionText();
    EXPECT_EQ(pending, "") << "Java exception left pending";

    if (traceFile) {
        Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll(nullptr, nullptr);
        FileTrace file = readTraceFile(traceFileName, start, static_cast<long>(time(nullptr)));
        std::vector<std::string> expected = traceFileOpeningLines();
        expected.insert(expected.end(), row.trace.begin(), row.trace.end());
        for (const std::string& line : traceFileClosingLines()) expected.push_back(line);
        EXPECT_EQ(matchLines(expected, file.lines), "") << "trace file";
        EXPECT_THAT(file.problems, ::testing::IsEmpty());
    }
    fake::reset();
}

}  // namespace

void runRow(const Row& row) {
    play(row, false);
    if (row.channels == Channels::Both) play(row, true);
}

}  // namespace harness
