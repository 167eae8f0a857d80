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

    Rc keyLabels(std::vector<std::string>& out) override;
    Rc requestLabels(std::vector<std::string>& out) override;
    Rc checkNewLabel(const std::string& label, bool forRequest) override;
    Rc generate(int32_t keySize, const std::string& label, std::unique_ptr<NewKey>& out) override;
    Rc keepCertificate(NewKey& key, const std::string& label, X509* cert, bool makeDefault,
                       const Output& output) override;
    Rc keepRequest(NewKey& key, const std::string& label, X509_REQ* req,
                   const Output& output) override;

  private:
    KeyDb& kdb_;
};

// initFileStore - the file backend's process-wide start (SQLite's own initialisation).
Rc initFileStore() noexcept;

}  // namespace zavkm
