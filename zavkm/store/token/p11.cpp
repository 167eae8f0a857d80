// p11.cpp - PKCS#11 module loading through p11-kit, slots and sessions.
#include "store/token/p11.h"

#include <openssl/evp.h>
#include <sys/stat.h>

#include <array>
#include <cstring>
#include <map>
#include <mutex>
#include <shared_mutex>

#include "base/ossl.h"
#include "store/token/p11kit.h"
#include "base/trace.h"

namespace zavkm {
namespace {

// ModuleTable - the loaded modules, one function list per library file: two paths naming one
// file (a link) give the same module, so that its logins are counted in one place.
struct ModuleTable {
    std::mutex mutex;
    std::map<std::string, CK_FUNCTION_LIST*> loaded;             // by the path asked for
    std::map<std::pair<dev_t, ino_t>, CK_FUNCTION_LIST*> files;  // by the file loaded
    std::vector<CK_FUNCTION_LIST*> modules;                      // each once
};

ModuleTable& modules() {
    static ModuleTable* instance = new ModuleTable();  // never destroyed: usable until exit
    return *instance;
}

}  // namespace

Rc loadModule(const std::string& path, CK_FUNCTION_LIST*& out) {
    ModuleTable& t = modules();
    std::lock_guard lock(t.mutex);
    if (auto it = t.loaded.find(path); it != t.loaded.end()) {
        out = it->second;
        return ZAVKM_OK;
    }
    struct stat st {};
    const bool known = ::stat(path.c_str(), &st) == 0;
    if (auto it = t.files.find({st.st_dev, st.st_ino}); known && it != t.files.end()) {
        t.loaded.emplace(path, it->second);
        out = it->second;
        return ZAVKM_OK;
    }
    const P11Kit* kit = p11kit();
    if (kit == nullptr) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED;
    CK_FUNCTION_LIST* f = kit->moduleLoad(path.c_str(), 0);
    if (f == nullptr) {
        trace("PKCS#11 module %s not loaded: %s", path.c_str(), kit->message());
        return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED;
    }
    CK_C_INITIALIZE_ARGS args{};
    args.flags = CKF_OS_LOCKING_OK;  // sessions of one module are used from many threads
    CK_RV rv = f->C_Initialize(&args);
    if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) {
        kit->moduleRelease(f);
        trace("C_Initialize of %s failed: CKR_ 0x%08lx", path.c_str(),
              static_cast<unsigned long>(rv));
        return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED;
    }
    t.loaded.emplace(path, f);
    if (known) t.files.emplace(std::pair{st.st_dev, st.st_ino}, f);
    t.modules.push_back(f);
    out = f;
    return ZAVKM_OK;
}

namespace {

// Verifier - HMAC-SHA256 of a PIN under the process's login key, wiped when dropped.
struct Verifier {
    std::array<uint8_t, 32> bytes{};
    Verifier() = default;
    Verifier(const Verifier&) = default;
    Verifier& operator=(const Verifier&) = default;
    ~Verifier() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

// TokenLogin - the process's user login on one token: how many of our sessions share it, and the
// verifier of the PIN that made it.
struct TokenLogin {
    int holders = 0;
    Verifier verifier{};
};

// LoginTable - every token the process is logged in to through our sessions. The key the
// verifiers are made under is random, made at the first login and wiped with the table: a
// verifier says nothing about the PIN outside the process, and costs microseconds, not a KDF.
struct LoginTable {
    std::mutex mutex;
    std::map<std::pair<CK_FUNCTION_LIST*, CK_SLOT_ID>, TokenLogin> tokens;
    SecretBytes key;
};

LoginTable& logins() {
    static LoginTable* instance = new LoginTable();  // never destroyed: usable until exit
    return *instance;
}

// verifierOf - the verifier of pin; the caller holds the table's lock.
Rc verifierOf(LoginTable& table, const char* pin, Verifier& out) noexcept {
    if (table.key.empty()) {
        SecretBytes key(32);
        if (Rc rc = randomBytes(key.data(), key.size()); rc != ZAVKM_OK) return rc;
        table.key = std::move(key);
    }
    size_t n = 0;
    if (EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, table.key.data(), table.key.size(),
                  reinterpret_cast<const unsigned char*>(pin), std::strlen(pin), out.bytes.data(),
                  out.bytes.size(), &n) == nullptr)
        return sslError(ZAVKM_ERR_CRYPTO);
    return ZAVKM_OK;
}

void forgetLogins() noexcept {
    LoginTable& table = logins();
    std::lock_guard lock(table.mutex);
    table.tokens.clear();
    table.key = SecretBytes();
}

}  // namespace

void finalizeModules() noexcept {
    forgetLogins();
    ModuleTable& t = modules();
    std::lock_guard lock(t.mutex);
    for (CK_FUNCTION_LIST* f : t.modules) {
        f->C_Finalize(nullptr);
        p11kit()->moduleRelease(f);  // loaded: the module came through it
    }
    t.loaded.clear();
    t.files.clear();
    t.modules.clear();
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

Rc Session::login(const char* pin) {
    LoginTable& table = logins();
    std::lock_guard lock(table.mutex);  // held across C_Login: one login decision at a time
    Verifier proof{};
    if (Rc rc = verifierOf(table, pin, proof); rc != ZAVKM_OK) return rc;
    TokenLogin& token = table.tokens[{f, slot}];
    auto* p = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(pin));
    CK_RV rv = f->C_Login(handle, CKU_USER, p, std::strlen(pin));
    if (rv == CKR_USER_ALREADY_LOGGED_IN && token.holders == 0) {
        // Logged in, but by none of our sessions: the PIN of that login is unknown here.
        trace("token logged in outside this library: logging in again");
        f->C_Logout(handle);
        rv = f->C_Login(handle, CKU_USER, p, std::strlen(pin));
    }
    if (rv == CKR_USER_ALREADY_LOGGED_IN) {
        if (CRYPTO_memcmp(proof.bytes.data(), token.verifier.bytes.data(), proof.bytes.size()) != 0) {
            trace("C_Login: the token is logged in with another PIN");
            return ZAVKM_ERR_DATABASE_INVALID_PASSWORD;
        }
    } else if (rv == CKR_OK) {
        token.verifier = proof;  // the module proved pin
    } else {
        if (token.holders == 0) table.tokens.erase({f, slot});
        return p11Error(rv, "C_Login");
    }
    ++token.holders;
    loggedIn = true;
    return ZAVKM_OK;
}

Rc Session::changePin(const char* oldPin, const char* newPin) {
    LoginTable& table = logins();
    std::lock_guard lock(table.mutex);
    Verifier proof{};
    if (Rc rc = verifierOf(table, newPin, proof); rc != ZAVKM_OK) return rc;
    auto* o = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(oldPin));
    auto* n = reinterpret_cast<CK_UTF8CHAR*>(const_cast<char*>(newPin));
    CK_RV rv = f->C_SetPIN(handle, o, std::strlen(oldPin), n, std::strlen(newPin));
    if (rv != CKR_OK) return p11Error(rv, "C_SetPIN");
    if (auto it = table.tokens.find({f, slot}); it != table.tokens.end())
        it->second.verifier = proof;
    return ZAVKM_OK;
}

void Session::close() noexcept {
    if (handle == CK_INVALID_HANDLE) return;
    if (loggedIn) {
        // The login is shared by the process's sessions on the token: the last one ends it, so
        // that no session opened without a PIN inherits it.
        LoginTable& table = logins();
        std::lock_guard lock(table.mutex);
        auto it = table.tokens.find({f, slot});
        if (it != table.tokens.end() && --it->second.holders == 0) {
            f->C_Logout(handle);
            table.tokens.erase(it);
        }
        loggedIn = false;
    }
    f->C_CloseSession(handle);
    handle = CK_INVALID_HANDLE;
}

}  // namespace zavkm
