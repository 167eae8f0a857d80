// api_ext.cpp - the operations of zavkm_ext.h.
#include <bit>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "store/file/entries.h"
#include "store/file/pages.h"
#include "base/files.h"
#include "api/session.h"
#include "base/utf.h"
#include "zavkm_ext.h"

using namespace zavkm;

namespace {

}  // namespace

static_assert(kWritePrivate == ZAVKM_WRITE_PRIVATE && kWriteNoReplace == ZAVKM_WRITE_NO_REPLACE);

extern "C" {

ZAVKM_ReturnCode ZAVKM_ListEntries(ZAVKM_KeyDbHandle handle, ZAVKM_Entry** entries,
                                   uint32_t* count) noexcept {
    return withKeyStore(__func__, handle, {entries, count}, [&](KeyStore& s) -> Rc {
        uint32_t damaged = 0;
        Rc rc = s.listEntries(0, entries, count, damaged);
        if (rc != ZAVKM_OK || damaged == 0) return rc;
        ZAVKM_FreeEntries(*entries, *count);  // a partial list is no answer here
        *entries = nullptr;
        *count = 0;
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    });
}

ZAVKM_ReturnCode ZAVKM_ListEntriesX(ZAVKM_KeyDbHandle handle, uint32_t flags, ZAVKM_Entry** entries,
                                    uint32_t* count, uint32_t* damaged) noexcept {
    return withKeyStore(__func__, handle, {entries, count, damaged}, [&](KeyStore& s) {
        *damaged = 0;
        return s.listEntries(flags, entries, count, *damaged);
    });
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

ZAVKM_ReturnCode ZAVKM_GetKeyDbInfo(ZAVKM_KeyDbHandle handle, ZAVKM_KeyDbInfo* info) noexcept {
    return withKeyDb(__func__, handle, {info}, [&](KeyDb& kdb) -> Rc {
        *info = ZAVKM_KeyDbInfo{};
        return readView(kdb, [&](View& v) -> Rc {
            PageBook book;
            if (Rc rc = loadPages(v, book); rc != ZAVKM_OK) return rc;
            uint32_t entries = 0;
            for (const auto& [key, record] : book.records)
                entries += static_cast<uint32_t>(std::popcount(record.bitmap));
            info->generation = v.meta.generation;
            info->passwordTime = v.meta.passwordTime;
            info->passwordExpiry = kdb.passwordExpiry;
            info->kdfIterations = v.meta.kdf.iterations;
            info->entries = entries;
            std::memcpy(info->fileId, v.meta.fileId.data(), sizeof info->fileId);
            return ZAVKM_OK;
        });
    });
}

ZAVKM_ReturnCode ZAVKM_VerifyKeyDb(ZAVKM_KeyDbHandle handle, ZAVKM_Damage** damage,
                                   uint32_t* count) noexcept {
    return withKeyDb(__func__, handle, {damage, count}, [&](KeyDb& kdb) -> Rc {
        *damage = nullptr;
        *count = 0;
        std::vector<Damage> found;
        if (Rc rc = readView(kdb, [&](View& v) { return verifyKeyDb(v, found); }); rc != ZAVKM_OK)
            return rc;
        if (found.empty()) return ZAVKM_OK;
        auto* out = static_cast<ZAVKM_Damage*>(std::calloc(found.size(), sizeof(ZAVKM_Damage)));
        if (out == nullptr) return ZAVKM_ERR_MEMORY_ALLOCATE;
        for (size_t i = 0; i < found.size(); ++i) {
            out[i] = ZAVKM_Damage{nullptr, found[i].kind, found[i].reason, found[i].rowId};
            if (!found[i].label.empty() && (out[i].label = strdup(utf8Text(found[i].label).c_str())) == nullptr) {
                ZAVKM_FreeDamage(out, static_cast<uint32_t>(i));
                return ZAVKM_ERR_MEMORY_ALLOCATE;
            }
        }
        *damage = out;
        *count = static_cast<uint32_t>(found.size());
        return ZAVKM_OK;
    });
}

void ZAVKM_FreeDamage(ZAVKM_Damage* damage, uint32_t count) noexcept {
    if (damage == nullptr) return;
    for (uint32_t i = 0; i < count; ++i) std::free(damage[i].label);
    std::free(damage);
}

ZAVKM_ReturnCode ZAVKM_RepairKeyDb(ZAVKM_KeyDbHandle handle, uint32_t* removed) noexcept {
    return withKeyDb(__func__, handle, {removed}, [&](KeyDb& kdb) -> Rc {
        *removed = 0;
        View v(kdb, true);
        if (v.status() != ZAVKM_OK) return v.status();
        Rebuild plan;
        plan.dropDamaged = true;
        if (Rc rc = rebuild(v, plan); rc != ZAVKM_OK) return rc;
        if (Rc rc = v.finish(); rc != ZAVKM_OK) return rc;
        trace("repair removed %u rows", plan.removed);
        *removed = plan.removed;
        return ZAVKM_OK;
    });
}

ZAVKM_ReturnCode ZAVKM_RenameEntry(ZAVKM_KeyDbHandle handle, const char* label,
                                   const char* newLabel) noexcept {
    return withKeyDb(__func__, handle, {label, newLabel}, {labelArg(label), labelArg(newLabel)}, [&](KeyDb& kdb) -> Rc {
        return writeView(kdb, [&](View& v) { return renameEntry(v, label, newLabel); });
    });
}

ZAVKM_ReturnCode ZAVKM_WriteFile(const char* fileName, const uint8_t* data, uint32_t length,
                                 uint32_t flags) noexcept {
    const void* bytes = length == 0 ? static_cast<const void*>(fileName) : data;  // may be null
    return withLibrary(__func__, {fileName, bytes}, [&]() -> Rc {
        if ((flags & ~(kWritePrivate | kWriteNoReplace)) != 0) return ZAVKM_ERR_PARAMETER;
        return writeOutput(fileName, data, length, flags);
    });
}

}  // extern "C"
