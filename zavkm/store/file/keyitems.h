// keyitems.h - key records for the caller: a key with its chain and encrypted private key, a
// request key with its request.
#pragma once

#include "store/file/entries.h"
#include "base/ossl.h"
#include "pki/records.h"

namespace zavkm {

// chainOf - cert followed by its issuers found in the database (by subject name and
// signature), up to a self-signed one; at most 16 certificates. A damaged row among the
// candidates answers ZAVKM_ERR_DATABASE_KEY_INTEGRITY.
Rc chainOf(View& v, X509Ptr cert, std::vector<X509Ptr>& chain);

// privateKeyOf - the private key of a row, unsealed; ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL for a
// signer certificate, ZAVKM_ERR_DATABASE_KEY_INTEGRITY when the sealed key fails its check.
Rc privateKeyOf(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki, PkeyPtr& key);

// keyItemOf / reqKeyItemOf - the ABI records of a row. The private key leaves as an
// EncryptedPrivateKeyInfo under the database's password (no KDF run).
Rc keyItemOf(View& v, const KeyRow& row, KeyItemPtr& out);
Rc reqKeyItemOf(const KeyDb& kdb, const RequestRow& row, ReqKeyItemPtr& out);

// certColumns - the certificate's columns of a row: cert, spki, subject, key type and size.
Rc certColumns(X509* cert, const EVP_PKEY* key, KeyRow& row);

// signerRowOf - the columns of a signer certificate's row (no label, no private key); the key
// and signature policies apply.
Rc signerRowOf(X509* cert, KeyRow& row);

}  // namespace zavkm
