// keydb.cpp - `tolvik keydb create | open-check | changepw | stash | info | verify | repair`: the
// key database file itself.
#include <sys/stat.h>

#include <filesystem>
#include <map>

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
    return changed(Json::array(), Json::array({file(db, "key database")}));
}

Json openCheck(Context& ctx) {
    Store store(ctx);
    return {{"opened", store.name}};
}

std::string stashName(const std::string& db) {
    return std::filesystem::path(db).replace_extension(".sth").string();
}

// changePassword - a stash file that held the old password is written again with the new one.
Json changePassword(Context& ctx, int expireDays) {
    const std::string& db = named(ctx);
    bool restash = stashed(db);
    Secret old = keyDbPassword(ctx);
    Secret fresh = password(ctx.newPassword, "New password for " + db + ": ", true);
    check(ZAVKM_ChangeKeyDbPwd(db.c_str(), old.text.c_str(), fresh.text.c_str(), expireDays * 86400),
          "change the password of " + db);
    if (restash) check(ZAVKM_StashKeyDbPwd(db.c_str(), fresh.text.c_str()), "stash the new password");
    Json files = Json::array({file(db, "key database")});
    if (restash) files.push_back(file(stashName(db), "stash"));
    Json result = changed(Json::array(), files);
    result["stash_rewritten"] = restash;
    return result;
}

Json stash(Context& ctx) {
    const std::string& db = named(ctx);
    Secret pw = password(ctx.password, "Password for " + db + ": ", false);
    check(ZAVKM_StashKeyDbPwd(db.c_str(), pw.text.c_str()), "stash the password of " + db);
    return changed(Json::array(), Json::array({file(stashName(db), "stash")}));
}

std::string hex(const uint8_t* bytes, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < n; ++i) text += {digits[bytes[i] >> 4], digits[bytes[i] & 15]};
    return text;
}

Json timeOrNull(int64_t seconds) { return seconds == 0 ? Json() : Json(isoTime(seconds)); }

// info - the file, its generation, how many entries of each kind, the default key, the next
// certificate to expire and the password's times.
Json info(Context& ctx) {
    named(ctx);
    Store store(ctx);
    uint32_t damaged = 0;
    std::vector<Entry> all = listing(store.handle, false, damaged);
    ZAVKM_KeyDbInfo about{};
    check(ZAVKM_GetKeyDbInfo(store.handle, &about), "read the facts of " + store.name);
    struct stat st {};
    Json doc{{"file", store.name},
             {"bytes", stat(store.name.c_str(), &st) == 0 ? Json(st.st_size) : Json()},
             {"stash", stashed(store.name)},
             {"generation", about.generation},
             {"file_id", hex(about.fileId, sizeof about.fileId)},
             {"default", nullptr}};
    std::map<std::string, int> counts{{"personal", 0}, {"signer", 0}, {"request", 0}, {"trusted", 0}};
    const Entry* next = nullptr;
    for (const Entry& e : all) {
        ++counts[e.kind == ZAVKM_ENTRY_PERSONAL ? "personal" : e.kind == ZAVKM_ENTRY_SIGNER ? "signer" : "request"];
        if (e.trusted) ++counts["trusted"];
        if (e.isDefault) doc["default"] = e.label;
        if (e.kind != ZAVKM_ENTRY_REQUEST && (next == nullptr || e.notAfter < next->notAfter)) next = &e;
    }
    doc["entries"] = counts;
    doc["damaged"] = damaged;
    doc["next_expiry"] = next ? Json{{"label", next->label}, {"expires", isoTime(next->notAfter)}} : Json();
    doc["password_set"] = timeOrNull(about.passwordTime);
    doc["password_expires"] = timeOrNull(about.passwordExpiry);
    doc["kdf_iterations"] = about.kdfIterations;
    reportDamage(ctx, damaged);
    return doc;
}

// Damage - the damaged rows of an open key database, released when it goes.
struct Damage {
    ZAVKM_Damage* rows = nullptr;
    uint32_t count = 0;
    ~Damage() { ZAVKM_FreeDamage(rows, count); }
};

Json damageJson(const Damage& damage) {
    static const char* const reasons[] = {"unknown", "mac", "stale", "missing", "index"};
    static const char* const kinds[] = {nullptr, "personal", "signer", "request"};
    Json rows = Json::array();
    for (uint32_t i = 0; i < damage.count; ++i) {
        const ZAVKM_Damage& d = damage.rows[i];
        rows.push_back({{"label", d.label ? Json(d.label) : Json()},
                        {"kind", d.kind >= 1 && d.kind <= 3 ? Json(kinds[d.kind]) : Json()},
                        {"reason", reasons[d.reason >= 1 && d.reason <= 4 ? d.reason : 0]},
                        {"row_id", d.rowId}});
    }
    return rows;
}

Json verify(Context& ctx) {
    named(ctx);
    Store store(ctx);
    Damage damage;
    check(ZAVKM_VerifyKeyDb(store.handle, &damage.rows, &damage.count), "verify " + store.name);
    if (damage.count > 0)
        ctx.partial = std::make_shared<Failure>(Failure{
            "vouch for " + store.name, ZAVKM_ERR_DATABASE_KEY_INTEGRITY,
            damagedRows(damage.count) + "; tolvik keydb repair removes them"});
    return {{"file", store.name}, {"sound", damage.count == 0}, {"damaged", damageJson(damage)}};
}

// repair - removes the damaged rows once the person at the terminal (or --yes) agrees.
Json repair(Context& ctx, bool yes) {
    named(ctx);
    Store store(ctx);
    Damage damage;
    check(ZAVKM_VerifyKeyDb(store.handle, &damage.rows, &damage.count), "verify " + store.name);
    Json rows = damageJson(damage);
    Json changes = Json::array();
    for (const Json& row : rows) {
        if (row["label"].is_string()) changes.push_back({{"action", "delete"}, {"label", row["label"]}, {"kind", row["kind"]}});
    }
    Json result = changed(changes);
    result["removed"] = 0;
    if (damage.count == 0) return result;
    const std::string question = "Remove " + damagedRows(damage.count) + " from " +
                                 store.name + "? What they held is lost.";
    if (!yes && !isatty(STDIN_FILENO))
        throw UsageError{"keydb repair removes " + damagedRows(damage.count) +
                         ": confirm on a terminal or give --yes"};
    if (!yes && !confirmed(terminalText(question)))
        throw Failure{"repair " + store.name, ZAVKM_OK, "not confirmed; nothing removed"};
    uint32_t removed = 0;
    check(ZAVKM_RepairKeyDb(store.handle, &removed), "repair " + store.name);
    result["removed"] = removed;
    return result;
}

}  // namespace

void addKeyDbCommands(CLI::App& app, Context& ctx) {
    CLI::App* keydb = app.add_subcommand("keydb", "create and look after a key database file");
    keydb->require_subcommand(1);
    addStoreOptions(keydb, ctx);
    auto expireDays = std::make_shared<int>(0);
    auto yes = std::make_shared<bool>(false);
    auto add = [&](const char* name, const char* about, std::function<Json()> run) {
        CLI::App* cmd = verb(*keydb, name, about, ctx, std::move(run));
        addStoreOptions(cmd, ctx);
        return cmd;
    };
    add("create", "create a new key database (mode 0600)", [&ctx, expireDays] {
        return create(ctx, *expireDays);
    })->add_option("--expire-days", *expireDays, "the password's lifetime in days (0: none)")
        ->check(CLI::Range(0, kMaxExpireDays));
    add("open-check", "check that the password opens the key database", [&ctx] { return openCheck(ctx); });
    CLI::App* change = add("changepw", "change the password (and a stash file with it)",
                           [&ctx, expireDays] { return changePassword(ctx, *expireDays); });
    change->add_option("--expire-days", *expireDays, "the new password's lifetime in days")
        ->check(CLI::Range(0, kMaxExpireDays));
    addPasswordOptions(change, ctx.newPassword, "new-password", "the key database from now on");
    add("stash", "store the password in the stash file beside the key database", [&ctx] { return stash(ctx); });
    add("info", "the file, its generation, its entries, the next certificate expiry and the password's times",
        [&ctx] { return info(ctx); });
    add("verify", "check every row and name each damaged one (exit 1 when there is one)",
        [&ctx] { return verify(ctx); });
    add("repair", "remove the damaged rows, after a confirmation or with --yes",
        [&ctx, yes] { return repair(ctx, *yes); })
        ->add_flag("-y,--yes", *yes, "remove without asking");
}

}  // namespace tolvik
