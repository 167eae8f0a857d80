// keyops.h - the key-store operations written once for key database files and tokens alike.
#pragma once

#include "store/keystore/keystore.h"
#include "zavkm.h"

namespace zavkm {

// SelfSignedArgs / RequestArgs - what the caller asked for, as the exported operations take it.
struct SelfSignedArgs {
    const char* label;
    bool makeDefault;
    int32_t version;
    int32_t keySize;
    const ZAVKM_DNItem* subject;
    int32_t validityDays;
    int32_t signatureAlgorithm;
    const uint8_t* extensions;
    uint32_t extensionsLength;
    const char* certFileName;
    bool pem;
};

struct RequestArgs {
    const char* label;
    int32_t keySize;
    const ZAVKM_DNItem* subject;
    int32_t signatureAlgorithm;
    const uint8_t* extensions;
    uint32_t extensionsLength;
    const char* requestFileName;
};

// createSelfSigned - a new key pair and its self-signed CA certificate under a.label, the
// certificate also written to a.certFileName when one is named (PEM with a.pem). Every argument
// is checked and the label must be free before a key is generated.
Rc createSelfSigned(KeyStore& store, const SelfSignedArgs& a);

// createRequest - a new key pair and its PKCS#10 request kept as a request key under a.label,
// the request also written to a.requestFileName (PEM) when one is named.
Rc createRequest(KeyStore& store, const RequestArgs& a);

// labelList - the store's certificate labels, or its request labels with requests, as the
// list ZAVKM_FreeLabelList releases.
Rc labelList(KeyStore& store, bool requests, ZAVKM_LabelList** list);

// recreateRequest - the request of the request key under label written to fileName again,
// signed anew with the digest signatureAlgorithm selects (0 keeps the stored request; a request
// signed anew replaces it). For a personal key: a new request from the certificate's subject and
// subject alternative names, for renewing it, written to fileName.
Rc recreateRequest(KeyStore& store, const std::string& label, int32_t signatureAlgorithm,
                   const char* fileName);

// IssueAsk - what an issue operation is asked for. extensions (DER Extensions) replace those of
// the same type the library adds; with caIssuer set the issuer must be a CA that may issue
// what is asked for.
struct IssueAsk {
    const uint8_t* request = nullptr;
    uint32_t requestLength = 0;
    int32_t version = 3;
    const char* serialNumber = nullptr;
    int32_t validityDays = 0;
    int32_t signatureAlgorithm = 1;
    const uint8_t* extensions = nullptr;
    uint32_t extensionsLength = 0;
    bool caIssuer = false;
};

// issue - a certificate for the request ask carries, signed with the key of the certificate
// under issuerLabel, after the request and the arguments have passed their checks.
Rc issue(KeyStore& store, const IssueAsk& ask, const std::string& issuerLabel, X509Ptr& out);

// validate - whether leaf chains up to a trusted certificate of the store; extra certificates
// (not trusted) may stand in the middle. isValid is 1 when it does, else a code says why not.
Rc validate(KeyStore& store, X509* leaf, std::vector<X509Ptr> extra, uint8_t* isValid);

// addSigner - the certificate in der as a trusted signer under label.
Rc addSigner(KeyStore& store, const char* label, const uint8_t* der, uint32_t length);

// isRenewal / renewWith - whether the certificate in der is for a personal key of the store,
// and it replacing that key's certificate (ZAVKM_ERR_REQKEY_FOR_CERT_NULL without one).
Rc isRenewal(KeyStore& store, const uint8_t* der, uint32_t length, uint8_t* renewal);
Rc renewWith(KeyStore& store, const uint8_t* der, uint32_t length);

// keyItemsByPublicKey - keyItemsBySpki for a DER SubjectPublicKeyInfo in any valid form.
Rc keyItemsByPublicKey(KeyStore& store, const uint8_t* der, uint32_t length,
                       ZAVKM_KeyItemList** list);

}  // namespace zavkm
