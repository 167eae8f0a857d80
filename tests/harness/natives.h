// The bridge's natives as the tests call them: directly, as C functions (a null JNIEnv or
// class can then be passed). Add a native here when its first rows are written.
#pragma once

#include <jni.h>

#define HARNESS_NATIVE(ret, name, ...) extern "C" ret JNICALL name(JNIEnv*, __VA_ARGS__) noexcept;

// KMSystem (all static: the second parameter is the class)
HARNESS_NATIVE(jboolean, Java_com_norvex_zav_tolvik_basic_KMSystem_c_1IsUSSharedLibraryLoaded, jclass)
HARNESS_NATIVE(jint, Java_com_norvex_zav_tolvik_basic_KMSystem_c_1enableFIPSMode, jclass, jboolean, jboolean)
HARNESS_NATIVE(jint, Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug, jclass, jboolean, jboolean)
HARNESS_NATIVE(jint, Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInit, jclass, jboolean)
HARNESS_NATIVE(jint, Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll, jclass)
HARNESS_NATIVE(void, Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ShowLibInfo, jclass)

// CMSKeyDatabaseException
HARNESS_NATIVE(jboolean, Java_com_norvex_zav_tolvik_basic_CMSKeyDatabaseException_c_1BuildErrCodeNameTable, jclass)

#undef HARNESS_NATIVE
