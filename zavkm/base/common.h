// common.h - small shared pieces of the key-management library: return-code shorthands, the
// exception guard every exported operation runs its body in, deleter-typed unique_ptr for
// OpenSSL and SQLite handles, and byte buffers that wipe themselves.
#pragma once

#include <openssl/crypto.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "zavkm.h"

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

// Deleter - a unique_ptr deleter calling the C release function F.
template <auto F>
struct Deleter {
    template <class T>
    void operator()(T* p) const noexcept {
        F(p);
    }
};

template <class T, auto F>
using Owned = std::unique_ptr<T, Deleter<F>>;

// SecretBytes - a byte buffer that OPENSSL_cleanse()s itself on destruction and on reuse.
class SecretBytes {
  public:
    SecretBytes() = default;
    explicit SecretBytes(size_t n) : data_(n, 0) {}
    SecretBytes(const uint8_t* p, size_t n) : data_(p, p + n) {}
    SecretBytes(const SecretBytes&) = default;
    SecretBytes& operator=(const SecretBytes& o) {
        if (this != &o) {
            wipe();
            data_ = o.data_;
        }
        return *this;
    }
    SecretBytes(SecretBytes&& o) noexcept : data_(std::move(o.data_)) { o.data_.clear(); }
    SecretBytes& operator=(SecretBytes&& o) noexcept {
        if (this != &o) {
            wipe();
            data_ = std::move(o.data_);
            o.data_.clear();
        }
        return *this;
    }
    ~SecretBytes() { wipe(); }

    uint8_t* data() noexcept { return data_.data(); }
    const uint8_t* data() const noexcept { return data_.data(); }
    size_t size() const noexcept { return data_.size(); }
    bool empty() const noexcept { return data_.empty(); }
    void resize(size_t n) {
        if (n < data_.size()) OPENSSL_cleanse(data_.data() + n, data_.size() - n);
        data_.resize(n);
    }
    bool operator==(const SecretBytes& o) const noexcept {
        return data_.size() == o.data_.size() &&
               CRYPTO_memcmp(data_.data(), o.data_.data(), data_.size()) == 0;
    }
    void wipe() noexcept {
        if (!data_.empty()) OPENSSL_cleanse(data_.data(), data_.size());
    }

  private:
    std::vector<uint8_t> data_;
};

// isEmpty - true for a null or zero-length text.
inline bool isEmpty(const char* s) noexcept { return s == nullptr || *s == '\0'; }

}  // namespace zavkm
