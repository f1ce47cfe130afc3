// MAAPI reads of a transaction's candidate configuration.
#include <confd_maapi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "call.h"
#include "values.h"

using ipapp::store::Call;
using ipapp::store::DNode;
using ipapp::store::NodeKind;
using ipapp::store::Target;

int maapi_exists(int sock, int thandle, const char *fmt, ...) {
  Call call("maapi_exists");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  if (!call.ok() || !call.Parse()) return CONFD_ERR;
  Target t = Resolve(call.tree(), call.parsed());
  return call.Done(t.present ? 1 : 0);
}

int maapi_num_instances(int sock, int thandle, const char *fmt, ...) {
  Call call("maapi_num_instances");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  Target t;
  if (!call.ok() || !call.List(&t)) return CONFD_ERR;
  return call.Done(t.list ? static_cast<int>(t.list->entries.size()) : 0);
}

int maapi_get_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...) {
  Call call("maapi_get_elem");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  if (!call.ok()) return CONFD_ERR;
  const DNode *leaf = call.Leaf();
  if (leaf == nullptr) return CONFD_ERR;
  if (v == nullptr) return call.Fail(CONFD_ERR_PROTOUSAGE, "null value pointer");
  void *dup;
  *v = ipapp::store::DupValue(leaf->value, &dup);
  return call.DoneWithDup(CONFD_OK, dup, leaf->text);
}

int maapi_get_int32_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...) {
  Call call("maapi_get_int32_elem");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<int32_t>(C_INT32, rval, [](const confd_value_t &v) { return v.val.i32; });
}

int maapi_get_u_int32_elem(int sock, int thandle, u_int32_t *rval, const char *fmt, ...) {
  Call call("maapi_get_u_int32_elem");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<u_int32_t>(C_UINT32, rval,
                                   [](const confd_value_t &v) { return v.val.u32; });
}

int maapi_get_ipv4_and_plen_elem(int sock, int thandle, struct confd_ipv4_prefix *rval,
                                 const char *fmt, ...) {
  Call call("maapi_get_ipv4_and_plen_elem");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<confd_ipv4_prefix>(C_IPV4_AND_PLEN, rval,
                                           [](const confd_value_t &v) { return v.val.ipv4prefix; });
}

int maapi_get_ipv6_and_plen_elem(int sock, int thandle, struct confd_ipv6_prefix *rval,
                                 const char *fmt, ...) {
  Call call("maapi_get_ipv6_and_plen_elem");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  if (!call.ok()) return CONFD_ERR;
  return call.ReadTyped<confd_ipv6_prefix>(C_IPV6_AND_PLEN, rval,
                                           [](const confd_value_t &v) { return v.val.ipv6prefix; });
}

int maapi_init_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt, ...) {
  Call call("maapi_init_cursor");
  IPAPP_MAAPI_PATH(call, sock, thandle, fmt);
  Target t;
  if (!call.ok() || !call.List(&t)) return CONFD_ERR;
  if (mc == nullptr) return call.Fail(CONFD_ERR_PROTOUSAGE, "null cursor");
  std::memset(mc, 0, sizeof *mc);
  mc->path = strdup(std::string(call.path()).c_str());
  if (mc->path == nullptr) throw std::bad_alloc();
  mc->socket = sock;
  mc->thandle = thandle;
  {
    // Registered whole or not at all: a cursor the caller never got cannot
    // be destroyed by it.
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    uint64_t id = 0;
    try {
      id = ipapp::store::NewCursorIdLocked(thandle);
      ipapp::store::CursorState &state = call.txn().cursors[id];
      state.list = t.list;
      state.s = t.s;
      state.path = mc->path;
      state.serial = call.txn().NextSerialLocked();
    } catch (...) {
      if (id != 0) ipapp::store::ForgetCursorLocked(id);
      std::free(mc->path);
      mc->path = nullptr;
      throw;
    }
    mc->cursor_id = reinterpret_cast<void *>(static_cast<uintptr_t>(id));
  }
  return call.Done(CONFD_OK);
}

namespace {

// The cursor's state, with the store lock held; null (and the error set)
// for a cursor the store does not know.
ipapp::store::CursorState *FindCursor(Call &call, maapi_cursor *mc) {
  if (mc == nullptr) return nullptr;
  auto id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(mc->cursor_id));
  std::shared_ptr<ipapp::store::Txn> txn = ipapp::store::FindCursorLocked(id);
  if (!txn) return nullptr;
  call.Use(txn);
  return &txn->cursors.at(id);
}

int UnknownCursor(Call &call, maapi_cursor *mc) {
  if (mc != nullptr) mc->n = 0;
  return call.Fail(CONFD_ERR_PROTOUSAGE,
                   "cursor not initialised, destroyed or of an ended transaction");
}

void SetKeys(const DNode &entry, maapi_cursor *mc) {
  if (entry.s->is_list()) {
    mc->n = static_cast<int>(entry.s->keys.size());
    for (int i = 0; i < mc->n; ++i) mc->keys[i] = entry.Key(i);
  } else {
    mc->n = 1;
    mc->keys[0] = entry.value;
  }
}

// Why the cursor's caller-set fields cannot be served ("" when they can):
// the store has no secondary indexes.
std::string CursorOptions(const maapi_cursor *mc, int *err) {
  if (mc->secondary_index != nullptr) {
    *err = CONFD_ERR_NOEXISTS;
    return std::string("no secondary index \"") + mc->secondary_index + "\"";
  }
  return std::string();
}

// The next entry at or after state->next that passes the cursor's XPath
// filter; null at the end. *why is set when the filter cannot be evaluated.
const DNode *NextEntry(ipapp::store::CursorState *state, const maapi_cursor *mc, std::string *why) {
  size_t size = state->list ? state->list->entries.size() : 0;
  while (state->next < size) {
    const DNode *entry = state->list->entries[state->next];
    if (mc->xpath_expr == nullptr) return entry;
    ly_bool match = 0;
    if (lyd_eval_xpath(entry->ly, mc->xpath_expr, &match) != LY_SUCCESS) {
      const char *msg = ly_errmsg(LYD_CTX(entry->ly));
      *why = std::string("cannot evaluate the cursor's xpath_expr \"") + mc->xpath_expr +
             "\": " + (msg ? msg : "error");
      return nullptr;
    }
    if (match) return entry;
    ++state->next;
  }
  return nullptr;
}

// Appends entry's value array (confd_types(3) "Value Array") below s to
// out, depth first: a leaf's value or C_NOEXISTS, a leaf-list as one C_LIST,
// a list as one C_NOEXISTS, a container as its C_XMLTAG and then its
// children, an absent presence container as one C_NOEXISTS. Only the
// first n values are stored (allocated ones registered on txn); *count
// counts them all.
void ValueArray(Call &call, const std::string *path, const ipapp::store::SNode &s,
                const DNode *node, confd_value_t *out, int n, int *count) {
  for (const ipapp::store::SNode *c : s.children) {
    confd_value_t v{};
    v.type = C_NOEXISTS;
    void *dup = nullptr;
    const DNode *child = node && !DNode::IsListKind(*c) ? node->Child(c) : nullptr;
    switch (c->kind) {
      case NodeKind::kLeaf:
        if (child == nullptr) {
          CONFD_SET_NOEXISTS(&v);
        } else if (*count < n) {
          v = ipapp::store::DupValue(child->value, &dup);
        }
        break;
      case NodeKind::kLeafList: {
        const ipapp::store::ListInst *list = node ? node->List(c) : nullptr;
        if (list == nullptr || list->entries.empty()) {
          CONFD_SET_NOEXISTS(&v);
        } else if (*count < n) {
          v = ipapp::store::DupList(list, &dup);
        }
        break;
      }
      case NodeKind::kList:
        CONFD_SET_NOEXISTS(&v);
        break;
      case NodeKind::kPresence:
        if (child == nullptr) {
          CONFD_SET_NOEXISTS(&v);
          break;
        }
        [[fallthrough]];
      case NodeKind::kContainer:
        CONFD_SET_XMLTAG(&v, c->tag, c->ns);
        if (*count < n) out[*count] = v;
        ++*count;
        ValueArray(call, path, *c, child, out, n, count);
        continue;
    }
    if (*count < n) {
      if (dup != nullptr) {
        try {
          ipapp::store::AddDupLocked(call.txn(), dup, "maapi_get_objects", path);
        } catch (...) {
          std::free(dup);
          throw;
        }
      }
      out[*count] = v;
    }
    ++*count;
  }
}

}  // namespace

int maapi_get_next(struct maapi_cursor *mc) {
  Call call("maapi_get_next");
  std::string detail;
  std::string why;
  int err = CONFD_ERR_XPATH;
  bool known;
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    ipapp::store::CursorState *state = FindCursor(call, mc);
    known = state != nullptr;
    if (known) why = CursorOptions(mc, &err);
    const DNode *entry = known && why.empty() ? NextEntry(state, mc, &why) : nullptr;
    if (entry != nullptr) {
      ++state->next;
      SetKeys(*entry, mc);
      if (call.tracing()) detail = ipapp::store::KeyText(*entry);
    } else if (known) {
      mc->n = 0;
    }
  }
  if (!known) return UnknownCursor(call, mc);
  if (!why.empty()) return call.Fail(err, why);
  return call.Done(CONFD_OK, detail);
}

// Never throws: guards call it from destructors. Only lookups and erasures
// happen before the trace record, which cannot fail.
void maapi_destroy_cursor(struct maapi_cursor *mc) {
  Call call("maapi_destroy_cursor");
  if (mc == nullptr) return;
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    auto id = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(mc->cursor_id));
    std::shared_ptr<ipapp::store::Txn> txn = ipapp::store::FindCursorLocked(id);
    if (txn) {
      // mc->path is the state's path; that of a cursor the store no longer
      // knows was freed when its transaction ended.
      std::free(txn->cursors.at(id).path);
      txn->cursors.erase(id);
      ipapp::store::ForgetCursorLocked(id);
      call.Use(txn);
    }
  }
  mc->path = nullptr;
  mc->cursor_id = nullptr;
  mc->n = 0;
  call.Done(CONFD_OK);
}

namespace {

// Takes back the buffers duplicated into values[0, count): unregistered and
// freed, the values set to C_NOEXISTS.
void TakeBack(confd_value_t *values, int count) noexcept {
  for (int i = 0; i < count; ++i) {
    confd_value_t &v = values[i];
    void *ptr = nullptr;
    if (ipapp::store::HoldsBuffer(v)) {
      ptr = v.val.buf.ptr;
    } else if (v.type == C_LIST) {
      ptr = v.val.list.ptr;
    }
    if (ptr != nullptr) ipapp::store::FreeDup(ptr);
    CONFD_SET_NOEXISTS(&v);
  }
}

}  // namespace

int maapi_get_objects(struct maapi_cursor *mc, confd_value_t *values, int n, int *nobj) {
  Call call("maapi_get_objects");
  int count = 0;
  int most = 0;    // values of the largest entry read
  int filled = 0;  // values[0, filled) hold what this call wrote
  bool known = false;
  std::string why;
  int err = CONFD_ERR_PROTOUSAGE;
  bool bad_args = values == nullptr || nobj == nullptr || n <= 0 || (nobj && *nobj < 0);
  try {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    ipapp::store::CursorState *state = FindCursor(call, mc);
    known = state != nullptr;
    if (known && bad_args) why = "bad arguments (values, n or *nobj)";
    if (known && why.empty()) why = CursorOptions(mc, &err);
    if (known && why.empty()) {
      const DNode *last = nullptr;
      const std::string *path = call.txn().InternLocked(state->path ? state->path : "");
      while (count < *nobj) {
        const DNode *entry = NextEntry(state, mc, &why);
        if (entry == nullptr) break;
        ++state->next;
        // The row is cleared first, so that taking it back never meets a
        // value this call did not write.
        confd_value_t *row = &values[count * n];
        for (int j = 0; j < n; ++j) CONFD_SET_NOEXISTS(&row[j]);
        filled = (count + 1) * n;
        int width = 0;
        ValueArray(call, path, *entry->s, entry, row, n, &width);
        most = std::max(most, width);
        last = entry;
        ++count;
      }
      if (!why.empty()) {
        err = CONFD_ERR_XPATH;
      } else if (count < *nobj) {
        *nobj = count;
        mc->n = 0;
      } else if (last != nullptr) {
        SetKeys(*last, mc);  // the next call starts after it
      }
    }
  } catch (...) {
    TakeBack(values, filled);  // the caller never learns of them
    throw;
  }
  if (!known) return UnknownCursor(call, mc);
  if (!why.empty()) {
    TakeBack(values, filled);
    return call.Fail(err, why);
  }
  try {
    return call.Done(most, call.tracing() ? std::to_string(count) + " objects" : std::string());
  } catch (...) {
    TakeBack(values, filled);
    throw;
  }
}

namespace {

// String value of a node: its value, or its descendants' values in order.
void StringValue(const lyd_node *node, std::string *out) {
  if (node->schema && (node->schema->nodetype & (LYS_LEAF | LYS_LEAFLIST))) {
    *out += lyd_get_value(node);
    return;
  }
  for (const lyd_node *c = lyd_child(node); c != nullptr; c = c->next) StringValue(c, out);
}

}  // namespace

int maapi_xpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                          void (*trace)(char *), const char *fmt, ...) {
  Call call("maapi_xpath_eval_expr");
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle)) return CONFD_ERR;
  if (expr == nullptr || res == nullptr) {
    return call.Fail(CONFD_ERR_PROTOUSAGE, "null expression or result pointer");
  }
  *res = nullptr;
  // The context node; null for the root, and for a context that does not
  // exist (absolute expressions still see the whole configuration).
  const lyd_node *context = nullptr;
  if (call.path() != "/" && !call.path().empty()) {
    if (!call.Parse()) return CONFD_ERR;
    const ipapp::store::PathElem &last = call.parsed().e[call.parsed().n - 1];
    if (last.s->is_list() && last.sel == ipapp::store::PathElem::kNone) {
      return call.Fail(CONFD_ERR_BADPATH, "a list without keys or index is no context node");
    }
    Target t = Resolve(call.tree(), call.parsed());
    if (t.node != nullptr) context = t.node->ly;
  }
  std::string value;
  const lyd_node *tree = call.tree().ly_tree();
  if (tree != nullptr) {
    ly_set *set = nullptr;
    if (lyd_find_xpath3(context, tree, expr, nullptr, &set) != LY_SUCCESS) {
      const char *msg = ly_errmsg(call.txn().schema().ctx());
      std::string why = msg ? msg : "error";
      if (why.find("not a node set") != std::string::npos) {
        why = "the result is not a node set (numbers, strings and booleans are not supported)";
      }
      return call.Fail(CONFD_ERR_XPATH, std::string("cannot evaluate \"") + expr + "\": " + why);
    }
    if (set->count > 0) StringValue(set->dnodes[0], &value);
    ly_set_free(set, nullptr);
  }
  // Texts first: once *res is handed out nothing may throw.
  std::string line = trace ? std::string("xpath ") + expr + " => \"" + value + "\"" : "";
  const std::string detail = std::string(expr) + " => " + value;
  *res = strdup(value.c_str());
  if (*res == nullptr) throw std::bad_alloc();
  if (value.empty()) {
    // The element's plug-ins never free an empty result: the transaction
    // keeps it, as open, until it ends.
    try {
      std::string what = std::string(expr) + " in " + std::string(call.path());
      std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
      ipapp::store::Txn &txn = call.txn();
      txn.xpath_results.emplace(*res,
                                ipapp::store::OpenItem{txn.NextSerialLocked(), "XPath result",
                                                       "maapi_xpath_eval_expr", std::move(what)});
    } catch (...) {
      std::free(*res);
      *res = nullptr;
      throw;
    }
  }
  if (trace != nullptr) trace(line.data());
  return call.Done(CONFD_OK, detail);
}
