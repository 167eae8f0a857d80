// sizes.h - the largest inputs the library takes. Anything larger is refused with
// ZAVKM_ERR_PARAMETER before it is decoded, so the memory an input costs stays a small multiple
// of a size that is already bounded.
#pragma once

#include <cstddef>

#include "base/common.h"

namespace zavkm {

// One certificate, request, private key (PKCS#8 or encrypted), public key or extension list,
// DER or PEM. Real ones are a few KiB; RSA 16384 keys stay under 20 KiB.
inline constexpr size_t kMaxItemBytes = 256u << 10;
// A PKCS#7 or PEM bundle of certificates, and how many certificates it may hold.
inline constexpr size_t kMaxBundleBytes = 16u << 20;
inline constexpr size_t kMaxBundleCertificates = 10000;
// Any file the library reads whole: PKCS#12, keyring, base64, certificate and request files.
inline constexpr size_t kMaxInputFile = 16u << 20;

// withinSize - ZAVKM_ERR_PARAMETER when n is over limit.
inline Rc withinSize(size_t n, size_t limit) noexcept {
    return n > limit ? ZAVKM_ERR_PARAMETER : ZAVKM_OK;
}

}  // namespace zavkm
