// Plays every row of the table and its variants, and checks each play twice over: against the
// outcome expected.txt holds for it, and against what every play must keep whatever the native
// (no block of the library left, every Java string given back, every store opened closed, only
// allowed JNI functions, both trace channels alike). ZAV_NATIVES_RECORD=<file> writes the
// outcomes instead of comparing them, for a reviewer to read and commit as expected.txt.
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>

#include "capture.h"
#include "com_norvex_zav_tolvik_basic_KMSystem.h"
#include "jvm.h"
#include "ledger.h"
#include "natives.h"

namespace {

using Lines = std::vector<std::string>;
using harness::java;

// A variant of a row: all arguments given, argument `nulled` null, the failable call `failing`
// of the library failing, or the bridge's own allocation `starved` failing.
struct Variant {
    const natives::Row* row;
    int nulled = -1;
    size_t failing = 0;
    size_t starved = 0;
    std::string name() const {
        return row->name + (nulled >= 0 ? " null " + std::to_string(nulled) : "") +
               (failing ? " fail " + std::to_string(failing) : "") +
               (starved ? " starve " + std::to_string(starved) : "");
    }
};

// The bridge's objects are linked in with their malloc, calloc, realloc and free renamed to
// these (tests/CMakeLists.txt): its own allocations are counted, and one of them can fail.
std::atomic<size_t> allocations{0};
std::atomic<size_t> starveAt{0};
bool starve() { return ++allocations == starveAt; }

}  // namespace

extern "C" {
void* zav_counted_malloc(size_t n) { return starve() ? nullptr : malloc(n); }
void* zav_counted_calloc(size_t count, size_t n) { return starve() ? nullptr : calloc(count, n); }
void* zav_counted_realloc(void* block, size_t n) {
    if (starve()) return nullptr;
    fake::noteFree(block);
    return realloc(block, n);
}
void zav_counted_free(void* block) {
    fake::noteFree(block);
    free(block);
}
}

namespace {

std::map<std::string, Lines>& outcomes() {  // expected (read) or recorded (written)
    static std::map<std::string, Lines> all;
    return all;
}
const char* recordPath() { return getenv("ZAV_NATIVES_RECORD"); }

void readExpected() {
    std::ifstream in(ZAV_NATIVES_EXPECTED);
    std::string line, name;
    while (std::getline(in, line)) {
        if (line.rfind("== ", 0) == 0) name = line.substr(3);
        else if (!line.empty()) outcomes()[name].push_back(line);
    }
}

struct Record : ::testing::Environment {
    void SetUp() override {
        if (!recordPath()) readExpected();
        std::ofstream("c.der", std::ios::binary) << std::string("\x30\x01\x02", 3);
    }
    void TearDown() override {
        if (!recordPath()) return;
        std::ofstream out(recordPath());
        for (const auto& [name, lines] : outcomes()) {
            out << "== " << name << "\n";
            for (const std::string& line : lines) out << line << "\n";
            out << "\n";
        }
    }
};
const auto* const recordEnvironment = ::testing::AddGlobalTestEnvironment(new Record);

// References and pointers print differently each run.
std::string steady(const std::string& line) {
    static const std::regex address("0x[0-9a-fA-F]+|\\(nil\\)");
    return std::regex_replace(line, address, "0x_");
}

std::string dump(const char* method, jobject object) {
    jobject text = object ? harness::callStaticObject("zavtest/Dump", method,
                                                      "(Ljava/lang/Object;)Ljava/lang/String;", object)
                          : harness::callStaticObject("zavtest/Dump", method, "()Ljava/lang/String;");
    return harness::text(static_cast<jstring>(text)).value_or("?");
}

// The files of the working directory held open (the JVM opens files of its own meanwhile).
size_t openFiles() {
    const std::string here = std::filesystem::current_path().string() + "/";
    size_t count = 0;
    for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        count += std::filesystem::read_symlink(fd.path(), error).string().rfind(here, 0) == 0 ? 1 : 0;
    }
    return count;
}

bool isStore(const std::string& line, const char* what) {
    return line.rfind(std::string("ZAVKM_") + what, 0) == 0;
}

// What a play came to, as lines, and what it kept of every play's duties (gtest failures).
struct Play {
    Lines outcome;  // returns, journal, given, this, statics, adopted, exception
    Lines trace;    // standard error, when that channel is on; else the trace file's
    size_t failable = 0;
    size_t allocations = 0;
};

Play play(const Variant& v, bool traceFile) {
    const natives::Row& row = *v.row;
    const long start = static_cast<long>(time(nullptr));
    if (traceFile) {
        remove(harness::traceFileName);
        Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug(nullptr, nullptr, JNI_FALSE, JNI_TRUE);
    }
    java()->PushLocalFrame(512);
    fake::reset();
    for (const auto& [op, step] : row.script) fake::script(op, step);
    fake::failCall(v.failing);
    std::vector<jvalue> args;
    for (const natives::Arg& make : row.args) args.push_back(make());
    if (v.nulled >= 0) args[static_cast<size_t>(v.nulled)].l = nullptr;

    harness::Ledger ledger(java());
    const size_t files = openFiles();
    harness::StderrCapture capture;
    allocations = 0;
    starveAt = v.starved;
    jobject object = nullptr;
    std::string returned = row.native.call(ledger.env(), args, object);
    starveAt = 0;
    const std::string stderrText = capture.finish();
    if (row.switchesTraceFile) {  // its own trace file, closed by CleanAll
        Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll(nullptr, nullptr);
    }
    const size_t filesAfter = openFiles();

    Play p;
    p.failable = fake::failableCalls();
    p.allocations = allocations;
    std::string exception = harness::exceptionText();
    p.outcome.push_back("returns " + returned + (object ? " " + dump("of", object) : ""));
    int open = 0;
    for (const std::string& line : fake::journal()) {
        p.outcome.push_back("journal " + steady(line));
        const bool failed = line.size() > 7 && line.compare(line.size() - 7, 7, " failed") == 0;
        open += !failed && (isStore(line, "Open") || isStore(line, "CreateNewKeyDb")) ? 1 : 0;
        open -= isStore(line, "CloseKeyDb") ? 1 : 0;
    }
    std::string given = "given";
    std::map<const char*, std::string> held;  // a given-back event holds no text
    for (const harness::Ledger::StringEvent& e : ledger.strings()) {
        if (e.taken) held[e.chars] = e.text;
        else given += " " + std::to_string(e.journalAt) + ":" + held[e.chars];
    }
    p.outcome.push_back(given);
    if (!args.empty() && args[0].l && !java()->IsInstanceOf(args[0].l, java()->FindClass("java/lang/Class")) &&
        harness::className(args[0].l).rfind("zavtest.", 0) == 0) {
        p.outcome.push_back("this " + dump("of", args[0].l));
    }
    p.outcome.push_back("statics " + dump("statics", nullptr));
    for (const fake::Block& block : fake::adopted()) {
        p.outcome.push_back("adopted " + fake::hex(static_cast<const uint8_t*>(block.ptr), 4));
    }
    if (!exception.empty()) p.outcome.push_back("exception " + exception);
    if (row.switchesTraceFile) {
        for (const std::string& line :
             harness::readTraceFile(harness::traceFileName, start, static_cast<long>(time(nullptr))).lines) {
            p.outcome.push_back("file " + steady(line));
        }
    }

    // What every play keeps: a failing call takes the place of the steps scripted for it.
    SCOPED_TRACE(v.name());
    for (const fake::Block& block : fake::outstanding()) {
        ADD_FAILURE() << "left behind: " << block.origin << " block of " << block.size << " bytes";
    }
    EXPECT_THAT(fake::errors(), ::testing::IsEmpty());
    EXPECT_EQ(open, 0) << "stores opened and closed";
    EXPECT_EQ(filesAfter, files) << "file descriptors left open";
    EXPECT_THAT(ledger.forbidden(), ::testing::IsEmpty()) << "JNI functions outside the set";
    for (const std::string& problem : ledger.stringProblems()) {
        EXPECT_EQ(problem.rfind("text released out of the order taken", 0), 0u) << problem;
    }
    EXPECT_THAT(ledger.arrayProblems(), ::testing::IsEmpty());
    if (!v.failing && v.nulled < 0 && !v.starved) {
        EXPECT_THAT(fake::unusedScripts(), ::testing::IsEmpty());
    }
    java()->PopLocalFrame(nullptr);

    if (harness::stderrChannelOn()) {
        for (const std::string& line : harness::lines(stderrText)) p.trace.push_back(steady(line));
    } else {
        EXPECT_EQ(stderrText, "") << "standard error traced while TOLVIK_JNI_DEBUG is unset";
    }
    if (traceFile) {
        Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll(nullptr, nullptr);
        harness::FileTrace file =
            harness::readTraceFile(harness::traceFileName, start, static_cast<long>(time(nullptr)));
        EXPECT_THAT(file.problems, ::testing::IsEmpty());
        Lines lines;
        for (const std::string& line : file.lines) lines.push_back(steady(line));
        // The file holds InitDebug's two lines, the native's, and CleanAll's one.
        EXPECT_GE(lines.size(), 3u);
        if (lines.size() >= 3) lines = Lines(lines.begin() + 2, lines.end() - 1);
        if (harness::stderrChannelOn()) {
            EXPECT_EQ(lines, p.trace) << "the trace file differs from standard error";
        }
        p.trace = lines;
    }
    fake::reset();
    return p;
}

// Plays a variant (and, with both channels, again with the trace file on) and compares it with
// its expected outcome.
Play check(const Variant& v, bool bothChannels) {
    Play p = play(v, false);
    if (v.starved) return p;  // how many allocations a play makes depends on the trace
    const bool traced = harness::stderrChannelOn();
    if (bothChannels) {
        Play withFile = play(v, true);
        EXPECT_EQ(withFile.outcome, p.outcome) << v.name() << ": the trace file changed the outcome";
        p.trace = withFile.trace;
    }
    Lines got = p.outcome;
    if (traced || bothChannels) {
        for (const std::string& line : p.trace) got.push_back("trace " + line);
    }
    if (recordPath()) {
        outcomes()[v.name()] = got;
        return p;
    }
    Lines expected;
    for (const std::string& line : outcomes()[v.name()]) {
        if (line.rfind("trace ", 0) != 0 || traced || bothChannels) expected.push_back(line);
    }
    EXPECT_EQ(::testing::PrintToString(expected), ::testing::PrintToString(got)) << v.name();
    return p;
}

class Natives : public harness::JvmTest, public ::testing::WithParamInterface<natives::Row> {};

TEST_P(Natives, NormalNullsAndFailures) {
    const natives::Row& row = GetParam();
    const Play normal = check({&row}, !row.switchesTraceFile);
    for (size_t n = 1; n <= normal.allocations; ++n) check({&row, -1, 0, n}, false);
    for (size_t i = 0; i < row.args.size(); ++i) {
        if (row.native.references[i]) check({&row, static_cast<int>(i)}, false);
    }
    for (size_t k = 1; k <= normal.failable; ++k) check({&row, -1, k}, false);
}

INSTANTIATE_TEST_SUITE_P(Table, Natives, ::testing::ValuesIn(natives::table()),
                         [](const auto& info) {
                             std::string name = info.param.name;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new harness::JvmEnvironment);
    return RUN_ALL_TESTS();
}
