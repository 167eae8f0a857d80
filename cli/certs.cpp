// certs.cpp - `tolvik cert ...`: self-signed certificates, requests, issuing from a request,
// receiving, CA certificates, extracting, validating and renewing.
#include <map>

#include "tolvik.h"

namespace tolvik {
namespace {

struct CertArgs {
    std::string label, in, out, issuer, serial, san;
    std::vector<std::string> subject;
    int keySize = 2048;
    int days = 365;
    int signature = 1;
    bool makeDefault = false, der = false;
};

const char* orNull(const std::string& s) { return s.empty() ? nullptr : s.c_str(); }
uint32_t size(const Bytes& b) { return static_cast<uint32_t>(b.size()); }

Json selfSign(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    ZAVKM_DNItem subject = subjectOf(a.subject);
    Bytes ext = extensionsDer(a.san);
    check(withProgress(a.keySize,
                       [&] {
                           return ZAVKM_CreateSelfSignedCertSigExt(
                               store.handle, a.label.c_str(), a.makeDefault, 3, a.keySize, &subject,
                               a.days, a.signature, ext.empty() ? nullptr : ext.data(), size(ext),
                               orNull(a.out), !a.der);
                       }),
          "make the self-signed certificate " + a.label);
    return {{"created", a.label}, {"file", a.out.empty() ? Json() : Json(a.out)}};
}

// request - a new key pair and its request; without --subject, a request again for an entry
// that has its key already (a request key, or a personal key being renewed).
Json request(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    if (a.subject.empty()) {
        check(ZAVKM_ReCreateCertReq(store.handle, a.label.c_str(), a.out.c_str(), nullptr, nullptr),
              "write a request for " + a.label);
        return {{"request", a.label}, {"file", a.out}};
    }
    ZAVKM_DNItem subject = subjectOf(a.subject);
    Bytes ext = extensionsDer(a.san);
    check(withProgress(a.keySize,
                       [&] {
                           return ZAVKM_CreateNewCertReqSigExt(
                               store.handle, a.label.c_str(), a.keySize, &subject, a.signature,
                               ext.empty() ? nullptr : ext.data(), size(ext), a.out.c_str(),
                               nullptr, nullptr);
                       }),
          "make the request " + a.label);
    return {{"request", a.label}, {"file", a.out}};
}

Json sign(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    Bytes req = readFile(a.in);
    check(ZAVKM_IssueCertSig(store.handle, req.data(), size(req), a.issuer.c_str(), 3,
                             a.serial.c_str(), a.days, a.signature, a.out.c_str(), !a.der, nullptr,
                             nullptr),
          "sign " + a.in + " with " + a.issuer);
    return {{"issued", a.out}, {"issuer", a.issuer}};
}

// labelOf - the label of the personal key that holds the certificate's public key.
Json labelOf(ZAVKM_KeyDbHandle handle, const Bytes& cert) {
    CertList certs;
    Owned<ZAVKM_KeyItemList, ZAVKM_FreeKeyItemList> keys;
    ZAVKM_ExtractCertListFromPKCS7Data(cert.data(), size(cert), out(certs));
    if (!certs || !certs->cert) return nullptr;
    ZAVKM_GetKeyItemsByPublicKey(handle, certs->cert->spkiLength, certs->cert->spki, out(keys));
    return keys && keys->key ? Json(keys->key->label) : Json();
}

Json receive(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    Bytes cert = readFile(a.in);
    check(ZAVKM_ReceiveCert(store.handle, cert.data(), size(cert), a.makeDefault),
          "receive " + a.in);
    return {{"received", a.in}, {"label", labelOf(store.handle, cert)}};
}

Json addCa(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    Bytes cert = readFile(a.in);
    check(ZAVKM_StoreCACert(store.handle, cert.data(), size(cert), a.label.c_str()),
          "add " + a.in + " as " + a.label);
    return {{"added", a.label}, {"trusted", true}};
}

Json extract(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    check(ZAVKM_ExportCert(store.handle, a.label.c_str(), a.out.c_str(), !a.der),
          "extract the certificate of " + a.label);
    return {{"extracted", a.label}, {"file", a.out}};
}

// certificate - the bytes of --in, or else of the entry's certificate.
Bytes certificate(ZAVKM_KeyDbHandle handle, const CertArgs& a) {
    if (!a.in.empty()) return readFile(a.in);
    if (a.label.empty()) throw UsageError{"name the certificate: a LABEL or --in FILE"};
    KeyItem key;
    check(ZAVKM_GetKeyItemByLabel(handle, a.label.c_str(), out(key)), "read entry " + a.label);
    const ZAVKM_CertItem* cert = key->certList ? key->certList->cert : nullptr;
    if (cert == nullptr)
        throw Failure{"read the certificate of " + a.label, ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, ""};
    return Bytes(cert->der, cert->der + cert->derLength);
}

Json validate(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    Bytes cert = certificate(store.handle, a);
    uint8_t valid = 0;
    std::string name = a.in.empty() ? a.label : a.in;
    check(ZAVKM_ValidateCertChain(store.handle, cert.data(), size(cert), &valid),
          "validate the chain of " + name);
    return {{"certificate", name}, {"valid", valid != 0}};
}

Json renewCheck(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    Bytes cert = readFile(a.in);
    uint8_t renewal = 0;
    check(ZAVKM_CheckCertAsRenewal(store.handle, cert.data(), size(cert), &renewal),
          "check " + a.in);
    return {{"certificate", a.in}, {"renewal", renewal != 0}};
}

Json renew(Context& ctx, const CertArgs& a) {
    Store store(ctx);
    Bytes cert = readFile(a.in);
    check(ZAVKM_RenewCert(store.handle, cert.data(), size(cert)), "renew with " + a.in);
    return {{"renewed", labelOf(store.handle, cert)}, {"certificate", a.in}};
}

using Action = Json (*)(Context&, const CertArgs&);

// add - one verb with its own arguments; `options` says which it takes.
CLI::App* add(CLI::App& cert, Context& ctx, const char* name, const char* about, Action action,
              const std::string& options, int days = 365) {
    auto a = std::make_shared<CertArgs>();
    a->days = days;
    CLI::App* cmd = verb(cert, name, about, ctx, [&ctx, a, action] { return action(ctx, *a); });
    std::string words = " " + options + " ";
    auto optional = [&words](const std::string& o) {
        return words.find(" " + o + "? ") != std::string::npos;
    };
    auto has = [&](const std::string& o) {
        return optional(o) || words.find(" " + o + " ") != std::string::npos;
    };
    if (has("label"))
        cmd->add_option("label", a->label, "the entry's label")->required(!optional("in"));
    if (has("subject")) {
        cmd->add_option("-s,--subject", a->subject,
                        "the subject: CN=name,OU=..,O=..,L=..,ST=..,C=XX")
            ->delimiter(',')
            ->required(!optional("subject"));
        cmd->add_option("-k,--key-size", a->keySize,
                        "RSA bits (1024-16384), or 256, 384, 521 for EC")
            ->capture_default_str();
        cmd->add_option("--san", a->san, "subject alternative names: DNS:a.example,IP:10.0.0.1");
    }
    if (has("sig")) {
        cmd->add_option("--sig", a->signature, "signature digest: sha256 or sha384")
            ->transform(
                CLI::CheckedTransformer(std::map<std::string, int>{{"sha256", 1}, {"sha384", 2}}))
            ->type_name("DIGEST");
    }
    if (has("days")) cmd->add_option("--days", a->days, "validity in days")->capture_default_str();
    if (has("default")) cmd->add_flag("--default", a->makeDefault, "make it the default key");
    if (has("in"))
        cmd->add_option("-i,--in", a->in, "the input file (PEM or DER)")->required(!optional("in"));
    if (has("out"))
        cmd->add_option("-o,--out", a->out, "the output file")->required(!optional("out"));
    if (has("der")) cmd->add_flag("--der", a->der, "write DER instead of PEM");
    if (has("issuer"))
        cmd->add_option("--issuer", a->issuer, "the signing key's label")->required();
    if (has("serial"))
        cmd->add_option("--serial", a->serial, "serial number, decimal or 0x hex (default random)");
    return cmd;
}

}  // namespace

void addKeyPairVerbs(CLI::App& noun, Context& ctx) {
    add(noun, ctx, "selfsign", "a new key pair with a self-signed CA certificate", selfSign,
        "label subject sig days default out? der", 3650);
    add(noun, ctx, "request",
        "a new key pair and its PKCS#10 request (without --subject: the "
        "request again for an existing key)",
        request, "label subject? sig out");
    add(noun, ctx, "sign", "issue a certificate from a request file (SAN copied)", sign,
        "in out issuer serial days sig der");
}

void addCertCommands(CLI::App& app, Context& ctx) {
    CLI::App* cert =
        app.add_subcommand("cert", "make, sign, receive, check and renew certificates");
    cert->require_subcommand(1);
    addStoreOptions(cert, ctx);
    addKeyPairVerbs(*cert, ctx);
    add(*cert, ctx, "receive", "store the certificate issued for a request key", receive,
        "in default");
    add(*cert, ctx, "add-ca", "store a trusted CA certificate", addCa, "label in");
    add(*cert, ctx, "extract", "write an entry's certificate to a file", extract, "label out der");
    add(*cert, ctx, "validate", "check a certificate's chain against the trusted entries", validate,
        "label in?");
    add(*cert, ctx, "renew-check", "say whether a certificate renews a personal key", renewCheck,
        "in");
    add(*cert, ctx, "renew", "replace a personal key's certificate with its renewal", renew, "in");
}

}  // namespace tolvik
