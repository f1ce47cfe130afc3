// maapi_keypath_diff_iterate: the changes between a transaction's running
// and candidate trees below a path, parents first, siblings in schema order
// and list entries in the store's order.
#include <confd_maapi.h>

#include "call.h"

using ipapp::store::DNode;
using ipapp::store::KeypathBuilder;
using ipapp::store::ListInst;
using ipapp::store::NodeKind;
using ipapp::store::SNode;

namespace {

using IterFn = enum maapi_iter_ret (*)(confd_hkeypath_t *, enum maapi_iter_op, confd_value_t *,
                                       confd_value_t *, void *);

enum class Walk { kGo, kStop, kUp };

class Differ {
 public:
  Differ(IterFn iter, void *state, const KeypathBuilder &start, int flags)
      : iter_(iter), state_(state), kp_(start), flags_(flags) {}

  int reported() const { return reported_; }
  bool overflow() const { return overflow_; }
  bool suspended() const { return suspended_; }

  Walk Children(const SNode &s, const DNode *o, const DNode *n) {
    for (const SNode *c : s.children) {
      Walk w = Child(*c, o, n);
      if (w == Walk::kStop) return w;
      if (w == Walk::kUp) return Walk::kGo;  // the rest of this level is skipped
    }
    return Walk::kGo;
  }

  Walk Leaf(const SNode &c, const DNode *ov, const DNode *nv) {
    if (ipapp::store::SameData(c, ov, nv)) return Walk::kGo;
    if (!Push(c)) return Walk::kStop;
    // confd_lib_maapi(3): oldv is always NULL.
    confd_value_t newv = nv ? nv->value : confd_value_t{};
    Walk w = Answer(Report(nv ? MOP_VALUE_SET : MOP_DELETED, nullptr, nv ? &newv : nullptr));
    kp_.Pop();
    return w;
  }

  // Entries of list c (its tag already on the keypath).
  Walk Entries(const SNode &c, const ListInst *ol, const ListInst *nl) {
    Walk w = Walk::kGo;
    ipapp::store::VisitEntryPairs(ol, nl, [&](const DNode *oe, const DNode *ne) {
      w = Node(c, oe, ne, true);
      return w != Walk::kGo;
    });
    return w;
  }

 private:
  Walk Child(const SNode &c, const DNode *o, const DNode *n) {
    switch (c.kind) {
      case NodeKind::kLeaf:
        if (c.is_key) return Walk::kGo;
        return Leaf(c, o ? o->Child(&c) : nullptr, n ? n->Child(&c) : nullptr);
      case NodeKind::kContainer: {
        const DNode *oc = o ? o->Child(&c) : nullptr;
        const DNode *nc = n ? n->Child(&c) : nullptr;
        if (oc == nullptr && nc == nullptr) return Walk::kGo;
        if (!Push(c)) return Walk::kStop;
        Walk w = Children(c, oc, nc);
        kp_.Pop();
        return w;
      }
      case NodeKind::kPresence: {
        const DNode *oc = o ? o->Child(&c) : nullptr;
        const DNode *nc = n ? n->Child(&c) : nullptr;
        if (oc != nullptr && nc != nullptr && !(flags_ & ITER_WANT_P_CONTAINER)) {
          // Kept: reported as MOP_MODIFIED only on request, else its
          // changes follow as if it were a plain container.
          if (!Push(c)) return Walk::kStop;
          Walk w = Children(c, oc, nc);
          kp_.Pop();
          return w;
        }
        return Node(c, oc, nc, false);
      }
      case NodeKind::kList:
      case NodeKind::kLeafList: {
        const ListInst *ol = o ? o->List(&c) : nullptr;
        const ListInst *nl = n ? n->List(&c) : nullptr;
        if (ol == nullptr && nl == nullptr) return Walk::kGo;
        if (!Push(c)) return Walk::kStop;
        Walk w = Entries(c, ol, nl);
        kp_.Pop();
        return w;
      }
    }
    return Walk::kGo;
  }

  // A list entry (keys pushed here) or a presence container (tag pushed).
  Walk Node(const SNode &c, const DNode *o, const DNode *n, bool entry) {
    if (o == nullptr && n == nullptr) return Walk::kGo;
    enum maapi_iter_op op;
    if (o == nullptr) {
      op = MOP_CREATED;
    } else if (n == nullptr) {
      op = MOP_DELETED;
    } else if (!ipapp::store::SameData(c, o, n)) {
      op = MOP_MODIFIED;
    } else {
      return Walk::kGo;
    }
    if (!(entry ? kp_.PushEntry(n ? *n : *o) : kp_.PushTag(c))) {
      overflow_ = true;
      return Walk::kStop;
    }
    enum maapi_iter_ret r = Report(op, nullptr, nullptr);
    Walk w = Answer(r);
    if (w == Walk::kGo && r == ITER_RECURSE && op != MOP_DELETED) w = Children(c, o, n);
    kp_.Pop();
    return w;
  }

  // What the walk does after an iterator's answer.
  Walk Answer(enum maapi_iter_ret r) {
    switch (r) {
      case ITER_STOP:
        return Walk::kStop;
      case ITER_SUSPEND:
        suspended_ = true;
        return Walk::kStop;
      case ITER_UP:
        return Walk::kUp;
      default:
        return Walk::kGo;
    }
  }

  bool Push(const SNode &s) {
    if (kp_.PushTag(s)) return true;
    overflow_ = true;
    return false;
  }

  enum maapi_iter_ret Report(enum maapi_iter_op op, confd_value_t *oldv, confd_value_t *newv) {
    confd_hkeypath_t hkp;
    kp_.Fill(&hkp);
    ++reported_;
    return iter_(&hkp, op, oldv, newv, state_);
  }

  IterFn iter_;
  void *state_;
  KeypathBuilder kp_;
  int flags_;
  int reported_ = 0;
  bool overflow_ = false;
  bool suspended_ = false;
};

}  // namespace

int maapi_keypath_diff_iterate(int sock, int thandle, IterFn iter, int flags, void *initstate,
                               const char *fmt, ...) {
  ipapp::store::Call call("maapi_keypath_diff_iterate");
  va_list ap;
  va_start(ap, fmt);
  call.FormatPath(fmt, ap);
  va_end(ap);
  if (!call.Maapi(sock, thandle) || !call.Parse()) return CONFD_ERR;
  if (iter == nullptr) return call.Fail(CONFD_ERR_PROTOUSAGE, "null iterator");
  // The callback may make calls of its own: take everything from the
  // parsed path before the first one.
  ipapp::store::Txn &txn = call.txn();
  auto path = std::make_unique<ipapp::store::ParsedPath>(call.parsed());
  ipapp::store::Target o = Resolve(txn.running(), *path);
  ipapp::store::Target n = Resolve(txn.candidate(), *path);
  auto start = std::make_unique<KeypathBuilder>();
  std::string why;
  if (!KeypathOfPath(txn, txn.candidate(), *path, start.get(), &why)) {
    return call.Fail(CONFD_ERR_BADPATH, why);
  }
  const SNode &s = *n.s;
  if (s.kind == NodeKind::kLeaf) start->Pop();  // a leaf's own change is reported at it
  auto differ = std::make_unique<Differ>(iter, initstate, *start, flags);
  if (n.list_ref) {
    differ->Entries(s, o.list, n.list);
  } else if (s.kind == NodeKind::kLeaf) {
    differ->Leaf(s, o.node, n.node);
  } else {
    differ->Children(s, o.node, n.node);
  }
  if (differ->overflow()) return call.Fail(CONFD_ERR_BADPATH, "keypath deeper than MAXDEPTH");
  if (differ->suspended()) {
    return call.Fail(
        CONFD_ERR_PROTOUSAGE,
        "ITER_SUSPEND needs maapi_diff_iterate_resume, which the store does not offer");
  }
  return call.Done(CONFD_OK, std::to_string(differ->reported()) + " changes");
}
