// keystore.h - one key store, two backends: what the operations written once above it need of
// a key database file (store/file) and of a PKCS#11 token (store/token).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/common.h"
#include "pki/x509util.h"

namespace zavkm {

// NewKey - a key pair a store made for a label and has not kept yet: its public half and how it
// signs (signingKey() locally, or remote() on the token). Dropping a NewKey that was not kept
// leaves nothing of it in its store.
class NewKey {
  public:
    virtual ~NewKey() = default;
    // publicKey - the key that goes into a certificate or request (a private key of the process
    // carries its public half).
    virtual EVP_PKEY* publicKey() = 0;
    // signingKey - the private key to sign with, or the public half when remote() signs.
    virtual EVP_PKEY* signingKey() = 0;
    // remote - the signer inside the store, or null when signingKey() signs.
    virtual RemoteSigner* remote() = 0;
};

// Output - a file the caller named, written after the store staged its change and before the
// change is final; fileName null means there is none. When the change then fails, the file is
// removed again, so the store and the file agree.
struct Output {
    const char* fileName = nullptr;
    std::function<Rc()> write;
};

// KeyStore - an open key database file or token, as the shared operations see it. Every call
// runs with the store's handle locked by the caller.
class KeyStore {
  public:
    virtual ~KeyStore() = default;
    // keyLabels / requestLabels - the labels of certificates (with or without a key) and of
    // request keys, in the store's order.
    virtual Rc keyLabels(std::vector<std::string>& out) = 0;
    virtual Rc requestLabels(std::vector<std::string>& out) = 0;
    // checkNewLabel - ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when a new personal key (or, with
    // forRequest, a new request key) may not take label.
    virtual Rc checkNewLabel(const std::string& label, bool forRequest) = 0;
    // generate - a new key pair of keySize (the selectors of generateKey) for label.
    virtual Rc generate(int32_t keySize, const std::string& label, std::unique_ptr<NewKey>& out) = 0;
    // keepCertificate - cert and key kept under label (the default key when makeDefault), the
    // output written on the way; all of it or nothing.
    virtual Rc keepCertificate(NewKey& key, const std::string& label, X509* cert,
                               bool makeDefault, const Output& output) = 0;
    // keepRequest - req and key kept as a request key under label, the output written on the
    // way; all of it or nothing.
    virtual Rc keepRequest(NewKey& key, const std::string& label, X509_REQ* req,
                           const Output& output) = 0;
};

// finishWithOutput - stage(), then output, then commit(); when output or commit fails after the
// file was written, the file goes again. The backends' keep operations share this order.
Rc finishWithOutput(const Output& output, const std::function<Rc()>& stage,
                    const std::function<Rc()>& commit);

}  // namespace zavkm
