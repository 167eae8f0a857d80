// epki.h - private keys as PKCS#8 EncryptedPrivateKeyInfo (PBES2: PBKDF2-HMAC-SHA256 and
// AES-256-CBC), readable by `openssl pkcs8` with the password.
#pragma once

#include <openssl/x509.h>

#include <string_view>

#include "store/file/keydb.h"

namespace zavkm {

inline constexpr uint32_t kMaxPbeIterations = 10000000;  // more would burn minutes of CPU

// checkPbe - whether a password-based encryption algorithm may be run: PBES2 with PBKDF2, or
// (outside FIPS mode) a legacy PKCS#12 PBE, with at most kMaxPbeIterations iterations.
// ZAVKM_ERR_PBE_ALG_UNSUPPORT otherwise; iterations receives the count.
Rc checkPbe(const X509_ALGOR* alg, long& iterations);

// epkiForKeyDb - encrypts pkcs8 under the key database's password without a KDF run: the PBES2
// salt and iteration count are the file's, and the derived key is the one the open proved.
Rc epkiForKeyDb(const KeyDb& kdb, const SecretBytes& pkcs8, Bytes& out);

// epkiWithPassword - encrypts pkcs8 under password with a fresh salt (one KDF run).
Rc epkiWithPassword(std::string_view password, const SecretBytes& pkcs8, Bytes& out);

// decryptEpki - the PrivateKeyInfo inside an EncryptedPrivateKeyInfo. With kdb and the file's
// own PBES2 parameters no KDF runs. A wrong password gives
// ZAVKM_ERR_DATABASE_INVALID_PASSWORD, bad DER ZAVKM_ERR_ASN, an unsupported or too costly
// scheme (or a legacy one in FIPS mode) ZAVKM_ERR_PBE_ALG_UNSUPPORT.
Rc decryptEpki(const uint8_t* der, size_t n, std::string_view password, const KeyDb* kdb,
               SecretBytes& pkcs8);

}  // namespace zavkm
