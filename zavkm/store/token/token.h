// token.h - a PKCS#11 token as a key store: key pairs generated on the token (private keys
// sensitive, never extractable), certificates and request objects next to them, all tied by
// CKA_ID (SHA-1 of the public key) and CKA_LABEL; the token signs what OpenSSL builds.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "base/ossl.h"
#include "store/token/p11.h"
#include "pki/x509util.h"

namespace zavkm {

// CertObject - what lookups need of a certificate object.
struct CertObject {
    std::string label;
    Bytes id;
    Bytes value;
    bool trusted = false;  // CKA_TRUSTED: a trust anchor of the token (the system's CAs)
};

// TokenSnapshot - the token's certificates and private key ids, read in two searches at the first
// lookup and dropped at every change made through the handle: a token's search visits every
// object, so per-label searches would cost one full visit each.
struct TokenSnapshot {
    bool valid = false;
    std::vector<CertObject> certs;
    std::vector<Bytes> privateKeyIds;
};

// TokenStore - an open token: its own session (logged in when a PIN was given), one thread at a
// time (callers hold mutex). secondary is the handle of a key database paired with it, or 0.
struct TokenStore {
    std::mutex mutex;
    Session session;
    bool readOnly = false;
    ZAVKM_KeyDbHandle secondary = 0;
    TokenSnapshot snapshot;
    SecretBytes pin;  // the PIN of the login: private keys brought in may be encrypted under it
};

// TokenSpec - which token: the module path and the token label (empty: the first initialised).
struct TokenSpec {
    std::string module;
    std::string label;
};

// openToken - a session on the token, logged in with pin when pin is not null or empty. Without
// a PIN a token that needs a login gives ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_PASSWORD_REQUIRED, unless
// publicOnly: then its public objects are seen and changes need the login.
Rc openToken(const TokenSpec& spec, const char* pin, bool publicOnly,
             std::unique_ptr<TokenStore>& out);

// tokenLoginRequired - the token's CKF_LOGIN_REQUIRED.
Rc tokenLoginRequired(const TokenSpec& spec, bool& required);

// changeTokenPin - C_SetPIN after a user login with oldPin.
Rc changeTokenPin(const TokenSpec& spec, const char* oldPin, const char* newPin);

// The objects of one kind: a certificate, a request key's data object, a private key, a public
// key, the data object that carries a request while it replaces another (replaceRequest).
enum class TokenObject { Certificate, Request, PrivateKey, PublicKey, Replacement };

// objectLabels - the label of every object of a kind, in token order.
Rc objectLabels(TokenStore& t, TokenObject kind, std::vector<std::string>& out);

// objectValues - CKA_VALUE of every object of a kind with label (certificates, requests).
Rc objectValues(TokenStore& t, TokenObject kind, const std::string& label,
                std::vector<Bytes>& out);

// requestObjects - the label and request of every request object, in token order, in one search.
Rc requestObjects(TokenStore& t, std::vector<std::pair<std::string, Bytes>>& out);

// privateKeyPresent - whether the token holds a private key with id.
Rc privateKeyPresent(TokenStore& t, const Bytes& id, bool& present);

// destroyLabelled - destroys every object with label (keys, certificates, request data);
// ZAVKM_ERR_KEY_GET_BY_LABEL when there is none.
Rc destroyLabelled(TokenStore& t, const std::string& label);

// labelWithId - the label of an object of a kind with id; empty when there is none.
Rc labelWithId(TokenStore& t, TokenObject kind, const Bytes& id, std::string& label);

// destroyWithId - destroys the objects of a kind with id.
Rc destroyWithId(TokenStore& t, TokenObject kind, const Bytes& id);

// destroyObjects - destroys the objects of a kind with label.
Rc destroyObjects(TokenStore& t, TokenObject kind, const std::string& label);

// TokenKey - a key pair on the token: its public half for OpenSSL, its id and private key.
struct TokenKey {
    PkeyPtr publicKey;
    Bytes id;
    CK_OBJECT_HANDLE privateKey = CK_INVALID_HANDLE;
    CK_OBJECT_HANDLE publicHandle = CK_INVALID_HANDLE;
};

// generateTokenKey - a new key pair with label: keySize 1024-16384 RSA, 256/384/521 EC, 25519
// Ed25519 and 448 Ed448 (CKA_EC_PARAMS the curve's OID); anything else
// ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE before the token is touched.
Rc generateTokenKey(TokenStore& t, int32_t keySize, const std::string& label, TokenKey& out);

// importKeyPair - a private key made the token's own: its private half as a sensitive, never
// extractable signing key and its public half, both with label and the id keyIdOf the key
// (out gets the handles and the id). RSA, EC P-256/P-384/P-521, Ed25519 and Ed448; other keys
// give ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM before the token is touched. On failure nothing
// stays.
Rc importKeyPair(TokenStore& t, const EVP_PKEY* key, const std::string& label, TokenKey& out);

// privateKeyWithId - the private key object with id; CK_INVALID_HANDLE when there is none.
Rc privateKeyWithId(TokenStore& t, const Bytes& id, CK_OBJECT_HANDLE& out);

// destroyKey - removes both halves of a key pair (undoing a failed creation).
void destroyKey(TokenStore& t, const TokenKey& key) noexcept;

// TokenSigner - signs with a key pair's private half on the token: RSA PKCS#1 v1.5 with the
// digest md names, ECDSA over the digest, EdDSA (CKM_EDDSA) over the message itself.
class TokenSigner final : public RemoteSigner {
  public:
    TokenSigner(TokenStore& t, const TokenKey& key) : t_(t), key_(key) {}
    Rc sign(const Bytes& tbs, const EVP_MD* md, Bytes& signature) override;

  private:
    TokenStore& t_;
    const TokenKey& key_;
};

// storeCertificate - a CKO_CERTIFICATE with label and id holding cert.
Rc storeCertificate(TokenStore& t, const std::string& label, const Bytes& id, X509* cert);

// storeRequest - a CKO_DATA object of this library's application with label holding the
// request's DER (data objects have no CKA_ID; the request's public key leads to its pair).
Rc storeRequest(TokenStore& t, const std::string& label, const Bytes& id, const Bytes& der);

// replaceRequest - the request with label replaced by der (a module need not let a data object's
// value change): der is first stored in a replacement object, then the old request object goes
// and one holding der is made, then the replacement object goes. Stopped at any point, the
// token holds the old request, or a replacement object from which recoverReplacements finishes.
// ZAVKM_ERR_KEY_GET_BY_LABEL when there is no request with label.
Rc replaceRequest(TokenStore& t, const std::string& label, const Bytes& der);

// recoverReplacements - finishes every replacement of a request that stopped half-way, so that
// each label has one request object again; openToken runs it on every writable token (one
// search, which finds nothing unless a process stopped during a replacement).
Rc recoverReplacements(TokenStore& t);

// keyIdOf - the CKA_ID of a public key: SHA-1 of the key bits its SubjectPublicKeyInfo carries
// (of a certificate's key), the certificate's subject key identifier.
Bytes keyIdOf(const EVP_PKEY* key);
Bytes keyIdOf(const X509* cert);

// snapshotOf - the token's certificates and private key ids as of the handle's last change.
Rc snapshotOf(TokenStore& t, const TokenSnapshot*& out);

// hasPrivateKey - whether the snapshot holds a private key with id.
bool hasPrivateKey(const TokenSnapshot& snap, const Bytes& id) noexcept;

}  // namespace zavkm
