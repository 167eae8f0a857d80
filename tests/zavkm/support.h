// support.h - what the library's tests share: a scratch directory, file helpers and a key
// database open for the length of a scope.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "zavkm.h"

namespace zavkm_test {

// ScratchDir - a fresh directory under TMPDIR, removed with its contents on destruction.
class ScratchDir {
  public:
    ScratchDir() {
        dir_ = (std::filesystem::temp_directory_path() / "zavkm-test-XXXXXX").string();  // TMPDIR
        if (mkdtemp(dir_.data()) == nullptr) std::abort();
    }
    ~ScratchDir() {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

  private:
    std::string dir_;
};

inline std::vector<uint8_t> readBytes(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline void writeBytes(const std::string& name, const std::vector<uint8_t>& data) {
    std::ofstream(name, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}
inline uint32_t size(const std::vector<uint8_t>& v) { return static_cast<uint32_t>(v.size()); }
inline bool exists(const std::string& name) {
    struct stat st {};
    return ::stat(name.c_str(), &st) == 0;
}

// dn - a DN record naming cn only; the text is borrowed.
inline ZAVKM_DNItem dn(const char* cn) {
    ZAVKM_DNItem d{};
    d.cn = const_cast<char*>(cn);
    return d;
}

// OpenDb - a key database open for one scope; closed on destruction.
struct OpenDb {
    OpenDb(const std::string& file, const char* password) : rc(ZAVKM_OpenKeyDb(file.c_str(), password, &h)) {}
    ~OpenDb() {
        if (rc == ZAVKM_OK) ZAVKM_CloseKeyDb(h);
    }
    ZAVKM_KeyDbHandle h = 0;
    ZAVKM_ReturnCode rc;
};

// labels - the key labels of an open database, in order.
inline std::vector<std::string> labels(ZAVKM_KeyDbHandle h) {
    std::vector<std::string> out;
    ZAVKM_LabelList* list = nullptr;
    if (ZAVKM_GetKeyDbLabelList(h, &list) != ZAVKM_OK) return out;
    for (ZAVKM_LabelList* n = list; n != nullptr && n->label != nullptr; n = n->next) out.emplace_back(n->label);
    ZAVKM_FreeLabelList(list);
    return out;
}

}  // namespace zavkm_test
