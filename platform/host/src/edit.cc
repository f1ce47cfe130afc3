#include <ipapp/edit.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "edit_internal.h"
#include "locate.h"
#include "store.h"

namespace ipapp::host {
namespace {

constexpr const char *kNetconfNs = "urn:ietf:params:xml:ns:netconf:base:1.0";
constexpr const char *kNetconfModuleName = "ietf-netconf";
// Only the module's name and namespace matter: libyang adds the operation
// annotations itself, and one of them is conditional on this feature.
constexpr const char *kNetconfModule =
    "module ietf-netconf {\n"
    "  yang-version 1.1;\n"
    "  namespace \"urn:ietf:params:xml:ns:netconf:base:1.0\";\n"
    "  prefix nc;\n"
    "  feature xpath;\n"
    "}\n";

enum class Op { kMerge, kReplace, kCreate, kDelete, kRemove, kNone };

std::string PathOf(const lyd_node *node) {
  char *path = lyd_path(node, LYD_PATH_STD, nullptr, 0);
  std::string out = path ? path : "";
  std::free(path);
  return out;
}

bool IsTerm(const lyd_node *node) {
  return node->schema != nullptr && (node->schema->nodetype & (LYD_NODE_TERM | LYD_NODE_ANY));
}

struct Tree {
  lyd_node *root = nullptr;
  ~Tree() { lyd_free_all(root); }
};

// The tag a parse failure of an edit earns: what libyang says mapped onto
// the NETCONF error tags.
std::string TagOfParseError(const std::string &message, const std::string &text, int line) {
  auto has = [&](const char *what) { return message.find(what) != std::string::npos; };
  if (has("for metadata")) return "unknown-attribute";
  if (has("No module with namespace")) return "unknown-namespace";
  if (has("not found as a child") || has("Unknown element") || has("not found in the schema")) {
    return "unknown-element";
  }
  if (has("missing its key") || has("Missing key")) return "missing-element";
  if (has("value \"") || has("Unsatisfied") || has("Invalid type")) {
    // The same words come for an attribute: tell by the line's text.
    const size_t open = message.find('"');
    const size_t close = open == std::string::npos ? open : message.find('"', open + 1);
    if (close != std::string::npos && line > 0) {
      const std::string value = message.substr(open + 1, close - open - 1);
      size_t begin = 0;
      for (int l = 1; l < line && begin != std::string::npos; ++l) {
        begin = text.find('\n', begin);
        if (begin != std::string::npos) ++begin;
      }
      if (begin != std::string::npos) {
        const std::string at_line = text.substr(begin, text.find('\n', begin) - begin);
        if (at_line.find("operation=\"" + value + "\"") != std::string::npos ||
            at_line.find("operation='" + value + "'") != std::string::npos) {
          return "bad-attribute";
        }
      }
    }
    return "invalid-value";
  }
  return "malformed-message";
}

class Editor {
 public:
  explicit Editor(const DataSource &edit) : edit_(edit) {}

  // Applies the edit's siblings starting at first under parent (null: the
  // top level, whose first node *top is).
  void ApplySiblings(const lyd_node *first, lyd_node *parent, lyd_node **top, Op inherited) {
    for (const lyd_node *e = first; e != nullptr; e = e->next) {
      if (e->schema != nullptr && lysc_is_key(e->schema)) continue;  // part of its entry
      Apply(e, parent, top, inherited);
    }
  }

 private:
  [[noreturn]] void Fail(const char *tag, const lyd_node *e, const std::string &what) const {
    const std::string path = PathOf(e);
    throw InputError(edit_.name,
                     LineOfPath(edit_.text, edit_.format == DataSource::Format::kJson, path),
                     std::string(tag) + ": " + what + " " + path);
  }

  Op OpOf(const lyd_node *e, Op inherited) const {
    if (lyd_find_meta(e->meta, nullptr, "yang:insert") != nullptr) {
      Fail("operation-not-supported", e, "insert attribute (list order is the store's) on");
    }
    const lyd_meta *meta = lyd_find_meta(e->meta, nullptr, "ietf-netconf:operation");
    if (meta == nullptr) return inherited;
    const std::string op = lyd_get_meta_value(meta);
    if (op == "merge") return Op::kMerge;
    if (op == "replace") return Op::kReplace;
    if (op == "create") return Op::kCreate;
    if (op == "delete") return Op::kDelete;
    if (op == "remove") return Op::kRemove;
    Fail("bad-attribute", e, "operation \"" + op + "\" on");
  }

  static void Free(lyd_node *node, lyd_node **top) {
    if (*top == node) *top = node->next;
    lyd_free_tree(node);
  }

  // A copy of e without its children (a list entry comes with its keys, a
  // term with its value), last among its siblings.
  lyd_node *Insert(const lyd_node *e, lyd_node *parent, lyd_node **top) const {
    lyd_node *dup = nullptr;
    if (lyd_dup_single(e, nullptr, LYD_DUP_NO_META, &dup) != LY_SUCCESS) {
      Fail("operation-failed", e, "cannot create");
    }
    LY_ERR err;
    if (parent != nullptr) {
      err = lyd_insert_child(parent, dup);
    } else {
      err = lyd_insert_sibling(*top, dup, top);
    }
    if (err != LY_SUCCESS) {
      lyd_free_tree(dup);
      Fail("operation-failed", e, "cannot create");
    }
    return dup;
  }

  void Apply(const lyd_node *e, lyd_node *parent, lyd_node **top, Op inherited) {
    if (e->schema == nullptr) Fail("unknown-element", e, "no schema node for");
    const Op op = OpOf(e, inherited);
    lyd_node *siblings = parent != nullptr ? lyd_child(parent) : *top;
    // List entries and leaf-list values are matched by keys and value, every
    // other node by its schema node alone (a leaf of another value is the
    // same leaf).
    lyd_node *match = nullptr;
    const bool by_value = e->schema->nodetype & (LYS_LIST | LYS_LEAFLIST);
    const LY_ERR found = siblings == nullptr ? LY_ENOTFOUND
                         : by_value          ? lyd_find_sibling_first(siblings, e, &match)
                                    : lyd_find_sibling_val(siblings, e->schema, nullptr, 0, &match);
    if (found != LY_SUCCESS) match = nullptr;
    // A node that is there only as a default is not there for an edit.
    const bool present = match != nullptr && !(match->flags & LYD_DEFAULT);
    switch (op) {
      case Op::kDelete:
        if (!present) Fail("data-missing", e, "delete of a node that does not exist:");
        Free(match, top);
        return;
      case Op::kRemove:
        if (present) Free(match, top);
        return;
      case Op::kCreate:
        if (present) Fail("data-exists", e, "create of a node that exists:");
        break;
      case Op::kNone:
        if (IsTerm(e)) {
          if (!present) Fail("data-missing", e, "no such node for an edit without operation:");
          return;
        }
        break;
      case Op::kReplace:
        // What the node holds goes; the node itself keeps its place (the
        // order of a list's entries is what the element reads).
        if (match != nullptr && !IsTerm(e)) {
          for (lyd_node *c = lyd_child(match); c != nullptr;) {
            lyd_node *next = c->next;
            if (c->schema == nullptr || !lysc_is_key(c->schema)) lyd_free_tree(c);
            c = next;
          }
          match->flags &= ~LYD_DEFAULT;
        }
        break;
      case Op::kMerge:
        break;
    }
    if (IsTerm(e)) {
      if (match != nullptr && (e->schema->nodetype & LYD_NODE_TERM)) {
        const LY_ERR err = lyd_change_term(match, lyd_get_value(e));
        if (err != LY_SUCCESS && err != LY_EEXIST && err != LY_ENOT)
          Fail("invalid-value", e, "cannot set");
        return;
      }
      if (match != nullptr) Free(match, top);
      Insert(e, parent, top);
      return;
    }
    const bool created = match == nullptr;
    if (created) match = Insert(e, parent, top);
    ApplySiblings(lyd_child(e), match, top, op);
    // Under no operation a level is made only for what an operation below
    // it creates.
    if (created && op == Op::kNone && OnlyKeys(match)) Free(match, top);
  }

  static bool OnlyKeys(const lyd_node *node) {
    for (const lyd_node *c = lyd_child(node); c != nullptr; c = c->next) {
      if (c->schema == nullptr || !lysc_is_key(c->schema)) return false;
    }
    return true;
  }

  const DataSource &edit_;
};

bool Blank(const std::string &text) {
  for (unsigned char c : text) {
    if (!std::isspace(c)) return false;
  }
  return true;
}

LYD_FORMAT FormatOf(const DataSource &source) {
  return source.format == DataSource::Format::kJson ? LYD_JSON : LYD_XML;
}

}  // namespace

void AddEditAnnotations(ly_ctx *ctx) {
  if (ly_ctx_get_module_implemented(ctx, kNetconfModuleName) != nullptr ||
      ly_ctx_get_module_implemented_ns(ctx, kNetconfNs) != nullptr) {
    return;
  }
  if (lys_parse_mem(ctx, kNetconfModule, LYS_IN_YANG, nullptr) != LY_SUCCESS) {
    throw InputError("<" + std::string(kNetconfModuleName) + ">", 0,
                     FirstError(store::TakeLibyangMessages(), "cannot be loaded"));
  }
}

void RefuseEditOperations(const DataSource &source, const lyd_node *tree) {
  // Only a text that names the namespace can carry the attributes.
  if (tree == nullptr || source.text.find(kNetconfNs) == std::string::npos) return;
  for (const lyd_node *top = tree; top != nullptr; top = top->next) {
    const lyd_node *node;
    LYD_TREE_DFS_BEGIN(top, node) {
      for (const lyd_meta *m = node->meta; m != nullptr; m = m->next) {
        if (std::strcmp(m->annotation->module->name, kNetconfModuleName) != 0) continue;
        throw InputError(
            source.name,
            LineOfPath(source.text, source.format == DataSource::Format::kJson, PathOf(node)),
            std::string("attribute \"") + m->name +
                "\" belongs in an edit, not in a whole configuration");
      }
      LYD_TREE_DFS_END(top, node);
    }
  }
}

std::optional<DefaultOperation> ParseDefaultOperation(const std::string &text) {
  if (text == "merge") return DefaultOperation::kMerge;
  if (text == "replace") return DefaultOperation::kReplace;
  if (text == "none") return DefaultOperation::kNone;
  return std::nullopt;
}

DataSource ApplyEdit(const std::shared_ptr<const Schema> &schema, const DataSource &running,
                     const DataSource &edit, DefaultOperation default_operation) {
  const ly_ctx *ctx = ContextOf(*schema);
  store::CaptureLibyangLog();
  store::TakeLibyangMessages();

  Tree target;
  if (!Blank(running.text) &&
      lyd_parse_data_mem(ctx, running.text.c_str(), FormatOf(running), LYD_PARSE_STRICT,
                         LYD_VALIDATE_NO_STATE, &target.root) != LY_SUCCESS) {
    // The running configuration's own error, word for word as a check of
    // it reports it.
    const std::vector<store::LibyangMessage> messages = store::TakeLibyangMessages();
    Transaction::Create(schema, running, DataSource::Empty());
    throw InputError(running.name, LineOf(messages), FirstError(messages, "cannot be parsed"));
  }

  Tree changes;
  if (!Blank(edit.text) &&
      lyd_parse_data_mem(ctx, edit.text.c_str(), FormatOf(edit),
                         LYD_PARSE_ONLY | LYD_PARSE_STRICT | LYD_PARSE_NO_STATE, 0,
                         &changes.root) != LY_SUCCESS) {
    const std::vector<store::LibyangMessage> messages = store::TakeLibyangMessages();
    int line = LineOf(messages);
    if (line == 0 && !messages.empty() && !messages.front().data_path.empty()) {
      line = LineOfPath(edit.text, edit.format == DataSource::Format::kJson,
                        messages.front().data_path);
    }
    const std::string message = FirstError(messages, "cannot be parsed");
    throw InputError(edit.name, line, TagOfParseError(message, edit.text, line) + ": " + message);
  }

  Op inherited = Op::kMerge;
  if (default_operation == DefaultOperation::kNone) inherited = Op::kNone;
  if (default_operation == DefaultOperation::kReplace) {
    // The edit's configuration is the whole new one.
    lyd_free_all(target.root);
    target.root = nullptr;
    inherited = Op::kReplace;
  }
  Editor(edit).ApplySiblings(changes.root, nullptr, &target.root, inherited);

  store::TakeLibyangMessages();
  if (lyd_validate_all(&target.root, ctx, LYD_VALIDATE_NO_STATE, nullptr) != LY_SUCCESS) {
    const std::vector<store::LibyangMessage> messages = store::TakeLibyangMessages();
    const std::string path = messages.empty() ? std::string() : messages.front().data_path;
    const int line =
        path.empty() ? 0 : LineOfPath(edit.text, edit.format == DataSource::Format::kJson, path);
    throw InputError(
        edit.name, line,
        "the configuration it makes is invalid: " + FirstError(messages, "does not validate"));
  }
  std::string text;
  if (target.root != nullptr) {
    char *printed = nullptr;
    if (lyd_print_mem(&printed, target.root, LYD_XML, LYD_PRINT_WITHSIBLINGS) != LY_SUCCESS) {
      std::free(printed);
      throw InputError(edit.name, 0, "the configuration it makes cannot be printed");
    }
    text = printed;
    std::free(printed);
  }
  return DataSource::Xml(std::move(text), edit.name);
}

}  // namespace ipapp::host
