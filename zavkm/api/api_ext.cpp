// api_ext.cpp - the operations of zavkm_ext.h.
#include <cstdlib>
#include <cstring>

#include "entries.h"
#include "session.h"
#include "zavkm_ext.h"

using namespace zavkm;

extern "C" {

ZAVKM_ReturnCode ZAVKM_ListEntries(ZAVKM_KeyDbHandle handle, ZAVKM_Entry** entries,
                                   uint32_t* count) noexcept {
    return withStore(__func__, handle, {entries, count}, [&](KeyDb& kdb) -> Rc {
        *entries = nullptr;
        *count = 0;
        std::vector<EntryRow> rows;
        {
            ReadTransaction tx(kdb.db.get());
            if (Rc rc = listEntries(kdb.db.get(), rows); rc != ZAVKM_OK) return rc;
        }
        auto* out = static_cast<ZAVKM_Entry*>(std::calloc(rows.empty() ? 1 : rows.size(), sizeof(ZAVKM_Entry)));
        if (out == nullptr) return ZAVKM_ERR_MEMORY_ALLOCATE;
        for (size_t i = 0; i < rows.size(); ++i) {
            const EntryRow& r = rows[i];
            out[i] = ZAVKM_Entry{strdup(r.label.c_str()), r.kind, r.keyType, r.keyBits,
                                 static_cast<uint8_t>(r.isDefault), static_cast<uint8_t>(r.trusted),
                                 r.notAfter};
            if (out[i].label == nullptr) {
                ZAVKM_FreeEntries(out, static_cast<uint32_t>(i));
                return ZAVKM_ERR_MEMORY_ALLOCATE;
            }
        }
        *entries = out;
        *count = static_cast<uint32_t>(rows.size());
        return ZAVKM_OK;
    }, [&](TokenStore&) -> Rc { return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT; });
}

ZAVKM_ReturnCode ZAVKM_GetPasswordExpiry(ZAVKM_KeyDbHandle handle, int64_t* expiresAt) noexcept {
    return withKeyDb(__func__, handle, {expiresAt}, [&](KeyDb& kdb) -> Rc {
        *expiresAt = kdb.passwordExpiry;
        return ZAVKM_OK;
    });
}

void ZAVKM_FreeEntries(ZAVKM_Entry* entries, uint32_t count) noexcept {
    if (entries == nullptr) return;
    for (uint32_t i = 0; i < count; ++i) std::free(entries[i].label);
    std::free(entries);
}

}  // extern "C"
