// entries.cpp - `tolvik list | show | delete | default | trust`: the entries of a store.
#include <functional>
#include <iostream>
#include <memory>

#include "tolvik.h"
#include "zavkm_ext.h"

namespace tolvik {

std::string keyText(int32_t algorithm, int32_t bits) {
    return (algorithm == 2 ? "EC " : "RSA ") + std::to_string(bits);
}

namespace {

Json row(const char* label, const char* kind, bool isDefault, bool trusted, const std::string& key,
         Json expires) {
    return {{"label", label},     {"kind", kind}, {"default", isDefault},
            {"trusted", trusted}, {"key", key},   {"expires", expires}};
}

}  // namespace

Json entries(ZAVKM_KeyDbHandle handle) {
    Json rows = Json::array();
    ZAVKM_Entry* list = nullptr;
    uint32_t count = 0;
    check(ZAVKM_ListEntries(handle, &list, &count), "list the entries");
    std::unique_ptr<ZAVKM_Entry, std::function<void(ZAVKM_Entry*)>> owned(
        list, [count](ZAVKM_Entry* e) { ZAVKM_FreeEntries(e, count); });
    static const char* const kKinds[] = {"", "personal", "signer", "request"};
    for (uint32_t i = 0; i < count; ++i) {
        const ZAVKM_Entry& e = list[i];
        const bool request = e.kind == ZAVKM_ENTRY_REQUEST;
        rows.push_back(row(e.label, kKinds[e.kind >= 1 && e.kind <= 3 ? e.kind : 0], e.isDefault != 0,
                           e.trusted != 0, keyText(e.keyType, e.keyBits),
                           request ? Json() : Json(isoTime(e.notAfter))));
    }
    return rows;
}

namespace {

Json showRequest(ZAVKM_KeyDbHandle handle, const std::string& label, bool withPem, bool json) {
    ReqKeyItem request;
    check(ZAVKM_GetReqKeyItemByLabel(handle, label.c_str(), out(request)), "find entry " + label);
    const ZAVKM_CertReqItem& req = *request->certReq;
    std::string text = pem("CERTIFICATE REQUEST", req.der, req.derLength);
    if (withPem && !json) {
        std::cout << text;
        return nullptr;
    }
    Json doc{{"label", label},
             {"kind", "request"},
             {"subject", dnText(req.certReqInfoItem->subjectName)},
             {"key", keyText(request->shortValue1, request->keySize)},
             {"signature", req.sigAlgIdOIDName ? req.sigAlgIdOIDName : ""}};
    if (withPem) doc["pem"] = text;
    return doc;
}

Json show(Context& ctx, const std::string& label, bool withPem) {
    Store store(ctx);
    KeyItem key;
    ZAVKM_ReturnCode rc = ZAVKM_GetKeyItemByLabel(store.handle, label.c_str(), out(key));
    if (rc == ZAVKM_ERR_KEY_GET_BY_LABEL)
        return showRequest(store.handle, label, withPem, ctx.json);
    check(rc, "read entry " + label);
    if (key->certList == nullptr || key->certList->cert == nullptr) {
        throw Failure{"read the certificate of " + label, ZAVKM_ERR_KEYREC_CERTIFICATE_NULL, ""};
    }
    const ZAVKM_CertItem& cert = *key->certList->cert;
    std::string text = pem("CERTIFICATE", cert.der, cert.derLength);
    if (withPem && !ctx.json) {
        std::cout << text;
        return nullptr;
    }
    Json doc{{"label", label},
             {"kind", key->hasPrivateKey ? "personal" : "signer"},
             {"default", key->keyFlag1 != 0},
             {"trusted", key->keyFlag2 != 0},
             {"key", keyText(key->shortValue1, key->keySize)}};
    doc.update(certFacts(cert));
    doc["chain"] = Json::array();
    for (const ZAVKM_CertItemList* node = key->certList->next; node && node->cert;
         node = node->next) {
        doc["chain"].push_back(dnText(node->cert->subject));
    }
    if (withPem) doc["pem"] = text;
    return doc;
}

Json remove(Context& ctx, const std::string& label) {
    Store store(ctx);
    ZAVKM_ReturnCode rc = ZAVKM_DeleteKey(store.handle, label.c_str());
    if (rc == ZAVKM_ERR_KEY_GET_BY_LABEL)
        rc = ZAVKM_DeleteRequestKeyPair(store.handle, label.c_str());
    check(rc, "delete " + label);
    return {{"deleted", label}};
}

Json makeDefault(Context& ctx, const std::string& label) {
    Store store(ctx);
    check(ZAVKM_SetDefaultKeyByLabel(store.handle, label.c_str()),
          "make " + label + " the default");
    return {{"default", label}};
}

Json trust(Context& ctx, const std::string& label, const std::string& state) {
    Store store(ctx);
    check(ZAVKM_SetTrustStatus(store.handle, label.c_str(), state == "on"),
          "set trust of " + label);
    return {{"label", label}, {"trusted", state == "on"}};
}

}  // namespace

void addEntryCommands(CLI::App& app, Context& ctx) {
    struct Args {
        std::string label, state;
        bool pem = false;
    };
    auto a = std::make_shared<Args>();
    addStoreOptions(verb(app, "list", "list the entries: label, kind, flags, key, expiry", ctx,
                         [&ctx] {
                             Store store(ctx);
                             return entries(store.handle);
                         }),
                    ctx);
    CLI::App* cmd = verb(app, "show", "show an entry's certificate (or request) in full", ctx,
                         [&ctx, a] { return show(ctx, a->label, a->pem); });
    cmd->add_option("label", a->label, "the entry's label")->required();
    cmd->add_flag("--pem", a->pem, "print the certificate as PEM");
    addStoreOptions(cmd, ctx);
    cmd = verb(app, "delete", "delete an entry (a key with its certificate, or a request)", ctx,
               [&ctx, a] { return remove(ctx, a->label); });
    cmd->add_option("label", a->label, "the entry's label")->required();
    addStoreOptions(cmd, ctx);
    cmd = verb(app, "default", "make a personal key the default key", ctx,
               [&ctx, a] { return makeDefault(ctx, a->label); });
    cmd->add_option("label", a->label, "the entry's label")->required();
    addStoreOptions(cmd, ctx);
    cmd = verb(app, "trust", "trust an entry's certificate as a root, or stop trusting it", ctx,
               [&ctx, a] { return trust(ctx, a->label, a->state); });
    cmd->add_option("label", a->label, "the entry's label")->required();
    cmd->add_option("state", a->state, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
    addStoreOptions(cmd, ctx);
}

}  // namespace tolvik
