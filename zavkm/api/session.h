// session.h - the common frame of operations on an open key database.
#pragma once

#include <initializer_list>

#include "api/handles.h"
#include "store/file/filestore.h"
#include "store/token/tokenkeys.h"
#include "base/state.h"
#include "base/trace.h"
#include "base/utf.h"

namespace zavkm {

// anyNull - true when one of the required pointers is null.
inline bool anyNull(std::initializer_list<const void*> required) noexcept {
    for (const void* p : required)
        if (p == nullptr) return true;
    return false;
}

// withKeyDb - the frame of every operation on a handle: the required pointers are checked
// (ZAVKM_ERR_NULL_PARAMETER), the library must be initialised, the handle must be open
// (ZAVKM_ERR_INVALID_DB_HANDLE); then fn(KeyDb&) runs with the database locked, no exception
// escapes, and the result is traced under name.
template <class Fn>
Rc withKeyDb(const char* name, ZAVKM_KeyDbHandle handle,
             std::initializer_list<const void*> required, Fn&& fn) noexcept {
    if (anyNull(required)) return traceResult(name, ZAVKM_ERR_NULL_PARAMETER);
    if (!isInitialized()) return traceResult(name, ZAVKM_ERR_NOT_INITIALIZED);
    std::shared_ptr<KeyDb> kdb = findHandle(handle);
    if (!kdb && findTokenHandle(handle))  // an operation only key database files have
        return traceResult(name, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT);
    if (!kdb) return traceResult(name, ZAVKM_ERR_INVALID_DB_HANDLE);
    std::lock_guard lock(kdb->mutex);
    return traceResult(name, guarded([&] { return fn(*kdb); }));
}

// withStore - withKeyDb for operations that tokens have too: on a token handle tokenFn(TokenStore&)
// runs, in the same frame, with the token locked.
template <class FileFn, class TokenFn>
Rc withStore(const char* name, ZAVKM_KeyDbHandle handle,
             std::initializer_list<const void*> required, FileFn&& fileFn,
             TokenFn&& tokenFn) noexcept {
    std::shared_ptr<TokenStore> token = findTokenHandle(handle);
    if (!token) return withKeyDb(name, handle, required, fileFn);
    if (anyNull(required)) return traceResult(name, ZAVKM_ERR_NULL_PARAMETER);
    if (!isInitialized()) return traceResult(name, ZAVKM_ERR_NOT_INITIALIZED);
    std::lock_guard lock(token->mutex);
    return traceResult(name, guarded([&] { return tokenFn(*token); }));
}

// withKeyStore - withStore for the operations written once over the KeyStore interface: fn runs
// on the key database's FileStore or the token's TokenKeyStore.
template <class Fn>
Rc withKeyStore(const char* name, ZAVKM_KeyDbHandle handle,
                std::initializer_list<const void*> required, std::initializer_list<TextArg> texts,
                Fn&& fn) noexcept;
template <class Fn>
Rc withKeyStore(const char* name, ZAVKM_KeyDbHandle handle,
                std::initializer_list<const void*> required, Fn&& fn) noexcept {
    return withKeyStore(name, handle, required, {}, std::forward<Fn>(fn));
}

// withLibrary - the frame of operations without a handle: required pointers, initialisation,
// no escaping exception, the result traced.
template <class Fn>
Rc withLibrary(const char* name, std::initializer_list<const void*> required, Fn&& fn) noexcept {
    if (anyNull(required)) return traceResult(name, ZAVKM_ERR_NULL_PARAMETER);
    if (!isInitialized()) return traceResult(name, ZAVKM_ERR_NOT_INITIALIZED);
    return traceResult(name, guarded(fn));
}

// withKeyDb, withStore, withLibrary with texts: the same frames, with the label and password
// arguments named in texts made canonical (utf.h) once the frame's own checks passed and
// before the operation runs; a password that is not text gives ZAVKM_ERR_PARAMETER.
template <class Fn>
Rc withKeyDb(const char* name, ZAVKM_KeyDbHandle handle,
             std::initializer_list<const void*> required, std::initializer_list<TextArg> texts,
             Fn&& fn) noexcept {
    CanonicalTexts held;
    return withKeyDb(name, handle, required, [&](KeyDb& kdb) -> Rc {
        if (Rc rc = held.take(texts); rc != ZAVKM_OK) return rc;
        return fn(kdb);
    });
}

template <class FileFn, class TokenFn>
Rc withStore(const char* name, ZAVKM_KeyDbHandle handle,
             std::initializer_list<const void*> required, std::initializer_list<TextArg> texts,
             FileFn&& fileFn, TokenFn&& tokenFn) noexcept {
    CanonicalTexts held;
    return withStore(
        name, handle, required,
        [&](KeyDb& kdb) -> Rc {
            if (Rc rc = held.take(texts); rc != ZAVKM_OK) return rc;
            return fileFn(kdb);
        },
        [&](TokenStore& token) -> Rc {
            if (Rc rc = held.take(texts); rc != ZAVKM_OK) return rc;
            return tokenFn(token);
        });
}

template <class Fn>
Rc withLibrary(const char* name, std::initializer_list<const void*> required,
               std::initializer_list<TextArg> texts, Fn&& fn) noexcept {
    CanonicalTexts held;
    return withLibrary(name, required, [&]() -> Rc {
        if (Rc rc = held.take(texts); rc != ZAVKM_OK) return rc;
        return fn();
    });
}

template <class Fn>
Rc withKeyStore(const char* name, ZAVKM_KeyDbHandle handle,
                std::initializer_list<const void*> required, std::initializer_list<TextArg> texts,
                Fn&& fn) noexcept {
    return withStore(
        name, handle, required, texts,
        [&](KeyDb& kdb) -> Rc {
            FileStore store(kdb);
            return fn(static_cast<KeyStore&>(store));
        },
        [&](TokenStore& t) -> Rc {
            TokenKeyStore store(t, pairedWith(t));
            return fn(static_cast<KeyStore&>(store));
        });
}

}  // namespace zavkm
