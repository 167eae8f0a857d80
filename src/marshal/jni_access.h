// Java strings, byte arrays, BER objects and label lists: the conversions every native shares.
// Conversions return a local reference or null and never free what they read.
#pragma once

#include <jni.h>

#include <cstdint>

#include "zavkm.h"

namespace zavkjni {

// newJavaStringUTF returns a new Java string of text, or null when env or text is null.
jstring newJavaStringUTF(JNIEnv* env, const char* text) noexcept;

// JavaByteArrayToUChar leaves in *out a malloc'd copy of array when its length equals
// expectedLength, else null (null array, zero length, mismatch, no memory). The caller frees the
// copy with free.
void JavaByteArrayToUChar(JNIEnv* env, jbyteArray array, int32_t expectedLength,
                          unsigned char** out) noexcept;

// getJavaBERObject returns a BERObject holding a copy of bytes, or null (no bytes, length 0, or a
// failed lookup or allocation).
jobject getJavaBERObject(JNIEnv* env, const uint8_t* bytes, uint32_t length) noexcept;

// newJavaByteArray returns a Java byte array holding a copy of bytes (empty for length 0), or
// null when it cannot be made.
jbyteArray newJavaByteArray(JNIEnv* env, const uint8_t* bytes, uint32_t length) noexcept;

// A receiver of labels: an instance method called on target, or a static method of a class.
struct LabelCallback {
    jobject target;    // `this`, or the class for a static callback
    jmethodID method;  // "(Ljava/lang/String;)V"
    bool isStatic;
};

// labelTraceNone: deliverLabels traces nothing for each label.
inline constexpr const char* labelTraceNone = nullptr;

// deliverLabels hands each label of list, in order, to callback: the label is copied into a
// 256-byte buffer (longer labels are cut at 255 bytes), traced with traceFormat (when not null),
// made a Java string and passed on. The walk stops at the end or at a node without a label.
// The list is not freed here.
void deliverLabels(JNIEnv* env, const ZAVKM_LabelList* list, LabelCallback callback,
                   const char* traceFormat) noexcept;

// deliverAndFreeLabels is deliverLabels followed by ZAVKM_FreeLabelList(list), also for an empty
// list (the release is made only when list is not null).
void deliverAndFreeLabels(JNIEnv* env, ZAVKM_LabelList* list, LabelCallback callback,
                          const char* traceFormat) noexcept;

// copyLabel copies label into buffer (256 bytes), cut at 255 bytes, and returns buffer.
char* copyLabel(char (&buffer)[256], const char* label) noexcept;

}  // namespace zavkjni
