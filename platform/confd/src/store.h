// The in-process data store behind the ConfD API: transactions (running and
// candidate trees with everything handed out on them), the registry that
// finds them by transaction handle, socket, cursor or duplicated buffer, and
// keypath helpers. Used by the API implementation, the host framework and
// the test host; not part of the plug-in's view.
#ifndef IPAPP_STORE_STORE_H
#define IPAPP_STORE_STORE_H

#include <confd_lib.h>
#include <confd_maapi.h>
#include <ipapp/records.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "data_tree.h"
#include "path.h"
#include "path_format.h"
#include "schema_index.h"

namespace ipapp::store {

using host::Fault;
using host::OpenItem;
using host::OpenResources;
using host::TraceEntry;

/// State of an initialised cursor.
struct CursorState {
  const ListInst *list = nullptr;  ///< null: an empty list
  const SNode *s = nullptr;
  size_t next = 0;       ///< entry the next read hands out
  char *path = nullptr;  ///< the caller's mc->path; freed here if never destroyed
  uint64_t serial = 0;
};

/// A value a read allocated for its caller. The path is interned on the
/// transaction: reads repeat paths, and a copy per value would cost more
/// than the read.
struct DupRecord {
  uint64_t serial = 0;
  const char *call = "";
  const std::string *path = nullptr;
};

struct CdbSocket {
  bool session = false;
  const DataTree *tree = nullptr;
  uint64_t serial = 0;  ///< of the session, while one is started
};

/// One transaction. Trees are immutable once built; everything else is
/// guarded by the store's lock (see Locked()).
class Txn {
 public:
  Txn(int thandle, int maapi_socket, std::shared_ptr<const SchemaIndex> schema,
      std::unique_ptr<DataTree> running, std::unique_ptr<DataTree> candidate);
  ~Txn();

  int thandle() const { return thandle_; }
  int maapi_socket() const { return maapi_socket_; }
  const SchemaIndex &schema() const { return *schema_; }
  const DataTree &running() const { return *running_; }
  const DataTree &candidate() const { return *candidate_; }

  /// A context owned by the transaction, its fields as new; validate_opaque
  /// is a copy. One per opaque string: asking again for the same opaque
  /// resets and hands out the same context.
  confd_trans_ctx *NewContext(const std::string &opaque, void *host);

  void SetError(std::string text);
  std::string Error() const;
  bool HasError() const;
  void ClearError();

  void AddFault(Fault fault);
  std::vector<Fault> Faults() const;
  std::vector<TraceEntry> Trace() const;
  void ClearTrace();
  /// Whether calls are recorded in the trace (they are from the start).
  /// Calls that are not recorded build no trace text at all.
  void RecordTrace(bool on) { record_trace_.store(on, std::memory_order_relaxed); }
  bool recording_trace() const { return record_trace_.load(std::memory_order_relaxed); }
  OpenResources Open() const;
  /// What is open, in the order it was opened.
  std::vector<OpenItem> OpenItems() const;

  void FailCdbSessions(bool fail);
  bool fail_cdb_sessions() const;  ///< with the store lock held
  void FailMaapiSocket(bool fail);
  bool fail_maapi_socket() const;

  /// One copy of bytes alive as long as the transaction (keypath keys of
  /// entries that do not exist): the same bytes again give the same copy.
  const std::string &Intern(std::string_view bytes);

  // Below: the store's bookkeeping, only with the store lock held.
  /// Never throws: a record that cannot be stored is counted as dropped, so
  /// that releasing a resource (from a destructor) cannot fail.
  void AddTraceLocked(const char *call, std::string_view path, int result,
                      std::string_view detail) noexcept;
  uint64_t NextSerialLocked() { return ++serial_; }
  std::unordered_map<uint64_t, CursorState> cursors;
  std::unordered_map<int, CdbSocket> cdb_sockets;
  std::unordered_map<void *, DupRecord> dups;
  /// One copy of every path a value was read from (see DupRecord).
  const std::string *InternLocked(std::string_view path) {
    if (last_dup_path_ != nullptr && *last_dup_path_ == path) return last_dup_path_;
    auto it = dup_paths_.find(path);
    if (it != dup_paths_.end()) return last_dup_path_ = it->second.get();
    auto copy = std::make_unique<std::string>(path);
    const std::string *kept = copy.get();
    dup_paths_.emplace(*kept, std::move(copy));
    return last_dup_path_ = kept;
  }
  /// The last two paths MAAPI (cdb false) or CDB calls parsed on this
  /// transaction, kept for the next ones: successive calls mostly name the
  /// same path or one with the same beginning (exists, then get; entry
  /// after entry of one list), or go back and forth between two tables.
  /// MAAPI and CDB paths parse apart ("[N]" is CDB's). Like the
  /// transaction, a memo serves one caller at a time.
  struct PathMemo {
    PathMemo() {
      text.reserve(256);
      scratch.reserve(256);
    }
    ParsedPath parsed;
    std::string text;
    /// How text was formatted, when it was, from a format of plain
    /// modifiers and parsed without fault (see Call::FormatPath).
    PathFormat format;
    std::string scratch;  ///< a path being formatted
  };
  /// The memo of the last path, and that of the one before.
  PathMemo &path_memo(bool cdb) { return path_memo_[cdb ? 1 : 0][last_memo_[cdb ? 1 : 0]]; }
  PathMemo &older_path_memo(bool cdb) {
    return path_memo_[cdb ? 1 : 0][1 - last_memo_[cdb ? 1 : 0]];
  }
  /// The older memo becomes the last one.
  void SwapPathMemos(bool cdb) { last_memo_[cdb ? 1 : 0] ^= 1; }

  /// Empty XPath results: handed out, never freed by the element's
  /// plug-ins; released with the transaction.
  std::unordered_map<char *, OpenItem> xpath_results;

 private:
  int thandle_;
  int maapi_socket_;
  std::shared_ptr<const SchemaIndex> schema_;
  std::unique_ptr<DataTree> running_;
  std::unique_ptr<DataTree> candidate_;
  std::string error_;
  bool has_error_ = false;
  std::vector<Fault> faults_;
  std::vector<TraceEntry> trace_;
  size_t trace_dropped_ = 0;
  std::atomic<bool> record_trace_{true};
  bool fail_cdb_ = false;
  bool fail_maapi_ = false;
  struct Context {
    std::unique_ptr<confd_trans_ctx> ctx;
    std::unique_ptr<char, void (*)(void *)> opaque{nullptr, std::free};
  };
  std::unordered_map<std::string, Context> contexts_;
  std::unordered_set<std::string> interned_;
  uint64_t serial_ = 0;
  std::unordered_map<std::string_view, std::unique_ptr<std::string>> dup_paths_;
  const std::string *last_dup_path_ = nullptr;
  PathMemo path_memo_[2][2];
  int last_memo_[2] = {0, 0};
};

/// The store's one lock: registry and per-transaction bookkeeping.
std::mutex &StoreMutex();

/// Creates and registers a transaction.
std::shared_ptr<Txn> CreateTxn(std::shared_ptr<const SchemaIndex> schema,
                               std::unique_ptr<DataTree> running,
                               std::unique_ptr<DataTree> candidate);
/// Ends a transaction: closes its sockets, forgets its cursors and frees
/// what it duplicated. Calls naming it fail from now on.
void EndTxn(int thandle);
std::shared_ptr<Txn> FindTxn(int thandle);
/// Lookups with the store lock held.
std::shared_ptr<Txn> FindTxnLocked(int thandle);
std::shared_ptr<Txn> FindCdbSocketLocked(int sock);
std::shared_ptr<Txn> FindCursorLocked(uint64_t id);

/// The transaction of a MAAPI transaction handle, or of a CDB socket with
/// its session's tree (null without a session), for one call of this
/// thread: the pointer stays valid until the thread's next lookup (the
/// thread keeps a reference to the last transaction it found, so that
/// repeated calls take neither the store lock nor a reference of their
/// own). Null for an unknown handle or socket. A transaction found becomes
/// the thread's current one (SetCurrentTxn).
const std::shared_ptr<Txn> &LookUpTxn(int thandle);
const std::shared_ptr<Txn> &LookUpCdbSocket(int sock, const DataTree **tree);
/// Marks every CDB socket lookup cached by a thread as stale; with the
/// store lock held, whenever a session starts or ends or a socket closes.
void CdbSocketsChangedLocked();
uint64_t NewCursorIdLocked(int thandle);
void ForgetCursorLocked(uint64_t id);
/// Registers what a read allocated for its caller (call and path, interned
/// on txn with InternLocked, name it in leak reports); on an exception nothing
/// is registered (the buffer is still the caller's to free).
void AddDupLocked(Txn &txn, void *ptr, const char *call, const std::string *path);
/// Releases a duplicated buffer; false for a pointer the store did not hand out.
bool FreeDup(void *ptr);

/// A new CDB socket on the transaction; -1 when it has ended. On an
/// exception nothing is registered.
int OpenCdbSocket(int thandle);
/// Forgets the socket and any session on it; never throws.
void CloseCdbSocket(int sock) noexcept;

/// The transaction this thread last worked on (host calls without a
/// context, such as the fault log, go to it); 0 when none.
void SetCurrentTxn(int thandle);
int CurrentTxn();

/// Keypath elements in path order, filled into a confd_hkeypath_t at the end.
class KeypathBuilder {
 public:
  bool PushTag(const SNode &s);
  bool PushEntry(const DNode &entry);
  bool PushKeys(const confd_value_t *keys, int n);
  void Pop() { --n_; }
  int size() const { return n_; }
  void Fill(confd_hkeypath_t *kp) const;

 private:
  struct Elem {
    int nkeys;  ///< 0: a tag element
    confd_value_t v[MAXKEYLEN];
  };
  Elem e_[MAXDEPTH];
  int n_ = 0;
};

/// The keypath of a parsed path. Keys of an entry that exists in tree are
/// that entry's own values; other key texts are converted to typed values
/// interned in txn, so converting a path again costs no memory. An [N]
/// element takes the keys of the N-th entry in tree.
bool KeypathOfPath(Txn &txn, const DataTree &tree, const ParsedPath &path, KeypathBuilder *kp,
                   std::string *error);
/// The keypath of a data node.
bool KeypathOfNode(const DNode &node, KeypathBuilder *kp);
/// confd_pp_kpath text of a keypath, or of its first len elements (from the
/// root; all when len < 0). Keys print by the types of their leaves in
/// schema (found through the keypath's tags); where schema is null or does
/// not hold the element, enumeration keys print as numbers. An unknown tag
/// prints as "tag<N>".
void FormatKeypath(const SchemaIndex *schema, const confd_hkeypath_t &kp, std::string *out,
                   int len = -1);

/// Sets confd_errno and this thread's confd_lasterr() text.
void SetLastError(int err, std::string text);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_STORE_H
