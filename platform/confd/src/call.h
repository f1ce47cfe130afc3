// One API call: formats its path, finds its transaction, resolves the path
// and records the call in the transaction's trace. Failures set confd_errno
// and confd_lasterr() with a text naming the path.
#ifndef IPAPP_STORE_CALL_H
#define IPAPP_STORE_CALL_H

#include <cstdarg>
#include <memory>
#include <string>
#include <string_view>

#include "store.h"

namespace ipapp::store {

class Call {
 public:
  explicit Call(const char *name) : name_(name) {}

  /// Formats the path with the modifiers confd_lib_cdb(3) lists under PATHS:
  /// %s %d %i %u %x %*x %h %*h %ip4 %ip6 and %%. Any other modifier makes
  /// the call fail with CONFD_ERR_BADPATH when it parses the path.
  void FormatPath(const char *fmt, va_list ap);
  /// The path, valid while the call lasts: "%s" and literal paths are the
  /// caller's own text, not copied.
  std::string_view path() const { return path_; }
  /// Why the path could not be formatted; empty when it was.
  const std::string &format_error() const { return format_error_; }

  /// Finds the transaction of a MAAPI socket and transaction handle.
  bool Maapi(int sock, int thandle);
  /// Finds the transaction of a CDB socket with a session started.
  bool Cdb(int sock);
  /// Uses a transaction found otherwise.
  void Use(std::shared_ptr<Txn> txn);
  Txn &txn() { return *txn_; }
  /// The tree the call reads: the candidate for MAAPI, running for CDB.
  const DataTree &tree() const { return *tree_; }

  /// Parses path() against the schema (data path syntax; "[N]" only for
  /// CDB calls).
  bool Parse();
  const ParsedPath &parsed() const { return *parsed_; }
  /// Parses and resolves a leaf that must exist; null after a failure.
  const DNode *Leaf();

  /// Parses and resolves a path that must name a list (no keys).
  bool List(Target *t);
  /// Reads a leaf that must exist and be of vtype; *out = get(value).
  template <typename T, typename Get>
  int ReadTyped(int vtype, T *out, Get get) {
    const DNode *leaf = Leaf();
    if (leaf == nullptr) return CONFD_ERR;
    if (leaf->value.type != vtype) return WrongType(*leaf, vtype);
    if (out == nullptr) return Fail(CONFD_ERR_PROTOUSAGE, "null result pointer");
    *out = get(leaf->value);
    return Done(CONFD_OK, leaf->text);
  }
  int WrongType(const DNode &leaf, int vtype);

  /// Whether the transaction records this call: callers that build a
  /// detail text of their own build it only then.
  bool tracing() const { return txn_ && txn_->recording_trace(); }
  /// Records the call (when the transaction records calls) and returns
  /// result. Never throws once detail exists: whatever a call registered
  /// before stays registered and handed out.
  int Done(int result, std::string_view detail = {});
  /// Also records dup (what a read allocated for its caller) as open on the
  /// transaction until the caller frees it; if that throws, dup is freed and
  /// nothing is registered.
  int DoneWithDup(int result, void *dup, std::string_view detail);
  /// Sets the error, records the call and returns CONFD_ERR.
  int Fail(int err, const std::string &why);

 private:
  const char *name_;
  std::string formatted_;  ///< the text of a formatted path
  std::string_view path_;
  std::string format_error_;
  std::shared_ptr<Txn> txn_;
  const DataTree *tree_ = nullptr;
  ParsedPath *parsed_ = nullptr;
  bool cdb_ = false;
};

/// Formats the printf-style path of a variadic API function into call.
#define IPAPP_FORMAT_PATH(call, fmt) \
  do {                               \
    va_list ap_;                     \
    va_start(ap_, fmt);              \
    (call).FormatPath(fmt, ap_);     \
    va_end(ap_);                     \
  } while (0)

/// Copies a read value for the caller: buffers (C_BUF, C_BINARY, C_HEXSTR,
/// C_BITBIG) are duplicated (NUL-terminated) and returned through *dup,
/// null for other types. Throws std::bad_alloc, with nothing allocated, when
/// memory runs out.
confd_value_t DupValue(const confd_value_t &v, void **dup);

/// The entries of a leaf-list as one C_LIST value for the caller: the array
/// and the buffers of its values in one allocation, returned through *dup
/// (null for no entries).
confd_value_t DupList(const ListInst *list, void **dup);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_CALL_H
