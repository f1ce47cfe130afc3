#include "call.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "path_format.h"
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
// the store does not know (nothing taken from args). *number receives the
// argument of %d, %i and %u.
const char *AppendArgument(const char *m, bool star, bool in_keys, va_list *args, std::string *out,
                           int64_t *number) {
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
    const int v = va_arg(*args, int);
    *number = v;
    AppendNumber(v, out);
  } else if (*m == 'u' && !star) {
    const unsigned int v = va_arg(*args, unsigned int);
    *number = v;
    AppendNumber(v, out);
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

// Formats fmt, whose first '%' is at pct, into *out (cleared first); false
// with *error for a modifier the store does not know. With record, also
// records the format and its arguments there when it holds plain modifiers
// only (record->valid stays false: the path has yet to parse).
bool FormatInto(const char *fmt, const char *pct, va_list ap, std::string *out, std::string *error,
                PathFormat *record) {
  // ap is a parameter: only a copy of it can be handed on by address.
  va_list args;
  va_copy(args, ap);
  out->clear();
  bool plain = record != nullptr;
  if (plain) {
    record->valid = false;
    record->nargs = 0;
    record->strs.clear();
  }
  bool in_keys = false;  // between a literal '{' and '}'
  const char *p = fmt;
  while (pct != nullptr) {
    for (const char *c = p; c < pct; ++c) {
      if (*c == '{') in_keys = true;
      if (*c == '}') in_keys = false;
    }
    out->append(p, pct);
    const bool star = pct[1] == '*';
    const char *m = pct + (star ? 2 : 1);
    const size_t at = out->size();
    int64_t number = 0;
    p = AppendArgument(m, star, in_keys, &args, out, &number);
    if (p == nullptr) {
      // Nothing after the unknown modifier can be trusted to line up with
      // the arguments: the path is the format itself.
      *error = "unsupported modifier \"" + std::string(pct, *m ? m + 1 : m) + "\" in format \"" +
               fmt + "\"";
      va_end(args);
      return false;
    }
    const bool address = *m == 'i' && m[1] == 'p';  // %ip4, %ip6: not plain
    if (plain && !star && !address && (*m == 's' || *m == 'd' || *m == 'i' || *m == 'u')) {
      if (record->nargs == PathFormat::kMaxArgs) {
        plain = false;
      } else {
        PathFormat::Arg &arg = record->args[record->nargs++];
        arg.kind = *m == 'i' ? 'd' : *m;
        arg.number = number;
        arg.at = static_cast<uint32_t>(at);
        arg.len = static_cast<uint32_t>(out->size() - at);
        arg.index_elem = -1;
        if (*m == 's') {
          arg.str_at = static_cast<uint32_t>(record->strs.size());
          arg.str_len = arg.len;
          record->strs.append(*out, at, arg.len);
          record->strs.push_back('\0');
        }
      }
    } else if (star || *m != '%') {
      plain = false;
    }
    pct = std::strchr(p, '%');
  }
  va_end(args);
  out->append(p);
  if (plain) {
    record->fmt.assign(fmt);
  } else if (record != nullptr) {
    record->nargs = -1;
  }
  return true;
}

// Writes number as the len digits at out when it is a number of 0 to
// 999,999,999 with len digits; false, with nothing written, otherwise.
inline bool ReplaceDigits(int64_t number, uint32_t len, char *out) {
  if (number < 0 || number > 999999999) return false;
  char buf[10];
  char *p = buf + sizeof buf;
  auto v = static_cast<uint32_t>(number);
  do {
    *--p = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  if (buf + sizeof buf - p != static_cast<std::ptrdiff_t>(len)) return false;
  for (uint32_t i = 0; i < len; ++i) out[i] = p[i];
  return true;
}

// Turns the len digits at text, a number, into those of the next number
// when it has as many (false, nothing written, for all nines).
inline bool IncrementDigits(char *text, uint32_t len) {
  for (uint32_t i = len; i-- > 0;) {
    if (text[i] != '9') {
      ++text[i];
      for (uint32_t j = i + 1; j < len; ++j) text[j] = '0';
      return true;
    }
  }
  return false;
}

// The two common shapes: a literal path and "%s", taken as they stand;
// false for any other format (pct: its first '%').
bool TakePathAsIs(const char *fmt, va_list ap, const char **pct, std::string_view *path) {
  if (fmt == nullptr) {
    *path = {};
    return true;
  }
  *pct = std::strchr(fmt, '%');
  if (*pct == nullptr) {
    *path = fmt;
    return true;
  }
  if (*pct == fmt && fmt[1] == 's' && fmt[2] == '\0') {
    va_list args;
    va_copy(args, ap);
    const char *s = va_arg(args, const char *);
    va_end(args);
    *path = s ? s : "(null)";
    return true;
  }
  return false;
}

}  // namespace

void Call::FormatPath(const char *fmt, va_list ap) {
  format_error_.clear();
  const char *pct = nullptr;
  if (TakePathAsIs(fmt, ap, &pct, &path_)) return;
  path_ = FormatInto(fmt, pct, ap, &formatted_, &format_error_, nullptr)
              ? std::string_view(formatted_)
              : std::string_view(fmt);
}

void Call::FormatWithMemo(const char *fmt, va_list ap) {
  Txn::PathMemo &memo = txn_->path_memo(cdb_);
  if (FromMemo(memo, fmt, ap)) return;
  const char *pct = nullptr;
  if (TakePathAsIs(fmt, ap, &pct, &path_)) return;
  if (!FormatInto(fmt, pct, ap, &memo.scratch, &format_error_, &memo.format)) {
    path_ = fmt;
    return;
  }
  path_ = memo.scratch;
  recorded_format_ = memo.format.nargs >= 0;
}

bool Call::FromMemo(Txn::PathMemo &memo, const char *fmt, va_list ap) {
  PathFormat &f = memo.format;
  // The same format text with the same "%s" texts as the memo's: its path
  // again, or with one number changed. A memo's format is never one that
  // TakePathAsIs takes as it stands (it has a modifier and is not "%s").
  if (!f.valid || fmt == nullptr || memo.parsed.memo_schema != txn_->schema().serial() ||
      !memo.parsed.unescaped.empty() || std::strcmp(fmt, f.fmt.c_str()) != 0) {
    return false;
  }
  va_list args;
  va_copy(args, ap);
  bool same = true;
  int changed = -1;
  int64_t number = 0;
  for (int i = 0; i < f.nargs && same; ++i) {
    const PathFormat::Arg &arg = f.args[i];
    if (arg.kind == 's') {
      const char *s = va_arg(args, const char *);
      same = s != nullptr && std::strcmp(s, f.strs.data() + arg.str_at) == 0;
      continue;
    }
    const int64_t v =
        arg.kind == 'u' ? int64_t{va_arg(args, unsigned int)} : int64_t{va_arg(args, int)};
    if (v == arg.number) continue;
    if (changed >= 0) same = false;  // two numbers changed: formatted afresh
    changed = i;
    number = v;
  }
  va_end(args);
  if (!same) return false;
  if (changed >= 0) {
    // An index again, of as many digits: what ReplaceNumber would do.
    PathFormat::Arg &a = f.args[changed];
    char *digits = memo.text.data() + a.at;
    // Rows are mostly read in order: the next index is the last one plus one.
    if (a.index_elem >= 0 && (number == a.number + 1 ? IncrementDigits(digits, a.len)
                                                     : ReplaceDigits(number, a.len, digits))) {
      a.number = number;
      memo.parsed.e[a.index_elem].index = static_cast<long>(number);
      if (memo.parsed.res_n > a.index_elem) memo.parsed.res_n = a.index_elem;
      changed = -1;
    }
  }
  const Applied applied = changed < 0 ? Applied::kYes : ApplyNumber(memo, changed, number);
  if (applied == Applied::kNo) return false;
  path_ = memo.text;
  // kTextOnly: the text changed in place, its parse did not follow.
  parsed_already_ = applied == Applied::kYes;
  return true;
}

Call::Applied Call::ApplyNumber(Txn::PathMemo &memo, int arg, int64_t number) {
  PathFormat &f = memo.format;
  PathFormat::Arg &a = f.args[arg];
  ParsedPath &p = memo.parsed;
  char digits[24];
  a.index_elem = -1;
  // The element whose keys or index hold the number; those after it must
  // hold no key texts (they would point into the old text).
  int k = 0;
  while (k < p.n && p.e[k].end <= a.at) ++k;
  if (k == p.n || p.e[k].sel == PathElem::kNone || p.e[k].sel_at >= a.at ||
      a.at + a.len >= p.e[k].end) {
    return Applied::kNo;
  }
  for (int j = k + 1; j < p.n; ++j) {
    if (p.e[j].sel == PathElem::kKeys) return Applied::kNo;
  }
  const char *end =
      a.kind == 'u'
          ? std::to_chars(digits, digits + sizeof digits, static_cast<unsigned int>(number)).ptr
          : std::to_chars(digits, digits + sizeof digits, static_cast<int>(number)).ptr;
  const size_t len = static_cast<size_t>(end - digits);
  // Key texts before the number point into the text: it must not move.
  if (memo.text.size() - a.len + len > memo.text.capacity()) return Applied::kNo;
  if (len == a.len) {
    std::memcpy(memo.text.data() + a.at, digits, len);
  } else {
    memo.text.replace(a.at, a.len, digits, len);
  }
  const std::ptrdiff_t delta =
      static_cast<std::ptrdiff_t>(len) - static_cast<std::ptrdiff_t>(a.len);
  a.number = number;
  a.len = static_cast<uint32_t>(len);
  for (int j = arg + 1; j < f.nargs; ++j)
    f.args[j].at = static_cast<uint32_t>(f.args[j].at + delta);
  if (ReplaceNumber(memo.text, k, a.at, std::string_view(digits, len), delta, &p)) {
    // An index is replaced only when the number is all of it.
    if (p.e[k].sel == PathElem::kIndex) a.index_elem = k;
    return Applied::kYes;
  }
  if (!ReparseSelector(memo.text, k, delta, &p, cdb_)) {
    f.valid = false;
    return Applied::kTextOnly;
  }
  return Applied::kYes;
}

bool Call::MaapiTxnFound(int thandle) {
  if (txn_ != nullptr) return true;
  SetLastError(CONFD_ERR_NOSESSION,
               std::string(name_) + ": no transaction with handle " + std::to_string(thandle));
  return false;
}

bool Call::OnMaapiSocket(int sock, int thandle) {
  if (txn_->maapi_socket() != sock) {
    Fail(CONFD_ERR_NOSESSION, "socket " + std::to_string(sock) +
                                  " is not the MAAPI socket of transaction " +
                                  std::to_string(thandle));
    return false;
  }
  tree_ = &txn_->candidate();
  return true;
}

bool Call::Maapi(int sock, int thandle) {
  hold_ = LookUpTxn(thandle);
  txn_ = hold_.get();
  return MaapiTxnFound(thandle) && OnMaapiSocket(sock, thandle);
}

void Call::Maapi(int sock, int thandle, const char *fmt, va_list ap) {
  txn_ = LookUpTxn(thandle).get();
  if (!MaapiTxnFound(thandle)) return;
  // The failure names the path.
  if (txn_->maapi_socket() != sock) FormatPath(fmt, ap);
  if (!OnMaapiSocket(sock, thandle)) return;
  FormatWithMemo(fmt, ap);
  ok_ = true;
}

void Call::Cdb(int sock, const char *fmt, va_list ap) {
  const DataTree *tree = nullptr;
  txn_ = LookUpCdbSocket(sock, &tree).get();
  if (txn_ == nullptr) {
    SetLastError(CONFD_ERR_NOSESSION,
                 std::string(name_) + ": socket " + std::to_string(sock) + " is not a CDB socket");
    return;
  }
  if (tree == nullptr) {
    FormatPath(fmt, ap);
    Fail(CONFD_ERR_PROTOUSAGE, "no CDB session started on socket " + std::to_string(sock));
    return;
  }
  tree_ = tree;
  cdb_ = true;
  FormatWithMemo(fmt, ap);
  ok_ = true;
}

void Call::Use(std::shared_ptr<Txn> txn) {
  hold_ = std::move(txn);
  txn_ = hold_.get();
  tree_ = &txn_->candidate();
  SetCurrentTxn(txn_->thandle());
}

bool Call::Parse() {
  Txn::PathMemo &mine = txn_->path_memo(cdb_);
  parsed_ = &mine.parsed;
  if (parsed_already_) return true;
  if (!format_error_.empty()) {
    Fail(CONFD_ERR_BADPATH, "bad path: " + format_error_);
    return false;
  }
  std::string why;
  bool whole = false;
  bool ok = ParsePathAgain(txn_->schema(), path_, parsed_, &mine.text, &why, cdb_,
                           recorded_format_ ? nullptr : &whole);
  Txn::PathMemo *used = &mine;
  if (whole) {
    // Nothing of the last path serves: the path goes to the older memo,
    // which may hold some of it, and the last one is kept (two tables read
    // by turns keep a memo each).
    Txn::PathMemo &older = txn_->older_path_memo(cdb_);
    ok = ParsePathAgain(txn_->schema(), path_, &older.parsed, &older.text, &why, cdb_);
    txn_->SwapPathMemos(cdb_);
    used = &older;
    parsed_ = &older.parsed;
  }
  // The memo's format describes the memo's text only when this call
  // formatted it.
  used->format.valid = ok && recorded_format_;
  if (!ok) {
    Fail(CONFD_ERR_BADPATH, "bad path: " + why);
    return false;
  }
  parsed_already_ = true;
  return true;
}

const DNode *Call::Leaf() {
  if (!Parse()) return nullptr;
  const SNode *s = parsed_->last();
  if (s->kind != NodeKind::kLeaf) {
    Fail(CONFD_ERR_BADPATH, "not a leaf");
    return nullptr;
  }
  bool present;
  const DNode *node = ResolveNode(*tree_, *parsed_, &present);
  if (!present) {
    Fail(CONFD_ERR_NOEXISTS, "does not exist");
    return nullptr;
  }
  return node;
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

int Call::DoneWithDup(int result, void *dup, std::string_view detail) {
  if (txn_ == nullptr) return result;
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
