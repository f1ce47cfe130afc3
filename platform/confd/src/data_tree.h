// One configuration (running or candidate) indexed for the store's reads:
// every data node with its value converted once, list entries kept in the
// store's order and findable by their keys without touching libyang.
#ifndef IPAPP_STORE_DATA_TREE_H
#define IPAPP_STORE_DATA_TREE_H

#include <confd_lib.h>
#include <libyang/libyang.h>

#include <cassert>
#include <deque>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "schema_index.h"

namespace ipapp::store {

struct DNode;

/// The entries of one list below one parent, in the store's order: sorted
/// by their key values (EntryLess), no two equal, so that an entry is found
/// by binary search (FindEntry).
struct ListInst {
  const SNode *s = nullptr;
  std::vector<DNode *> entries;
};

/// A data node. Nodes, their slots and the texts that libyang does not hold
/// live in their tree's arena: a node is trivially destructible and lives as
/// long as its tree. Only a leaf (or leaf-list entry) is a whole DNode: a
/// container or list entry ends where value begins and holds its slots in
/// its place, one per child SNode. So value and text are a leaf's only,
/// Child and List only for a child SNode of s (a leaf has none), and a
/// DNode is never copied.
struct DNode {
  /// One per child SNode: a list's or leaf-list's entries, any other
  /// child's node (null: none).
  union Slot {
    DNode *node = nullptr;
    ListInst *list;
  };
  const SNode *s = nullptr;
  DNode *parent = nullptr;
  const lyd_node *ly = nullptr;  ///< null in a tree built without keeping libyang's data
  // Leaves only, from here on; the slots of anything else.
  confd_value_t value{};  ///< C_BUF points at libyang's string or the tree's copy
  std::string_view text;  ///< the value's text form

  DNode() = default;
  DNode(const DNode &) = delete;
  DNode &operator=(const DNode &) = delete;

  /// c must be no list or leaf-list (its slot holds a ListInst).
  const DNode *Child(const SNode *c) const { return slots()[c->index].node; }
  const ListInst *List(const SNode *c) const {
    assert(IsListKind(*c));
    return slots()[c->index].list;
  }
  static bool IsListKind(const SNode &c) {
    return c.kind == NodeKind::kList || c.kind == NodeKind::kLeafList;
  }
  const confd_value_t &Key(size_t i) const { return Child(s->keys[i])->value; }

  /// Where a container's or entry's slots begin.
  static constexpr size_t kSlotsAt = 3 * sizeof(void *);
  const Slot *slots() const {
    return reinterpret_cast<const Slot *>(reinterpret_cast<const char *>(this) + kSlotsAt);
  }
  Slot *slots() { return reinterpret_cast<Slot *>(reinterpret_cast<char *>(this) + kSlotsAt); }
};

/// Key texts of a list entry joined by blanks (a leaf-list entry: its text).
std::string KeyText(const DNode &entry);
/// Two entries of one list have the same key texts.
bool SameKeys(const DNode &a, const DNode &b);

/// Whether two nodes of schema node s hold the same data; null stands for an
/// absent node. Leaves compare by their texts; a non-presence container has
/// no existence of its own (an empty one is an absent one), a presence
/// container and a list entry do; lists compare entry by entry, in the
/// store's order. What the commit plan counts as a change and what
/// maapi_keypath_diff_iterate reports both rest on this one definition.
bool SameData(const SNode &s, const DNode *a, const DNode *b);

/// Calls visit(a, b) for the entries of two instances of one list (null: no
/// entries), merged in the store's order: an entry in both comes as one pair,
/// an entry in one only with a null partner. Stops at the first visit that
/// returns true and returns true then.
template <typename Visit>
bool VisitEntryPairs(const ListInst *a, const ListInst *b, Visit visit);

/// Data the store cannot serve although libyang accepted it (e.g. an
/// address the pattern lets through and the address parser refuses).
class DataError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class DataTree {
 public:
  /// What becomes of the libyang data once indexed. Only XPath reads it
  /// (DNode::ly, ly_tree()); a tree no XPath is evaluated on frees it at
  /// once, its texts copied, so that two configurations' libyang data
  /// never coexist.
  enum class Libyang { kKeep, kFree };
  /// Takes ownership of tree (may be null: empty configuration). Throws
  /// DataError naming the node.
  DataTree(const SchemaIndex &schema, lyd_node *tree, Libyang libyang = Libyang::kKeep);
  ~DataTree();
  DataTree(const DataTree &) = delete;
  DataTree &operator=(const DataTree &) = delete;

  const DNode &root() const { return *root_; }
  /// Null for an empty configuration and once freed (Libyang::kFree).
  const lyd_node *ly_tree() const { return tree_; }
  const SchemaIndex &schema() const { return schema_; }
  size_t size() const { return size_; }
  /// Distinct for every tree a process builds (an address may be reused).
  uint64_t serial() const { return serial_; }

 private:
  /// Bump allocation of trivially destructible objects and bytes, freed
  /// with the tree.
  class Arena {
   public:
    void *Allocate(size_t size, size_t align);
    template <typename T>
    T *New(size_t n = 1) {
      static_assert(std::is_trivially_destructible_v<T>);
      T *p = static_cast<T *>(Allocate(n * sizeof(T), alignof(T)));
      for (size_t i = 0; i < n; ++i) new (p + i) T();
      return p;
    }
    /// A copy of text, followed by a NUL.
    std::string_view Copy(std::string_view text);

   private:
    std::vector<std::unique_ptr<char[]>> blocks_;
    char *next_ = nullptr;
    size_t left_ = 0;
  };

  void Build(DNode *parent, const lyd_node *first);
  DNode *NewNode(const SNode *s, DNode *parent, const lyd_node *ly);
  void SetLeafValue(DNode &node, const lyd_node *ly);
  ListInst *ListOf(DNode::Slot &slot, const SNode *s, std::vector<ListInst *> *touched);
  void SortEntries(ListInst *list) const;
  static void ForgetLibyang(DNode *node);

  const SchemaIndex &schema_;
  lyd_node *tree_;
  bool keep_libyang_;
  uint64_t serial_;
  Arena arena_;
  DNode *root_ = nullptr;
  size_t size_ = 0;
  std::deque<ListInst> lists_;
  // Scratch of the building: the bytes of a value being parsed, its text.
  std::string scratch_;
  std::string text_;
};

/// Orders entries of one list key by key, and those of a leaf-list by value.
bool EntryLess(const DNode *a, const DNode *b);

template <typename Visit>
bool VisitEntryPairs(const ListInst *a, const ListInst *b, Visit visit) {
  const size_t an = a ? a->entries.size() : 0;
  const size_t bn = b ? b->entries.size() : 0;
  size_t i = 0;
  size_t j = 0;
  while (i < an || j < bn) {
    const DNode *x = nullptr;
    const DNode *y = nullptr;
    if (j == bn || (i < an && EntryLess(a->entries[i], b->entries[j]))) {
      x = a->entries[i++];
    } else if (i == an || EntryLess(b->entries[j], a->entries[i])) {
      y = b->entries[j++];
    } else {
      x = a->entries[i++];
      y = b->entries[j++];
    }
    if (visit(x, y)) return true;
  }
  return false;
}

}  // namespace ipapp::store

#endif  // IPAPP_STORE_DATA_TREE_H
