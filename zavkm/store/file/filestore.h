// filestore.h - a key database file as a KeyStore.
#pragma once

#include "store/file/keydb.h"
#include "store/keystore/keystore.h"

namespace zavkm {

// FileStore - the KeyStore of an open key database; kdb stays the caller's and locked by it.
class FileStore final : public KeyStore {
  public:
    explicit FileStore(KeyDb& kdb) : kdb_(kdb) {}
    KeyDb& keyDb() { return kdb_; }

    ZAVKM_KEY_STORE_OPERATIONS

  private:
    KeyDb& kdb_;
};

// initFileStore - the file backend's process-wide start (SQLite's own initialisation).
Rc initFileStore() noexcept;

}  // namespace zavkm
