// The fake's state, its blocks and release operations, and its test API.
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "state.h"
#include "zavkm/pki/record_fields.h"

namespace fake {
namespace detail {

State& state() {
    static State* const theState = new State;  // never destroyed: see state.h
    return *theState;
}

void track(const void* ptr, size_t size, std::string_view origin) {
    if (ptr == nullptr) return;
    state().live[ptr] = Block{ptr, size, std::string(origin)};
}

bool isTracked(const void* ptr) { return state().live.count(ptr) != 0; }

size_t trackedSize(const void* ptr) {
    auto found = state().live.find(ptr);
    return found == state().live.end() ? 0 : found->second.size;
}

void release(const void* ptr) {
    state().live.erase(ptr);
    free(const_cast<void*>(ptr));
}

void error(std::string text) { state().errors.push_back(std::move(text)); }

Step takeStep(std::string_view op) {
    auto found = state().scripts.find(op);
    if (found == state().scripts.end() || found->second.empty()) return Step{};
    Step step = std::move(found->second.front());
    found->second.pop_front();
    return step;
}

namespace {

// The library's release operations, walking records with the library's own description.
struct Releasing {
    void text(char* t) { release(t); }
    void bytes(uint8_t* p, uint32_t, bool) { release(p); }
    void block(void* p) { release(p); }
};
template <class Record>
void releaseDeep(const Call& call) {
    Releasing releasing;
    zavkm::fields::releaseAll(call.arg<Record*>(0), releasing);
}

void* newBlock(size_t size, std::string_view origin, int fill) {
    void* block = malloc(size == 0 ? 1 : size);
    if (block == nullptr) return nullptr;
    memset(block, fill, size == 0 ? 1 : size);
    track(block, size, origin);
    return block;
}

// The library's own blocks are not zeroed: a client that reads bytes it never wrote sees 0xa5.
constexpr int libraryFill = 0xa5;

template <class Record>
void clearRecord(const Call& call) {
    Record** place = call.arg<Record**>(0);
    if (place != nullptr && *place != nullptr) memset(*place, 0, sizeof(Record));
}

}  // namespace

void* behave(std::string_view op, const Call& call, const Step& step) {
    if (op == "ZAVKM_Malloc") {
        return step.null ? nullptr : newBlock(call.arg<uint32_t>(0), op, libraryFill);
    }
    if (op == "ZAVKM_Strdup") {
        const char* text = call.arg<const char*>(0);
        if (step.null || text == nullptr) return nullptr;
        void* copy = newBlock(strlen(text) + 1, op, 0);
        if (copy != nullptr) strcpy(static_cast<char*>(copy), text);
        return copy;
    }
    if (op == "ZAVKM_Realloc") {
        void* block = call.arg<void*>(0);
        uint32_t size = call.arg<uint32_t>(1);
        if (step.null) return nullptr;  // the old block stays with the caller
        if (block != nullptr && !isTracked(block)) {
            error("ZAVKM_Realloc of a block the library never handed out");
            return nullptr;
        }
        state().live.erase(block);  // forgotten before realloc may release it
        void* grown = realloc(block, size == 0 ? 1 : size);
        if (grown == nullptr) {
            track(block, size, op);  // the old block stays with the caller
            return nullptr;
        }
        track(grown, size, op);
        return grown;
    }
    if (op == "ZAVKM_Free") {
        void* block = call.arg<void*>(0);
        if (block != nullptr && !isTracked(block)) {
            error("ZAVKM_Free of a block the library never handed out (or freed twice)");
            return nullptr;
        }
        release(block);
        return nullptr;
    }
    if (op == "ZAVKM_SetCryptoInfo") {  // the block stays with the library, whatever it answers
        void* block = call.arg<void*>(0);
        if (block == nullptr) return nullptr;
        auto found = state().live.find(block);
        if (found == state().live.end()) {
            error("ZAVKM_SetCryptoInfo of a block the library never handed out");
        } else {
            state().adopted.push_back(found->second);
            state().live.erase(block);
        }
        return nullptr;
    }
    if (step.value != 0) return nullptr;  // a scripted failure does nothing more
    if (op == "ZAVKM_InitDNItem") {
        clearRecord<ZAVKM_DNItem>(call);
    } else if (op == "ZAVKM_InitEPKIItem") {
        clearRecord<ZAVKM_EPKIItem>(call);
    } else if (op == "ZAVKM_FreeLabelList") {
        releaseDeep<ZAVKM_LabelList>(call);
    } else if (op == "ZAVKM_FreeDNItem") {
        releaseDeep<ZAVKM_DNItem>(call);
    } else if (op == "ZAVKM_FreeEPKIItem") {
        releaseDeep<ZAVKM_EPKIItem>(call);
    } else if (op == "ZAVKM_FreePrivKeyInfoItem") {
        releaseDeep<ZAVKM_PrivKeyInfoItem>(call);
    } else if (op == "ZAVKM_FreeCertItemList") {
        releaseDeep<ZAVKM_CertItemList>(call);
    } else if (op == "ZAVKM_FreeKeyItem") {
        releaseDeep<ZAVKM_KeyItem>(call);
    } else if (op == "ZAVKM_FreeReqKeyItem") {
        releaseDeep<ZAVKM_ReqKeyItem>(call);
    } else if (op == "ZAVKM_FreeKeyItemList") {
        releaseDeep<ZAVKM_KeyItemList>(call);
    }
    return nullptr;
}

}  // namespace detail

using detail::Lock;
using detail::state;

void reset() {
    Lock lock(state().mutex);
    for (auto& [ptr, block] : state().live) free(const_cast<void*>(ptr));
    for (const Block& block : state().adopted) free(const_cast<void*>(block.ptr));
    state().live.clear();
    state().adopted.clear();
    state().journal.clear();
    state().scripts.clear();
    state().errors.clear();
    state().failAt = 0;
    state().failableCalls = 0;
}

void failCall(size_t k) {
    Lock lock(state().mutex);
    state().failAt = k;
}

size_t failableCalls() {
    Lock lock(state().mutex);
    return state().failableCalls;
}

void script(std::string_view op, Step step) {
    if (!detail::isOperation(op)) {
        throw std::invalid_argument("fake::script: no operation " + std::string(op));
    }
    Lock lock(state().mutex);
    auto found = state().scripts.find(op);
    if (found == state().scripts.end()) {
        found = state().scripts.emplace(std::string(op), std::deque<Step>{}).first;
    }
    found->second.push_back(std::move(step));
}

std::vector<std::string> journal() {
    Lock lock(state().mutex);
    return state().journal;
}

std::vector<std::string> unusedScripts() {
    Lock lock(state().mutex);
    std::vector<std::string> unused;
    for (const auto& [op, steps] : state().scripts) {
        for (size_t i = 0; i < steps.size(); ++i) unused.push_back(op);
    }
    return unused;
}

std::vector<std::string> errors() {
    Lock lock(state().mutex);
    return state().errors;
}

std::vector<Block> outstanding() {
    Lock lock(state().mutex);
    std::vector<Block> blocks;
    for (const auto& [ptr, block] : state().live) blocks.push_back(block);
    return blocks;
}

std::vector<Block> adopted() {
    Lock lock(state().mutex);
    return state().adopted;
}

void* allocate(size_t size, std::string_view origin) {
    Lock lock(state().mutex);
    void* block = calloc(1, size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    detail::track(block, size, origin);
    return block;
}

void noteFree(const void* ptr) {
    if (ptr == nullptr) return;
    Lock lock(state().mutex);
    state().live.erase(ptr);
}

char* text(std::string_view text) {
    auto* copy = static_cast<char*>(allocate(text.size() + 1, "test"));
    memcpy(copy, text.data(), text.size());
    return copy;
}

uint8_t* bytes(const std::vector<uint8_t>& bytes, std::string_view origin) {
    auto* copy = static_cast<uint8_t*>(allocate(bytes.size(), origin));
    if (!bytes.empty()) memcpy(copy, bytes.data(), bytes.size());
    return copy;
}

namespace {
char* textOrNull(const char* value) { return value == nullptr ? nullptr : text(value); }
}  // namespace

ZAVKM_DNItem* dnItem(const std::vector<const char*>& parts, const std::vector<uint8_t>& der) {
    auto* dn = record<ZAVKM_DNItem>();
    char** fields[] = {&dn->cn, &dn->ou, &dn->o, &dn->l, &dn->s, &dn->pc, &dn->c, &dn->optionalField1,
                       &dn->optionalField2, &dn->optionalField3, &dn->optionalField4};
    for (size_t i = 0; i < parts.size() && i < std::size(fields); ++i) *fields[i] = textOrNull(parts[i]);
    setBytes(dn->der, dn->derLength, der);
    return dn;
}

namespace {
// Builds a singly linked list of Node (two words: item, next) holding items in order.
template <class Node, class Item>
Node* chain(const std::vector<Item>& items, Item Node::*field) {
    Node* head = nullptr;
    Node** tail = &head;
    for (const Item& item : items) {
        Node* node = record<Node>();
        node->*field = item;
        *tail = node;
        tail = &node->next;
    }
    return head;
}
}  // namespace

ZAVKM_LabelList* labelList(const std::vector<const char*>& labels) {
    std::vector<char*> copies;
    for (const char* label : labels) copies.push_back(textOrNull(label));
    return chain(copies, &ZAVKM_LabelList::label);
}

ZAVKM_CertItemList* certList(const std::vector<ZAVKM_CertItem*>& certs) {
    return chain(certs, &ZAVKM_CertItemList::cert);
}

ZAVKM_KeyItemList* keyList(const std::vector<ZAVKM_KeyItem*>& keys) {
    return chain(keys, &ZAVKM_KeyItemList::key);
}

ZAVKM_EPKIItem* epkiItem(const std::vector<uint8_t>& der) {
    auto* epki = record<ZAVKM_EPKIItem>();
    setBytes(epki->der, epki->derLength, der);
    return epki;
}

ZAVKM_PrivKeyInfoItem* privKeyInfoItem(const std::vector<uint8_t>& der) {
    auto* pki = record<ZAVKM_PrivKeyInfoItem>();
    setBytes(pki->der, pki->derLength, der);
    return pki;
}

std::string hex(const uint8_t* bytes, size_t length) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < length; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

}  // namespace fake
