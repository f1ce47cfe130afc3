// Scope guard for MAAPI cursors: every initialised cursor is destroyed on
// every way out of the scope, an exception included.
#ifndef IPAPP_MAAPI_CURSOR_GUARD_H
#define IPAPP_MAAPI_CURSOR_GUARD_H

#include <confd_maapi.h>

class MaapiCursorGuard {
 public:
  explicit MaapiCursorGuard(maapi_cursor *cursor) : cursor_(cursor) {}
  ~MaapiCursorGuard() {
    if (cursor_ != nullptr) maapi_destroy_cursor(cursor_);
  }
  MaapiCursorGuard(const MaapiCursorGuard &) = delete;
  MaapiCursorGuard &operator=(const MaapiCursorGuard &) = delete;

  /// Leaves the cursor open: whoever called this keeps it.
  void Release() { cursor_ = nullptr; }

 private:
  maapi_cursor *cursor_;
};

#endif  // IPAPP_MAAPI_CURSOR_GUARD_H
