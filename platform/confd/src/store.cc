#include "store.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "values.h"

__thread int confd_errno = 0;

namespace ipapp::store {
namespace {

// Calls recorded per transaction before the trace stops growing (a
// benchmark that never clears it must not exhaust memory).
constexpr size_t kTraceLimit = size_t{1} << 20;

struct Registry {
  int next_thandle = 1;
  int next_socket = 100;
  uint64_t next_cursor = 1;
  std::unordered_map<int, std::shared_ptr<Txn>> by_thandle;
  std::unordered_map<int, int> cdb_socket_owner;
  std::unordered_map<uint64_t, int> cursor_owner;
  std::unordered_map<void *, int> dup_owner;
};

Registry &Reg() {
  static Registry *reg = new Registry;  // outlives every user, never destroyed
  return *reg;
}

// The element's fault service and confd_lasterr() take no transaction or
// socket: the transaction a thread last worked on, and the text of its last
// failure, are all that can answer them.
thread_local std::string last_error;

// Bumped (with the store lock held) when a lookup a thread cached may have
// gone stale: a transaction ended (both), a CDB socket closed or a session
// on it started or ended (sockets). Handles and sockets are never reused,
// so a new one needs no bump: it is simply not cached yet.
std::atomic<uint64_t> txns_changed{1};
std::atomic<uint64_t> sockets_changed{1};

// The last transaction each kind of lookup found on this thread. The
// references keep the transactions alive while a call of the thread uses
// them, whatever other threads end meanwhile.
struct LookUpCache {
  int current_thandle = 0;  // see SetCurrentTxn
  uint64_t txns_seen = 0;   // 0: nothing cached
  int thandle = 0;
  std::shared_ptr<Txn> txn;
  uint64_t sockets_seen = 0;
  int sock = -1;
  std::shared_ptr<Txn> sock_txn;
  const DataTree *tree = nullptr;
};
thread_local LookUpCache lookups;
const std::shared_ptr<Txn> kNoTxn;

}  // namespace

std::mutex &StoreMutex() {
  static std::mutex *mu = new std::mutex;
  return *mu;
}

void SetLastError(int err, std::string text) {
  confd_errno = err;
  last_error = std::move(text);
}

Txn::Txn(int thandle, int maapi_socket, std::shared_ptr<const SchemaIndex> schema,
         std::unique_ptr<DataTree> running, std::unique_ptr<DataTree> candidate)
    : thandle_(thandle),
      maapi_socket_(maapi_socket),
      schema_(std::move(schema)),
      running_(std::move(running)),
      candidate_(std::move(candidate)) {}

Txn::~Txn() {
  for (auto &[p, item] : dups) std::free(p);
  for (auto &[p, item] : xpath_results) std::free(p);
}

confd_trans_ctx *Txn::NewContext(const std::string &opaque, void *host) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  Context &slot = contexts_[opaque];
  if (!slot.ctx) {
    auto ctx = std::make_unique<confd_trans_ctx>();
    char *copy = strdup(opaque.c_str());
    if (copy == nullptr) {
      contexts_.erase(opaque);
      throw std::bad_alloc();
    }
    slot.ctx = std::move(ctx);
    slot.opaque.reset(copy);
  }
  confd_trans_ctx *ctx = slot.ctx.get();
  std::memset(ctx, 0, sizeof(confd_trans_ctx));
  ctx->fd = -1;
  ctx->vfd = -1;
  ctx->thandle = thandle_;
  ctx->vcb_opaque = host;
  ctx->validate_opaque = slot.opaque.get();
  ctx->internal = this;
  return ctx;
}

void Txn::SetError(std::string text) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  error_ = std::move(text);
  has_error_ = true;
}

std::string Txn::Error() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return error_;
}

bool Txn::HasError() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return has_error_;
}

void Txn::ClearError() {
  std::lock_guard<std::mutex> lock(StoreMutex());
  error_.clear();
  has_error_ = false;
}

void Txn::AddFault(Fault fault) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  faults_.push_back(std::move(fault));
}

std::vector<Fault> Txn::Faults() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return faults_;
}

void Txn::AddTraceLocked(const char *call, std::string_view path, int result,
                         std::string_view detail) noexcept {
  if (trace_.size() >= kTraceLimit) {
    ++trace_dropped_;
    return;
  }
  try {
    trace_.push_back({call, std::string(path), result, std::string(detail)});
  } catch (...) {
    ++trace_dropped_;
  }
}

std::vector<TraceEntry> Txn::Trace() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  std::vector<TraceEntry> out = trace_;
  if (trace_dropped_ > 0) {
    out.push_back({"(trace full)", "", 0, std::to_string(trace_dropped_) + " calls not recorded"});
  }
  return out;
}

void Txn::ClearTrace() {
  std::lock_guard<std::mutex> lock(StoreMutex());
  trace_.clear();
  trace_dropped_ = 0;
}

OpenResources Txn::Open() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  OpenResources r;
  r.cursors = static_cast<int>(cursors.size());
  for (const auto &[sock, info] : cdb_sockets) r.cdb_sessions += info.session ? 1 : 0;
  r.dup_values = static_cast<int>(dups.size());
  r.xpath_results = static_cast<int>(xpath_results.size());
  return r;
}

std::vector<OpenItem> Txn::OpenItems() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  std::vector<OpenItem> out;
  for (const auto &[id, cursor] : cursors) {
    out.push_back({cursor.serial, "cursor", "maapi_init_cursor", cursor.path ? cursor.path : ""});
  }
  for (const auto &[sock, info] : cdb_sockets) {
    if (info.session) {
      out.push_back(
          {info.serial, "CDB session", "cdb_start_session", "socket " + std::to_string(sock)});
    }
  }
  for (const auto &[p, dup] : dups) out.push_back({dup.serial, "value", dup.call, *dup.path});
  for (const auto &[p, item] : xpath_results) out.push_back(item);
  std::sort(out.begin(), out.end(),
            [](const OpenItem &a, const OpenItem &b) { return a.id < b.id; });
  return out;
}

void Txn::FailCdbSessions(bool fail) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  fail_cdb_ = fail;
}

bool Txn::fail_cdb_sessions() const {
  return fail_cdb_;
}

void Txn::FailMaapiSocket(bool fail) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  fail_maapi_ = fail;
}

bool Txn::fail_maapi_socket() const {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return fail_maapi_;
}

const std::string &Txn::Intern(std::string_view bytes) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return *interned_.emplace(bytes).first;
}

std::shared_ptr<Txn> CreateTxn(std::shared_ptr<const SchemaIndex> schema,
                               std::unique_ptr<DataTree> running,
                               std::unique_ptr<DataTree> candidate) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  Registry &reg = Reg();
  int thandle = reg.next_thandle++;
  int sock = reg.next_socket++;
  auto txn = std::make_shared<Txn>(thandle, sock, std::move(schema), std::move(running),
                                   std::move(candidate));
  reg.by_thandle.emplace(thandle, txn);
  return txn;
}

void EndTxn(int thandle) {
  std::shared_ptr<Txn> txn;
  // This thread's cached references go before the last one is dropped, so
  // that the transaction ends here, as with no cache.
  std::shared_ptr<Txn> cached = std::move(lookups.txn);
  std::shared_ptr<Txn> cached_sock = std::move(lookups.sock_txn);
  lookups.txns_seen = 0;
  lookups.sockets_seen = 0;
  {
    std::lock_guard<std::mutex> lock(StoreMutex());
    Registry &reg = Reg();
    auto it = reg.by_thandle.find(thandle);
    if (it == reg.by_thandle.end()) return;
    txn = std::move(it->second);
    reg.by_thandle.erase(it);
    for (const auto &[sock, info] : txn->cdb_sockets) reg.cdb_socket_owner.erase(sock);
    for (const auto &[id, cursor] : txn->cursors) {
      reg.cursor_owner.erase(id);
      std::free(cursor.path);  // a cursor left open: its path goes with the transaction
    }
    for (const auto &[p, item] : txn->dups) reg.dup_owner.erase(p);
    txn->cdb_sockets.clear();
    txn->cursors.clear();
    txns_changed.fetch_add(1, std::memory_order_release);
    sockets_changed.fetch_add(1, std::memory_order_release);
  }
  // The last reference frees the trees and the duplicated buffers.
}

std::shared_ptr<Txn> FindTxnLocked(int thandle) {
  Registry &reg = Reg();
  auto it = reg.by_thandle.find(thandle);
  return it == reg.by_thandle.end() ? nullptr : it->second;
}

std::shared_ptr<Txn> FindTxn(int thandle) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  return FindTxnLocked(thandle);
}

std::shared_ptr<Txn> FindCdbSocketLocked(int sock) {
  Registry &reg = Reg();
  auto it = reg.cdb_socket_owner.find(sock);
  return it == reg.cdb_socket_owner.end() ? nullptr : FindTxnLocked(it->second);
}

const std::shared_ptr<Txn> &LookUpTxn(int thandle) {
  LookUpCache &c = lookups;
  if (c.txns_seen == txns_changed.load(std::memory_order_acquire) && c.thandle == thandle) {
    c.current_thandle = thandle;
    return c.txn;
  }
  // Dropped once the lock is released: it may be an ended transaction's
  // last reference.
  std::shared_ptr<Txn> stale = std::move(c.txn);
  c.txns_seen = 0;
  std::lock_guard<std::mutex> lock(StoreMutex());
  std::shared_ptr<Txn> txn = FindTxnLocked(thandle);
  if (!txn) return kNoTxn;
  c.txns_seen = txns_changed.load(std::memory_order_relaxed);
  c.thandle = thandle;
  c.txn = std::move(txn);
  c.current_thandle = thandle;
  return c.txn;
}

const std::shared_ptr<Txn> &LookUpCdbSocket(int sock, const DataTree **tree) {
  LookUpCache &c = lookups;
  if (c.sockets_seen == sockets_changed.load(std::memory_order_acquire) && c.sock == sock) {
    *tree = c.tree;
    c.current_thandle = c.sock_txn->thandle();
    return c.sock_txn;
  }
  std::shared_ptr<Txn> stale = std::move(c.sock_txn);
  c.sockets_seen = 0;
  std::lock_guard<std::mutex> lock(StoreMutex());
  std::shared_ptr<Txn> txn = FindCdbSocketLocked(sock);
  if (!txn) return kNoTxn;
  const CdbSocket &info = txn->cdb_sockets.at(sock);
  c.sockets_seen = sockets_changed.load(std::memory_order_relaxed);
  c.sock = sock;
  c.tree = info.session ? info.tree : nullptr;
  c.sock_txn = std::move(txn);
  *tree = c.tree;
  c.current_thandle = c.sock_txn->thandle();
  return c.sock_txn;
}

void CdbSocketsChangedLocked() {
  sockets_changed.fetch_add(1, std::memory_order_release);
}

std::shared_ptr<Txn> FindCursorLocked(uint64_t id) {
  Registry &reg = Reg();
  auto it = reg.cursor_owner.find(id);
  return it == reg.cursor_owner.end() ? nullptr : FindTxnLocked(it->second);
}

uint64_t NewCursorIdLocked(int thandle) {
  Registry &reg = Reg();
  uint64_t id = reg.next_cursor++;
  reg.cursor_owner.emplace(id, thandle);
  return id;
}

void ForgetCursorLocked(uint64_t id) {
  Reg().cursor_owner.erase(id);
}

void AddDupLocked(Txn &txn, void *ptr, const char *call, const std::string *path) {
  txn.dups.emplace(ptr, DupRecord{txn.NextSerialLocked(), call, path});
  try {
    Reg().dup_owner.emplace(ptr, txn.thandle());
  } catch (...) {
    txn.dups.erase(ptr);
    throw;
  }
}

bool FreeDup(void *ptr) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  Registry &reg = Reg();
  auto it = reg.dup_owner.find(ptr);
  if (it == reg.dup_owner.end()) return false;
  std::shared_ptr<Txn> txn = FindTxnLocked(it->second);
  reg.dup_owner.erase(it);
  if (txn) txn->dups.erase(ptr);
  std::free(ptr);
  return true;
}

int OpenCdbSocket(int thandle) {
  std::lock_guard<std::mutex> lock(StoreMutex());
  std::shared_ptr<Txn> txn = FindTxnLocked(thandle);
  if (!txn) return -1;
  Registry &reg = Reg();
  int sock = reg.next_socket++;
  reg.cdb_socket_owner.emplace(sock, thandle);
  try {
    txn->cdb_sockets.emplace(sock, CdbSocket{});
  } catch (...) {
    reg.cdb_socket_owner.erase(sock);
    throw;
  }
  return sock;
}

void CloseCdbSocket(int sock) noexcept {
  std::lock_guard<std::mutex> lock(StoreMutex());
  std::shared_ptr<Txn> txn = FindCdbSocketLocked(sock);
  Reg().cdb_socket_owner.erase(sock);
  if (txn) txn->cdb_sockets.erase(sock);
  CdbSocketsChangedLocked();
}

void SetCurrentTxn(int thandle) {
  lookups.current_thandle = thandle;
}
int CurrentTxn() {
  return lookups.current_thandle;
}

bool KeypathBuilder::PushTag(const SNode &s) {
  if (n_ == MAXDEPTH) return false;
  Elem &e = e_[n_++];
  e.nkeys = 0;
  CONFD_SET_XMLTAG(&e.v[0], s.tag, s.ns);
  return true;
}

bool KeypathBuilder::PushKeys(const confd_value_t *keys, int n) {
  if (n_ == MAXDEPTH || n < 1 || n >= MAXKEYLEN) return false;
  Elem &e = e_[n_++];
  e.nkeys = n;
  for (int i = 0; i < n; ++i) e.v[i] = keys[i];
  return true;
}

bool KeypathBuilder::PushEntry(const DNode &entry) {
  confd_value_t keys[MAXKEYLEN];
  int n = 0;
  if (entry.s->is_list()) {
    for (size_t i = 0; i < entry.s->keys.size(); ++i) keys[n++] = entry.Key(i);
  } else {
    keys[n++] = entry.value;  // leaf-list entry
  }
  return PushKeys(keys, n);
}

void KeypathBuilder::Fill(confd_hkeypath_t *kp) const {
  kp->len = n_;
  for (int i = 0; i < n_; ++i) {
    const Elem &e = e_[i];
    confd_value_t *out = kp->v[n_ - 1 - i];
    int n = e.nkeys ? e.nkeys : 1;
    for (int k = 0; k < n; ++k) out[k] = e.v[k];
    CONFD_SET_NOEXISTS(&out[n]);
  }
  // Callbacks look at fixed depths without checking len (intf_iter reads v[4]
  // of any changed node): the elements beyond the path must read as absent.
  for (int i = n_; i < MAXDEPTH; ++i) CONFD_SET_NOEXISTS(&kp->v[i][0]);
}

bool KeypathOfPath(Txn &txn, const DataTree &tree, const ParsedPath &path, KeypathBuilder *kp,
                   std::string *error) {
  for (int i = 0; i < path.n; ++i) {
    const PathElem &elem = path.e[i];
    if (!kp->PushTag(*elem.s)) {
      *error = "keypath deeper than " + std::to_string(MAXDEPTH);
      return false;
    }
    if (elem.sel == PathElem::kKeys) {
      ParsedPath prefix;
      prefix.n = i + 1;
      for (int j = 0; j <= i; ++j) prefix.e[j] = path.e[j];
      const Target t = Resolve(tree, prefix);
      if (t.node != nullptr) {
        if (!kp->PushEntry(*t.node)) {
          *error = "keypath deeper than " + std::to_string(MAXDEPTH);
          return false;
        }
        continue;
      }
      confd_value_t keys[MAXKEYLEN];
      for (int k = 0; k < elem.nkeys; ++k) {
        std::string storage;
        std::string why;
        const LeafType &type = elem.s->keys[k]->type;
        const std::string &text = txn.Intern(elem.keys[k]);
        if (!ParseKeptValue(type, text, &keys[k], &storage, &why, [&](std::string_view bytes) {
              return std::string_view(txn.Intern(bytes));
            })) {
          *error = why;
          return false;
        }
      }
      if (!kp->PushKeys(keys, elem.nkeys)) {
        *error = "keypath deeper than " + std::to_string(MAXDEPTH);
        return false;
      }
    } else if (elem.sel == PathElem::kIndex) {
      ParsedPath prefix;
      prefix.n = i + 1;
      for (int j = 0; j <= i; ++j) prefix.e[j] = path.e[j];
      Target t = Resolve(tree, prefix);
      if (t.node == nullptr) {
        *error = "no entry [" + std::to_string(elem.index) + "] in list \"" + elem.s->name + "\"";
        return false;
      }
      if (!kp->PushEntry(*t.node)) {
        *error = "keypath deeper than " + std::to_string(MAXDEPTH);
        return false;
      }
    }
  }
  return true;
}

bool KeypathOfNode(const DNode &node, KeypathBuilder *kp) {
  const DNode *chain[MAXDEPTH];
  int n = 0;
  for (const DNode *d = &node; d->parent != nullptr; d = d->parent) {  // up to the root
    if (n == MAXDEPTH) return false;
    chain[n++] = d;
  }
  for (int i = n - 1; i >= 0; --i) {
    const DNode &d = *chain[i];
    if (!kp->PushTag(*d.s)) return false;
    if ((d.s->is_list() || d.s->kind == NodeKind::kLeafList) && !kp->PushEntry(d)) return false;
  }
  return true;
}

void FormatKeypath(const SchemaIndex *schema, const confd_hkeypath_t &kp, std::string *out,
                   int len) {
  uint32_t ns = 0;
  const SNode *s = schema ? &schema->root() : nullptr;
  const int first = kp.len - 1;
  const int last = len < 0 || len > kp.len ? 0 : kp.len - len;
  for (int i = first; i >= last && i >= 0; --i) {
    const confd_value_t *e = kp.v[i];
    if (e[0].type == C_XMLTAG) {
      if (s != nullptr) s = s->ChildByTag(e[0].val.xmltag.tag, e[0].val.xmltag.ns);
      *out += '/';
      if (i != first && e[0].val.xmltag.ns != ns) {
        const std::string *prefix = NsPrefix(e[0].val.xmltag.ns);
        if (prefix != nullptr) *out += *prefix + ":";
      }
      PrettyValue(e[0], out);  // the name, or tag<N> for an unknown one
      ns = e[0].val.xmltag.ns;
      continue;
    }
    *out += '{';
    for (int k = 0; k < MAXKEYLEN && e[k].type != C_NOEXISTS; ++k) {
      const LeafType *type = nullptr;
      if (s != nullptr && s->is_list() && static_cast<size_t>(k) < s->keys.size()) {
        type = &s->keys[k]->type;
      } else if (s != nullptr && s->kind == NodeKind::kLeafList && k == 0) {
        type = &s->type;
      }
      std::string text;
      if (!FormatValue(e[k], type, &text)) PrettyValue(e[k], &text);
      if (k) *out += ' ';
      AppendQuotedKey(text, out);
    }
    *out += '}';
  }
}

}  // namespace ipapp::store

extern "C" char *confd_lasterr(void) {
  return ipapp::store::last_error.data();
}
