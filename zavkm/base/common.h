// common.h - small shared pieces of the key-management library: return-code shorthands, the
// exception guard every exported operation runs its body in. The deleter-typed unique_ptr
// (Owned, for OpenSSL and SQLite handles too) and the self-wiping SecretBytes come from
// zavkm.hpp.
#pragma once

#include <openssl/crypto.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "zavkm.h"
#include "zavkm.hpp"  // Owned, the record owners, SecretBytes

namespace zavkm {

using Rc = ZAVKM_ReturnCode;
using Bytes = std::vector<uint8_t>;

// guarded - runs fn and returns what it returns; an exception (only std::bad_alloc can come
// from our code, through the standard containers) becomes ZAVKM_ERR_MEMORY_ALLOCATE, anything
// else ZAVKM_ERR_UNKNOWN. The exported operations' frames (api/session.h) are the only callers:
// exceptions stop there and nothing crosses the C ABI.
template <class Fn>
Rc guarded(Fn&& fn) noexcept {
    try {
        return fn();
    } catch (const std::bad_alloc&) {
        return ZAVKM_ERR_MEMORY_ALLOCATE;
    } catch (...) {
        return ZAVKM_ERR_UNKNOWN;
    }
}

// guardedVoid - guarded for best-effort bookkeeping without a return code (caches, the table of
// open databases), which destructors and cleanup paths run: a failure there changes no result.
template <class Fn>
void guardedVoid(Fn&& fn) noexcept {
    try {
        fn();
    } catch (...) {
    }
}

// isEmpty - true for a null or zero-length text.
inline bool isEmpty(const char* s) noexcept { return s == nullptr || *s == '\0'; }

}  // namespace zavkm
