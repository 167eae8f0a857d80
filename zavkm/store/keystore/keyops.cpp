// keyops.cpp - the key-store operations written once for key database files and tokens.
#include "store/keystore/keyops.h"

#include <unistd.h>

#include "base/utf.h"
#include "pki/records.h"
#include "pki/x509records.h"

namespace zavkm {

Rc finishWithOutput(const Output& output, const std::function<Rc()>& stage,
                    const std::function<Rc()>& commit) {
    if (Rc rc = stage(); rc != ZAVKM_OK) return rc;
    if (output.fileName != nullptr)
        if (Rc rc = output.write(); rc != ZAVKM_OK) return rc;
    Rc rc = commit();
    if (rc != ZAVKM_OK && output.fileName != nullptr) ::unlink(output.fileName);
    return rc;
}

Rc createSelfSigned(KeyStore& store, const SelfSignedArgs& a) {
    if (Rc rc = checkLabelText(a.label); rc != ZAVKM_OK) return rc;
    if (Rc rc = checkValidityDays(a.validityDays); rc != ZAVKM_OK) return rc;
    const EVP_MD* md = nullptr;
    if (Rc rc = signatureDigest(a.signatureAlgorithm, md); rc != ZAVKM_OK) return rc;
    X509NamePtr name;
    if (Rc rc = nameFromDN(a.subject, name); rc != ZAVKM_OK) return rc;
    ExtStackPtr extra;
    if (Rc rc = parseExtensions(a.extensions, a.extensionsLength, extra); rc != ZAVKM_OK) return rc;
    if (Rc rc = store.checkNewLabel(a.label, false); rc != ZAVKM_OK) return rc;  // before keygen
    Asn1IntPtr serial;
    if (Rc rc = parseSerial(nullptr, serial); rc != ZAVKM_OK) return rc;
    std::unique_ptr<NewKey> key;
    if (Rc rc = store.generate(a.keySize, a.label, key); rc != ZAVKM_OK) return rc;
    CertPlan plan;
    plan.version = a.version;
    plan.subject = name.get();
    plan.subjectKey = key->publicKey();
    plan.signingKey = key->signingKey();
    plan.remote = key->remote();
    plan.serial = serial.get();
    plan.days = a.validityDays;
    plan.md = md;
    plan.ca = true;
    plan.extra = extra.get();
    X509Ptr cert;
    if (Rc rc = makeCertificate(plan, cert); rc != ZAVKM_OK) return rc;
    const Output output{isEmpty(a.certFileName) ? nullptr : a.certFileName,
                        [&] { return writeCertificateFile(a.certFileName, cert.get(), a.pem); }};
    return store.keepCertificate(*key, a.label, cert.get(), a.makeDefault, output);
}

Rc createRequest(KeyStore& store, const RequestArgs& a) {
    if (Rc rc = checkLabelText(a.label); rc != ZAVKM_OK) return rc;
    const EVP_MD* md = nullptr;
    if (Rc rc = signatureDigest(a.signatureAlgorithm, md); rc != ZAVKM_OK) return rc;
    X509NamePtr name;
    if (Rc rc = nameFromDN(a.subject, name); rc != ZAVKM_OK) return rc;
    ExtStackPtr exts;
    if (Rc rc = parseExtensions(a.extensions, a.extensionsLength, exts); rc != ZAVKM_OK) return rc;
    if (Rc rc = store.checkNewLabel(a.label, true); rc != ZAVKM_OK) return rc;
    std::unique_ptr<NewKey> key;
    if (Rc rc = store.generate(a.keySize, a.label, key); rc != ZAVKM_OK) return rc;
    X509ReqPtr req;
    if (Rc rc = makeRequest(name.get(), key->signingKey(), exts.get(), md, req, key->remote());
        rc != ZAVKM_OK)
        return rc;
    const Output output{isEmpty(a.requestFileName) ? nullptr : a.requestFileName,
                        [&] { return writeRequestFile(a.requestFileName, req.get()); }};
    return store.keepRequest(*key, a.label, req.get(), output);
}

Rc labelList(KeyStore& store, bool requests, ZAVKM_LabelList** list) {
    *list = nullptr;
    std::vector<std::string> labels;
    Rc rc = requests ? store.requestLabels(labels) : store.keyLabels(labels);
    if (rc != ZAVKM_OK) return rc;
    LabelListBuilder builder;
    for (const std::string& label : labels) builder.add(label);
    *list = builder.take();
    return ZAVKM_OK;
}

}  // namespace zavkm
