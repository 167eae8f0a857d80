// certs.cpp - `tolvik cert ...`: self-signed certificates, requests, issuing from a request,
// receiving, CA certificates and bundles, extracting, validating and renewing.
#include <algorithm>
#include <map>
#include <set>

#include "tolvik.h"

namespace tolvik {
namespace {

struct CertArgs {
    std::string label, in, out, issuer, serial, san, subject, key, keyUsage, extKeyUsage;
    int keySize = 0;
    int days = 365;
    int signature = 1;
    int pathLength = -1;
    bool makeDefault = false, der = false, ca = false;
};

const char* orNull(const std::string& s) { return s.empty() ? nullptr : s.c_str(); }
uint32_t size(const Bytes& b) { return static_cast<uint32_t>(b.size()); }

// librarySize - the key size selector the library takes for --key and --key-size.
int librarySize(const CertArgs& a) {
    std::string key = a.key;
    if (key.empty()) key = a.keySize == 256 || a.keySize == 384 || a.keySize == 521 ? "ec" : "rsa";
    if (key == "ed25519" || key == "ed448") {
        if (a.keySize != 0) throw UsageError{"--key-size: " + key + " keys have one size; leave it out"};
        return key == "ed25519" ? 25519 : 448;
    }
    const int bits = a.keySize != 0 ? a.keySize : key == "ec" ? 256 : 2048;
    if (key == "ec" && bits != 256 && bits != 384 && bits != 521)
        throw UsageError{"--key-size: EC keys are 256, 384 or 521 bits, not " + std::to_string(bits)};
    if (key == "rsa" && (bits < 1024 || bits > 16384))
        throw UsageError{"--key-size: RSA keys are 1024 to 16384 bits, not " + std::to_string(bits)};
    return bits;
}

Bytes sanDer(const std::string& san) {
    return extensionsDer({{"--san", "subjectAltName", san, "say DNS:name,IP:address,email:address"}});
}

// certificateOf - the DER of an entry's certificate.
Bytes certificateOf(ZAVKM_KeyDbHandle handle, const std::string& label) {
    zavkm::KeyItemPtr key;
    check(ZAVKM_GetKeyItemByLabel(handle, label.c_str(), out(key)), "read entry " + label);
    const ZAVKM_CertItem* cert = key->certList ? key->certList->cert : nullptr;
    if (cert == nullptr)
        throw Failure{"read the certificate of " + label, ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, ""};
    return Bytes(cert->der, cert->der + cert->derLength);
}

// writeCert - a certificate to the output, PEM unless DER is asked for.
void writeCert(const Context& ctx, const CertArgs& a, const Bytes& der) {
    std::string text = a.der ? std::string(der.begin(), der.end()) : pem("CERTIFICATE", der.data(), der.size());
    writeOutput(ctx, a.out, reinterpret_cast<const uint8_t*>(text.data()), text.size(), false);
}

// keep - runs `step` after an entry was added; when it fails the entry goes again.
template <class Step>
void keep(Step&& step, const std::function<void()>& undo) {
    try {
        step();
    } catch (...) {
        undo();
        throw;
    }
}

Json selfSign(Context& ctx, const CertArgs& a) {
    std::vector<std::string> texts;
    ZAVKM_DNItem subject = subjectOf(a.subject, texts);
    const int keySize = librarySize(a);
    Bytes ext = sanDer(a.san);
    checkOutput(ctx, a.out);
    Store store(ctx);
    check(withProgress(keySize,
                       [&] {
                           return ZAVKM_CreateSelfSignedCertSigExt(
                               store.handle, a.label.c_str(), a.makeDefault, 3, keySize, &subject,
                               a.days, a.signature, ext.empty() ? nullptr : ext.data(), size(ext),
                               nullptr, 0);
                       }),
          "make the self-signed certificate " + a.label);
    keep(
        [&] {
            zavkm::KeyItemPtr key;
            check(ZAVKM_GetKeyItemByLabel(store.handle, a.label.c_str(), out(key)), "read entry " + a.label);
            const ZAVKM_CertItem* cert = key->certList ? key->certList->cert : nullptr;
            if (!a.out.empty()) writeCert(ctx, a, Bytes(cert->der, cert->der + cert->derLength));
        },
        [&] { ZAVKM_DeleteKey(store.handle, a.label.c_str()); });
    Json row = change("add", a.label, "personal");
    row["trusted"] = true;
    row["default"] = a.makeDefault;
    return changed(Json::array({row}), a.out.empty() ? Json::array() : Json::array({file(a.out, "certificate")}));
}

// request - a new key pair and its request; without --subject, a request again for an entry
// that has its key already (a request key, or a personal key being renewed).
Json request(Context& ctx, const CertArgs& a) {
    checkOutput(ctx, a.out);
    if (a.subject.empty()) {
        Store store(ctx);
        Scratch scratch;
        const std::string made = scratch.file("request.pem");
        check(ZAVKM_ReCreateCertReq(store.handle, a.label.c_str(), made.c_str(), nullptr, nullptr),
              "write a request for " + a.label);
        Bytes text = readInput(made);
        writeOutput(ctx, a.out, text.data(), text.size(), false);
        return changed(Json::array(), Json::array({file(a.out, "request")}));
    }
    std::vector<std::string> texts;
    ZAVKM_DNItem subject = subjectOf(a.subject, texts);
    const int keySize = librarySize(a);
    Bytes ext = sanDer(a.san);
    Store store(ctx);
    check(withProgress(keySize,
                       [&] {
                           return ZAVKM_CreateNewCertReqSigExt(
                               store.handle, a.label.c_str(), keySize, &subject, a.signature,
                               ext.empty() ? nullptr : ext.data(), size(ext), nullptr, nullptr,
                               nullptr);
                       }),
          "make the request " + a.label);
    keep(
        [&] {
            zavkm::ReqKeyItemPtr request;
            check(ZAVKM_GetReqKeyItemByLabel(store.handle, a.label.c_str(), out(request)),
                  "read request " + a.label);
            const ZAVKM_CertReqItem& req = *request->certReq;
            std::string text = pem("CERTIFICATE REQUEST", req.der, req.derLength);
            writeOutput(ctx, a.out, reinterpret_cast<const uint8_t*>(text.data()), text.size(), false);
        },
        [&] { ZAVKM_DeleteRequestKeyPair(store.handle, a.label.c_str()); });
    return changed(Json::array({change("add", a.label, "request")}),
                   Json::array({file(a.out, "request")}));
}

// checkIssuer - fails unless the issuer's certificate may sign certificates (and CA
// certificates, when one is asked for).
void checkIssuer(ZAVKM_KeyDbHandle handle, const CertArgs& a) {
    Bytes der = certificateOf(handle, a.issuer);
    std::optional<CertFacts> f = certFacts(der.data(), der.size());
    const std::string what = "sign " + a.in + " with " + a.issuer;
    if (!f || !f->isCa || !f->canSign)
        throw Failure{what, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS,
                      a.issuer + " is not a CA certificate (basicConstraints CA:TRUE, keyCertSign)"};
    if (a.ca && f->pathLength == 0)
        throw Failure{what, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS,
                      a.issuer + " may not issue CA certificates (its path length is 0)"};
}

Json sign(Context& ctx, const CertArgs& a) {
    CertArgs args = a;
    args.ca = a.ca || a.pathLength >= 0;
    std::string constraints = args.ca ? "critical,CA:TRUE" : "";
    if (a.pathLength >= 0) constraints += ",pathlen:" + std::to_string(a.pathLength);
    Bytes ext = extensionsDer(
        {{"--key-usage", "keyUsage", a.keyUsage, "say digitalSignature,keyEncipherment (critical,... to mark it)"},
         {"--ext-key-usage", "extendedKeyUsage", a.extKeyUsage, "say serverAuth,clientAuth or dotted OIDs"},
         {"--ca", "basicConstraints", constraints, ""}});
    checkOutput(ctx, a.out);
    Bytes req = readInput(a.in);
    Store store(ctx);
    checkIssuer(store.handle, args);
    const std::string what = "sign " + a.in + " with " + a.issuer;
    Bytes cert;
    if (!ext.empty()) {
        uint8_t* der = nullptr;
        uint32_t length = 0;
        check(ZAVKM_IssueCertX(store.handle, req.data(), size(req), a.issuer.c_str(), orNull(a.serial),
                               a.days, a.signature, ext.data(), size(ext), &der, &length),
              what);
        cert.assign(der, der + length);
        ZAVKM_Free(der);
    } else {
        Scratch scratch;
        const std::string made = scratch.file("cert.der");
        check(ZAVKM_IssueCertSig(store.handle, req.data(), size(req), a.issuer.c_str(), 3,
                                 a.serial.c_str(), a.days, a.signature, made.c_str(), 0, nullptr, nullptr),
              what);
        cert = readInput(made);
    }
    writeCert(ctx, a, cert);
    Json result = changed(Json::array(), Json::array({file(a.out, "certificate")}));
    result["issuer"] = a.issuer;
    return result;
}

// labelOf - the label of the personal key that holds the certificate's public key.
Json labelOf(ZAVKM_KeyDbHandle handle, const Bytes& cert) {
    zavkm::CertItemListPtr certs;
    zavkm::KeyItemListPtr keys;
    ZAVKM_ExtractCertListFromPKCS7Data(cert.data(), size(cert), out(certs));
    if (!certs || !certs->cert) return nullptr;
    ZAVKM_GetKeyItemsByPublicKey(handle, certs->cert->spkiLength, certs->cert->spki, out(keys));
    return keys && keys->key ? Json(keys->key->label) : Json();
}

Json receive(Context& ctx, const CertArgs& a) {
    Bytes cert = readInput(a.in);
    Store store(ctx);
    check(ZAVKM_ReceiveCert(store.handle, cert.data(), size(cert), a.makeDefault), "receive " + a.in);
    Json label = labelOf(store.handle, cert);
    Json row = change("update", label.is_string() ? label.get<std::string>() : "", "personal");
    if (a.makeDefault) row["default"] = true;
    return changed(Json::array({row}));
}

// heldAs - the label under which the store holds exactly this certificate, empty when none.
std::string heldAs(ZAVKM_KeyDbHandle handle, const Bytes& der) {
    zavkm::CertItemListPtr list;
    const ZAVKM_ReturnCode rc = ZAVKM_ExtractCertListFromPKCS7Data(der.data(), size(der), out(list));
    if (rc != ZAVKM_OK || !list || !list->cert) return "";
    zavkm::KeyItemListPtr keys;
    ZAVKM_GetKeyItemsByPublicKey(handle, list->cert->spkiLength, list->cert->spki, out(keys));
    for (const ZAVKM_KeyItemList* k = keys.get(); k; k = k->next) {
        const ZAVKM_CertItem* c = k->key && k->key->certList ? k->key->certList->cert : nullptr;
        if (c && Bytes(c->der, c->der + c->derLength) == der) return k->key->label;
    }
    return "";
}

// unique - `base`, or "base (2)", "base (3)", ... whichever is not in `taken`; taken from then on.
std::string unique(const std::string& base, std::set<std::string>& taken) {
    std::string label = base.substr(0, 240);
    for (int n = 2; taken.count(label); ++n) label = base.substr(0, 240) + " (" + std::to_string(n) + ")";
    taken.insert(label);
    return label;
}

// addCa - every certificate of a PEM or PKCS#7 bundle: the first is the trust anchor and must be
// a CA certificate (unless --force); the others become signers that are not trusted, labelled by
// their common name. All of them or none.
Json addCa(Context& ctx, const CertArgs& a) {
    std::vector<Bytes> certs = certificates(readInput(a.in), a.in);
    std::optional<CertFacts> anchor = certFacts(certs[0].data(), certs[0].size());
    if (!ctx.force && !(anchor && anchor->isCa))
        throw Failure{"add " + a.in + " as " + a.label, ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS,
                      "its first certificate is not a CA certificate (CA:TRUE), so it cannot be a "
                      "trust anchor; --force trusts it all the same"};
    Store store(ctx);
    std::set<std::string> taken;
    zavkm::LabelListPtr labels;
    check(ZAVKM_GetKeyDbLabelList(store.handle, out(labels)), "list the labels");
    for (const ZAVKM_LabelList* n = labels.get(); n && n->label; n = n->next) taken.insert(n->label);
    taken.insert(a.label);
    std::vector<std::string> added;
    Json rows = Json::array();
    keep(
        [&] {
            for (size_t i = 0; i < certs.size(); ++i) {
                const std::string held = i == 0 ? "" : heldAs(store.handle, certs[i]);
                if (!held.empty()) {
                    ctx.warnings.push_back("certificate " + std::to_string(i + 1) + " of " + a.in +
                                           " is held already as " + held + "; not added again");
                    continue;
                }
                std::optional<CertFacts> f = certFacts(certs[i].data(), certs[i].size());
                const std::string label =
                    i == 0 ? a.label : unique(f && !f->commonName.empty() ? f->commonName : a.label, taken);
                check(ZAVKM_InsertKey(store.handle, label.c_str(), size(certs[i]), certs[i].data(), 0,
                                      nullptr, 0, i == 0),
                      "add certificate " + std::to_string(i + 1) + " of " + a.in + " as " + label);
                added.push_back(label);
                Json row = change("add", label, "signer");
                row["trusted"] = i == 0;
                rows.push_back(row);
            }
        },
        [&] {
            for (auto it = added.rbegin(); it != added.rend(); ++it) ZAVKM_DeleteKey(store.handle, it->c_str());
        });
    return changed(rows);
}

Json extract(Context& ctx, const CertArgs& a) {
    checkOutput(ctx, a.out);
    Store store(ctx);
    writeCert(ctx, a, certificateOf(store.handle, a.label));
    return changed(Json::array(), Json::array({file(a.out, "certificate")}));
}

// The codes that say why a chain does not validate, and how a JSON reader reads them.
const std::map<ZAVKM_ReturnCode, const char*> kInvalid{
    {ZAVKM_ERR_VALIDATION_KEY_VALIDITY, "a certificate of the chain has expired or is not yet valid"},
    {ZAVKM_ERR_VALIDATION_KEY_ISSUER_NOT_FOUND, "an issuer is neither in the key database nor in the input"},
    {ZAVKM_ERR_CERT_ROOT_NOT_TRUSTED, "the chain ends at a certificate that is not trusted"},
    {ZAVKM_ERR_VALIDATION_KEY_SIGNATURE, "a signature of the chain does not verify"},
    {ZAVKM_ERR_VALIDATION_KEY_BASIC_CONSTRAINTS, "an issuer of the chain is not a CA"},
    {ZAVKM_ERR_CERT_REVOKED, "a certificate of the chain is revoked"},
    {ZAVKM_ERR_INVALID_CERT_CHAIN, "the chain does not validate"}};

Json validate(Context& ctx, const CertArgs& a) {
    if (a.in.empty() && a.label.empty()) throw UsageError{"name the certificate: a LABEL or --in FILE"};
    Bytes data = a.in.empty() ? Bytes() : readInput(a.in);
    std::vector<Bytes> certs = a.in.empty() ? std::vector<Bytes>() : certificates(data, a.in);
    Store store(ctx);
    if (a.in.empty()) certs.push_back(certificateOf(store.handle, a.label));
    const std::string name = a.in.empty() ? a.label : a.in;
    uint8_t valid = 0;
    ZAVKM_ReturnCode rc;
    if (certs.size() > 1) {
        rc = ZAVKM_ValidateCertChainX(store.handle, data.data(), size(data), &valid);
    } else {
        rc = ZAVKM_ValidateCertChain(store.handle, certs[0].data(), size(certs[0]), &valid);
    }
    auto why = kInvalid.find(rc);
    Json result{{"certificate", name},
                {"valid", rc == ZAVKM_OK && valid != 0},
                {"code", rc == ZAVKM_OK ? Json() : Json(rc)},
                {"reason", why == kInvalid.end() ? Json() : Json(why->second)}};
    if (why != kInvalid.end())
        throw Failure{"validate the chain of " + name, rc, "", std::make_shared<const Json>(result)};
    check(rc, "validate the chain of " + name);
    return result;
}

Json renewCheck(Context& ctx, const CertArgs& a) {
    Bytes cert = readInput(a.in);
    Store store(ctx);
    uint8_t renewal = 0;
    check(ZAVKM_CheckCertAsRenewal(store.handle, cert.data(), size(cert), &renewal), "check " + a.in);
    return {{"certificate", a.in}, {"renewal", renewal != 0}};
}

Json renew(Context& ctx, const CertArgs& a) {
    Bytes cert = readInput(a.in);
    Store store(ctx);
    check(ZAVKM_RenewCert(store.handle, cert.data(), size(cert)), "renew with " + a.in);
    Json label = labelOf(store.handle, cert);
    return changed(Json::array({change("update", label.is_string() ? label.get<std::string>() : "", "personal")}));
}

using Action = Json (*)(Context&, const CertArgs&);

// add - one verb with its own arguments; `options` says which it takes ("x?" optional).
CLI::App* add(CLI::App& noun, Context& ctx, const char* name, const char* about, Action action,
              const std::string& options, const std::function<void(CLI::App*)>& storeOptions,
              int days = 365) {
    auto a = std::make_shared<CertArgs>();
    a->days = days;
    CLI::App* cmd = verb(noun, name, about, ctx, [&ctx, a, action] { return action(ctx, *a); });
    std::string words = " " + options + " ";
    auto optional = [&words](const std::string& o) { return words.find(" " + o + "? ") != std::string::npos; };
    auto has = [&](const std::string& o) { return optional(o) || words.find(" " + o + " ") != std::string::npos; };
    if (has("label")) addLabel(cmd, "label", a->label, "the entry's label")->required(!optional("in"));
    if (has("subject")) {
        cmd->add_option("-s,--subject", a->subject,
                        "the subject: CN=name,OU=..,O=..,L=..,ST=..,C=XX,emailAddress=..,DC=.. "
                        "(a comma in a value as \\,)")
            ->required(!optional("subject"));
        cmd->add_option("--key", a->key, "the key's algorithm: rsa, ec, ed25519 or ed448")
            ->check(CLI::IsMember({"rsa", "ec", "ed25519", "ed448"}));
        cmd->add_option("-k,--key-size", a->keySize, "bits: RSA 1024-16384 (2048), EC 256, 384 or 521 (256)");
        cmd->add_option("--san", a->san, "subject alternative names: DNS:a.example,IP:10.0.0.1");
    }
    if (has("sig")) {
        cmd->add_option("--sig", a->signature, "signature digest: sha256 or sha384 (EdDSA has its own)")
            ->transform(CLI::CheckedTransformer(std::map<std::string, int>{{"sha256", 1}, {"sha384", 2}}))
            ->type_name("DIGEST");
    }
    if (has("days"))
        cmd->add_option("--days", a->days, "validity in days, 1 to 9999")->check(CLI::Range(1, 9999))->capture_default_str();
    if (has("default")) cmd->add_flag("--default", a->makeDefault, "make it the default key");
    if (has("in")) cmd->add_option("-i,--in", a->in, "the input file, PEM or DER (- for standard input)")->required(!optional("in"));
    if (has("out")) addOutput(cmd, a->out, ctx, "the output file")->required(!optional("out"));
    if (has("force") && !has("out")) cmd->add_flag("--force", ctx.force, "trust a first certificate that is no CA");
    if (has("der")) cmd->add_flag("--der", a->der, "write DER instead of PEM");
    if (has("issuer")) {
        addLabel(cmd, "--issuer", a->issuer, "the signing key's label")->required();
        cmd->add_option("--serial", a->serial, "serial number, decimal or 0x hex (default random)");
        cmd->add_option("--key-usage", a->keyUsage, "key usages: digitalSignature,keyEncipherment,... (critical,... marks them critical)");
        cmd->add_option("--ext-key-usage", a->extKeyUsage, "extended key usages: serverAuth,clientAuth,codeSigning,... or OIDs");
        cmd->add_flag("--ca", a->ca, "issue a CA certificate (basicConstraints CA:TRUE)");
        cmd->add_option("--path-len", a->pathLength, "a CA certificate's path length (implies --ca)")->check(CLI::Range(0, 16));
    }
    storeOptions(cmd);
    return cmd;
}

}  // namespace

void addKeyPairVerbs(CLI::App& noun, Context& ctx, const std::function<void(CLI::App*)>& storeOptions) {
    add(noun, ctx, "selfsign", "a new key pair with a self-signed CA certificate", selfSign,
        "label subject sig days default out? der", storeOptions, 3650);
    add(noun, ctx, "request",
        "a new key pair and its PKCS#10 request (without --subject: the request again for an "
        "existing key)",
        request, "label subject? sig out", storeOptions);
    add(noun, ctx, "sign", "issue a certificate from a request file (SAN copied) with a CA key",
        sign, "in out issuer days sig der", storeOptions);
}

void addReceiveVerb(CLI::App& noun, Context& ctx, const std::function<void(CLI::App*)>& storeOptions) {
    add(noun, ctx, "receive", "store the certificate issued for a request key", receive, "in default",
        storeOptions);
}

void addCertCommands(CLI::App& app, Context& ctx) {
    CLI::App* cert = app.add_subcommand("cert", "make, sign, receive, check and renew certificates");
    cert->require_subcommand(1);
    addStoreOptions(cert, ctx);
    auto store = [&ctx](CLI::App* cmd) { addStoreOptions(cmd, ctx); };
    addKeyPairVerbs(*cert, ctx, store);
    addReceiveVerb(*cert, ctx, store);
    add(*cert, ctx, "add-ca",
        "store the CA certificates of a file (PEM bundle, PKCS#7 or DER): the first trusted "
        "under LABEL, the others as signers that are not trusted",
        addCa, "label in force", store);
    add(*cert, ctx, "extract", "write an entry's certificate to a file", extract, "label out der", store);
    add(*cert, ctx, "validate",
        "check a certificate's chain against the trusted entries (with the intermediates of "
        "--in)",
        validate, "label? in?", store);
    add(*cert, ctx, "renew-check", "say whether a certificate renews a personal key", renewCheck, "in", store);
    add(*cert, ctx, "renew", "replace a personal key's certificate with its renewal", renew, "in", store);
}

}  // namespace tolvik
