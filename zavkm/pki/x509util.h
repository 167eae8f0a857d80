// x509util.h - certificates, requests and keys with OpenSSL's EVP and X509 interfaces:
// parsing (DER or PEM), key generation, names, extensions, serial numbers, signing policy,
// and writing files.
#pragma once

#include "base/ossl.h"

namespace zavkm {

// parseCertificate / parseRequest - a certificate or PKCS#10 request from DER or PEM bytes;
// null when the bytes are neither (the error queue is cleared).
X509Ptr parseCertificate(const uint8_t* p, size_t n);
// readCertificate / readRequest - the same for bytes a caller passes: ZAVKM_ERR_PARAMETER when
// they are over kMaxItemBytes, ZAVKM_ERR_ASN when they are no certificate (request).
Rc readCertificate(const uint8_t* p, size_t n, X509Ptr& out);
Rc readRequest(const uint8_t* p, size_t n, X509ReqPtr& out);
// readCertificates - the certificates of a PKCS#7 SignedData (DER or PEM), a PEM bundle or one
// certificate: ZAVKM_ERR_ASN when the bytes are none of these or one certificate is malformed,
// ZAVKM_ERR_PARAMETER over kMaxBundleBytes or kMaxBundleCertificates.
Rc readCertificates(const uint8_t* data, size_t length, std::vector<X509Ptr>& out);

// commonNameOf - the subject's common name as a label (labelFromName, utf.h: control characters
// replaced; "certificate" when there is none usable).
std::string commonNameOf(X509* cert);

// wellFormed - whether a decoded certificate's validity times are DER times naming real moments
// (a decoder takes any string there); parseCertificate refuses certificates that are not.
bool wellFormed(const X509* cert);
X509ReqPtr parseRequest(const uint8_t* p, size_t n);

// parsePrivateKey - an unencrypted private key: PKCS#8 PrivateKeyInfo or the algorithm's own
// form, DER or PEM; null when it is none of these.
PkeyPtr parsePrivateKey(const uint8_t* p, size_t n);

// The key algorithms as key items and listings number them (shortValue1, ZAVKM_Entry.keyType),
// and the key sizes that ask for the EdDSA curves.
enum : int32_t { kKeyRsa = 1, kKeyEc = 2, kKeyEd25519 = 3, kKeyEd448 = 4 };
enum : int32_t { kSizeEd25519 = 25519, kSizeEd448 = 448 };

// KeyInfo - the key algorithm (kKey..., 0 for any other) and its size in bits as
// EVP_PKEY_get_bits gives it (256 for Ed25519, 456 for Ed448).
struct KeyInfo {
    int32_t algorithm = 0;
    int32_t bits = 0;
};
KeyInfo keyInfo(const EVP_PKEY* key) noexcept;

// generateKey - 1024 to 16384 gives RSA of that many bits, 256/384/521 EC P-256/P-384/P-521,
// 25519 Ed25519 and 448 Ed448; anything else, or RSA below 2048 in FIPS mode,
// ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE.
Rc generateKey(int32_t keySize, PkeyPtr& out) noexcept;

// checkKeyPolicy - ZAVKM_ERR_CRYPTO_UNSUPPORTED_MODULUS_SIZE for an RSA key below 2048 bits in
// FIPS mode, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM for a key that is neither RSA, EC, Ed25519
// nor Ed448. EdDSA keys pass in FIPS mode too.
Rc checkKeyPolicy(const EVP_PKEY* key) noexcept;

// checkSignaturePolicy - in FIPS mode, ZAVKM_ERR_CRYPTO_UNSUPPORTED_ALGORITHM for an MD5 or
// SHA-1 signature algorithm (nid of the signature algorithm).
Rc checkSignaturePolicy(int signatureNid) noexcept;

// readPolicyCertificate - readCertificate of a certificate whose signature algorithm and key
// pass checkSignaturePolicy and checkKeyPolicy; publicKey is its key, owned by out.
Rc readPolicyCertificate(const uint8_t* p, size_t n, X509Ptr& out, EVP_PKEY*& publicKey);

// readPolicyRequest - readRequest of a request whose signature algorithm and key pass
// checkSignaturePolicy and checkKeyPolicy; publicKey is its key, owned by out.
Rc readPolicyRequest(const uint8_t* p, size_t n, X509ReqPtr& out, EVP_PKEY*& publicKey);

// isEdDsa - whether key is an Ed25519 or Ed448 key.
bool isEdDsa(const EVP_PKEY* key) noexcept;

// signingDigest - the digest key signs with when md is asked for: md, or none for an EdDSA key,
// which signs the message itself.
const EVP_MD* signingDigest(const EVP_PKEY* key, const EVP_MD* md) noexcept;

// signatureDigest - selector 1 gives SHA-256, 2 SHA-384, else ZAVKM_ERR_SIGNATURE_ALGORITHM.
// The selector is checked for every key; an EdDSA key then signs without it (signingDigest).
Rc signatureDigest(int32_t selector, const EVP_MD*& md) noexcept;

// nameFromDN - an X509_NAME from the named parts of dn (C, ST, L, postalCode, O, OU, CN), then
// its further parts optionalField1..4, each "TYPE=value" (emailAddress=a@example.test, DC=example,
// 2.5.4.5=42); ZAVKM_ERR_INVALID_DN_INPUT when it has none, a further part is not TYPE=value
// with a type OpenSSL knows, or a value is not valid for its type.
Rc nameFromDN(const ZAVKM_DNItem* dn, X509NamePtr& out);

// parseExtensions - DER Extensions (SEQUENCE OF Extension). A null pointer with length 0 gives
// an empty stack; null with a length ZAVKM_ERR_PARAMETER; bad DER ZAVKM_ERR_ASN; an extension
// twice ZAVKM_ERR_VALIDATION_DUPLICATE_EXTENSIONS.
Rc parseExtensions(const uint8_t* p, uint32_t n, ExtStackPtr& out);

// parseSerial - decimal, or hexadecimal after "0x"; null or empty gives a random positive
// 128-bit serial. Zero, negative or malformed: ZAVKM_ERR_PARAMETER.
Rc parseSerial(const char* text, Asn1IntPtr& out);

// checkValidityDays - 1 to 9999; more gives ZAVKM_ERR_EXPIRE_DAYS_TOO_LARGE, less
// ZAVKM_ERR_PARAMETER.
Rc checkValidityDays(int32_t days) noexcept;

// RemoteSigner - a private key held elsewhere (on a token): it signs the to-be-signed bytes with
// the algorithm md names for its key type (md is null for EdDSA) and gives the signature as a
// certificate carries it.
struct RemoteSigner {
    virtual Rc sign(const Bytes& tbs, const EVP_MD* md, Bytes& signature) = 0;

  protected:
    ~RemoteSigner() = default;
};

// Issuer - an issuing certificate and what signs with its key: the private key, or (with remote
// set) a remote signer and the public key that names the algorithm.
struct Issuer {
    X509Ptr cert;
    PkeyPtr key;
    RemoteSigner* remote = nullptr;
};

// ChainCandidate - a certificate a chain may use, and whether it is a trust anchor.
struct ChainCandidate {
    X509Ptr cert;
    bool trusted = false;
};

// CertPlan - what makeCertificate needs. issuer null means self-signed (subjectKey signs).
struct CertPlan {
    int32_t version = 3;  // 1 gives a v1 certificate, else v3
    const X509_NAME* subject = nullptr;
    EVP_PKEY* subjectKey = nullptr;  // its public half goes into the certificate
    X509* issuer = nullptr;          // issuer certificate, or null
    EVP_PKEY* signingKey = nullptr;  // the issuer's private key (public half with remote)
    RemoteSigner* remote = nullptr;  // signs instead of signingKey when set
    const ASN1_INTEGER* serial = nullptr;
    int32_t days = 365;
    const EVP_MD* md = nullptr;
    bool ca = false;                                   // CA:TRUE and keyCertSign
    const STACK_OF(X509_EXTENSION) * extra = nullptr;  // added last, replacing same-type ones
};
Rc makeCertificate(const CertPlan& plan, X509Ptr& out);

// makeRequest - a signed PKCS#10 request for key with subject and extensions (may be null).
// With remote set, key is the public half and remote signs.
Rc makeRequest(const X509_NAME* subject, EVP_PKEY* key, const STACK_OF(X509_EXTENSION) * exts,
               const EVP_MD* md, X509ReqPtr& out, RemoteSigner* remote = nullptr);

// spkiOf - the DER SubjectPublicKeyInfo of a key.
Bytes spkiOf(const EVP_PKEY* key);

// pkcs8Of - the DER PKCS#8 PrivateKeyInfo of a private key; empty on failure.
SecretBytes pkcs8Of(const EVP_PKEY* key);

// keyFromPkcs8 - the private key in a DER PrivateKeyInfo; null when it is not one.
PkeyPtr keyFromPkcs8(const SecretBytes& pkcs8);

// sameKey - whether two keys share their public half.
bool sameKey(const EVP_PKEY* a, const EVP_PKEY* b) noexcept;

// derOf - the DER of a certificate or request.
Bytes derOf(const X509* cert);
Bytes derOf(const X509_REQ* req);
Bytes derOf(const X509_NAME* name);

// writeCertificateFile - PEM or DER, atomically.
Rc writeCertificateFile(const char* fileName, const X509* cert, bool pem);

// writeRequestFile - PEM, atomically.
Rc writeRequestFile(const char* fileName, const X509_REQ* req);

// isSelfSigned - subject equals issuer and the certificate verifies with its own key.
bool isSelfSigned(X509* cert) noexcept;

// signedBy - whether cert verifies with issuer's public key (names compared first).
bool signedBy(X509* cert, X509* issuer) noexcept;

}  // namespace zavkm
