// listing.cpp - `tolvik list`: every entry of a store as a table for people, JSON for scripts or
// the Prometheus text format for a node_exporter's textfile collector; the certificates that
// expire within a window, and an exit status that says what was found.
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <iostream>
#include <map>

#include "tolvik.h"

namespace tolvik {
namespace {

constexpr int64_t kDay = 86400;
constexpr int64_t kSoon = 30 * kDay;  // rows marked on a terminal without --expiring

void toEntry(const ZAVKM_Entry& e, Entry& out) {
    out.label = e.label ? e.label : "";
    out.kind = e.kind;
    out.keyType = e.keyType;
    out.keyBits = e.keyBits;
    out.isDefault = e.isDefault != 0;
    out.trusted = e.trusted != 0;
    out.notBefore = e.notBefore;
    out.notAfter = e.notAfter;
    if (e.der != nullptr) out.der.assign(e.der, e.der + e.derLength);
}

// fillDer - the certificate (or request) of an entry the library listed without it.
void fillDer(ZAVKM_KeyDbHandle handle, Entry& e) {
    if (e.kind == ZAVKM_ENTRY_REQUEST) {
        zavkm::ReqKeyItemPtr request;
        check(ZAVKM_GetReqKeyItemByLabel(handle, e.label.c_str(), out(request)),
              "read request " + e.label);
        if (request->certReq) e.der.assign(request->certReq->der, request->certReq->der + request->certReq->derLength);
        return;
    }
    zavkm::KeyItemPtr key;
    check(ZAVKM_GetKeyItemByLabel(handle, e.label.c_str(), out(key)), "read entry " + e.label);
    const ZAVKM_CertItem* cert = key->certList ? key->certList->cert : nullptr;
    if (cert) e.der.assign(cert->der, cert->der + cert->derLength);
}

// entriesByLabel - the entries of a token or certificate store, read one label at a time; the
// validity comes from each certificate's DER (the records' times stop at 2038).
std::vector<Entry> entriesByLabel(ZAVKM_KeyDbHandle handle) {
    std::vector<Entry> all;
    zavkm::LabelListPtr labels;
    check(ZAVKM_GetKeyDbLabelList(handle, out(labels)), "list the labels");
    for (const ZAVKM_LabelList* node = labels.get(); node && node->label; node = node->next) {
        zavkm::KeyItemPtr key;
        check(ZAVKM_GetKeyItemByLabel(handle, node->label, out(key)),
              "read entry " + std::string(node->label));
        Entry e;
        e.label = node->label;
        e.kind = key->hasPrivateKey ? ZAVKM_ENTRY_PERSONAL : ZAVKM_ENTRY_SIGNER;
        e.keyType = key->shortValue1;
        e.keyBits = key->keySize;
        e.isDefault = key->keyFlag1 != 0;
        e.trusted = key->keyFlag2 != 0;
        if (const ZAVKM_CertItem* cert = key->certList ? key->certList->cert : nullptr) {
            e.der.assign(cert->der, cert->der + cert->derLength);
            std::optional<CertFacts> f = certFacts(cert->der, cert->derLength);
            e.notBefore = f ? f->notBefore : cert->effectTime;
            e.notAfter = f ? f->notAfter : cert->expireTime;
        }
        all.push_back(std::move(e));
    }
    check(ZAVKM_GetReqKeyDbLabelList(handle, out(labels)), "list the request labels");
    for (const ZAVKM_LabelList* node = labels.get(); node && node->label; node = node->next) {
        zavkm::ReqKeyItemPtr request;
        check(ZAVKM_GetReqKeyItemByLabel(handle, node->label, out(request)),
              "read request " + std::string(node->label));
        Entry e;
        e.label = node->label;
        e.kind = ZAVKM_ENTRY_REQUEST;
        e.keyType = request->shortValue1;
        e.keyBits = request->keySize;
        if (request->certReq) e.der.assign(request->certReq->der, request->certReq->der + request->certReq->derLength);
        all.push_back(std::move(e));
    }
    return all;
}

// Filter - which entries `list` shows: all, or the certificates that expire before `until`.
struct Filter {
    bool expiry = false;  // --expiring or --expired given
    int64_t now = 0, until = 0, soon = 0;
};

// daysLeft - whole days from now to notAfter, rounded down (-1 an hour after it passed).
int64_t daysLeft(int64_t notAfter, int64_t now) {
    const int64_t d = notAfter - now;
    return d >= 0 ? d / kDay : -((-d + kDay - 1) / kDay);
}

const char* kindName(int32_t kind) {
    static const char* const kinds[] = {"?", "personal", "signer", "request"};
    return kinds[kind >= 1 && kind <= 3 ? kind : 0];
}

// keyColumn - the key column's text of an algorithm and size, made once for each one met.
const std::string& keyColumn(std::map<std::pair<int32_t, int32_t>, std::string>& made, int32_t type,
                             int32_t bits) {
    auto [it, fresh] = made.try_emplace({type, bits});
    if (fresh) it->second = keyText(type, bits);
    return it->second;
}

// table - the entries as aligned columns, handed to emit a piece at a time once the label and
// key columns' widths are known.
void table(const std::vector<Entry>& entries, const Filter& f, bool terminal,
           const std::function<void(std::string_view)>& emit) {
    constexpr size_t kPiece = 64 * 1024;
    const bool paint = terminal && colour();
    std::map<std::pair<int32_t, int32_t>, std::string> keys;
    auto key = [&keys](int32_t type, int32_t bits) -> const std::string& { return keyColumn(keys, type, bits); };
    size_t labelWidth = 5, keyWidth = 3;
    for (const Entry& e : entries) {
        labelWidth = std::max(labelWidth, width(terminalText(e.label)));
        keyWidth = std::max(keyWidth, key(e.keyType, e.keyBits).size());
    }
    std::string text;
    text.reserve(kPiece + 4 * (labelWidth + keyWidth + 64));
    auto cell = [&text](std::string_view s, size_t columns) {
        text += s;
        text.append(columns + 2 - std::min(columns, width(s)), ' ');
    };
    cell("label", labelWidth);
    text += "kind      default  trusted  ";
    cell("key", keyWidth);
    text += "expires               days left\n";
    for (const Entry& e : entries) {
        const bool request = e.kind == ZAVKM_ENTRY_REQUEST;
        const bool expired = !request && e.notAfter <= f.now;
        const bool soon = !request && !expired && e.notAfter <= f.now + f.soon;
        if (paint && (expired || soon)) text += expired ? "\033[31m" : "\033[33m";
        cell(terminalText(e.label), labelWidth);
        cell(kindName(e.kind), 8);
        cell(e.isDefault ? "yes" : "no", 7);
        cell(e.trusted ? "yes" : "no", 7);
        cell(key(e.keyType, e.keyBits), keyWidth);
        cell(request ? "-" : isoTime(e.notAfter), 20);
        text += request ? "-" : std::to_string(daysLeft(e.notAfter, f.now));
        if (terminal && (expired || soon)) text += expired ? " expired" : " soon";
        if (paint && (expired || soon)) text += "\033[0m";
        text += '\n';
        if (text.size() >= kPiece) {
            emit(text);
            text.clear();
        }
    }
    emit(text);
}

Json orNull(const std::string& s) { return s.empty() ? Json() : Json(s); }

Json entryJson(const Entry& e, int64_t now) {
    const bool request = e.kind == ZAVKM_ENTRY_REQUEST;
    std::optional<CertFacts> f =
        request ? requestFacts(e.der.data(), e.der.size()) : certFacts(e.der.data(), e.der.size());
    Json row{{"label", e.label},
             {"kind", kindName(e.kind)},
             {"default", e.isDefault},
             {"trusted", e.trusted},
             {"key_type", keyType(e.keyType)},
             {"key_size", e.keyBits},
             {"subject", f ? Json(f->subject) : Json()},
             {"issuer", f && !request ? Json(f->issuer) : Json()},
             {"serial", f && !request ? orNull(f->serial) : Json()},
             {"san", f ? Json(f->san) : Json::array()},
             {"not_before", request ? Json() : Json(isoTime(f ? f->notBefore : e.notBefore))},
             {"not_after", request ? Json() : Json(isoTime(f ? f->notAfter : e.notAfter))},
             {"days_left", request ? Json() : Json(daysLeft(e.notAfter, now))},
             {"sha256", f && !request ? Json(f->sha256) : Json()},
             {"sha1", f && !request ? Json(f->sha1) : Json()}};
    return row;
}

// promValue - a label value of the Prometheus text format: backslash, double quote and newline
// escaped; other control characters (which the format would carry raw to a terminal) and bytes
// that are not UTF-8 become U+FFFD.
std::string promValue(const std::string& text) {
    std::string valid = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    valid = Json::parse(valid).get<std::string>();
    std::string out;
    for (char c : valid) {
        const auto b = static_cast<unsigned char>(c);
        if (c == '\\' || c == '"') out += '\\';
        if (c == '\n') out += "\\n";
        else if (b < 0x20 || b == 0x7f) out += "\xef\xbf\xbd";
        else out += c;
    }
    return out;
}

std::string prometheus(const std::vector<Entry>& entries, const std::string& store,
                       uint32_t damaged) {
    std::string text =
        "# HELP tolvik_certificate_not_after_seconds When the certificate of a key database "
        "entry expires, in seconds since 1970.\n"
        "# TYPE tolvik_certificate_not_after_seconds gauge\n";
    const std::string where = "store=\"" + promValue(store) + "\"";
    for (const Entry& e : entries) {
        if (e.kind == ZAVKM_ENTRY_REQUEST) continue;
        std::optional<CertFacts> f = certFacts(e.der.data(), e.der.size());
        text += "tolvik_certificate_not_after_seconds{" + where + ",label=\"" + promValue(e.label) +
                "\",subject=\"" + promValue(f ? f->subject : "") + "\",issuer=\"" +
                promValue(f ? f->issuer : "") + "\",serial=\"" + (f ? f->serial : "") +
                "\",key_type=\"" + keyType(e.keyType) + "\",key_bits=\"" +
                std::to_string(e.keyBits) + "\"} " + std::to_string(e.notAfter) + "\n";
    }
    text +=
        "# HELP tolvik_keydb_damaged_rows Rows of the store left out of the listing because they "
        "fail their integrity check.\n"
        "# TYPE tolvik_keydb_damaged_rows gauge\n"
        "tolvik_keydb_damaged_rows{" + where + "} " + std::to_string(damaged) + "\n";
    return text;
}

// duration - "30d", "12h", "2w" (a plain number counts days) in seconds; 0 when it does not
// read or is not between an hour and 100 years.
int64_t duration(const std::string& text) {
    size_t used = 0;
    long long n = 0;
    try {
        n = std::stoll(text, &used);
    } catch (const std::exception&) {
        return 0;
    }
    const std::string unit = text.substr(used);
    const int64_t scale = unit == "h" ? 3600 : unit == "d" || unit.empty() ? kDay : unit == "w" ? 7 * kDay : 0;
    const int64_t seconds = n * scale;
    return n > 0 && seconds >= 3600 && seconds <= 36525 * kDay ? seconds : 0;
}

struct ListArgs {
    std::string format = "table", expiring, out;
    bool expired = false;
};

Json list(Context& ctx, const ListArgs& a) {
    if (ctx.json) {
        if (a.format != "table" && a.format != "json")
            throw UsageError{"--json and --format " + a.format + " ask for two formats"};
    }
    const std::string format = ctx.json ? "json" : a.format;
    Filter f;
    f.now = static_cast<int64_t>(std::time(nullptr));
    f.expiry = a.expired || !a.expiring.empty();
    f.soon = a.expiring.empty() ? kSoon : duration(a.expiring);
    f.until = f.now + (a.expiring.empty() ? 0 : f.soon);
    checkOutput(ctx, a.out);
    Store store(ctx);
    uint32_t damaged = 0;
    std::vector<Entry> all = listing(store.handle, format != "table", damaged);
    if (f.expiry) {
        std::erase_if(all, [&](const Entry& e) {
            return e.kind == ZAVKM_ENTRY_REQUEST || e.notAfter > f.until;
        });
        const bool expired = std::any_of(all.begin(), all.end(), [&](const Entry& e) {
            return e.notAfter <= f.now;
        });
        ctx.status = expired ? kExitExpired : all.empty() ? 0 : kExitExpiring;
    }
    reportDamage(ctx, damaged);
    if (format == "json") {
        Json rows = Json::array();
        for (const Entry& e : all) rows.push_back(entryJson(e, f.now));
        Json result{{"entries", rows}, {"damaged", damaged}};
        if (a.out.empty() || a.out == "-") return result;
        std::string text = jsonText(document(ctx, result));
        writeOutput(ctx, a.out, reinterpret_cast<const uint8_t*>(text.data()), text.size(), false);
        ctx.printed = true;
        return nullptr;
    }
    const bool toStandardOutput = a.out.empty() || a.out == "-";
    std::string text;
    if (format == "prometheus") {
        text = prometheus(all, store.name, damaged);
    } else if (toStandardOutput) {  // written as it is made
        table(all, f, isatty(STDOUT_FILENO), [](std::string_view piece) { writeOut(piece); });
    } else {
        table(all, f, false, [&text](std::string_view piece) { text += piece; });
    }
    if (toStandardOutput) {
        writeOut(text);
    } else {
        writeOutput(ctx, a.out, reinterpret_cast<const uint8_t*>(text.data()), text.size(), false);
    }
    return nullptr;
}

}  // namespace

std::vector<Entry> listing(ZAVKM_KeyDbHandle handle, bool der, uint32_t& damaged) {
    ZAVKM_Entry* list = nullptr;
    uint32_t count = 0;
    damaged = 0;
    const ZAVKM_ReturnCode rc =
        ZAVKM_ListEntriesX(handle, der ? ZAVKM_LIST_DER : 0, &list, &count, &damaged);
    if (rc == ZAVKM_ERR_CRYPTOGRAPHIC_TOKEN_NOT_SUPPORT) return entriesByLabel(handle);
    check(rc, "list the entries");
    const zavkm::EntriesPtr owned(list, count);
    std::vector<Entry> entries;
    entries.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        toEntry(list[i], entries.emplace_back());
        if (der && entries.back().der.empty()) fillDer(handle, entries.back());
    }
    return entries;
}

std::string damagedRows(uint32_t count) {
    return std::to_string(count) + (count == 1 ? " damaged row" : " damaged rows");
}

void reportDamage(Context& ctx, uint32_t damaged) {
    if (damaged == 0) return;
    ctx.partial = std::make_shared<Failure>(Failure{
        "list every entry", ZAVKM_ERR_DATABASE_KEY_INTEGRITY,
        damagedRows(damaged) + " left out; tolvik keydb verify names them"});
}

void addListCommand(CLI::App& app, Context& ctx) {
    auto a = std::make_shared<ListArgs>();
    CLI::App* cmd = verb(app, "list", "list the entries: label, kind, flags, key, expiry", ctx,
                         [&ctx, a] { return list(ctx, *a); });
    cmd->add_option("--format", a->format, "table, json or prometheus (the textfile format)")
        ->check(CLI::IsMember({"table", "json", "prometheus"}));
    cmd->add_option("--expiring", a->expiring,
                    "only certificates that expire within DURATION (30d, 12h, 2w), expired ones "
                    "included; exit 3 when there are some, 4 when one has expired")
        ->type_name("DURATION")
        ->check([](const std::string& text) {
            return duration(text) ? "" : "a duration from 1h to 36525d, as 30d, 12h or 2w";
        });
    cmd->add_flag("--expired", a->expired, "only certificates that have expired; exit 4 when there are some");
    addOutput(cmd, a->out, ctx, "write the listing to FILE, replaced whole");
    addStoreOptions(cmd, ctx);
}

}  // namespace tolvik
