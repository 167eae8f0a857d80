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
#include <functional>
#include <string>
#include <vector>

#include "capture.h"

namespace {

using harness::lines;
using harness::traceFileName;

using InitDebug = jint (*)(JNIEnv*, jclass, jboolean, jboolean);
using CleanAll = jint (*)(JNIEnv*, jclass);

const char* const initDebugName = "Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMInitDebug";
const char* const cleanAllName = "Java_com_norvex_zav_tolvik_basic_KMSystem_c_1ZAVKMCleanAll";

const std::string initDebugEntered = "JNI_KMSystem::ZAVKMInitDebug 0000, entered ...";
const std::string beforeStartTrace = "JNI_KMSystem::ZAVKMInitDebug 0010, before ZAVKM_StartTrace";
const std::string startTraceRc = "JNI_KMSystem::ZAVKMInitDebug 0020, rc=0";
const std::string cleanAllEntered = "JNI_DEBUG......Entered KMSystem_c_ZAVKMCleanAll().";
const std::string unloadLine = "JNI_DEBUG......staticFini: DLL_PROCESS_DETACH";

// What a child does with the loaded bridge between dlopen and dlclose.
using Body = std::function<void(void* bridge)>;

void initDebugWithFile(void* bridge) {
    reinterpret_cast<InitDebug>(dlsym(bridge, initDebugName))(nullptr, nullptr, JNI_FALSE, JNI_TRUE);
}

void cleanAll(void* bridge) {
    reinterpret_cast<CleanAll>(dlsym(bridge, cleanAllName))(nullptr, nullptr);
}

struct ChildCase {
    const char* name;
    Body body;
    std::vector<std::string> stderrBetween;  // standard error between load and unload lines
    bool fileMade;                           // whether the trace file exists afterwards
    std::vector<std::string> file;           // its lines, stamps taken out
    bool traceFileIsDirectory = false;       // the trace file's name is taken by a directory
};

void PrintTo(const ChildCase& c, std::ostream* out) { *out << c.name; }

const std::vector<ChildCase> childCases = {
    {"LoadAndUnload", [](void*) {}, {}, false, {}},
    // The unload hook writes into a file that is still open; the stream is closed at exit.
    {"UnloadWithTheFileOpen", initDebugWithFile,
     {initDebugEntered, beforeStartTrace, startTraceRc}, true,
     {beforeStartTrace, startTraceRc, unloadLine}},
    // A second opening starts the file afresh; after c_ZAVKMCleanAll nothing more reaches it.
    {"FileOpenedTwiceThenClosed",
     [](void* bridge) {
         initDebugWithFile(bridge);
         initDebugWithFile(bridge);
         cleanAll(bridge);
     },
     {initDebugEntered, beforeStartTrace, startTraceRc, initDebugEntered, beforeStartTrace,
      startTraceRc, cleanAllEntered},
     true, {beforeStartTrace, startTraceRc, cleanAllEntered}},
    // A trace file that cannot be opened leaves the file channel off; nothing breaks.
    {"FileCannotBeOpened",
     [](void* bridge) {
         initDebugWithFile(bridge);
         cleanAll(bridge);
     },
     {initDebugEntered, beforeStartTrace, startTraceRc, cleanAllEntered}, false, {}, true},
};

// The lines the load hook writes to standard error under this process's setting.
std::vector<std::string> loadLines() {
    if (!harness::stderrChannelOn()) return {};
    return {std::string("JNI_DEBUG......debugMsgEnvExist=") + getenv("TOLVIK_JNI_DEBUG"),
            "JNI_DEBUG......staticInit: DLL_PROCESS_ATTACH"};
}

// runChild loads the bridge in a child process with standard error sent to a file, runs body,
// unloads the bridge and exits; returns what the child wrote to standard error.
std::string runChild(const Body& body) {
    const std::string errFile = "child-stderr.txt";
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        int fd = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 2);
        void* bridge = dlopen(ZAV_BRIDGE_PATH, RTLD_NOW | RTLD_LOCAL);
        if (bridge == nullptr) {
            printf("dlopen: %s\n", dlerror());
            _exit(3);
        }
        body(bridge);
        dlclose(bridge);
        exit(0);  // runs the unload hook if dlclose kept the bridge loaded, and closes streams
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
    return harness::readFile(errFile);
}

class ChildCases : public ::testing::TestWithParam<ChildCase> {};

TEST_P(ChildCases, TraceChannels) {
    const ChildCase& c = GetParam();
    remove(traceFileName);
    rmdir(traceFileName);
    if (c.traceFileIsDirectory) {
        ASSERT_EQ(mkdir(traceFileName, 0700), 0);
    }
    const long start = static_cast<long>(time(nullptr));

    std::string errText = runChild(c.body);

    std::vector<std::string> expected = loadLines();
    if (harness::stderrChannelOn()) {
        expected.insert(expected.end(), c.stderrBetween.begin(), c.stderrBetween.end());
        expected.push_back(unloadLine);
    }
    EXPECT_EQ(expected, lines(errText)) << "standard error";

    struct stat info = {};
    bool fileThere = stat(traceFileName, &info) == 0 && S_ISREG(info.st_mode);
    EXPECT_EQ(fileThere, c.fileMade);
    if (fileThere) {
        EXPECT_EQ(info.st_mode & 0777, 0600u) << "the trace file holds passwords";
        harness::FileTrace file =
            harness::readTraceFile(traceFileName, start, static_cast<long>(time(nullptr)));
        EXPECT_EQ(c.file, file.lines);
        EXPECT_TRUE(file.problems.empty()) << file.problems.front();
    }
    if (c.traceFileIsDirectory) rmdir(traceFileName);
}

INSTANTIATE_TEST_SUITE_P(Load, ChildCases, ::testing::ValuesIn(childCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
