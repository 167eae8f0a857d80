// pbe.h - password-based encryption as PKCS#8 and PKCS#12 files carry it: which schemes may run
// and at what cost.
#pragma once

#include <openssl/x509.h>

#include "base/ossl.h"

namespace zavkm {

inline constexpr uint32_t kMaxPbeIterations = 10000000;  // more would burn minutes of CPU

using Pbe2Ptr = Owned<PBE2PARAM, PBE2PARAM_free>;
using Pbkdf2Ptr = Owned<PBKDF2PARAM, PBKDF2PARAM_free>;

// Pbes2View - the parts of a PBES2 AlgorithmIdentifier that decide whether a cached key fits.
struct Pbes2View {
    Pbe2Ptr pbe2;
    Pbkdf2Ptr kdf;
    int prf = NID_hmacWithSHA1;  // the default when the field is absent
    long iterations = 0;
    int cipher = NID_undef;
};

// viewPbes2 - ZAVKM_OK and the view for PBES2 with PBKDF2; ZAVKM_ERR_PBE_ALG_UNSUPPORT for
// another scheme (legacy PKCS#12 PBEs are left to OpenSSL, view.pbe2 stays null).
Rc viewPbes2(const X509_ALGOR* alg, Pbes2View& view);

// checkPbe - whether a password-based encryption algorithm may be run: PBES2 with PBKDF2, or
// (outside FIPS mode) a legacy PKCS#12 PBE, with at most kMaxPbeIterations iterations.
// ZAVKM_ERR_PBE_ALG_UNSUPPORT otherwise; iterations receives the count.
Rc checkPbe(const X509_ALGOR* alg, long& iterations);

}  // namespace zavkm
