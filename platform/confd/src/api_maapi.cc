// MAAPI reads of a transaction's candidate configuration.
#include <confd_maapi.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
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
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle) || !call.Parse()) return CONFD_ERR;
  Target t = Resolve(call.tree(), call.parsed());
  return call.Done(t.present ? 1 : 0);
}

int maapi_num_instances(int sock, int thandle, const char *fmt, ...) {
  Call call("maapi_num_instances");
  IPAPP_FORMAT_PATH(call, fmt);
  Target t;
  if (!call.Maapi(sock, thandle) || !call.List(&t)) return CONFD_ERR;
  return call.Done(t.list ? static_cast<int>(t.list->entries.size()) : 0);
}

int maapi_get_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...) {
  Call call("maapi_get_elem");
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle)) return CONFD_ERR;
  const DNode *leaf = call.Leaf();
  if (leaf == nullptr) return CONFD_ERR;
  if (v == nullptr) return call.Fail(CONFD_ERR_PROTOUSAGE, "null value pointer");
  void *dup;
  *v = ipapp::store::DupValue(leaf->value, &dup);
  return call.DoneWithDup(CONFD_OK, dup, leaf->text);
}

int maapi_get_int32_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...) {
  Call call("maapi_get_int32_elem");
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle)) return CONFD_ERR;
  return call.ReadTyped<int32_t>(C_INT32, rval, [](const confd_value_t &v) { return v.val.i32; });
}

int maapi_get_u_int32_elem(int sock, int thandle, u_int32_t *rval, const char *fmt, ...) {
  Call call("maapi_get_u_int32_elem");
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle)) return CONFD_ERR;
  return call.ReadTyped<u_int32_t>(C_UINT32, rval,
                                   [](const confd_value_t &v) { return v.val.u32; });
}

int maapi_get_ipv4_and_plen_elem(int sock, int thandle, struct confd_ipv4_prefix *rval,
                                 const char *fmt, ...) {
  Call call("maapi_get_ipv4_and_plen_elem");
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle)) return CONFD_ERR;
  return call.ReadTyped<confd_ipv4_prefix>(C_IPV4_AND_PLEN, rval,
                                           [](const confd_value_t &v) { return v.val.ipv4prefix; });
}

int maapi_get_ipv6_and_plen_elem(int sock, int thandle, struct confd_ipv6_prefix *rval,
                                 const char *fmt, ...) {
  Call call("maapi_get_ipv6_and_plen_elem");
  IPAPP_FORMAT_PATH(call, fmt);
  if (!call.Maapi(sock, thandle)) return CONFD_ERR;
  return call.ReadTyped<confd_ipv6_prefix>(C_IPV6_AND_PLEN, rval,
                                           [](const confd_value_t &v) { return v.val.ipv6prefix; });
}

int maapi_init_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt, ...) {
  Call call("maapi_init_cursor");
  IPAPP_FORMAT_PATH(call, fmt);
  Target t;
  if (!call.Maapi(sock, thandle) || !call.List(&t)) return CONFD_ERR;
  if (mc == nullptr) return call.Fail(CONFD_ERR_PROTOUSAGE, "null cursor");
  std::memset(mc, 0, sizeof *mc);
  mc->path = strdup(call.path().c_str());
  mc->socket = sock;
  mc->thandle = thandle;
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    uint64_t id = ipapp::store::NewCursorIdLocked(thandle);
    ipapp::store::CursorState &state = call.txn().cursors[id];
    state.list = t.list;
    state.s = t.s;
    state.path = mc->path;
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

}  // namespace

int maapi_get_next(struct maapi_cursor *mc) {
  Call call("maapi_get_next");
  std::string detail;
  bool known;
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    ipapp::store::CursorState *state = FindCursor(call, mc);
    known = state != nullptr;
    if (known && state->list != nullptr && state->next < state->list->entries.size()) {
      const DNode &entry = *state->list->entries[state->next++];
      SetKeys(entry, mc);
      if (call.tracing()) detail = ipapp::store::KeyText(entry);
    } else if (known) {
      mc->n = 0;
    }
  }
  if (!known) return UnknownCursor(call, mc);
  return call.Done(CONFD_OK, detail);
}

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

int maapi_get_objects(struct maapi_cursor *mc, confd_value_t *values, int n, int *nobj) {
  Call call("maapi_get_objects");
  int count = 0;
  bool known;
  bool bad_args = values == nullptr || nobj == nullptr || n <= 0 || (nobj && *nobj <= 0);
  {
    std::lock_guard<std::mutex> lock(ipapp::store::StoreMutex());
    ipapp::store::CursorState *state = FindCursor(call, mc);
    known = state != nullptr;
    size_t size = known && state->list ? state->list->entries.size() : 0;
    while (known && !bad_args && count < *nobj && state->next < size) {
      const DNode &entry = *state->list->entries[state->next++];
      const auto &leaves = entry.s->object_leaves;
      for (int j = 0; j < n; ++j) {
        confd_value_t &out = values[count * n + j];
        const DNode *leaf =
            static_cast<size_t>(j) < leaves.size() ? entry.Child(leaves[j]) : nullptr;
        if (leaf == nullptr) {
          CONFD_SET_NOEXISTS(&out);
          continue;
        }
        void *dup;
        out = ipapp::store::DupValue(leaf->value, &dup);
        if (dup != nullptr) ipapp::store::AddDupLocked(call.txn(), dup);
      }
      ++count;
    }
    if (known && !bad_args) {
      *nobj = count;
      if (state->next < size) {
        SetKeys(*state->list->entries[state->next], mc);
      } else {
        mc->n = 0;
      }
    }
  }
  if (!known) return UnknownCursor(call, mc);
  if (bad_args) return call.Fail(CONFD_ERR_PROTOUSAGE, "bad arguments (values, n or *nobj)");
  return call.Done(CONFD_OK, call.tracing() ? std::to_string(count) + " objects" : std::string());
}

namespace {

// Keeps empty XPath results reachable: callers commonly leave an empty
// result unfreed, and leak checkers would otherwise blame them.
void KeepEmptyResult(char *res) {
  static std::mutex mu;
  static auto *kept = new std::vector<char *>;
  std::lock_guard<std::mutex> lock(mu);
  kept->push_back(res);
}

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
  *res = strdup(value.c_str());
  if (value.empty()) KeepEmptyResult(*res);
  if (trace != nullptr) {
    std::string line = std::string("xpath ") + expr + " => \"" + value + "\"";
    trace(line.data());
  }
  return call.Done(CONFD_OK, std::string(expr) + " => " + value);
}
