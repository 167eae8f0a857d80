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

// KeyDecoder - reads the private key a caller handed in (plain, or under a password).
using KeyDecoder = std::function<Rc(PkeyPtr&)>;

// fileInsertKey - the certificate cert under label, a signer or (with key bytes, which decode
// reads once the label and the certificate passed their checks) a personal key, trusted and the
// default as asked; only a personal key can be the default (ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL).
Rc fileInsertKey(KeyDb& kdb, const char* label, const uint8_t* cert, uint32_t certLength,
                 const uint8_t* key, uint32_t keyLength, const KeyDecoder& decode,
                 bool makeDefault, bool trusted);

// fileInsertReqKey - a request key under label: the request and the private key decode reads,
// which must match it.
Rc fileInsertReqKey(KeyDb& kdb, const char* label, const uint8_t* request, uint32_t requestLength,
                    const KeyDecoder& decode);

// fileDefaultKeyItem / setFileDefault / setFileTrust - the default key's item
// (ZAVKM_ERR_KEYDB_DEFAULT_KEY_NULL without one), a personal key made the default, a
// certificate's trust mark set.
Rc fileDefaultKeyItem(KeyDb& kdb, ZAVKM_KeyItem** key);
Rc setFileDefault(KeyDb& kdb, const char* label);
Rc setFileTrust(KeyDb& kdb, const char* label, bool trusted);

// initFileStore - the file backend's process-wide start (SQLite's own initialisation).
Rc initFileStore() noexcept;

}  // namespace zavkm
