// The JNI ledger catches what it is there to catch: functions outside the allowed set, strings
// given back out of order or never, byte-array elements written back.
#include <gmock/gmock.h>

#include "jvm.h"
#include "ledger.h"

namespace {

using harness::Ledger;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LedgerCatches : public harness::JvmTest {};

TEST_F(LedgerCatches, FunctionsOutsideTheSetAndVariadicCallsByName) {
    Ledger ledger(harness::java());
    JNIEnv* env = ledger.env();
    jmethodID ctor = env->GetMethodID(harness::findClass("zavtest/LabelSink"), "<init>", "()V");
    jclass cls = env->FindClass("zavtest/LabelSink");
    jobject sink = env->NewObject(cls, ctor);
    jmethodID add = env->GetMethodID(cls, "addKeyLabel", "(Ljava/lang/String;)V");
    jstring label = env->NewStringUTF("a");
    env->CallVoidMethod(sink, add, label);
    env->ExceptionCheck();
    env->DeleteLocalRef(sink);
    EXPECT_THAT(ledger.calls(), ElementsAre("GetMethodID", "FindClass", "NewObject", "GetMethodID",
                                            "NewStringUTF", "CallVoidMethod", "ExceptionCheck",
                                            "DeleteLocalRef"));
    EXPECT_THAT(ledger.forbidden(), ElementsAre("ExceptionCheck", "DeleteLocalRef"));
    EXPECT_THAT(ledger.lookups(), ElementsAre("GetMethodID <init> ()V", "FindClass zavtest/LabelSink",
                                              "GetMethodID addKeyLabel (Ljava/lang/String;)V"));
}

TEST_F(LedgerCatches, StringsGivenBackOutOfOrderOrNever) {
    Ledger ledger(harness::java());
    JNIEnv* env = ledger.env();
    jstring first = harness::str("first");
    jstring second = harness::str("second");
    jstring third = harness::str("third");
    const char* a = env->GetStringUTFChars(first, nullptr);
    const char* b = env->GetStringUTFChars(second, nullptr);
    env->ReleaseStringUTFChars(second, b);
    env->ReleaseStringUTFChars(first, a);
    EXPECT_THAT(ledger.stringProblems(),
                ElementsAre("text released out of the order taken (oldest held: \"first\")"));

    ledger.clear();
    const char* c = env->GetStringUTFChars(third, nullptr);
    EXPECT_THAT(ledger.stringProblems(), ElementsAre("never released: \"third\""));
    env->ReleaseStringUTFChars(third, c);
    EXPECT_THAT(ledger.stringProblems(), IsEmpty());
}

TEST_F(LedgerCatches, ByteArrayElementsWrittenBack) {
    Ledger ledger(harness::java());
    JNIEnv* env = ledger.env();
    jbyteArray array = harness::byteArray({1, 2});
    jbyte* elements = env->GetByteArrayElements(array, nullptr);
    EXPECT_THAT(ledger.arrayProblems(), ElementsAre("byte-array elements never released"));
    env->ReleaseByteArrayElements(array, elements, 0);
    EXPECT_THAT(ledger.arrayProblems(), ElementsAre("byte-array elements written back"));
}

}  // namespace
