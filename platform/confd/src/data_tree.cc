#include "data_tree.h"

#include <algorithm>
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

void AppendKeyText(std::string_view text, std::string *keystr) {
  if (!keystr->empty()) keystr->push_back('\0');
  keystr->append(text);
}

bool EntryLess(const DNode *a, const DNode *b) {
  for (size_t i = 0; i < a->s->keys.size(); ++i) {
    int c = CompareValues(a->Key(i), b->Key(i));
    if (c != 0) return c < 0;
  }
  return false;
}

DataTree::DataTree(const SchemaIndex &schema, lyd_node *tree) : schema_(schema), tree_(tree) {
  DNode &root = nodes_.emplace_back();
  root.s = &schema.root();
  root.slots.resize(root.s->children.size());
  try {
    Build(&root, tree_);
  } catch (...) {
    lyd_free_all(tree_);
    throw;
  }
}

DataTree::~DataTree() {
  lyd_free_all(tree_);
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
    DNode &node = nodes_.emplace_back();
    node.s = s;
    node.parent = parent;
    node.ly = ly;
    DNode::Slot &slot = parent->slots[s->index];
    switch (s->kind) {
      case NodeKind::kLeaf:
      case NodeKind::kLeafList: {
        const char *canon = lyd_get_value(ly);
        std::string error;
        if (s->type.vtype == C_BUF) {
          CONFD_SET_BUF(&node.value, canon, std::strlen(canon));
          node.text = canon;
        } else if (!ParseValue(s->type, canon, &node.value, &node.bytes, &error)) {
          char *path = lyd_path(ly, LYD_PATH_STD, nullptr, 0);
          std::string where = path ? path : s->name;
          free(path);
          throw DataError("value \"" + std::string(canon) + "\" of " + where + ": " + error);
        } else {
          FormatValue(node.value, &s->type, &node.text);
        }
        if (s->kind == NodeKind::kLeaf) {
          slot.node = &node;
        } else {
          if (slot.list == nullptr) {
            slot.list = &lists_.emplace_back();
            slot.list->s = s;
            touched.push_back(slot.list);
          }
          node.keystr = node.text;
          slot.list->entries.push_back(&node);
        }
        break;
      }
      case NodeKind::kContainer:
      case NodeKind::kPresence:
        node.slots.resize(s->children.size());
        slot.node = &node;
        Build(&node, lyd_child(ly));
        break;
      case NodeKind::kList:
        node.slots.resize(s->children.size());
        Build(&node, lyd_child(ly));
        for (const SNode *k : s->keys) AppendKeyText(node.Child(k)->text, &node.keystr);
        if (slot.list == nullptr) {
          slot.list = &lists_.emplace_back();
          slot.list->s = s;
          touched.push_back(slot.list);
        }
        slot.list->entries.push_back(&node);
        break;
    }
  }
  for (ListInst *list : touched) {
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
}

}  // namespace ipapp::store
