// The JNI ledger: a JNIEnv for the native under test. The functions natives may use are
// recorded and forwarded to the real JNIEnv of the thread (jni.h's C++ wrappers of the variadic
// ones call the "V" variants, recorded under the variadic name); every other slot of the table
// only records that it was called, by its index in JNINativeInterface_. Set up arguments with
// the real env.
#pragma once

#include <jni.h>

#include <memory>
#include <string>
#include <vector>

namespace harness {

class Ledger {
public:
    // A Java string's UTF-8 text taken (GetStringUTFChars) or given back (ReleaseStringUTFChars).
    struct StringEvent {
        bool taken;
        jstring string;
        const char* chars;
        std::string text;    // the text, read when it was taken
        size_t journalAt;    // how many library calls the fake had journaled by then
    };
    struct Env;

    explicit Ledger(JNIEnv* real);
    ~Ledger();
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    JNIEnv* env() const;
    const std::vector<StringEvent>& strings() const { return strings_; }

    // forbidden lists the calls of functions outside the set natives may use.
    const std::vector<std::string>& forbidden() const { return forbidden_; }
    // stringProblems: a text not given back in the order taken, never given back, or taken
    // with a copy flag asked for. Empty when all is well.
    std::vector<std::string> stringProblems() const;
    // arrayProblems: byte-array elements never released, released twice or written back.
    std::vector<std::string> arrayProblems() const;

    // Used by the table's functions.
    void outside(size_t index) { forbidden_.push_back("JNI function #" + std::to_string(index)); }
    void noteString(bool taken, jstring string, const char* chars, bool copyFlagAsked);
    void noteElements(bool taken, const jbyte* elements, jint mode);

private:
    struct Elements {
        bool taken;
        const jbyte* elements;
        jint mode;
    };
    std::unique_ptr<Env> env_;
    std::vector<std::string> forbidden_;
    std::vector<StringEvent> strings_;
    std::vector<Elements> elements_;
    size_t copyFlagsAsked_ = 0;
};

}  // namespace harness
