// Natives of KMSystem: start and end the use of the key-management library, its tracing and
// ours, its cryptographic mode, its key strength and our build information.
#include <jni.h>

#include <cstdio>

#include "jni/frame.h"
#include "trace/trace.h"
#include "zavkm.h"

using zavkjni::traceMessage;

#define ZAVKJNI_DATA extern "C" __attribute__((visibility("default")))

ZAVKJNI_DATA const char zavkjni_SCCSInfo[] =
    "@(#)CompanyName:      Norvex\n"
    "@(#)LegalTrademarks:  Tolvik\n"
    "@(#)FileDescription:  Tolvik key management JNI bridge\n"
    "@(#)FileVersion:      7.0.0.1\n"
    "@(#)InternalName:     zavkjni\n"
    "@(#)LegalCopyright:   Copyright (c) Norvex.\n"
    "                      All rights reserved.\n"
    "@(#)OriginalFilename: libzavkjni.so\n"
    "@(#)ProductName:      Tolvik\n"
    "@(#)ProductVersion:   7.0\n"
    "@(#)ProductInfo:      " __DATE__ " " __TIME__ " " __DATE__ " " __TIME__ "\n";

ZAVKJNI_DATA const char zavkjni_Copyright[] =
    "Tolvik key management JNI bridge\n"
    "Copyright (c) Norvex.\n"
    "All rights reserved.\n"
    "This program and its documentation are the property of Norvex.\n"
    "Use, copying and distribution are allowed only under a licence from Norvex.\n"
    "Version 7.0\n";

ZAVKJNI_NATIVE(jboolean, KMSystem, c_1IsUSSharedLibraryLoaded)(JNIEnv*, jclass) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......Entered KMSystem_c_IsUSSharedLibraryLoaded().\n");
    return ZAVKM_GetMaxCryptoKeySize(1) > 512u ? JNI_TRUE : JNI_FALSE;
}

ZAVKJNI_NATIVE(jint, KMSystem, c_1enableFIPSMode)(
    JNIEnv*, jclass, jboolean flag0, jboolean flag1) ZAVKJNI_NOEXCEPT {
    // The block stays with the key-management library; bytes 2 to 255 are its own.
    auto* block = static_cast<unsigned char*>(ZAVKM_Malloc(256));
    if (block == nullptr) return ZAVKM_ERR_MEMORY_ALLOCATE;  // nothing may be written
    block[0] = flag0;
    block[1] = flag1;
    return ZAVKM_SetCryptoInfo(block);
}

ZAVKJNI_NATIVE(jint, KMSystem, c_1ZAVKMInit)(
    JNIEnv*, jclass, jboolean kmTrace) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......Entered KMSystem_c_ZAVKMInit().\n");
    if (kmTrace == 1) {
        ZAVKM_ReturnCode rc = ZAVKM_StartTrace("jnidump", "jnitrace", 0, 6144);
        traceMessage("JNI_DEBUG......ZAVKM_StartTrace returns = %d\n", rc);
    }
    return ZAVKM_Init();
}

ZAVKJNI_NATIVE(jint, KMSystem, c_1ZAVKMInitDebug)(
    JNIEnv* env, jclass cls, jboolean kmTrace, jboolean debugFiles) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_KMSystem::ZAVKMInitDebug 0000, entered ...\n");
    if (!debugFiles) return Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInit(env, cls, kmTrace);
    zavkjni::openTraceFile();
    traceMessage("JNI_KMSystem::ZAVKMInitDebug 0010, before ZAVKM_StartTrace\n");
    ZAVKM_ReturnCode rc = ZAVKM_StartTrace("specialDifferentLogTag", "tvkcdbg.log", 8, 4096);
    traceMessage("JNI_KMSystem::ZAVKMInitDebug 0020, rc=%d\n", rc);
    if (!kmTrace) return ZAVKM_Init();
    return Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInit(env, cls, kmTrace);
}

ZAVKJNI_NATIVE(jint, KMSystem, c_1ZAVKMCleanAll)(JNIEnv*, jclass) ZAVKJNI_NOEXCEPT {
    traceMessage("JNI_DEBUG......Entered KMSystem_c_ZAVKMCleanAll().\n");
    zavkjni::closeTraceFile();
    ZAVKM_CleanAll();
    return 1;
}

ZAVKJNI_NATIVE(void, KMSystem, c_1ShowLibInfo)(JNIEnv*,
                                                                                    jclass) ZAVKJNI_NOEXCEPT {
    printf("KJNI\n============\n%s\n\n", zavkjni_SCCSInfo);
    fflush(stdout);  // Java writes to the same stream through its own buffer
}
