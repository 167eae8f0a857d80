// tokens.cpp - `tolvik token ...` (PKCS#11 tokens) and `tolvik store ...` (the platform's
// certificate providers). Each verb is one library call on a store descriptor; the verbs a key
// database has too are built by the same definitions; where the library does not offer the
// store an operation, its code says so.
#include "tolvik.h"

namespace tolvik {

Json labelsJson(const ZAVKM_LabelList* list) {
    Json labels = Json::array();
    for (; list != nullptr && list->label != nullptr; list = list->next) labels.push_back(list->label);
    return labels;
}

namespace {

KeyStoreDescriptor tokenStore(const Context& ctx) {
    if (ctx.module.empty() || ctx.token.empty())
        throw UsageError{"name the token with -m MODULE and -t LABEL"};
    KeyStoreDescriptor store{};
    store.storeType = CryptoToken;
    store.cryptoModuleName = ctx.module.c_str();
    store.tokenLabel = ctx.token.c_str();
    return store;
}

// tokenLabels - the tokens of a module; the empty module name asks for the providers.
Json tokenLabels(const std::string& module, const std::string& what, const char* key) {
    zavkm::LabelListPtr labels;
    check(ZAVKM_GetCryptoTokenLabelList(module.c_str(), out(labels)), "list " + what);
    return {{key, labelsJson(labels.get())}};
}

Json tokenInfo(const Context& ctx) {
    KeyStoreDescriptor store = tokenStore(ctx);
    uint8_t required = 1;
    check(ZAVKM_IsPasswordRequired(&store, &required), "read token " + ctx.token);
    return {{"module", ctx.module}, {"token", ctx.token}, {"pin_required", required != 0}};
}

Json changePin(const Context& ctx) {
    KeyStoreDescriptor store = tokenStore(ctx);
    Secret old = password(ctx.pin, "PIN of " + ctx.token + ": ", false);
    Secret fresh = password(ctx.newPin, "New PIN for " + ctx.token + ": ", true);
    store.password = old.text.c_str();
    store.newPassword = fresh.text.c_str();
    const ZAVKM_ReturnCode rc = ZAVKM_ChangeKeyDbPwdX(&store);
    if (rc == ZAVKM_ERR_DATABASE_INVALID_PASSWORD)
        throw Failure{"change the PIN of " + ctx.token, rc, "wrong PIN"};
    check(rc, "change the PIN of " + ctx.token);
    return changed(Json::array());
}

// objects - the entries of a token or provider as `list --json` gives them, exact dates included.
Json objects(Context& ctx) {
    Store store(ctx);
    uint32_t damaged = 0;
    Json rows = Json::array();
    for (const Entry& e : listing(store.handle, false, damaged)) {
        const bool request = e.kind == ZAVKM_ENTRY_REQUEST;
        rows.push_back({{"label", e.label},
                        {"kind", request ? "request" : e.kind == ZAVKM_ENTRY_PERSONAL ? "personal" : "signer"},
                        {"default", e.isDefault},
                        {"trusted", e.trusted},
                        {"key", keyText(e.keyType, e.keyBits)},
                        {"not_after", request ? Json() : Json(isoTime(e.notAfter))}});
    }
    reportDamage(ctx, damaged);
    if (!ctx.json) return rows;  // a table for people
    return {{"entries", rows}};
}

}  // namespace

void addTokenCommands(CLI::App& app, Context& ctx) {
    CLI::App* token = app.add_subcommand("token", "keys on PKCS#11 tokens");
    token->require_subcommand(1);
    token->preparse_callback([&ctx](size_t) { ctx.storeType = CryptoToken; });
    auto options = [&ctx](CLI::App* cmd) {
        cmd->add_option("-m,--module", ctx.module, "the PKCS#11 module (path of its shared object)");
        cmd->add_option("-t,--token", ctx.token, "the token's label");
        addPasswordOptions(cmd, ctx.pin, "pin", "the token");
    };
    options(token);
    verb(*token, "list", "list the tokens of a module", ctx, [&ctx] {
        return tokenLabels(ctx.module, "the tokens of " + ctx.module, "tokens");
    })->add_option("module", ctx.module, "the PKCS#11 module")->required();
    options(verb(*token, "info", "say whether the token needs a PIN", ctx, [&ctx] { return tokenInfo(ctx); }));
    options(verb(*token, "list-objects", "list the token's keys and certificates", ctx,
                 [&ctx] { return objects(ctx); }));
    CLI::App* change = verb(*token, "changepin", "change the token's PIN", ctx, [&ctx] { return changePin(ctx); });
    options(change);
    addPasswordOptions(change, ctx.newPin, "new-pin", "the token from now on");
    addKeyPairVerbs(*token, ctx, options);
    addReceiveVerb(*token, ctx, options);
    addEntryVerbs(*token, ctx, options);
    addP12ImportVerb(*token, ctx, options);

    CLI::App* store = app.add_subcommand("store", "the platform's certificate providers");
    store->require_subcommand(1);
    verb(*store, "providers", "list the certificate providers", ctx,
         [] { return tokenLabels("", "the certificate providers", "providers"); });
    CLI::App* list = verb(*store, "list", "list a provider's certificates", ctx, [&ctx] {
        ctx.storeType = MSCertStore;
        return objects(ctx);
    });
    list->add_option("provider", ctx.provider, "the provider's name")->required();
    addPasswordOptions(list, ctx.pin, "pin", "the provider (PIN or password)");
}

}  // namespace tolvik
