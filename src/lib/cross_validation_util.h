// Private helpers of the cross-protocol handlers (OSPF, OSPFv3, LDP): scope
// guards for the cursors and bulk-read batches they walk, and the plumbing to
// the host's CDB sessions.
#ifndef IPAPP_SRC_LIB_CROSS_VALIDATION_UTIL_H
#define IPAPP_SRC_LIB_CROSS_VALIDATION_UTIL_H

#include <confd_assert.h>
#include <confd_lib.h>
#include <confd_maapi.h>
#include <kxconfd.h>
#include <maapi_cursor_guard.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <string>

namespace ip_application::cross_valid {

/// Objects asked for per maapi_get_objects call.
constexpr int kBatchObjects = 32;

/// One maapi_get_objects batch: up to kBatchObjects objects of kWidth values.
/// Values still held (strings are duplicated by the read) are released when
/// the next batch is fetched and when the batch goes out of scope, so an early
/// exit from a batch or a passing exception leaks nothing.
template <int kWidth>
class ObjectBatch {
 public:
  ObjectBatch() = default;
  ~ObjectBatch() { ReleaseAll(); }
  ObjectBatch(const ObjectBatch &) = delete;
  ObjectBatch &operator=(const ObjectBatch &) = delete;

  /// Releases the previous batch and fetches the next from mc; *n receives
  /// the number of objects read. Returns maapi_get_objects' result.
  int Fetch(maapi_cursor *mc, int *n) {
    ReleaseAll();
    *n = kBatchObjects;
    const int ret = maapi_get_objects(mc, values_, kWidth, n);
    held_ = (ret >= 0 && *n > 0) ? *n * kWidth : 0;
    return ret;
  }

  /// Value j of object i is values()[j + i * kWidth].
  confd_value_t *values() { return values_; }

  /// Releases the values of one object ahead of the batch.
  void Free(int object) {
    for (int j = 0; j < kWidth; ++j) FreeOne(&values_[object * kWidth + j]);
  }

 private:
  static void FreeOne(confd_value_t *v) {
    if (v->type == C_NOEXISTS) return;
    confd_free_dup_to_value(v);
    CONFD_SET_NOEXISTS(v);
  }
  void ReleaseAll() {
    for (int i = 0; i < held_; ++i) FreeOne(&values_[i]);
    held_ = 0;
  }

  confd_value_t values_[kBatchObjects * kWidth];
  int held_ = 0;
};

/// The host interface of the transaction's host instance, for opening
/// KxConfdCdbSession objects.
inline KxConfdInterface *HostInterface(confd_trans_ctx *tctx) {
  return kxconfd_instance_get(static_cast<kxconfd_t *>(tctx->vcb_opaque));
}

/// True when the protocol table at path exists in the transaction and is not
/// empty. Only maapi_exists == 1 counts as present; a failed count does not
/// count as empty.
inline bool TableInUse(int32_t sock, confd_trans_ctx *tctx, const char *path) {
  return maapi_exists(sock, tctx->thandle, "%s", path) == 1 &&
         maapi_num_instances(sock, tctx->thandle, "%s", path) != 0;
}

/// Walks the transaction's changes below kp (printed with confd_pp_kpath)
/// with one of the interface-collecting callbacks into state.
template <typename State>
void CollectChanges(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                    confd_iter_ret (*iter)(confd_hkeypath_t *, confd_iter_op, confd_value_t *,
                                           confd_value_t *, void *),
                    State *state) {
  char path[8192];
  confd_pp_kpath(path, sizeof path, kp);
  maapi_keypath_diff_iterate(sock, tctx->thandle, iter, 0, state, "%s", path);
}

/// printf into a std::string of any length.
inline std::string FormatText(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string FormatText(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  va_list again;
  va_copy(again, args);
  const int len = std::vsnprintf(nullptr, 0, fmt, args);
  va_end(args);
  std::string text(len > 0 ? static_cast<size_t>(len) : 0, '\0');
  if (len > 0) std::vsnprintf(&text[0], text.size() + 1, fmt, again);
  va_end(again);
  return text;
}

}  // namespace ip_application::cross_valid

#endif  // IPAPP_SRC_LIB_CROSS_VALIDATION_UTIL_H
