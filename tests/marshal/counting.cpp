// The wrapped C library functions of this binary. free also tells the fake which of its blocks
// the bridge gave back with the C library's free.
#include "counting.h"

#include <atomic>
#include <cstdlib>
#include <ctime>

#include "fake.h"

namespace counting {
namespace {
std::atomic<bool> armed{false};
std::atomic<bool> failMalloc{false};
std::atomic<int> mallocs{0};
std::atomic<int> times{0};
std::atomic<int> localtimes{0};
}  // namespace

void arm() {
    mallocs = 0;
    times = 0;
    localtimes = 0;
    armed = true;
}

Counts disarm() {
    armed = false;
    return Counts{mallocs, times, localtimes};
}

void failNextMalloc() { failMalloc = true; }

}  // namespace counting

// The bridge's objects are linked into this binary with their calls of these C library
// functions renamed to the functions below (see tests/CMakeLists.txt).
extern "C" {

void* zav_counted_malloc(size_t size) {
    if (counting::failMalloc.exchange(false)) return nullptr;
    if (counting::armed) ++counting::mallocs;
    return malloc(size);
}

// The compiler may turn malloc and memset into calloc.
void* zav_counted_calloc(size_t count, size_t size) {
    if (counting::failMalloc.exchange(false)) return nullptr;
    if (counting::armed) ++counting::mallocs;
    return calloc(count, size);
}

void* zav_counted_realloc(void* block, size_t size) {
    if (counting::failMalloc.exchange(false)) return nullptr;
    if (counting::armed) ++counting::mallocs;
    if (block != nullptr) fake::noteFree(block);
    return realloc(block, size);
}

void zav_counted_free(void* block) {
    if (block != nullptr) fake::noteFree(block);
    free(block);
}

time_t zav_counted_time(time_t* now) {
    if (counting::armed) ++counting::times;
    return time(now);
}

struct tm* zav_counted_localtime(const time_t* now) {
    if (counting::armed) ++counting::localtimes;
    return localtime(now);
}

struct tm* zav_counted_localtime_r(const time_t* now, struct tm* local) {
    if (counting::armed) ++counting::localtimes;
    return localtime_r(now, local);
}
}
