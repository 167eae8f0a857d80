// zavkm.hpp - owners for C++ callers of the key-management library: each record the library
// hands out is held by an owner that releases it with the release operation of its type, and
// SecretBytes holds bytes that must not outlive their use (private keys, passwords, key
// material), wiping them whenever it lets go of them.
//
// Header only, no OpenSSL: the library, the JNI bridge, tolvik and the tests include it alike.
// The library defines the release operations itself; every other caller reaches them through
// the exported ABI.
#pragma once

#include <string.h>  // explicit_bzero

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "zavkm.h"
#include "zavkm_ext.h"

namespace zavkm {

// wipe - overwrites the n bytes at p with zeros in a way the compiler keeps even when the bytes
// are never read again. A null p or a zero n does nothing.
inline void wipe(void* p, size_t n) noexcept {
    if (p != nullptr && n != 0) explicit_bzero(p, n);
}

// Deleter - a unique_ptr deleter calling the C release function F.
template <auto F>
struct Deleter {
    template <class T>
    void operator()(T* p) const noexcept {
        F(p);
    }
};

// Owned - a pointer owned by a unique_ptr that releases it with F.
template <class T, auto F>
using Owned = std::unique_ptr<T, Deleter<F>>;

// The owners of the records the library hands out, each released (deeply: texts, blocks and
// the records it holds) by its own release operation. The release operations of the records
// that carry private-key bytes (EPKI, PKCS#8, and the key items holding them) wipe those bytes
// before freeing them.
using DNPtr = Owned<ZAVKM_DNItem, ZAVKM_FreeDNItem>;
using EPKIPtr = Owned<ZAVKM_EPKIItem, ZAVKM_FreeEPKIItem>;
using PrivKeyInfoPtr = Owned<ZAVKM_PrivKeyInfoItem, ZAVKM_FreePrivKeyInfoItem>;
using LabelListPtr = Owned<ZAVKM_LabelList, ZAVKM_FreeLabelList>;
using CertItemListPtr = Owned<ZAVKM_CertItemList, ZAVKM_FreeCertItemList>;
using KeyItemPtr = Owned<ZAVKM_KeyItem, ZAVKM_FreeKeyItem>;
using ReqKeyItemPtr = Owned<ZAVKM_ReqKeyItem, ZAVKM_FreeReqKeyItem>;
using KeyItemListPtr = Owned<ZAVKM_KeyItemList, ZAVKM_FreeKeyItemList>;
// BlockPtr - a byte block the library allocated (a DER certificate, decoded data), released
// with ZAVKM_Free.
using BlockPtr = Owned<uint8_t, ZAVKM_Free>;

// Counted - an array of records whose count travels with it, released with F(array, count):
// what ZAVKM_ListEntries and ZAVKM_VerifyKeyDb hand out.
template <class T, auto F>
class Counted {
  public:
    Counted() = default;
    Counted(T* records, uint32_t count) noexcept : records_(records), count_(count) {}
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
    Counted(Counted&& o) noexcept : records_(std::exchange(o.records_, nullptr)), count_(std::exchange(o.count_, 0)) {}
    Counted& operator=(Counted&& o) noexcept {
        if (this != &o) reset(std::exchange(o.records_, nullptr), std::exchange(o.count_, 0));
        return *this;
    }
    ~Counted() { reset(); }

    // reset - releases the records held and holds records and count instead.
    void reset(T* records = nullptr, uint32_t count = 0) noexcept {
        T* old = std::exchange(records_, records);
        const uint32_t oldCount = std::exchange(count_, count);
        if (old != nullptr) F(old, oldCount);
    }
    T* get() const noexcept { return records_; }
    uint32_t size() const noexcept { return count_; }
    bool empty() const noexcept { return count_ == 0; }
    T& operator[](size_t i) const noexcept { return records_[i]; }
    T* begin() const noexcept { return records_; }
    T* end() const noexcept { return records_ + (records_ != nullptr ? count_ : 0); }

  private:
    T* records_ = nullptr;
    uint32_t count_ = 0;
};

using EntriesPtr = Counted<ZAVKM_Entry, ZAVKM_FreeEntries>;
using DamagePtr = Counted<ZAVKM_Damage, ZAVKM_FreeDamage>;

// Out - the address an operation writes a record to; the record lands in the owner at the end
// of the full expression, also when the operation failed or an exception was thrown.
template <class Owner>
class Out {
  public:
    explicit Out(Owner& owner) noexcept : owner_(owner) {}
    Out(const Out&) = delete;
    Out& operator=(const Out&) = delete;
    ~Out() { owner_.reset(raw_); }
    operator typename Owner::pointer*() noexcept { return &raw_; }

  private:
    Owner& owner_;
    typename Owner::pointer raw_ = nullptr;
};

// out - `ZAVKM_GetKeyItemByLabel(handle, label, out(key))` fills the owner key.
template <class Owner>
Out<Owner> out(Owner& owner) noexcept {
    return Out<Owner>(owner);
}

// SecretBytes - a contiguous byte buffer for secrets. Its bytes are wiped when it goes, when it
// shrinks (the bytes cut off), when it grows (the old storage, before it is freed), when it is
// assigned to, and by wipe(). Moving hands the storage over and leaves the source empty, so no
// copy stays behind. Allocation failures throw std::bad_alloc.
class SecretBytes {
  public:
    SecretBytes() = default;
    // SecretBytes(n) - n zero bytes.
    explicit SecretBytes(size_t n) { resize(n); }
    // SecretBytes(p, n) - a copy of the n bytes at p.
    SecretBytes(const uint8_t* p, size_t n) { assign(p, n); }
    SecretBytes(const SecretBytes& o) { assign(o.data_, o.size_); }
    SecretBytes& operator=(const SecretBytes& o) {
        if (this != &o) assign(o.data_, o.size_);
        return *this;
    }
    SecretBytes(SecretBytes&& o) noexcept
        : data_(std::exchange(o.data_, nullptr)),
          size_(std::exchange(o.size_, 0)),
          capacity_(std::exchange(o.capacity_, 0)) {}
    SecretBytes& operator=(SecretBytes&& o) noexcept {
        if (this != &o) {
            release();
            data_ = std::exchange(o.data_, nullptr);
            size_ = std::exchange(o.size_, 0);
            capacity_ = std::exchange(o.capacity_, 0);
        }
        return *this;
    }
    ~SecretBytes() { release(); }

    uint8_t* data() noexcept { return data_; }
    const uint8_t* data() const noexcept { return data_; }
    size_t size() const noexcept { return size_; }
    bool empty() const noexcept { return size_ == 0; }
    uint8_t* begin() noexcept { return data_; }
    uint8_t* end() noexcept { return data_ + size_; }
    const uint8_t* begin() const noexcept { return data_; }
    const uint8_t* end() const noexcept { return data_ + size_; }
    uint8_t& operator[](size_t i) noexcept { return data_[i]; }
    uint8_t operator[](size_t i) const noexcept { return data_[i]; }

    // assign - the n bytes at p replace the contents (the old ones wiped).
    void assign(const uint8_t* p, size_t n) {
        if (n > capacity_) {
            SecretBytes fresh;
            fresh.reserve(n);
            *this = std::move(fresh);
        }
        wipe();
        if (n != 0) std::memcpy(data_, p, n);
        size_ = n;
    }

    // resize - n bytes: the first min(n, size()) kept, new ones zero, cut ones wiped.
    void resize(size_t n) {
        if (n > capacity_) reserve(n);
        if (n > size_) {
            std::memset(data_ + size_, 0, n - size_);
        } else {
            zavkm::wipe(data_ + n, size_ - n);
        }
        size_ = n;
    }

    // wipe - overwrites the contents with zeros; the size stays.
    void wipe() noexcept { zavkm::wipe(data_, capacity_); }

    // operator== - same length and same bytes, compared in a time that does not depend on
    // where the first difference lies.
    bool operator==(const SecretBytes& o) const noexcept {
        if (size_ != o.size_) return false;
        uint8_t diff = 0;
        for (size_t i = 0; i < size_; ++i) diff |= static_cast<uint8_t>(data_[i] ^ o.data_[i]);
        return diff == 0;
    }

  private:
    // reserve - storage for n bytes, the contents moved over and the old storage wiped.
    void reserve(size_t n) {
        auto* fresh = static_cast<uint8_t*>(std::malloc(n));
        if (fresh == nullptr) throw std::bad_alloc();
        const size_t kept = size_;
        if (kept != 0) std::memcpy(fresh, data_, kept);
        release();
        data_ = fresh;
        size_ = kept;
        capacity_ = n;
    }
    // release - wipes and frees the storage; size and capacity become 0.
    void release() noexcept {
        wipe();
        std::free(data_);
        data_ = nullptr;
        capacity_ = 0;
        size_ = 0;
    }

    uint8_t* data_ = nullptr;
    size_t size_ = 0;
    size_t capacity_ = 0;
};

}  // namespace zavkm
