// The bridge's load and unload hooks and the life of its trace file, seen from child processes
// that load the bridge with dlopen (the fake library behind it) and end with exit, so that the
// unload hook has run by the time the parent reads both trace channels.
#include <dlfcn.h>
#include <fcntl.h>
#include <jni.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "capture.h"

namespace {

using Lines = std::vector<std::string>;
const std::string entered = "JNI_KMSystem::ZAVKMInitDebug 0000, entered ...";
const std::string before = "JNI_KMSystem::ZAVKMInitDebug 0010, before ZAVKM_StartTrace";
const std::string rc = "JNI_KMSystem::ZAVKMInitDebug 0020, rc=0";
const std::string cleanAll = "JNI_DEBUG......Entered KMSystem_c_ZAVKMCleanAll().";
const std::string unload = "JNI_DEBUG......staticFini: DLL_PROCESS_DETACH";

struct ChildCase {
    const char* name;
    const char* calls;   // between dlopen and dlclose: 'i' InitDebug with the file, 'c' CleanAll
    Lines stderrBetween;  // standard error between the load and unload lines
    Lines file;           // the trace file's lines, stamps taken out; empty: no file
    bool fileIsDirectory = false;  // the trace file's name is taken by a directory
};

const ChildCase childCases[] = {
    {"LoadAndUnload", "", {}, {}},
    // The unload hook writes into a file that is still open; the stream is closed at exit.
    {"UnloadWithTheFileOpen", "i", {entered, before, rc}, {before, rc, unload}},
    // A second opening starts the file afresh; after c_ZAVKMCleanAll nothing more reaches it.
    {"FileOpenedTwiceThenClosed", "iic", {entered, before, rc, entered, before, rc, cleanAll},
     {before, rc, cleanAll}},
    // A trace file that cannot be opened leaves the file channel off; nothing breaks.
    {"FileCannotBeOpened", "ic", {entered, before, rc, cleanAll}, {}, true},
};

// Loads the bridge in a child with standard error sent to a file, makes the calls, unloads it
// and exits; returns what the child wrote to standard error.
std::string runChild(const char* calls) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        dup2(open("child-stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
        void* bridge = dlopen(ZAV_BRIDGE_PATH, RTLD_NOW | RTLD_LOCAL);
        if (bridge == nullptr) _exit(3);
        auto initDebug = reinterpret_cast<jint (*)(JNIEnv*, jclass, jboolean, jboolean)>(
            dlsym(bridge, "Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug"));
        auto clean = reinterpret_cast<jint (*)(JNIEnv*, jclass)>(
            dlsym(bridge, "Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll"));
        for (const char* c = calls; *c != '\0'; ++c) {
            if (*c == 'i') initDebug(nullptr, nullptr, JNI_FALSE, JNI_TRUE);
            else clean(nullptr, nullptr);
        }
        dlclose(bridge);
        exit(0);  // runs the unload hook if dlclose kept the bridge loaded, and closes streams
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return harness::readFile("child-stderr.txt");
}

class ChildCases : public ::testing::TestWithParam<ChildCase> {};

TEST_P(ChildCases, TraceChannels) {
    const ChildCase& c = GetParam();
    remove(harness::traceFileName);
    rmdir(harness::traceFileName);
    if (c.fileIsDirectory) {
        ASSERT_EQ(mkdir(harness::traceFileName, 0700), 0);
    }
    const long start = static_cast<long>(time(nullptr));
    const std::string errText = runChild(c.calls);

    Lines expected;
    if (harness::stderrChannelOn()) {
        expected = {std::string("JNI_DEBUG......debugMsgEnvExist=") + getenv("TOLVIK_JNI_DEBUG"),
                    "JNI_DEBUG......staticInit: DLL_PROCESS_ATTACH"};
        expected.insert(expected.end(), c.stderrBetween.begin(), c.stderrBetween.end());
        expected.push_back(unload);
    }
    EXPECT_EQ(expected, harness::lines(errText)) << "standard error";

    struct stat info = {};
    const bool fileThere = stat(harness::traceFileName, &info) == 0 && S_ISREG(info.st_mode);
    EXPECT_EQ(fileThere, !c.file.empty());
    if (fileThere) {
        EXPECT_EQ(info.st_mode & 0777, 0600u) << "the trace file holds passwords";
        harness::FileTrace file =
            harness::readTraceFile(harness::traceFileName, start, static_cast<long>(time(nullptr)));
        EXPECT_EQ(c.file, file.lines);
        EXPECT_TRUE(file.problems.empty()) << file.problems.front();
    }
    if (c.fileIsDirectory) rmdir(harness::traceFileName);
}

INSTANTIATE_TEST_SUITE_P(Load, ChildCases, ::testing::ValuesIn(childCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
