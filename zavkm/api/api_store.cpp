// api_store.cpp - creating, opening, closing and re-keying key databases, the stash, and the
// password probes.
#include "store/file/keydb.h"
#include "store/file/pkcs12.h"
#include "api/session.h"
#include "store/file/stash.h"
#include "store/platform/registry.h"
#include "store/token/token.h"

using namespace zavkm;

namespace {

Rc registerOpen(std::unique_ptr<KeyDb> kdb, ZAVKM_KeyDbHandle* handle) {
    ZAVKM_KeyDbHandle h = addHandle(std::move(kdb));
    if (h == 0) return ZAVKM_ERR_DATABASE_OPEN;
    *handle = h;
    trace("handle %u opened", h);
    return ZAVKM_OK;
}

Rc openFile(const char* fileName, const char* password, ZAVKM_KeyDbHandle* handle) {
    *handle = 0;
    std::unique_ptr<KeyDb> kdb;
    trace("opening %s", fileName != nullptr ? fileName : "(null)");
    if (Rc rc = withPasswordForms(password, [&](const char* pw) {
            return openKeyDb(fileName, pw, true, kdb);
        });
        rc != ZAVKM_OK)
        return rc;
    return registerOpen(std::move(kdb), handle);
}

// tokenSpec - the token a descriptor names: module path and token label, both required.
Rc tokenSpec(const KeyStoreDescriptor* d, TokenSpec& spec) {
    if (d->cryptoModuleName == nullptr || d->tokenLabel == nullptr)
        return ZAVKM_ERR_NULL_PARAMETER;
    spec.module = d->cryptoModuleName;
    spec.label = d->tokenLabel;
    if (spec.label.empty()) return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST;
    return ZAVKM_OK;
}

// storeSpec - the token of a token descriptor or of a certificate store's provider.
Rc storeSpec(const KeyStoreDescriptor* d, TokenSpec& spec) {
    return d->storeType == MSCertStore ? providerToken(d->tokenLabel, spec) : tokenSpec(d, spec);
}

Rc openTokenStore(const KeyStoreDescriptor* d, ZAVKM_KeyDbHandle* handle) {
    TokenSpec spec;
    if (Rc rc = storeSpec(d, spec); rc != ZAVKM_OK) return rc;
    trace("opening token %s of %s", spec.label.c_str(), spec.module.c_str());
    std::unique_ptr<TokenStore> token;
    if (Rc rc = openToken(spec, d->password, d->storeType == MSCertStore, token); rc != ZAVKM_OK)
        return rc;
    ZAVKM_KeyDbHandle h = addTokenHandle(std::move(token));
    if (h == 0) return ZAVKM_ERR_DATABASE_OPEN;
    *handle = h;
    trace("handle %u opened", h);
    return ZAVKM_OK;
}

}  // namespace

extern "C" {

ZAVKM_ReturnCode ZAVKM_CreateNewKeyDb(const char* fileName, const char* password,
                                      int32_t expireSeconds, ZAVKM_KeyDbHandle* handle) noexcept {
    return withLibrary(__func__, {fileName, password, handle}, {passwordArg(password)}, [&]() -> Rc {
        *handle = 0;
        trace("creating %s", fileName);
        std::unique_ptr<KeyDb> kdb;
        if (Rc rc = createKeyDb(fileName, password, expireSeconds, kdb); rc != ZAVKM_OK) return rc;
        return registerOpen(std::move(kdb), handle);
    });
}

ZAVKM_ReturnCode ZAVKM_OpenKeyDb(const char* fileName, const char* password,
                                 ZAVKM_KeyDbHandle* handle) noexcept {
    return withLibrary(__func__, {fileName, password, handle}, {passwordArg(password)},
                       [&] { return openFile(fileName, password, handle); });
}

ZAVKM_ReturnCode ZAVKM_OpenKeyDbX(const KeyStoreDescriptor* descriptor,
                                  ZAVKM_KeyDbHandle* handle) noexcept {
    KeyStoreDescriptor texts = descriptor != nullptr ? *descriptor : KeyStoreDescriptor{};
    return withLibrary(__func__, {descriptor, handle}, {passwordArg(texts.password)}, [&]() -> Rc {
        *handle = 0;
        descriptor = &texts;
        switch (descriptor->storeType) {
            case KeyDbFile:
                if (descriptor->keyDbFileName == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
                return openFile(descriptor->keyDbFileName,
                                descriptor->password != nullptr ? descriptor->password : "",
                                handle);
            case CryptoToken:
            case MSCertStore:
                return openTokenStore(descriptor, handle);
            case WebDbFile:
                return ZAVKM_ERR_UNSUPPORTED_OPTION;
            default:
                return ZAVKM_ERR_INVALID_DATABASE_TYPE;
        }
    });
}

ZAVKM_ReturnCode ZAVKM_CloseKeyDb(ZAVKM_KeyDbHandle handle) noexcept {
    return withLibrary(__func__, {}, [&]() -> Rc {
        if (!removeHandle(handle)) return ZAVKM_ERR_INVALID_DB_HANDLE;
        trace("handle %u closed", handle);
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_ChangeKeyDbPwd(const char* fileName, const char* oldPassword,
                                      const char* newPassword, int32_t expireSeconds) noexcept {
    return withLibrary(__func__, {fileName, oldPassword, newPassword},
                       {passwordArg(oldPassword), passwordArg(newPassword)}, [&] {
        trace("changing the password of %s", fileName);
        return withPasswordForms(oldPassword, [&](const char* old) {
            return changeKeyDbPassword(fileName, old, newPassword, expireSeconds);
        });
    });
}

ZAVKM_ReturnCode ZAVKM_ChangeKeyDbPwdX(const KeyStoreDescriptor* descriptor) noexcept {
    KeyStoreDescriptor texts = descriptor != nullptr ? *descriptor : KeyStoreDescriptor{};
    return withLibrary(__func__, {descriptor}, {passwordArg(texts.password), passwordArg(texts.newPassword)},
                       [&]() -> Rc {
        descriptor = &texts;
        switch (descriptor->storeType) {
            case KeyDbFile:
                if (anyNull(
                        {descriptor->keyDbFileName, descriptor->password, descriptor->newPassword}))
                    return ZAVKM_ERR_NULL_PARAMETER;
                return withPasswordForms(descriptor->password, [&](const char* old) {
                    return changeKeyDbPassword(descriptor->keyDbFileName, old,
                                               descriptor->newPassword, 0);
                });
            case CryptoToken: {
                TokenSpec spec;
                if (Rc rc = tokenSpec(descriptor, spec); rc != ZAVKM_OK) return rc;
                if (anyNull({descriptor->password, descriptor->newPassword}))
                    return ZAVKM_ERR_NULL_PARAMETER;
                return changeTokenPin(spec, descriptor->password, descriptor->newPassword);
            }
            case WebDbFile:
            case MSCertStore:
                return ZAVKM_ERR_UNSUPPORTED_OPTION;
            default:
                return ZAVKM_ERR_INVALID_DATABASE_TYPE;
        }
    });
}

ZAVKM_ReturnCode ZAVKM_StashKeyDbPwd(const char* fileName, const char* password) noexcept {
    return withLibrary(__func__, {fileName, password}, {passwordArg(password)}, [&]() -> Rc {
        if (isEmpty(password)) return ZAVKM_ERR_PWD_TOO_SHORT;
        std::unique_ptr<KeyDb> kdb;  // the password must open the file
        if (Rc rc = withPasswordForms(password, [&](const char* pw) {
                return openKeyDb(fileName, pw, false, kdb);
            });
            rc != ZAVKM_OK)
            return rc;
        return writeStash(fileName, Stash{kdb->password, kdb->kdf, kdb->master});
    });
}

ZAVKM_ReturnCode ZAVKM_IsPasswordRequired(const KeyStoreDescriptor* descriptor,
                                          uint8_t* required) noexcept {
    return withLibrary(__func__, {descriptor, required}, [&]() -> Rc {
        const char* fileName = descriptor->keyDbFileName;
        switch (descriptor->storeType) {
            case KeyDbFile: {
                if (fileName == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
                if (Rc rc = probeKeyDbFile(fileName); rc != ZAVKM_OK) return rc;
                Stash stashed;  // a readable stash opens the file without a password
                *required = readStash(fileName, stashed) == ZAVKM_OK ? 0 : 1;
                return ZAVKM_OK;
            }
            case WebDbFile: {
                if (fileName == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
                bool needed = false;
                if (Rc rc = pkcs12NeedsPassword(fileName, needed); rc != ZAVKM_OK) return rc;
                *required = needed ? 1 : 0;
                return ZAVKM_OK;
            }
            case CryptoToken:
            case MSCertStore: {
                TokenSpec spec;
                if (Rc rc = storeSpec(descriptor, spec); rc != ZAVKM_OK) return rc;
                bool needed = false;
                if (Rc rc = tokenLoginRequired(spec, needed); rc != ZAVKM_OK) return rc;
                *required = needed ? 1 : 0;
                return ZAVKM_OK;
            }
            default:
                return ZAVKM_ERR_INVALID_DATABASE_TYPE;
        }
    });
}

}  // extern "C"
