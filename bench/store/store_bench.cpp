// store_bench.cpp - how the cost of opening, reading, adding and listing a key database grows
// with its size. bench/store.sh runs it; it prints one row per size.
//
//   bench_store DIR N...
//
// For each N: a key database of N signer certificates (filled in one transaction), then
//   open      median of 20 opens and closes (the password's key derived once before)
//   read      median and 99th percentile of 200 lookups of random labels (key item records)
//   add       median and 99th percentile of 40 adds, each a synced transaction
//   add busy  the same while another process writes and syncs 64 MiB files in the directory
//   list      ZAVKM_ListEntries and the label list, per entry
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "entries.h"
#include "keydb.h"
#include "sql.h"
#include "zavkm.h"
#include "zavkm_ext.h"

namespace {

using zavkm::Rc;
constexpr const char* kPassword = "bench-Passw0rd";
using Clock = std::chrono::steady_clock;

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct Spread {
    double median, p99;
};
Spread spread(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return {v[v.size() / 2], v[std::min(v.size() - 1, v.size() * 99 / 100)]};
}
double timed(const std::function<void()>& f) {
    auto t = Clock::now();
    f();
    return ms(Clock::now() - t);
}

// fill - N signer rows like the certificate of "ca", in one transaction.
void fill(const std::string& file, long n, const std::vector<uint8_t>& cert) {
    std::unique_ptr<zavkm::KeyDb> kdb;
    if (zavkm::openKeyDb(file.c_str(), kPassword, false, kdb) != ZAVKM_OK) std::abort();
    Rc rc = zavkm::writeView(*kdb, [&](zavkm::View& v) -> Rc {
        std::optional<zavkm::KeyRow> ca;
        zavkm::findKey(v, "ca", ca);
        zavkm::KeyRow row = *ca;
        row.privateKey.clear();
        row.isDefault = false;
        row.cert.assign(cert.begin(), cert.end());
        for (long i = 0; i < n; ++i) {
            row.label = "c" + std::to_string(i);
            if (Rc added = zavkm::insertKey(v, row); added != ZAVKM_OK) return added;
        }
        return ZAVKM_OK;
    });
    if (rc != ZAVKM_OK) std::abort();
}

Spread adds(ZAVKM_KeyDbHandle h, const std::vector<uint8_t>& cert, const std::string& tag) {
    std::vector<double> t;
    for (int i = 0; i < 40; ++i) {
        const std::string label = tag + std::to_string(i);
        t.push_back(timed([&] {
            if (ZAVKM_StoreCACert(h, cert.data(), static_cast<uint32_t>(cert.size()), label.c_str()) != ZAVKM_OK)
                std::abort();
        }));
    }
    return spread(t);
}

// busyDisk - a process writing and syncing 64 MiB files in dir until it is killed.
pid_t busyDisk(const std::string& dir) {
    pid_t pid = ::fork();
    if (pid != 0) return pid;
    std::vector<char> block(1 << 20, 'x');
    for (;;) {
        int fd = ::open((dir + "/busy").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        for (int i = 0; i < 64; ++i)
            if (::write(fd, block.data(), block.size()) < 0) break;
        ::fsync(fd);
        ::close(fd);
    }
}

void measure(const std::string& dir, long n) {
    const std::string file = dir + "/n" + std::to_string(n) + ".kdb";
    ::unlink(file.c_str());
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem ca{};
    ca.cn = const_cast<char*>("Bench CA");
    const std::string der = dir + "/ca.der";
    if (ZAVKM_CreateNewKeyDb(file.c_str(), kPassword, 0, &h) != ZAVKM_OK ||
        ZAVKM_CreateSelfSignedCert(h, "ca", 0, 3, 256, &ca, 365, der.c_str(), 0) != ZAVKM_OK)
        std::abort();
    ZAVKM_CloseKeyDb(h);
    std::ifstream in(der, std::ios::binary);
    std::vector<uint8_t> cert((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const double fillMs = timed([&] { fill(file, n, cert); });

    std::vector<double> opens;
    for (int i = 0; i < 20; ++i)
        opens.push_back(timed([&] {
            if (ZAVKM_OpenKeyDb(file.c_str(), kPassword, &h) != ZAVKM_OK) std::abort();
            ZAVKM_CloseKeyDb(h);
        }));
    if (ZAVKM_OpenKeyDb(file.c_str(), kPassword, &h) != ZAVKM_OK) std::abort();
    std::mt19937 random(1);
    std::vector<double> reads;
    for (int i = 0; i < 200; ++i) {
        const std::string label = "c" + std::to_string(random() % n);
        reads.push_back(timed([&] {
            ZAVKM_KeyItem* key = nullptr;
            if (ZAVKM_GetKeyItemByLabel(h, label.c_str(), &key) != ZAVKM_OK) std::abort();
            ZAVKM_FreeKeyItem(key);
        }));
    }
    const Spread add = adds(h, cert, "quiet");
    pid_t busy = busyDisk(dir);
    const Spread addBusy = adds(h, cert, "busy");
    ::kill(busy, SIGKILL);
    ::waitpid(busy, nullptr, 0);
    ::unlink((dir + "/busy").c_str());
    ZAVKM_Entry* entries = nullptr;
    uint32_t count = 0;
    const double listMs = timed([&] { ZAVKM_ListEntries(h, &entries, &count); });
    ZAVKM_FreeEntries(entries, count);
    ZAVKM_LabelList* labels = nullptr;
    const double labelsMs = timed([&] { ZAVKM_GetKeyDbLabelList(h, &labels); });
    ZAVKM_FreeLabelList(labels);
    ZAVKM_CloseKeyDb(h);
    const Spread open = spread(opens), read = spread(reads);
    std::printf("%9ld %9.0f %8.2f %8.3f %8.3f %8.2f %8.2f %8.2f %8.2f %8.2f %8.2f\n", n, fillMs,
                open.median, read.median, read.p99, add.median, add.p99, addBusy.median, addBusy.p99,
                listMs * 1000 / count, labelsMs * 1000 / count);
    std::fflush(stdout);
    for (const char* side : {"", "-wal", "-shm"}) ::unlink((file + side).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return std::fprintf(stderr, "usage: bench_store DIR N...\n"), 2;
    ZAVKM_Init();
    std::printf("%9s %9s %8s %8s %8s %8s %8s %8s %8s %8s %8s\n", "entries", "fill ms", "open ms",
                "read ms", "read p99", "add ms", "add p99", "busy ms", "busy p99", "list us", "labels us");
    for (int i = 2; i < argc; ++i) measure(argv[1], std::atol(argv[i]));
    ZAVKM_CleanAll();
    return 0;
}
