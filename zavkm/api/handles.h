// handles.h - the table of open stores (key database files and tokens) behind 32-bit handles.
#pragma once

#include <memory>

#include "store/file/keydb.h"
#include "store/keystore/keystore.h"
#include "store/token/token.h"

namespace zavkm {

// addHandle - registers an open key database and returns its new handle (never 0); 0 when the
// table is full.
ZAVKM_KeyDbHandle addHandle(std::unique_ptr<KeyDb> kdb) noexcept;

// addTokenHandle - registers an open token store, as addHandle.
ZAVKM_KeyDbHandle addTokenHandle(std::unique_ptr<TokenStore> token) noexcept;

// findTokenHandle - the token store behind handle; null for an unknown or file handle.
std::shared_ptr<TokenStore> findTokenHandle(ZAVKM_KeyDbHandle handle) noexcept;

// findHandle - the key database behind handle, shared with the table; null for an unknown
// handle. The caller locks its mutex while it uses it.
std::shared_ptr<KeyDb> findHandle(ZAVKM_KeyDbHandle handle) noexcept;

// removeHandle - takes the handle out of the table (the database closes when the last user
// lets go); false for an unknown handle.
bool removeHandle(ZAVKM_KeyDbHandle handle) noexcept;

// removeAllHandles - closes every open key database (ZAVKM_CleanAll).
void removeAllHandles() noexcept;

// size_t openHandleCount - how many handles are open.
size_t openHandleCount() noexcept;

// pairedWith - the key database paired with token t (ZAVKM_SetSecondaryKeyDb), reached under its
// own lock for each call; empty when none is paired.
PairedStore pairedWith(const TokenStore& t);

}  // namespace zavkm
