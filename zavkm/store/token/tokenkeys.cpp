// tokenkeys.cpp - a PKCS#11 token as a KeyStore: key pairs generated on the token, signing
// there, certificates and requests stored as its objects.
#include "store/token/tokenkeys.h"

#include "store/token/p11.h"

namespace zavkm {
namespace {

// GeneratedKey - a key pair made on the token; destroyed again unless kept.
class GeneratedKey final : public NewKey {
  public:
    GeneratedKey(TokenStore& t) : t_(t), signer_(t, key_) {}
    ~GeneratedKey() override {
        if (!kept_) destroyKey(t_, key_);
    }
    EVP_PKEY* publicKey() override { return key_.publicKey.get(); }
    EVP_PKEY* signingKey() override { return key_.publicKey.get(); }
    RemoteSigner* remote() override { return &signer_; }

    TokenKey& key() { return key_; }
    void keep() { kept_ = true; }

  private:
    TokenStore& t_;
    TokenKey key_;
    TokenSigner signer_;
    bool kept_ = false;
};

// keepWithOutput - the output, then store(id) of the key's objects; the key pair stays only
// when both did.
template <class Store>
Rc keepWithOutput(NewKey& key, const Output& output, Store&& store) {
    auto& made = static_cast<GeneratedKey&>(key);
    Rc rc = finishWithOutput(output, [] { return ZAVKM_OK; }, [&] { return store(made.key().id); });
    if (rc == ZAVKM_OK) made.keep();
    return rc;
}

}  // namespace

Rc labelInUse(TokenStore& t, const std::string& label, bool& used) {
    std::vector<Bytes> certs, requests;
    if (Rc rc = objectValues(t, TokenObject::Certificate, label, certs); rc != ZAVKM_OK) return rc;
    if (Rc rc = objectValues(t, TokenObject::Request, label, requests); rc != ZAVKM_OK) return rc;
    used = !certs.empty() || !requests.empty();
    return ZAVKM_OK;
}

Rc TokenKeyStore::keyLabels(std::vector<std::string>& out) {
    return objectLabels(t_, TokenObject::Certificate, out);
}

Rc TokenKeyStore::requestLabels(std::vector<std::string>& out) {
    return objectLabels(t_, TokenObject::Request, out);
}

Rc TokenKeyStore::checkNewLabel(const std::string& label, bool /*forRequest*/) {
    bool used = false;
    if (Rc rc = labelInUse(t_, label, used); rc != ZAVKM_OK) return rc;
    return used ? ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL : ZAVKM_OK;
}

Rc TokenKeyStore::generate(int32_t keySize, const std::string& label,
                           std::unique_ptr<NewKey>& out) {
    auto made = std::make_unique<GeneratedKey>(t_);
    if (Rc rc = generateTokenKey(t_, keySize, label, made->key()); rc != ZAVKM_OK) {
        made->keep();  // nothing was made: nothing to destroy
        return rc;
    }
    out = std::move(made);
    return ZAVKM_OK;
}

Rc TokenKeyStore::keepCertificate(NewKey& key, const std::string& label, X509* cert,
                                  bool /*makeDefault*/, const Output& output) {
    return keepWithOutput(key, output,
                          [&](const Bytes& id) { return storeCertificate(t_, label, id, cert); });
}

Rc TokenKeyStore::keepRequest(NewKey& key, const std::string& label, X509_REQ* req,
                              const Output& output) {
    return keepWithOutput(key, output,
                          [&](const Bytes& id) { return storeRequest(t_, label, id, derOf(req)); });
}

Rc tokenKeyFor(TokenStore& t, EVP_PKEY* pub, TokenKey& out) {
    out.id = keyIdOf(pub);
    if (Rc rc = privateKeyWithId(t, out.id, out.privateKey); rc != ZAVKM_OK) return rc;
    if (out.privateKey == CK_INVALID_HANDLE) return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;
    EVP_PKEY_up_ref(pub);
    out.publicKey.reset(pub);
    return ZAVKM_OK;
}

Rc moduleTokenLabels(const std::string& path, std::vector<std::string>& out) {
    CK_FUNCTION_LIST* f = nullptr;
    if (Rc rc = loadModule(path, f); rc != ZAVKM_OK) return rc;
    return tokenLabels(f, out);
}

}  // namespace zavkm
