// Natives called the way Java calls them: through their Java methods with the JVM's own JNIEnv,
// one call at a time against a freshly scripted fake.
#pragma once

#include <gmock/gmock.h>

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
inline jvalue z(bool value) { return jvalue{.z = static_cast<jboolean>(value)}; }
inline jvalue o(jobject object) { return jvalue{.l = object}; }
inline jvalue bytes(const std::vector<uint8_t>& data) { return o(harness::byteArray(data)); }

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

    // call scripts the fake, calls the method `name` of target (an object, or a class for a
    // static method) through Java, and checks what it returned (an int or boolean as such, an
    // object as 1 or 0, an array as its length or -1), that no exception is pending, the
    // library calls made, that every script was used and that no block is left behind.
    void call(jobject target, bool isStatic, const char* name, const std::string& signature,
              std::vector<jvalue> args, std::vector<harness::Scripted> script, int64_t expected,
              std::vector<std::string> journal) {
        SCOPED_TRACE(name);
        JNIEnv* env = harness::java();
        fake::reset();
        for (const harness::Scripted& scripted : script) fake::script(scripted.op, scripted.step);
        auto cls = isStatic ? static_cast<jclass>(target) : env->GetObjectClass(target);
        jmethodID id = isStatic ? env->GetStaticMethodID(cls, name, signature.c_str())
                                : env->GetMethodID(cls, name, signature.c_str());
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
        EXPECT_THAT(fake::journal(), ::testing::ElementsAreArray(journal));
        EXPECT_THAT(fake::unusedScripts(), ::testing::IsEmpty());
        EXPECT_THAT(fake::errors(), ::testing::IsEmpty());
        EXPECT_EQ(fake::outstanding().size(), 0u) << "blocks left behind";
        fake::reset();
    }
};

}  // namespace javacalls
