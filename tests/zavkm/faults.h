// faults.h - faults injected into the test process, counted and fired one at a time: the n-th
// allocation of OpenSSL or SQLite fails, or the n-th write, sync or truncate (through a SQLite
// VFS registered as the default) or the n-th write, fsync, rename or link the library makes
// itself. Also counts the open descriptors. Heap blocks left behind are LeakSanitizer's to find
// (the sanitizer leg runs these loops with leak detection on).
#pragma once

#include <cstddef>

namespace zavkm_test {

enum Fault { kAlloc, kWrite, kFaultKinds };

// armFault - from now on count calls of each kind and fail the failAt-th one of kind (0: none);
// with crash, the process ends there instead (_exit(kCrashed)), as if killed.
inline constexpr int kCrashed = 99;
void armFault(Fault kind, long failAt, bool crash = false);
// disarmFault - stops counting; the number of calls of kind seen since armFault.
long disarmFault(Fault kind);

// openDescriptors - how many descriptors this process holds open.
int openDescriptors();

}  // namespace zavkm_test
