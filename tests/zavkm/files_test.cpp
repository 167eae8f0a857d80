// files_test.cpp - the files around a key database in a directory other users can write: each
// row plants something where the library will look (a link, a FIFO, another user's file, a file
// of ours that others can read), runs one operation as the user the database belongs to, and
// checks the code and that nothing was written through what was planted.
//
// Rows run in a child process under a sticky world-writable directory, like /tmp. Run as root,
// the child becomes an ordinary user (kVictim) and the planted things belong to another user
// (kIntruder); rows marked asRoot keep root. Run as an ordinary user, rows that need another
// user's files are skipped.
#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <thread>

#include <sqlite3.h>

#include "store/file/companions.h"
#include "store/file/connpool.h"
#include "base/files.h"
#include "support.h"
#include "zavkm_ext.h"

namespace zavkm_test {
namespace {

constexpr uid_t kVictim = 4243, kIntruder = 4242;
constexpr const char* kPw = "files pw";
constexpr int kAfterFailed = 250;  // the child's code when a row's own check fails
const std::string kPrecious = "precious\n";

enum class Plant {
    None,
    IntruderLink,  // a symbolic link of the intruder's to victim.txt
    OwnLink,       // a symbolic link of ours to victim.txt
    Fifo,          // a FIFO nobody reads
    IntruderFile,  // a regular file of the intruder's, mode 0666
    OwnLoose,      // a regular file of ours, mode 0644, holding a copy of the stash
    Directory,
    HardLink,      // a second name of victim.txt (ours)
    IntruderDb     // k.kdb and the log beside it belong to the intruder (0600)
};

struct Row {
    const char* what;
    const char* at;  // where it is planted; "%p" stands for the child's process id
    Plant plant;
    std::function<ZAVKM_ReturnCode()> op;  // runs in the row's directory as the user
    ZAVKM_ReturnCode expected;
    std::function<bool()> after = {};  // the user's own check, in the child
    bool asRoot = false;
};

std::string text(const std::string& name) {
    auto b = readBytes(name);
    return {b.begin(), b.end()};
}
mode_t modeOf(const char* name) {
    struct stat st {};
    return ::lstat(name, &st) == 0 ? st.st_mode & 07777 : 0;
}
uid_t ownerOf(const char* name) {
    struct stat st {};
    return ::lstat(name, &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

ZAVKM_ReturnCode openDb(const char* name, const char* pw = kPw) { return OpenDb(name, pw).rc; }

// readCa - the CA's key item read from k.kdb, opened afresh.
ZAVKM_ReturnCode readCa() {
    OpenDb db("k.kdb", kPw);
    ZAVKM_KeyItem* key = nullptr;
    const ZAVKM_ReturnCode rc = db.rc == ZAVKM_OK ? ZAVKM_GetKeyItemByLabel(db.h, "ca", &key) : db.rc;
    ZAVKM_FreeKeyItem(key);
    return rc;
}
// exportCa - the CA's certificate written to target while k.kdb is open.
ZAVKM_ReturnCode exportCa(const char* target) {
    OpenDb db("k.kdb", kPw);
    return db.rc != ZAVKM_OK ? db.rc : ZAVKM_ExportCert(db.h, "ca", target, 1);
}
ZAVKM_ReturnCode write(const char* target, uint32_t flags, const std::string& data = "new\n") {
    return ZAVKM_WriteFile(target, reinterpret_cast<const uint8_t*>(data.data()),
                           static_cast<uint32_t>(data.size()), flags);
}
ZAVKM_ReturnCode startTrace(const char* name) {
    ZAVKM_ReturnCode rc = ZAVKM_StartTrace("t", name, 0, 0);
    if (rc == ZAVKM_OK) (void)openDb("k.kdb");  // a line or two reaches it
    return rc;
}
// withReader - runs fn while a thread reads the FIFO at name; what it read lands in got.
ZAVKM_ReturnCode withReader(const char* name, std::string& got, const std::function<ZAVKM_ReturnCode()>& fn) {
    const int fd = ::open(name, O_RDONLY | O_NONBLOCK);  // there is a reader before the write
    std::thread reader([&] {
        char buf[256];
        for (int idle = 0; idle < 5000; ++idle) {  // empty until the writer comes, then its bytes
            const ssize_t n = ::read(fd, buf, sizeof buf);
            if (n > 0) got.append(buf, static_cast<size_t>(n));
            if (n == 0 && !got.empty()) break;
            if (n <= 0) ::usleep(1000);
        }
        ::close(fd);
    });
    ZAVKM_ReturnCode rc = fn();
    reader.join();
    return rc;
}

const Row kRows[] = {
    // The companions SQLite keeps beside the database.
    {"another user's write-ahead log", "k.kdb-wal", Plant::IntruderFile, [] { return openDb("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"another user's shared-memory index", "k.kdb-shm", Plant::IntruderFile, [] { return openDb("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"another user's rollback journal", "k.kdb-journal", Plant::IntruderFile, [] { return openDb("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a link of ours as the write-ahead log", "k.kdb-wal", Plant::OwnLink, [] { return openDb("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a FIFO as the shared-memory index", "k.kdb-shm", Plant::Fifo, [] { return openDb("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a second name of another file as the write-ahead log", "k.kdb-wal", Plant::HardLink, [] { return openDb("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"another user's log met by SQLite itself, through the library's VFS", "k.kdb-wal", Plant::IntruderFile, [] {
         sqlite3* db = nullptr;
         int code = sqlite3_open_v2("k.kdb", &db, SQLITE_OPEN_READWRITE, zavkm::checkedVfsName());
         if (code == SQLITE_OK) code = sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
         sqlite3_close(db);
         return (code & 0xff) == SQLITE_CANTOPEN ? ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED : ZAVKM_ReturnCode(code);
     }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"(a log of ours that others can read is tightened)", "k.kdb-wal", Plant::OwnLoose, [] {
         return readCa();
     }, ZAVKM_OK, [] { return modeOf("k.kdb-wal") == 0 || modeOf("k.kdb-wal") == 0600; }},
    {"(companions SQLite makes are the user's, 0600)", "none", Plant::None, [] {
         const ZAVKM_ReturnCode rc = readCa();
         return modeOf("k.kdb-wal") == 0600 && modeOf("k.kdb-shm") == 0600 ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"(a log of ours another process's last connection removed after we opened it)", "none", Plant::None, [] {
         const int fd = ::open("k.kdb-wal", O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600);
         struct stat st {};
         ::unlink("k.kdb-wal");
         const ZAVKM_ReturnCode rc = zavkm::checkPrivateFile(fd, ::geteuid(), true, st);
         ::close(fd);
         return rc;
     }, ZAVKM_OK},
    {"another user's log beside a new database's temporary", "n.kdb.tmp%p-wal", Plant::IntruderFile, [] {
         ZAVKM_KeyDbHandle h = 0;
         ZAVKM_ReturnCode rc = ZAVKM_CreateNewKeyDb("n.kdb", kPw, 0, &h);
         if (rc == ZAVKM_OK) ZAVKM_CloseKeyDb(h);
         return rc;
     }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED, [] { return !exists("n.kdb"); }},
    // The stash.
    {"a stash that is a link", "k.sth", Plant::OwnLink, [] { return openDb("k.kdb", ""); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a stash that is a FIFO", "k.sth", Plant::Fifo, [] { return openDb("k.kdb", ""); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"another user's stash", "k.sth", Plant::IntruderFile, [] { return openDb("k.kdb", ""); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a stash others can read", "k.sth", Plant::OwnLoose, [] { return openDb("k.kdb", ""); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"(a stash of ours, 0600)", "none", Plant::None, [] {
         ZAVKM_ReturnCode rc = ZAVKM_StashKeyDbPwd("k.kdb", kPw);
         return rc == ZAVKM_OK && modeOf("k.sth") == 0600 ? openDb("k.kdb", "") : rc;
     }, ZAVKM_OK},
    {"stashing through another user's link", "k.sth", Plant::IntruderLink, [] { return ZAVKM_StashKeyDbPwd("k.kdb", kPw); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a database named like its own stash", "none", Plant::None, [] {
         return ZAVKM_StashKeyDbPwd("keys.sth", kPw);
     }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED, [] { return openDb("keys.sth") == ZAVKM_OK; }},
    // Outputs.
    {"an output through another user's link", "out.pem", Plant::IntruderLink, [] { return exportCa("out.pem"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"(an output through a link of ours is written at its target)", "out.pem", Plant::OwnLink, [] {
         ::unlink("victim.txt");  // the link now names a file to make
         ZAVKM_ReturnCode rc = exportCa("out.pem");
         return ownerOf("out.pem") == ::geteuid() && text("victim.txt").find("CERTIFICATE") != std::string::npos ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"an output onto a FIFO nobody reads", "out.pem", Plant::Fifo, [] { return exportCa("out.pem"); }, ZAVKM_ERR_FILE_OPEN_TO_WRITE},
    {"(an output onto a FIFO that is read)", "out.pem", Plant::Fifo, [] {
         std::string got;
         ZAVKM_ReturnCode rc = withReader("out.pem", got, [] { return write("out.pem", 0, "through\n"); });
         return got == "through\n" ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"(an output onto a character device)", "none", Plant::None, [] { return write("/dev/null", ZAVKM_WRITE_NO_REPLACE); }, ZAVKM_OK},
    {"an output onto a directory", "out.pem", Plant::Directory, [] { return exportCa("out.pem"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"an output onto another user's file", "out.pem", Plant::IntruderFile, [] { return exportCa("out.pem"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"another user's link where the output's temporary goes", "out.pem.tmp%p", Plant::IntruderLink, [] { return exportCa("out.pem"); }, ZAVKM_ERR_FILE_OPEN_TO_WRITE},
    {"an output onto the open database", "none", Plant::None, [] { return exportCa("k.kdb"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"an output onto the open database's log", "none", Plant::None, [] { return exportCa("k.kdb-wal"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"an output onto a second name of the open database", "none", Plant::None, [] {
         return ::link("k.kdb", "alias.kdb") == 0 ? exportCa("alias.kdb") : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"(an output onto the database once it is closed)", "none", Plant::None, [] { return write("k.kdb", 0); }, ZAVKM_OK},
    {"an existing file when it may not be replaced", "none", Plant::None, [] { return write("victim.txt", ZAVKM_WRITE_NO_REPLACE); }, ZAVKM_ERR_DATABASE_ALREADY_EXISTS},
    {"(a replaced file keeps its mode)", "none", Plant::None, [] {
         ::chmod("victim.txt", 0640);
         ZAVKM_ReturnCode rc = write("victim.txt", ZAVKM_WRITE_PRIVATE);
         return modeOf("victim.txt") == 0640 && text("victim.txt") == "new\n" ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    {"(a new private file is 0600)", "none", Plant::None, [] {
         ZAVKM_ReturnCode rc = write("new.p12", ZAVKM_WRITE_PRIVATE | ZAVKM_WRITE_NO_REPLACE);
         return modeOf("new.p12") == 0600 ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    // The library's trace file.
    {"a trace file through another user's link", "tvkcdbg.log", Plant::IntruderLink, [] { return startTrace("tvkcdbg.log"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a trace file through a link of ours", "tvkcdbg.log", Plant::OwnLink, [] { return startTrace("tvkcdbg.log"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a trace file that is a FIFO", "tvkcdbg.log", Plant::Fifo, [] { return startTrace("tvkcdbg.log"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"another user's trace file", "tvkcdbg.log", Plant::IntruderFile, [] { return startTrace("tvkcdbg.log"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"a trace file that is a second name of ours", "tvkcdbg.log", Plant::HardLink, [] { return startTrace("tvkcdbg.log"); }, ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED},
    {"(a trace file of ours others could read is tightened)", "tvkcdbg.log", Plant::OwnLoose, [] { return startTrace("tvkcdbg.log"); }, ZAVKM_OK,
     [] { return modeOf("tvkcdbg.log") == 0600; }},
    // Inputs never wait.
    {"a PKCS#12 file that is a FIFO nobody writes", "in.p12", Plant::Fifo, [] {
         OpenDb db("k.kdb", kPw);
         return ZAVKM_ImportKeysFromPFXFile(db.h, "in.p12", "pw");
     }, ZAVKM_ERR_INVALID_PKCS12_DATA},
    {"(an output to standard output that is a pipe)", "none", Plant::None, []() -> ZAVKM_ReturnCode {
         int fds[2];
         if (::pipe(fds) != 0 || ::dup2(fds[1], 1) < 0) return ZAVKM_ERR_PARAMETER;
         ::close(fds[1]);
         ZAVKM_ReturnCode rc = write("/dev/stdout", 0, "piped\n");
         ::close(1);
         char got[16] = {};
         return ::read(fds[0], got, sizeof got - 1) == 6 && std::string(got) == "piped\n" ? rc : ZAVKM_ERR_PARAMETER;
     }, ZAVKM_OK},
    // Root.
    {"(root opens a user's database and the log that user left)", "none", Plant::IntruderDb, [] {
         return readCa();
     }, ZAVKM_OK, {}, true},
    {"(root follows a link of root's)", "out.pem", Plant::OwnLink, [] { return exportCa("out.pem"); }, ZAVKM_OK,
     [] { return text("victim.txt").find("CERTIFICATE") != std::string::npos; }, true},
    {"(root replacing another user's file keeps its owner)", "out.pem", Plant::IntruderFile, [] { return exportCa("out.pem"); }, ZAVKM_OK,
     [] { return ownerOf("out.pem") == kIntruder && modeOf("out.pem") == 0666; }, true},
};

// plant - makes what the row plants at name (in the current directory), owned by owner for the
// intruder's kinds.
void plant(Plant kind, const std::string& name, uid_t user, const std::vector<uint8_t>& stash) {
    const bool intruder = kind == Plant::IntruderLink || kind == Plant::IntruderFile;
    const uid_t owner = intruder ? kIntruder : user;
    switch (kind) {
        case Plant::None: return;
        case Plant::IntruderLink:
        case Plant::OwnLink: (void)::symlink("victim.txt", name.c_str()); break;
        case Plant::Fifo: (void)::mkfifo(name.c_str(), 0666); break;
        case Plant::IntruderFile:
        case Plant::OwnLoose:
            writeBytes(name, stash);
            (void)::chmod(name.c_str(), kind == Plant::OwnLoose ? 0644 : 0666);
            break;
        case Plant::Directory: (void)::mkdir(name.c_str(), 0777); break;
        case Plant::HardLink: (void)::link("victim.txt", name.c_str()); break;
        case Plant::IntruderDb:
            (void)::mknod("k.kdb-wal", S_IFREG | 0600, 0);
            for (const char* file : {"k.kdb", "k.kdb-wal"}) (void)::chown(file, kIntruder, kIntruder);
            return;
    }
    (void)::lchown(name.c_str(), owner, owner);
}

// Template - a key database with the CA "ca", made once, and a copy of its stash.
struct Template {
    std::vector<uint8_t> kdb, stash;
};

// runRow - the row in a fresh sticky directory; the child's exit status is the return code.
int runRow(const Row& row, const Template& t, uid_t user, bool privileged) {
    char dirName[] = "/tmp/zavkm-files-XXXXXX";
    if (::mkdtemp(dirName) == nullptr || ::chmod(dirName, 01777) != 0) return -1;
    const std::string dir = dirName;
    for (const char* name : {"k.kdb", "keys.sth"}) writeBytes(dir + "/" + name, t.kdb);
    writeBytes(dir + "/victim.txt", {kPrecious.begin(), kPrecious.end()});
    for (const char* name : {"k.kdb", "keys.sth", "victim.txt"}) {
        (void)::chown((dir + "/" + name).c_str(), user, user);
        (void)::chmod((dir + "/" + name).c_str(), 0600);
    }
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::alarm(20);  // a row that waits on a FIFO ends here
        if (::chdir(dirName) != 0) ::_exit(-1);
        std::string at = row.at;
        if (const size_t p = at.find("%p"); p != std::string::npos) at.replace(p, 2, std::to_string(::getpid()));
        plant(row.plant, at, user, t.stash);
        if (privileged && (::setgroups(0, nullptr) != 0 || ::setresgid(user, user, user) != 0 ||
                           ::setresuid(user, user, user) != 0))
            ::_exit(-1);
        const ZAVKM_ReturnCode rc = row.op();
        ::_exit(row.after && !row.after() ? kAfterFailed : rc);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    const std::string victim = dir + "/victim.txt";
    if (row.expected != ZAVKM_OK) {
        EXPECT_EQ(text(victim), kPrecious) << "written through";
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    if (WIFSIGNALED(status)) return 1000 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Files, PlantedThingsAreRefusedAndNothingGoesThroughThem) {
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    ScratchDir scratch;
    Template t;
    {
        ZAVKM_KeyDbHandle h = 0;
        const std::string file = scratch.path("t.kdb");
        ZAVKM_DNItem ca = dn("ca");
        ASSERT_EQ(ZAVKM_CreateNewKeyDb(file.c_str(), kPw, 0, &h), ZAVKM_OK);
        ASSERT_EQ(ZAVKM_CreateSelfSignedCert(h, "ca", 0, 3, 256, &ca, 30, nullptr, 0), ZAVKM_OK);
        ASSERT_EQ(ZAVKM_CloseKeyDb(h), ZAVKM_OK);
        ASSERT_EQ(ZAVKM_StashKeyDbPwd(file.c_str(), kPw), ZAVKM_OK);
        ASSERT_EQ(openDb(file.c_str()), ZAVKM_OK);  // the password's key stays cached for the children
        zavkm::closeIdleConnections();
        t.kdb = readBytes(file);
        t.stash = readBytes(scratch.path("t.sth"));
    }
    const bool root = ::geteuid() == 0;
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.what);
        const bool needsIntruder = row.plant == Plant::IntruderLink ||
                                   row.plant == Plant::IntruderFile || row.plant == Plant::IntruderDb;
        if (!root && (needsIntruder || row.asRoot)) {
            std::printf("skipped (needs root to play another user): %s\n", row.what);
            continue;
        }
        const uid_t user = root && !row.asRoot ? kVictim : ::geteuid();
        EXPECT_EQ(runRow(row, t, user, root && !row.asRoot), static_cast<int>(row.expected));
    }
    ZAVKM_CleanAll();
}

}  // namespace
}  // namespace zavkm_test
