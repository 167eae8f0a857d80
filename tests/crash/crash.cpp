// crash.cpp - a writer killed at random moments, and what each kill leaves.
//
//   crash DIR KILLS SEED [MS]  runs KILLS rounds: start a writer, SIGKILL it after a random
//                              delay of up to MS milliseconds (1500), check the files it leaves;
//                              exits 0 when every check held
//   crash --writer DIR     the writer: continues the life in DIR from its journal
//
// The writer repeats ten steps on a key database (three adds, a delete, a password change, a
// PKCS#12 import into a new database, an export, both keyring conversions, a create) and appends
// a step's number to its journal (synced) once the step returned 0. After each kill the checks
// are: the database opens with the password of the last acknowledged change (or the next one, if
// that change was under way), SQLite finds it sound, every acknowledged change is there and the
// step under way is there whole or not at all; every file an acknowledged step wrote opens, the
// file of the step under way is whole or absent, and nothing else is left in the directory.
#include <dirent.h>
#include <fcntl.h>
#include <openssl/pkcs12.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "zavkm.h"

namespace {

std::string dir;
std::string at(const std::string& name) { return dir + "/" + name; }
std::string num(long i) { return std::to_string(i); }
std::string passwordAfter(long step) {  // the main database's password once step is done
    long change = step - (step % 10 + 6) % 10;  // the last step 4, 14, 24, ... at or before step
    return change < 4 ? "pw-start" : "pw-" + num(change);
}

bool exists(const std::string& f) { return ::access(f.c_str(), F_OK) == 0; }
void removeSet(const std::string& f) {
    for (const char* s : {"", "-wal", "-shm", ".sth"}) ::unlink((f + s).c_str());
}

// labels - the key labels of file opened with password; false when it does not open.
bool labels(const std::string& file, const std::string& password, std::set<std::string>& out) {
    ZAVKM_KeyDbHandle h = 0;
    if (ZAVKM_OpenKeyDb(file.c_str(), password.c_str(), &h) != ZAVKM_OK) return false;
    ZAVKM_LabelList* list = nullptr;
    bool ok = ZAVKM_GetKeyDbLabelList(h, &list) == ZAVKM_OK;
    for (ZAVKM_LabelList* n = list; ok && n != nullptr && n->label != nullptr; n = n->next) out.insert(n->label);
    ZAVKM_FreeLabelList(list);
    ZAVKM_CloseKeyDb(h);
    return ok;
}

bool sound(const std::string& file) {
    sqlite3* db = nullptr;
    bool ok = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK;
    sqlite3_stmt* s = nullptr;
    ok = ok && sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &s, nullptr) == SQLITE_OK &&
         sqlite3_step(s) == SQLITE_ROW &&
         std::strcmp(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)), "ok") == 0;
    sqlite3_finalize(s);
    sqlite3_close(db);
    return ok;
}

bool wholePkcs12(const std::string& file, const char* password) {
    std::ifstream in(file, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    PKCS12* p12 = d2i_PKCS12(nullptr, &p, static_cast<long>(bytes.size()));
    bool ok = p12 != nullptr && PKCS12_verify_mac(p12, password, -1) == 1;
    PKCS12_free(p12);
    return ok;
}

// ---- the writer ----------------------------------------------------------------------------

long acknowledged() {
    std::ifstream in(at("journal"));
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    long lines = 0;
    for (char c : all) lines += c == '\n';
    return lines;  // a line cut short by the kill is no acknowledgement
}

void acknowledge(long step) {
    int fd = ::open(at("journal").c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    std::string line = num(step) + "\n";
    if (fd < 0 || ::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()) || ::fsync(fd) != 0)
        std::abort();
    ::close(fd);
}

// step - does step i (again, if it was under way when the last writer died).
ZAVKM_ReturnCode step(long i, const std::vector<uint8_t>& cert) {
    const std::string main = at("main.kdb"), pw = passwordAfter(i - 1);
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_ReturnCode rc = ZAVKM_OK;
    switch (i % 10) {
        case 0: case 1: case 2:
            if ((rc = ZAVKM_OpenKeyDb(main.c_str(), pw.c_str(), &h)) != ZAVKM_OK) return rc;
            rc = ZAVKM_StoreCACert(h, cert.data(), static_cast<uint32_t>(cert.size()), ("s" + num(i)).c_str());
            ZAVKM_CloseKeyDb(h);
            return rc == ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL ? ZAVKM_OK : rc;
        case 3:
            if ((rc = ZAVKM_OpenKeyDb(main.c_str(), pw.c_str(), &h)) != ZAVKM_OK) return rc;
            rc = ZAVKM_DeleteKey(h, ("s" + num(i - 3)).c_str());
            ZAVKM_CloseKeyDb(h);
            return rc == ZAVKM_ERR_KEY_GET_BY_LABEL ? ZAVKM_OK : rc;
        case 4:
            rc = ZAVKM_ChangeKeyDbPwd(main.c_str(), pw.c_str(), passwordAfter(i).c_str(), 0);
            if (rc == ZAVKM_ERR_DATABASE_INVALID_PASSWORD &&
                ZAVKM_OpenKeyDb(main.c_str(), passwordAfter(i).c_str(), &h) == ZAVKM_OK) {
                ZAVKM_CloseKeyDb(h);
                return ZAVKM_OK;  // done before the last writer died
            }
            return rc;
        case 5: {
            const std::string file = at("imp" + num(i) + ".kdb");
            removeSet(file);
            if ((rc = ZAVKM_CreateNewKeyDb(file.c_str(), "imp-pw", 0, &h)) != ZAVKM_OK) return rc;
            rc = ZAVKM_ImportKeysFromPFXFile(h, at("seed.p12").c_str(), "seed-pw");
            ZAVKM_CloseKeyDb(h);
            return rc;
        }
        case 6:
            if ((rc = ZAVKM_OpenKeyDb(main.c_str(), pw.c_str(), &h)) != ZAVKM_OK) return rc;
            ::unlink(at("exp" + num(i) + ".p12").c_str());
            rc = ZAVKM_ExportKeys(h, 1, at("exp" + num(i) + ".p12").c_str(), "exp-pw", nullptr);
            ZAVKM_CloseKeyDb(h);
            return rc;
        case 7:
            ::unlink(at("ring" + num(i) + ".kyr").c_str());
            return ZAVKM_Kdb2Kyr(main.c_str(), pw.c_str(), at("ring" + num(i) + ".kyr").c_str(), "ring-pw");
        case 8:
            removeSet(at("conv" + num(i) + ".kdb"));
            return ZAVKM_Kyr2Kdb(at("ring" + num(i - 1) + ".kyr").c_str(), "ring-pw",
                                 at("conv" + num(i) + ".kdb").c_str(), "conv-pw");
        default:
            removeSet(at("new" + num(i) + ".kdb"));
            if ((rc = ZAVKM_CreateNewKeyDb(at("new" + num(i) + ".kdb").c_str(), "new-pw", 0, &h)) == ZAVKM_OK)
                ZAVKM_CloseKeyDb(h);
            return rc;
    }
}

int writer() {
    ZAVKM_Init();
    std::ifstream in(at("ca.der"), std::ios::binary);
    std::vector<uint8_t> cert((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (long i = acknowledged();; ++i) {
        if (ZAVKM_ReturnCode rc = step(i, cert); rc != ZAVKM_OK) {
            std::fprintf(stderr, "step %ld failed: %d\n", i, rc);
            return 2;
        }
        acknowledge(i);
    }
}

// ---- the checks ----------------------------------------------------------------------------

int failures = 0;
void fail(long kill, const std::string& what) {
    std::fprintf(stderr, "kill %ld: %s\n", kill, what.c_str());
    ++failures;
}

void check(long kill, long acked) {
    const long doing = acked;  // the step under way when the kill came
    std::set<std::string> got;
    bool opened = labels(at("main.kdb"), passwordAfter(acked - 1), got);
    if (!opened && doing % 10 == 4) opened = labels(at("main.kdb"), passwordAfter(doing), got);
    if (!opened) return fail(kill, "the key database does not open with its password");
    if (!sound(at("main.kdb"))) fail(kill, "integrity_check is not ok");
    for (long i = 0; i < acked + 1; ++i) {
        if (i % 10 > 2) continue;
        const std::string label = "s" + num(i);
        const bool added = i < acked || (i == doing && got.count(label));
        const bool deleted = i % 10 == 0 && (i + 3 < acked || (i + 3 == doing && !got.count(label)));
        if (added && !deleted && !got.count(label)) fail(kill, label + " is lost");
        if ((!added || deleted) && got.count(label)) fail(kill, label + " is there");
    }
    std::string underWay;  // the temporary file prefix of the step under way
    // Files of steps acknowledged at an earlier kill were checked then and are not written again.
    static std::set<std::string> known = {"main.kdb", "main.kdb-wal", "main.kdb-shm", "journal", "ca.der", "seed.p12"};
    static long checkedUpTo = 0;
    for (long i = checkedUpTo; i <= doing; ++i) {
        const bool done = i < acked;
        std::string file;
        std::set<std::string> in;
        switch (i % 10) {
            case 5: file = "imp" + num(i) + ".kdb";
                if (exists(at(file)) && (!labels(at(file), "imp-pw", in) || (done && in.size() != 1) || in.size() > 1))
                    fail(kill, file + " is not whole");
                break;
            case 6: file = "exp" + num(i) + ".p12";
                if (exists(at(file)) && !wholePkcs12(at(file), "exp-pw")) fail(kill, file + " is not whole");
                break;
            case 7: file = "ring" + num(i) + ".kyr";
                if (exists(at(file)) && !wholePkcs12(at(file), "ring-pw")) fail(kill, file + " is not whole");
                break;
            case 8: file = "conv" + num(i) + ".kdb";
                if (exists(at(file)) && (!labels(at(file), "conv-pw", in) || in.empty())) fail(kill, file + " is not whole");
                break;
            case 9: file = "new" + num(i) + ".kdb";
                if (exists(at(file)) && !labels(at(file), "new-pw", in)) fail(kill, file + " does not open");
                break;
            default: continue;
        }
        if (done && !exists(at(file))) fail(kill, file + " is missing");
        for (const char* s : {"", "-wal", "-shm"}) known.insert(file + s);
        if (i == doing) underWay = file + ".tmp";  // removed when the step is done again
    }
    DIR* d = ::opendir(dir.c_str());
    while (dirent* e = d ? ::readdir(d) : nullptr) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || known.count(name)) continue;
        if (!underWay.empty() && name.compare(0, underWay.size(), underWay) == 0) continue;
        fail(kill, "left behind: " + name);
    }
    if (d) ::closedir(d);
    checkedUpTo = acked;
}

int run(long kills, unsigned seed, long maxDelayMs, const char* self) {
    ZAVKM_Init();
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_DNItem ca{};
    ca.cn = const_cast<char*>("Crash CA");
    if (ZAVKM_CreateNewKeyDb(at("main.kdb").c_str(), "pw-start", 0, &h) != ZAVKM_OK ||
        ZAVKM_CreateSelfSignedCert(h, "ca", 0, 3, 256, &ca, 30, at("ca.der").c_str(), 0) != ZAVKM_OK ||
        ZAVKM_ExportKeys(h, 1, at("seed.p12").c_str(), "seed-pw", nullptr) != ZAVKM_OK)
        return 3;
    ZAVKM_CloseKeyDb(h);
    ZAVKM_CleanAll();
    std::mt19937 random(seed);
    long kill = 0, atStep[10] = {};
    for (; kill < kills && failures == 0; ++kill) {
        pid_t pid = ::fork();
        if (pid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // no writer outlives the harness
            ::execl(self, self, "--writer", dir.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(random() % (maxDelayMs * 1000)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (!WIFSIGNALED(status)) return std::fprintf(stderr, "the writer stopped by itself\n"), 4;
        ZAVKM_Init();
        const long acked = acknowledged();
        ++atStep[acked % 10];
        check(kill, acked);
        ZAVKM_CleanAll();
    }
    std::printf("%ld kills, %ld steps acknowledged, kills during each step:", kill, acknowledged());
    for (long n : atStep) std::printf(" %ld", n);
    std::printf("\n%s\n", failures == 0 ? "every check held" : "FAILED");
    return failures == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--writer") == 0) {
        dir = argv[2];
        return writer();
    }
    if (argc != 4 && argc != 5) return std::fprintf(stderr, "usage: crash DIR KILLS SEED [MS]\n"), 2;
    dir = argv[1];
    const long maxDelayMs = argc == 5 ? std::max(1L, std::atol(argv[4])) : 1500;
    return run(std::atol(argv[2]), static_cast<unsigned>(std::atol(argv[3])), maxDelayMs, argv[0]);
}
