// keystore.h - one key store, two backends: what the operations written once above it need of
// a key database file (store/file) and of a PKCS#11 token (store/token).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/common.h"
#include "pki/records.h"
#include "pki/x509util.h"
#include "zavkm_ext.h"

namespace zavkm {

// StoreKey - a key pair of a store: its public half and how it signs (signingKey() locally, or
// remote() on the token). A key pair generate() made and nobody kept leaves nothing behind when
// its StoreKey goes.
class StoreKey {
  public:
    virtual ~StoreKey() = default;
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

// StoredEntry - what a label holds: a request key's request, or a certificate; id is the
// store's own reference to it (a row id in a key database, 0 on a token).
struct StoredEntry {
    X509ReqPtr request;
    X509Ptr cert;
    int64_t id = 0;
};

// KeyStore - an open key database file or token, as the shared operations see it. Every call
// runs with the store's handle locked by the caller. Labels are canonical text already.
class KeyStore {
  public:
    virtual ~KeyStore() = default;
    // readOnly - whether the store takes no change (the platform store).
    virtual bool readOnly() const { return false; }

    // keyLabels / requestLabels - the labels of certificates (with or without a key) and of
    // request keys, in the store's order.
    virtual Rc keyLabels(std::vector<std::string>& out) = 0;
    virtual Rc requestLabels(std::vector<std::string>& out) = 0;
    // checkNewLabel - ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL when a new personal key (or, with
    // forRequest, a new request key) may not take label.
    virtual Rc checkNewLabel(const std::string& label, bool forRequest) = 0;

    // generate - a new key pair of keySize (the selectors of generateKey) for label.
    virtual Rc generate(int32_t keySize, const std::string& label,
                        std::unique_ptr<StoreKey>& out) = 0;
    // keepCertificate - cert and the generated key kept under label (the default key when
    // makeDefault), the output written on the way; all of it or nothing.
    virtual Rc keepCertificate(StoreKey& key, const std::string& label, X509* cert,
                               bool makeDefault, const Output& output) = 0;
    // keepRequest - req and the generated key kept as a request key under label, the output
    // written on the way; all of it or nothing.
    virtual Rc keepRequest(StoreKey& key, const std::string& label, X509_REQ* req,
                           const Output& output) = 0;

    // findEntry - the request key under label, else the certificate under label;
    // ZAVKM_ERR_KEY_GET_BY_LABEL when there is neither.
    virtual Rc findEntry(const std::string& label, StoredEntry& out) = 0;
    // entryKey - the key pair of an entry findEntry gave; ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL when
    // the store holds no private key for it.
    virtual Rc entryKey(const std::string& label, const StoredEntry& entry,
                        std::unique_ptr<StoreKey>& out) = 0;
    // replaceRequest - the request of the request key entry (under label) replaced by req, the
    // output written on the way; ZAVKM_ERR_KEY_GET_BY_LABEL when the entry changed meanwhile.
    virtual Rc replaceRequest(const std::string& label, const StoredEntry& entry, X509_REQ* req,
                              const Output& output) = 0;
    // issuerKey - the certificate under label and its key pair, to issue with.
    virtual Rc issuerKey(const std::string& label, X509Ptr& cert,
                         std::unique_ptr<StoreKey>& key) = 0;

    // keyItem / keyItemList - the key item of the certificate under label (the list: of every
    // certificate under it); ZAVKM_ERR_KEY_GET_BY_LABEL when there is none.
    virtual Rc keyItem(const std::string& label, KeyItemPtr& out) = 0;
    virtual Rc keyItemList(const std::string& label, ZAVKM_KeyItemList** list) = 0;
    // keyItemsBySpki - the key items of every certificate for the public key spki (DER).
    virtual Rc keyItemsBySpki(const Bytes& spki, ZAVKM_KeyItemList** list) = 0;
    // reqKeyItem - the item of the request key under label.
    virtual Rc reqKeyItem(const std::string& label, ReqKeyItemPtr& out) = 0;
    // privateKeyPresent - whether the store holds the private key of the entry under label.
    virtual Rc privateKeyPresent(const std::string& label, bool& present) = 0;
    // certificate - the certificate under label.
    virtual Rc certificate(const std::string& label, X509Ptr& out) = 0;
    // chainCandidates - every certificate the store holds for chains, its anchors trusted.
    virtual Rc chainCandidates(std::vector<ChainCandidate>& out) = 0;
    // listEntries - every entry as ZAVKM_ListEntriesX gives them; damaged counts the entries a
    // key database could not vouch for and left out.
    virtual Rc listEntries(uint32_t flags, ZAVKM_Entry** entries, uint32_t* count,
                           uint32_t& damaged) = 0;

    // deleteEntry - the certificate (or, with request, the request key) under label, with its
    // key pair.
    virtual Rc deleteEntry(const std::string& label, bool request) = 0;
    // storeSigner - cert (read under the signature and key policy) as a signer under label.
    virtual Rc storeSigner(const std::string& label, X509* cert) = 0;
    // receive - the certificates in der (one, or with its chain) for a request key of the
    // store: the request key becomes a personal key (the default when makeDefault).
    virtual Rc receive(const uint8_t* der, uint32_t length, bool makeDefault) = 0;
    // renewalLabel - the label of the personal key whose key pair cert is for; empty when none.
    virtual Rc renewalLabel(X509* cert, std::string& label) = 0;
    // renew - cert replaces the certificate of the personal key under label (renewalLabel's).
    virtual Rc renew(const std::string& label, X509* cert) = 0;
    // addSignersThen - in one change: the certificates of chain the store lacks as signers
    // (not trusted, labelled by their common name made unique), then then(); all or nothing.
    virtual Rc addSignersThen(const std::vector<X509Ptr>& chain, const std::function<Rc()>& then) = 0;
};

// ZAVKM_KEY_STORE_OPERATIONS - the declarations of every operation a backend implements, for
// the class body of a KeyStore backend (one list, so the two backends cannot drift apart).
#define ZAVKM_KEY_STORE_OPERATIONS                                                                \
    Rc keyLabels(std::vector<std::string>& out) override;                                        \
    Rc requestLabels(std::vector<std::string>& out) override;                                    \
    Rc checkNewLabel(const std::string& label, bool forRequest) override;                        \
    Rc generate(int32_t keySize, const std::string& label, std::unique_ptr<StoreKey>& out)       \
        override;                                                                                 \
    Rc keepCertificate(StoreKey& key, const std::string& label, X509* cert, bool makeDefault,   \
                       const Output& output) override;                                          \
    Rc keepRequest(StoreKey& key, const std::string& label, X509_REQ* req, const Output& output) \
        override;                                                                                 \
    Rc findEntry(const std::string& label, StoredEntry& out) override;                           \
    Rc entryKey(const std::string& label, const StoredEntry& entry,                              \
                std::unique_ptr<StoreKey>& out) override;                                        \
    Rc replaceRequest(const std::string& label, const StoredEntry& entry, X509_REQ* req,        \
                      const Output& output) override;                                           \
    Rc issuerKey(const std::string& label, X509Ptr& cert, std::unique_ptr<StoreKey>& key)        \
        override;                                                                                 \
    Rc keyItem(const std::string& label, KeyItemPtr& out) override;                              \
    Rc keyItemList(const std::string& label, ZAVKM_KeyItemList** list) override;                 \
    Rc keyItemsBySpki(const Bytes& spki, ZAVKM_KeyItemList** list) override;                     \
    Rc reqKeyItem(const std::string& label, ReqKeyItemPtr& out) override;                        \
    Rc privateKeyPresent(const std::string& label, bool& present) override;                     \
    Rc certificate(const std::string& label, X509Ptr& out) override;                             \
    Rc chainCandidates(std::vector<ChainCandidate>& out) override;                               \
    Rc listEntries(uint32_t flags, ZAVKM_Entry** entries, uint32_t* count, uint32_t& damaged)   \
        override;                                                                                 \
    Rc deleteEntry(const std::string& label, bool request) override;                             \
    Rc storeSigner(const std::string& label, X509* cert) override;                               \
    Rc receive(const uint8_t* der, uint32_t length, bool makeDefault) override;                  \
    Rc renewalLabel(X509* cert, std::string& label) override;                                    \
    Rc renew(const std::string& label, X509* cert) override;                                     \
    Rc addSignersThen(const std::vector<X509Ptr>& chain, const std::function<Rc()>& then)        \
        override;

// PairedStore - runs fn on the key database paired with a token, locked for the call; paired
// says whether there was one (without one, fn does not run and ZAVKM_OK answers).
using PairedStore = std::function<Rc(const std::function<Rc(KeyStore&)>& fn, bool& paired)>;

// finishWithOutput - stage(), then output, then commit(); when output or commit fails after the
// file was written, the file goes again. The backends' changes share this order.
Rc finishWithOutput(const Output& output, const std::function<Rc()>& stage,
                    const std::function<Rc()>& commit);

}  // namespace zavkm
