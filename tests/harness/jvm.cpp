#include "jvm.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace harness {
namespace {

JavaVM* theVm = nullptr;
JNIEnv* theEnv = nullptr;

// Reports a pending Java exception as a test failure and clears it.
void checkException(const char* what) {
    std::string pending = exceptionText();
    if (!pending.empty()) ADD_FAILURE() << what << ": Java exception " << pending;
}

jmethodID method(jobject object, const char* name, const char* signature) {
    jclass cls = java()->GetObjectClass(object);
    jmethodID id = java()->GetMethodID(cls, name, signature);
    checkException(name);
    return id;
}

}  // namespace

void JvmEnvironment::SetUp() {
    if (theVm != nullptr) return;
    std::string classPath = std::string("-Djava.class.path=") + ZAV_TEST_CLASS_PATH;
    std::string libraryPath = std::string("-Djava.library.path=") + ZAV_TEST_LIBRARY_PATH;
    std::vector<std::string> texts = {"-Xcheck:jni", classPath, libraryPath};
    // Further options for special runs (the sanitizer runs), separated by blanks.
    if (const char* extra = getenv("ZAV_TEST_JVM_OPTIONS")) {
        std::istringstream words(extra);
        for (std::string word; words >> word;) texts.push_back(word);
    }
    std::vector<JavaVMOption> options;
    for (std::string& option : texts) options.push_back(JavaVMOption{option.data(), nullptr});
    JavaVMInitArgs args{};
    args.version = JNI_VERSION_10;
    args.nOptions = static_cast<jint>(options.size());
    args.options = options.data();
    args.ignoreUnrecognized = JNI_FALSE;
    void* env = nullptr;
    if (JNI_CreateJavaVM(&theVm, &env, &args) != JNI_OK) {
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
    jclass cls = java()->GetObjectClass(thrown);
    jmethodID toString = java()->GetMethodID(cls, "toString", "()Ljava/lang/String;");
    auto shown = static_cast<jstring>(java()->CallObjectMethod(thrown, toString));
    java()->ExceptionClear();
    std::optional<std::string> textOf = text(shown);
    return textOf ? *textOf : "(exception)";
}

jclass findClass(const char* name) {
    jclass cls = java()->FindClass(name);
    checkException(name);
    return cls;
}

jstring str(const char* textIn) {
    if (textIn == nullptr) return nullptr;
    jstring string = java()->NewStringUTF(textIn);
    checkException("NewStringUTF");
    return string;
}

jbyteArray byteArray(const std::vector<uint8_t>& bytesIn) {
    jbyteArray array = java()->NewByteArray(static_cast<jsize>(bytesIn.size()));
    if (!bytesIn.empty()) {
        java()->SetByteArrayRegion(array, 0, static_cast<jsize>(bytesIn.size()),
                                   reinterpret_cast<const jbyte*>(bytesIn.data()));
    }
    checkException("byteArray");
    return array;
}

jobject newObject(const char* name, const char* signature, ...) {
    jclass cls = findClass(name);
    if (cls == nullptr) return nullptr;
    jmethodID ctor = java()->GetMethodID(cls, "<init>", signature);
    checkException(signature);
    if (ctor == nullptr) return nullptr;
    va_list args;
    va_start(args, signature);
    jobject object = java()->NewObjectV(cls, ctor, args);
    va_end(args);
    checkException(name);
    return object;
}

std::optional<std::string> text(jstring string) {
    if (string == nullptr) return std::nullopt;
    const char* chars = java()->GetStringUTFChars(string, nullptr);
    std::string copy = chars != nullptr ? chars : "";
    java()->ReleaseStringUTFChars(string, chars);
    return copy;
}

std::optional<std::vector<uint8_t>> bytes(jbyteArray array) {
    if (array == nullptr) return std::nullopt;
    std::vector<uint8_t> copy(static_cast<size_t>(java()->GetArrayLength(array)));
    if (!copy.empty()) {
        java()->GetByteArrayRegion(array, 0, static_cast<jsize>(copy.size()),
                                   reinterpret_cast<jbyte*>(copy.data()));
    }
    return copy;
}

#define HARNESS_CALL_(Type, jtype, fallback)                                                   \
    jtype call##Type(jobject object, const char* name, const char* signature, ...) {          \
        if (object == nullptr) {                                                               \
            ADD_FAILURE() << name << " called on null";                                        \
            return fallback;                                                                   \
        }                                                                                      \
        jmethodID id = method(object, name, signature);                                        \
        if (id == nullptr) return fallback;                                                    \
        va_list args;                                                                          \
        va_start(args, signature);                                                             \
        jtype result = java()->Call##Type##MethodV(object, id, args);                          \
        va_end(args);                                                                          \
        checkException(name);                                                                  \
        return result;                                                                         \
    }
HARNESS_CALL_(Object, jobject, nullptr)
HARNESS_CALL_(Int, jint, 0)
HARNESS_CALL_(Long, jlong, 0)
HARNESS_CALL_(Short, jshort, 0)
HARNESS_CALL_(Boolean, jboolean, JNI_FALSE)
#undef HARNESS_CALL_

jobject callStaticObject(const char* name, const char* methodName, const char* signature, ...) {
    jclass cls = findClass(name);
    if (cls == nullptr) return nullptr;
    jmethodID id = java()->GetStaticMethodID(cls, methodName, signature);
    checkException(methodName);
    if (id == nullptr) return nullptr;
    va_list args;
    va_start(args, signature);
    jobject result = java()->CallStaticObjectMethodV(cls, id, args);
    va_end(args);
    checkException(methodName);
    return result;
}

void callStaticVoid(const char* name, const char* methodName, const char* signature, ...) {
    jclass cls = findClass(name);
    if (cls == nullptr) return;
    jmethodID id = java()->GetStaticMethodID(cls, methodName, signature);
    checkException(methodName);
    if (id == nullptr) return;
    va_list args;
    va_start(args, signature);
    java()->CallStaticVoidMethodV(cls, id, args);
    va_end(args);
    checkException(methodName);
}

std::vector<jint> ints(jintArray array) {
    std::vector<jint> values;
    if (array == nullptr) return values;
    values.resize(static_cast<size_t>(java()->GetArrayLength(array)));
    if (!values.empty()) {
        java()->GetIntArrayRegion(array, 0, static_cast<jsize>(values.size()), values.data());
    }
    return values;
}

std::vector<jobject> objects(jobjectArray array) {
    std::vector<jobject> values;
    if (array == nullptr) return values;
    jsize length = java()->GetArrayLength(array);
    for (jsize i = 0; i < length; ++i) values.push_back(java()->GetObjectArrayElement(array, i));
    return values;
}

std::vector<std::optional<std::string>> strings(jobjectArray array) {
    std::vector<std::optional<std::string>> values;
    if (array == nullptr) return values;
    jsize length = java()->GetArrayLength(array);
    for (jsize i = 0; i < length; ++i) {
        jobject item = java()->GetObjectArrayElement(array, i);
        values.push_back(text(static_cast<jstring>(item)));
        java()->DeleteLocalRef(item);
    }
    return values;
}

std::optional<std::string> callString(jobject object, const char* name) {
    return text(static_cast<jstring>(callObject(object, name, "()Ljava/lang/String;")));
}

std::optional<std::vector<uint8_t>> callBytes(jobject object, const char* name) {
    return bytes(static_cast<jbyteArray>(callObject(object, name, "()[B")));
}

std::string className(jobject object) {
    if (object == nullptr) return "";
    jobject cls = java()->GetObjectClass(object);
    return callString(cls, "getName").value_or("");
}

std::vector<std::string> listOfStrings(jobject list) {
    std::vector<std::string> result;
    if (list == nullptr) return result;
    jint size = callInt(list, "size", "()I");
    for (jint i = 0; i < size; ++i) {
        auto item = static_cast<jstring>(callObject(list, "get", "(I)Ljava/lang/Object;", i));
        result.push_back(text(item).value_or("null"));
    }
    return result;
}

}  // namespace harness
