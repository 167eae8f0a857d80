// The Java virtual machine of a test binary, created in-process once (with -Xcheck:jni), and
// the few helpers that set up Java arguments and read Java results with the real JNIEnv.
#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace harness {

// JvmEnvironment creates the JVM: class path = the binding's jar and the test classes,
// java.library.path = the bridge's directory, plus the blank-separated ZAV_TEST_JVM_OPTIONS.
class JvmEnvironment : public ::testing::Environment {
public:
    void SetUp() override;
};

JNIEnv* java();  // the main thread's real JNIEnv

// JvmTest runs each test in its own local frame.
class JvmTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// Each reports and clears a pending Java exception.
jclass findClass(const char* name);
jstring str(const char* text);  // null for null
jbyteArray byteArray(const std::vector<uint8_t>& bytes);
jobject newObject(const char* className, const char* signature, ...);
jobject callStaticObject(const char* className, const char* method, const char* signature, ...);
std::optional<std::string> text(jstring string);  // nullopt for null
std::string className(jobject object);            // "" for null

// exceptionText returns the pending Java exception's text and clears it ("" when none).
std::string exceptionText();

}  // namespace harness
