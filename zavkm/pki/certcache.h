// certcache.h - certificates read from key databases, decoded once per process.
//
// Decoding a certificate (its public key above all) is the costliest step of reading a key
// item, and a process reads the same few certificates again and again. The cache holds the
// decoded form of the most recently used certificates, keyed by their DER; decoded
// certificates are only read, never changed, so threads share them.
#pragma once

#include "base/ossl.h"

namespace zavkm {

// cachedCertificate - the decoded certificate for der (a new reference), or null when der is
// not a certificate. With keep false a certificate not yet cached is decoded but not kept (bytes
// from a caller, not from a key database).
X509Ptr cachedCertificate(const Bytes& der, bool keep = true);
// kCachedCertBytes - the largest certificate from a caller worth keeping.
inline constexpr size_t kCachedCertBytes = 16u << 10;

// clearCertificateCache - drops every cached certificate (ZAVKM_CleanAll).
void clearCertificateCache() noexcept;

}  // namespace zavkm
