#include "call.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "values.h"

namespace ipapp::store {

namespace {

template <typename T>
void AppendNumber(T value, std::string *out) {
  char buf[24];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
  out->append(buf, end);
}

// A %x value: its text form, quoted where the key syntax needs it.
void AppendPathValue(const confd_value_t *v, bool in_keys, std::string *out) {
  if (v == nullptr) return;
  std::string text;
  if (!FormatValue(*v, nullptr, &text)) PrettyValue(*v, &text);
  if (in_keys) {
    AppendQuotedKey(text, out);
  } else {
    out->append(text);
  }
}

// Appends the argument of the modifier at m (after its '%' and '*', if
// star) to out; returns where the format goes on, or null for a modifier
// the store does not know (nothing taken from args).
const char *AppendArgument(const char *m, bool star, bool in_keys, va_list *args,
                           std::string *out) {
  if (*m == 'i' && m[1] == 'p' && (m[2] == '4' || m[2] == '6') && !star) {
    char buf[INET6_ADDRSTRLEN];
    const void *addr = m[2] == '4' ? static_cast<const void *>(va_arg(*args, const in_addr *))
                                   : static_cast<const void *>(va_arg(*args, const in6_addr *));
    if (addr != nullptr && inet_ntop(m[2] == '4' ? AF_INET : AF_INET6, addr, buf, sizeof buf)) {
      out->append(buf);
    }
    return m + 3;
  }
  if (*m == 's' && !star) {
    const char *s = va_arg(*args, const char *);
    out->append(s ? s : "(null)");
  } else if ((*m == 'd' || *m == 'i') && !star) {
    AppendNumber(va_arg(*args, int), out);
  } else if (*m == 'u' && !star) {
    AppendNumber(va_arg(*args, unsigned int), out);
  } else if (*m == '%' && !star) {
    out->push_back('%');
  } else if (*m == 'x') {
    int n = star ? va_arg(*args, int) : 1;
    const confd_value_t *v = va_arg(*args, const confd_value_t *);
    for (int i = 0; i < n && v != nullptr; ++i) {
      if (i) out->push_back(' ');
      AppendPathValue(&v[i], in_keys, out);
    }
  } else if (*m == 'h') {
    int len = star ? va_arg(*args, int) : -1;
    const confd_hkeypath_t *kp = va_arg(*args, const confd_hkeypath_t *);
    if (kp != nullptr && kp->len >= 0 && kp->len <= MAXDEPTH) FormatKeypath(nullptr, *kp, out, len);
  } else {
    return nullptr;
  }
  return m + 1;
}

}  // namespace

void Call::FormatPath(const char *fmt, va_list ap) {
  format_error_.clear();
  if (fmt == nullptr) {
    path_ = {};
    return;
  }
  // The two common shapes: a literal path and "%s".
  const char *pct = std::strchr(fmt, '%');
  if (pct == nullptr) {
    path_ = fmt;
    return;
  }
  if (pct == fmt && fmt[1] == 's' && fmt[2] == '\0') {
    const char *s = va_arg(ap, const char *);
    path_ = s ? s : "(null)";
    return;
  }
  // ap is a parameter: only a copy of it can be handed on by address.
  va_list args;
  va_copy(args, ap);
  std::string &out = formatted_;
  out.clear();
  bool in_keys = false;  // between a literal '{' and '}'
  const char *p = fmt;
  while (pct != nullptr) {
    for (const char *c = p; c < pct; ++c) {
      if (*c == '{') in_keys = true;
      if (*c == '}') in_keys = false;
    }
    out.append(p, pct);
    const bool star = pct[1] == '*';
    const char *m = pct + (star ? 2 : 1);
    p = AppendArgument(m, star, in_keys, &args, &out);
    if (p == nullptr) {
      // Nothing after the unknown modifier can be trusted to line up with
      // the arguments: the path is the format itself.
      format_error_ = "unsupported modifier \"" + std::string(pct, *m ? m + 1 : m) +
                      "\" in format \"" + fmt + "\"";
      path_ = fmt;
      va_end(args);
      return;
    }
    pct = std::strchr(p, '%');
  }
  va_end(args);
  out.append(p);
  path_ = out;
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
  cdb_ = true;
  return true;
}

void Call::Use(std::shared_ptr<Txn> txn) {
  txn_ = std::move(txn);
  tree_ = &txn_->candidate();
  SetCurrentTxn(txn_->thandle());
}

bool Call::Parse() {
  Txn::PathMemo &mine = txn_->path_memo(cdb_);
  parsed_ = &mine.parsed;
  if (!format_error_.empty()) {
    Fail(CONFD_ERR_BADPATH, "bad path: " + format_error_);
    return false;
  }
  std::string why;
  if (!ParsePathAgain(txn_->schema(), path_, parsed_, &mine.text, &why, cdb_)) {
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
  if (dup != nullptr) {
    try {
      AddDupLocked(*txn_, dup, name_, txn_->InternLocked(path_));
    } catch (...) {
      std::free(dup);
      throw;
    }
  }
  if (record) txn_->AddTraceLocked(name_, path_, result, detail);
  return result;
}

int Call::Fail(int err, const std::string &why) {
  std::string text = std::string(name_) + ": ";
  if (!path_.empty()) {
    text += '"';
    text.append(path_);
    text += "\": ";
  }
  text += why;
  SetLastError(err, text);
  Done(CONFD_ERR, why);
  return CONFD_ERR;
}

confd_value_t DupValue(const confd_value_t &v, void **dup) {
  confd_value_t out = v;
  *dup = nullptr;
  if (HoldsBuffer(v)) {
    auto *copy = static_cast<unsigned char *>(std::malloc(v.val.buf.size + 1));
    if (copy == nullptr) throw std::bad_alloc();
    if (v.val.buf.size) std::memcpy(copy, v.val.buf.ptr, v.val.buf.size);
    copy[v.val.buf.size] = '\0';
    out.val.buf.ptr = copy;
    *dup = copy;
  }
  return out;
}

confd_value_t DupList(const ListInst *list, void **dup) {
  confd_value_t out;
  *dup = nullptr;
  size_t n = list ? list->entries.size() : 0;
  size_t bytes = 0;
  for (size_t i = 0; i < n; ++i) {
    const confd_value_t &v = list->entries[i]->value;
    if (HoldsBuffer(v)) {
      bytes += v.val.buf.size + 1;
    }
  }
  if (n == 0) {
    CONFD_SET_LIST(&out, nullptr, 0);
    return out;
  }
  // One block: the values, then the bytes of their buffers.
  auto *block = static_cast<unsigned char *>(std::malloc(n * sizeof(confd_value_t) + bytes));
  if (block == nullptr) throw std::bad_alloc();
  auto *values = reinterpret_cast<confd_value_t *>(block);
  unsigned char *at = block + n * sizeof(confd_value_t);
  for (size_t i = 0; i < n; ++i) {
    values[i] = list->entries[i]->value;
    confd_value_t &v = values[i];
    if (HoldsBuffer(v)) {
      if (v.val.buf.size) std::memcpy(at, v.val.buf.ptr, v.val.buf.size);
      at[v.val.buf.size] = '\0';
      v.val.buf.ptr = at;
      at += v.val.buf.size + 1;
    }
  }
  CONFD_SET_LIST(&out, values, static_cast<unsigned int>(n));
  *dup = block;
  return out;
}

}  // namespace ipapp::store
