#include "km/descriptor.h"

#include <cstring>

namespace zavkjni {
namespace {

KeyStoreDescriptor zeroed(KeyStoreType type) noexcept {
    KeyStoreDescriptor descriptor;
    memset(&descriptor, 0, sizeof descriptor);
    descriptor.storeType = type;
    return descriptor;
}

}  // namespace

KeyStoreDescriptor keyDbFileDescriptor(const char* fileName, const char* password) noexcept {
    KeyStoreDescriptor descriptor = zeroed(KeyDbFile);
    descriptor.keyDbFileName = fileName;
    descriptor.password = password;
    return descriptor;
}

KeyStoreDescriptor tokenDescriptor(const char* moduleName, const char* tokenLabel,
                                   const char* password) noexcept {
    KeyStoreDescriptor descriptor = zeroed(CryptoToken);
    descriptor.cryptoModuleName = moduleName;
    descriptor.tokenLabel = tokenLabel;
    descriptor.password = password;
    return descriptor;
}

KeyStoreDescriptor tokenPasswordChangeDescriptor(const char* moduleName, const char* tokenLabel,
                                                 const char* oldPassword,
                                                 const char* newPassword) noexcept {
    KeyStoreDescriptor descriptor = tokenDescriptor(moduleName, tokenLabel, oldPassword);
    descriptor.newPassword = newPassword;
    return descriptor;
}

KeyStoreDescriptor webDbFileDescriptor(const char* fileName) noexcept {
    KeyStoreDescriptor descriptor = zeroed(WebDbFile);
    descriptor.keyDbFileName = fileName;
    return descriptor;
}

KeyStoreDescriptor certStoreDescriptor(const char* providerName, const char* password) noexcept {
    KeyStoreDescriptor descriptor = zeroed(MSCertStore);
    descriptor.tokenLabel = providerName;
    descriptor.password = password;
    return descriptor;
}

}  // namespace zavkjni
