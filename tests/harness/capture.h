// Reading the bridge's two trace channels back as lines: standard error (file descriptor 2,
// redirected around a call) and the trace file "tvkjdbg.log" of the working directory.
#pragma once

#include <string>
#include <vector>

namespace harness {

// FdCapture sends a file descriptor (2: standard error, 1: standard output) to a private file
// from construction until finish() (or destruction), then puts the old one back.
class FdCapture {
public:
    explicit FdCapture(int fd);
    ~FdCapture();
    FdCapture(const FdCapture&) = delete;
    FdCapture& operator=(const FdCapture&) = delete;

    // finish restores the descriptor and returns what was written meanwhile.
    std::string finish();

private:
    int fd_;
    int saved_ = -1;
    int file_ = -1;
};

class StderrCapture : public FdCapture {
public:
    StderrCapture() : FdCapture(2) {}
};

// stderrChannelOn tells whether the bridge traces to standard error in this process: the
// variable is read once when the bridge loads, and only its presence counts.
bool stderrChannelOn();

// lines splits text at "\n"; a last piece without a line end is a line too.
std::vector<std::string> lines(const std::string& text);

// readFile returns the whole file, or "" when it cannot be read.
std::string readFile(const std::string& path);

// The trace file's name in the working directory.
inline constexpr const char* traceFileName = "tvkjdbg.log";

// A trace file read back: its lines with every time stamp taken out, and what is wrong with
// the stamps (a line that does not start with one, a stamp not within the test's time span).
struct FileTrace {
    std::vector<std::string> lines;
    std::vector<std::string> problems;
};

// readTraceFile reads path and checks its stamps "YYYYmmdd|HH:MM:SS || " against the local time
// span [notBefore, notAfter] (seconds since 1970).
FileTrace readTraceFile(const std::string& path, long notBefore, long notAfter);

// matchLines compares actual lines with expected ones. An expected line may hold "{ref}" for a
// reference traced as "0x%x" (hexadecimal digits) and "{ptr}" for a "%p". Returns "" when they
// match, else a description of the first difference.
std::string matchLines(const std::vector<std::string>& expected,
                       const std::vector<std::string>& actual);

}  // namespace harness
