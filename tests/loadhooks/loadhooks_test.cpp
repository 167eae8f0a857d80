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

// What sits at the trace file's name before the bridge loads. The file holds passwords: a link
// (of anyone), a FIFO, another user's file or a second name of another file is never written.
enum class Plant { None, Directory, IntruderLink, OwnLink, Fifo, IntruderFile, HardLink, OwnLoose };
constexpr uid_t kIntruder = 4242;
const std::string precious = "precious\n";  // victim.txt, what links and second names lead to

struct ChildCase {
    const char* name;
    const char* calls;   // between dlopen and dlclose: 'i' InitDebug with the file, 'c' CleanAll
    Lines stderrBetween;  // standard error between the load and unload lines
    Lines file;           // the trace file's lines, stamps taken out; empty: no trace written
    Plant plant = Plant::None;
};

const ChildCase childCases[] = {
    {"LoadAndUnload", "", {}, {}},
    // The unload hook writes into a file that is still open; the stream is closed at exit.
    {"UnloadWithTheFileOpen", "i", {entered, before, rc}, {before, rc, unload}},
    // A second opening starts the file afresh; after c_ZAVKMCleanAll nothing more reaches it.
    {"FileOpenedTwiceThenClosed", "iic", {entered, before, rc, entered, before, rc, cleanAll},
     {before, rc, cleanAll}},
    // A trace file that cannot be opened, or is refused, leaves the file channel off.
    {"FileCannotBeOpened", "ic", {entered, before, rc, cleanAll}, {}, Plant::Directory},
    {"IntruderLinkIsNotFollowed", "ic", {entered, before, rc, cleanAll}, {}, Plant::IntruderLink},
    {"OwnLinkIsNotFollowed", "ic", {entered, before, rc, cleanAll}, {}, Plant::OwnLink},
    {"FifoIsNotWaitedOn", "ic", {entered, before, rc, cleanAll}, {}, Plant::Fifo},
    {"IntruderFileIsNotEmptied", "ic", {entered, before, rc, cleanAll}, {}, Plant::IntruderFile},
    {"SecondNameIsNotEmptied", "ic", {entered, before, rc, cleanAll}, {}, Plant::HardLink},
    // A file of ours that others could read is made private and started afresh.
    {"OwnLooseFileIsTightened", "ic", {entered, before, rc, cleanAll}, {before, rc, cleanAll}, Plant::OwnLoose},
};

// plant - puts c's planted thing at the trace file's name.
void plant(Plant kind) {
    const char* name = harness::traceFileName;
    switch (kind) {
        case Plant::None: break;
        case Plant::Directory: mkdir(name, 0700); break;
        case Plant::IntruderLink:
        case Plant::OwnLink: symlink("victim.txt", name); break;
        case Plant::Fifo: mkfifo(name, 0666); break;
        case Plant::IntruderFile:
        case Plant::OwnLoose: {
            FILE* f = fopen(name, "w");
            fputs(precious.c_str(), f);
            fclose(f);
            chmod(name, kind == Plant::OwnLoose ? 0644 : 0666);
            break;
        }
        case Plant::HardLink: link("victim.txt", name); break;
    }
    if (kind == Plant::IntruderLink || kind == Plant::IntruderFile) lchown(name, kIntruder, kIntruder);
}

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
    if ((c.plant == Plant::IntruderLink || c.plant == Plant::IntruderFile) && geteuid() != 0)
        GTEST_SKIP() << "another user's file needs root to make";
    remove(harness::traceFileName);
    rmdir(harness::traceFileName);
    FILE* victim = fopen("victim.txt", "w");
    fputs(precious.c_str(), victim);
    fclose(victim);
    plant(c.plant);
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

    EXPECT_EQ(harness::readFile("victim.txt"), precious) << "written through the planted name";
    if (c.plant == Plant::IntruderFile) {
        EXPECT_EQ(harness::readFile(harness::traceFileName), precious) << "another user's file emptied";
    }
    struct stat info = {};
    const bool fileThere = lstat(harness::traceFileName, &info) == 0 && S_ISREG(info.st_mode) &&
                           info.st_uid == geteuid() && info.st_nlink == 1;
    EXPECT_EQ(fileThere, !c.file.empty());
    if (fileThere) {
        EXPECT_EQ(info.st_mode & 0777, 0600u) << "the trace file holds passwords";
        harness::FileTrace file =
            harness::readTraceFile(harness::traceFileName, start, static_cast<long>(time(nullptr)));
        EXPECT_EQ(c.file, file.lines);
        EXPECT_TRUE(file.problems.empty()) << file.problems.front();
    }
    remove(harness::traceFileName);
    rmdir(harness::traceFileName);
}

INSTANTIATE_TEST_SUITE_P(Load, ChildCases, ::testing::ValuesIn(childCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
