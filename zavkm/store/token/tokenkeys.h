// tokenkeys.h - a PKCS#11 token as a KeyStore.
#pragma once

#include "store/keystore/keystore.h"
#include "store/token/token.h"

namespace zavkm {

// TokenKeyStore - the KeyStore of an open token; t stays the caller's and locked by it. Keys
// are generated on the token and sign there; a key pair that is not kept is destroyed again.
// paired (may be empty) reaches the key database paired with the token.
class TokenKeyStore final : public KeyStore {
  public:
    TokenKeyStore(TokenStore& t, PairedStore paired) : t_(t), paired_(std::move(paired)) {}
    bool readOnly() const override { return t_.readOnly; }

    ZAVKM_KEY_STORE_OPERATIONS

  private:
    TokenStore& t_;
    PairedStore paired_;
};

// labelInUse - whether any certificate or request object on the token has label.
Rc labelInUse(TokenStore& t, const std::string& label, bool& used);

// tokenKeyFor - the token's key pair whose public half is pub: ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL
// when the token holds no private key with its CKA_ID.
Rc tokenKeyFor(TokenStore& t, EVP_PKEY* pub, TokenKey& out);

// tokenInsertKey - a certificate under label, with privateKey (may be null; it must match the
// certificate) brought onto the token as its key pair: all objects or none.
Rc tokenInsertKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                  const EVP_PKEY* privateKey);

// tokenInsertReqKey - a request key under label: privateKey (matching the request) as a key
// pair on the token plus the request object; all objects or none.
Rc tokenInsertReqKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                     const EVP_PKEY* privateKey);

// moduleTokenLabels - the labels of the tokens in the PKCS#11 module at path.
Rc moduleTokenLabels(const std::string& path, std::vector<std::string>& out);

}  // namespace zavkm
