// index.h - the authenticated index of a key database, and the checked view in which every
// operation reads or changes the file.
//
// The index is two hash trees in the table nodes, each of fanout 16 and depth 4 over 65,536
// leaves: the tag tree, whose leaves (buckets) list (domain, tag, row id) for every label, public
// key and subject of every row, the bucket chosen by the tag; and the page tree, whose leaves
// hold, for every page of 64 row ids of a table, which ids are there, each one's row MAC and a
// MAC over the heads of all of them. A node lists the SHA-256 of its 16 children; a missing node
// or leaf stands for an empty subtree (hash all zero). Both roots are in meta, under its MAC.
// So a lookup checks one bucket and one page against meta through two paths of four nodes, at
// any size, and a listing checks every page of the file in one pass.
#pragma once

#include <map>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "store/file/keydb.h"

namespace zavkm {

enum class Tree : uint8_t { Tags = 0, Pages = 1 };
inline constexpr int kTreeDepth = 4;  // levels of nodes above the leaves
inline constexpr uint32_t kLeafCount = 1u << (4 * kTreeDepth);

// nodeId - the row of nodes holding a tree's node (level 0 to 3) or leaf (level 4).
int64_t nodeId(Tree tree, int level, uint32_t index) noexcept;

// LeafSet - every leaf of a tree that its root vouches for, and what it could not.
struct LeafSet {
    std::map<uint32_t, Bytes> leaves;                     // non-empty leaves, checked
    std::vector<std::pair<uint32_t, uint32_t>> lost;      // leaf ranges [first, last) not vouched for
    size_t strays = 0;                                    // stored nodes the tree does not reach
    bool isLost(uint32_t leaf) const noexcept;
};

// View - one consistent and checked look at a key database: a transaction (read, or write
// holding the file's write lock) in which the schema and the meta row were checked. Destroyed
// uncommitted, it rolls back. One view at a time per handle.
class View {
  public:
    View(KeyDb& kdb, bool write);
    ~View();
    View(const View&) = delete;
    View& operator=(const View&) = delete;

    // status - ZAVKM_OK, or why the view could not start (its transaction, schema or meta).
    Rc status() const noexcept { return status_; }

    // leaf - the checked blob of a tree's leaf (empty when the tree holds none there):
    // ZAVKM_ERR_DATABASE_KEY_INTEGRITY when a node or the leaf on its path fails.
    Rc leaf(Tree tree, uint32_t index, const Bytes*& blob);
    // setLeaf - replaces a leaf (empty: removes it) in this write view; its path is checked first.
    Rc setLeaf(Tree tree, uint32_t index, Bytes blob);
    // allLeaves - every leaf of a tree, each checked through the whole tree.
    Rc allLeaves(Tree tree, LeafSet& out);
    // replaceTree - a tree built anew from its leaves (the non-empty ones), in this write view;
    // its root goes into meta.
    Rc replaceTree(Tree tree, const std::map<uint32_t, Bytes>& leaves);

    // finish - writes the changed leaves and their paths, the new roots, the raised generation
    // and meta under its MAC, and commits.
    Rc finish();

    KeyDb& kdb;
    Link& link;
    sqlite3* const db;
    const bool write;
    Meta meta;
    // Pages (table, page) whose rows this write view changes, with the ids changed: each page is
    // checked before its first change and sealed anew before the commit (entries.h).
    std::map<std::pair<uint8_t, int64_t>, std::set<int64_t>> touchedPages;

  private:
    Rc status_ = ZAVKM_OK;
    bool open_ = false;
    std::unordered_map<int64_t, Bytes> nodes_;  // checked nodes and leaves, changed ones too
    std::set<int64_t> dirty_;                   // changed leaves
    Rc start();
    Rc node(Tree tree, int level, uint32_t index, const Hash& expected, const Bytes*& blob);
    Rc finishTree(Tree tree, Hash& root);
};

}  // namespace zavkm
