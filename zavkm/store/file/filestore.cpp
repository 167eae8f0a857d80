// filestore.cpp - a key database file as a KeyStore: keys made in the process, sealed with the
// database's data key, and every change in one write transaction.
#include "store/file/filestore.h"

#include <sqlite3.h>

#include <optional>

#include "store/file/entries.h"
#include "store/file/keyitems.h"

namespace zavkm {
namespace {

// ProcessKey - a key pair generated in this process; nothing of it is stored until kept.
class ProcessKey final : public NewKey {
  public:
    explicit ProcessKey(PkeyPtr key) : key_(std::move(key)) {}
    EVP_PKEY* publicKey() override { return key_.get(); }
    EVP_PKEY* signingKey() override { return key_.get(); }
    RemoteSigner* remote() override { return nullptr; }

  private:
    PkeyPtr key_;
};

// commitWithOutput - change(view) in a write view, then the output, then the commit.
template <class Change>
Rc commitWithOutput(KeyDb& kdb, const Output& output, Change&& change) {
    View v(kdb, true);
    if (v.status() != ZAVKM_OK) return v.status();
    return finishWithOutput(output, [&] { return change(v); }, [&] { return commitChange(v); });
}

}  // namespace

Rc FileStore::keyLabels(std::vector<std::string>& out) {
    return readView(kdb_, [&](View& v) { return zavkm::keyLabels(v, out); });
}

Rc FileStore::requestLabels(std::vector<std::string>& out) {
    return readView(kdb_, [&](View& v) { return zavkm::requestLabels(v, out); });
}

Rc FileStore::checkNewLabel(const std::string& label, bool forRequest) {
    return readView(kdb_, [&](View& v) -> Rc {
        if (forRequest) return checkRequestLabelFree(v, label);
        std::optional<KeyRow> existing;
        if (Rc rc = findKey(v, label, existing); rc != ZAVKM_OK) return rc;
        return existing ? ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL : ZAVKM_OK;
    });
}

Rc FileStore::generate(int32_t keySize, const std::string& /*label*/,
                       std::unique_ptr<NewKey>& out) {
    PkeyPtr key;
    if (Rc rc = generateKey(keySize, key); rc != ZAVKM_OK) return rc;
    out = std::make_unique<ProcessKey>(std::move(key));
    return ZAVKM_OK;
}

Rc FileStore::keepCertificate(NewKey& key, const std::string& label, X509* cert,
                              bool makeDefault, const Output& output) {
    KeyRow row;
    row.label = label;
    if (Rc rc = certColumns(cert, key.signingKey(), row); rc != ZAVKM_OK) return rc;
    SecretBytes pkcs8 = pkcs8Of(key.signingKey());
    if (pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
    if (Rc rc = sealPrivateKey(kdb_, pkcs8, row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
    row.isDefault = makeDefault;
    row.trusted = true;  // a self-signed certificate made here is a trust anchor
    return commitWithOutput(kdb_, output, [&](View& v) { return insertKey(v, row, cert); });
}

Rc FileStore::keepRequest(NewKey& key, const std::string& label, X509_REQ* req,
                          const Output& output) {
    RequestRow row;
    row.label = label;
    row.request = derOf(req);
    row.spki = spkiOf(key.signingKey());
    const KeyInfo info = keyInfo(key.signingKey());
    row.keyType = info.algorithm;
    row.keyBits = info.bits;
    SecretBytes pkcs8 = pkcs8Of(key.signingKey());
    if (row.request.empty() || pkcs8.empty()) return sslError(ZAVKM_ERR_ASN);
    if (Rc rc = sealPrivateKey(kdb_, pkcs8, row.spki, row.privateKey); rc != ZAVKM_OK) return rc;
    return commitWithOutput(kdb_, output, [&](View& v) -> Rc {
        if (Rc rc = checkRequestLabelFree(v, label); rc != ZAVKM_OK) return rc;
        return insertRequest(v, row);
    });
}

Rc initFileStore() noexcept {
    return sqlite3_initialize() == SQLITE_OK ? ZAVKM_OK : ZAVKM_ERR_DATABASE;
}

}  // namespace zavkm
