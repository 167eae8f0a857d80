// entries.cpp - reading and changing key database rows, each checked against the index.
#include "store/file/entries.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

#include "store/file/pages.h"
#include "base/trace.h"
#include "base/utf.h"

namespace zavkm {
namespace {

constexpr char kKeyHeadsAll[] =
    "SELECT id, label, flags, key_type, key_bits, not_before, not_after, body_hash, mac FROM keys "
    "INDEXED BY keys_heads ORDER BY id";
constexpr char kRequestHeadsAll[] =
    "SELECT id, label, key_type, key_bits, body_hash, mac FROM requests INDEXED BY "
    "requests_heads ORDER BY id";

Rc damage(const char* what, int64_t id) {
    trace("key database row %lld: %s", static_cast<long long>(id), what);
    return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
}

// listedMac - whether mac is the one the index lists for row id of table.
Rc listedMac(View& v, uint8_t table, int64_t id, const Mac& mac) {
    std::optional<PageRecord> record;
    if (Rc rc = findPage(v, table, pageOf(id), record); rc != ZAVKM_OK) return rc;
    const Mac* listed = record ? record->macOf(id) : nullptr;
    if (listed == nullptr) return damage("the index does not list it", id);
    return sameMac(*listed, mac) ? ZAVKM_OK : damage("it is not the row the index lists", id);
}

// check - a stored row is the one the index lists: its large columns hold their hash and its
// head the MAC listed for its id.
template <class Stored>
Rc check(View& v, uint8_t table, Stored& k) {
    if (!bodyHolds(k)) return damage("its large columns do not match their hash", k.row.id);
    Mac mac;
    if (!rowMac(v.kdb.keys.row, headOf(k), mac.data())) return ZAVKM_ERR_CRYPTO;
    return listedMac(v, table, k.row.id, mac);
}

constexpr uint8_t tableOf(const StoredKey*) { return kKeysTable; }
constexpr uint8_t tableOf(const StoredRequest*) { return kRequestsTable; }
StoredKey stored(const Stmt& s, const StoredKey*) { return storedKey(s); }
StoredRequest stored(const Stmt& s, const StoredRequest*) { return storedRequest(s); }

// byId - the row of id as stored (nullopt when there is none).
template <class Stored>
Rc byId(View& v, int64_t id, std::optional<Stored>& out) {
    out.reset();
    constexpr const Stored* kind = nullptr;
    Stmt s(v.link, tableOf(kind) == kKeysTable ? ZAVKM_KEY_COLUMNS "WHERE id = ?1"
                                               : ZAVKM_REQUEST_COLUMNS "WHERE id = ?1");
    s.bind(1, id);
    int code = s.step();
    if (code == SQLITE_ROW) out = stored(s, kind);
    return code == SQLITE_ROW || code == SQLITE_DONE ? ZAVKM_OK : sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
}

// fetchChecked - the rows of ids, each there and checked; keep(row) picks those wanted.
template <class Stored, class Keep>
Rc fetchChecked(View& v, const std::vector<int64_t>& ids, std::vector<Stored>& out, Keep keep) {
    for (int64_t id : ids) {
        std::optional<Stored> row;
        if (Rc rc = byId(v, id, row); rc != ZAVKM_OK) return rc;
        if (!row) return damage("listed by the index, but not there", id);
        if (Rc rc = check(v, tableOf(&*row), *row); rc != ZAVKM_OK) return rc;
        if (keep(row->row)) out.push_back(std::move(*row));
    }
    return ZAVKM_OK;
}

// byLabel - the checked row labelled label in one label space. Every row the index lists under
// the label's tag must be there, and every row carrying the label (the ids sql finds) must be
// listed.
template <class Stored>
Rc byLabel(View& v, Domain domain, const char* sql, const std::string& label, std::optional<Stored>& out) {
    out.reset();
    std::vector<int64_t> ids;
    if (Rc rc = taggedIds(v, domain, label, ids); rc != ZAVKM_OK) return rc;
    {
        Stmt s(v.link, sql);
        s.bind(1, label);
        int code;
        while ((code = s.step()) == SQLITE_ROW)
            if (std::find(ids.begin(), ids.end(), s.integer(0)) == ids.end())
                return damage("it carries a label the index does not list for it", s.integer(0));
        if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
    }
    std::vector<Stored> rows;
    if (Rc rc = fetchChecked(v, ids, rows, [&](const auto& r) { return r.label == label; }); rc != ZAVKM_OK)
        return rc;
    if (rows.size() > 1) return damage("its label is listed twice", rows[1].row.id);
    if (!rows.empty()) out = std::move(rows.front());
    return ZAVKM_OK;
}

KeyRow rowOf(View& v, StoredKey&& k) {
    k.row.isDefault = k.row.id == v.meta.defaultKey;
    return std::move(k.row);
}
RequestRow rowOf(View&, StoredRequest&& r) { return std::move(r.row); }

// byValue - the checked rows whose column is value, found through the index's tags of domain.
template <class Stored, class Row>
Rc byValue(View& v, Domain domain, const Bytes& value, Bytes Row::*column, std::vector<Row>& out) {
    out.clear();
    std::vector<int64_t> ids;
    if (Rc rc = taggedIds(v, domain, asView(value), ids); rc != ZAVKM_OK) return rc;
    std::vector<Stored> rows;
    if (Rc rc = fetchChecked(v, ids, rows, [&](const Row& r) { return r.*column == value; }); rc != ZAVKM_OK)
        return rc;
    for (Stored& r : rows) out.push_back(rowOf(v, std::move(r)));
    return ZAVKM_OK;
}

// touchPage - before the first change of a row in its page, the page's rows as they stand must
// be what the index vouches for: the page is sealed anew at the commit, and must not vouch for
// what someone else put there. The row id is noted as changed.
Rc touchPage(View& v, uint8_t table, int64_t id) {
    if (!v.write) return ZAVKM_ERR_DATABASE_WRITE;
    const int64_t page = pageOf(id);
    auto it = v.touchedPages.find({table, page});
    if (it == v.touchedPages.end()) {
        std::optional<PageRecord> record;
        if (Rc rc = findPage(v, table, page, record); rc != ZAVKM_OK) return rc;
        bool holds = false;
        if (Rc rc = pageHolds(v, table, page, record ? &*record : nullptr, holds); rc != ZAVKM_OK) return rc;
        if (!holds) return damage("its page is not what the index vouches for", id);
        it = v.touchedPages.emplace(std::pair(table, page), std::set<int64_t>{}).first;
    }
    it->second.insert(id);
    return ZAVKM_OK;
}

// keyTags - the index entries of a key row: its label, public key and subject.
Rc keyTags(View& v, const KeyRow& row, bool add) {
    for (auto [domain, value] : {std::pair{kKeyLabel, std::string_view(row.label)},
                                 std::pair{kKeySpki, asView(row.spki)},
                                 std::pair{kKeySubject, asView(row.subject)}})
        if (Rc rc = changeTag(v, domain, value, row.id, add); rc != ZAVKM_OK) return rc;
    return ZAVKM_OK;
}

Rc requestTags(View& v, const RequestRow& row, bool add) {
    if (Rc rc = changeTag(v, kRequestLabel, row.label, row.id, add); rc != ZAVKM_OK) return rc;
    return changeTag(v, kRequestSpki, asView(row.spki), row.id, add);
}

Rc newId(View& v, int64_t& id) {
    if (v.meta.nextId >= (int64_t{1} << 62)) return ZAVKM_ERR_DATABASE_WRITE;
    id = v.meta.nextId++;
    return ZAVKM_OK;
}

// allRows - every row of a table through sql (whole rows in id order), or none and
// ZAVKM_ERR_DATABASE_KEY_INTEGRITY when one is damaged or missing.
template <class Stored, class Row>
Rc allRows(View& v, uint8_t table, const char* sql, std::vector<Row>& out) {
    out.clear();
    PageBook book;
    if (Rc rc = loadPages(v, book); rc != ZAVKM_OK) return rc;
    out.reserve(book.rows(table));
    uint32_t damaged = 0;
    Rc rc = scan<Stored>(
        v, book, table, sql,
        [](const Stmt& s, PageRow& check, Stored& k) {
            k = stored(s, &k);
            check.bodyOk = bodyHolds(k);
        },
        [&](Stored&& k, Verdict verdict, bool) {
            if (verdict == Verdict::Sound) out.push_back(rowOf(v, std::move(k)));
        },
        [](int64_t) {}, damaged);
    if (rc == ZAVKM_OK && damaged != 0) {
        trace("%u damaged rows: the whole table is refused", damaged);
        out.clear();
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    }
    return rc;
}

// The most a connection keeps of one table's labels between listings.
constexpr size_t kLabelMemoBytes = size_t{64} << 20;

// dataVersion - SQLite's count of changes to the file by this or any other connection, as of the
// current transaction; nullopt when SQLite cannot tell.
std::optional<unsigned> dataVersion(sqlite3* db) noexcept {
    unsigned version = 0;
    if (sqlite3_file_control(db, "main", SQLITE_FCNTL_DATA_VERSION, &version) != SQLITE_OK)
        return std::nullopt;
    return version;
}

// memoHolds - whether the connection's last sound listing of the table still stands: no
// connection changed the file since.
bool memoHolds(const std::optional<LabelMemo>& memo, std::optional<unsigned> version) {
    return memo && version && memo->dataVersion == *version;
}

// remember - keeps a sound listing on the connection for the next one, unless it is too large.
void remember(std::optional<LabelMemo>& memo, std::optional<unsigned> version,
              const std::vector<std::string>& labels) {
    size_t bytes = labels.size() * sizeof(std::string);
    for (const std::string& label : labels) bytes += label.size();
    if (version && bytes <= kLabelMemoBytes)
        memo = LabelMemo{*version, labels};
    else
        memo.reset();
}

// labelsOf - the labels of one table, all of them sound. A listing in a read view repeated on
// the same connection while no connection changed the file is the last one's, checked then. A
// write view reads the rows: its own changes do not move the data version before they commit.
Rc labelsOf(View& v, uint8_t table, std::vector<std::string>& out) {
    std::optional<LabelMemo>& memo = v.link.labelMemos[table == kKeysTable ? 0 : 1];
    const std::optional<unsigned> version = v.write ? std::nullopt : dataVersion(v.db);
    if (memoHolds(memo, version)) {
        out = memo->labels;
        return ZAVKM_OK;
    }
    PageBook book;
    if (Rc rc = loadPages(v, book); rc != ZAVKM_OK) return rc;
    out.reserve(book.rows(table));
    uint32_t damaged = 0;
    Rc rc = scan<std::string>(
        v, book, table, table == kKeysTable ? kKeyHeadsAll : kRequestHeadsAll,
        [](const Stmt& s, PageRow&, std::string& label) { label = s.text(1); },
        [&](std::string&& label, Verdict verdict, bool) {
            if (verdict == Verdict::Sound) out.push_back(std::move(label));
        },
        [](int64_t) {}, damaged);
    if (rc == ZAVKM_OK && damaged != 0) {
        trace("%u damaged rows: the label list is refused", damaged);
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    }
    if (rc == ZAVKM_OK) remember(memo, version, out);
    return rc;
}

}  // namespace

Rc checkLabel(const char* label) noexcept { return checkLabelText(label); }

Rc findKey(View& v, const std::string& label, std::optional<KeyRow>& out) {
    out.reset();
    std::optional<StoredKey> k;
    if (Rc rc = byLabel(v, kKeyLabel, "SELECT id FROM keys WHERE label = ?1", label, k); rc != ZAVKM_OK)
        return rc;
    if (k) out = rowOf(v, std::move(*k));
    return ZAVKM_OK;
}

Rc findRequest(View& v, const std::string& label, std::optional<RequestRow>& out) {
    out.reset();
    std::optional<StoredRequest> r;
    if (Rc rc = byLabel(v, kRequestLabel, "SELECT id FROM requests WHERE label = ?1", label, r);
        rc != ZAVKM_OK)
        return rc;
    if (r) out = std::move(r->row);
    return ZAVKM_OK;
}

Rc findDefaultKey(View& v, std::optional<KeyRow>& out) {
    out.reset();
    if (v.meta.defaultKey == 0) return ZAVKM_OK;
    std::vector<StoredKey> rows;
    if (Rc rc = fetchChecked(v, {v.meta.defaultKey}, rows, [](const KeyRow&) { return true; });
        rc != ZAVKM_OK)
        return rc;
    out = rowOf(v, std::move(rows.front()));
    return ZAVKM_OK;
}

Rc findKeysBySpki(View& v, const Bytes& spki, std::vector<KeyRow>& out) {
    return byValue<StoredKey>(v, kKeySpki, spki, &KeyRow::spki, out);
}

Rc findKeysBySubject(View& v, const Bytes& subject, std::vector<KeyRow>& out) {
    return byValue<StoredKey>(v, kKeySubject, subject, &KeyRow::subject, out);
}

Rc findRequestsBySpki(View& v, const Bytes& spki, std::vector<RequestRow>& out) {
    return byValue<StoredRequest>(v, kRequestSpki, spki, &RequestRow::spki, out);
}

Rc allKeys(View& v, std::vector<KeyRow>& out) {
    return allRows<StoredKey>(v, kKeysTable, ZAVKM_KEY_COLUMNS "ORDER BY id", out);
}

Rc allRequests(View& v, std::vector<RequestRow>& out) {
    return allRows<StoredRequest>(v, kRequestsTable, ZAVKM_REQUEST_COLUMNS "ORDER BY id", out);
}

Rc listEntries(View& v, bool withDer, const EntrySink& out, uint32_t& damaged) {
    damaged = 0;
    PageBook book;
    if (Rc rc = loadPages(v, book); rc != ZAVKM_OK) return rc;
    out.start(book.rows());
    auto keep = [&](EntryRow&& e, Verdict verdict, bool) {
        if (verdict == Verdict::Sound) out.take(std::move(e));
    };
    auto none = [](int64_t) {};
    auto keyEntry = [&](const Stmt& s, EntryRow& e) {
        e.rowId = s.integer(0);
        e.label = s.text(1);
        e.kind = (s.integer(2) & kPrivateKeyFlag) != 0 ? 1 : 2;
        e.trusted = (s.integer(2) & kTrustedFlag) != 0;
        e.isDefault = e.rowId == v.meta.defaultKey;
        e.keyType = static_cast<int32_t>(s.integer(3));
        e.keyBits = static_cast<int32_t>(s.integer(4));
        e.notBefore = s.integer(5);
        e.notAfter = s.integer(6);
    };
    auto requestEntry = [](const Stmt& s, EntryRow& e) {
        e.rowId = s.integer(0);
        e.label = s.text(1);
        e.kind = 3;
        e.keyType = static_cast<int32_t>(s.integer(2));
        e.keyBits = static_cast<int32_t>(s.integer(3));
    };
    Rc rc;
    if (withDer) {  // the large columns are read, so their hash is checked too
        rc = scan<EntryRow>(v, book, kKeysTable, ZAVKM_KEY_COLUMNS "ORDER BY id",
                            [&](const Stmt& s, PageRow& check, EntryRow& e) {
                                keyEntry(s, e);
                                const StoredKey k = storedKey(s);
                                check.bodyOk = bodyHolds(k);
                                e.der = k.row.cert;
                            }, keep, none, damaged);
        if (rc == ZAVKM_OK)
            rc = scan<EntryRow>(v, book, kRequestsTable, ZAVKM_REQUEST_COLUMNS "ORDER BY id",
                                [&](const Stmt& s, PageRow& check, EntryRow& e) {
                                    requestEntry(s, e);
                                    const StoredRequest r = storedRequest(s);
                                    check.bodyOk = bodyHolds(r);
                                    e.der = r.row.request;
                                }, keep, none, damaged);
    } else {
        rc = scan<EntryRow>(v, book, kKeysTable, kKeyHeadsAll,
                            [&](const Stmt& s, PageRow&, EntryRow& e) { keyEntry(s, e); }, keep, none, damaged);
        if (rc == ZAVKM_OK)
            rc = scan<EntryRow>(v, book, kRequestsTable, kRequestHeadsAll,
                                [&](const Stmt& s, PageRow&, EntryRow& e) { requestEntry(s, e); }, keep,
                                none, damaged);
    }
    if (damaged != 0) trace("listing: %u damaged rows left out", damaged);
    return rc;
}

Rc keyLabels(View& v, std::vector<std::string>& out) {
    out.clear();
    return labelsOf(v, kKeysTable, out);
}

Rc requestLabels(View& v, std::vector<std::string>& out) {
    out.clear();
    return labelsOf(v, kRequestsTable, out);
}

Rc checkRequestLabelFree(View& v, const std::string& label) {
    std::optional<KeyRow> key;
    if (Rc rc = findKey(v, label, key); rc != ZAVKM_OK) return rc;
    std::optional<RequestRow> request;
    if (Rc rc = findRequest(v, label, request); rc != ZAVKM_OK) return rc;
    return key || request ? ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL : ZAVKM_OK;
}

Rc insertKey(View& v, KeyRow& row, X509* cert) {
    std::optional<KeyRow> taken;
    if (Rc rc = findKey(v, row.label, taken); rc != ZAVKM_OK) return rc;
    if (taken) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    if (Rc rc = certificateFacts(row, cert); rc != ZAVKM_OK) return rc;
    if (Rc rc = newId(v, row.id); rc != ZAVKM_OK) return rc;
    if (Rc rc = touchPage(v, kKeysTable, row.id); rc != ZAVKM_OK) return rc;
    if (Rc rc = writeKey(v, v.kdb.keys.row, row, true); rc != ZAVKM_OK) return rc;
    if (row.isDefault) v.meta.defaultKey = row.id;
    return keyTags(v, row, true);
}

Rc insertRequest(View& v, RequestRow& row) {
    std::optional<RequestRow> taken;
    if (Rc rc = findRequest(v, row.label, taken); rc != ZAVKM_OK) return rc;
    if (taken) return ZAVKM_ERR_DATABASE_DUPLICATE_KEY_LABEL;
    if (Rc rc = newId(v, row.id); rc != ZAVKM_OK) return rc;
    if (Rc rc = touchPage(v, kRequestsTable, row.id); rc != ZAVKM_OK) return rc;
    if (Rc rc = writeRequest(v, v.kdb.keys.row, row, true); rc != ZAVKM_OK) return rc;
    return requestTags(v, row, true);
}

Rc deleteKey(View& v, const std::string& label) {
    std::optional<KeyRow> row;
    if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (Rc rc = touchPage(v, kKeysTable, row->id); rc != ZAVKM_OK) return rc;
    if (Rc rc = removeRow(v, kKeysTable, row->id); rc != ZAVKM_OK) return rc;
    if (v.meta.defaultKey == row->id) v.meta.defaultKey = 0;
    return keyTags(v, *row, false);
}

Rc deleteRequest(View& v, const std::string& label) {
    std::optional<RequestRow> row;
    if (Rc rc = findRequest(v, label, row); rc != ZAVKM_OK) return rc;
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (Rc rc = touchPage(v, kRequestsTable, row->id); rc != ZAVKM_OK) return rc;
    if (Rc rc = removeRow(v, kRequestsTable, row->id); rc != ZAVKM_OK) return rc;
    return requestTags(v, *row, false);
}

Rc setDefaultKey(View& v, const std::string& label) {
    std::optional<KeyRow> row;
    if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    v.meta.defaultKey = row->id;
    return ZAVKM_OK;
}

Rc setTrusted(View& v, const std::string& label, bool trusted) {
    std::optional<KeyRow> row;
    if (Rc rc = findKey(v, label, row); rc != ZAVKM_OK) return rc;
    if (!row) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (Rc rc = touchPage(v, kKeysTable, row->id); rc != ZAVKM_OK) return rc;
    row->trusted = trusted;
    return writeKey(v, v.kdb.keys.row, *row, false);
}

Rc replaceCertificate(View& v, const KeyRow& old, const Bytes& cert, const Bytes& subject) {
    if (Rc rc = touchPage(v, kKeysTable, old.id); rc != ZAVKM_OK) return rc;
    KeyRow row = old;
    row.cert = cert;
    row.subject = subject;
    if (Rc rc = certificateFacts(row); rc != ZAVKM_OK) return rc;
    if (Rc rc = writeKey(v, v.kdb.keys.row, row, false); rc != ZAVKM_OK) return rc;
    if (subject == old.subject) return ZAVKM_OK;
    if (Rc rc = changeTag(v, kKeySubject, asView(old.subject), row.id, false); rc != ZAVKM_OK) return rc;
    return changeTag(v, kKeySubject, asView(row.subject), row.id, true);
}

Rc updateRequest(View& v, const RequestRow& old, const Bytes& request) {
    if (Rc rc = touchPage(v, kRequestsTable, old.id); rc != ZAVKM_OK) return rc;
    RequestRow row = old;
    row.request = request;
    return writeRequest(v, v.kdb.keys.row, row, false);
}

Rc renameEntry(View& v, const std::string& label, const std::string& newLabel) {
    if (Rc rc = checkLabel(newLabel.c_str()); rc != ZAVKM_OK) return rc;
    std::optional<KeyRow> key;
    if (Rc rc = findKey(v, label, key); rc != ZAVKM_OK) return rc;
    std::optional<RequestRow> request;
    if (!key)
        if (Rc rc = findRequest(v, label, request); rc != ZAVKM_OK) return rc;
    if (!key && !request) return ZAVKM_ERR_KEY_GET_BY_LABEL;
    if (newLabel == label) return ZAVKM_OK;
    // Either space's new label must be free in both: a key under a request's label would keep
    // the request from ever receiving its certificate.
    if (Rc rc = checkRequestLabelFree(v, newLabel); rc != ZAVKM_OK) return rc;
    const uint8_t table = key ? kKeysTable : kRequestsTable;
    const int64_t id = key ? key->id : request->id;
    const Domain domain = key ? kKeyLabel : kRequestLabel;
    if (Rc rc = touchPage(v, table, id); rc != ZAVKM_OK) return rc;
    Rc rc = ZAVKM_OK;
    if (key) {
        key->label = newLabel;
        rc = writeKey(v, v.kdb.keys.row, *key, false);
    } else {
        request->label = newLabel;
        rc = writeRequest(v, v.kdb.keys.row, *request, false);
    }
    if (rc == ZAVKM_OK) rc = changeTag(v, domain, label, id, false);
    if (rc == ZAVKM_OK) rc = changeTag(v, domain, newLabel, id, true);
    return rc;
}

Rc commitChange(View& v) {
    if (v.status() != ZAVKM_OK) return v.status();
    for (const auto& [key, changed] : v.touchedPages) {
        std::optional<PageRecord> old;  // as checked when the page was touched
        if (Rc rc = findPage(v, key.first, key.second, old); rc != ZAVKM_OK) return rc;
        PageRecord record;
        if (Rc rc = sealPage(v, key.first, key.second, record, old ? &*old : nullptr, &changed);
            rc != ZAVKM_OK)
            return rc;
        if (Rc rc = putPage(v, record); rc != ZAVKM_OK) return rc;
    }
    v.touchedPages.clear();
    return v.finish();
}

}  // namespace zavkm
