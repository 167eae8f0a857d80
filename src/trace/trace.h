// The two trace channels of the bridge: standard error, switched on for the life of the process
// by TOLVIK_JNI_DEBUG (read once at load), and the time-stamped file "tvkjdbg.log", switched on
// by KMSystem.c_ZAVKMInitDebug and off by KMSystem.c_ZAVKMCleanAll.
#pragma once

#include <cstdint>
#include <cstdio>

namespace zavkjni {

// traceMessage writes one fixed message format with its arguments to every channel that is on.
// With both channels off it costs two tests: no allocation, no time lookup. Arguments are never
// used as formats. It never fails towards its caller.
void traceMessage(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

// traceOn says whether any channel is on (for messages whose argument costs work to make).
bool traceOn() noexcept;

// traceBytesAsText traces a format with one "%s" whose argument is a byte buffer that is not
// zero-terminated: the bytes show up to the first zero byte, never past length.
void traceBytesAsText(const char* format, const unsigned char* bytes, size_t length) noexcept;

// stampTraceFormat replaces the shared stampedFormat with "YYYYmmdd|HH:MM:SS || " + format and
// returns it, or null when the allocation fails (the caller then writes the line unstamped).
// Callers hold the file channel's lock.
char* stampTraceFormat(const char* format) noexcept;

// openTraceFile turns the file channel on with a fresh "tvkjdbg.log" (created owner-only, since
// it holds passwords). A file that is already open is closed first. The name is never followed
// as a link and must be a regular file of the effective user with one name; it is emptied only
// after that check. When the file cannot be opened, or is refused, the channel stays off.
void openTraceFile() noexcept;

// closeTraceFile frees stampedFormat, closes the file and turns the file channel off.
void closeTraceFile() noexcept;

// Text for a "%s" that may be null: the word "null".
inline const char* orNull(const char* text) noexcept { return text ? text : "null"; }

// A Java reference or native handle as traced with "0x%x": its low 32 bits.
inline unsigned ref(const void* pointer) noexcept {
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer));
}

// "NON-NULL" or "NULL", for the lookups that say whether something came back.
inline const char* nullness(const void* pointer) noexcept {
    return pointer != nullptr ? "NON-NULL" : "NULL";
}

}  // namespace zavkjni
