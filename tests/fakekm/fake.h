// The recording fake of the key-management library: every ZAVKM_ operation appends one line to a
// journal (its name and arguments), runs what the test scripted for it and returns the scripted
// value. It hands out and tracks real blocks, and records which operation released each block,
// so that a test can say "nothing leaked, and this list went back through ZAVKM_FreeLabelList".
//
// Journal lines read `ZAVKM_OpenKeyDb("keys.kdb", "pw", non-null)`: texts quoted (or null),
// byte buffers as hex in brackets ([0a0b], [] when empty, null), integers in decimal, a
// KeyStoreDescriptor as its type and the fields that are set, a DN record IN as its parts, a
// label list IN as its labels, other pointers as null or non-null.
#pragma once

#include <any>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "zavkm.h"

#define FAKE_API __attribute__((visibility("default")))

namespace fake {

// Call - one operation call as a scripted effect sees it: the name and the arguments, each held
// with its declared type (a `ZAVKM_KeyItem**` out place is held as `ZAVKM_KeyItem**`).
struct Call {
    std::string_view op;
    std::vector<std::any> args;

    // arg returns argument `index` as T; throws std::bad_any_cast when T is not its type.
    template <class T>
    T arg(size_t index) const {
        return std::any_cast<T>(args.at(index));
    }
};

// Effect - something a scripted step does when its call comes: usually a write through an out
// place. Effects run before the operation returns; exceptions they throw become fake::errors().
using Effect = std::function<void(const Call&)>;

// out returns an effect that writes value through the out place at argument `index` (0-based),
// which must be declared as T*. When value is callable it is called at the time of the call and
// its result written (records must be made then, not when the row is declared).
template <class T>
Effect out(size_t index, T value) {
    return [index, value](const Call& call) {
        if constexpr (std::is_invocable_v<T>) {
            using Made = std::invoke_result_t<T>;
            Made* place = call.arg<Made*>(index);
            if (place != nullptr) *place = value();
        } else {
            T* place = call.arg<T*>(index);
            if (place != nullptr) *place = value;
        }
    };
}

// Step - the scripted answer to one call of an operation.
struct Step {
    int64_t value = 0;  // the return value (a return code, a key size); void operations ignore it
    bool null = false;  // ZAVKM_Malloc, ZAVKM_Realloc, ZAVKM_Strdup: hand out null
    std::vector<Effect> effects;

    template <class T>
    Step& out(size_t index, T value) {
        effects.push_back(fake::out(index, std::move(value)));
        return *this;
    }
};

// returns is the step "return value" (0 is success).
inline Step returns(int64_t value) { return Step{value, false, {}}; }
// reset forgets the journal, the scripts and the errors, and frees every block still handed out
// (and those adopted by ZAVKM_SetCryptoInfo).
FAKE_API void reset();

// script queues step for op: each call of op takes the oldest step queued. A call without a step
// returns 0 (the memory operations then allocate as usual). Throws std::invalid_argument for an
// unknown operation name.
FAKE_API void script(std::string_view op, Step step);

// failCall makes the k-th call (1-based, since the last reset) of an operation that returns
// something fail: it answers failureCode (the memory operations: null) and does nothing else,
// whatever was scripted for it. 0: no call fails.
inline constexpr int64_t failureCode = 99;
FAKE_API void failCall(size_t k);
// failableCalls counts the calls of operations that return something, since the last reset.
FAKE_API size_t failableCalls();

// journal returns the lines of the calls made since the last reset, in order.
FAKE_API std::vector<std::string> journal();

// unusedScripts names the operations whose scripted steps were never consumed.
FAKE_API std::vector<std::string> unusedScripts();

// errors returns the misuse the fake saw (a release of a block it never handed out twice, an
// effect that threw, an out place of the wrong type), one text each.
FAKE_API std::vector<std::string> errors();

// operationNames lists every operation of the fake, in the order of the ABI header.
FAKE_API std::vector<std::string> operationNames();

// ---- Blocks ----------------------------------------------------------------------------------

struct Block {
    const void* ptr;
    size_t size;
    std::string origin;  // "ZAVKM_Malloc", "ZAVKM_Strdup", "ZAVKM_Realloc" or "test" (the builders)
};

// outstanding lists the tracked blocks not yet released.
FAKE_API std::vector<Block> outstanding();

// adopted lists the blocks handed to ZAVKM_SetCryptoInfo since the last reset; they stay
// readable until the next reset.
FAKE_API std::vector<Block> adopted();

// allocate returns a new tracked block of size bytes, zero-filled, made with malloc (so the
// bridge may free it with free or a release operation).
FAKE_API void* allocate(size_t size, std::string_view origin = "test");

// noteFree tells the fake that the C library's free is about to release ptr (used by test
// binaries that wrap free); tracked blocks are then recorded as released by "free".
FAKE_API void noteFree(const void* ptr);

// ---- Record builders (tracked blocks, zero-filled, texts and bytes copied) --------------------

FAKE_API char* text(std::string_view text);
FAKE_API uint8_t* bytes(const std::vector<uint8_t>& bytes, std::string_view origin = "test");

// setBytes makes a tracked copy of bytes and stores it and its length in a record's fields.
template <class Length>
void setBytes(uint8_t*& field, Length& length, const std::vector<uint8_t>& data) {
    field = bytes(data);
    length = static_cast<Length>(data.size());
}

template <class T>
T* record() {
    return static_cast<T*>(allocate(sizeof(T)));
}

// dnItem: a DN record of parts in the record's order (cn, ou, o, l, s, pc, c, optionalField1
// to 4; null or missing parts stay null) and der.
FAKE_API ZAVKM_DNItem* dnItem(const std::vector<const char*>& parts, const std::vector<uint8_t>& der = {});

// labelList builds a list with one node per entry; a null entry makes a node without a label.
// An empty vector gives null.
FAKE_API ZAVKM_LabelList* labelList(const std::vector<const char*>& labels);
FAKE_API ZAVKM_CertItemList* certList(const std::vector<ZAVKM_CertItem*>& certs);
FAKE_API ZAVKM_KeyItemList* keyList(const std::vector<ZAVKM_KeyItem*>& keys);
FAKE_API ZAVKM_EPKIItem* epkiItem(const std::vector<uint8_t>& der);
FAKE_API ZAVKM_PrivKeyInfoItem* privKeyInfoItem(const std::vector<uint8_t>& der);

// hex writes bytes as lowercase hexadecimal, two digits a byte.
FAKE_API std::string hex(const uint8_t* bytes, size_t length);

}  // namespace fake
