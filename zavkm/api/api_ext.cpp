// api_ext.cpp - the operations of zavkm_ext.h.
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

#include "entries.h"
#include "files.h"
#include "session.h"
#include "tokenops.h"
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
            out[i] = ZAVKM_Entry{};
            out[i].label = strdup(r.label.c_str());
            out[i].kind = r.kind;
            out[i].keyType = r.keyType;
            out[i].keyBits = r.keyBits;
            out[i].isDefault = static_cast<uint8_t>(r.isDefault);
            out[i].trusted = static_cast<uint8_t>(r.trusted);
            out[i].notAfter = r.notAfter;
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
    for (uint32_t i = 0; i < count; ++i) {
        std::free(entries[i].label);
        std::free(entries[i].der);
    }
    std::free(entries);
}

// The operations below stand in until the key database's integrity index lands: they keep the
// callers building against the final declarations.
ZAVKM_ReturnCode ZAVKM_ListEntriesX(ZAVKM_KeyDbHandle handle, uint32_t flags, ZAVKM_Entry** entries,
                                    uint32_t* count, uint32_t* damaged) noexcept {
    (void)flags;
    if (damaged == nullptr) return ZAVKM_ERR_NULL_PARAMETER;
    *damaged = 0;
    if (findTokenHandle(handle))
        return withStore(__func__, handle, {entries, count}, [](KeyDb&) { return ZAVKM_OK; },
                         [&](TokenStore& t) { return tokenListEntries(t, flags, entries, count); });
    return ZAVKM_ListEntries(handle, entries, count);
}

ZAVKM_ReturnCode ZAVKM_GetKeyDbInfo(ZAVKM_KeyDbHandle handle, ZAVKM_KeyDbInfo* info) noexcept {
    return withKeyDb(__func__, handle, {info}, [&](KeyDb& kdb) -> Rc {
        *info = ZAVKM_KeyDbInfo{};
        info->passwordExpiry = kdb.passwordExpiry;
        info->kdfIterations = kdb.kdf.iterations;
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_VerifyKeyDb(ZAVKM_KeyDbHandle handle, ZAVKM_Damage** damage,
                                   uint32_t* count) noexcept {
    return withKeyDb(__func__, handle, {damage, count}, [&](KeyDb&) -> Rc {
        *damage = nullptr;
        *count = 0;
        return ZAVKM_OK;
    });
}

void ZAVKM_FreeDamage(ZAVKM_Damage* damage, uint32_t count) noexcept {
    if (damage == nullptr) return;
    for (uint32_t i = 0; i < count; ++i) std::free(damage[i].label);
    std::free(damage);
}

ZAVKM_ReturnCode ZAVKM_RepairKeyDb(ZAVKM_KeyDbHandle handle, uint32_t* removed) noexcept {
    return withKeyDb(__func__, handle, {removed}, [&](KeyDb&) -> Rc {
        *removed = 0;
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_RenameEntry(ZAVKM_KeyDbHandle handle, const char* label,
                                   const char* newLabel) noexcept {
    return withKeyDb(__func__, handle, {label, newLabel}, [&](KeyDb&) -> Rc {
        return ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT;
    });
}

ZAVKM_ReturnCode ZAVKM_WriteFile(const char* fileName, const uint8_t* data, uint32_t length,
                                 uint32_t flags) noexcept {
    return withLibrary(__func__, {fileName, length == 0 ? static_cast<const void*>(fileName) : data}, [&]() -> Rc {
        struct stat st {};
        if ((flags & ZAVKM_WRITE_NO_REPLACE) != 0 && ::lstat(fileName, &st) == 0)
            return ZAVKM_ERR_DATABASE_ALREADY_EXISTS;
        return writeFile(fileName, data, length, (flags & ZAVKM_WRITE_PRIVATE) != 0 ? 0600 : 0644);
    });
}

}  // extern "C"
