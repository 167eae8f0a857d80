// entries.cpp - `tolvik show | delete | default | trust | rename`: one entry of a store.
#include "tolvik.h"

namespace tolvik {
namespace {

Json showRequest(Context& ctx, ZAVKM_KeyDbHandle handle, const std::string& label, bool withPem) {
    zavkm::ReqKeyItemPtr request;
    check(ZAVKM_GetReqKeyItemByLabel(handle, label.c_str(), out(request)), "find entry " + label);
    const ZAVKM_CertReqItem& req = *request->certReq;
    std::string text = pem("CERTIFICATE REQUEST", req.der, req.derLength);
    if (withPem && !ctx.json) {
        writeOut(text);
        return nullptr;
    }
    std::optional<CertFacts> f = requestFacts(req.der, req.derLength);
    Json doc{{"label", label},
             {"kind", "request"},
             {"key_type", keyType(request->shortValue1)},
             {"key_size", request->keySize},
             {"subject", f ? f->subject : ""},
             {"san", f ? f->san : std::vector<std::string>{}},
             {"signature", req.sigAlgIdOIDName ? req.sigAlgIdOIDName : ""}};
    if (withPem) doc["pem"] = text;
    return doc;
}

Json show(Context& ctx, const std::string& label, bool withPem) {
    Store store(ctx);
    zavkm::KeyItemPtr key;
    ZAVKM_ReturnCode rc = ZAVKM_GetKeyItemByLabel(store.handle, label.c_str(), out(key));
    if (rc == ZAVKM_ERR_KEY_GET_BY_LABEL) return showRequest(ctx, store.handle, label, withPem);
    check(rc, "read entry " + label);
    if (key->certList == nullptr || key->certList->cert == nullptr)
        throw Failure{"read the certificate of " + label, ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, ""};
    const ZAVKM_CertItem& cert = *key->certList->cert;
    std::string text = pem("CERTIFICATE", cert.der, cert.derLength);
    if (withPem && !ctx.json) {
        writeOut(text);
        return nullptr;
    }
    Json doc{{"label", label},
             {"kind", key->hasPrivateKey ? "personal" : "signer"},
             {"default", key->keyFlag1 != 0},
             {"trusted", key->keyFlag2 != 0},
             {"key_type", keyType(key->shortValue1)},
             {"key_size", key->keySize}};
    doc.update(showCert(cert));
    doc["chain"] = Json::array();
    for (const ZAVKM_CertItemList* node = key->certList->next; node && node->cert; node = node->next) {
        std::optional<CertFacts> f = certFacts(node->cert->der, node->cert->derLength);
        doc["chain"].push_back(f ? f->subject : "");
    }
    if (withPem) doc["pem"] = text;
    return doc;
}

Json remove(Context& ctx, const std::string& label) {
    Store store(ctx);
    const char* kind = nullptr;  // a personal key or a signer: the library does not say which
    ZAVKM_ReturnCode rc = ZAVKM_DeleteKey(store.handle, label.c_str());
    if (rc == ZAVKM_ERR_KEY_GET_BY_LABEL) {
        kind = "request";
        rc = ZAVKM_DeleteRequestKeyPair(store.handle, label.c_str());
    }
    check(rc, "delete " + label);
    return changed(Json::array({change("delete", label, kind)}));
}

Json makeDefault(Context& ctx, const std::string& label) {
    Store store(ctx);
    check(ZAVKM_SetDefaultKeyByLabel(store.handle, label.c_str()), "make " + label + " the default");
    Json row = change("update", label, "personal");
    row["default"] = true;
    return changed(Json::array({row}));
}

Json trust(Context& ctx, const std::string& label, const std::string& state) {
    Store store(ctx);
    check(ZAVKM_SetTrustStatus(store.handle, label.c_str(), state == "on"), "set trust of " + label);
    Json row = change("update", label, nullptr);
    row["trusted"] = state == "on";
    return changed(Json::array({row}));
}

Json rename(Context& ctx, const std::string& label, const std::string& newLabel) {
    Store store(ctx);
    check(ZAVKM_RenameEntry(store.handle, label.c_str(), newLabel.c_str()),
          "rename " + label + " to " + newLabel);
    Json row = change("rename", label, nullptr);
    row["new_label"] = newLabel;
    return changed(Json::array({row}));
}

}  // namespace

void addEntryVerbs(CLI::App& noun, Context& ctx, const std::function<void(CLI::App*)>& storeOptions) {
    struct Args {
        std::string label, newLabel, state;
        bool pem = false;
    };
    auto a = std::make_shared<Args>();
    CLI::App* cmd = verb(noun, "show", "show an entry's certificate (or request) in full", ctx,
                         [&ctx, a] { return show(ctx, a->label, a->pem); });
    addLabel(cmd, "label", a->label, "the entry's label")->required();
    cmd->add_flag("--pem", a->pem, "print the certificate as PEM");
    storeOptions(cmd);
    cmd = verb(noun, "delete", "delete an entry (a key with its certificate, or a request)", ctx,
               [&ctx, a] { return remove(ctx, a->label); });
    addLabel(cmd, "label", a->label, "the entry's label")->required();
    storeOptions(cmd);
    cmd = verb(noun, "default", "make a personal key the default key", ctx,
               [&ctx, a] { return makeDefault(ctx, a->label); });
    addLabel(cmd, "label", a->label, "the entry's label")->required();
    storeOptions(cmd);
    cmd = verb(noun, "trust", "trust an entry's certificate as a root, or stop trusting it", ctx,
               [&ctx, a] { return trust(ctx, a->label, a->state); });
    addLabel(cmd, "label", a->label, "the entry's label")->required();
    cmd->add_option("state", a->state, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    storeOptions(cmd);
    cmd = verb(noun, "rename", "give an entry a new label (a key, a signer or a request)", ctx,
               [&ctx, a] { return rename(ctx, a->label, a->newLabel); });
    addLabel(cmd, "label", a->label, "the entry's label")->required();
    addLabel(cmd, "new-label", a->newLabel, "its new label")->required();
    storeOptions(cmd);
}

void addEntryCommands(CLI::App& app, Context& ctx) {
    addEntryVerbs(app, ctx, [&ctx](CLI::App* cmd) { addStoreOptions(cmd, ctx); });
}

}  // namespace tolvik
