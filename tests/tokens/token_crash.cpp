// token_crash.cpp - a writer re-signing a request key's request on a SoftHSM2 token, stopped at
// every step that changes the token, and what each stop leaves.
//
//   token_crash DIR   makes a token in DIR with the request key "req" (signed with SHA-256); then
//                     for n = 1, 2, ... a writer re-signs it with SHA-384 through p11stop, which
//                     ends the process before the n-th change of the token, as a crash there
//                     would; from what that leaves, an opener is stopped the same way before each
//                     change of its own, then the token is checked. Exits 0 when every check held.
//
// A check: the library opens the token, lists "req" as its only request key and writes its
// request out, which verifies, is for the key the token made at the start, and is the old
// request when the writer stopped before its first change, the new one otherwise; the token then
// holds that one request object and no other data object.
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "shell.h"
#include "zavkm.h"

namespace {

const char* const kModule = SOFTHSM_MODULE;       // the library's
const char* const kToolModule = TOOL_MODULE;      // pkcs11-tool's: the host's, on the same tokens
const char* const kStopModule = STOP_MODULE;
std::string dir;
using zavkm_test::run;
int failures = 0;

KeyStoreDescriptor token(const char* module) {
    KeyStoreDescriptor d{};
    d.storeType = CryptoToken;
    d.cryptoModuleName = module;
    d.tokenLabel = "crash";
    d.password = "1234";
    return d;
}

// writer - opens the token through p11stop and re-signs the request with SHA-384 once.
int writer() {
    ZAVKM_Init();
    KeyStoreDescriptor d = token(kStopModule);
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDbX(&d, &h) != ZAVKM_OK ||
        ZAVKM_ReCreateCertReqSig(h, "req", 2, nullptr, nullptr, nullptr) != ZAVKM_OK)
        return 4;
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
    return 0;
}

void fail(const std::string& when, const std::string& what) {
    std::fprintf(stderr, "%s: %s\n", when.c_str(), what.c_str());
    ++failures;
}

// requestIn - the public key (PEM) and the text of a request file as openssl shows them; an
// empty key when the request does not verify.
std::pair<std::string, std::string> requestIn(const std::string& file) {
    if (run("openssl req -verify -noout -in " + file).status != 0) return {};
    return {run("openssl req -noout -pubkey -in " + file).text,
            run("openssl req -noout -text -in " + file).text};
}

// check - what the token holds after a stop; digest: the signature algorithm its request must
// have.
void check(const std::string& when, const std::string& key, const std::string& digest) {
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
    std::pair<std::string, std::string> now;
    if (ZAVKM_ReCreateCertReq(h, "req", out.c_str(), nullptr, nullptr) != ZAVKM_OK)
        fail(when, "the request is not written out");
    else if ((now = requestIn(out)).first != key)
        fail(when, "the request does not verify or is for another key");
    else if (now.second.find(digest) == std::string::npos)
        fail(when, "the request is not signed with " + digest);
    ZAVKM_CloseKeyDb(h);
    // Once opened, the token holds the one request object and nothing else of the replacement.
    const std::string listed = run(std::string("pkcs11-tool --module ") + kToolModule +
                                   " --token-label crash --list-objects --type data").text;
    size_t data = 0;
    for (size_t at = listed.find("Data object"); at != std::string::npos;
         at = listed.find("Data object", at + 1))
        ++data;
    if (data != 1 || listed.find("label:          'req'") == std::string::npos)
        fail(when, "the token holds other data objects than the request:\n" + listed);
}

int waitFor(pid_t pid) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// stopped - runs body in a child process through p11stop stopping before its n-th change of the
// token; true when it stopped there, false when it got through with fewer changes.
template <class Body>
bool stopped(long n, Body&& body) {
    setenv("ZAV_P11STOP_AT", std::to_string(n).c_str(), 1);
    pid_t pid = ::fork();
    if (pid == 0) ::_exit(body());
    const int code = waitFor(pid);
    unsetenv("ZAV_P11STOP_AT");
    if (code != 0 && code != 9) fail("stop at " + std::to_string(n), "the process failed");
    return code == 9;
}

void copyTokens(const std::string& from, const std::string& to) {
    run("rm -rf '" + dir + "/" + to + "' && cp -a '" + dir + "/" + from + "' '" + dir + "/" + to + "'");
}

// opener - opens the token through p11stop: a stopped replacement is finished there.
int opener() {
    ZAVKM_Init();
    KeyStoreDescriptor d = token(kStopModule);
    ZAVKM_KeyDbHandle h = 0;
    return ZAVKM_OpenKeyDbX(&d, &h) == ZAVKM_OK ? 0 : 3;
}

// steps - the writer stopped before each of its changes in turn; then the opener that finds
// what it left stopped before each of its own.
void steps(const std::string& key) {
    setenv("ZAV_P11STOP_MODULE", kModule, 1);
    copyTokens("tokens", "start");
    for (long n = 1;; ++n) {
        copyTokens("start", "tokens");
        if (!stopped(n, writer)) break;  // the re-signing made fewer than n changes
        copyTokens("tokens", "stopped");
        for (long m = 1;; ++m) {
            copyTokens("stopped", "tokens");
            const bool again = stopped(m, opener);
            ZAVKM_Init();
            check("step " + std::to_string(n) + ", open stopped at " + std::to_string(m), key,
                  n == 1 ? "ecdsa-with-SHA256" : "ecdsa-with-SHA384");
            ZAVKM_CleanAll();
            if (!again) break;
        }
        std::printf("stopped before change %ld of the re-signing: recovered\n", n);
    }
}

int harness() {
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
    const std::string key = requestIn(first).first;
    steps(key);
    std::printf("%s\n", failures == 0 ? "every check held" : "FAILED");
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return std::fprintf(stderr, "usage: token_crash DIR\n"), 2;
    dir = argv[1];
    return harness();
}
