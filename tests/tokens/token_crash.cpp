// token_crash.cpp - a writer re-signing a request key's request on a SoftHSM2 token, stopped at
// every step that changes the token and killed at random moments, and what each stop leaves.
//
//   token_crash DIR KILLS SEED [US]  makes a token in DIR with the request key "req" (signed
//                                    with SHA-256), then:
//     steps: for n = 1, 2, ... a writer re-signs it with SHA-384 through p11stop, which ends the
//            process before the n-th change of the token; from what that leaves, an opener is
//            stopped the same way at each change of its own, then the token is checked. The
//            request must be the old one when the writer stopped before its first change, the
//            new one otherwise.
//     kills: KILLS rounds of a writer re-signing over and over (SHA-256 and SHA-384 in turn),
//            SIGKILLed a random delay of up to US microseconds (50000) after it opened the token.
//   exits 0 when every check held.
//   token_crash --writer DIR FD MODULE COUNT   the writer: opens the token through MODULE, says
//                                    so on FD, re-signs COUNT times (0: until it is killed)
//
// After each stop the library opens the token, lists "req" as its only request key and writes
// its request out, which verifies and is for the key the token made at the start; the token then
// holds that one request object and no other data object.
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>

#include "zavkm.h"

namespace {

const char* const kModule = SOFTHSM_MODULE;       // the library's
const char* const kToolModule = TOOL_MODULE;      // pkcs11-tool's: the host's, on the same tokens
const char* const kStopModule = STOP_MODULE;
std::string dir;
std::string self;
int failures = 0;

std::string run(const std::string& command) {
    std::string out;
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr) return out;
    std::array<char, 4096> buf{};
    size_t n = 0;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.append(buf.data(), n);
    pclose(p);
    return out;
}

KeyStoreDescriptor token(const char* module) {
    KeyStoreDescriptor d{};
    d.storeType = CryptoToken;
    d.cryptoModuleName = module;
    d.tokenLabel = "crash";
    d.password = "1234";
    return d;
}

int writer(int ready, const char* module, long count) {
    ZAVKM_Init();
    KeyStoreDescriptor d = token(module);
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDbX(&d, &h) != ZAVKM_OK) return 3;
    if (::write(ready, "r", 1) != 1) return 5;
    for (long i = 0; count == 0 || i < count; ++i)
        if (ZAVKM_ReCreateCertReqSig(h, "req", count == 0 ? 1 + i % 2 : 2, nullptr, nullptr,
                                     nullptr) != ZAVKM_OK)
            return 4;
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
    return 0;
}

void fail(const std::string& when, const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", when.c_str(), what.c_str());
    ++failures;
}

// Request - the PEM public key of a request file and the digest of its signature; the key is
// empty when the request does not verify.
struct Request {
    std::string key;
    int digest = NID_undef;
};

Request requestIn(const std::string& file) {
    Request out;
    FILE* in = std::fopen(file.c_str(), "r");
    if (in == nullptr) return out;
    X509_REQ* req = PEM_read_X509_REQ(in, nullptr, nullptr, nullptr);
    std::fclose(in);
    EVP_PKEY* key = req != nullptr ? X509_REQ_get0_pubkey(req) : nullptr;
    if (key != nullptr && X509_REQ_verify(req, key) == 1) {
        BIO* bio = BIO_new(BIO_s_mem());
        char* data = nullptr;
        if (PEM_write_bio_PUBKEY(bio, key) == 1) {
            const long n = BIO_get_mem_data(bio, &data);
            out.key.assign(data, static_cast<size_t>(n));
        }
        BIO_free(bio);
        int pkey = NID_undef;
        OBJ_find_sigid_algs(X509_REQ_get_signature_nid(req), &out.digest, &pkey);
    }
    X509_REQ_free(req);
    return out;
}

// check - what the token holds after a stop; digest: the request's signature digest it must
// have (NID_undef: either).
void check(const std::string& when, const std::string& key, int digest, bool objects) {
    KeyStoreDescriptor d = token(kModule);
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDbX(&d, &h) != ZAVKM_OK) return fail(when, "the token does not open");
    ZAVKM_LabelList* list = nullptr;
    if (ZAVKM_GetReqKeyDbLabelList(h, &list) != ZAVKM_OK || list == nullptr ||
        list->label == nullptr || std::strcmp(list->label, "req") != 0 ||
        (list->next != nullptr && list->next->label != nullptr))
        fail(when, "the request keys are not just req");
    ZAVKM_FreeLabelList(list);
    const std::string out = dir + "/now.csr";
    Request now;
    if (ZAVKM_ReCreateCertReq(h, "req", out.c_str(), nullptr, nullptr) != ZAVKM_OK)
        fail(when, "the request is not written out");
    else if ((now = requestIn(out)).key != key)
        fail(when, "the request does not verify or is for another key");
    else if (digest != NID_undef && now.digest != digest)
        fail(when, std::string("the request is signed with ") + OBJ_nid2sn(now.digest));
    ZAVKM_CloseKeyDb(h);
    if (!objects) return;
    // Once opened, the token holds the one request object and nothing else of the replacement.
    const std::string listed = run(std::string("pkcs11-tool --module ") + kToolModule +
                                   " --token-label crash --list-objects --type data");
    size_t data = 0;
    for (size_t at = listed.find("Data object"); at != std::string::npos;
         at = listed.find("Data object", at + 1))
        ++data;
    if (data != 1 || listed.find("label:          'req'") == std::string::npos)
        fail(when, "the token holds other data objects than the request:\n" + listed);
}

// start - a writer process through module; ready: it opened the token.
pid_t start(const char* module, long count, bool& ready) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return -1;
    pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // no writer outlives the harness
        ::close(pipeFds[0]);
        const std::string fd = std::to_string(pipeFds[1]), n = std::to_string(count);
        ::execl(self.c_str(), self.c_str(), "--writer", dir.c_str(), fd.c_str(), module, n.c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    char byte = 0;
    ready = ::read(pipeFds[0], &byte, 1) == 1;
    ::close(pipeFds[0]);
    return pid;
}

int waitFor(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void copyTokens(const std::string& from, const std::string& to) {
    run("rm -rf '" + dir + "/" + to + "' && cp -a '" + dir + "/" + from + "' '" + dir + "/" + to + "'");
}

// opensStopped - opens the token through p11stop stopping at its n-th change; false when the
// open got through without making n changes.
bool opensStopped(long n) {
    setenv("ZAV_P11STOP_AT", std::to_string(n).c_str(), 1);
    pid_t pid = ::fork();
    if (pid == 0) {
        ZAVKM_Init();
        KeyStoreDescriptor d = token(kStopModule);
        ZAVKM_KeyDbHandle h = 0;
        ::_exit(ZAVKM_OpenKeyDbX(&d, &h) == ZAVKM_OK ? 0 : 3);
    }
    const int code = waitFor(pid);
    unsetenv("ZAV_P11STOP_AT");
    return code == 9;
}

// steps - the writer stopped before each of its changes in turn; then the opener that finds
// what it left stopped before each of its own.
void steps(const std::string& key) {
    setenv("ZAV_P11STOP_MODULE", kModule, 1);
    copyTokens("tokens", "start");
    for (long n = 1;; ++n) {
        copyTokens("start", "tokens");
        setenv("ZAV_P11STOP_AT", std::to_string(n).c_str(), 1);
        bool ready = false;
        const int code = waitFor(start(kStopModule, 1, ready));
        unsetenv("ZAV_P11STOP_AT");
        if (code == 0) break;  // the re-signing made fewer than n changes
        if (!ready || code != 9) return fail("step " + std::to_string(n), "the writer failed");
        copyTokens("tokens", "stopped");
        const int digest = n == 1 ? NID_sha256 : NID_sha384;
        for (long m = 1;; ++m) {
            copyTokens("stopped", "tokens");
            const bool stopped = opensStopped(m);
            ZAVKM_Init();
            check("step " + std::to_string(n) + ", open stopped at " + std::to_string(m), key,
                  digest, true);
            ZAVKM_CleanAll();
            if (!stopped) break;
        }
        std::printf("stopped at change %ld of the re-signing: recovered\n", n);
    }
    copyTokens("start", "tokens");
}

void kills(long count, unsigned seed, long maxDelayUs, const std::string& key) {
    std::mt19937 random(seed);
    for (long kill = 0; kill < count && failures == 0; ++kill) {
        bool ready = false;
        pid_t pid = start(kModule, 0, ready);
        if (ready) std::this_thread::sleep_for(std::chrono::microseconds(random() % maxDelayUs));
        ::kill(pid, SIGKILL);
        if (waitFor(pid) != 128 + SIGKILL || !ready) return fail("kill", "the writer failed");
        ZAVKM_Init();
        check("kill " + std::to_string(kill), key, NID_undef, kill % 25 == 0 || kill + 1 == count);
        ZAVKM_CleanAll();
    }
    std::printf("%ld kills\n", count);
}

int harness(long count, unsigned seed, long maxDelayUs) {
    std::ofstream(dir + "/softhsm2.conf") << "directories.tokendir = " << dir << "/tokens\n"
                                          << "objectstore.backend = file\n";
    setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
    run("mkdir -p " + dir + "/tokens && softhsm2-util --init-token --free --label crash "
        "--pin 1234 --so-pin 5678");
    ZAVKM_Init();
    KeyStoreDescriptor d = token(kModule);
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem dn{};
    dn.cn = const_cast<char*>("crash request");
    const std::string first = dir + "/first.csr";
    if (ZAVKM_OpenKeyDbX(&d, &h) != ZAVKM_OK ||
        ZAVKM_CreateNewCertReq(h, "req", 256, &dn, first.c_str(), nullptr, nullptr) != ZAVKM_OK)
        return 3;
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
    const std::string key = requestIn(first).key;
    steps(key);
    if (failures == 0) kills(count, seed, maxDelayUs, key);
    std::printf("%s\n", failures == 0 ? "every check held" : "FAILED");
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    self = argv[0];
    if (argc == 6 && std::strcmp(argv[1], "--writer") == 0) {
        dir = argv[2];
        setenv("SOFTHSM2_CONF", (dir + "/softhsm2.conf").c_str(), 1);
        return writer(std::atoi(argv[3]), argv[4], std::atol(argv[5]));
    }
    if (argc != 4 && argc != 5) return std::fprintf(stderr, "usage: token_crash DIR KILLS SEED [US]\n"), 2;
    dir = argv[1];
    const long maxDelayUs = argc == 5 ? std::max(1L, std::atol(argv[4])) : 50000;
    return harness(std::atol(argv[2]), static_cast<unsigned>(std::atol(argv[3])), maxDelayUs);
}
