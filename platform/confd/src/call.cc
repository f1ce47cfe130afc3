#include "call.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "values.h"

namespace ipapp::store {

void Call::FormatPath(const char *fmt, va_list ap) {
  if (fmt == nullptr) {
    path_.clear();
    return;
  }
  // The two common shapes skip vsnprintf: a literal path and "%s".
  if (std::strchr(fmt, '%') == nullptr) {
    path_.assign(fmt);
    return;
  }
  if (std::strcmp(fmt, "%s") == 0) {
    const char *s = va_arg(ap, const char *);
    path_.assign(s ? s : "(null)");
    return;
  }
  va_list copy;
  va_copy(copy, ap);
  char buf[512];
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  if (n < 0) {
    path_.clear();
  } else if (static_cast<size_t>(n) < sizeof buf) {
    path_.assign(buf, n);
  } else {
    path_.resize(n);
    std::vsnprintf(path_.data(), n + 1, fmt, copy);
  }
  va_end(copy);
}

bool Call::Maapi(int sock, int thandle) {
  {
    std::lock_guard<std::mutex> lock(StoreMutex());
    txn_ = FindTxnLocked(thandle);
  }
  if (!txn_) {
    SetLastError(CONFD_ERR_NOSESSION,
                 std::string(name_) + ": no transaction with handle " + std::to_string(thandle));
    return false;
  }
  SetCurrentTxn(thandle);
  if (txn_->maapi_socket() != sock) {
    Fail(CONFD_ERR_NOSESSION, "socket " + std::to_string(sock) +
                                  " is not the MAAPI socket of transaction " +
                                  std::to_string(thandle));
    return false;
  }
  tree_ = &txn_->candidate();
  return true;
}

bool Call::Cdb(int sock) {
  bool session = false;
  {
    std::lock_guard<std::mutex> lock(StoreMutex());
    txn_ = FindCdbSocketLocked(sock);
    if (txn_) {
      const CdbSocket &info = txn_->cdb_sockets.at(sock);
      session = info.session;
      tree_ = info.tree;
    }
  }
  if (!txn_) {
    SetLastError(CONFD_ERR_NOSESSION,
                 std::string(name_) + ": socket " + std::to_string(sock) + " is not a CDB socket");
    return false;
  }
  SetCurrentTxn(txn_->thandle());
  if (!session) {
    Fail(CONFD_ERR_PROTOUSAGE, "no CDB session started on socket " + std::to_string(sock));
    return false;
  }
  return true;
}

void Call::Use(std::shared_ptr<Txn> txn) {
  txn_ = std::move(txn);
  tree_ = &txn_->candidate();
  SetCurrentTxn(txn_->thandle());
}

bool Call::Parse() {
  // Successive calls mostly name the same path or one with the same
  // beginning (exists, then get; entry after entry of one list).
  struct Last {
    Last() { text.reserve(256); }
    ParsedPath parsed;
    std::string text;
  };
  thread_local Last last;
  parsed_ = &last.parsed;
  std::string why;
  if (!ParsePathAgain(txn_->schema(), path_, parsed_, &last.text, &why)) {
    Fail(CONFD_ERR_BADPATH, "bad path: " + why);
    return false;
  }
  return true;
}

const DNode *Call::Leaf() {
  if (!Parse()) return nullptr;
  const SNode *s = parsed_->last();
  if (s->kind != NodeKind::kLeaf) {
    Fail(CONFD_ERR_BADPATH, "not a leaf");
    return nullptr;
  }
  Target t = Resolve(*tree_, *parsed_);
  if (!t.present) {
    Fail(CONFD_ERR_NOEXISTS, "does not exist");
    return nullptr;
  }
  return t.node;
}

bool Call::List(Target *t) {
  if (!Parse()) return false;
  const PathElem &last = parsed_->e[parsed_->n - 1];
  if ((last.s->kind != NodeKind::kList && last.s->kind != NodeKind::kLeafList) ||
      last.sel != PathElem::kNone) {
    Fail(CONFD_ERR_BADPATH, "not a list");
    return false;
  }
  *t = Resolve(*tree_, *parsed_);
  return true;
}

int Call::WrongType(const DNode &leaf, int vtype) {
  return Fail(CONFD_ERR_BADTYPE, std::string("is of type ") + leaf.s->type.name + " (" +
                                     VtypeName(leaf.value.type) + "), not " + VtypeName(vtype));
}

int Call::Done(int result, std::string_view detail) {
  return DoneWithDup(result, nullptr, detail);
}

int Call::DoneWithDup(int result, void *dup, std::string_view detail) {
  if (!txn_) return result;
  const bool record = txn_->recording_trace();
  if (dup == nullptr && !record) return result;
  std::lock_guard<std::mutex> lock(StoreMutex());
  if (dup != nullptr) AddDupLocked(*txn_, dup);
  if (record) txn_->AddTraceLocked(name_, path_, result, detail);
  return result;
}

int Call::Fail(int err, const std::string &why) {
  std::string text = std::string(name_) + ": ";
  if (!path_.empty()) text += "\"" + path_ + "\": ";
  text += why;
  SetLastError(err, text);
  Done(CONFD_ERR, why);
  return CONFD_ERR;
}

confd_value_t DupValue(const confd_value_t &v, void **dup) {
  confd_value_t out = v;
  *dup = nullptr;
  if (v.type == C_BUF || v.type == C_BINARY) {
    auto *copy = static_cast<unsigned char *>(std::malloc(v.val.buf.size + 1));
    if (v.val.buf.size) std::memcpy(copy, v.val.buf.ptr, v.val.buf.size);
    copy[v.val.buf.size] = '\0';
    out.val.buf.ptr = copy;
    *dup = copy;
  }
  return out;
}

}  // namespace ipapp::store
