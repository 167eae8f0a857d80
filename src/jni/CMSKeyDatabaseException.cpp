// The table of the 151 return-code names, handed once to CMSKeyDatabaseException.
#include <jni.h>

#include <cstdint>

#include "jni/frame.h"
#include "marshal/jni_access.h"
#include "trace/trace.h"
#include "zavkm.h"

using zavkjni::traceMessage;

namespace {

#define ZAVKJNI_NAME_(code, name) #name,
#define ZAVKJNI_CODE_(code, name) code,
const char* const errorNames[] = {ZAVKM_RETURN_CODES(ZAVKJNI_NAME_)};
const int32_t errorCodes[] = {ZAVKM_RETURN_CODES(ZAVKJNI_CODE_)};
#undef ZAVKJNI_NAME_
#undef ZAVKJNI_CODE_
const uint32_t errorCount = sizeof errorCodes / sizeof errorCodes[0];
static_assert(sizeof errorNames / sizeof errorNames[0] == ZAVKM_ERROR_COUNT);

}  // namespace

ZAVKJNI_NATIVE(jboolean, CMSKeyDatabaseException, c_1BuildErrCodeNameTable)(
    JNIEnv* env, jclass cls) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......c_BuildErrCodeNameTable......\n");
    if (env == nullptr || cls == nullptr) return JNI_FALSE;
    jmethodID add = env->GetStaticMethodID(cls, "addCMSErrCode", "(ILjava/lang/String;)Z");
    if (add == nullptr) return JNI_FALSE;
    traceMessage("JNI_DEBUG......jmethodId is found.\n");
    jboolean accepted = JNI_FALSE;
    for (uint32_t i = 0; i < errorCount; ++i) {
        traceMessage("JNI_DEBUG......errKeyIndex = %d\n", errorCodes[i]);
        traceMessage("JNI_DEBUG......errKey = %s\n", errorNames[i]);
        jstring name = zavkjni::newJavaStringUTF(env, errorNames[i]);
        accepted = env->CallStaticBooleanMethod(cls, add, errorCodes[i], name);
        if (!accepted) break;  // Java refused: the entries after it are not offered
    }
    return accepted;
}
