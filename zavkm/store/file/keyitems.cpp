// keyitems.cpp - key records for the caller.
#include "keyitems.h"

#include "certcache.h"
#include "epki.h"
#include "x509records.h"
#include "x509util.h"

namespace zavkm {

Rc chainOf(View& v, X509Ptr cert, std::vector<X509Ptr>& chain) {
    chain.clear();
    chain.push_back(std::move(cert));
    while (chain.size() < 16) {
        X509* last = chain.back().get();
        if (isSelfSigned(last)) break;
        std::vector<KeyRow> candidates;
        Bytes issuerName = derOf(X509_get_issuer_name(last));
        if (Rc rc = findKeysBySubject(v, issuerName, candidates); rc != ZAVKM_OK) return rc;
        X509Ptr next;
        for (const KeyRow& row : candidates) {
            X509Ptr candidate = cachedCertificate(row.cert);
            if (candidate && signedBy(last, candidate.get())) {
                next = std::move(candidate);
                break;
            }
        }
        if (!next) break;
        bool seen = false;  // a loop of cross-signed certificates ends the walk
        for (const X509Ptr& c : chain) seen = seen || X509_cmp(c.get(), next.get()) == 0;
        if (seen) break;
        chain.push_back(std::move(next));
    }
    return ZAVKM_OK;
}

Rc privateKeyOf(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki, PkeyPtr& key) {
    if (sealed.empty()) return ZAVKM_ERR_KEYDB_PRIVATE_KEY_NULL;
    SecretBytes pkcs8;
    if (Rc rc = openPrivateKey(kdb, sealed, spki, pkcs8); rc != ZAVKM_OK) return rc;
    key = keyFromPkcs8(pkcs8);
    return key ? ZAVKM_OK : ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
}

namespace {

// epkiOf - the sealed key as an EPKI record.
Rc epkiOf(const KeyDb& kdb, const Bytes& sealed, const Bytes& spki, EPKIPtr& out) {
    SecretBytes pkcs8;
    if (Rc rc = openPrivateKey(kdb, sealed, spki, pkcs8); rc != ZAVKM_OK) return rc;
    Bytes der;
    if (Rc rc = epkiForKeyDb(kdb, pkcs8, der); rc != ZAVKM_OK) return rc;
    EPKIPtr epki(newRecord<ZAVKM_EPKIItem>());
    copyBytes(der, &epki->der, &epki->derLength);
    out = std::move(epki);
    return ZAVKM_OK;
}

}  // namespace

Rc keyItemOf(View& v, const KeyRow& row, KeyItemPtr& out) {
    const KeyDb& kdb = v.kdb;
    KeyItemPtr item(newRecord<ZAVKM_KeyItem>());
    item->shortValue1 = row.keyType;
    item->label = copyText(row.label);
    item->keySize = row.keyBits;
    item->keyFlag1 = row.isDefault ? 1 : 0;
    item->keyFlag2 = row.trusted ? 1 : 0;
    copyBytes(row.spki, &item->keyBer, &item->keyBerLength);
    item->hasKeyBer = 1;
    if (!row.privateKey.empty()) {
        EPKIPtr epki;
        if (Rc rc = epkiOf(kdb, row.privateKey, row.spki, epki); rc != ZAVKM_OK) return rc;
        item->epki = epki.release();
        item->hasPrivateKey = 1;
    }
    X509Ptr cert = cachedCertificate(row.cert);
    if (!cert) return ZAVKM_ERR_DATABASE_CORRUPTION;
    std::vector<X509Ptr> chain;
    if (Rc rc = chainOf(v, std::move(cert), chain); rc != ZAVKM_OK) return rc;
    CertItemListPtr list;
    if (Rc rc = certListRecord(chain, list); rc != ZAVKM_OK) return rc;
    item->certList = list.release();
    item->hasCertList = 1;
    out = std::move(item);
    return ZAVKM_OK;
}

Rc reqKeyItemOf(const KeyDb& kdb, const RequestRow& row, ReqKeyItemPtr& out) {
    X509ReqPtr req = parseRequest(row.request.data(), row.request.size());
    if (!req) return ZAVKM_ERR_DATABASE_CORRUPTION;
    ReqKeyItemPtr item;
    if (Rc rc = reqKeyItemRecord(row.label, row.keyType, row.keyBits, row.spki, req.get(), item);
        rc != ZAVKM_OK)
        return rc;
    EPKIPtr epki;
    if (Rc rc = epkiOf(kdb, row.privateKey, row.spki, epki); rc != ZAVKM_OK) return rc;
    item->epki = epki.release();
    out = std::move(item);
    return ZAVKM_OK;
}

Rc certColumns(X509* cert, const EVP_PKEY* key, KeyRow& row) {
    row.cert = derOf(cert);
    row.spki = spkiOf(key);
    row.subject = derOf(X509_get_subject_name(cert));
    KeyInfo info = keyInfo(key);
    row.keyType = info.algorithm;
    row.keyBits = info.bits;
    return row.cert.empty() || row.spki.empty() ? sslError(ZAVKM_ERR_ASN) : ZAVKM_OK;
}

Rc signerRowOf(X509* cert, KeyRow& row) {
    EVP_PKEY* key = X509_get0_pubkey(cert);
    if (key == nullptr) return sslError(ZAVKM_ERR_ASN);
    if (Rc rc = checkKeyPolicy(key); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkSignaturePolicy(X509_get_signature_nid(cert)); rc != ZAVKM_OK) return rc;
    return certColumns(cert, key, row);
}

}  // namespace zavkm
