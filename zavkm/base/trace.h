// trace.h - the library's own trace file. It records which operation ran and what it returned,
// file names and labels; never key material and never passwords.
#pragma once

#include "base/common.h"

namespace zavkm {

// startTrace - opens (appends to) fileName as the trace file; level 0 traces operations and
// results, higher levels add details. A second call replaces the previous file. The file is
// never reached through a link: ZAVKM_ERR_FILE_OPEN_NOT_ALLOWED for a link, a FIFO, a device,
// another user's file or one with a second name; an existing file of the user's is made
// readable by its owner only, a new one is created so. ZAVKM_ERR_FILE_OPEN_TO_WRITE when it
// cannot be opened. Tracing stays off after a failure.
Rc startTrace(const char* tag, const char* fileName, int32_t level) noexcept;

// stopTrace - closes the trace file; tracing is off afterwards.
void stopTrace() noexcept;

// traceOn - true while a trace file is open (one atomic load).
bool traceOn() noexcept;

// trace - writes one stamped line (printf format, no line end needed). Serialised.
void trace(const char* fmt, ...) noexcept __attribute__((format(printf, 1, 2)));

// traceResult - traces "<operation> -> rc" and returns rc, for the tail of an operation.
Rc traceResult(const char* operation, Rc rc) noexcept;

}  // namespace zavkm
