// concurrency_test.cpp - several processes, each with several threads, adding certificates to
// one key database at once: every call waits its turn and nothing is lost.
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "support.h"

namespace zavkm_test {
namespace {

constexpr const char* kPassword = "shared pw";
constexpr int kProcesses = 3;
constexpr int kThreads = 2;
constexpr int kAdds = 15;  // per thread

// addMany - what one writer does: open, add one signer certificate, close; kAdds times.
int addMany(const std::string& file, const std::vector<uint8_t>& cert, const std::string& who) {
    int failures = 0;
    for (int i = 0; i < kAdds; ++i) {
        ZAVKM_KeyDbHandle h = 0;
        std::string label = who + "-" + std::to_string(i);
        if (ZAVKM_OpenKeyDb(file.c_str(), kPassword, &h) != ZAVKM_OK) {
            ++failures;
            continue;
        }
        if (ZAVKM_StoreCACert(h, cert.data(), static_cast<uint32_t>(cert.size()), label.c_str()) !=
            ZAVKM_OK)
            ++failures;
        ZAVKM_CloseKeyDb(h);
    }
    return failures;
}

// writerProcess - kThreads threads of addMany; the exit status counts the failures.
[[noreturn]] void writerProcess(const std::string& file, const std::vector<uint8_t>& cert,
                                int process) {
    int failures = ZAVKM_Init() == ZAVKM_OK ? 0 : 100;
    std::vector<std::thread> threads;
    std::vector<int> results(kThreads, 0);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            results[t] =
                addMany(file, cert, "p" + std::to_string(process) + "t" + std::to_string(t));
        });
    for (auto& t : threads) t.join();
    for (int r : results) failures += r;
    ZAVKM_CleanAll();
    _exit(failures > 255 ? 255 : failures);
}

using ConcurrencyTest = LibraryTest;

TEST_F(ConcurrencyTest, ProcessesAndThreadsAddingAtOnceLoseNothing) {
    std::string file = dir.path("shared.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    std::vector<uint8_t> cert;
    {
        OpenDb db(file, kPassword);
        ASSERT_EQ(db.rc, ZAVKM_OK);
        cert = selfSigned(db.h, "root", dir);
        ASSERT_FALSE(cert.empty());
    }
    ZAVKM_CleanAll();  // nothing open, nothing cached, when the children start
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) writerProcess(file, cert, p);
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), 0) << "failed calls in writer " << pid;
    }
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    OpenDb db(file, kPassword);
    ASSERT_EQ(db.rc, ZAVKM_OK);
    EXPECT_EQ(labels(db.h).size(), 1u + kProcesses * kThreads * kAdds);
}

}  // namespace
}  // namespace zavkm_test
