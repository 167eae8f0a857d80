// support.h - what the library's unit tests share: a scratch directory, a fixture that
// initialises the library, and small file helpers.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zavkm.h"

namespace zavkm_test {

// ScratchDir - a fresh directory under TMPDIR, removed with its contents on destruction.
class ScratchDir {
  public:
    ScratchDir();
    ~ScratchDir();
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

  private:
    std::string dir_;
};

// LibraryTest - ZAVKM_Init before each test, ZAVKM_CleanAll after it.
class LibraryTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(ZAVKM_Init(), ZAVKM_OK); }
    void TearDown() override { ZAVKM_CleanAll(); }
    ScratchDir dir;
};

std::vector<uint8_t> readBytes(const std::string& name);
void writeBytes(const std::string& name, const std::vector<uint8_t>& data);
bool exists(const std::string& name);
unsigned fileMode(const std::string& name);

// createDb - creates a key database and closes it again.
ZAVKM_ReturnCode createDb(const std::string& name, const char* password, int32_t expire = 0);

// reopen - opens and closes again; the return code of the open.
ZAVKM_ReturnCode reopen(const std::string& name, const char* password);

}  // namespace zavkm_test

namespace zavkm_test {

// dn - a DN record naming cn (and o) only; the texts are borrowed.
ZAVKM_DNItem dn(const char* cn, const char* o = "Example");

// OpenDb - a key database open for one test; closed on destruction.
struct OpenDb {
    OpenDb(const std::string& file, const char* password);
    ~OpenDb();
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_ReturnCode rc = 0;
};

// selfSigned - makes a self-signed CA certificate under label (EC P-256) and returns its DER.
std::vector<uint8_t> selfSigned(ZAVKM_KeyDbHandle h, const std::string& label, ScratchDir& dir);

// labels - the key labels of an open database, in order.
std::vector<std::string> labels(ZAVKM_KeyDbHandle h);

}  // namespace zavkm_test
