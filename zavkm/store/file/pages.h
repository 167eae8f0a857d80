// pages.h - the leaves of the index and the checks of stored rows against them, shared by the
// lookups and changes (entries.cpp) and by verification and rebuilding (audit.cpp).
//
// A bucket (a leaf of the tag tree) is a sorted run of 17-byte entries: domain, tag (8 bytes),
// row id (8 bytes, big-endian). A page leaf is a sorted run of page records, one per page of 64
// row ids of a table that holds rows: table (1), page number (8), which ids are there (a 64-bit
// map), the MAC over the heads of those rows in id order (16), then each row's MAC (16 each).
#pragma once

#include <array>
#include <bit>
#include <set>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "store/file/index.h"

namespace zavkm {

inline constexpr int kPageShift = 6;  // 64 row ids a page
inline constexpr size_t kTagEntrySize = 1 + kTagSize + 8;
using Mac = std::array<uint8_t, kMacSize>;

// PageRecord - what the index vouches for about one page of a table.
struct PageRecord {
    uint8_t table = 0;
    int64_t page = 0;
    uint64_t bitmap = 0;    // bit i: row id page * 64 + i is there
    Mac digest{};
    std::vector<Mac> macs;  // one per bit of bitmap, in id order
    // macOf - the MAC listed for row id; null when the page does not list it.
    const Mac* macOf(int64_t id) const noexcept;
};

// sameMac - two MACs are equal (compared in constant time).
inline bool sameMac(const Mac& a, const Mac& b) noexcept {
    return CRYPTO_memcmp(a.data(), b.data(), kMacSize) == 0;
}

inline int64_t pageOf(int64_t id) noexcept { return id >> kPageShift; }
inline uint32_t pageLeaf(int64_t page) noexcept { return static_cast<uint32_t>(page) & (kLeafCount - 1); }

// parsePageLeaf / encodePageLeaf - a page leaf's records; false for bytes that are none.
bool parsePageLeaf(const Bytes& blob, std::vector<PageRecord>& out);
Bytes encodePageLeaf(std::vector<PageRecord> records);

// findPage - the record of a page as the index vouches for it (nullopt: the page holds no row).
Rc findPage(View& v, uint8_t table, int64_t page, std::optional<PageRecord>& out);
// putPage - replaces a page's record in its leaf (a record without rows removes it).
Rc putPage(View& v, const PageRecord& record);

// PageBook - every page record the page tree vouches for, and where it vouches for nothing.
struct PageBook {
    std::map<std::pair<uint8_t, int64_t>, PageRecord> records;
    LeafSet leaves;
    bool lost(int64_t page) const noexcept { return leaves.isLost(pageLeaf(page)); }
    // rows - how many rows the records list for table (0: both tables).
    size_t rows(uint8_t table = 0) const noexcept;
};
Rc loadPages(View& v, PageBook& out);

// tagEntry - one entry of a bucket; bucketOf - the bucket of a tag.
Bytes tagEntry(uint8_t domain, const uint8_t* tag, int64_t id);
inline uint32_t bucketOf(const uint8_t* tag) noexcept { return (uint32_t{tag[0]} << 8) | tag[1]; }
// taggedIds - the row ids the index lists under value in domain.
Rc taggedIds(View& v, Domain domain, std::string_view value, std::vector<int64_t>& ids);
// changeTag - adds or removes the entry of value in domain for id (removing one the index does
// not hold is damage).
Rc changeTag(View& v, Domain domain, std::string_view value, int64_t id, bool add);

// StoredKey / StoredRequest - a row as the file holds it, with the columns its checks need.
struct StoredKey {
    KeyRow row;
    int64_t flags = 0, keyType = 0, keyBits = 0;
    Bytes body, mac;  // as stored
};
struct StoredRequest {
    RequestRow row;
    int64_t keyType = 0, keyBits = 0;
    Bytes body, mac;
};
// The columns of a whole row, in the order the readers below take them.
#define ZAVKM_KEY_COLUMNS                                                                      \
    "SELECT id, label, flags, key_type, key_bits, not_before, not_after, body_hash, mac, cert, " \
    "spki, subject, private_key FROM keys "
#define ZAVKM_REQUEST_COLUMNS                                                                  \
    "SELECT id, label, key_type, key_bits, body_hash, mac, request, spki, private_key FROM "    \
    "requests "
StoredKey storedKey(const Stmt& s);
StoredRequest storedRequest(const Stmt& s);

// headOf - a stored row's head (over its stored body hash); bodyHolds - whether its large
// columns still have that hash.
Bytes headOf(const StoredKey& k);
Bytes headOf(const StoredRequest& r);
bool bodyHolds(const StoredKey& k);
bool bodyHolds(const StoredRequest& r);

// Verdict - what a row is, judged against its page. Sound: listed with its MAC. Unvouched: its
// own MAC holds but the index does not list it so (put back from an older state, moved, or from
// a part of the index that is damaged). Forged: its MAC fails (changed, or made by someone
// without the key).
enum class Verdict { Sound, Unvouched, Forged };

// PageRow - one row of a page under judgement: its id, head, stored MAC and whether its large
// columns hold (true when they were not read).
struct PageRow {
    int64_t id = 0;
    Bytes head;
    Mac mac{};              // as stored in the row
    bool macStored = false;  // the row's mac column is 16 bytes
    bool bodyOk = true;
    Verdict verdict = Verdict::Sound;
};

// headAt - the head of the row a statement is on, into out; the statement's first columns are
// id, label, flags, key_type, key_bits, not_before, not_after, body_hash for keys (id, label,
// key_type, key_bits, body_hash for requests), as every reader of rows selects them. storedMac,
// when asked for, reads the column after those (mac).
void headAt(const Stmt& s, uint8_t table, Bytes& out);
void storedMacAt(const Stmt& s, uint8_t table, PageRow& row);

// judgePage - the verdict of each row of one page (rows in id order) against its record (null:
// the index lists no row there; lost: the index cannot say); missing receives how many rows the
// record lists that are not there.
void judgePage(Hmac& key, uint8_t table, int64_t page, const PageRecord* record, bool lost,
               PageRow* rows, size_t count, uint32_t& missing);

// sealPage - the record of a page as its rows now stand (their heads read from the file). With
// the record old, checked before changes, the MACs of rows other than changed are taken from it.
Rc sealPage(View& v, uint8_t table, int64_t page, PageRecord& out, const PageRecord* old = nullptr,
            const std::set<int64_t>* changed = nullptr);
// pageHolds - whether the rows of a page stand as record (null: no row) vouches for them: the
// same ids, and heads under its MAC.
Rc pageHolds(View& v, uint8_t table, int64_t page, const PageRecord* record, bool& holds);

// startPage - starts the MAC over the heads of a page's rows, which the caller then adds to key
// in id order before finishing it (16 bytes); pageDigest does it all for heads.
void startPage(Hmac& key, uint8_t table, int64_t page);
bool pageDigest(Hmac& key, uint8_t table, int64_t page, const std::vector<const Bytes*>& heads,
                Mac& out);

// certificateFacts - what a key row records of its certificate (row.cert, decoded as known when
// given): its notBefore and notAfter in seconds since 1970, and whether it is self-signed (its
// signature verified once, here, so that reads build chains without verifying it again).
Rc certificateFacts(KeyRow& row, X509* known = nullptr);

// writeKey / writeRequest - a row as it is in memory, its hash and MAC (under rowKey) computed,
// inserted or replacing the row of its id.
Rc writeKey(View& v, Hmac& rowKey, const KeyRow& row, bool insert);
Rc writeRequest(View& v, Hmac& rowKey, const RequestRow& row, bool insert);
// removeRow - deletes the row of id from table.
Rc removeRow(View& v, uint8_t table, int64_t id);

// missedIn - missed(id) for every id of page whose bit is set in bits.
template <class Missed>
void missedIn(uint64_t bits, int64_t page, Missed& missed) {
    for (int i = 0; i < 64; ++i)
        if ((bits >> i) & 1) missed((page << kPageShift) + i);
}

// scan - every row of table in id order through sql (whose first columns are those headAt
// reads), page by page against book: read(s, check, kept) fills a row's check and what the
// caller keeps of it, emit(kept, verdict, lost) receives each row once its page is judged (lost:
// the index cannot vouch for its page), missed(id) each row the index lists that is not there.
// damaged counts the rows that are not sound and the missing ones.
template <class Kept, class Read, class Emit, class Missed>
Rc scan(View& v, const PageBook& book, uint8_t table, const char* sql, Read read, Emit emit,
        Missed missed, uint32_t& damaged) {
    Stmt s(v.link, sql);
    std::vector<PageRow> checks;  // kept across pages, so their buffers are reused
    std::vector<Kept> kept;
    size_t used = 0;
    std::set<int64_t> seen;
    int64_t page = -1;
    auto flush = [&] {
        if (used == 0) return;
        auto it = book.records.find({table, page});
        const PageRecord* record = it != book.records.end() ? &it->second : nullptr;
        const bool lost = book.lost(page);
        uint32_t missing = 0;
        judgePage(v.kdb.keys.row, table, page, record, lost, checks.data(), used, missing);
        damaged += missing;
        uint64_t present = 0;
        for (size_t i = 0; i < used; ++i) {
            present |= uint64_t{1} << (checks[i].id & 63);
            if (checks[i].verdict != Verdict::Sound) ++damaged;
            emit(std::move(kept[i]), checks[i].verdict, lost);
        }
        if (record != nullptr && !lost) missedIn(record->bitmap & ~present, page, missed);
        seen.insert(page);
        used = 0;
    };
    int code;
    while ((code = s.step()) == SQLITE_ROW) {
        const int64_t id = s.integer(0);
        if (pageOf(id) != page) {
            flush();
            page = pageOf(id);
        }
        if (used == checks.size()) {
            checks.emplace_back();
            kept.emplace_back();
        }
        PageRow& check = checks[used];
        kept[used] = Kept{};
        check.id = id;
        check.bodyOk = true;
        headAt(s, table, check.head);
        storedMacAt(s, table, check);
        read(s, check, kept[used]);
        ++used;
    }
    if (code != SQLITE_DONE) return sqlRc(v.db, code, ZAVKM_ERR_DATABASE_READ);
    flush();
    for (const auto& [key, record] : book.records)
        if (key.first == table && seen.count(key.second) == 0) {
            damaged += static_cast<uint32_t>(std::popcount(record.bitmap));
            missedIn(record.bitmap, key.second, missed);
        }
    return ZAVKM_OK;
}

}  // namespace zavkm
