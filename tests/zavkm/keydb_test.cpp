// keydb_test.cpp - key database files: what each broken or foreign file gives, the password
// cache, password changes and the stash.
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "connpool.h"
#include "kdf.h"
#include "support.h"

namespace zavkm_test {
namespace {

constexpr const char* kPassword = "correct horse";

using KeyDbFileTest = LibraryTest;

// Each row prepares a file (or none) and says what opening it with kPassword gives.
struct OpenCase {
    const char* name;
    void (*prepare)(const std::string& file);
    ZAVKM_ReturnCode expected;
};

void nothing(const std::string&) {}
void goodDb(const std::string& f) { ASSERT_EQ(createDb(f, kPassword), ZAVKM_OK); }
void otherPasswordDb(const std::string& f) { ASSERT_EQ(createDb(f, "another one"), ZAVKM_OK); }
void textFile(const std::string& f) { writeBytes(f, std::vector<uint8_t>(5000, 'x')); }
void emptyFile(const std::string& f) { writeBytes(f, {}); }
void foreignSqlite(const std::string& f) {
    sqlite3* db = nullptr;
    sqlite3_open(f.c_str(), &db);
    sqlite3_exec(db, "CREATE TABLE t(x); INSERT INTO t VALUES(1);", nullptr, nullptr, nullptr);
    sqlite3_close(db);
}
void truncatedDb(const std::string& f) {
    goodDb(f);
    auto bytes = readBytes(f);
    bytes.resize(bytes.size() / 2 + 100);
    writeBytes(f, bytes);
}
void cutInHeader(const std::string& f) {
    goodDb(f);
    auto bytes = readBytes(f);
    bytes.resize(60);
    writeBytes(f, bytes);
}
void damagedMeta(const std::string& f) {
    goodDb(f);
    sqlite3* db = nullptr;
    sqlite3_open(f.c_str(), &db);
    sqlite3_exec(db, "UPDATE meta SET kdf_iterations = kdf_iterations + 1", nullptr, nullptr,
                 nullptr);
    sqlite3_close(db);
}
void garbledPages(const std::string& f) {
    goodDb(f);
    auto bytes = readBytes(f);
    for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7);
    writeBytes(f, bytes);
}
void newerSchema(const std::string& f) {
    goodDb(f);
    sqlite3* db = nullptr;
    sqlite3_open(f.c_str(), &db);
    sqlite3_exec(db, "PRAGMA user_version = 99", nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

const OpenCase kOpenCases[] = {
    {"missing file", nothing, ZAVKM_ERR_KEYDB_NOT_EXIST},
    {"good file", goodDb, ZAVKM_OK},
    {"wrong password", otherPasswordDb, ZAVKM_ERR_DATABASE_INVALID_PASSWORD},
    {"text file", textFile, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE},
    {"empty file", emptyFile, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE},
    {"another SQLite file", foreignSqlite, ZAVKM_ERR_DATABASE_INVALID_FILE_TYPE},
    {"truncated key database", truncatedDb, ZAVKM_ERR_DATABASE_CORRUPTION},
    {"key database cut in its header", cutInHeader, ZAVKM_ERR_DATABASE_CORRUPTION},
    {"damaged password record", damagedMeta, ZAVKM_ERR_DATABASE_CORRUPTION},
    {"garbled pages", garbledPages, ZAVKM_ERR_DATABASE_CORRUPTION},
    {"newer schema", newerSchema, ZAVKM_ERR_DATABASE_INVALID_VERSION},
};

TEST_F(KeyDbFileTest, OpeningTellsEachKindOfFileApart) {
    for (const OpenCase& c : kOpenCases) {
        SCOPED_TRACE(c.name);
        std::string file = dir.path(std::string(c.name) + ".kdb");
        c.prepare(file);
        zavkm::closeIdleConnections();  // what the row's own connection wrote is in the file
        auto before = readBytes(file);
        EXPECT_EQ(reopen(file, kPassword), c.expected);
        EXPECT_EQ(readBytes(file), before) << "opening must not change the file";
    }
}

TEST_F(KeyDbFileTest, CreateRefusesAnExistingFileAndIsPrivate) {
    std::string file = dir.path("a.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    EXPECT_EQ(fileMode(file), 0600u);
    auto before = readBytes(file);
    EXPECT_EQ(createDb(file, kPassword), ZAVKM_ERR_DATABASE_ALREADY_EXISTS);
    EXPECT_EQ(readBytes(file), before);
    EXPECT_EQ(createDb(dir.path("no/such/dir.kdb"), kPassword), ZAVKM_ERR_DATABASE_CREATE);
    EXPECT_EQ(createDb(dir.path("b.kdb"), ""), ZAVKM_ERR_PWD_TOO_SHORT);
    EXPECT_FALSE(exists(dir.path("b.kdb"))) << "a failed create leaves nothing behind";
}

TEST_F(KeyDbFileTest, PasswordChangeRefusesTheOldPasswordAndKeepsTheLifetime) {
    std::string file = dir.path("a.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    EXPECT_EQ(ZAVKM_ChangeKeyDbPwd(file.c_str(), "wrong", "new pw", 0),
              ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    EXPECT_EQ(ZAVKM_ChangeKeyDbPwd(file.c_str(), kPassword, kPassword, 0),
              ZAVKM_ERR_PASSWORD_CHANGE_MATCH);
    ASSERT_EQ(ZAVKM_ChangeKeyDbPwd(file.c_str(), kPassword, "new pw", 0), ZAVKM_OK);
    EXPECT_EQ(reopen(file, kPassword), ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    EXPECT_EQ(reopen(file, "new pw"), ZAVKM_OK);
}

TEST_F(KeyDbFileTest, AnExpiredPasswordOpensNoMoreButCanStillBeChanged) {
    std::string file = dir.path("a.kdb");
    ASSERT_EQ(createDb(file, kPassword, 1), ZAVKM_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    EXPECT_EQ(reopen(file, kPassword), ZAVKM_ERR_PASSWORD_EXPIRATION_TIME);
    EXPECT_EQ(reopen(file, "wrong"), ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    ASSERT_EQ(ZAVKM_ChangeKeyDbPwd(file.c_str(), kPassword, "new pw", -5), ZAVKM_OK);
    EXPECT_EQ(reopen(file, "new pw"), ZAVKM_OK);
}

// The cache of derived keys: a second open costs no KDF run; a changed password, another file
// or a wrong password is a miss; ZAVKM_CleanAll forgets everything.
TEST_F(KeyDbFileTest, DerivedKeyCache) {
    std::string a = dir.path("a.kdb"), b = dir.path("b.kdb");
    ASSERT_EQ(createDb(a, kPassword), ZAVKM_OK);
    ASSERT_EQ(createDb(b, kPassword), ZAVKM_OK);
    ZAVKM_CleanAll();
    ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK);
    EXPECT_EQ(zavkm::kdfCacheStats().entries, 0u) << "CleanAll wipes the cache";

    struct Step {
        const char* what;
        std::string file;
        const char* password;
        ZAVKM_ReturnCode rc;
        uint64_t hits, misses;  // after the step
    };
    const Step steps[] = {
        {"first open derives", a, kPassword, ZAVKM_OK, 0, 1},
        {"second open hits", a, kPassword, ZAVKM_OK, 1, 1},
        {"same password, other salt", b, kPassword, ZAVKM_OK, 1, 2},
        {"wrong password misses", a, "wrong", ZAVKM_ERR_DATABASE_INVALID_PASSWORD, 1, 3},
        {"and is not remembered", a, "wrong", ZAVKM_ERR_DATABASE_INVALID_PASSWORD, 1, 4},
        {"right one still hits", a, kPassword, ZAVKM_OK, 2, 4},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.what);
        EXPECT_EQ(reopen(s.file, s.password), s.rc);
        EXPECT_EQ(zavkm::kdfCacheStats().hits, s.hits);
        EXPECT_EQ(zavkm::kdfCacheStats().misses, s.misses);
    }

    ASSERT_EQ(ZAVKM_ChangeKeyDbPwd(a.c_str(), kPassword, "new pw", 0), ZAVKM_OK);
    auto before = zavkm::kdfCacheStats();
    EXPECT_EQ(reopen(a, kPassword), ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    EXPECT_EQ(zavkm::kdfCacheStats().misses, before.misses + 1) << "the new salt is a miss";
    before = zavkm::kdfCacheStats();
    EXPECT_EQ(reopen(a, "new pw"), ZAVKM_OK);
    EXPECT_EQ(zavkm::kdfCacheStats().hits, before.hits + 1) << "the change remembered its key";
}

TEST_F(KeyDbFileTest, StashOpensWithoutAPassword) {
    std::string file = dir.path("keys.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    KeyStoreDescriptor d{};
    d.storeType = KeyDbFile;
    d.keyDbFileName = file.c_str();
    uint8_t required = 7;
    ASSERT_EQ(ZAVKM_IsPasswordRequired(&d, &required), ZAVKM_OK);
    EXPECT_EQ(required, 1);
    EXPECT_EQ(reopen(file, ""), ZAVKM_ERR_DATABASE_INVALID_PASSWORD);

    EXPECT_EQ(ZAVKM_StashKeyDbPwd(file.c_str(), "wrong"), ZAVKM_ERR_DATABASE_INVALID_PASSWORD);
    EXPECT_FALSE(exists(dir.path("keys.sth")));
    ASSERT_EQ(ZAVKM_StashKeyDbPwd(file.c_str(), kPassword), ZAVKM_OK);
    EXPECT_EQ(fileMode(dir.path("keys.sth")), 0600u);
    auto stash = readBytes(dir.path("keys.sth"));
    ASSERT_EQ(stash.size(), 12 + std::strlen(kPassword));
    EXPECT_EQ(std::string(stash.begin(), stash.begin() + 8), "ZAVKMSTH");
    EXPECT_EQ(stash[12], static_cast<uint8_t>(kPassword[0] ^ 0xA5));

    ASSERT_EQ(ZAVKM_IsPasswordRequired(&d, &required), ZAVKM_OK);
    EXPECT_EQ(required, 0);
    EXPECT_EQ(reopen(file, ""), ZAVKM_OK);
    ZAVKM_KeyDbHandle h = 0;
    ASSERT_EQ(ZAVKM_OpenKeyDbX(&d, &h), ZAVKM_OK) << "a descriptor without password too";
    EXPECT_EQ(ZAVKM_CloseKeyDb(h), ZAVKM_OK);
    EXPECT_EQ(ZAVKM_CloseKeyDb(h), ZAVKM_ERR_INVALID_DB_HANDLE);
}

// A process keeps its connections open between handles; still, once a handle that changed the
// file is closed, a copy of the file alone holds the change.
TEST_F(KeyDbFileTest, TheFileAloneHoldsEveryChangeOnceTheHandleCloses) {
    std::string file = dir.path("live.kdb"), copy = dir.path("copy.kdb");
    ASSERT_EQ(createDb(file, kPassword), ZAVKM_OK);
    {
        OpenDb db(file, kPassword);
        ASSERT_FALSE(selfSigned(db.h, "added", dir).empty());
    }
    writeBytes(copy, readBytes(file));
    OpenDb db(copy, kPassword);
    ASSERT_EQ(db.rc, ZAVKM_OK);
    EXPECT_EQ(labels(db.h), std::vector<std::string>{"added"});
}

}  // namespace
}  // namespace zavkm_test
