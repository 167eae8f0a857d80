// x509records.h - ABI records made from decoded certificates, requests and names.
#pragma once

#include <string>
#include <vector>

#include "base/ossl.h"
#include "pki/records.h"

namespace zavkm {

// dnRecord - the name's seven named parts (first occurrence each), up to four further parts as
// "TYPE=value", and its DER.
Rc dnRecord(const X509_NAME* name, DNPtr& out);

// certRecord - a decoded certificate: version as people count it, public key size, serial in
// uppercase hexadecimal (two digits a byte, no leading 00), names, validity in seconds since
// 1970 clamped to 32 bits, signature value, algorithm identifier with OID and name, SPKI and
// DER Extensions.
Rc certRecord(X509* cert, CertItemPtr& out);

// certListRecord - a list of certRecords in the order given; null for an empty vector.
Rc certListRecord(const std::vector<X509Ptr>& certs, CertItemListPtr& out);

// requestRecord - a decoded PKCS#10 request with its information part.
Rc requestRecord(X509_REQ* req, CertReqItemPtr& out);

// reqKeyItemRecord - a request key's record without its private key: label, key type and bits
// (as a key item's shortValue1 and keySize), SubjectPublicKeyInfo and the decoded request.
Rc reqKeyItemRecord(const std::string& label, int32_t keyType, int32_t keyBits,
                    const Bytes& spki, X509_REQ* req, ReqKeyItemPtr& out);

// exactTime - a certificate time in seconds since 1970, in 64 bits whatever time_t is; 0 when it
// does not decode.
int64_t exactTime(const ASN1_TIME* t);

// notAfterOf - the notAfter of a stored (well-formed) certificate's DER in seconds since 1970,
// read without decoding the certificate; 0 when the bytes are not one.
int64_t notAfterOf(const uint8_t* der, size_t n);

// tbsOf - the exact DER bytes of a certificate's to-be-signed part; empty when der is not a
// certificate.
Bytes tbsOf(const uint8_t* der, size_t n);

}  // namespace zavkm
