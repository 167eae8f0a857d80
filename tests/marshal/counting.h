// Counting what the bridge's code calls: this binary links the bridge's objects with their calls
// of malloc, calloc, realloc, free, time, localtime and localtime_r sent to counting functions
// (see tests/CMakeLists.txt).
#pragma once

namespace counting {

struct Counts {
    int mallocs = 0;    // malloc(), calloc() and realloc()
    int times = 0;      // time()
    int localtimes = 0; // localtime() and localtime_r()
};

// arm starts counting from zero; disarm stops and returns the counts.
void arm();
Counts disarm();

// failNextMalloc makes the bridge's next allocation (malloc, calloc, realloc) fail.
void failNextMalloc();

}  // namespace counting
