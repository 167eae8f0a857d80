#include "marshal/jni_access.h"

#include <cstdlib>
#include <cstring>

#include "marshal/classes.h"
#include "trace/trace.h"

namespace zavkjni {

jstring newJavaStringUTF(JNIEnv* env, const char* text) noexcept {
    if (env == nullptr || text == nullptr) return nullptr;
    return env->NewStringUTF(text);
}

void JavaByteArrayToUChar(JNIEnv* env, jbyteArray array, int32_t expectedLength,
                          unsigned char** out) noexcept {
    if (out == nullptr) return;
    *out = nullptr;
    if (array == nullptr || expectedLength == 0) return;
    jsize length = env->GetArrayLength(array);
    traceMessage("JNI_DEBUG......JavaByteArrayToUChar(): jByteLen %s jCertBERLen\n",
                 length == expectedLength ? "==" : "!=");
    if (length != expectedLength) return;
    auto* buffer = static_cast<unsigned char*>(malloc(static_cast<size_t>(expectedLength)));
    if (buffer == nullptr) return;
    jbyte* elements = env->GetByteArrayElements(array, nullptr);
    if (elements == nullptr) {  // nothing copied: the new buffer goes and the result stays null
        free(buffer);
        return;
    }
    memcpy(buffer, elements, static_cast<size_t>(expectedLength));
    env->ReleaseByteArrayElements(array, elements, JNI_ABORT);
    *out = buffer;
}

jbyteArray newJavaByteArray(JNIEnv* env, const uint8_t* bytes, uint32_t length) noexcept {
    jbyteArray array = env->NewByteArray(static_cast<jsize>(length));
    if (array != nullptr && length != 0) {
        env->SetByteArrayRegion(array, 0, static_cast<jsize>(length),
                                reinterpret_cast<const jbyte*>(bytes));
    }
    return array;
}

jobject getJavaBERObject(JNIEnv* env, const uint8_t* bytes, uint32_t length) noexcept {
    if (bytes == nullptr || length == 0) return nullptr;
    jclass cls = env->FindClass(sig::berObjectClass);
    traceMessage("JNI_DEBUG......jBERObjectClass = 0x%x\n",
                 ref(cls));
    if (cls == nullptr) return nullptr;
    jmethodID ctor = env->GetMethodID(cls, "<init>", sig::bytesCtor);
    if (ctor == nullptr) return nullptr;
    jbyteArray array = newJavaByteArray(env, bytes, length);
    if (array == nullptr) return nullptr;
    return env->NewObject(cls, ctor, array);
}

char* copyLabel(char (&buffer)[256], const char* label) noexcept {
    // A label longer than the buffer is cut at 255 bytes rather than written past it.
    size_t length = strnlen(label, sizeof buffer - 1);
    memcpy(buffer, label, length);
    buffer[length] = '\0';
    return buffer;
}

void deliverLabels(JNIEnv* env, const ZAVKM_LabelList* list, LabelCallback callback,
                   const char* traceFormat) noexcept {
    char labelBuffer[256] = {};
    for (const ZAVKM_LabelList* node = list; node != nullptr && node->label != nullptr;
         node = node->next) {
        copyLabel(labelBuffer, node->label);
        if (traceFormat != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            traceMessage(traceFormat, labelBuffer);
#pragma GCC diagnostic pop
        }
        jstring label = newJavaStringUTF(env, labelBuffer);
        // Pending Java exceptions are not looked for: the walk goes on.
        if (callback.isStatic) {
            env->CallStaticVoidMethod(static_cast<jclass>(callback.target), callback.method, label);
        } else {
            env->CallVoidMethod(callback.target, callback.method, label);
        }
    }
}

void deliverAndFreeLabels(JNIEnv* env, ZAVKM_LabelList* list, LabelCallback callback,
                          const char* traceFormat) noexcept {
    if (list == nullptr) return;
    deliverLabels(env, list, callback, traceFormat);
    ZAVKM_FreeLabelList(list);
}

}  // namespace zavkjni
