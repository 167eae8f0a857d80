// p12_import_bench.cpp - imports a PKCS#12 file of N certificates that share one common name (so
// every label is made unique with " (n)") into a new key database, while a second writer adds CA
// certificates to the same database one after the other. Prints, for each N, the CPU time of
// the import's thread, its wall time, and the longest any one add of the second writer took
// (how long it waited for the import's write lock). Uses the C ABI only.
//
//   bench_p12_import [N ...]     (default 4000 8000 16000)
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "zavkm.h"

namespace {

constexpr const char* kPw = "bench pw";

double cpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// certificate - a self-signed certificate named "Same" with its own serial, DER.
std::vector<uint8_t> certificate(EVP_PKEY* key, long serial, const char* cn) {
    X509* c = X509_new();
    X509_set_version(c, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(c), serial);
    X509_gmtime_adj(X509_getm_notBefore(c), 0);
    X509_gmtime_adj(X509_getm_notAfter(c), 86400L * 365);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(c), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
    X509_set_issuer_name(c, X509_get_subject_name(c));
    X509_set_pubkey(c, key);
    X509_sign(c, key, EVP_sha256());
    unsigned char* der = nullptr;
    const int n = i2d_X509(c, &der);
    std::vector<uint8_t> out(der, der + n);
    OPENSSL_free(der);
    X509_free(c);
    return out;
}

// writePkcs12 - a PKCS#12 file of n certificate bags without friendlyName, under kPw.
void writePkcs12(const std::string& file, EVP_PKEY* key, int n) {
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    for (int i = 0; i < n; ++i) {
        std::vector<uint8_t> der = certificate(key, 1000 + i, "Same");
        const unsigned char* p = der.data();
        X509* c = d2i_X509(nullptr, &p, static_cast<long>(der.size()));
        PKCS12_add_cert(&bags, c);
        X509_free(c);
    }
    STACK_OF(PKCS7)* safes = nullptr;
    PKCS12_add_safe(&safes, bags, -1, 0, nullptr);
    PKCS12* p12 = PKCS12_add_safes(safes, 0);
    PKCS12_set_mac(p12, kPw, -1, nullptr, 0, 2048, EVP_sha256());
    FILE* f = std::fopen(file.c_str(), "wb");
    i2d_PKCS12_fp(f, p12);
    std::fclose(f);
    PKCS12_free(p12);
    sk_PKCS7_pop_free(safes, PKCS7_free);
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<int> sizes;
    for (int i = 1; i < argc; ++i) sizes.push_back(std::atoi(argv[i]));
    if (sizes.empty()) sizes = {4000, 8000, 16000};
    if (ZAVKM_Init() != ZAVKM_OK) return 1;
    char dir[] = "/tmp/bench-p12-XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    EVP_PKEY* key = EVP_EC_gen("P-256");
    const std::vector<uint8_t> other = certificate(key, 1, "Other");
    std::printf("%8s %14s %14s %20s %8s\n", "certs", "import CPU s", "import wall s", "longest other add s", "adds");
    for (int n : sizes) {
        const std::string db = std::string(dir) + "/b" + std::to_string(n) + ".kdb";
        const std::string p12 = std::string(dir) + "/b" + std::to_string(n) + ".p12";
        writePkcs12(p12, key, n);
        ZAVKM_KeyDbHandle importer = 0, writer = 0;
        if (ZAVKM_CreateNewKeyDb(db.c_str(), kPw, 0, &importer) != ZAVKM_OK ||
            ZAVKM_OpenKeyDb(db.c_str(), kPw, &writer) != ZAVKM_OK)
            return 1;
        double cpu = 0, wall = 0, longest = 0;
        int rcImport = 0, rcWriter = 0, adds = 0;
        std::atomic<bool> done{false};
        std::thread import([&] {
            const auto start = std::chrono::steady_clock::now();
            const double cpu0 = cpuSeconds();
            rcImport = ZAVKM_ImportKeysFromPFXFile(importer, p12.c_str(), kPw);
            cpu = cpuSeconds() - cpu0;
            wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            done = true;
        });
        while (!done && rcWriter == 0) {  // the second writer
            const std::string label = "other " + std::to_string(adds++);
            const auto start = std::chrono::steady_clock::now();
            rcWriter = ZAVKM_StoreCACert(writer, other.data(), static_cast<uint32_t>(other.size()), label.c_str());
            longest = std::max(longest, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        }
        import.join();
        std::printf("%8d %14.2f %14.2f %20.3f %8d%s\n", n, cpu, wall, longest, adds,
                    rcImport != 0 || rcWriter != 0 ? "  (a call failed)" : "");
        ZAVKM_CloseKeyDb(importer);
        ZAVKM_CloseKeyDb(writer);
        unlink(p12.c_str());
    }
    EVP_PKEY_free(key);
    ZAVKM_CleanAll();
    std::string rm = std::string("rm -rf ") + dir;
    return std::system(rm.c_str()) == 0 ? 0 : 1;
}
