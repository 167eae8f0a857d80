// tokenops.h - the key-store operations on an open token; the exported operations call them for
// token handles. The certificates and requests are built by the same code as for key database
// files, the token signs them.
#pragma once

#include "store/token/tokenkeys.h"
#include "zavkm_ext.h"

namespace zavkm {

Rc tokenPrivateKeyPresent(TokenStore& t, const char* label, uint8_t* present);
Rc tokenDelete(TokenStore& t, const char* label);
Rc tokenKeyItem(TokenStore& t, const char* label, ZAVKM_KeyItem** key);
// tokenKeyItemList - every certificate with label (labels two certificates share give two).
Rc tokenKeyItemList(TokenStore& t, const char* label, ZAVKM_KeyItemList** list);
Rc tokenKeyItemsBySpki(TokenStore& t, const Bytes& spki, ZAVKM_KeyItemList** list);
// tokenChainCandidates - the token's certificates (its self-signed ones trusted) and those of
// its secondary key database (trusted as marked there).
Rc tokenChainCandidates(TokenStore& t, std::vector<ChainCandidate>& out);
Rc tokenExportCert(TokenStore& t, const char* label, const char* fileName, bool pem);

// tokenReceive - a certificate for a request key on the token: stored with the request's label
// next to its key pair, the request object removed.
Rc tokenReceive(TokenStore& t, const uint8_t* der, uint32_t length);

// tokenStoreSigner - a signer certificate (no key) with label.
Rc tokenStoreSigner(TokenStore& t, const uint8_t* der, uint32_t length, const char* label);

// tokenIsRenewal / tokenRenew - a certificate for a key pair the token holds with a certificate
// already: the new one replaces the old under the same label.
Rc tokenIsRenewal(TokenStore& t, const uint8_t* der, uint32_t length, uint8_t* isRenewal);
Rc tokenRenew(TokenStore& t, const uint8_t* der, uint32_t length);

// tokenReqKeyItem - the request item of a request key on the token (no EPKI: its private key
// stays on the token).
Rc tokenReqKeyItem(TokenStore& t, const char* label, ZAVKM_ReqKeyItem** key);

// tokenListEntries - every certificate of the token (personal when the token holds the private
// key with its CKA_ID, else a signer; trusted as its CKA_TRUSTED says) with its exact validity in
// 64-bit seconds, then every request key, as ZAVKM_ListEntriesX gives them (ZAVKM_LIST_DER in
// flags fills der). A certificate object that holds no certificate is left out.
Rc tokenListEntries(TokenStore& t, uint32_t flags, ZAVKM_Entry** entries, uint32_t* count);

// tokenInsertKey - a certificate under label, with privateKey (may be null; it must match the
// certificate) brought onto the token as its key pair: all objects or none.
Rc tokenInsertKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                  const EVP_PKEY* privateKey);

// tokenInsertReqKey - a request key under label: privateKey (matching the request) as a key
// pair on the token plus the request object; all objects or none.
Rc tokenInsertReqKey(TokenStore& t, const char* label, const uint8_t* der, uint32_t length,
                     const EVP_PKEY* privateKey);

// TokenIssuer - an issuing certificate on the token whose private key the token holds; it signs
// while this object lives.
class TokenIssuer {
  public:
    explicit TokenIssuer(TokenStore& t) : t_(t), signer_(t, key_) {}
    // find - the certificate under label and its key: 117 without such a certificate, 109
    // when the token has no private key for it.
    Rc find(const char* label, Issuer& out);

  private:
    TokenStore& t_;
    TokenKey key_;
    TokenSigner signer_;
};

}  // namespace zavkm
