#include "data_tree.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "store.h"
#include "values.h"

namespace ipapp::store {
namespace {

// Keys of an entry as written in the data, "{k1 k2}".
std::string WrittenKeys(const DNode &entry) {
  std::string out = "{";
  if (entry.s->is_list()) {
    for (size_t i = 0; i < entry.s->keys.size(); ++i) {
      if (i) out += ' ';
      AppendQuotedKey(lyd_get_value(entry.Child(entry.s->keys[i])->ly), &out);
    }
  } else {
    AppendQuotedKey(lyd_get_value(entry.ly), &out);
  }
  return out + "}";
}

// Message for two entries of one list with equal keys (first as written
// first in the data).
std::string Twice(const SchemaIndex &schema, const DNode &first, const DNode &second) {
  KeypathBuilder kb;
  confd_hkeypath_t kp;
  std::string where;
  if (KeypathOfNode(first, &kb)) {
    kb.Fill(&kp);
    FormatKeypath(&schema, kp, &where);
  }
  return "entry " + where + " is given twice: " + WrittenKeys(first) + " and " +
         WrittenKeys(second) + " are the same key";
}

}  // namespace

std::string KeyText(const DNode &entry) {
  if (!entry.s->is_list()) return std::string(entry.text);
  std::string out;
  for (size_t i = 0; i < entry.s->keys.size(); ++i) {
    if (i) out += ' ';
    out += entry.Child(entry.s->keys[i])->text;
  }
  return out;
}

bool SameKeys(const DNode &a, const DNode &b) {
  if (!a.s->is_list()) return a.text == b.text;
  for (const SNode *k : a.s->keys) {
    if (a.Child(k)->text != b.Child(k)->text) return false;
  }
  return true;
}

namespace {

bool SameLeaf(const DNode *a, const DNode *b) {
  if (a == nullptr || b == nullptr) return a == b;
  return a->text == b->text;
}

// The children of two nodes of s (null: absent) hold the same data. Leaves
// are compared here, not by a call per leaf: diff iteration compares every
// entry of an unchanged list this way.
bool SameChildren(const SNode &s, const DNode *a, const DNode *b) {
  for (const SNode *c : s.children) {
    switch (c->kind) {
      case NodeKind::kLeaf:
        if (!SameLeaf(a ? a->Child(c) : nullptr, b ? b->Child(c) : nullptr)) return false;
        break;
      case NodeKind::kContainer:
        if (!SameChildren(*c, a ? a->Child(c) : nullptr, b ? b->Child(c) : nullptr)) return false;
        break;
      case NodeKind::kPresence: {
        const DNode *ac = a ? a->Child(c) : nullptr;
        const DNode *bc = b ? b->Child(c) : nullptr;
        if ((ac == nullptr) != (bc == nullptr) || (ac && !SameChildren(*c, ac, bc))) return false;
        break;
      }
      case NodeKind::kList:
      case NodeKind::kLeafList: {
        const ListInst *al = a ? a->List(c) : nullptr;
        const ListInst *bl = b ? b->List(c) : nullptr;
        const size_t an = al ? al->entries.size() : 0;
        const size_t bn = bl ? bl->entries.size() : 0;
        if (an != bn) return false;
        for (size_t i = 0; i < an; ++i) {
          const DNode *ae = al->entries[i];
          const DNode *be = bl->entries[i];
          // A leaf-list entry is its value: the same keys are the same data.
          if (!SameKeys(*ae, *be) || (c->is_list() && !SameChildren(*c, ae, be))) return false;
        }
        break;
      }
    }
  }
  return true;
}

}  // namespace

bool SameData(const SNode &s, const DNode *a, const DNode *b) {
  switch (s.kind) {
    case NodeKind::kLeaf:
    case NodeKind::kLeafList:
      return SameLeaf(a, b);
    case NodeKind::kPresence:
    case NodeKind::kList:
      if ((a == nullptr) != (b == nullptr)) return false;
      if (a == nullptr) return true;
      break;
    case NodeKind::kContainer:
      break;
  }
  return SameChildren(s, a, b);
}

bool EntryLess(const DNode *a, const DNode *b) {
  if (!a->s->is_list()) return CompareValues(a->value, b->value) < 0;
  for (size_t i = 0; i < a->s->keys.size(); ++i) {
    int c = CompareValues(a->Key(i), b->Key(i));
    if (c != 0) return c < 0;
  }
  return false;
}

void *DataTree::Arena::Allocate(size_t size, size_t align) {
  constexpr size_t kBlock = 64 * 1024;
  size_t pad = (align - reinterpret_cast<uintptr_t>(next_) % align) % align;
  if (size + pad > left_) {
    size_t block = size > kBlock / 4 ? size + align : kBlock;
    blocks_.emplace_back(new char[block]);  // not zeroed: New() constructs
    next_ = blocks_.back().get();
    left_ = block;
    pad = (align - reinterpret_cast<uintptr_t>(next_) % align) % align;
  }
  void *p = next_ + pad;
  next_ += pad + size;
  left_ -= pad + size;
  return p;
}

std::string_view DataTree::Arena::Copy(std::string_view text) {
  // NUL-terminated like libyang's strings: a C_BUF value may be read as one.
  char *p = static_cast<char *>(Allocate(text.size() + 1, 1));
  std::memcpy(p, text.data(), text.size());
  p[text.size()] = '\0';
  return {p, text.size()};
}

DataTree::DataTree(const SchemaIndex &schema, lyd_node *tree, Libyang libyang)
    : schema_(schema),
      tree_(tree),
      keep_libyang_(libyang == Libyang::kKeep),
      serial_(NextSerial()) {
  try {
    root_ = NewNode(&schema.root(), nullptr, nullptr);
    Build(root_, tree_);
  } catch (...) {
    lyd_free_all(tree_);
    throw;
  }
  if (!keep_libyang_ && tree_ != nullptr) {
    ForgetLibyang(root_);
    lyd_free_all(tree_);
    tree_ = nullptr;
  }
}

// Nodes keep their libyang node while the tree is built (messages about
// duplicate keys quote the keys as written); none may outlive the data.
void DataTree::ForgetLibyang(DNode *node) {
  node->ly = nullptr;
  for (const SNode *c : node->s->children) {
    DNode::Slot &slot = node->slots()[c->index];
    if (!DNode::IsListKind(*c)) {
      if (slot.node != nullptr) ForgetLibyang(slot.node);
    } else if (slot.list != nullptr) {
      for (DNode *entry : slot.list->entries) ForgetLibyang(entry);
    }
  }
}

DataTree::~DataTree() {
  lyd_free_all(tree_);
}

DNode *DataTree::NewNode(const SNode *s, DNode *parent, const lyd_node *ly) {
  static_assert(offsetof(DNode, value) == DNode::kSlotsAt &&
                alignof(DNode::Slot) <= alignof(DNode));
  DNode *node;
  if (s->kind == NodeKind::kLeaf || s->kind == NodeKind::kLeafList) {
    node = arena_.New<DNode>();
  } else {
    // Two thirds of the nodes are leaves; the others take only the part
    // before the value, then their slots.
    const size_t n = s->children.size();
    char *p = static_cast<char *>(
        arena_.Allocate(DNode::kSlotsAt + n * sizeof(DNode::Slot), alignof(DNode)));
    node = reinterpret_cast<DNode *>(p);
    for (size_t i = 0; i < n; ++i) new (node->slots() + i) DNode::Slot();
  }
  node->s = s;
  node->parent = parent;
  node->ly = ly;
  ++size_;
  return node;
}

void DataTree::SetLeafValue(DNode &node, const lyd_node *ly) {
  const SNode *s = node.s;
  const char *canon = lyd_get_value(ly);
  std::string_view canon_text(canon);
  // A union's value has the type of the member it matched.
  const LeafType &type = UnionMember(s->type, reinterpret_cast<const lyd_node_term *>(ly)->value);
  // Without libyang's data a string's value and text are the tree's own copy.
  if (type.vtype == C_BUF && !keep_libyang_) canon_text = arena_.Copy(canon_text);
  std::string error;
  if (!ParseKeptValue(type, canon_text, &node.value, &scratch_, &error,
                      [this](std::string_view bytes) { return arena_.Copy(bytes); })) {
    char *path = lyd_path(ly, LYD_PATH_STD, nullptr, 0);
    std::string where = path ? path : s->name;
    free(path);
    throw DataError("value \"" + std::string(canon) + "\" of " + where + ": " + error);
  }
  if (type.vtype == C_BUF) {
    node.text = canon_text;
    return;
  }
  text_.clear();
  FormatValue(node.value, &type, &text_);
  // Mostly the text libyang keeps already is the store's form.
  node.text = keep_libyang_ && text_ == canon_text ? canon_text : arena_.Copy(text_);
  // A leaf of type empty (outside unions and keys) reads as its tag.
  if (node.value.type == C_EMPTY && s->type.vtype == C_EMPTY && !s->is_key &&
      s->kind == NodeKind::kLeaf) {
    CONFD_SET_XMLTAG(&node.value, s->tag, s->ns);
  }
}

ListInst *DataTree::ListOf(DNode::Slot &slot, const SNode *s, std::vector<ListInst *> *touched) {
  if (slot.list == nullptr) {
    slot.list = &lists_.emplace_back();
    slot.list->s = s;
    touched->push_back(slot.list);
  }
  return slot.list;
}

void DataTree::Build(DNode *parent, const lyd_node *first) {
  std::vector<ListInst *> touched;
  for (const lyd_node *ly = first; ly != nullptr; ly = ly->next) {
    const SNode *s = ly->schema ? schema_.Find(ly->schema) : nullptr;
    if (s == nullptr) {
      char *path = lyd_path(ly, LYD_PATH_STD, nullptr, 0);
      std::string where = path ? path : "?";
      free(path);
      throw DataError("node " + where + " is not part of the store's schema");
    }
    DNode &node = *NewNode(s, parent, ly);
    DNode::Slot &slot = parent->slots()[s->index];
    switch (s->kind) {
      case NodeKind::kLeaf:
        SetLeafValue(node, ly);
        slot.node = &node;
        break;
      case NodeKind::kLeafList:
        SetLeafValue(node, ly);
        ListOf(slot, s, &touched)->entries.push_back(&node);
        break;
      case NodeKind::kContainer:
      case NodeKind::kPresence:
        slot.node = &node;
        Build(&node, lyd_child(ly));
        break;
      case NodeKind::kList:
        Build(&node, lyd_child(ly));
        ListOf(slot, s, &touched)->entries.push_back(&node);
        break;
    }
  }
  for (ListInst *list : touched) SortEntries(list);
}

void DataTree::SortEntries(ListInst *list) const {
  bool (*less)(const DNode *, const DNode *) =
      list->s->is_list() ? EntryLess : [](const DNode *a, const DNode *b) {
        return CompareValues(a->value, b->value) < 0;
      };
  std::stable_sort(list->entries.begin(), list->entries.end(), less);
  // libyang tells keys apart by their text, the store by their values:
  // "2001:db8::1/64" and "2001:DB8::1/64" are one entry given twice.
  auto twin = std::adjacent_find(list->entries.begin(), list->entries.end(),
                                 [&](const DNode *a, const DNode *b) { return !less(a, b); });
  if (twin != list->entries.end()) throw DataError(Twice(schema_, **twin, **(twin + 1)));
}

}  // namespace ipapp::store
