// api_token.cpp - the operations on PKCS#11 modules and tokens that no key database has.
#include "api/handles.h"
#include "api/session.h"
#include "pki/records.h"
#include "store/platform/registry.h"
#include "store/token/tokenkeys.h"

namespace zavkm {
namespace {

Rc labelRecords(const std::vector<std::string>& labels, ZAVKM_LabelList** list) {
    LabelListBuilder builder;
    for (const std::string& label : labels) builder.add(label);
    *list = builder.take();
    return ZAVKM_OK;
}

}  // namespace
}  // namespace zavkm

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
            return labelRecords(labels, list);
        }
        if (Rc rc = moduleTokenLabels(moduleName, labels); rc != ZAVKM_OK) return rc;
        return labelRecords(labels, list);
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
