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

}  // namespace zavkm
