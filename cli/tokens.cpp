// tokens.cpp - `tolvik token ...` (PKCS#11 tokens) and `tolvik store ...` (the platform's
// certificate providers). Each verb is one library call on a store descriptor; where the
// library does not offer the store yet, its code 80 says so.
#include "tolvik.h"

namespace tolvik {

Json labelsJson(const ZAVKM_LabelList* list) {
    Json labels = Json::array();
    for (; list != nullptr && list->label != nullptr; list = list->next)
        labels.push_back(list->label);
    return labels;
}

namespace {

KeyStoreDescriptor tokenStore(const Context& ctx) {
    KeyStoreDescriptor store{};
    store.storeType = CryptoToken;
    store.cryptoModuleName = ctx.module.c_str();
    store.tokenLabel = ctx.token.c_str();
    return store;
}

// tokenLabels - the tokens of a module; the empty module name asks for the providers.
Json tokenLabels(const std::string& module, const std::string& what) {
    LabelList labels;
    check(ZAVKM_GetCryptoTokenLabelList(module.c_str(), out(labels)), "list " + what);
    return labelsJson(labels.get());
}

Json tokenInfo(const Context& ctx) {
    KeyStoreDescriptor store = tokenStore(ctx);
    uint8_t required = 1;
    check(ZAVKM_IsPasswordRequired(&store, &required), "read token " + ctx.token);
    return {{"module", ctx.module}, {"token", ctx.token}, {"pin_required", required != 0}};
}

Json changePin(const Context& ctx) {
    Secret old = password(ctx.pin, "PIN of " + ctx.token + ": ", false);
    Secret fresh = password(ctx.newPin, "New PIN for " + ctx.token + ": ", true);
    KeyStoreDescriptor store = tokenStore(ctx);
    store.password = old.text.c_str();
    store.newPassword = fresh.text.c_str();
    check(ZAVKM_ChangeKeyDbPwdX(&store), "change the PIN of " + ctx.token);
    return {{"changed", ctx.token}};
}

}  // namespace

void addTokenCommands(CLI::App& app, Context& ctx) {
    CLI::App* token = app.add_subcommand("token", "keys on PKCS#11 tokens");
    token->require_subcommand(1);
    token->preparse_callback([&ctx](size_t) { ctx.storeType = CryptoToken; });
    token->add_option("-m,--module", ctx.module, "the PKCS#11 module (path of its shared object)");
    token->add_option("-t,--token", ctx.token, "the token's label");
    addPasswordOptions(token, ctx.pin, "pin", "the token");
    verb(*token, "list", "list the tokens of a module", ctx, [&ctx] {
        return tokenLabels(ctx.module, "the tokens of " + ctx.module);
    })->add_option("module", ctx.module, "the PKCS#11 module");
    verb(*token, "info", "say whether the token needs a PIN", ctx,
         [&ctx] { return tokenInfo(ctx); });
    verb(*token, "list-objects", "list the token's keys and certificates", ctx, [&ctx] {
        Store store(ctx);
        return entries(store.handle);
    });
    addPasswordOptions(
        verb(*token, "changepin", "change the token's PIN", ctx, [&ctx] { return changePin(ctx); }),
        ctx.newPin, "new-pin", "the token from now on");
    addKeyPairVerbs(*token, ctx);

    CLI::App* store = app.add_subcommand("store", "the platform's certificate providers");
    store->require_subcommand(1);
    verb(*store, "providers", "list the certificate providers", ctx,
         [] { return tokenLabels("", "the certificate providers"); });
    CLI::App* list = verb(*store, "list", "list a provider's certificates", ctx, [&ctx] {
        ctx.storeType = MSCertStore;
        Store opened(ctx);
        return entries(opened.handle);
    });
    list->add_option("provider", ctx.provider, "the provider's name")->required();
    addPasswordOptions(list, ctx.pin, "pin", "the provider (PIN or password)");
}

}  // namespace tolvik
