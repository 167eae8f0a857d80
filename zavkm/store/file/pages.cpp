// pages.cpp - index leaves and the checks of stored rows against them.
#include "store/file/pages.h"

#include <algorithm>
#include <bit>

#include "pki/certcache.h"
#include "pki/x509util.h"
#include "base/trace.h"

namespace zavkm {
namespace {

const uint8_t kZeroHash[kHashSize] = {};

uint64_t bitOf(int64_t id) noexcept { return uint64_t{1} << (id & ((1 << kPageShift) - 1)); }

// bodyBytes - a stored body hash, or zeros where it is not one (its head then fails its MAC).
const uint8_t* bodyBytes(const Bytes& body) { return body.size() == kHashSize ? body.data() : kZeroHash; }


// The heads of a page's rows, from the narrow index that holds them.
constexpr char kKeyHeads[] =
    "SELECT id, label, flags, key_type, key_bits, not_before, not_after, body_hash FROM keys "
    "INDEXED BY keys_heads WHERE id >= ?1 AND id < ?2 ORDER BY id";
constexpr char kRequestHeads[] =
    "SELECT id, label, key_type, key_bits, body_hash FROM requests INDEXED BY requests_heads "
    "WHERE id >= ?1 AND id < ?2 ORDER BY id";

}  // namespace

void headAt(const Stmt& s, uint8_t table, Bytes& out) {
    out.clear();
    if (table == kKeysTable) {
        const std::string_view body = s.view(7);
        appendHead(out, KeyHead{s.integer(0), s.view(1), s.integer(2), s.integer(3), s.integer(4),
                                s.integer(5), s.integer(6)},
                   body.size() == kHashSize ? reinterpret_cast<const uint8_t*>(body.data()) : kZeroHash);
    } else {
        const std::string_view body = s.view(4);
        appendHead(out, RequestHead{s.integer(0), s.view(1), s.integer(2), s.integer(3)},
                   body.size() == kHashSize ? reinterpret_cast<const uint8_t*>(body.data()) : kZeroHash);
    }
}

void storedMacAt(const Stmt& s, uint8_t table, PageRow& row) {
    const std::string_view mac = s.view(table == kKeysTable ? 8 : 5);
    row.macStored = mac.size() == kMacSize;
    if (row.macStored) std::memcpy(row.mac.data(), mac.data(), kMacSize);
}

const Mac* PageRecord::macOf(int64_t id) const noexcept {
    const uint64_t bit = bitOf(id);
    if (pageOf(id) != page || (bitmap & bit) == 0) return nullptr;
    const auto at = static_cast<size_t>(std::popcount(bitmap & (bit - 1)));
    return at < macs.size() ? &macs[at] : nullptr;
}

bool parsePageLeaf(const Bytes& blob, std::vector<PageRecord>& out) {
    out.clear();
    size_t at = 0;
    constexpr size_t fixed = 1 + 8 + 8 + kMacSize;
    while (at < blob.size()) {
        if (blob.size() - at < fixed) return false;
        PageRecord r;
        r.table = blob[at];
        r.page = static_cast<int64_t>(readU64(&blob[at + 1]));
        r.bitmap = readU64(&blob[at + 9]);
        std::memcpy(r.digest.data(), &blob[at + 17], kMacSize);
        at += fixed;
        const auto count = static_cast<size_t>(std::popcount(r.bitmap));
        if (count == 0 || (blob.size() - at) / kMacSize < count) return false;
        r.macs.resize(count);
        for (Mac& m : r.macs) {
            std::memcpy(m.data(), &blob[at], kMacSize);
            at += kMacSize;
        }
        out.push_back(std::move(r));
    }
    return true;
}

Bytes encodePageLeaf(std::vector<PageRecord> records) {
    std::sort(records.begin(), records.end(), [](const PageRecord& a, const PageRecord& b) {
        return std::pair(a.table, a.page) < std::pair(b.table, b.page);
    });
    Bytes out;
    Encoder e{out};
    for (const PageRecord& r : records) {
        if (r.bitmap == 0) continue;
        e.u8(r.table).u64(static_cast<uint64_t>(r.page)).u64(r.bitmap).raw(r.digest.data(), kMacSize);
        for (const Mac& m : r.macs) e.raw(m.data(), kMacSize);
    }
    return out;
}

Rc findPage(View& v, uint8_t table, int64_t page, std::optional<PageRecord>& out) {
    out.reset();
    const Bytes* blob = nullptr;
    if (Rc rc = v.leaf(Tree::Pages, pageLeaf(page), blob); rc != ZAVKM_OK) return rc;
    std::vector<PageRecord> records;
    if (!parsePageLeaf(*blob, records)) return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    for (PageRecord& r : records)
        if (r.table == table && r.page == page) out = std::move(r);
    return ZAVKM_OK;
}

Rc putPage(View& v, const PageRecord& record) {
    const uint32_t leaf = pageLeaf(record.page);
    const Bytes* blob = nullptr;
    if (Rc rc = v.leaf(Tree::Pages, leaf, blob); rc != ZAVKM_OK) return rc;
    std::vector<PageRecord> records;
    if (!parsePageLeaf(*blob, records)) return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    std::erase_if(records, [&](const PageRecord& r) {
        return r.table == record.table && r.page == record.page;
    });
    if (record.bitmap != 0) records.push_back(record);
    return v.setLeaf(Tree::Pages, leaf, encodePageLeaf(std::move(records)));
}

size_t PageBook::rows(uint8_t table) const noexcept {
    size_t n = 0;
    for (const auto& [key, record] : records)
        if (table == 0 || key.first == table) n += static_cast<size_t>(std::popcount(record.bitmap));
    return n;
}

Rc loadPages(View& v, PageBook& out) {
    if (Rc rc = v.allLeaves(Tree::Pages, out.leaves); rc != ZAVKM_OK) return rc;
    std::vector<PageRecord> records;
    for (const auto& [leaf, blob] : out.leaves.leaves) {
        if (!parsePageLeaf(blob, records)) {
            out.leaves.lost.emplace_back(leaf, leaf + 1);
            continue;
        }
        for (PageRecord& r : records) out.records.emplace(std::pair(r.table, r.page), std::move(r));
    }
    return ZAVKM_OK;
}

Bytes tagEntry(uint8_t domain, const uint8_t* tag, int64_t id) {
    Bytes entry;
    Encoder{entry}.u8(domain).raw(tag, kTagSize).u64(static_cast<uint64_t>(id));
    return entry;
}

Rc taggedIds(View& v, Domain domain, std::string_view value, std::vector<int64_t>& ids) {
    ids.clear();
    uint8_t tag[kTagSize];
    if (!tagOf(v.kdb.keys.tag, domain, value, tag)) return ZAVKM_ERR_CRYPTO;
    const Bytes* bucket = nullptr;
    if (Rc rc = v.leaf(Tree::Tags, bucketOf(tag), bucket); rc != ZAVKM_OK) return rc;
    if (bucket->size() % kTagEntrySize != 0) return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    for (size_t at = 0; at < bucket->size(); at += kTagEntrySize) {
        const uint8_t* e = bucket->data() + at;
        if (e[0] == domain && std::memcmp(e + 1, tag, kTagSize) == 0)
            ids.push_back(static_cast<int64_t>(readU64(e + 1 + kTagSize)));
    }
    return ZAVKM_OK;
}

Rc changeTag(View& v, Domain domain, std::string_view value, int64_t id, bool add) {
    uint8_t tag[kTagSize];
    if (!tagOf(v.kdb.keys.tag, domain, value, tag)) return ZAVKM_ERR_CRYPTO;
    const Bytes* bucket = nullptr;
    if (Rc rc = v.leaf(Tree::Tags, bucketOf(tag), bucket); rc != ZAVKM_OK) return rc;
    if (bucket->size() % kTagEntrySize != 0) return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
    const Bytes entry = tagEntry(domain, tag, id);
    Bytes next = *bucket;
    size_t at = 0;  // the first entry not below entry
    while (at < next.size() && std::memcmp(&next[at], entry.data(), kTagEntrySize) < 0)
        at += kTagEntrySize;
    const bool there = at < next.size() && std::memcmp(&next[at], entry.data(), kTagEntrySize) == 0;
    if (add && !there)
        next.insert(next.begin() + static_cast<ptrdiff_t>(at), entry.begin(), entry.end());
    if (!add) {
        if (!there) {
            trace("index: the bucket lacks an entry of row %lld", static_cast<long long>(id));
            return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
        }
        next.erase(next.begin() + static_cast<ptrdiff_t>(at),
                   next.begin() + static_cast<ptrdiff_t>(at + kTagEntrySize));
    }
    return v.setLeaf(Tree::Tags, bucketOf(tag), std::move(next));
}

StoredKey storedKey(const Stmt& s) {
    StoredKey k;
    KeyRow& r = k.row;
    r.id = s.integer(0);
    r.label = s.text(1);
    k.flags = s.integer(2);
    k.keyType = s.integer(3);
    k.keyBits = s.integer(4);
    r.notBefore = s.integer(5);
    r.notAfter = s.integer(6);
    k.body = s.blob(7);
    k.mac = s.blob(8);
    r.cert = s.blob(9);
    r.spki = s.blob(10);
    r.subject = s.blob(11);
    if (!s.isNull(12)) r.privateKey = s.blob(12);
    r.keyType = static_cast<int32_t>(k.keyType);
    r.keyBits = static_cast<int32_t>(k.keyBits);
    r.trusted = (k.flags & kTrustedFlag) != 0;
    r.selfSigned = (k.flags & kSelfSignedFlag) != 0;
    return k;
}

StoredRequest storedRequest(const Stmt& s) {
    StoredRequest q;
    RequestRow& r = q.row;
    r.id = s.integer(0);
    r.label = s.text(1);
    q.keyType = s.integer(2);
    q.keyBits = s.integer(3);
    q.body = s.blob(4);
    q.mac = s.blob(5);
    r.request = s.blob(6);
    r.spki = s.blob(7);
    r.privateKey = s.blob(8);
    r.keyType = static_cast<int32_t>(q.keyType);
    r.keyBits = static_cast<int32_t>(q.keyBits);
    return q;
}

Bytes headOf(const StoredKey& k) {
    Bytes head;
    appendHead(head, KeyHead{k.row.id, k.row.label, k.flags, k.keyType, k.keyBits, k.row.notBefore,
                             k.row.notAfter},
               bodyBytes(k.body));
    return head;
}

Bytes headOf(const StoredRequest& r) {
    Bytes head;
    appendHead(head, RequestHead{r.row.id, r.row.label, r.keyType, r.keyBits}, bodyBytes(r.body));
    return head;
}

bool bodyHolds(const StoredKey& k) {
    const Hash h = keyBody(k.row);
    return k.body.size() == kHashSize && std::memcmp(h.data(), k.body.data(), kHashSize) == 0;
}

bool bodyHolds(const StoredRequest& r) {
    const Hash h = requestBody(r.row);
    return r.body.size() == kHashSize && std::memcmp(h.data(), r.body.data(), kHashSize) == 0;
}

void startPage(Hmac& key, uint8_t table, int64_t page) {
    uint8_t start[10] = {'P', table};
    for (int i = 0; i < 8; ++i) start[2 + i] = static_cast<uint8_t>(static_cast<uint64_t>(page) >> (56 - 8 * i));
    key.add(start, sizeof start);
}

bool pageDigest(Hmac& key, uint8_t table, int64_t page, const std::vector<const Bytes*>& heads,
                Mac& out) {
    startPage(key, table, page);
    for (const Bytes* h : heads) key.add(*h);
    return key.finish(out.data(), kMacSize);
}

void judgePage(Hmac& key, uint8_t table, int64_t page, const PageRecord* record, bool lost,
               PageRow* rows, size_t count, uint32_t& missing) {
    uint64_t present = 0;
    bool bodies = true;
    for (size_t i = 0; i < count; ++i) {
        present |= bitOf(rows[i].id);
        bodies = bodies && rows[i].bodyOk;
    }
    missing = 0;
    if (record != nullptr && !lost) {
        missing = static_cast<uint32_t>(std::popcount(record->bitmap & ~present));
        if (present == record->bitmap && bodies) {
            startPage(key, table, page);
            Bytes heads;  // in one piece: one MAC update for the page, not one a row
            heads.reserve(count * 128);
            for (size_t i = 0; i < count; ++i)
                heads.insert(heads.end(), rows[i].head.begin(), rows[i].head.end());
            key.add(heads);
            Mac digest;
            if (key.finish(digest.data(), kMacSize) && sameMac(digest, record->digest)) {
                for (size_t i = 0; i < count; ++i) rows[i].verdict = Verdict::Sound;
                return;
            }
        }
    }
    for (size_t i = 0; i < count; ++i) {  // the page as a whole does not hold: row by row
        PageRow& r = rows[i];
        Mac mac{};
        const bool computed = rowMac(key, r.head, mac.data());
        const Mac* listed = record != nullptr && !lost ? record->macOf(r.id) : nullptr;
        if (computed && r.bodyOk && listed != nullptr && sameMac(*listed, mac))
            r.verdict = Verdict::Sound;
        else if (computed && r.bodyOk && r.macStored && sameMac(r.mac, mac))
            r.verdict = Verdict::Unvouched;
        else
            r.verdict = Verdict::Forged;
    }
}

Rc sealPage(View& v, uint8_t table, int64_t page, PageRecord& out, const PageRecord* old,
            const std::set<int64_t>* changed) {
    out = PageRecord{};
    out.table = table;
    out.page = page;
    Stmt s(v.link, table == kKeysTable ? kKeyHeads : kRequestHeads);
    s.bind(1, page << kPageShift).bind(2, (page + 1) << kPageShift);
    Hmac& key = v.kdb.keys.row;
    std::vector<Bytes> heads;
    int code;
    while ((code = s.step()) == SQLITE_ROW) {
        const int64_t id = s.integer(0);
        heads.emplace_back();
        headAt(s, table, heads.back());
        out.bitmap |= bitOf(id);
        const Mac* kept = old != nullptr && changed != nullptr && changed->count(id) == 0 ? old->macOf(id) : nullptr;
        Mac mac;
        if (kept != nullptr)
            mac = *kept;
        else if (!rowMac(key, heads.back(), mac.data()))
            return ZAVKM_ERR_CRYPTO;
        out.macs.push_back(mac);
    }
    if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
    startPage(key, table, page);
    for (const Bytes& h : heads) key.add(h);
    return key.finish(out.digest.data(), kMacSize) ? ZAVKM_OK : ZAVKM_ERR_CRYPTO;
}

Rc pageHolds(View& v, uint8_t table, int64_t page, const PageRecord* record, bool& holds) {
    Stmt s(v.link, table == kKeysTable ? kKeyHeads : kRequestHeads);
    s.bind(1, page << kPageShift).bind(2, (page + 1) << kPageShift);
    Hmac& key = v.kdb.keys.row;
    startPage(key, table, page);
    uint64_t bitmap = 0;
    Bytes head;
    int code;
    while ((code = s.step()) == SQLITE_ROW) {
        bitmap |= bitOf(s.integer(0));
        headAt(s, table, head);
        key.add(head);
    }
    if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
    Mac digest;
    if (!key.finish(digest.data(), kMacSize)) return ZAVKM_ERR_CRYPTO;
    holds = record != nullptr ? bitmap == record->bitmap && sameMac(digest, record->digest) : bitmap == 0;
    return ZAVKM_OK;
}

Rc certificateFacts(KeyRow& row, X509* known) {
    X509Ptr decoded = known == nullptr ? cachedCertificate(row.cert) : nullptr;
    X509* x509 = known != nullptr ? known : decoded.get();
    if (x509 == nullptr) return ZAVKM_ERR_ASN;
    row.selfSigned = isSelfSigned(x509);
    int64_t& notBefore = row.notBefore;
    int64_t& notAfter = row.notAfter;
    Asn1TimePtr epoch(ASN1_TIME_set(nullptr, 0));
    if (!epoch) return ZAVKM_ERR_MEMORY_ALLOCATE;
    for (auto [time, out] : {std::pair{X509_get0_notBefore(x509), &notBefore},
                             std::pair{X509_get0_notAfter(x509), &notAfter}}) {
        int days = 0, seconds = 0;
        if (ASN1_TIME_diff(&days, &seconds, epoch.get(), time) != 1) return sslError(ZAVKM_ERR_ASN);
        *out = int64_t{days} * 86400 + seconds;
    }
    return ZAVKM_OK;
}

Rc writeKey(View& v, Hmac& rowKey, const KeyRow& row, bool insert) {
    const Hash body = keyBody(row);
    const int64_t flags = (row.trusted ? kTrustedFlag : 0) | (row.privateKey.empty() ? 0 : kPrivateKeyFlag) |
                          (row.selfSigned ? kSelfSignedFlag : 0);
    Bytes head;
    appendHead(head, KeyHead{row.id, row.label, flags, row.keyType, row.keyBits, row.notBefore, row.notAfter},
               body.data());
    Mac mac;
    if (!rowMac(rowKey, head, mac.data())) return ZAVKM_ERR_CRYPTO;
    Stmt s(v.link, insert ? "INSERT INTO keys(id, label, flags, key_type, key_bits, not_before, not_after, "
                            "body_hash, mac, cert, spki, subject, private_key) "
                            "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)"
                          : "UPDATE keys SET label = ?2, flags = ?3, key_type = ?4, key_bits = ?5, "
                            "not_before = ?6, not_after = ?7, body_hash = ?8, mac = ?9, cert = ?10, "
                            "spki = ?11, subject = ?12, private_key = ?13 WHERE id = ?1");
    s.bind(1, row.id).bind(2, row.label).bind(3, flags).bind(4, int64_t{row.keyType});
    s.bind(5, int64_t{row.keyBits}).bind(6, row.notBefore).bind(7, row.notAfter);
    s.bind(8, body.data(), body.size()).bind(9, mac.data(), mac.size());
    s.bind(10, row.cert).bind(11, row.spki).bind(12, row.subject);
    if (row.privateKey.empty())
        s.bindNull(13);
    else
        s.bind(13, row.privateKey);
    int code = s.step();
    if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_WRITE);
    return sqlite3_changes(v.db) == 1 ? ZAVKM_OK : ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
}

Rc writeRequest(View& v, Hmac& rowKey, const RequestRow& row, bool insert) {
    const Hash body = requestBody(row);
    Bytes head;
    appendHead(head, RequestHead{row.id, row.label, row.keyType, row.keyBits}, body.data());
    Mac mac;
    if (!rowMac(rowKey, head, mac.data())) return ZAVKM_ERR_CRYPTO;
    Stmt s(v.link, insert ? "INSERT INTO requests(id, label, key_type, key_bits, body_hash, mac, "
                            "request, spki, private_key) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)"
                          : "UPDATE requests SET label = ?2, key_type = ?3, key_bits = ?4, "
                            "body_hash = ?5, mac = ?6, request = ?7, spki = ?8, private_key = ?9 "
                            "WHERE id = ?1");
    s.bind(1, row.id).bind(2, row.label).bind(3, int64_t{row.keyType}).bind(4, int64_t{row.keyBits});
    s.bind(5, body.data(), body.size()).bind(6, mac.data(), mac.size());
    s.bind(7, row.request).bind(8, row.spki).bind(9, row.privateKey);
    int code = s.step();
    if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_WRITE);
    return sqlite3_changes(v.db) == 1 ? ZAVKM_OK : ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
}

Rc removeRow(View& v, uint8_t table, int64_t id) {
    Stmt s(v.link, table == kKeysTable ? "DELETE FROM keys WHERE id = ?1" : "DELETE FROM requests WHERE id = ?1");
    s.bind(1, id);
    int code = s.step();
    return code == SQLITE_DONE ? ZAVKM_OK : sqlRc(v.db, code, ZAVKM_ERR_DATABASE_WRITE);
}

}  // namespace zavkm
