// The bridge as the JVM sees it: the fake stands behind it, and its exported natives bind when
// Java calls them (the JVM's System.loadLibrary finds the bridge this program already loaded).
#include <dlfcn.h>
#include <link.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include "capture.h"
#include "natives.h"
#include "rows.h"

namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

// Stops the run before any test when the real library, not the fake, stands behind the bridge.
class FakeBehindTheBridge : public ::testing::Environment {
public:
    void SetUp() override {
        Dl_info info = {};
        if (dladdr(reinterpret_cast<void*>(&ZAVKM_Init), &info) == 0 ||
            std::string(info.dli_fname).find("/tests/fakekm/") == std::string::npos) {
            fprintf(stderr, "the key-management library behind the bridge is %s, not the fake; "
                            "run with LD_LIBRARY_PATH=<build>/tests/fakekm\n",
                    info.dli_fname != nullptr ? info.dli_fname : "unknown");
            exit(1);
        }
    }
};
::testing::Environment* const fakeCheck = ::testing::AddGlobalTestEnvironment(new FakeBehindTheBridge);

// How many copies of a library, by file name, the process holds.
int loadedCopies(const std::string& fileName) {
    struct Search {
        std::string name;
        int count;
    } search{"/" + fileName, 0};
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* data) {
            auto* s = static_cast<Search*>(data);
            std::string path = info->dlpi_name != nullptr ? info->dlpi_name : "";
            if (path.size() >= s->name.size() &&
                path.compare(path.size() - s->name.size(), s->name.size(), s->name) == 0) {
                ++s->count;
            }
            return 0;
        },
        &search);
    return search.count;
}

class ThroughJava : public harness::JvmTest {
protected:
    void SetUp() override {
        harness::JvmTest::SetUp();
        fake::reset();
    }
    void TearDown() override {
        fake::reset();
        harness::JvmTest::TearDown();
    }

    jclass kmSystem() { return harness::findClass("com/norvex/zav/tolvik/basic/KMSystem"); }
    jmethodID staticMethod(jclass cls, const char* name, const char* signature) {
        jmethodID id = harness::java()->GetStaticMethodID(cls, name, signature);
        EXPECT_NE(id, nullptr) << name << signature;
        return id;
    }
};

// A Java call's result, after checking that it left no exception (as JNI asks of its callers).
template <class T>
T checked(T result) {
    EXPECT_FALSE(harness::java()->ExceptionCheck());
    return result;
}

TEST_F(ThroughJava, KMSystemNativesBind) {
    JNIEnv* env = harness::java();
    jclass cls = kmSystem();
    ASSERT_NE(cls, nullptr);
    jmethodID keySize = staticMethod(cls, "c_IsUSSharedLibraryLoaded", "()Z");
    jmethodID fips = staticMethod(cls, "c_enableFIPSMode", "(ZZ)I");
    jmethodID init = staticMethod(cls, "c_ZAVKMInit", "(Z)I");
    jmethodID initDebug = staticMethod(cls, "c_ZAVKMInitDebug", "(ZZ)I");
    jmethodID cleanAll = staticMethod(cls, "c_ZAVKMCleanAll", "()I");
    jmethodID showLibInfo = staticMethod(cls, "c_ShowLibInfo", "()V");
    fake::script("ZAVKM_GetMaxCryptoKeySize", fake::returns(4096));
    fake::script("ZAVKM_SetCryptoInfo", fake::returns(3));
    fake::script("ZAVKM_Init", fake::returns(4));
    fake::script("ZAVKM_Init", fake::returns(5));

    EXPECT_TRUE(checked(env->CallStaticBooleanMethod(cls, keySize)));
    EXPECT_EQ(checked(env->CallStaticIntMethod(cls, fips, JNI_TRUE, JNI_TRUE)), 3);
    EXPECT_EQ(checked(env->CallStaticIntMethod(cls, init, JNI_TRUE)), 4);
    EXPECT_EQ(checked(env->CallStaticIntMethod(cls, initDebug, JNI_FALSE, JNI_FALSE)), 5);
    EXPECT_EQ(checked(env->CallStaticIntMethod(cls, cleanAll)), 1);
    harness::FdCapture out(1);
    env->CallStaticVoidMethod(cls, showLibInfo);
    checked(0);
    EXPECT_THAT(out.finish(), ::testing::StartsWith("KJNI\n============\n@(#)"));

    EXPECT_THAT(fake::journal(),
                ElementsAre("ZAVKM_GetMaxCryptoKeySize(1)", "ZAVKM_Malloc(256)",
                            "ZAVKM_SetCryptoInfo(block(256))",
                            R"(ZAVKM_StartTrace("jnidump", "jnitrace", 0, 6144))", "ZAVKM_Init()",
                            "ZAVKM_Init()", "ZAVKM_CleanAll()"));
    EXPECT_EQ(loadedCopies("libzavkjni.so"), 1) << "the JVM loaded a second bridge";
}

TEST_F(ThroughJava, ErrCodeTableReachesTheExceptionClass) {
    const char* const name = "com/norvex/zav/tolvik/basic/CMSKeyDatabaseException";
    jclass cls = harness::findClass(name);
    ASSERT_NE(cls, nullptr);
    JNIEnv* env = harness::java();
    jmethodID build = staticMethod(cls, "c_BuildErrCodeNameTable", "()Z");
    jmethodID nameOf = staticMethod(cls, "nameOf", "(I)Ljava/lang/String;");
    EXPECT_TRUE(checked(env->CallStaticBooleanMethod(cls, build)));
    for (auto [code, expected] : {std::pair{1, "ZAVKM_ERR_UNKNOWN"}, {10, "ZAVKM_ERR_DATABASE_DELETE"},
                                  {65, "ZAVKM_ERR_PARAMETER"}, {151, "ZAVKM_ERR_NO_TOKEN_PRESENT"}}) {
        auto text = static_cast<jstring>(checked(env->CallStaticObjectMethod(cls, nameOf, code)));
        EXPECT_EQ(harness::text(text), expected);
    }
    EXPECT_THAT(fake::journal(), ::testing::IsEmpty());
}

}  // namespace
