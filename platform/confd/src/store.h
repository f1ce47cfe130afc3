// The in-process data store behind the ConfD API: transactions (running and
// candidate trees with everything handed out on them), the registry that
// finds them by transaction handle, socket, cursor or duplicated buffer, and
// keypath helpers. Used by the API implementation, the host framework and
// the test host; not part of the plug-in's view.
#ifndef IPAPP_STORE_STORE_H
#define IPAPP_STORE_STORE_H

#include <confd_lib.h>
#include <confd_maapi.h>

#include <atomic>
#include <cstdint>
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
#include "schema_index.h"

namespace ipapp::store {

struct FaultRecord {
  int kind = 0;
  std::string function;
  std::string file;
  int line = 0;
  std::string message;
};

struct TraceRecord {
  std::string call;
  std::string path;
  int result = 0;
  std::string detail;
};

struct Resources {
  int cursors = 0;
  int cdb_sessions = 0;
  int dup_values = 0;
};

/// State of an initialised cursor.
struct CursorState {
  const ListInst *list = nullptr;  ///< null: an empty list
  const SNode *s = nullptr;
  size_t next = 0;       ///< entry the next read hands out
  char *path = nullptr;  ///< the caller's mc->path; freed here if never destroyed
};

struct CdbSocket {
  bool session = false;
  const DataTree *tree = nullptr;
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

  /// A context owned by the transaction; validate_opaque is a copy.
  confd_trans_ctx *NewContext(const std::string &opaque, void *host);

  void SetError(std::string text);
  std::string Error() const;
  bool HasError() const;
  void ClearError();

  void AddFault(FaultRecord fault);
  std::vector<FaultRecord> Faults() const;
  std::vector<TraceRecord> Trace() const;
  void ClearTrace();
  /// Whether calls are recorded in the trace (they are from the start).
  /// Calls that are not recorded build no trace text at all.
  void RecordTrace(bool on) { record_trace_.store(on, std::memory_order_relaxed); }
  bool recording_trace() const { return record_trace_.load(std::memory_order_relaxed); }
  Resources Open() const;

  void FailCdbSessions(bool fail);
  bool fail_cdb_sessions() const;  ///< with the store lock held
  void FailMaapiSocket(bool fail);
  bool fail_maapi_socket() const;

  /// Keeps a buffer alive as long as the transaction (keypath keys).
  const std::string &Keep(std::string bytes);

  // Below: the store's bookkeeping, only with the store lock held.
  void AddTraceLocked(const char *call, std::string_view path, int result, std::string_view detail);
  std::unordered_map<uint64_t, CursorState> cursors;
  std::unordered_map<int, CdbSocket> cdb_sockets;
  std::unordered_set<void *> dups;

 private:
  int thandle_;
  int maapi_socket_;
  std::shared_ptr<const SchemaIndex> schema_;
  std::unique_ptr<DataTree> running_;
  std::unique_ptr<DataTree> candidate_;
  std::string error_;
  bool has_error_ = false;
  std::vector<FaultRecord> faults_;
  std::vector<TraceRecord> trace_;
  size_t trace_dropped_ = 0;
  std::atomic<bool> record_trace_{true};
  bool fail_cdb_ = false;
  bool fail_maapi_ = false;
  std::deque<std::unique_ptr<confd_trans_ctx>> contexts_;
  std::deque<std::string> kept_;
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
uint64_t NewCursorIdLocked(int thandle);
void ForgetCursorLocked(uint64_t id);
/// Registers a buffer duplicated for the caller of a read.
void AddDupLocked(Txn &txn, void *ptr);
/// Releases a duplicated buffer; false for a pointer the store did not hand out.
bool FreeDup(void *ptr);

/// A new CDB socket on the transaction; -1 when it has ended.
int OpenCdbSocket(int thandle);
void CloseCdbSocket(int sock);

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

/// The keypath of a parsed path; key texts are converted to typed values
/// kept in txn. An [N] element takes the keys of the N-th entry in tree.
bool KeypathOfPath(Txn &txn, const DataTree &tree, const ParsedPath &path, KeypathBuilder *kp,
                   std::string *error);
/// The keypath of a data node.
bool KeypathOfNode(const DNode &node, KeypathBuilder *kp);
/// confd_pp_kpath text of a keypath. Keys print by the types of their
/// leaves in schema (found through the keypath's tags); where schema is null
/// or does not hold the element, enumeration keys print as numbers.
bool FormatKeypath(const SchemaIndex *schema, const confd_hkeypath_t &kp, std::string *out);

/// Sets confd_errno and this thread's confd_lasterr() text.
void SetLastError(int err, std::string text);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_STORE_H
