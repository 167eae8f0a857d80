// store_bench.cpp - how the cost of opening, reading, adding, listing and re-keying a key
// database grows with its size, beside NSS's sql: database holding the same certificates.
// bench/store.sh runs it; it prints one row per size.
//
//   bench_store DIR N...          one row per size N
//   bench_store --fill FILE PW N  a key database FILE (password PW) with a personal key
//                                 "bench-key" and N - 1 signer certificates ca-00000...
//                                 (for the Java benchmark at sizes its own filling would take
//                                 hours to reach)
//
// For each N: N distinct self-signed CA certificates (EC P-256, each its own key), made once; a
// key database of a personal key and N - 1 of them as signer certificates, filled by the
// library's own inserts, 10,000 to a transaction; then, on the open database,
//   open      median of 20 opens and closes (the password's key derived once before)
//   read      median and 99th percentile of 200 lookups of random labels (key item records)
//   add       median and 99th percentile of 40 adds of a CA certificate, each a synced commit
//   busy      the same while another process writes and syncs 64 MiB files in the directory
//   list      ZAVKM_ListEntries per entry, and the label list per label (medians of 5)
//   rekey     a password change (every private key, MAC and the index sealed anew), up to 10^5
//   nss       the same certificates imported into NSS's sql: database (up to 10^4: NSS adds a few
//             hundred a second), median and 99th percentile of 200 lookups by nickname
//             (CERT_FindCertByNickname) on the open database, and ours / NSS
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "store/file/entries.h"
#include "store/file/keydb.h"
#include "store/file/keyitems.h"
#include "zavkm.h"
#include "zavkm_ext.h"

// nssLookupTimes - NSS's side (nss_lookups.cpp): certificates[i] imported as labels[i] into a
// new sql: database in dir, then the time of a lookup of each of picks; false without NSS.
bool nssLookupTimes(const std::string& dir, const std::vector<std::vector<uint8_t>>& certificates,
                    const std::vector<std::string>& labels, const std::vector<std::string>& picks,
                    double& fillMs, std::vector<double>& times);

namespace {

using zavkm::Rc;
using Der = std::vector<uint8_t>;
constexpr const char* kPassword = "bench-Passw0rd";
constexpr long kNssMost = 10000;
constexpr long kRekeyMost = 100000;
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
void need(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "bench_store: %s failed\n", what);
    std::exit(1);
}

std::string caLabel(long i) {
    char label[32];
    std::snprintf(label, sizeof label, "ca-%05ld", i);
    return label;
}

// makeCertificate - a self-signed CA certificate named CN=Bench CA <i>, with a key of its own.
Der makeCertificate(long i) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* x = X509_new();
    X509_set_version(x, X509_VERSION_3);
    ASN1_INTEGER_set_int64(X509_get_serialNumber(x), i + 1);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 365L * 86400);
    X509_NAME* name = X509_get_subject_name(x);
    const std::string cn = "Bench CA " + std::to_string(i);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_set_issuer_name(x, name);
    X509_set_pubkey(x, key);
    X509_EXTENSION* bc = X509V3_EXT_conf_nid(nullptr, nullptr, NID_basic_constraints, "critical,CA:TRUE");
    X509_add_ext(x, bc, -1);
    X509_EXTENSION_free(bc);
    need(X509_sign(x, key, EVP_sha256()) > 0, "signing a certificate");
    Der der(static_cast<size_t>(i2d_X509(x, nullptr)));
    unsigned char* p = der.data();
    i2d_X509(x, &p);
    X509_free(x);
    EVP_PKEY_free(key);
    return der;
}

std::vector<Der> certificates;  // made once, used by every size
void makeCertificates(long n) {
    while (static_cast<long>(certificates.size()) < n) certificates.push_back(makeCertificate(static_cast<long>(certificates.size())));
}

// create - a key database with the personal key "bench-key" and signer certificates 0..n-2,
// filled through the library's own inserts.
void create(const std::string& file, const char* password, long n) {
    ::unlink(file.c_str());
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem subject{};
    subject.cn = const_cast<char*>("Bench Key");
    need(ZAVKM_CreateNewKeyDb(file.c_str(), password, 0, &h) == ZAVKM_OK, "create");
    need(ZAVKM_CreateSelfSignedCert(h, "bench-key", 1, 3, 256, &subject, 365, nullptr, 0) == ZAVKM_OK, "self-signed key");
    ZAVKM_CloseKeyDb(h);
    std::unique_ptr<zavkm::KeyDb> kdb;
    need(zavkm::openKeyDb(file.c_str(), password, false, kdb) == ZAVKM_OK, "open");
    for (long from = 0; from < n - 1; from += 10000) {
        Rc rc = zavkm::writeView(*kdb, [&](zavkm::View& v) -> Rc {
            for (long i = from; i < std::min(n - 1, from + 10000); ++i) {
                const unsigned char* p = certificates[static_cast<size_t>(i)].data();
                zavkm::X509Ptr x(d2i_X509(nullptr, &p, static_cast<long>(certificates[static_cast<size_t>(i)].size())));
                zavkm::KeyRow row;
                if (Rc made = zavkm::signerRowOf(x.get(), row); made != ZAVKM_OK) return made;
                row.label = caLabel(i);
                row.trusted = true;
                if (Rc added = zavkm::insertKey(v, row, x.get()); added != ZAVKM_OK) return added;
            }
            return ZAVKM_OK;
        });
        need(rc == ZAVKM_OK, "filling");
    }
}

Spread adds(ZAVKM_KeyDbHandle h, const std::string& tag) {
    std::vector<double> t;
    for (int i = 0; i < 40; ++i) {
        const Der cert = makeCertificate(1000000000L + i);
        const std::string label = tag + std::to_string(i);
        t.push_back(timed([&] {
            need(ZAVKM_StoreCACert(h, cert.data(), static_cast<uint32_t>(cert.size()), label.c_str()) == ZAVKM_OK, "add");
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

// nssLookups - the certificates 0..n-2 imported into a new NSS sql: database by nickname, then
// a lookup of each label of picks timed; the import time in *fillMs (nss_lookups.cpp).
Spread nssLookups(const std::string& dir, long n, const std::vector<long>& picks, double* fillMs) {
    std::vector<std::string> labels, picked;
    for (long i = 0; i < n - 1; ++i) labels.push_back(caLabel(i));
    for (long pick : picks) picked.push_back(caLabel(pick));
    std::vector<double> t;
    if (!nssLookupTimes(dir + "/nss" + std::to_string(n), certificates, labels, picked, *fillMs, t)) return {0, 0};
    return spread(t);
}

void measure(const std::string& dir, long n) {
    const std::string file = dir + "/n" + std::to_string(n) + ".kdb";
    makeCertificates(n);
    const double fillMs = timed([&] { create(file, kPassword, n); });
    ZAVKM_KeyDbHandle h = 0;
    std::vector<double> opens;
    for (int i = 0; i < 20; ++i)
        opens.push_back(timed([&] {
            need(ZAVKM_OpenKeyDb(file.c_str(), kPassword, &h) == ZAVKM_OK, "open");
            ZAVKM_CloseKeyDb(h);
        }));
    need(ZAVKM_OpenKeyDb(file.c_str(), kPassword, &h) == ZAVKM_OK, "open");
    std::mt19937 random(1);
    std::vector<long> picks;
    for (int i = 0; i < 200; ++i) picks.push_back(n > 1 ? static_cast<long>(random() % static_cast<unsigned long>(n - 1)) : 0);
    std::vector<double> reads;
    for (long pick : picks) {
        const std::string label = n > 1 ? caLabel(pick) : std::string("bench-key");
        reads.push_back(timed([&] {
            ZAVKM_KeyItem* key = nullptr;
            need(ZAVKM_GetKeyItemByLabel(h, label.c_str(), &key) == ZAVKM_OK, "read");
            ZAVKM_FreeKeyItem(key);
        }));
    }
    const Spread add = adds(h, "quiet");
    pid_t busy = busyDisk(dir);
    const Spread addBusy = adds(h, "busy");
    ::kill(busy, SIGKILL);
    ::waitpid(busy, nullptr, 0);
    ::unlink((dir + "/busy").c_str());
    uint32_t count = 0;
    std::vector<double> lists, labelLists;
    for (int i = 0; i < 5; ++i) {
        ZAVKM_Entry* entries = nullptr;
        lists.push_back(timed([&] { need(ZAVKM_ListEntries(h, &entries, &count) == ZAVKM_OK, "list"); }));
        ZAVKM_FreeEntries(entries, count);
        ZAVKM_LabelList* labels = nullptr;
        labelLists.push_back(timed([&] { need(ZAVKM_GetKeyDbLabelList(h, &labels) == ZAVKM_OK, "labels"); }));
        ZAVKM_FreeLabelList(labels);
    }
    const double listMs = spread(lists).median, labelsMs = spread(labelLists).median;
    ZAVKM_CloseKeyDb(h);
    double rekeyMs = 0;
    if (n <= kRekeyMost)
        rekeyMs = timed([&] { need(ZAVKM_ChangeKeyDbPwd(file.c_str(), kPassword, "bench-Passw0rd-2", 0) == ZAVKM_OK, "rekey"); });
    double nssFill = 0;
    Spread nss{0, 0};
    if (n <= kNssMost && n > 1) nss = nssLookups(dir, n, picks, &nssFill);
    const Spread open = spread(opens), read = spread(reads);
    std::printf("%8ld %7.1f %6.2f %6.3f %6.3f %6.2f %6.2f %6.2f %7.2f %6.3f %6.3f %8.0f %7.1f %6.3f %6.3f %5.1fx\n", n,
                fillMs / 1000, open.median, read.median, read.p99, add.median, add.p99, addBusy.median, addBusy.p99,
                listMs * 1000 / count, labelsMs * 1000 / count, rekeyMs, nssFill / 1000, nss.median, nss.p99,
                nss.median > 0 ? nss.median / read.median : 0.0);
    std::fflush(stdout);
    for (const char* side : {"", "-wal", "-shm"}) ::unlink((file + side).c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::string(argv[1]) == "--fill") {
        ZAVKM_Init();
        makeCertificates(std::atol(argv[4]));
        create(argv[2], argv[3], std::atol(argv[4]));
        ZAVKM_CleanAll();
        return 0;
    }
    if (argc < 3) return std::fprintf(stderr, "usage: bench_store DIR N... | --fill FILE PASSWORD N\n"), 2;
    ZAVKM_Init();
    std::printf("%8s %7s %6s %6s %6s %6s %6s %6s %7s %6s %6s %8s %7s %6s %6s %6s\n", "entries", "fill s",
                "open", "read", "p99", "add", "p99", "busy", "p99", "list", "labels", "rekey", "nss s",
                "nss", "p99", "nss/us");
    std::printf("%8s %7s %6s %6s %6s %6s %6s %6s %7s %6s %6s %8s %7s %6s %6s %6s\n", "", "", "ms", "ms", "ms", "ms",
                "ms", "ms", "ms", "us/e", "us/e", "ms", "", "ms", "ms", "");
    for (int i = 2; i < argc; ++i) measure(argv[1], std::atol(argv[i]));
    ZAVKM_CleanAll();
    return 0;
}
