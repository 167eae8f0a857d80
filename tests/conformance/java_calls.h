// Natives called the way Java calls them: through their Java methods with the JVM's own JNIEnv,
// one call at a time against a freshly scripted fake.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include "rows.h"

namespace javacalls {

inline const char* const S = "Ljava/lang/String;";

// sig writes a method descriptor: "(" + parameters + ")" + result.
inline std::string sig(std::initializer_list<const char*> parameters, const char* result) {
    std::string text = "(";
    for (const char* parameter : parameters) text += parameter;
    return text + ")" + result;
}

// Java arguments.
inline jvalue s(const char* text) { return jvalue{.l = harness::str(text)}; }
inline jvalue i(jint value) { return jvalue{.i = value}; }
inline jvalue j(jlong value) { return jvalue{.j = value}; }
inline jvalue z(bool value) { return jvalue{.z = static_cast<jboolean>(value)}; }
inline jvalue o(jobject object) { return jvalue{.l = object}; }
inline jvalue bytes(const std::vector<uint8_t>& data) { return o(harness::byteArray(data)); }

// call scripts the fake, calls the method `name` of target (an object, or a class for a static
// method) through Java, and checks what it returned (an int or boolean as such, an object as 1
// or 0, an array as its length or -1), that no exception is pending, the library calls made (a
// line without "(" names only the operation), that every script was used and that no block is
// left behind.
inline void call(jobject target, bool isStatic, const std::string& name,
                 const std::string& signature, std::vector<jvalue> args,
                 std::vector<harness::Scripted> script, int64_t expected,
                 std::vector<std::string> journal) {
    SCOPED_TRACE(name);
    JNIEnv* env = harness::java();
    fake::reset();
    for (const harness::Scripted& scripted : script) fake::script(scripted.op, scripted.step);
    auto cls = isStatic ? static_cast<jclass>(target) : env->GetObjectClass(target);
    jmethodID id = isStatic ? env->GetStaticMethodID(cls, name.c_str(), signature.c_str())
                            : env->GetMethodID(cls, name.c_str(), signature.c_str());
    ASSERT_NE(id, nullptr) << signature;
    int64_t got = 0;
    switch (signature.back() == ';' ? signature[signature.find(')') + 1] : signature.back()) {
        case 'I':
            got = isStatic ? env->CallStaticIntMethodA(cls, id, args.data())
                           : env->CallIntMethodA(target, id, args.data());
            break;
        case 'Z':
            got = env->CallBooleanMethodA(target, id, args.data());
            break;
        case '[': {
            auto array = static_cast<jarray>(env->CallObjectMethodA(target, id, args.data()));
            got = array != nullptr ? env->GetArrayLength(array) : -1;
            break;
        }
        default:
            got = env->CallObjectMethodA(target, id, args.data()) != nullptr;
            break;
    }
    EXPECT_EQ(harness::exceptionText(), "");
    EXPECT_EQ(got, expected);
    std::vector<std::string> made = fake::journal();
    for (size_t n = 0; n < made.size() && n < journal.size(); ++n) {
        if (journal[n].find('(') == std::string::npos) made[n] = made[n].substr(0,
            made[n].find('('));
    }
    EXPECT_THAT(made, ::testing::ElementsAreArray(journal));
    EXPECT_THAT(fake::unusedScripts(), ::testing::IsEmpty());
    EXPECT_THAT(fake::errors(), ::testing::IsEmpty());
    EXPECT_EQ(fake::outstanding().size(), 0u) << "blocks left behind";
    fake::reset();
}

// JavaCall - one native called through Java on a new object of the suite's class.
struct JavaCall {
    std::string method;
    std::string signature;  // a method descriptor; "S" (outside a class name) is java.lang.String
    std::function<std::vector<jvalue>()> args;  // made in the test's own local frame
    std::vector<harness::Scripted> script;
    int64_t expected;
    std::vector<std::string> journal;
    std::function<void(jobject)> check = nullptr;  // further checks on the object called
    bool isStatic = false;                         // called on the class, not a new object
};

// play makes a new className and calls row's method on it.
inline void play(const char* className, const JavaCall& row) {
    std::string signature;
    bool inClassName = false;  // "S" inside "L...;" is a letter of the name
    for (char c : row.signature) {
        signature += c == 'S' && !inClassName ? std::string(S) : std::string(1, c);
        inClassName = c == 'L' ? true : c == ';' ? false : inClassName;
    }
    jobject target = row.isStatic ? harness::findClass(className) : harness::newObject(className,
        "()V");
    call(target, row.isStatic, row.method, signature, row.args(), row.script, row.expected,
        row.journal);
    if (row.check) row.check(target);
}

class ThroughJava : public harness::JvmTest {
  protected:
    void SetUp() override {
        harness::JvmTest::SetUp();
        fake::reset();
    }
    void TearDown() override {
        fake::reset();
        harness::JvmTest::TearDown();
    }
};

}  // namespace javacalls

// JAVA_CALLS(Suite, className, table) declares one test per JavaCall of `table`, each calling
// its native through Java on a new object of className.
#define JAVA_CALLS(Suite, className, table)                                                    \
    class Suite : public ::javacalls::ThroughJava,                                              \
                  public ::testing::WithParamInterface<::javacalls::JavaCall> {};              \
    TEST_P(Suite, Binds) { ::javacalls::play(className, GetParam()); }                          \
    INSTANTIATE_TEST_SUITE_P(Java, Suite, ::testing::ValuesIn(table),                           \
                             [](const ::testing::TestParamInfo<::javacalls::JavaCall>& info) {  \
                                 return info.param.method.substr(2);                            \
                             })
