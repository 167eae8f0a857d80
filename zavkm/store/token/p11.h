// p11.h - PKCS#11 modules and sessions: a module is loaded and initialised (OS locking) once per
// process and finalised at ZAVKM_CleanAll; a token is found by its label; sessions close
// themselves.
#pragma once

#include <p11-kit/pkcs11.h>

#include <shared_mutex>
#include <string>
#include <vector>

#include "base/common.h"

namespace zavkm {

// loadModule - the function list of the PKCS#11 library at path, loaded and initialised on
// first use; ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LIBRARY_NOT_LOADED when it cannot be loaded or is
// not a PKCS#11 library.
Rc loadModule(const std::string& path, CK_FUNCTION_LIST*& out);

// finalizeModules - finalises and unloads every loaded module and forgets the PIN verifiers of
// their logins.
void finalizeModules() noexcept;

// p11Error - the return code of a failed PKCS#11 call: a wrong PIN gives
// ZAVKM_ERR_DATABASE_INVALID_PASSWORD, a missing token ZAVKM_ERR_NO_TOKEN_PRESENT, anything else
// ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_FUNCTION_FAILED. The CKR_ value is traced with what failed.
Rc p11Error(CK_RV rv, const char* what) noexcept;

// objectLock - held alone around every call that creates, changes or destroys token objects, and
// shared around searches and attribute reads. Some modules (a file-backed software token among
// them) fail a creation now and then with CKR_GENERAL_ERROR while another session of the same
// process searches or writes; reads still run side by side.
std::shared_mutex& objectLock() noexcept;

// trimmedLabel - a token or slot text without its blank padding.
std::string trimmedLabel(const unsigned char* text, size_t n);

// tokenLabels - the labels of the tokens present in the module's slots.
Rc tokenLabels(CK_FUNCTION_LIST* f, std::vector<std::string>& out);

// findTokenSlot - the slot whose token has label: ZAVKM_ERR_NO_TOKEN_PRESENT when the module
// has no token at all, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST when none has that label.
// An empty label picks the first initialised token.
Rc findTokenSlot(CK_FUNCTION_LIST* f, const std::string& label, CK_SLOT_ID& slot);

// Session - an open session, closed on destruction. A PKCS#11 login belongs to the whole
// process on a token, not to one session: the sessions that logged in share it, and the last of
// them to close logs the token out.
class Session {
  public:
    Session() = default;
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session() { close(); }
    Rc open(CK_FUNCTION_LIST* f, CK_SLOT_ID slot, bool readWrite) noexcept;
    // login - proves pin and takes part in the token's user login. While other sessions of the
    // process hold the login, the module takes any PIN (CKR_USER_ALREADY_LOGGED_IN): pin is then
    // compared with the verifier of the PIN that logged the token in, a wrong one gives
    // ZAVKM_ERR_DATABASE_INVALID_PASSWORD and the other sessions stay logged in. A login the
    // process holds without any of our sessions is ended and made again with pin.
    Rc login(const char* pin);
    // changePin - C_SetPIN from oldPin to newPin in this logged-in session; from then on the
    // sessions that log in must prove newPin.
    Rc changePin(const char* oldPin, const char* newPin);
    void close() noexcept;
    CK_FUNCTION_LIST* f = nullptr;
    CK_SESSION_HANDLE handle = CK_INVALID_HANDLE;
    CK_SLOT_ID slot = 0;
    bool loggedIn = false;  // this session proved the PIN and holds a share of the login
};

}  // namespace zavkm
