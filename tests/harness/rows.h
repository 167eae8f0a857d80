// Conformance rows: one row is one scenario of one native, as data: what the fake library
// answers, the call, and what must come of it (the journal of library calls, the trace lines,
// the return value). runRow plays a row twice, once with the trace file off and once with it
// on, and checks both channels, the fake's blocks and the JNI ledger each time.
#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "fake.h"
#include "jvm.h"
#include "ledger.h"

namespace harness {

// Returned - what a native returned: nothing, an int, a boolean, or an object (for objects
// only null or not is compared; `object` keeps it for the row's check).
struct Returned {
    enum class Kind { Nothing, Int, Boolean, Object } kind = Kind::Nothing;
    int64_t value = 0;
    jobject object = nullptr;

    bool operator==(const Returned& other) const {
        return kind == other.kind && value == other.value;
    }
};
inline Returned returned(jint value) { return {Returned::Kind::Int, value, nullptr}; }
inline Returned returned(jboolean value) { return {Returned::Kind::Boolean, value, nullptr}; }
inline Returned returned(jobject object) {
    return {Returned::Kind::Object, object != nullptr, object};
}
inline Returned returnedNothing() { return {}; }
void PrintTo(const Returned& returned, std::ostream* out);

// What a row expects back.
inline Returned rc(jint code) { return returned(code); }
inline const Returned yes = {Returned::Kind::Boolean, JNI_TRUE, nullptr};
inline const Returned no = {Returned::Kind::Boolean, JNI_FALSE, nullptr};
inline const Returned nullObject = {Returned::Kind::Object, 0, nullptr};
inline const Returned someObject = {Returned::Kind::Object, 1, nullptr};
inline const Returned nothing = {};

// Context - what a row's call and check work with.
struct Context {
    JNIEnv* env;     // the ledger's JNIEnv: hand it to the native
    Ledger& ledger;  // what the native did through it
    jobject subject = nullptr;  // a Java object the call made (a `this`, a callback receiver)
};

// One scripted answer of the fake: the operation and its step.
struct Scripted {
    std::string op;
    fake::Step step;
};

// Who owns the fake's blocks once the call returns.
enum class Blocks {
    AllReleased,  // a native: every block it got, and the records the test scripted, released
    CallerKeeps,  // a conversion: the test's records untouched, the library's blocks released
};

// Trace channels a row is played with.
enum class Channels {
    Both,        // trace file off, then on
    StderrOnly,  // natives that switch the trace file themselves
};

struct Row {
    std::string name;               // letters, digits and "_": part of the test's name
    std::vector<Scripted> script;   // the fake's answers, in order per operation
    std::function<Returned(Context&)> call;
    std::vector<std::string> journal;  // the library calls, as the fake journals them
    std::vector<std::string> trace;    // the trace lines, without "\n" ({ref}, {ptr} wildcards)
    Returned returns;
    std::function<void(Context&, const Returned&)> check = nullptr;  // further checks
    Channels channels = Channels::Both;
    Blocks blocks = Blocks::AllReleased;
    // The texts in the order the native gives them back, for the natives that do not give them
    // back in the order taken (label texts given back as soon as they are copied, strings given
    // back in another fixed order). Empty: the order taken.
    std::vector<std::string> givenBack = {};
};
void PrintTo(const Row& row, std::ostream* out);

// runRow plays row and records every disagreement as a gtest failure.
void runRow(const Row& row);

// The lines the trace file gets from c_ZAVKMInitDebug(false, true) before a row's own lines,
// and from c_ZAVKMCleanAll after them.
std::vector<std::string> traceFileOpeningLines();
std::vector<std::string> traceFileClosingLines();

// rowName names a row's gtest instance.
std::string rowName(const ::testing::TestParamInfo<Row>& info);

}  // namespace harness

// CONFORMANCE_ROWS(Suite, table) declares the gtest suite Suite with one test per row of the
// vector `table` ("Rows/Suite.Row/<row name>").
#define CONFORMANCE_ROWS(Suite, table)                                                           \
    class Suite : public ::harness::JvmTest, public ::testing::WithParamInterface<::harness::Row> { \
    };                                                                                          \
    TEST_P(Suite, Row) { ::harness::runRow(GetParam()); }                                       \
    INSTANTIATE_TEST_SUITE_P(Rows, Suite, ::testing::ValuesIn(table), ::harness::rowName)
