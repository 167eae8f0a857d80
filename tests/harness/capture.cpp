#include "capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace harness {

FdCapture::FdCapture(int fd) : fd_(fd) {
    fflush(nullptr);
    file_ = memfd_create("capture", MFD_CLOEXEC);
    saved_ = dup(fd_);
    if (file_ < 0 || saved_ < 0 || dup2(file_, fd_) < 0) {
        throw std::runtime_error("cannot redirect file descriptor " + std::to_string(fd_));
    }
}

FdCapture::~FdCapture() { finish(); }

std::string FdCapture::finish() {
    if (saved_ < 0) return "";
    fflush(nullptr);
    dup2(saved_, fd_);
    close(saved_);
    saved_ = -1;
    std::string text;
    char chunk[4096];
    ssize_t got;
    lseek(file_, 0, SEEK_SET);
    while ((got = read(file_, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(got));
    close(file_);
    file_ = -1;
    return text;
}

bool stderrChannelOn() {
    const char* value = getenv("TOLVIK_JNI_DEBUG");
    // The test's registration says which setting it meant; a setting lost on the way must not
    // pass as another one.
    if (const char* expected = getenv("ZAV_EXPECT_DEBUG")) {
        std::string meant = expected;
        std::string actual = value == nullptr ? "unset" : *value == '\0' ? "empty" : "set";
        if (meant != actual) {
            fprintf(stderr, "TOLVIK_JNI_DEBUG is %s, the test was registered for %s\n",
                    actual.c_str(), meant.c_str());
            abort();
        }
    }
    return value != nullptr;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            result.push_back(text.substr(start));
            break;
        }
        result.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return result;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); }

// The length of a time stamp "YYYYmmdd|HH:MM:SS || " at text[at], or 0.
constexpr size_t stampLength = 21;
bool stampAt(const std::string& text, size_t at) {
    static const char shape[] = "dddddddd|dd:dd:dd || ";
    if (at > text.size() || text.size() - at < stampLength) return false;
    for (size_t i = 0; i < stampLength; ++i) {
        char c = text[at + i];
        if (shape[i] == 'd' ? !isDigit(c) : c != shape[i]) return false;
    }
    return true;
}

// The local time of the stamp at text[at], or -1.
long stampTime(const std::string& text, size_t at) {
    struct tm local = {};
    if (sscanf(text.c_str() + at, "%4d%2d%2d|%2d:%2d:%2d", &local.tm_year, &local.tm_mon,
               &local.tm_mday, &local.tm_hour, &local.tm_min, &local.tm_sec) != 6) {
        return -1;
    }
    local.tm_year -= 1900;
    local.tm_mon -= 1;
    local.tm_isdst = -1;
    return static_cast<long>(mktime(&local));
}

}  // namespace

FileTrace readTraceFile(const std::string& path, long notBefore, long notAfter) {
    FileTrace trace;
    for (const std::string& line : lines(readFile(path))) {
        if (!stampAt(line, 0)) {
            trace.problems.push_back("line without a time stamp: " + line);
            trace.lines.push_back(line);
            continue;
        }
        // A message without a line end runs into the next one, stamp included.
        std::string bare;
        size_t at = 0;
        while (at < line.size()) {
            if (stampAt(line, at)) {
                long when = stampTime(line, at);
                if (when < notBefore - 1 || when > notAfter + 1) {
                    trace.problems.push_back("stamp " + line.substr(at, 17) + " outside the test's time");
                }
                at += stampLength;
            } else {
                bare += line[at++];
            }
        }
        trace.lines.push_back(bare);
    }
    return trace;
}

namespace {

// Matches actual[a...] against expected[e...], where "{ref}" stands for hexadecimal digits and
// "{ptr}" for "0x" and hexadecimal digits, or "(nil)".
bool matchFrom(const std::string& expected, size_t e, const std::string& actual, size_t a) {
    if (e == expected.size()) return a == actual.size();
    if (expected.compare(e, 5, "{ptr}") == 0) {
        if (actual.compare(a, 5, "(nil)") == 0 && matchFrom(expected, e + 5, actual, a + 5)) return true;
        if (actual.compare(a, 2, "0x") != 0) return false;
        a += 2;
    } else if (expected.compare(e, 5, "{ref}") != 0) {
        return a < actual.size() && expected[e] == actual[a] && matchFrom(expected, e + 1, actual, a + 1);
    }
    // One or more hexadecimal digits, then the rest.
    for (size_t end = a; end < actual.size() && isHex(actual[end]); ++end) {
        if (matchFrom(expected, e + 5, actual, end + 1)) return true;
    }
    return false;
}

bool lineMatches(const std::string& expected, const std::string& actual) {
    if (expected.find('{') == std::string::npos) return expected == actual;
    return matchFrom(expected, 0, actual, 0);
}

}  // namespace

std::string matchLines(const std::vector<std::string>& expected,
                       const std::vector<std::string>& actual) {
    for (size_t i = 0; i < std::max(expected.size(), actual.size()); ++i) {
        if (i >= expected.size()) return "unexpected line " + std::to_string(i) + ": " + actual[i];
        if (i >= actual.size()) return "missing line " + std::to_string(i) + ": " + expected[i];
        if (!lineMatches(expected[i], actual[i])) {
            return "line " + std::to_string(i) + ": expected \"" + expected[i] + "\", got \"" +
                   actual[i] + "\"";
        }
    }
    return "";
}

}  // namespace harness
