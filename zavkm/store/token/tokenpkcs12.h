// tokenpkcs12.h - PKCS#12 files brought onto a token.
#pragma once

#include "store/token/token.h"

namespace zavkm {

// importPkcs12ToToken - every entry of the PKCS#12 file fileName (read with password) as token
// objects: a private key becomes a key pair on the token (sensitive, never extractable, signing
// only) with its certificate under the key's CKA_ID; a further certificate a certificate object
// (not added again when the token holds it); a request key a key pair with its request object.
// Labels are chosen as a key database's import chooses them (the key bag's friendlyName first,
// else the certificate's common name made unique), against every label on the token; the
// default and trust marks the file carries go to the token's flags (keyflags.h). All objects or
// none: a failure destroys what the import made. Return codes as readPkcs12's (pkcs12read.h),
// ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL for a label the token holds, those of importKeyPair for
// a key the token cannot take, ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT on a read-only token.
Rc importPkcs12ToToken(TokenStore& t, const char* fileName, const char* password);

}  // namespace zavkm
