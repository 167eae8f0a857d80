// The fake's process-wide state, shared by its operations (operations.cpp) and its test API
// (state.cpp). Every access holds the one recursive lock: scripted effects run under it and may
// call the builders.
#pragma once

#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "fake.h"

namespace fake::detail {

struct State {
    std::recursive_mutex mutex;
    std::vector<std::string> journal;
    std::map<std::string, std::deque<Step>, std::less<>> scripts;
    std::vector<std::string> errors;
    std::unordered_map<const void*, Block> live;              // tracked blocks handed out
    std::vector<Block> adopted;                               // kept alive until reset
    size_t failAt = 0;          // the failable call that fails (1-based; 0: none)
    size_t failableCalls = 0;   // calls of operations that return something, since reset
};

// state returns the one State; it is never destroyed, so calls made while the process exits
// still find it.
State& state();

using Lock = std::lock_guard<std::recursive_mutex>;

// track records a block handed out; release frees ptr (tracked or not: release operations
// accept blocks the bridge made with malloc) and forgets it.
void track(const void* ptr, size_t size, std::string_view origin);
void release(const void* ptr);
bool isTracked(const void* ptr);
size_t trackedSize(const void* ptr);
void error(std::string text);

// takeStep pops the next scripted step of op, or gives the default step.
Step takeStep(std::string_view op);

// behave runs what an operation does beyond returning the scripted value: the memory
// operations allocate, the release operations free deeply, ZAVKM_InitDNItem and
// ZAVKM_InitEPKIItem clear the record, ZAVKM_SetCryptoInfo adopts its block. Returns the
// pointer result of the memory operations (null for every other operation).
void* behave(std::string_view op, const Call& call, const Step& step);

bool isOperation(std::string_view op);

}  // namespace fake::detail
