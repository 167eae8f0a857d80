// p11.cpp - PKCS#11 module loading through p11-kit, slots and sessions.
#include "p11.h"

#include <p11-kit/p11-kit.h>

#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "trace.h"

namespace zavkm {
namespace {

struct ModuleTable {
    std::mutex mutex;
    std::map<std::string, CK_FUNCTION_LIST*> loaded;
};

ModuleTable& modules() {
    static ModuleTable* instance = new ModuleTable();  // never destroyed: usable until exit
    return *instance;
}

}  // namespace

Rc loadModule(const std::string& path, CK_FUNCTION_LIST*& out) noexcept {
    return guarded([&]() -> Rc {
        ModuleTable& t = modules();
        std::lock_guard lock(t.mutex);
        if (auto it = t.loaded.find(path); it != t.loaded.end()) {
            out = it->second;
            return ZAVKM_OK;
        }
        CK_FUNCTION_LIST* f = p11_kit_module_load(path.c_str(), 0);
        if (f == nullptr) {
            trace("PKCS#11 module %s not loaded: %s", path.c_str(), p11_kit_message());
            return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED;
        }
        CK_C_INITIALIZE_ARGS args{};
        args.flags = CKF_OS_LOCKING_OK;  // sessions of one module are used from many threads
        CK_RV rv = f->C_Initialize(&args);
        if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
            p11_kit_module_release(f);
            trace("C_Initialize of %s failed: CKR_ 0x%08lx", path.c_str(),
                  static_cast<unsigned long>(rv));
            return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED;
        }
        t.loaded.emplace(path, f);
        out = f;
        return ZAVKM_OK;
    });
}

void finalizeModules() noexcept {
    ModuleTable& t = modules();
    std::lock_guard lock(t.mutex);
    for (auto& [path, f] : t.loaded) {
        f->C_Finalize(nullptr);
        p11_kit_module_release(f);
    }
    t.loaded.clear();
}

std::shared_mutex& objectLock() noexcept {
    static std::shared_mutex lock;
    return lock;
}

Rc p11Error(CK_RV rv, const char* what) noexcept {
    trace("%s failed: CKR_ 0x%08lx", what, static_cast<unsigned long>(rv));
    switch (rv) {
        case CKR_PIN_INCORRECT:
        case CKR_PIN_INVALID:
        case CKR_PIN_LEN_RANGE:
            return ZAVKM_ERR_DATABASE_INVALID_PASSWORD;
        case CKR_TOKEN_NOT_PRESENT:
        case CKR_TOKEN_NOT_RECOGNIZED:
            return ZAVKM_ERR_NO_TOKEN_PRESENT;
        case CKR_USER_NOT_LOGGED_IN:
        case CKR_USER_PIN_NOT_INITIALIZED:  // no user PIN was ever set: none can log in
        case CKR_PIN_LOCKED:
        case CKR_PIN_EXPIRED:
            return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED;
        case CKR_HOST_MEMORY:
            return ZAVKM_ERR_MEMORY_ALLOCATE;
        default:
            return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_FUNCTION_FAILED;
    }
}

std::string trimmedLabel(const unsigned char* text, size_t n) {
    while (n > 0 && (text[n - 1] == ' ' || text[n - 1] == '\0')) --n;
    return std::string(reinterpret_cast<const char*>(text), n);
}

namespace {

Rc slotsWithToken(CK_FUNCTION_LIST* f, std::vector<CK_SLOT_ID>& out) {
    CK_ULONG count = 0;
    if (CK_RV rv = f->C_GetSlotList(CK_TRUE, nullptr, &count); rv != CKR_OK)
        return p11Error(rv, "C_GetSlotList");
    out.resize(count);
    if (CK_RV rv = f->C_GetSlotList(CK_TRUE, out.data(), &count); rv != CKR_OK)
        return p11Error(rv, "C_GetSlotList");
    out.resize(count);
    return ZAVKM_OK;
}

}  // namespace

Rc tokenLabels(CK_FUNCTION_LIST* f, std::vector<std::string>& out) {
    std::vector<CK_SLOT_ID> slots;
    if (Rc rc = slotsWithToken(f, slots); rc != ZAVKM_OK) return rc;
    for (CK_SLOT_ID slot : slots) {
        CK_TOKEN_INFO info{};
        if (f->C_GetTokenInfo(slot, &info) != CKR_OK) continue;  // removed meanwhile
        if ((info.flags & CKF_TOKEN_INITIALIZED) == 0) continue;
        out.push_back(trimmedLabel(info.label, sizeof info.label));
    }
    return ZAVKM_OK;
}

Rc findTokenSlot(CK_FUNCTION_LIST* f, const std::string& label, CK_SLOT_ID& slot) {
    std::vector<CK_SLOT_ID> slots;
    if (Rc rc = slotsWithToken(f, slots); rc != ZAVKM_OK) return rc;
    bool anyToken = false;
    for (CK_SLOT_ID s : slots) {
        CK_TOKEN_INFO info{};
        if (f->C_GetTokenInfo(s, &info) != CKR_OK) continue;
        if ((info.flags & CKF_TOKEN_INITIALIZED) == 0) continue;
        anyToken = true;
        if (label.empty() || trimmedLabel(info.label, sizeof info.label) == label) {
            slot = s;
            return ZAVKM_OK;
        }
    }
    return anyToken ? ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST : ZAVKM_ERR_NO_TOKEN_PRESENT;
}

Rc Session::open(CK_FUNCTION_LIST* module, CK_SLOT_ID s, bool readWrite) noexcept {
    close();
    CK_FLAGS flags = CKF_SERIAL_SESSION | (readWrite ? CKF_RW_SESSION : 0);
    CK_RV rv = module->C_OpenSession(s, flags, nullptr, nullptr, &handle);
    if (rv == CKR_TOKEN_WRITE_PROTECTED && readWrite)
        rv = module->C_OpenSession(s, CKF_SERIAL_SESSION, nullptr, nullptr, &handle);
    if (rv != CKR_OK) {
        handle = CK_INVALID_HANDLE;
        return p11Error(rv, "C_OpenSession");
    }
    f = module;
    slot = s;
    return ZAVKM_OK;
}

Rc Session::login(const char* pin) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(pin);
    CK_RV rv = f->C_Login(handle, CKU_USER, const_cast<CK_UTF8CHAR*>(p), std::strlen(pin));
    if (rv != CKR_OK && rv != CKR_USER_ALREADY_LOGGED_IN) return p11Error(rv, "C_Login");
    return ZAVKM_OK;
}

void Session::close() noexcept {
    if (handle == CK_INVALID_HANDLE) return;
    // No C_Logout: the login belongs to every session of the process on this token; it ends
    // with the last session.
    f->C_CloseSession(handle);
    handle = CK_INVALID_HANDLE;
}

}  // namespace zavkm
