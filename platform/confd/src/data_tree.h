// One configuration (running or candidate) indexed for the store's reads:
// every data node with its value converted once, list entries kept in the
// store's order and findable by their keys without touching libyang.
#ifndef IPAPP_STORE_DATA_TREE_H
#define IPAPP_STORE_DATA_TREE_H

#include <confd_lib.h>
#include <libyang/libyang.h>

#include <deque>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
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

struct DNode {
  struct Slot {
    DNode *node = nullptr;     ///< leaf or container child
    ListInst *list = nullptr;  ///< list child
  };
  const SNode *s = nullptr;
  DNode *parent = nullptr;
  const lyd_node *ly = nullptr;
  confd_value_t value{};    ///< leaves; C_BUF points at libyang's string
  std::string text;         ///< leaves: the value's text form
  std::string bytes;        ///< leaves of C_BINARY: the bytes
  std::string keystr;       ///< list entries: key texts joined by '\0'
  std::vector<Slot> slots;  ///< containers and entries: by child SNode index

  const DNode *Child(const SNode *c) const {
    return slots.empty() ? nullptr : slots[c->index].node;
  }
  const ListInst *List(const SNode *c) const {
    return slots.empty() ? nullptr : slots[c->index].list;
  }
  const confd_value_t &Key(size_t i) const { return Child(s->keys[i])->value; }
};

/// Data the store cannot serve although libyang accepted it (e.g. an
/// address the pattern lets through and the address parser refuses).
class DataError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class DataTree {
 public:
  /// Takes ownership of tree (may be null: empty configuration). Throws
  /// DataError naming the node.
  DataTree(const SchemaIndex &schema, lyd_node *tree);
  ~DataTree();
  DataTree(const DataTree &) = delete;
  DataTree &operator=(const DataTree &) = delete;

  const DNode &root() const { return nodes_.front(); }
  const lyd_node *ly_tree() const { return tree_; }
  const SchemaIndex &schema() const { return schema_; }
  size_t size() const { return nodes_.size(); }

 private:
  void Build(DNode *parent, const lyd_node *first);

  const SchemaIndex &schema_;
  lyd_node *tree_;
  std::deque<DNode> nodes_;
  std::deque<ListInst> lists_;
};

/// Joins canonical key texts the way DNode::keystr does.
void AppendKeyText(std::string_view text, std::string *keystr);

/// Orders entries of one list key by key.
bool EntryLess(const DNode *a, const DNode *b);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_DATA_TREE_H
