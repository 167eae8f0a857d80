// shell.h - what the token and key tests share: running a command as a person would (its exit
// status and merged output) and reading a file whole.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace zavkm_test {

struct Output {
    int status;
    std::string text;
};

inline Output run(const std::string& command) {
    Output out{-1, {}};
    FILE* p = popen((command + " 2>&1").c_str(), "r");
    if (p == nullptr) return out;
    std::array<char, 4096> buf{};
    size_t n = 0;
    while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) out.text.append(buf.data(), n);
    out.status = pclose(p);
    return out;
}

inline std::vector<uint8_t> readFile(const std::string& name) {
    std::ifstream in(name, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline uint32_t size(const std::vector<uint8_t>& v) { return static_cast<uint32_t>(v.size()); }

}  // namespace zavkm_test
