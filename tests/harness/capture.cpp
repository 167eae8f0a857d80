#include "capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>

namespace harness {

StderrCapture::StderrCapture() {
    fflush(nullptr);
    file_ = memfd_create("capture", MFD_CLOEXEC);
    saved_ = dup(2);
    if (file_ < 0 || saved_ < 0 || dup2(file_, 2) < 0) abort();
}

std::string StderrCapture::finish() {
    if (saved_ < 0) return "";
    fflush(nullptr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    std::string text;
    char chunk[4096];
    lseek(file_, 0, SEEK_SET);
    for (ssize_t got; (got = read(file_, chunk, sizeof chunk)) > 0;) text.append(chunk, static_cast<size_t>(got));
    close(file_);
    return text;
}

bool stderrChannelOn() {
    const char* value = getenv("TOLVIK_JNI_DEBUG");
    const char* meant = getenv("ZAV_EXPECT_DEBUG");
    const std::string actual = value == nullptr ? "unset" : *value == '\0' ? "empty" : "set";
    if (meant != nullptr && actual != meant) {
        fprintf(stderr, "TOLVIK_JNI_DEBUG is %s, the test was registered for %s\n", actual.c_str(), meant);
        abort();
    }
    return value != nullptr;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
}

std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

FileTrace readTraceFile(const std::string& path, long notBefore, long notAfter) {
    static const std::regex stamp(R"((\d{4})(\d\d)(\d\d)\|(\d\d):(\d\d):(\d\d) \|\| )");
    FileTrace trace;
    for (const std::string& line : lines(readFile(path))) {
        if (!std::regex_search(line, stamp, std::regex_constants::match_continuous)) {
            trace.problems.push_back("line without a time stamp: " + line);
        }
        // A message without a line end runs into the next one, stamp included.
        for (std::sregex_iterator m(line.begin(), line.end(), stamp), end; m != end; ++m) {
            struct tm local = {};
            local.tm_year = std::stoi((*m)[1]) - 1900;
            local.tm_mon = std::stoi((*m)[2]) - 1;
            local.tm_mday = std::stoi((*m)[3]);
            local.tm_hour = std::stoi((*m)[4]);
            local.tm_min = std::stoi((*m)[5]);
            local.tm_sec = std::stoi((*m)[6]);
            local.tm_isdst = -1;
            const long when = static_cast<long>(mktime(&local));
            if (when < notBefore - 1 || when > notAfter + 1) trace.problems.push_back("stamp outside the test's time: " + line);
        }
        trace.lines.push_back(std::regex_replace(line, stamp, ""));
    }
    return trace;
}

}  // namespace harness
