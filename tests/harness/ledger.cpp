// The JNI ledger's function table: one recording forwarder per JNI function.
#include "ledger.h"

#include <algorithm>
#include <cstdarg>
#include <deque>
#include <set>
#include <type_traits>

namespace harness {

// Every function of the JNI function table, in table order: F for fixed arguments, V for the
// variadic ones (forwarded through their "V" variant).
#define HARNESS_JNI_FUNCTIONS(F, V) \
    F(GetVersion) F(DefineClass) F(FindClass) F(FromReflectedMethod) F(FromReflectedField) \
    F(ToReflectedMethod) F(GetSuperclass) F(IsAssignableFrom) F(ToReflectedField) F(Throw) \
    F(ThrowNew) F(ExceptionOccurred) F(ExceptionDescribe) F(ExceptionClear) F(FatalError) \
    F(PushLocalFrame) F(PopLocalFrame) F(NewGlobalRef) F(DeleteGlobalRef) F(DeleteLocalRef) \
    F(IsSameObject) F(NewLocalRef) F(EnsureLocalCapacity) F(AllocObject) V(NewObject) \
    F(NewObjectV) F(NewObjectA) F(GetObjectClass) F(IsInstanceOf) F(GetMethodID) \
    V(CallObjectMethod) F(CallObjectMethodV) F(CallObjectMethodA) V(CallBooleanMethod) \
    F(CallBooleanMethodV) F(CallBooleanMethodA) V(CallByteMethod) F(CallByteMethodV) \
    F(CallByteMethodA) V(CallCharMethod) F(CallCharMethodV) F(CallCharMethodA) \
    V(CallShortMethod) F(CallShortMethodV) F(CallShortMethodA) V(CallIntMethod) \
    F(CallIntMethodV) F(CallIntMethodA) V(CallLongMethod) F(CallLongMethodV) \
    F(CallLongMethodA) V(CallFloatMethod) F(CallFloatMethodV) F(CallFloatMethodA) \
    V(CallDoubleMethod) F(CallDoubleMethodV) F(CallDoubleMethodA) V(CallVoidMethod) \
    F(CallVoidMethodV) F(CallVoidMethodA) V(CallNonvirtualObjectMethod) \
    F(CallNonvirtualObjectMethodV) F(CallNonvirtualObjectMethodA) \
    V(CallNonvirtualBooleanMethod) F(CallNonvirtualBooleanMethodV) \
    F(CallNonvirtualBooleanMethodA) V(CallNonvirtualByteMethod) F(CallNonvirtualByteMethodV) \
    F(CallNonvirtualByteMethodA) V(CallNonvirtualCharMethod) F(CallNonvirtualCharMethodV) \
    F(CallNonvirtualCharMethodA) V(CallNonvirtualShortMethod) F(CallNonvirtualShortMethodV) \
    F(CallNonvirtualShortMethodA) V(CallNonvirtualIntMethod) F(CallNonvirtualIntMethodV) \
    F(CallNonvirtualIntMethodA) V(CallNonvirtualLongMethod) F(CallNonvirtualLongMethodV) \
    F(CallNonvirtualLongMethodA) V(CallNonvirtualFloatMethod) F(CallNonvirtualFloatMethodV) \
    F(CallNonvirtualFloatMethodA) V(CallNonvirtualDoubleMethod) \
    F(CallNonvirtualDoubleMethodV) F(CallNonvirtualDoubleMethodA) V(CallNonvirtualVoidMethod) \
    F(CallNonvirtualVoidMethodV) F(CallNonvirtualVoidMethodA) F(GetFieldID) F(GetObjectField) \
    F(GetBooleanField) F(GetByteField) F(GetCharField) F(GetShortField) F(GetIntField) \
    F(GetLongField) F(GetFloatField) F(GetDoubleField) F(SetObjectField) F(SetBooleanField) \
    F(SetByteField) F(SetCharField) F(SetShortField) F(SetIntField) F(SetLongField) \
    F(SetFloatField) F(SetDoubleField) F(GetStaticMethodID) V(CallStaticObjectMethod) \
    F(CallStaticObjectMethodV) F(CallStaticObjectMethodA) V(CallStaticBooleanMethod) \
    F(CallStaticBooleanMethodV) F(CallStaticBooleanMethodA) V(CallStaticByteMethod) \
    F(CallStaticByteMethodV) F(CallStaticByteMethodA) V(CallStaticCharMethod) \
    F(CallStaticCharMethodV) F(CallStaticCharMethodA) V(CallStaticShortMethod) \
    F(CallStaticShortMethodV) F(CallStaticShortMethodA) V(CallStaticIntMethod) \
    F(CallStaticIntMethodV) F(CallStaticIntMethodA) V(CallStaticLongMethod) \
    F(CallStaticLongMethodV) F(CallStaticLongMethodA) V(CallStaticFloatMethod) \
    F(CallStaticFloatMethodV) F(CallStaticFloatMethodA) V(CallStaticDoubleMethod) \
    F(CallStaticDoubleMethodV) F(CallStaticDoubleMethodA) V(CallStaticVoidMethod) \
    F(CallStaticVoidMethodV) F(CallStaticVoidMethodA) F(GetStaticFieldID) \
    F(GetStaticObjectField) F(GetStaticBooleanField) F(GetStaticByteField) \
    F(GetStaticCharField) F(GetStaticShortField) F(GetStaticIntField) F(GetStaticLongField) \
    F(GetStaticFloatField) F(GetStaticDoubleField) F(SetStaticObjectField) \
    F(SetStaticBooleanField) F(SetStaticByteField) F(SetStaticCharField) \
    F(SetStaticShortField) F(SetStaticIntField) F(SetStaticLongField) F(SetStaticFloatField) \
    F(SetStaticDoubleField) F(NewString) F(GetStringLength) F(GetStringChars) \
    F(ReleaseStringChars) F(NewStringUTF) F(GetStringUTFLength) F(GetStringUTFChars) \
    F(ReleaseStringUTFChars) F(GetArrayLength) F(NewObjectArray) F(GetObjectArrayElement) \
    F(SetObjectArrayElement) F(NewBooleanArray) F(NewByteArray) F(NewCharArray) \
    F(NewShortArray) F(NewIntArray) F(NewLongArray) F(NewFloatArray) F(NewDoubleArray) \
    F(GetBooleanArrayElements) F(GetByteArrayElements) F(GetCharArrayElements) \
    F(GetShortArrayElements) F(GetIntArrayElements) F(GetLongArrayElements) \
    F(GetFloatArrayElements) F(GetDoubleArrayElements) F(ReleaseBooleanArrayElements) \
    F(ReleaseByteArrayElements) F(ReleaseCharArrayElements) F(ReleaseShortArrayElements) \
    F(ReleaseIntArrayElements) F(ReleaseLongArrayElements) F(ReleaseFloatArrayElements) \
    F(ReleaseDoubleArrayElements) F(GetBooleanArrayRegion) F(GetByteArrayRegion) \
    F(GetCharArrayRegion) F(GetShortArrayRegion) F(GetIntArrayRegion) F(GetLongArrayRegion) \
    F(GetFloatArrayRegion) F(GetDoubleArrayRegion) F(SetBooleanArrayRegion) \
    F(SetByteArrayRegion) F(SetCharArrayRegion) F(SetShortArrayRegion) F(SetIntArrayRegion) \
    F(SetLongArrayRegion) F(SetFloatArrayRegion) F(SetDoubleArrayRegion) F(RegisterNatives) \
    F(UnregisterNatives) F(MonitorEnter) F(MonitorExit) F(GetJavaVM) F(GetStringRegion) \
    F(GetStringUTFRegion) F(GetPrimitiveArrayCritical) F(ReleasePrimitiveArrayCritical) \
    F(GetStringCritical) F(ReleaseStringCritical) F(NewWeakGlobalRef) F(DeleteWeakGlobalRef) \
    F(ExceptionCheck) F(NewDirectByteBuffer) F(GetDirectBufferAddress) \
    F(GetDirectBufferCapacity) F(GetObjectRefType) F(GetModule)

struct Ledger::Env {
    JNIEnv env;  // first: a native's JNIEnv* is the address of this Env
    JNINativeInterface_ table;
    JNIEnv* real;
    Ledger* ledger;

    static Env* of(JNIEnv* env) { return reinterpret_cast<Env*>(env); }
};

namespace {

#define HARNESS_NAME_(name) #name,
const char* const functionNames[] = {HARNESS_JNI_FUNCTIONS(HARNESS_NAME_, HARNESS_NAME_)};
#undef HARNESS_NAME_

// The table holds the functions and four reserved slots before them.
static_assert(sizeof functionNames / sizeof functionNames[0] + 4 ==
              sizeof(JNINativeInterface_) / sizeof(void*));

enum Index : size_t {
#define HARNESS_INDEX_(name) at##name,
    HARNESS_JNI_FUNCTIONS(HARNESS_INDEX_, HARNESS_INDEX_)
#undef HARNESS_INDEX_
    functionCount
};

// The name a call is recorded under. jni.h's C++ wrappers of the variadic functions (the
// env->NewObject(...) a native writes) call the "V" variant, so a "V" call is recorded under the
// variadic function's name.
struct RecordedNames {
    const char* names[functionCount];
    RecordedNames() {
        for (size_t i = 0; i < functionCount; ++i) names[i] = functionNames[i];
#define HARNESS_SKIP_(name)
#define HARNESS_AS_VARIADIC_(name) names[at##name##V] = #name;
        HARNESS_JNI_FUNCTIONS(HARNESS_SKIP_, HARNESS_AS_VARIADIC_)
#undef HARNESS_SKIP_
#undef HARNESS_AS_VARIADIC_
    }
};
const RecordedNames recorded;

// Forwards a function with fixed arguments.
template <auto Member, size_t I>
struct Plain;
template <class R, class... A, R(JNICALL* JNINativeInterface_::*M)(JNIEnv*, A...), size_t I>
struct Plain<M, I> {
    static R JNICALL call(JNIEnv* env, A... args) {
        Ledger::Env* self = Ledger::Env::of(env);
        self->ledger->note(recorded.names[I]);
        return (self->real->functions->*M)(self->real, args...);
    }
};

// Forwards a variadic function through its va_list variant MV; the JNI's variadic functions
// take two or three fixed arguments after the env.
template <auto Member, auto MemberV, size_t I>
struct Variadic;
template <class R, class T1, class T2, R(JNICALL* JNINativeInterface_::*M)(JNIEnv*, T1, T2, ...),
          R(JNICALL* JNINativeInterface_::*MV)(JNIEnv*, T1, T2, va_list), size_t I>
struct Variadic<M, MV, I> {
    static R JNICALL call(JNIEnv* env, T1 a, T2 b, ...) {
        Ledger::Env* self = Ledger::Env::of(env);
        self->ledger->note(functionNames[I]);
        va_list args;
        va_start(args, b);
        if constexpr (std::is_void_v<R>) {
            (self->real->functions->*MV)(self->real, a, b, args);
            va_end(args);
        } else {
            R result = (self->real->functions->*MV)(self->real, a, b, args);
            va_end(args);
            return result;
        }
    }
};
template <class R, class T1, class T2, class T3,
          R(JNICALL* JNINativeInterface_::*M)(JNIEnv*, T1, T2, T3, ...),
          R(JNICALL* JNINativeInterface_::*MV)(JNIEnv*, T1, T2, T3, va_list), size_t I>
struct Variadic<M, MV, I> {
    static R JNICALL call(JNIEnv* env, T1 a, T2 b, T3 c, ...) {
        Ledger::Env* self = Ledger::Env::of(env);
        self->ledger->note(functionNames[I]);
        va_list args;
        va_start(args, c);
        if constexpr (std::is_void_v<R>) {
            (self->real->functions->*MV)(self->real, a, b, c, args);
            va_end(args);
        } else {
            R result = (self->real->functions->*MV)(self->real, a, b, c, args);
            va_end(args);
            return result;
        }
    }
};

// The functions whose arguments the ledger keeps as well.
JNIEnv* real(JNIEnv* env) { return Ledger::Env::of(env)->real; }
Ledger& ledgerOf(JNIEnv* env) { return *Ledger::Env::of(env)->ledger; }

const char* JNICALL getStringUTFChars(JNIEnv* env, jstring string, jboolean* isCopy) {
    ledgerOf(env).note("GetStringUTFChars");
    const char* chars = real(env)->GetStringUTFChars(string, isCopy);
    if (chars != nullptr) ledgerOf(env).noteString(true, string, chars, isCopy != nullptr);
    return chars;
}

void JNICALL releaseStringUTFChars(JNIEnv* env, jstring string, const char* chars) {
    ledgerOf(env).note("ReleaseStringUTFChars");
    ledgerOf(env).noteString(false, string, chars, false);
    real(env)->ReleaseStringUTFChars(string, chars);
}

jbyte* JNICALL getByteArrayElements(JNIEnv* env, jbyteArray array, jboolean* isCopy) {
    ledgerOf(env).note("GetByteArrayElements");
    jbyte* elements = real(env)->GetByteArrayElements(array, isCopy);
    if (elements != nullptr) ledgerOf(env).noteElements(true, array, elements, 0);
    return elements;
}

void JNICALL releaseByteArrayElements(JNIEnv* env, jbyteArray array, jbyte* elements, jint mode) {
    ledgerOf(env).note("ReleaseByteArrayElements");
    ledgerOf(env).noteElements(false, array, elements, mode);
    real(env)->ReleaseByteArrayElements(array, elements, mode);
}

}  // namespace

Ledger::Ledger(JNIEnv* real) : env_(std::make_unique<Env>()) {
    env_->table = *real->functions;  // the reserved slots as the JVM has them
#define HARNESS_PLAIN_(name) \
    env_->table.name = &Plain<&JNINativeInterface_::name, at##name>::call;
#define HARNESS_VARIADIC_(name)                                                                   \
    env_->table.name =                                                                           \
        &Variadic<&JNINativeInterface_::name, &JNINativeInterface_::name##V, at##name>::call;
    HARNESS_JNI_FUNCTIONS(HARNESS_PLAIN_, HARNESS_VARIADIC_)
#undef HARNESS_PLAIN_
#undef HARNESS_VARIADIC_
    env_->table.GetStringUTFChars = &getStringUTFChars;
    env_->table.ReleaseStringUTFChars = &releaseStringUTFChars;
    env_->table.GetByteArrayElements = &getByteArrayElements;
    env_->table.ReleaseByteArrayElements = &releaseByteArrayElements;
    env_->env.functions = &env_->table;
    env_->real = real;
    env_->ledger = this;
}

Ledger::~Ledger() = default;

JNIEnv* Ledger::env() const { return &env_->env; }

const std::vector<std::string>& Ledger::allowed() {
    static const std::vector<std::string> names = {
        "FindClass", "GetObjectClass", "GetMethodID", "GetStaticMethodID", "GetFieldID",
        "GetObjectField", "NewObject", "CallVoidMethod", "CallNonvirtualVoidMethod",
        "CallStaticVoidMethod", "CallStaticBooleanMethod", "NewStringUTF", "GetStringUTFChars",
        "ReleaseStringUTFChars", "GetArrayLength", "NewObjectArray", "GetObjectArrayElement",
        "SetObjectArrayElement", "NewByteArray", "GetByteArrayElements",
        "ReleaseByteArrayElements", "SetByteArrayRegion"};
    return names;
}

std::vector<std::string> Ledger::forbidden() const {
    const std::set<std::string> allowedSet(allowed().begin(), allowed().end());
    std::set<std::string> seen;
    std::vector<std::string> outside;
    for (const std::string& call : calls_) {
        if (allowedSet.count(call) == 0 && seen.insert(call).second) outside.push_back(call);
    }
    return outside;
}

void Ledger::noteString(bool taken, jstring string, const char* chars, bool copyFlagAsked) {
    strings_.push_back(StringEvent{taken, string, chars, taken && chars ? chars : ""});
    if (copyFlagAsked) ++copyFlagsAsked_;
}

void Ledger::noteElements(bool taken, jbyteArray array, const jbyte* elements, jint mode) {
    elements_.push_back(Elements{taken, array, elements, mode});
}

std::vector<std::string> Ledger::stringProblems() const {
    std::vector<std::string> problems;
    if (copyFlagsAsked_ != 0) problems.push_back("GetStringUTFChars asked for a copy flag");
    std::deque<const StringEvent*> held;
    for (const StringEvent& event : strings_) {
        if (event.taken) {
            held.push_back(&event);
            continue;
        }
        if (held.empty()) {
            problems.push_back("a text released that was not held");
        } else if (held.front()->chars != event.chars || held.front()->string != event.string) {
            problems.push_back("text released out of the order taken (oldest held: \"" +
                               held.front()->text + "\")");
            auto match = std::find_if(held.begin(), held.end(), [&](const StringEvent* taken) {
                return taken->chars == event.chars;
            });
            if (match != held.end()) held.erase(match);
        } else {
            held.pop_front();
        }
    }
    for (const StringEvent* event : held) problems.push_back("never released: \"" + event->text + "\"");
    return problems;
}

std::vector<std::string> Ledger::arrayProblems() const {
    std::vector<std::string> problems;
    std::vector<const jbyte*> held;
    for (const Elements& event : elements_) {
        if (event.taken) {
            held.push_back(event.elements);
            continue;
        }
        auto match = std::find(held.begin(), held.end(), event.elements);
        if (match == held.end()) {
            problems.push_back("byte-array elements released that were not held");
        } else {
            held.erase(match);
        }
        if (event.mode != JNI_ABORT) problems.push_back("byte-array elements written back");
    }
    if (!held.empty()) problems.push_back("byte-array elements never released");
    return problems;
}

}  // namespace harness
