// support.h - what the library's tests share: a scratch directory, file helpers and a key
// database open for the length of a scope.
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

std::vector<uint8_t> readBytes(const std::string& name);
void writeBytes(const std::string& name, const std::vector<uint8_t>& data);
bool exists(const std::string& name);

// dn - a DN record naming cn (and o) only; the texts are borrowed.
ZAVKM_DNItem dn(const char* cn, const char* o = "Example");

// OpenDb - a key database open for one scope; closed on destruction.
struct OpenDb {
    OpenDb(const std::string& file, const char* password);
    ~OpenDb();
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_ReturnCode rc = 0;
};

// labels - the key labels of an open database, in order.
std::vector<std::string> labels(ZAVKM_KeyDbHandle h);

}  // namespace zavkm_test
