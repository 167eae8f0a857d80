// Reading the bridge's two trace channels back as lines: standard error (file descriptor 2,
// redirected around a call) and the trace file "tvkjdbg.log" of the working directory.
#pragma once

#include <string>
#include <vector>

namespace harness {

// StderrCapture sends standard error to a private file until finish() (or destruction).
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture() { finish(); }
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    std::string finish();  // puts standard error back; what was written meanwhile

private:
    int saved_ = -1;
    int file_ = -1;
};

// stderrChannelOn: the variable is read once when the bridge loads, and only its presence
// counts. ZAV_EXPECT_DEBUG (set, empty, unset) names the setting the test was registered for:
// a setting lost on the way aborts instead of passing as another case.
bool stderrChannelOn();

std::vector<std::string> lines(const std::string& text);  // split at "\n"
std::string readFile(const std::string& path);             // "" when it cannot be read

inline constexpr const char* traceFileName = "tvkjdbg.log";

// A trace file read back: its lines with every time stamp "YYYYmmdd|HH:MM:SS || " taken out,
// and what is wrong with the stamps (a line without one, one outside [notBefore, notAfter]).
struct FileTrace {
    std::vector<std::string> lines;
    std::vector<std::string> problems;
};
FileTrace readTraceFile(const std::string& path, long notBefore, long notAfter);

}  // namespace harness
