// api_token.cpp - the operations on PKCS#11 modules and tokens that no key database has.
#include "api/handles.h"
#include "api/session.h"
#include "pki/records.h"
#include "store/platform/registry.h"
#include "store/token/tokenkeys.h"

using namespace zavkm;

extern "C" {

ZAVKM_ReturnCode ZAVKM_GetCryptoTokenLabelList(const char* moduleName,
                                               ZAVKM_LabelList** list) noexcept {
    return withLibrary(__func__, {moduleName, list}, [&]() -> Rc {
        *list = nullptr;
        std::vector<std::string> labels;
        if (*moduleName == '\0') {  // the platform store's provider names
            std::vector<Provider> providers;
            if (Rc rc = registeredProviders(providers); rc != ZAVKM_OK) return rc;
            for (const Provider& p : providers) labels.push_back(p.name);
        } else if (Rc rc = moduleTokenLabels(moduleName, labels); rc != ZAVKM_OK) {
            return rc;
        }
        *list = labelRecords(labels);
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_SetSecondaryKeyDb(ZAVKM_KeyDbHandle token,
                                         ZAVKM_KeyDbHandle secondary) noexcept {
    return withLibrary(__func__, {}, [&]() -> Rc {
        std::shared_ptr<TokenStore> t = findTokenHandle(token);
        if (!t || !findHandle(secondary)) return ZAVKM_ERR_INVALID_DB_HANDLE;
        std::lock_guard lock(t->mutex);
        t->secondary = secondary;
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_UnsetSecondaryKeyDb(ZAVKM_KeyDbHandle token) noexcept {
    return withLibrary(__func__, {}, [&]() -> Rc {
        std::shared_ptr<TokenStore> t = findTokenHandle(token);
        if (!t) return ZAVKM_ERR_INVALID_DB_HANDLE;
        std::lock_guard lock(t->mutex);
        t->secondary = 0;
        return ZAVKM_OK;
    });
}

}  // extern "C"
