// support.cpp - shared pieces of the library's tests.
#include "support.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace zavkm_test {

ScratchDir::ScratchDir() {
    const char* base = std::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/zavkm-test-XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr) std::abort();
    dir_ = buf.data();
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::vector<uint8_t> readBytes(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::string& name, const std::vector<uint8_t>& data) {
    std::ofstream out(name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
}

bool exists(const std::string& name) {
    struct stat st {};
    return ::stat(name.c_str(), &st) == 0;
}

ZAVKM_DNItem dn(const char* cn, const char* o) {
    ZAVKM_DNItem d{};
    d.cn = const_cast<char*>(cn);
    d.o = const_cast<char*>(o);
    return d;
}

OpenDb::OpenDb(const std::string& file, const char* password) {
    rc = ZAVKM_OpenKeyDb(file.c_str(), password, &h);
}

OpenDb::~OpenDb() {
    if (rc == ZAVKM_OK) ZAVKM_CloseKeyDb(h);
}

std::vector<std::string> labels(ZAVKM_KeyDbHandle h) {
    std::vector<std::string> out;
    ZAVKM_LabelList* list = nullptr;
    if (ZAVKM_GetKeyDbLabelList(h, &list) != ZAVKM_OK) return out;
    for (ZAVKM_LabelList* n = list; n != nullptr && n->label != nullptr; n = n->next)
        out.emplace_back(n->label);
    ZAVKM_FreeLabelList(list);
    return out;
}

}  // namespace zavkm_test
