// KeyStoreDescriptor: one way to fill it for each kind of store. Each maker starts from 512 zero
// bytes and sets only the fields its store type uses; the descriptor borrows the texts.
#pragma once

#include "zavkm.h"

namespace zavkjni {

// A key database file; password null when only probing.
KeyStoreDescriptor keyDbFileDescriptor(const char* fileName, const char* password) noexcept;

// A PKCS#11 token of a module; password may be null.
KeyStoreDescriptor tokenDescriptor(const char* moduleName, const char* tokenLabel,
                                   const char* password) noexcept;

// A token with its old and new password, for a password change.
KeyStoreDescriptor tokenPasswordChangeDescriptor(const char* moduleName, const char* tokenLabel,
                                                 const char* oldPassword,
                                                 const char* newPassword) noexcept;

// A WEBDB file, for a password probe.
KeyStoreDescriptor webDbFileDescriptor(const char* fileName) noexcept;

// The platform certificate store behind a provider; both texts may be null.
KeyStoreDescriptor certStoreDescriptor(const char* providerName, const char* password) noexcept;

}  // namespace zavkjni
