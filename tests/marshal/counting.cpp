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

extern "C" {
void* __real_malloc(size_t size);
void __real_free(void* block);
time_t __real_time(time_t* now);
struct tm* __real_localtime(const time_t* now);
struct tm* __real_localtime_r(const time_t* now, struct tm* local);

void* __wrap_malloc(size_t size) {
    if (counting::failMalloc.exchange(false)) return nullptr;
    if (counting::armed) ++counting::mallocs;
    return __real_malloc(size);
}

void __wrap_free(void* block) {
    if (block != nullptr) fake::noteFree(block);
    __real_free(block);
}

time_t __wrap_time(time_t* now) {
    if (counting::armed) ++counting::times;
    return __real_time(now);
}

struct tm* __wrap_localtime(const time_t* now) {
    if (counting::armed) ++counting::localtimes;
    return __real_localtime(now);
}

struct tm* __wrap_localtime_r(const time_t* now, struct tm* local) {
    if (counting::armed) ++counting::localtimes;
    return __real_localtime_r(now, local);
}
}
