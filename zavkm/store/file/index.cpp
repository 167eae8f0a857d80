// index.cpp - the hash trees of the index and the checked view.
#include "store/file/index.h"

#include <functional>

#include "base/trace.h"

namespace zavkm {
namespace {

constexpr size_t kNodeBytes = 16 * kHashSize;
const Hash kZero{};
const Bytes kNoBlob;

bool isZero(const Hash& h) { return h == kZero; }

// hashOf - the hash of a node (level below kTreeDepth) or leaf at its place in its tree: the
// place is hashed with the contents, so a node copied elsewhere does not fit.
bool hashOf(Tree tree, int level, uint32_t index, const Bytes& blob, Hash& out) {
    const uint8_t place[6] = {static_cast<uint8_t>(tree), static_cast<uint8_t>(level),
                              static_cast<uint8_t>(index >> 24), static_cast<uint8_t>(index >> 16),
                              static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index)};
    Digest d;
    d.add("zavkm index v3").add(place, sizeof place).add(blob.data(), blob.size());
    return d.finish(out.data());
}

Hash childOf(const Bytes& node, unsigned slot) {
    Hash h{};
    if (node.size() == kNodeBytes) std::memcpy(h.data(), node.data() + slot * kHashSize, kHashSize);
    return h;
}

uint32_t indexAt(uint32_t leaf, int level) { return leaf >> (4 * (kTreeDepth - level)); }

// run - one statement of the transaction's own, prepared once per connection.
int run(Link& link, const char* sql) {
    Stmt s(link, sql);
    int code = s.step();
    return code == SQLITE_DONE ? SQLITE_OK : code;
}

}  // namespace

int64_t nodeId(Tree tree, int level, uint32_t index) noexcept {
    return (static_cast<int64_t>(tree) + 1) << 40 | static_cast<int64_t>(level) << 32 | index;
}

bool LeafSet::isLost(uint32_t leaf) const noexcept {
    for (auto [first, last] : lost)
        if (leaf >= first && leaf < last) return true;
    return false;
}

View::View(KeyDb& k, bool w) : kdb(k), link(k.db.link()), db(k.db.get()), write(w) {
    try {
        status_ = start();
    } catch (...) {  // the destructor does not run for a view that never finished starting
        if (open_) run(link, "ROLLBACK");
        throw;
    }
}

View::~View() {
    if (open_) run(link, "ROLLBACK");
}

Rc View::start() {
    int code = run(link, write ? "BEGIN IMMEDIATE" : "BEGIN");
    if (code != SQLITE_OK) return sqlRc(db, code, write ? ZAVKM_ERR_DATABASE_WRITE : ZAVKM_ERR_DATABASE_READ);
    open_ = true;
    if (Rc rc = checkSchema(link); rc != ZAVKM_OK) return rc;
    if (Rc rc = readMeta(link, meta); rc != ZAVKM_OK) return rc;
    return acceptMeta(kdb, meta);
}

Rc View::node(Tree tree, int level, uint32_t index, const Hash& expected, const Bytes*& blob) {
    const int64_t id = nodeId(tree, level, index);
    if (auto it = nodes_.find(id); it != nodes_.end()) {
        blob = &it->second;
        return ZAVKM_OK;
    }
    Bytes found;
    if (!isZero(expected)) {
        Stmt s(link, "SELECT data FROM nodes WHERE id = ?1");
        s.bind(1, id);
        int code = s.step();
        if (code == SQLITE_DONE) {
            trace("index: node %d/%u missing", level, index);
            return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
        }
        if (code != SQLITE_ROW) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
        found = s.blob(0);
        Hash h;
        if (!hashOf(tree, level, index, found, h)) return ZAVKM_ERR_CRYPTO;
        if (h != expected || (level < kTreeDepth && found.size() != kNodeBytes)) {
            trace("index: node %d/%u does not match", level, index);
            return ZAVKM_ERR_DATABASE_KEY_INTEGRITY;
        }
    }
    blob = &nodes_.emplace(id, std::move(found)).first->second;
    return ZAVKM_OK;
}

Rc View::leaf(Tree tree, uint32_t index, const Bytes*& blob) {
    blob = &kNoBlob;
    Hash expected = tree == Tree::Tags ? meta.tagRoot : meta.pageRoot;
    for (int level = 0; level <= kTreeDepth; ++level) {
        const Bytes* at = nullptr;
        if (Rc rc = node(tree, level, indexAt(index, level), expected, at); rc != ZAVKM_OK) return rc;
        if (level == kTreeDepth) {
            blob = at;
            break;
        }
        expected = childOf(*at, indexAt(index, level + 1) & 15);
    }
    return ZAVKM_OK;
}

Rc View::setLeaf(Tree tree, uint32_t index, Bytes blob) {
    const Bytes* old = nullptr;
    if (Rc rc = leaf(tree, index, old); rc != ZAVKM_OK) return rc;
    const int64_t id = nodeId(tree, kTreeDepth, index);
    nodes_[id] = std::move(blob);
    dirty_.insert(id);
    return ZAVKM_OK;
}

Rc View::allLeaves(Tree tree, LeafSet& out) {
    out = LeafSet{};
    std::unordered_map<int64_t, Bytes> stored;
    {
        Stmt s(link, "SELECT id, data FROM nodes WHERE id >= ?1 AND id < ?2");
        s.bind(1, nodeId(tree, 0, 0)).bind(2, nodeId(tree, 0, 0) + (int64_t{1} << 40));
        int code;
        while ((code = s.step()) == SQLITE_ROW) stored.emplace(s.integer(0), s.blob(1));
        if (code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_READ);
    }
    size_t reached = 0;
    std::function<void(int, uint32_t, const Hash&)> walk = [&](int level, uint32_t index,
                                                               const Hash& expected) {
        if (isZero(expected)) return;
        const uint32_t first = index << (4 * (kTreeDepth - level));
        const uint32_t last = (index + 1) << (4 * (kTreeDepth - level));
        auto it = stored.find(nodeId(tree, level, index));
        Hash h;
        if (it == stored.end() || !hashOf(tree, level, index, it->second, h) || h != expected ||
            (level < kTreeDepth && it->second.size() != kNodeBytes)) {
            out.lost.emplace_back(first, last);
            if (it != stored.end()) ++reached;
            return;
        }
        ++reached;
        if (level == kTreeDepth) {
            out.leaves.emplace(index, std::move(it->second));
            return;
        }
        for (unsigned slot = 0; slot < 16; ++slot)
            walk(level + 1, index * 16 + slot, childOf(it->second, slot));
    };
    walk(0, 0, tree == Tree::Tags ? meta.tagRoot : meta.pageRoot);
    out.strays = stored.size() - reached;
    if (!out.lost.empty()) trace("index: %zu parts of tree %d not vouched for", out.lost.size(), static_cast<int>(tree));
    return ZAVKM_OK;
}

Rc View::replaceTree(Tree tree, const std::map<uint32_t, Bytes>& leaves) {
    const int64_t first = nodeId(tree, 0, 0), end = first + (int64_t{1} << 40);
    {
        Stmt s(link, "DELETE FROM nodes WHERE id >= ?1 AND id < ?2");
        s.bind(1, first).bind(2, end);
        if (int code = s.step(); code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    }
    std::erase_if(nodes_, [&](const auto& n) { return n.first >= first && n.first < end; });
    std::erase_if(dirty_, [&](int64_t id) { return id >= first && id < end; });
    auto store = [&](int level, uint32_t index, const Bytes& blob, Hash& hash) -> Rc {
        if (!hashOf(tree, level, index, blob, hash)) return ZAVKM_ERR_CRYPTO;
        Stmt s(link, "INSERT OR REPLACE INTO nodes(id, data) VALUES(?1, ?2)");
        s.bind(1, nodeId(tree, level, index)).bind(2, blob);
        int code = s.step();
        return code == SQLITE_DONE ? ZAVKM_OK : sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    };
    std::map<uint32_t, Hash> below;
    for (const auto& [index, blob] : leaves)
        if (!blob.empty())
            if (Rc rc = store(kTreeDepth, index, blob, below[index]); rc != ZAVKM_OK) return rc;
    for (int level = kTreeDepth - 1; level >= 0; --level) {
        std::map<uint32_t, Bytes> nodes;
        for (const auto& [index, hash] : below) {
            Bytes& node = nodes[index >> 4];
            if (node.empty()) node.assign(kNodeBytes, 0);
            std::memcpy(node.data() + (index & 15) * kHashSize, hash.data(), kHashSize);
        }
        below.clear();
        for (const auto& [index, node] : nodes)
            if (Rc rc = store(level, index, node, below[index]); rc != ZAVKM_OK) return rc;
    }
    Hash& root = tree == Tree::Tags ? meta.tagRoot : meta.pageRoot;
    root = below.empty() ? kZero : below.begin()->second;
    return ZAVKM_OK;
}

Rc View::finishTree(Tree tree, Hash& root) {
    // Changed leaves, then each level above them, each node from its checked contents.
    std::map<uint32_t, Hash> changed;  // index -> new hash, at the level being written
    for (int64_t id : dirty_) {
        if ((id >> 40) != static_cast<int64_t>(tree) + 1) continue;
        const auto index = static_cast<uint32_t>(id & 0xffffffff);
        changed.emplace(index, Hash{});
    }
    if (changed.empty()) return ZAVKM_OK;
    for (int level = kTreeDepth; level >= 0; --level) {
        std::map<uint32_t, Hash> parents;
        for (auto& [index, hash] : changed) {
            const int64_t id = nodeId(tree, level, index);
            Bytes& blob = nodes_[id];
            if (level < kTreeDepth) {
                bool empty = true;
                for (uint8_t b : blob) empty = empty && b == 0;
                if (empty) blob.clear();
            }
            if (blob.empty()) {
                hash = kZero;
                Stmt s(link, "DELETE FROM nodes WHERE id = ?1");
                s.bind(1, id);
                if (int code = s.step(); code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
            } else {
                if (!hashOf(tree, level, index, blob, hash)) return ZAVKM_ERR_CRYPTO;
                Stmt s(link, "INSERT OR REPLACE INTO nodes(id, data) VALUES(?1, ?2)");
                s.bind(1, id).bind(2, blob);
                if (int code = s.step(); code != SQLITE_DONE) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
            }
            if (level == 0) {
                root = hash;
                break;
            }
            const uint32_t up = index >> 4;
            Bytes& parent = nodes_[nodeId(tree, level - 1, up)];  // on the checked path
            if (parent.size() != kNodeBytes) parent.assign(kNodeBytes, 0);
            std::memcpy(parent.data() + (index & 15) * kHashSize, hash.data(), kHashSize);
            parents.emplace(up, Hash{});
        }
        changed = std::move(parents);
    }
    return ZAVKM_OK;
}

Rc View::finish() {
    if (!open_ || !write) return ZAVKM_ERR_DATABASE_WRITE;
    if (Rc rc = finishTree(Tree::Tags, meta.tagRoot); rc != ZAVKM_OK) return rc;
    if (Rc rc = finishTree(Tree::Pages, meta.pageRoot); rc != ZAVKM_OK) return rc;
    dirty_.clear();
    ++meta.generation;
    if (Rc rc = writeMeta(kdb, link, meta); rc != ZAVKM_OK) return rc;
    if (int code = run(link, "COMMIT"); code != SQLITE_OK) return sqlRc(db, code, ZAVKM_ERR_DATABASE_WRITE);
    open_ = false;
    return ZAVKM_OK;
}

}  // namespace zavkm
