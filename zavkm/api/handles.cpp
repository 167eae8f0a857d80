// handles.cpp - the table of open key databases.
#include "api/handles.h"

#include "store/file/filestore.h"

#include <map>
#include <mutex>

namespace zavkm {
namespace {

constexpr size_t kMaxHandles = 4096;

// OpenStore - one open store: a key database file or a token, never both.
struct OpenStore {
    std::shared_ptr<KeyDb> file;
    std::shared_ptr<TokenStore> token;
};

struct HandleTable {
    std::mutex mutex;
    std::map<ZAVKM_KeyDbHandle, OpenStore> open;
    ZAVKM_KeyDbHandle last = 0;
};

HandleTable& table() {
    static HandleTable* instance = new HandleTable();  // never destroyed: usable until exit
    return *instance;
}


ZAVKM_KeyDbHandle addStore(OpenStore store) noexcept {
    try {
        HandleTable& t = table();
        std::lock_guard lock(t.mutex);
        if (t.open.size() >= kMaxHandles) return 0;
        do {
            ++t.last;
        } while (t.last == 0 || t.open.count(t.last) != 0);
        t.open.emplace(t.last, std::move(store));
        return t.last;
    } catch (...) {
        return 0;
    }
}

}  // namespace

ZAVKM_KeyDbHandle addHandle(std::unique_ptr<KeyDb> kdb) noexcept {
    try {
        return addStore({std::shared_ptr<KeyDb>(std::move(kdb)), nullptr});
    } catch (...) {
        return 0;
    }
}

ZAVKM_KeyDbHandle addTokenHandle(std::unique_ptr<TokenStore> token) noexcept {
    try {
        return addStore({nullptr, std::shared_ptr<TokenStore>(std::move(token))});
    } catch (...) {
        return 0;
    }
}

std::shared_ptr<KeyDb> findHandle(ZAVKM_KeyDbHandle handle) noexcept {
    HandleTable& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.open.find(handle);
    return it != t.open.end() ? it->second.file : nullptr;
}

std::shared_ptr<TokenStore> findTokenHandle(ZAVKM_KeyDbHandle handle) noexcept {
    HandleTable& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.open.find(handle);
    return it != t.open.end() ? it->second.token : nullptr;
}

bool removeHandle(ZAVKM_KeyDbHandle handle) noexcept {
    OpenStore closing;  // released after the table's lock
    HandleTable& t = table();
    std::lock_guard lock(t.mutex);
    auto it = t.open.find(handle);
    if (it == t.open.end()) return false;
    closing = std::move(it->second);
    t.open.erase(it);
    return true;
}

void removeAllHandles() noexcept {
    std::map<ZAVKM_KeyDbHandle, OpenStore> closing;
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

PairedStore pairedWith(const TokenStore& t) {
    const ZAVKM_KeyDbHandle paired = t.secondary;
    if (paired == 0) return {};
    return [paired](const std::function<Rc(KeyStore&)>& fn, bool& found) -> Rc {
        std::shared_ptr<KeyDb> kdb = findHandle(paired);
        found = kdb != nullptr;
        if (!kdb) return ZAVKM_OK;
        std::lock_guard lock(kdb->mutex);
        FileStore store(*kdb);
        return fn(store);
    };
}

}  // namespace zavkm
