// General-purpose helpers of the library part: printing, releasing
// duplicated values, the transaction's error text.
#include <confd_lib.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "call.h"
#include "values.h"

namespace {

int CopyOut(const std::string &text, char *buf, int bufsiz) {
  if (buf != nullptr && bufsiz > 0) {
    size_t n = text.size() < static_cast<size_t>(bufsiz) ? text.size() : bufsiz - 1;
    std::memcpy(buf, text.data(), n);
    buf[n] = '\0';
  }
  return static_cast<int>(text.size());
}

// Never throws: values are released from destructors.
void FreeValue(const char *name, confd_value_t *v) noexcept {
  if (v == nullptr) return;
  void *ptr = nullptr;
  if (ipapp::store::HoldsBuffer(*v)) {
    ptr = v->val.buf.ptr;
  } else if (v->type == C_LIST) {
    ptr = v->val.list.ptr;
  }
  if (ptr == nullptr) return;
  if (ipapp::store::FreeDup(ptr)) {
    if (v->type == C_LIST) {
      v->val.list.ptr = nullptr;
      v->val.list.size = 0;
    } else {
      v->val.buf.ptr = nullptr;
      v->val.buf.size = 0;
    }
    return;
  }
  // Not a buffer the store duplicated (a cursor key, a keypath element, a
  // value freed twice): leave it alone, but let the trace show it.
  std::shared_ptr<ipapp::store::Txn> txn = ipapp::store::FindTxn(ipapp::store::CurrentTxn());
  if (txn) {
    ipapp::store::Call call(name);
    call.Use(txn);
    try {
      call.Done(CONFD_ERR, "not a value duplicated by a read");
    } catch (...) {  // the detail text could not be made: no record
    }
  }
}

// The transaction this thread last worked on: printing a keypath takes its
// key types from that transaction's schema.
std::shared_ptr<ipapp::store::Txn> ThreadTxn() {
  return ipapp::store::FindTxn(ipapp::store::CurrentTxn());
}

}  // namespace

int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v) {
  std::string text;
  if (v != nullptr) ipapp::store::PrettyValue(*v, &text);
  return CopyOut(text, buf, bufsiz);
}

int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath) {
  std::string text;
  if (hkeypath != nullptr && hkeypath->len > 0 && hkeypath->len <= MAXDEPTH) {
    std::shared_ptr<ipapp::store::Txn> txn = ThreadTxn();
    ipapp::store::FormatKeypath(txn ? &txn->schema() : nullptr, *hkeypath, &text);
  }
  return CopyOut(text, buf, bufsiz);
}

void confd_free_dup_to_value(confd_value_t *v) {
  FreeValue("confd_free_dup_to_value", v);
}

void confd_free_value(confd_value_t *v) {
  FreeValue("confd_free_value", v);
}

void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...) {
  if (tctx == nullptr || fmt == nullptr) return;
  std::shared_ptr<ipapp::store::Txn> txn = ipapp::store::FindTxn(tctx->thandle);
  if (!txn) return;
  va_list ap;
  va_start(ap, fmt);
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, ap);
  std::string text(n > 0 ? n : 0, '\0');
  if (n > 0) std::vsnprintf(text.data(), n + 1, fmt, copy);
  va_end(copy);
  va_end(ap);
  txn->SetError(text);
  ipapp::store::Call call("confd_trans_seterr");
  call.Use(txn);
  call.Done(CONFD_OK, text);
}
