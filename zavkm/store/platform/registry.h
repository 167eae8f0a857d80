// registry.h - the platform certificate store: the certificate and key providers registered
// with p11-kit, each one a PKCS#11 module. A provider name opens that module's first
// initialised token ("name/token label" picks another one). The registry is p11-kit's own,
// unless ZAVKM_P11_REGISTRY names a directory of "<name>.module" files ("module: <path>")
// to use instead; a relative module path is taken from p11-kit's module directory. Without a
// provider name the store is the one ZAVKM_CERT_STORE_PROVIDER names, else "p11-kit-trust".
#pragma once

#include <string>
#include <vector>

#include "store/token/token.h"

namespace zavkm {

struct Provider {
    std::string name;
    std::string modulePath;
};

// registeredProviders - the registered providers, ordered by name.
Rc registeredProviders(std::vector<Provider>& out);

// providerToken - the token a provider name (null: the default provider) stands for;
// ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_LABEL_NOT_EXIST for a name that is not registered.
Rc providerToken(const char* providerName, TokenSpec& out);

}  // namespace zavkm
