// ossl.h - OpenSSL handles held by deleter-typed unique_ptr, and the one place that turns the
// OpenSSL error queue into a return code.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "base/common.h"

namespace zavkm {

using BioPtr = Owned<BIO, BIO_free_all>;
using PkeyPtr = Owned<EVP_PKEY, EVP_PKEY_free>;
using PkeyCtxPtr = Owned<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using CipherCtxPtr = Owned<EVP_CIPHER_CTX, EVP_CIPHER_CTX_free>;
using MdCtxPtr = Owned<EVP_MD_CTX, EVP_MD_CTX_free>;
using X509Ptr = Owned<X509, X509_free>;
using X509ReqPtr = Owned<X509_REQ, X509_REQ_free>;
using X509NamePtr = Owned<X509_NAME, X509_NAME_free>;
using X509ExtPtr = Owned<X509_EXTENSION, X509_EXTENSION_free>;
using X509StorePtr = Owned<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = Owned<X509_STORE_CTX, X509_STORE_CTX_free>;
using X509AlgorPtr = Owned<X509_ALGOR, X509_ALGOR_free>;
using X509SigPtr = Owned<X509_SIG, X509_SIG_free>;
using P8InfPtr = Owned<PKCS8_PRIV_KEY_INFO, PKCS8_PRIV_KEY_INFO_free>;
using Pkcs12Ptr = Owned<PKCS12, PKCS12_free>;
using Pkcs7Ptr = Owned<PKCS7, PKCS7_free>;
using BignumPtr = Owned<BIGNUM, BN_free>;
using Asn1IntPtr = Owned<ASN1_INTEGER, ASN1_INTEGER_free>;
using Asn1TimePtr = Owned<ASN1_TIME, ASN1_TIME_free>;
using Asn1ObjPtr = Owned<ASN1_OBJECT, ASN1_OBJECT_free>;
using Asn1OctetPtr = Owned<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;

inline void freeX509Stack(STACK_OF(X509) * s) noexcept { sk_X509_pop_free(s, X509_free); }
inline void freeExtStack(STACK_OF(X509_EXTENSION) * s) noexcept {
    sk_X509_EXTENSION_pop_free(s, X509_EXTENSION_free);
}
inline void freeGeneralNames(GENERAL_NAMES* g) noexcept { GENERAL_NAMES_free(g); }
inline void freeOpensslText(char* p) noexcept { OPENSSL_free(p); }
using X509StackPtr = Owned<STACK_OF(X509), freeX509Stack>;
using ExtStackPtr = Owned<STACK_OF(X509_EXTENSION), freeExtStack>;
using GeneralNamesPtr = Owned<GENERAL_NAMES, freeGeneralNames>;
using OpensslTextPtr = Owned<char, freeOpensslText>;

// sslError - turns the OpenSSL error queue into a return code and empties it. An allocation
// failure gives ZAVKM_ERR_MEMORY_ALLOCATE; anything else gives fallback (the caller knows what
// it was doing: decoding, signing, ...). The first queued error is traced.
Rc sslError(Rc fallback) noexcept;

// clearSslErrors - drops whatever a tolerated failure left in the OpenSSL error queue.
void clearSslErrors() noexcept;

// randomBytes - n bytes from the OpenSSL DRBG into out; ZAVKM_ERR_CRYPTO on failure.
Rc randomBytes(uint8_t* out, size_t n) noexcept;

// The algorithms the key database uses, fetched once per process and kept (a fetch costs more
// than a short hash); null when the provider lacks one.
const EVP_MD* sha256Algorithm() noexcept;
EVP_MAC* hmacAlgorithm() noexcept;
EVP_KDF* hkdfAlgorithm() noexcept;
EVP_CIPHER* gcmAlgorithm() noexcept;

// toDer - the DER encoding of an object through its i2d function; empty on failure.
template <class T, class F>
Bytes toDer(const T* object, F i2d) {
    Bytes out;
    int n = i2d(const_cast<T*>(object), nullptr);
    if (n <= 0) return out;
    out.resize(static_cast<size_t>(n));
    unsigned char* p = out.data();
    if (i2d(const_cast<T*>(object), &p) != n) out.clear();
    return out;
}

// sha256 - the SHA-256 of data.
Bytes sha256(const uint8_t* data, size_t n);

}  // namespace zavkm
