// faultloop_test.cpp - the life of a key database, one step a row, each step run again and again
// with the n-th allocation failing, then with the n-th write, sync, truncate, rename or link
// failing, for a sample of n (every n with ZAVKM_FAULT_EXHAUSTIVE=1). Every attempt starts from
// the same files and must end with a return code, the store holding what it held before the step
// or the step's whole change, every file the step writes whole or absent (no temporary beside
// it), and no descriptor left open; LeakSanitizer finds heap blocks left over.
#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <memory>

#include "pki/certcache.h"
#include "zavkm_ext.h"
#include "store/file/connpool.h"
#include "faults.h"
#include "support.h"

namespace zavkm_test {
namespace {

namespace fs = std::filesystem;
constexpr const char* kPasswords[] = {"first pw", "second pw"};  // before and after the change

struct Ctx {
    ScratchDir& dir;
    ZAVKM_KeyDbHandle h = 0;
    std::string path(const char* name) const { return dir.path(name); }
};

struct Step {
    const char* name;
    bool onHandle;                     // the step runs on an open handle of keys.kdb
    std::function<ZAVKM_ReturnCode(Ctx&)> call;
    std::vector<const char*> writes;   // the files the step writes
    long samples;                      // n sampled per fault kind beyond the first kFirst
};

// By default each step fails n = 1..kFirst, the last n, and about `samples` n between, evenly
// strided; ZAVKM_FAULT_EXHAUSTIVE=1 in the environment fails every n in turn (a long run).
constexpr long kFirst = 2;
bool exhaustive() { return std::string(std::getenv("ZAVKM_FAULT_EXHAUSTIVE") ?: "") == "1"; }

ZAVKM_ReturnCode keyRecords(Ctx& c) {  // every kind of record read and released
    ZAVKM_KeyItem* key = nullptr;
    ZAVKM_ReturnCode rc = ZAVKM_GetKeyItemByLabel(c.h, "req", &key);
    ZAVKM_FreeKeyItem(key);
    ZAVKM_KeyItemList* list = nullptr;
    if (rc == ZAVKM_OK) rc = ZAVKM_GetKeyItemListByLabel(c.h, "ca", &list);
    ZAVKM_FreeKeyItemList(list);
    if (rc == ZAVKM_OK && (rc = ZAVKM_GetDefaultKeyItem(c.h, &key)) == ZAVKM_OK) ZAVKM_FreeKeyItem(key);
    ZAVKM_LabelList* labels = nullptr;
    if (rc == ZAVKM_OK) rc = ZAVKM_GetKeyDbLabelList(c.h, &labels);
    ZAVKM_FreeLabelList(labels);
    uint8_t valid = 0;
    auto issued = readBytes(c.path("issued.der"));
    if (rc == ZAVKM_OK) rc = ZAVKM_ValidateCertChain(c.h, issued.data(), size(issued), &valid);
    return rc == ZAVKM_OK && valid != 1 ? ZAVKM_ERR_VALIDATION : rc;
}

ZAVKM_ReturnCode issue(Ctx& c) {
    uint8_t* req = nullptr;
    uint32_t n = 0;
    ZAVKM_ReturnCode rc = ZAVKM_Base64DecodeFileToBuf(c.path("req.csr").c_str(), &req, &n);
    if (rc == ZAVKM_OK)
        rc = ZAVKM_IssueCert(c.h, req, n, "ca", 3, "", 30, c.path("issued.der").c_str(), 0, nullptr, nullptr);
    ZAVKM_Free(req);
    return rc;
}

const std::vector<Step> kLife = {
    {"create", false, [](Ctx& c) {
         ZAVKM_ReturnCode rc = ZAVKM_CreateNewKeyDb(c.path("keys.kdb").c_str(), kPasswords[0], 0, &c.h);
         return rc == ZAVKM_OK ? ZAVKM_CloseKeyDb(c.h) : rc;
     }, {"keys.kdb"}, 2},
    {"self-signed CA", true, [](Ctx& c) {
         ZAVKM_DNItem subject = dn("ca");
         return ZAVKM_CreateSelfSignedCert(c.h, "ca", 1, 3, 256, &subject, 30, c.path("ca.der").c_str(), 0);
     }, {"ca.der"}, 6},
    {"request", true, [](Ctx& c) {
         ZAVKM_DNItem subject = dn("req");
         return ZAVKM_CreateNewCertReq(c.h, "req", 256, &subject, c.path("req.csr").c_str(), nullptr, nullptr);
     }, {"req.csr"}, 6},
    {"issue", true, issue, {"issued.der"}, 6},
    {"receive", true, [](Ctx& c) {
         auto cert = readBytes(c.path("issued.der"));
         return ZAVKM_ReceiveCert(c.h, cert.data(), size(cert), 0);
     }, {}, 6},
    {"read records", true, keyRecords, {}, 6},
    {"export PKCS#12", true, [](Ctx& c) {
         ZAVKM_LabelList ca{const_cast<char*>("ca"), nullptr};
         return ZAVKM_ExportKeys(c.h, 1, c.path("ca.p12").c_str(), "p12 pw", &ca);
     }, {"ca.p12"}, 2},
    {"rename", true, [](Ctx& c) { return ZAVKM_RenameEntry(c.h, "req", "received"); }, {}, 4},
    {"repair (the index built anew)", true, [](Ctx& c) {
         uint32_t removed = 0;
         ZAVKM_ReturnCode rc = ZAVKM_RepairKeyDb(c.h, &removed);
         return rc == ZAVKM_OK && removed != 0 ? ZAVKM_ERR_VALIDATION : rc;
     }, {}, 4},
    {"delete", true, [](Ctx& c) { return ZAVKM_DeleteKey(c.h, "ca"); }, {}, 6},
    {"import PKCS#12", true,
     [](Ctx& c) { return ZAVKM_ImportKeysFromPFXFile(c.h, c.path("ca.p12").c_str(), "p12 pw"); }, {}, 2},
    {"export certificate", true,
     [](Ctx& c) { return ZAVKM_ExportCert(c.h, "received", c.path("req.pem").c_str(), 1); }, {"req.pem"}, 6},
    {"stash", false,
     [](Ctx& c) { return ZAVKM_StashKeyDbPwd(c.path("keys.kdb").c_str(), kPasswords[0]); }, {"keys.sth"}, 6},
    {"password change", false,
     [](Ctx& c) { return ZAVKM_ChangeKeyDbPwd(c.path("keys.kdb").c_str(), kPasswords[0], kPasswords[1], 0); },
     {}, 1},
    {"to a keyring", false, [](Ctx& c) {
         return ZAVKM_Kdb2Kyr(c.path("keys.kdb").c_str(), kPasswords[1], c.path("ring.p12").c_str(), "ring pw");
     }, {"ring.p12"}, 1},
    {"from a keyring", false, [](Ctx& c) {
         return ZAVKM_Kyr2Kdb(c.path("ring.p12").c_str(), "ring pw", c.path("copy.kdb").c_str(), kPasswords[1]);
     }, {"copy.kdb"}, 1},
};

// contents - what a key database holds ("-" when absent), opened with either password; the one
// that opened last is tried first (a wrong one costs a whole KDF run).
std::string contents(const std::string& file) {
    if (!exists(file)) return "-";
    static int last = 0;
    for (int i = 0; i < 2; ++i) {
        const char* pw = kPasswords[(last + i) % 2];
        OpenDb db(file, pw);
        if (db.rc == ZAVKM_ERR_DATABASE_INVALID_PASSWORD) continue;
        if (db.rc != ZAVKM_OK) return "open fails with " + std::to_string(db.rc);
        last = (last + i) % 2;
        std::string out = std::string(pw) + ":";
        for (const auto& l : labels(db.h)) out += " " + l;
        ZAVKM_LabelList* reqs = nullptr;
        ZAVKM_GetReqKeyDbLabelList(db.h, &reqs);
        for (ZAVKM_LabelList* n = reqs; n != nullptr && n->label != nullptr; n = n->next)
            out += " req " + std::string(n->label);
        ZAVKM_FreeLabelList(reqs);
        return out;
    }
    return "no password opens it";
}

std::string state(Ctx& c) { return contents(c.path("keys.kdb")) + " | " + contents(c.path("copy.kdb")); }

// whole - a file the library wrote is complete: it parses as what its name says.
bool whole(const std::string& file) {
    std::vector<uint8_t> b = readBytes(file);
    const unsigned char* p = b.data();
    auto n = static_cast<long>(b.size());
    std::string ext = fs::path(file).extension();
    if (ext == ".kdb") return contents(file).find(':') != std::string::npos;
    if (ext == ".der") return std::unique_ptr<X509, decltype(&X509_free)>(d2i_X509(nullptr, &p, n), X509_free) && p == b.data() + n;
    std::unique_ptr<PKCS12, decltype(&PKCS12_free)> p12(ext == ".p12" ? d2i_PKCS12(nullptr, &p, n) : nullptr, PKCS12_free);
    if (ext == ".p12") return p12 && (PKCS12_verify_mac(p12.get(), "p12 pw", -1) == 1 || PKCS12_verify_mac(p12.get(), "ring pw", -1) == 1);
    if (ext == ".sth") return b.size() == 12 + std::string(kPasswords[0]).size() + 52;  // + salt, count, key
    uint8_t* der = nullptr;  // base64 files
    uint32_t length = 0;
    bool ok = ZAVKM_Base64DecodeFileToBuf(file.c_str(), &der, &length) == ZAVKM_OK;
    ZAVKM_Free(der);
    return ok;
}

void copyFiles(const std::string& from, const std::string& to) {
    fs::remove_all(to);
    fs::create_directory(to);
    for (const auto& e : fs::directory_iterator(from)) fs::copy_file(e.path(), fs::path(to) / e.path().filename());
}

struct Outcome {
    ZAVKM_ReturnCode rc;
    long calls[kFaultKinds];  // of each kind
    std::string state;        // of the stores afterwards
};

// attempt - one run of the step with the failAt-th call of kind failing, and the checks on what it
// leaves.
Outcome attempt(Ctx& c, const Step& step, Fault kind, long failAt) {
    zavkm::closeIdleConnections();
    zavkm::clearCertificateCache();
    const int descriptors = openDescriptors();
    if (step.onHandle) { EXPECT_EQ(ZAVKM_OpenKeyDb(c.path("keys.kdb").c_str(), kPasswords[0], &c.h), ZAVKM_OK); }
    armFault(kind, failAt);
    ZAVKM_ReturnCode rc = step.call(c);
    Outcome o{rc, {disarmFault(kAlloc), disarmFault(kWrite)}, ""};
    if (step.onHandle) { EXPECT_EQ(ZAVKM_CloseKeyDb(c.h), ZAVKM_OK); }
    o.state = state(c);
    zavkm::closeIdleConnections();
    zavkm::clearCertificateCache();
    EXPECT_EQ(openDescriptors(), descriptors) << "descriptors left open";
    ERR_clear_error();  // the thread's error queue is bounded and kept until the thread ends
    for (const char* name : step.writes) {
        std::string file = c.path(name);
        EXPECT_TRUE(rc != ZAVKM_OK || exists(file)) << name << " missing after success";
        EXPECT_TRUE(!exists(file) || whole(file)) << name << " is not whole";
    }
    for (const auto& e : fs::directory_iterator(c.path("")))
        EXPECT_EQ(e.path().filename().string().find(".tmp"), std::string::npos) << e.path() << " left";
    return o;
}

TEST(FaultLoop, EveryFailingAllocationOrWriteLeavesTheStoreAsBeforeOrChangedWhole) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir, before, after;
    Ctx c{dir};
    long runs = 0;
    std::string was = state(c);
    for (const Step& step : kLife) {
        SCOPED_TRACE(step.name);
        copyFiles(c.path(""), before.path(""));
        Outcome counted = attempt(c, step, kAlloc, 0);  // also warms the libraries' caches
        ASSERT_EQ(counted.rc, ZAVKM_OK);
        const std::string is = counted.state;
        copyFiles(c.path(""), after.path(""));
        for (Fault kind : {kAlloc, kWrite}) {
            long total = counted.calls[kind];
            long stride = exhaustive() ? 1 : std::max(1L, total / step.samples);
            long offset = (runs * 7) % stride;  // the sampled n move from step to step
            for (long failAt = 1; failAt <= total; ++failAt) {
                if (failAt > kFirst && failAt != total && failAt % stride != offset) continue;
                SCOPED_TRACE((kind == kAlloc ? "allocation " : "write ") + std::to_string(failAt));
                ++runs;
                copyFiles(before.path(""), c.path(""));
                Outcome o = attempt(c, step, kind, failAt);
                if (o.rc == ZAVKM_OK) EXPECT_EQ(o.state, is);
                else EXPECT_TRUE(o.state == was || o.state == is) << o.state << "\nbefore: " << was << "\nafter: " << is;
                if (::testing::Test::HasFailure()) return;
            }
        }
        copyFiles(after.path(""), c.path(""));
        was = is;
    }
    ZAVKM_CleanAll();
}

// A creator killed at a write, sync, rename or link leaves no file or the whole one, and the name
// can be created again unless it is whole. By default n doubles from kFirst on.
TEST(FaultLoop, ACreatorKilledAtAnyWriteLeavesNoFileOrTheWholeOne) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir dir;
    Ctx c{dir};
    const std::string created = c.path("keys.kdb");
    for (long n = 1;; n = exhaustive() || n < kFirst ? n + 1 : 2 * n) {
        zavkm::closeIdleConnections();
        for (const auto& e : fs::directory_iterator(c.path(""))) fs::remove(e.path());
        pid_t child = ::fork();
        if (child == 0) {
            armFault(kWrite, n, true);
            ::_exit(kLife[0].call(c) == ZAVKM_OK ? 0 : 1);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFEXITED(status));
        if (exists(created)) {
            EXPECT_EQ(ZAVKM_CreateNewKeyDb(created.c_str(), kPasswords[0], 0, &c.h),
                      ZAVKM_ERR_DATABASE_ALREADY_EXISTS) << "after a kill at write " << n;
            EXPECT_TRUE(whole(created)) << "after a kill at write " << n;
        }
        if (WEXITSTATUS(status) != kCrashed) break;
    }
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
