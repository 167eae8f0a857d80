// The Java virtual machine of a test binary, created in-process once (with -Xcheck:jni), and
// small helpers to set up Java arguments and read Java results with the real JNIEnv.
#pragma once

#include <gtest/gtest.h>
#include <jni.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace harness {

// JvmEnvironment creates the JVM in SetUp: class path = the binding's jar and the test classes,
// java.library.path = the bridge's directory (both given to the build as ZAV_TEST_CLASS_PATH and
// ZAV_TEST_LIBRARY_PATH). A failure to create it ends the process.
class JvmEnvironment : public ::testing::Environment {
public:
    void SetUp() override;
};

// java is the main thread's real JNIEnv (for test-side setup and reading results).
JNIEnv* java();

// JvmTest is the fixture of tests that touch Java: each test runs in its own local frame, so
// the local references made by the test and by the natives it calls die with the test.
class JvmTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// ---- Setting up arguments (each checks for, reports and clears a pending Java exception) ------

jclass findClass(const char* name);
jstring str(const char* text);                // null for null
jbyteArray byteArray(const std::vector<uint8_t>& bytes);
jobject newObject(const char* className, const char* signature, ...);

// ---- Reading results ---------------------------------------------------------------------------

std::optional<std::string> text(jstring string);  // nullopt for a null string
std::optional<std::vector<uint8_t>> bytes(jbyteArray array);  // nullopt for null
jobject callObject(jobject object, const char* method, const char* signature, ...);
jint callInt(jobject object, const char* method, const char* signature, ...);
jlong callLong(jobject object, const char* method, const char* signature, ...);
jshort callShort(jobject object, const char* method, const char* signature, ...);
jboolean callBoolean(jobject object, const char* method, const char* signature, ...);
jobject callStaticObject(const char* className, const char* method, const char* signature, ...);
std::optional<std::string> callString(jobject object, const char* method);  // "()Ljava/lang/String;"
std::optional<std::vector<uint8_t>> callBytes(jobject object, const char* method);  // "()[B"
void callStaticVoid(const char* className, const char* method, const char* signature, ...);
std::string className(jobject object);  // "" for null
std::vector<jint> ints(jintArray array);
std::vector<std::optional<std::string>> strings(jobjectArray array);  // of String
std::vector<jobject> objects(jobjectArray array);
// listOfStrings reads a java.util.List of String.
std::vector<std::string> listOfStrings(jobject list);

// exceptionText returns the pending Java exception's text and clears it ("" when none).
std::string exceptionText();

}  // namespace harness
