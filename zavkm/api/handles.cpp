// handles.cpp - the table of open key databases.
#include "handles.h"

#include <map>
#include <mutex>

namespace zavkm {
namespace {

constexpr size_t kMaxHandles = 4096;

struct HandleTable {
    std::mutex mutex;
    std::map<ZAVKM_KeyDbHandle, std::shared_ptr<KeyDb>> open;
    ZAVKM_KeyDbHandle last = 0;
};

HandleTable& table() {
    static HandleTable* instance = new HandleTable();  // never destroyed: usable until exit
    return *instance;
}

}  // namespace

ZAVKM_KeyDbHandle addHandle(std::unique_ptr<KeyDb> kdb) noexcept {
    try {
        std::shared_ptr<KeyDb> shared(std::move(kdb));
        HandleTable& t = table();
        std::lock_guard lock(t.mutex);
        if (t.open.size() >= kMaxHandles) return 0;
        do {
            ++t.last;
        } while (t.last == 0 || t.open.count(t.last) != 0);
        t.open.emplace(t.last, std::move(shared));
        return t.last;
    } catch (...) {
        return 0;
    }
}

std::shared_ptr<KeyDb> findHandle(ZAVKM_KeyDbHandle handle) noexcept {
    HandleTable& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.open.find(handle);
    return it != t.open.end() ? it->second : nullptr;
}

bool removeHandle(ZAVKM_KeyDbHandle handle) noexcept {
    std::shared_ptr<KeyDb> closing;  // released after the table's lock
    HandleTable& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.open.find(handle);
    if (it == t.open.end()) return false;
    closing = std::move(it->second);
    t.open.erase(it);
    return true;
}

void removeAllHandles() noexcept {
    std::map<ZAVKM_KeyDbHandle, std::shared_ptr<KeyDb>> closing;
    {
        HandleTable& t = table();
        std::lock_guard lock(t.mutex);
        closing.swap(t.open);
    }
}

size_t openHandleCount() noexcept {
    HandleTable& t = table();
    std::lock_guard lock(t.mutex);
    return t.open.size();
}

}  // namespace zavkm
