// keydb.cpp - `tolvik keydb create | open-check | changepw | stash | info`: the key database
// file itself.
#include <filesystem>
#include <map>

#include "zavkm_ext.h"

#include "tolvik.h"

namespace tolvik {
namespace {

// kMaxExpireDays - the longest password lifetime whose seconds fit the library's 32 bits.
constexpr int kMaxExpireDays = INT32_MAX / 86400;

const std::string& named(const Context& ctx) {
    if (ctx.db.empty()) throw UsageError{"name the key database with --db FILE"};
    return ctx.db;
}

Json create(Context& ctx, int expireDays) {
    const std::string& db = named(ctx);
    Secret pw = password(ctx.password, "New password for " + db + ": ", true);
    ZAVKM_KeyDbHandle handle = 0;
    check(ZAVKM_CreateNewKeyDb(db.c_str(), pw.text.c_str(), expireDays * 86400, &handle),
          "create key database " + db);
    ZAVKM_CloseKeyDb(handle);
    return {{"created", db}};
}

Json openCheck(Context& ctx) {
    Store store(ctx);
    return {{"opened", ctx.db}};
}

// changePassword - a stash file that held the old password is written again with the new one.
Json changePassword(Context& ctx, int expireDays) {
    const std::string& db = named(ctx);
    bool restash = stashed(db);
    Secret old = keyDbPassword(ctx);
    Secret fresh = password(ctx.newPassword, "New password for " + db + ": ", true);
    check(
        ZAVKM_ChangeKeyDbPwd(db.c_str(), old.text.c_str(), fresh.text.c_str(), expireDays * 86400),
        "change the password of " + db);
    if (restash)
        check(ZAVKM_StashKeyDbPwd(db.c_str(), fresh.text.c_str()), "stash the new password");
    return {{"changed", db}, {"stash_rewritten", restash}};
}

Json stash(Context& ctx) {
    const std::string& db = named(ctx);
    Secret pw = password(ctx.password, "Password for " + db + ": ", false);
    check(ZAVKM_StashKeyDbPwd(db.c_str(), pw.text.c_str()), "stash the password of " + db);
    return {{"stashed", std::filesystem::path(db).replace_extension(".sth").string()}};
}

// info - the file, how many entries of each kind, the default key, the next certificate to
// expire and when the password expires.
Json info(Context& ctx) {
    const std::string& db = named(ctx);
    Json doc{{"file", db}, {"bytes", std::filesystem::file_size(db)}, {"stash", stashed(db)}};
    Store store(ctx);
    Json rows = entries(store.handle);
    std::map<std::string, int> counts{
        {"personal", 0}, {"signer", 0}, {"request", 0}, {"trusted", 0}};
    Json next = nullptr;
    doc["default"] = nullptr;
    for (const Json& row : rows) {
        ++counts[row["kind"].get<std::string>()];
        if (row["trusted"]) ++counts["trusted"];
        if (row["default"]) doc["default"] = row["label"];
        if (row["expires"].is_string() && (next.is_null() || row["expires"] < next["expires"])) {
            next = {{"label", row["label"]}, {"expires", row["expires"]}};
        }
    }
    doc["entries"] = counts;
    doc["next_expiry"] = next;
    int64_t expiresAt = 0;
    check(ZAVKM_GetPasswordExpiry(store.handle, &expiresAt), "read the password's lifetime");
    doc["password_expires"] = expiresAt == 0 ? Json(nullptr) : Json(isoTime(expiresAt));
    return doc;
}

}  // namespace

void addKeyDbCommands(CLI::App& app, Context& ctx) {
    CLI::App* keydb = app.add_subcommand("keydb", "create and look after a key database file");
    keydb->require_subcommand(1);
    addStoreOptions(keydb, ctx);
    auto expireDays = std::make_shared<int>(0);
    verb(*keydb, "create", "create a new key database (mode 0600)", ctx, [&ctx, expireDays] {
        return create(ctx, *expireDays);
    })->add_option("--expire-days", *expireDays, "the password's lifetime in days (0: none)")
        ->check(CLI::Range(0, kMaxExpireDays));
    verb(*keydb, "open-check", "check that the password opens the key database", ctx,
         [&ctx] { return openCheck(ctx); });
    CLI::App* change = verb(*keydb, "changepw", "change the password (and a stash file with it)",
                            ctx, [&ctx, expireDays] { return changePassword(ctx, *expireDays); });
    change->add_option("--expire-days", *expireDays, "the new password's lifetime in days")
        ->check(CLI::Range(0, kMaxExpireDays));
    addPasswordOptions(change, ctx.newPassword, "new-password", "the key database from now on");
    verb(*keydb, "stash", "store the password in the stash file beside the key database", ctx,
         [&ctx] { return stash(ctx); });
    verb(*keydb, "info", "the file, its entries, its next certificate expiry and password expiry", ctx,
         [&ctx] { return info(ctx); });
}

}  // namespace tolvik
