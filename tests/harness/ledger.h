// The JNI ledger: a JNIEnv whose function table records each JNI function a native calls, then
// forwards the call to the real JNIEnv of the thread (variadic functions through their "V"
// variant). Hand ledger.env() to the native under test; set up arguments with the real env.
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
        std::string text;  // the text, read when it was taken
    };

    // Ledger wraps real, the JNIEnv of the current thread.
    explicit Ledger(JNIEnv* real);
    ~Ledger();
    Ledger(const Ledger&) = delete;
    Ledger& operator=(const Ledger&) = delete;

    // env is the JNIEnv to hand to a native.
    JNIEnv* env() const;

    // calls names every JNI function called, in order.
    const std::vector<std::string>& calls() const { return calls_; }
    const std::vector<StringEvent>& strings() const { return strings_; }

    // forbidden lists the functions called that are outside the set natives may use.
    std::vector<std::string> forbidden() const;

    // stringProblems describes what is wrong with the strings taken: a release that is not of
    // the oldest text still held (texts go back in the order taken), a text never released, a
    // copy flag asked for. Empty when all is well.
    std::vector<std::string> stringProblems() const;

    // arrayProblems describes byte-array elements never released, released twice, or released
    // with a mode that writes back into the Java array.
    std::vector<std::string> arrayProblems() const;

    // The names of the JNI functions natives may use.
    static const std::vector<std::string>& allowed();

    // The wrapped JNIEnv with its function table (defined with the table).
    struct Env;

    // Used by the recording functions of the table.
    void note(const char* function) { calls_.emplace_back(function); }
    void noteString(bool taken, jstring string, const char* chars, bool copyFlagAsked);
    void noteElements(bool taken, jbyteArray array, const jbyte* elements, jint mode);

private:
    struct Elements {
        bool taken;
        jbyteArray array;
        const jbyte* elements;
        jint mode;
    };
    std::unique_ptr<Env> env_;
    std::vector<std::string> calls_;
    std::vector<StringEvent> strings_;
    std::vector<Elements> elements_;
    size_t copyFlagsAsked_ = 0;
};

}  // namespace harness
