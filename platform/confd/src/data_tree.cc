#include "data_tree.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "values.h"

namespace ipapp::store {

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
          FormatValue(node.value, &node.text);
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
    if (list->s->is_list()) {
      std::stable_sort(list->entries.begin(), list->entries.end(), EntryLess);
    } else {
      std::stable_sort(
          list->entries.begin(), list->entries.end(),
          [](const DNode *a, const DNode *b) { return CompareValues(a->value, b->value) < 0; });
    }
    list->by_key.reserve(list->entries.size());
    for (DNode *e : list->entries) list->by_key.emplace(e->keystr, e);
  }
}

}  // namespace ipapp::store
