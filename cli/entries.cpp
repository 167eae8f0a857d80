// entries.cpp - `tolvik list | show | delete | default | trust`: the entries of a store.
#include <array>
#include <cstdio>
#include <cstring>
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

// Entry - one line of a listing.
struct Entry {
    std::string label;
    const char* kind;
    bool isDefault, trusted;
    std::string key;
    std::string expires;  // empty for a request
};

Json toJson(const std::vector<Entry>& entries) {
    Json rows = Json::array();
    for (const Entry& e : entries)
        rows.push_back({{"label", e.label},     {"kind", e.kind},
                        {"default", e.isDefault}, {"trusted", e.trusted},
                        {"key", e.key},         {"expires", e.expires.empty() ? Json() : Json(e.expires)}});
    return rows;
}

// entriesByLabel - the entries of a token or certificate store, read one label at a time.
std::vector<Entry> entriesByLabel(ZAVKM_KeyDbHandle handle) {
    std::vector<Entry> all;
    LabelList labels;
    check(ZAVKM_GetKeyDbLabelList(handle, out(labels)), "list the labels");
    for (const ZAVKM_LabelList* node = labels.get(); node && node->label; node = node->next) {
        KeyItem key;
        check(ZAVKM_GetKeyItemByLabel(handle, node->label, out(key)),
              "read entry " + std::string(node->label));
        const ZAVKM_CertItem* cert = key->certList ? key->certList->cert : nullptr;
        all.push_back({node->label, key->hasPrivateKey ? "personal" : "signer", key->keyFlag1 != 0,
                       key->keyFlag2 != 0, keyText(key->shortValue1, key->keySize),
                       cert ? isoTime(cert->expireTime) : ""});
    }
    check(ZAVKM_GetReqKeyDbLabelList(handle, out(labels)), "list the request labels");
    for (const ZAVKM_LabelList* node = labels.get(); node && node->label; node = node->next) {
        ReqKeyItem request;
        check(ZAVKM_GetReqKeyItemByLabel(handle, node->label, out(request)),
              "read request " + std::string(node->label));
        all.push_back({node->label, "request", false, false,
                       keyText(request->shortValue1, request->keySize), ""});
    }
    return all;
}

// listing - every entry of an open store: a key database in one read, a token label by label.
std::vector<Entry> listing(ZAVKM_KeyDbHandle handle) {
    ZAVKM_Entry* list = nullptr;
    uint32_t count = 0;
    const ZAVKM_ReturnCode rc = ZAVKM_ListEntries(handle, &list, &count);
    if (rc == ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT) return entriesByLabel(handle);
    check(rc, "list the entries");
    std::unique_ptr<ZAVKM_Entry, std::function<void(ZAVKM_Entry*)>> owned(
        list, [count](ZAVKM_Entry* e) { ZAVKM_FreeEntries(e, count); });
    static const char* const kKinds[] = {"?", "personal", "signer", "request"};
    std::vector<Entry> out;
    out.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        const ZAVKM_Entry& e = list[i];
        const bool request = e.kind == ZAVKM_ENTRY_REQUEST;
        out.push_back({e.label, kKinds[e.kind >= 1 && e.kind <= 3 ? e.kind : 0], e.isDefault != 0,
                       e.trusted != 0, keyText(e.keyType, e.keyBits),
                       request ? "" : isoTime(e.notAfter)});
    }
    return out;
}

// printListing - the listing as an aligned table, written at once.
void printListing(const std::vector<Entry>& entries) {
    const char* const header[] = {"label", "kind", "default", "trusted", "key", "expires"};
    size_t width[5] = {};
    for (int i = 0; i < 5; ++i) width[i] = std::strlen(header[i]);
    auto cells = [](const Entry& e) {
        return std::array<std::string_view, 6>{e.label, e.kind, e.isDefault ? "yes" : "no",
                                               e.trusted ? "yes" : "no", e.key,
                                               e.expires.empty() ? std::string_view("-") : e.expires};
    };
    for (const Entry& e : entries) {
        auto c = cells(e);
        for (int i = 0; i < 5; ++i) width[i] = std::max(width[i], columns(c[i]));
    }
    std::string text;
    auto line = [&](const std::array<std::string_view, 6>& c) {
        for (int i = 0; i < 5; ++i) {
            text += c[i];
            text.append(width[i] + 2 - columns(c[i]), ' ');
        }
        text += c[5];
        text += '\n';
    };
    line({header[0], header[1], header[2], header[3], header[4], header[5]});
    for (const Entry& e : entries) line(cells(e));
    std::fwrite(text.data(), 1, text.size(), stdout);
}

}  // namespace

Json entries(ZAVKM_KeyDbHandle handle) { return toJson(listing(handle)); }

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
                         [&ctx]() -> Json {
                             Store store(ctx);
                             std::vector<Entry> all = listing(store.handle);
                             if (ctx.json) return toJson(all);
                             std::cout.flush();
                             printListing(all);
                             return nullptr;
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
