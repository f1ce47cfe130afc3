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
  /// the call fail with CONFD_ERR_BADPATH when it parses the path. The path
  /// is the call's own: for calls that call back into their caller.
  void FormatPath(const char *fmt, va_list ap);
  /// The path, valid while the call lasts: "%s" and literal paths are the
  /// caller's own text, not copied.
  std::string_view path() const { return path_; }
  /// Why the path could not be formatted; empty when it was.
  const std::string &format_error() const { return format_error_; }

  /// Finds the transaction of a MAAPI socket and transaction handle and
  /// holds a reference to it while the call lasts (path formatted before).
  bool Maapi(int sock, int thandle);
  /// The same for a call that calls nothing outside the store: finds the
  /// transaction, then formats the path (with the transaction's memo of
  /// the last format, see PathFormat). Sets ok().
  void Maapi(int sock, int thandle, const char *fmt, va_list ap);
  /// Finds the transaction of a CDB socket with a session started, then
  /// formats the path as Maapi does. Sets ok().
  void Cdb(int sock, const char *fmt, va_list ap);
  /// Whether Maapi or Cdb found the transaction (false: the error is set).
  bool ok() const { return ok_; }
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
  bool tracing() const { return txn_ != nullptr && txn_->recording_trace(); }
  /// Records the call (when the transaction records calls) and returns
  /// result. Never throws once detail exists: whatever a call registered
  /// before stays registered and handed out.
  int Done(int result, std::string_view detail = {}) {
    if (txn_ == nullptr || !txn_->recording_trace()) return result;
    return DoneWithDup(result, nullptr, detail);
  }
  /// Also records dup (what a read allocated for its caller) as open on the
  /// transaction until the caller frees it; if that throws, dup is freed and
  /// nothing is registered.
  int DoneWithDup(int result, void *dup, std::string_view detail);
  /// Sets the error, records the call and returns CONFD_ERR.
  int Fail(int err, const std::string &why);

 private:
  /// Whether Maapi's lookup of thandle found a transaction (txn_); false
  /// with the error set.
  bool MaapiTxnFound(int thandle);
  /// Whether sock is the MAAPI socket of the transaction found; then tree_
  /// is its candidate, else the call fails.
  bool OnMaapiSocket(int sock, int thandle);
  /// Formats the path into the transaction's memo, or takes it from the
  /// memo when only one number of the last format changed.
  void FormatWithMemo(const char *fmt, va_list ap);
  /// Takes the path from memo when fmt is its format and at most one
  /// number changed; false (memo unchanged) otherwise.
  bool FromMemo(Txn::PathMemo &memo, const char *fmt, va_list ap);
  /// Applies a changed %d or %u argument to the memo's text and parse:
  /// kNo when it cannot (nothing changed), kTextOnly when the text changed
  /// and its parse must be made afresh.
  enum class Applied { kNo, kYes, kTextOnly };
  Applied ApplyNumber(Txn::PathMemo &memo, int arg, int64_t number);

  const char *name_;
  std::string formatted_;  ///< the text of a path formatted by FormatPath
  std::string_view path_;
  std::string format_error_;
  std::shared_ptr<Txn> hold_;  ///< a reference of the call's own, if it needs one
  Txn *txn_ = nullptr;
  const DataTree *tree_ = nullptr;
  ParsedPath *parsed_ = nullptr;
  bool cdb_ = false;
  bool ok_ = false;
  bool parsed_already_ = false;   ///< the memo's parse is path()'s
  bool recorded_format_ = false;  ///< the memo's format describes path()
};

/// Formats the printf-style path of a variadic API function into call.
#define IPAPP_FORMAT_PATH(call, fmt) \
  do {                               \
    va_list ap_;                     \
    va_start(ap_, fmt);              \
    (call).FormatPath(fmt, ap_);     \
    va_end(ap_);                     \
  } while (0)

/// Finds the transaction of a variadic MAAPI function and formats its path
/// into call; call.ok() tells whether it was found.
#define IPAPP_MAAPI_PATH(call, sock, thandle, fmt) \
  do {                                             \
    va_list ap_;                                   \
    va_start(ap_, fmt);                            \
    (call).Maapi(sock, thandle, fmt, ap_);         \
    va_end(ap_);                                   \
  } while (0)

/// The same for a variadic CDB function.
#define IPAPP_CDB_PATH(call, sock, fmt) \
  do {                                  \
    va_list ap_;                        \
    va_start(ap_, fmt);                 \
    (call).Cdb(sock, fmt, ap_);         \
    va_end(ap_);                        \
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
