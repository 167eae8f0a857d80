// audit.cpp - checking a whole key database, and rebuilding its rows and index: the password
// change (under a new data key) and the repair (without the damaged rows).
#include <algorithm>
#include <set>

#include "store/file/entries.h"
#include "store/file/pages.h"
#include "base/trace.h"
#include "zavkm_ext.h"

namespace zavkm {
namespace {

// Judged - every row of a file with its verdict, and the rows the index lists that are gone.
struct Judged {
    struct Row {
        uint8_t table = 0;
        int64_t id = 0;
        std::string label;
        int32_t kind = 0;
        Verdict verdict = Verdict::Sound;
        bool lost = false;          // its page is where the index cannot vouch
        std::vector<Bytes> tags;    // the index entries a sound row needs
    };
    std::vector<Row> rows;
    std::vector<std::pair<uint8_t, int64_t>> missing;
    PageBook book;
};

void tagsOf(Hmac& key, const std::vector<std::pair<Domain, std::string_view>>& values, int64_t id,
            std::vector<Bytes>& out) {
    for (auto [domain, value] : values) {
        uint8_t tag[kTagSize];
        if (tagOf(key, domain, value, tag)) out.push_back(tagEntry(domain, tag, id));
    }
}

// judgeAll - both tables read whole, every row judged against the page index.
Rc judgeAll(View& v, Judged& out) {
    if (Rc rc = loadPages(v, out.book); rc != ZAVKM_OK) return rc;
    uint32_t damaged = 0;
    auto missed = [&](uint8_t table) {
        return [&out, table](int64_t id) { out.missing.emplace_back(table, id); };
    };
    auto keep = [&](Judged::Row&& row, Verdict verdict, bool lost) {
        row.verdict = verdict;
        row.lost = lost;
        if (verdict != Verdict::Sound) row.tags.clear();
        out.rows.push_back(std::move(row));
    };
    Hmac& tagKey = v.kdb.keys.tag;
    Rc rc = scan<Judged::Row>(
        v, out.book, kKeysTable, ZAVKM_KEY_COLUMNS "ORDER BY id",
        [&](const Stmt& s, PageRow& check, Judged::Row& row) {
            const StoredKey k = storedKey(s);
            check.bodyOk = bodyHolds(k);
            row.table = kKeysTable;
            row.id = k.row.id;
            row.label = k.row.label;
            row.kind = k.row.privateKey.empty() ? ZAVKM_ENTRY_SIGNER : ZAVKM_ENTRY_PERSONAL;
            tagsOf(tagKey, {{kKeyLabel, k.row.label}, {kKeySpki, asView(k.row.spki)},
                            {kKeySubject, asView(k.row.subject)}}, k.row.id, row.tags);
        },
        keep, missed(kKeysTable), damaged);
    if (rc != ZAVKM_OK) return rc;
    return scan<Judged::Row>(
        v, out.book, kRequestsTable, ZAVKM_REQUEST_COLUMNS "ORDER BY id",
        [&](const Stmt& s, PageRow& check, Judged::Row& row) {
            const StoredRequest r = storedRequest(s);
            check.bodyOk = bodyHolds(r);
            row.table = kRequestsTable;
            row.id = r.row.id;
            row.label = r.row.label;
            row.kind = ZAVKM_ENTRY_REQUEST;
            tagsOf(tagKey, {{kRequestLabel, r.row.label}, {kRequestSpki, asView(r.row.spki)}},
                   r.row.id, row.tags);
        },
        keep, missed(kRequestsTable), damaged);
}

// indexDamage - what is wrong with the tag tree: parts it cannot vouch for, nodes it does not
// reach, and buckets that do not list exactly the entries of the sound rows.
Rc indexDamage(View& v, const Judged& j, std::vector<Damage>& out) {
    LeafSet buckets;
    if (Rc rc = v.allLeaves(Tree::Tags, buckets); rc != ZAVKM_OK) return rc;
    for (const LeafSet* set : std::initializer_list<const LeafSet*>{&j.book.leaves, &buckets}) {
        for (size_t i = 0; i < set->lost.size(); ++i) out.push_back({"", 0, ZAVKM_DAMAGE_INDEX, 0});
        if (set->strays != 0) out.push_back({"", 0, ZAVKM_DAMAGE_INDEX, 0});
    }
    std::set<int64_t> listed;  // ids the page index lists, sound or not
    for (const auto& [key, record] : j.book.records)
        for (int i = 0; i < 64; ++i)
            if ((record.bitmap >> i) & 1) listed.insert((key.second << kPageShift) + i);
    std::map<Bytes, const Judged::Row*> expected;
    std::set<int64_t> sound;
    for (const Judged::Row& row : j.rows) {
        if (row.verdict != Verdict::Sound) continue;
        sound.insert(row.id);
        for (const Bytes& e : row.tags) expected.emplace(e, &row);
    }
    for (const auto& [bucket, blob] : buckets.leaves) {
        for (size_t at = 0; at + kTagEntrySize <= blob.size(); at += kTagEntrySize) {
            const Bytes e(blob.begin() + static_cast<ptrdiff_t>(at),
                          blob.begin() + static_cast<ptrdiff_t>(at + kTagEntrySize));
            const auto id = static_cast<int64_t>(readU64(&e[1 + kTagSize]));
            if (expected.erase(e) != 0) continue;
            if (sound.count(id) != 0 || listed.count(id) == 0)
                out.push_back({"", 0, ZAVKM_DAMAGE_INDEX, id});
        }
    }
    for (const auto& [entry, row] : expected)
        if (!buckets.isLost(bucketOf(&entry[1])))
            out.push_back({row->label, row->kind, ZAVKM_DAMAGE_INDEX, row->id});
    return ZAVKM_OK;
}

// keepOrDrop - the ids of rows a rebuild removes: every row that is not sound, but where the
// index cannot vouch, a row whose own MAC holds; of two kept rows with one label, the earlier.
std::set<std::pair<uint8_t, int64_t>> keepOrDrop(const Judged& j) {
    std::set<std::pair<uint8_t, int64_t>> drop;
    std::map<std::pair<uint8_t, std::string>, int64_t> labels;
    for (const Judged::Row& row : j.rows) {
        const bool keep = row.verdict == Verdict::Sound || (row.lost && row.verdict == Verdict::Unvouched);
        if (!keep) {
            drop.emplace(row.table, row.id);
            continue;
        }
        auto [it, fresh] = labels.emplace(std::pair(row.table, row.label), row.id);
        if (!fresh) {  // rows come in id order: the later one stays
            drop.emplace(row.table, it->second);
            it->second = row.id;
        }
    }
    return drop;
}

// reseal - every row left, under the keys of to: private keys opened with the view's data key
// and sealed with to's, hashes and MACs computed anew.
Rc reseal(View& v, KeyDb& to) {
    for (uint8_t table : {kKeysTable, kRequestsTable}) {
        for (int64_t after = 0;;) {
            std::vector<StoredKey> keys;
            std::vector<StoredRequest> requests;
            {
                Stmt s(v.link, table == kKeysTable ? ZAVKM_KEY_COLUMNS "WHERE id > ?1 ORDER BY id LIMIT 256"
                                                   : ZAVKM_REQUEST_COLUMNS "WHERE id > ?1 ORDER BY id LIMIT 256");
                s.bind(1, after);
                int code;
                while ((code = s.step()) == SQLITE_ROW) {
                    if (table == kKeysTable)
                        keys.push_back(storedKey(s));
                    else
                        requests.push_back(storedRequest(s));
                    after = s.integer(0);
                }
                if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
            }
            if (keys.empty() && requests.empty()) break;
            auto resealKey = [&](const Bytes& spki, Bytes& sealed) -> Rc {
                if (sealed.empty()) return ZAVKM_OK;
                SecretBytes pkcs8;
                if (Rc rc = openPrivateKey(v.kdb, sealed, spki, pkcs8); rc != ZAVKM_OK) return rc;
                return sealPrivateKey(to, pkcs8, spki, sealed);
            };
            for (StoredKey& k : keys) {
                if (Rc rc = resealKey(k.row.spki, k.row.privateKey); rc != ZAVKM_OK) return rc;
                if (Rc rc = writeKey(v, to.keys.row, k.row, false); rc != ZAVKM_OK) return rc;
            }
            for (StoredRequest& r : requests) {
                if (Rc rc = resealKey(r.row.spki, r.row.privateKey); rc != ZAVKM_OK) return rc;
                if (Rc rc = writeRequest(v, to.keys.row, r.row, false); rc != ZAVKM_OK) return rc;
            }
        }
    }
    return ZAVKM_OK;
}

// reindex - both trees built anew from the rows as they stand, under keys.
Rc reindex(View& v, RowKeys& keys) {
    std::map<uint32_t, std::vector<Bytes>> buckets;
    std::map<uint32_t, std::vector<PageRecord>> pages;
    bool defaultThere = false;
    for (uint8_t table : {kKeysTable, kRequestsTable}) {
        Stmt s(v.link, table == kKeysTable ? ZAVKM_KEY_COLUMNS "ORDER BY id" : ZAVKM_REQUEST_COLUMNS "ORDER BY id");
        std::vector<Bytes> heads;
        PageRecord record;
        auto seal = [&]() -> Rc {
            if (heads.empty()) return ZAVKM_OK;
            std::vector<const Bytes*> refs;
            for (const Bytes& h : heads) refs.push_back(&h);
            if (!pageDigest(keys.row, table, record.page, refs, record.digest)) return ZAVKM_ERR_CRYPTO;
            pages[pageLeaf(record.page)].push_back(std::move(record));
            heads.clear();
            return ZAVKM_OK;
        };
        int code;
        while ((code = s.step()) == SQLITE_ROW) {
            const int64_t id = s.integer(0);
            if (heads.empty() || pageOf(id) != record.page) {
                if (Rc rc = seal(); rc != ZAVKM_OK) return rc;
                record = PageRecord{};
                record.table = table;
                record.page = pageOf(id);
            }
            heads.emplace_back();
            headAt(s, table, heads.back());
            Mac mac;
            if (!rowMac(keys.row, heads.back(), mac.data())) return ZAVKM_ERR_CRYPTO;
            record.bitmap |= uint64_t{1} << (id & 63);
            record.macs.push_back(mac);
            std::vector<Bytes> entries;
            if (table == kKeysTable) {
                const StoredKey k = storedKey(s);
                defaultThere = defaultThere || id == v.meta.defaultKey;
                tagsOf(keys.tag, {{kKeyLabel, k.row.label}, {kKeySpki, asView(k.row.spki)},
                                  {kKeySubject, asView(k.row.subject)}}, id, entries);
            } else {
                const StoredRequest r = storedRequest(s);
                tagsOf(keys.tag, {{kRequestLabel, r.row.label}, {kRequestSpki, asView(r.row.spki)}}, id, entries);
            }
            if (entries.size() != (table == kKeysTable ? 3u : 2u)) return ZAVKM_ERR_CRYPTO;
            for (Bytes& e : entries) buckets[bucketOf(&e[1])].push_back(std::move(e));
        }
        if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
        if (Rc rc = seal(); rc != ZAVKM_OK) return rc;
    }
    std::map<uint32_t, Bytes> tagLeaves, pageLeaves;
    for (auto& [bucket, entries] : buckets) {
        std::sort(entries.begin(), entries.end());
        Bytes& blob = tagLeaves[bucket];
        for (const Bytes& e : entries) blob.insert(blob.end(), e.begin(), e.end());
    }
    for (auto& [leaf, records] : pages) pageLeaves[leaf] = encodePageLeaf(std::move(records));
    if (!defaultThere) v.meta.defaultKey = 0;
    if (Rc rc = v.replaceTree(Tree::Tags, tagLeaves); rc != ZAVKM_OK) return rc;
    return v.replaceTree(Tree::Pages, pageLeaves);
}

}  // namespace

Rc verifyKeyDb(View& v, std::vector<Damage>& out) {
    out.clear();
    Judged j;
    if (Rc rc = judgeAll(v, j); rc != ZAVKM_OK) return rc;
    for (const Judged::Row& row : j.rows)
        if (row.verdict != Verdict::Sound)
            out.push_back({row.label, row.kind,
                           row.verdict == Verdict::Forged ? ZAVKM_DAMAGE_MAC : ZAVKM_DAMAGE_STALE, row.id});
    for (auto [table, id] : j.missing)
        out.push_back({"", table == kRequestsTable ? ZAVKM_ENTRY_REQUEST : 0, ZAVKM_DAMAGE_MISSING, id});
    if (Rc rc = indexDamage(v, j, out); rc != ZAVKM_OK) return rc;
    std::stable_sort(out.begin(), out.end(),
                     [](const Damage& a, const Damage& b) { return a.rowId < b.rowId; });
    if (!out.empty()) trace("verify: %zu damaged rows or parts of the index", out.size());
    return ZAVKM_OK;
}

Rc rebuild(View& v, Rebuild& plan) {
    if (!v.write) return ZAVKM_ERR_DATABASE_WRITE;
    Judged j;
    if (Rc rc = judgeAll(v, j); rc != ZAVKM_OK) return rc;
    const auto drop = keepOrDrop(j);
    if (!plan.dropDamaged && (!drop.empty() || !j.missing.empty())) {
        trace("rebuild refused: %zu damaged and %zu missing rows", drop.size(), j.missing.size());
        return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    }
    for (auto [table, id] : drop)
        if (Rc rc = removeRow(v, table, id); rc != ZAVKM_OK) return rc;
    plan.removed = static_cast<uint32_t>(drop.size() + j.missing.size());
    if (plan.to != nullptr)
        if (Rc rc = reseal(v, *plan.to); rc != ZAVKM_OK) return rc;
    v.touchedPages.clear();
    return reindex(v, plan.to != nullptr ? plan.to->keys : v.kdb.keys);
}

}  // namespace zavkm
