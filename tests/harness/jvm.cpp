#include "jvm.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace harness {
namespace {

JNIEnv* theEnv = nullptr;

void checkException(const char* what) {
    std::string pending = exceptionText();
    if (!pending.empty()) ADD_FAILURE() << what << ": Java exception " << pending;
}

}  // namespace

void JvmEnvironment::SetUp() {
    if (theEnv != nullptr) return;
    std::vector<std::string> texts = {"-Xcheck:jni",
                                      std::string("-Djava.class.path=") + ZAV_TEST_CLASS_PATH,
                                      std::string("-Djava.library.path=") + ZAV_TEST_LIBRARY_PATH};
    std::istringstream words(getenv("ZAV_TEST_JVM_OPTIONS") ? getenv("ZAV_TEST_JVM_OPTIONS") : "");
    for (std::string word; words >> word;) texts.push_back(word);
    std::vector<JavaVMOption> options;
    for (std::string& option : texts) options.push_back(JavaVMOption{option.data(), nullptr});
    JavaVMInitArgs args{JNI_VERSION_10, static_cast<jint>(options.size()), options.data(), JNI_FALSE};
    JavaVM* vm = nullptr;
    void* env = nullptr;
    if (JNI_CreateJavaVM(&vm, &env, &args) != JNI_OK) {
        fprintf(stderr, "cannot create the Java virtual machine\n");
        exit(2);
    }
    theEnv = static_cast<JNIEnv*>(env);
}

JNIEnv* java() { return theEnv; }

void JvmTest::SetUp() {
    ASSERT_NE(java(), nullptr) << "no Java virtual machine";
    ASSERT_EQ(java()->PushLocalFrame(64), 0);
}

void JvmTest::TearDown() {
    checkException("test end");
    java()->PopLocalFrame(nullptr);
}

std::string exceptionText() {
    if (!java()->ExceptionCheck()) return "";
    jthrowable thrown = java()->ExceptionOccurred();
    java()->ExceptionClear();
    jmethodID toString = java()->GetMethodID(java()->GetObjectClass(thrown), "toString", "()Ljava/lang/String;");
    auto shown = static_cast<jstring>(java()->CallObjectMethod(thrown, toString));
    java()->ExceptionClear();
    return text(shown).value_or("(exception)");
}

jclass findClass(const char* name) {
    jclass cls = java()->FindClass(name);
    checkException(name);
    return cls;
}

jstring str(const char* textIn) {
    return textIn == nullptr ? nullptr : java()->NewStringUTF(textIn);
}

jbyteArray byteArray(const std::vector<uint8_t>& bytes) {
    jbyteArray array = java()->NewByteArray(static_cast<jsize>(bytes.size()));
    java()->SetByteArrayRegion(array, 0, static_cast<jsize>(bytes.size()),
                               reinterpret_cast<const jbyte*>(bytes.data()));
    return array;
}

jobject newObject(const char* name, const char* signature, ...) {
    jclass cls = findClass(name);
    jmethodID ctor = java()->GetMethodID(cls, "<init>", signature);
    checkException(signature);
    va_list args;
    va_start(args, signature);
    jobject object = ctor ? java()->NewObjectV(cls, ctor, args) : nullptr;
    va_end(args);
    checkException(name);
    return object;
}

jobject callStaticObject(const char* name, const char* method, const char* signature, ...) {
    jclass cls = findClass(name);
    jmethodID id = java()->GetStaticMethodID(cls, method, signature);
    checkException(method);
    va_list args;
    va_start(args, signature);
    jobject result = id ? java()->CallStaticObjectMethodV(cls, id, args) : nullptr;
    va_end(args);
    checkException(method);
    return result;
}

std::optional<std::string> text(jstring string) {
    if (string == nullptr) return std::nullopt;
    const char* chars = java()->GetStringUTFChars(string, nullptr);
    std::string copy = chars != nullptr ? chars : "";
    java()->ReleaseStringUTFChars(string, chars);
    return copy;
}

std::string className(jobject object) {
    if (object == nullptr) return "";
    jobject cls = java()->GetObjectClass(object);
    jmethodID getName = java()->GetMethodID(java()->GetObjectClass(cls), "getName", "()Ljava/lang/String;");
    return text(static_cast<jstring>(java()->CallObjectMethod(cls, getName))).value_or("");
}

}  // namespace harness
