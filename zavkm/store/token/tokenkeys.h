// tokenkeys.h - a PKCS#11 token as a KeyStore.
#pragma once

#include "store/keystore/keystore.h"
#include "store/token/token.h"

namespace zavkm {

// TokenKeyStore - the KeyStore of an open token; t stays the caller's and locked by it. Keys
// are generated on the token and sign there; a key pair that is not kept is destroyed again.
class TokenKeyStore final : public KeyStore {
  public:
    explicit TokenKeyStore(TokenStore& t) : t_(t) {}
    TokenStore& token() { return t_; }

    Rc keyLabels(std::vector<std::string>& out) override;
    Rc requestLabels(std::vector<std::string>& out) override;
    Rc checkNewLabel(const std::string& label, bool forRequest) override;
    Rc generate(int32_t keySize, const std::string& label, std::unique_ptr<NewKey>& out) override;
    Rc keepCertificate(NewKey& key, const std::string& label, X509* cert, bool makeDefault,
                       const Output& output) override;
    Rc keepRequest(NewKey& key, const std::string& label, X509_REQ* req,
                   const Output& output) override;

  private:
    TokenStore& t_;
};

// labelInUse - whether any certificate or request object on the token has label.
Rc labelInUse(TokenStore& t, const std::string& label, bool& used);

// tokenKeyFor - the token's key pair whose public half is pub: ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL
// when the token holds no private key with its CKA_ID.
Rc tokenKeyFor(TokenStore& t, EVP_PKEY* pub, TokenKey& out);

// moduleTokenLabels - the labels of the tokens in the PKCS#11 module at path.
Rc moduleTokenLabels(const std::string& path, std::vector<std::string>& out);

}  // namespace zavkm
