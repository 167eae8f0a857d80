// api_pkcs12.cpp - PKCS#12 export and import, keyring files.
#include <unistd.h>

#include "store/file/pkcs12.h"
#include "api/session.h"

using namespace zavkm;

extern "C" {

ZAVKM_ReturnCode ZAVKM_ExportKeys(ZAVKM_KeyDbHandle handle, int32_t exportType,
                                  const char* pfxFileName, const char* pfxPassword,
                                  const ZAVKM_LabelList* labels) noexcept {
    return withKeyDb(__func__, handle, {pfxFileName, pfxPassword}, {passwordArg(pfxPassword)},
                     [&](KeyDb& kdb) -> Rc {
        if (exportType != 1) return ZAVKM_ERR_EXPORT_TYPE;
        std::vector<std::string> selected;  // a walk ends at a null label
        for (const ZAVKM_LabelList* node = labels; node != nullptr && node->label != nullptr;
             node = node->next)
            selected.push_back(canonicalLabel(node->label));
        return exportPkcs12(kdb, selected, pfxFileName, pfxPassword, false);
    });
}

ZAVKM_ReturnCode ZAVKM_ImportKeysFromPFXFile(ZAVKM_KeyDbHandle handle, const char* pfxFileName,
                                             const char* pfxPassword) noexcept {
    return withKeyDb(__func__, handle, {pfxFileName, pfxPassword}, {passwordArg(pfxPassword)},
                     [&](KeyDb& kdb) { return importPkcs12(kdb, pfxFileName, pfxPassword); });
}

ZAVKM_ReturnCode ZAVKM_Kdb2Kyr(const char* keyDbFileName, const char* keyDbPassword,
                               const char* kyrFileName, const char* kyrPassword) noexcept {
    return withLibrary(
        __func__, {keyDbFileName, keyDbPassword, kyrFileName, kyrPassword},
        {passwordArg(keyDbPassword), passwordArg(kyrPassword)}, [&]() -> Rc {
            std::unique_ptr<KeyDb> kdb;
            if (Rc rc = withPasswordForms(keyDbPassword, [&](const char* pw) {
                    return openKeyDb(keyDbFileName, pw, true, kdb);
                });
                rc != ZAVKM_OK)
                return rc;
            return exportPkcs12(*kdb, {}, kyrFileName, kyrPassword, true);
        });
}

ZAVKM_ReturnCode ZAVKM_Kyr2Kdb(const char* kyrFileName, const char* kyrPassword,
                               const char* keyDbFileName, const char* keyDbPassword) noexcept {
    return withLibrary(
        __func__, {kyrFileName, kyrPassword, keyDbFileName, keyDbPassword},
        {passwordArg(kyrPassword), passwordArg(keyDbPassword)}, [&]() -> Rc {
            if (::access(kyrFileName, F_OK) != 0) return ZAVKM_ERR_FILE_OPEN_NOT_EXIST;
            std::unique_ptr<KeyDb> kdb;
            return createKeyDb(keyDbFileName, keyDbPassword, 0, kdb, [&](KeyDb& k) {
                return importPkcs12(k, kyrFileName, kyrPassword);
            });
        });
}

}  // extern "C"
