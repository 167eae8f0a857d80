// pkcs12read.h - what a PKCS#12 file holds, as entries a key store adds: personal keys with
// their certificates, signer certificates and request keys, each with the label the file gives
// and the flags it marks; and how an import chooses the labels against what a store holds.
#pragma once

#include <openssl/pkcs12.h>

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/ossl.h"

namespace zavkm {

// The key-derivation work one import may ask for, summed over the MAC, the encrypted safes and
// the shrouded keys before any of them is derived (a shrouded key inside an encrypted safe is
// counted as soon as its safe is open): about 0.9 s of PBKDF2 here.
inline constexpr long kPkcs12IterationBudget = 4000000;

// The JDK's trusted-certificate attribute, and bag attributes of our own under the arc
// 2.25.<a UUID of ours, as a decimal number>. Other readers keep ours as unknown attributes
// (keytool) or print them (openssl pkcs12 -info).
inline constexpr char kJavaTrustOid[] = "2.16.840.1.113894.746875.1.1";
inline constexpr char kDefaultOid[] = "2.25.22339739339984387550878158063804827310.1";  // TRUE
inline constexpr char kTrustedOid[] = "2.25.22339739339984387550878158063804827310.2";  // TRUE
inline constexpr char kRequestOid[] = "2.25.22339739339984387550878158063804827310.3";  // OCTETS

void freeAuthSafes(STACK_OF(PKCS7) * s) noexcept;
void freeBags(STACK_OF(PKCS12_SAFEBAG) * s) noexcept;
using AuthSafesPtr = Owned<STACK_OF(PKCS7), freeAuthSafes>;
using BagsPtr = Owned<STACK_OF(PKCS12_SAFEBAG), freeBags>;

// parsePkcs12 - decodes DER data as PKCS#12; null when it is not.
Pkcs12Ptr parsePkcs12(const Bytes& data);

// Pkcs12Entry - one entry of a file: a personal key (key and cert), a signer certificate (cert)
// or a request key (key and request, the DER of a request holding the key's public half).
// name is the friendlyName (a key's: its key bag's, else its certificate bag's), base the common
// name a label is made from when there is none. label and skip are choosePkcs12Labels's.
struct Pkcs12Entry {
    enum Kind { Personal, Signer, Request };
    Kind kind = Signer;
    PkeyPtr key;
    X509Ptr cert;
    Bytes request;
    std::string name;
    std::string base;
    bool isDefault = false;  // our attribute on the key bag
    bool trusted = false;    // the JDK's mark on the certificate, or ours on the key bag
    std::string label;
    bool skip = false;  // the store (or the file, before) holds the certificate already
};

// readPkcs12 - the entries of the PKCS#12 file data under password, in the order labels are
// chosen: personal keys, named signer certificates, unnamed ones, request keys. Each key is
// paired with the certificate bag of its localKeyID, else one holding its public key.
// A wrong password or failed MAC gives ZAVKM_ERR_PKCS12_PWD_CORRUPTION, data that is not
// PKCS#12 ZAVKM_ERR_INVALID_PKCS12_DATA, more iterations than kPkcs12IterationBudget or an
// algorithm refused in FIPS mode ZAVKM_ERR_PBE_ALG_UNSUPPORT, a friendlyName that is no text
// ZAVKM_ERR_PARAMETER, a key without its certificate ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, a
// request or certificate that does not hold its key ZAVKM_ERR_VALIDATION_KEY_PAIR.
Rc readPkcs12(const Bytes& data, const char* password, std::vector<Pkcs12Entry>& out);

// HeldNames - what labels and duplicates depend on in the store an import goes to: its key
// labels, its request labels (checked as well when a request key claims a label) and its
// certificates (DER).
struct HeldNames {
    std::unordered_set<std::string> keyLabels, requestLabels, certs;
};

// choosePkcs12Labels - the label of every entry against held, and which are skipped: a signer
// certificate the store holds already, or one the file named the same way before (an unnamed
// one: held in any way before). A label the file gives is claimed
// (ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when taken, ZAVKM_ERR_PARAMETER when it is no label); a
// label made from a common name gets the first free " (n)". Linear in the entries.
Rc choosePkcs12Labels(const HeldNames& held, std::vector<Pkcs12Entry>& all);

// unloadLegacyAlgorithms - releases the providers loaded for legacy PKCS#12 files
// (ZAVKM_CleanAll); the next import loads them again.
void unloadLegacyAlgorithms() noexcept;

}  // namespace zavkm
