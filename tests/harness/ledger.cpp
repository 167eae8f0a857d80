#include "ledger.h"

#include "fake.h"

#include <algorithm>
#include <deque>
#include <utility>

namespace harness {

struct Ledger::Env {
    JNIEnv env;  // first: a native's JNIEnv* is the address of this Env
    JNINativeInterface_ table;
    JNIEnv* real;
    Ledger* ledger;
};

namespace {

Ledger::Env* of(JNIEnv* env) { return reinterpret_cast<Ledger::Env*>(env); }

// A slot outside the set: records its index and answers 0 (the native is wrong either way).
template <size_t I>
jlong JNICALL unlisted(JNIEnv* env) {
    of(env)->ledger->outside(I);
    return 0;
}

// Forwards an allowed function to the real env.
template <auto Member>
struct Forward;
template <class R, class... A, R(JNICALL* JNINativeInterface_::*M)(JNIEnv*, A...)>
struct Forward<M> {
    static R JNICALL call(JNIEnv* env, A... args) { return (of(env)->real->functions->*M)(of(env)->real, args...); }
};

const char* JNICALL getStringUTFChars(JNIEnv* env, jstring string, jboolean* isCopy) {
    const char* chars = of(env)->real->GetStringUTFChars(string, isCopy);
    if (chars != nullptr) of(env)->ledger->noteString(true, string, chars, isCopy != nullptr);
    return chars;
}

void JNICALL releaseStringUTFChars(JNIEnv* env, jstring string, const char* chars) {
    of(env)->ledger->noteString(false, string, chars, false);
    of(env)->real->ReleaseStringUTFChars(string, chars);
}

jbyte* JNICALL getByteArrayElements(JNIEnv* env, jbyteArray array, jboolean* isCopy) {
    jbyte* elements = of(env)->real->GetByteArrayElements(array, isCopy);
    if (elements != nullptr) of(env)->ledger->noteElements(true, elements, 0);
    return elements;
}

void JNICALL releaseByteArrayElements(JNIEnv* env, jbyteArray array, jbyte* elements, jint mode) {
    of(env)->ledger->noteElements(false, elements, mode);
    of(env)->real->ReleaseByteArrayElements(array, elements, mode);
}

constexpr size_t reserved = 4;  // the table's first slots, kept as the JVM has them
constexpr size_t slots = sizeof(JNINativeInterface_) / sizeof(void*);

}  // namespace

Ledger::Ledger(JNIEnv* real) : env_(std::make_unique<Env>()) {
    env_->table = *real->functions;
    auto* table = reinterpret_cast<void**>(&env_->table);
    [&]<size_t... I>(std::index_sequence<I...>) {
        ((table[I + reserved] = reinterpret_cast<void*>(&unlisted<I + reserved>)), ...);
    }(std::make_index_sequence<slots - reserved>{});
#define HARNESS_ALLOW_(name) env_->table.name = &Forward<&JNINativeInterface_::name>::call;
    HARNESS_ALLOW_(FindClass) HARNESS_ALLOW_(GetObjectClass) HARNESS_ALLOW_(GetMethodID)
    HARNESS_ALLOW_(GetStaticMethodID) HARNESS_ALLOW_(GetFieldID) HARNESS_ALLOW_(GetObjectField)
    HARNESS_ALLOW_(NewObjectV) HARNESS_ALLOW_(CallVoidMethodV) HARNESS_ALLOW_(CallNonvirtualVoidMethodV)
    HARNESS_ALLOW_(CallStaticVoidMethodV) HARNESS_ALLOW_(CallStaticBooleanMethodV)
    HARNESS_ALLOW_(NewStringUTF) HARNESS_ALLOW_(GetArrayLength) HARNESS_ALLOW_(NewObjectArray)
    HARNESS_ALLOW_(GetObjectArrayElement) HARNESS_ALLOW_(SetObjectArrayElement)
    HARNESS_ALLOW_(NewByteArray) HARNESS_ALLOW_(SetByteArrayRegion)
#undef HARNESS_ALLOW_
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

void Ledger::noteString(bool taken, jstring string, const char* chars, bool copyFlagAsked) {
    strings_.push_back(StringEvent{taken, string, chars, taken && chars ? chars : "", fake::journal().size()});
    if (copyFlagAsked) ++copyFlagsAsked_;
}

void Ledger::noteElements(bool taken, const jbyte* elements, jint mode) {
    elements_.push_back(Elements{taken, elements, mode});
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
        auto match = std::find_if(held.begin(), held.end(), [&](const StringEvent* taken) {
            return taken->chars == event.chars && taken->string == event.string;
        });
        if (match == held.end()) {
            problems.push_back("a text released that was not held");
            continue;
        }
        if (match != held.begin()) {
            problems.push_back("text released out of the order taken (oldest held: \"" + held.front()->text + "\")");
        }
        held.erase(match);
    }
    for (const StringEvent* event : held) problems.push_back("never released: \"" + event->text + "\"");
    return problems;
}

std::vector<std::string> Ledger::arrayProblems() const {
    std::vector<std::string> problems;
    std::vector<const jbyte*> held;
    for (const Elements& event : elements_) {
        auto match = std::find(held.begin(), held.end(), event.elements);
        if (event.taken) {
            held.push_back(event.elements);
        } else if (match == held.end()) {
            problems.push_back("byte-array elements released that were not held");
        } else {
            held.erase(match);
        }
        if (!event.taken && event.mode != JNI_ABORT) problems.push_back("byte-array elements written back");
    }
    if (!held.empty()) problems.push_back("byte-array elements never released");
    return problems;
}

}  // namespace harness
