#include "path.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <cstring>

#include "values.h"

namespace ipapp::store {
namespace {

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

// End of the element name starting at i: the next '/', '{' or '[' (or the
// end); *colon receives the position of its first ':'.
size_t ScanName(std::string_view path, size_t i, size_t *colon) {
  const char *p = path.data();
  const size_t n = path.size();
  for (; i < n; ++i) {
    const char c = p[i];
    if (c > ':') {
      if (c == '{' || c == '[') break;
    } else if (c == '/') {
      break;
    } else if (c == ':' && *colon == std::string_view::npos) {
      *colon = i;
    }
  }
  return i;
}

bool ParseKeys(std::string_view path, size_t *pos, ParsedPath *out, PathElem *elem,
               std::string *error) {
  size_t i = *pos + 1;  // after '{'
  elem->nkeys = 0;
  for (;;) {
    while (i < path.size() && IsBlank(path[i])) ++i;
    if (i >= path.size()) {
      *error = "missing '}'";
      return false;
    }
    if (path[i] == '}') break;
    if (elem->nkeys == MAXKEYLEN) {
      *error = "too many keys";
      return false;
    }
    std::string_view key;
    if (path[i] == '"') {
      size_t start = ++i;
      bool escaped = false;
      while (i < path.size() && path[i] != '"') {
        if (path[i] == '\\' && i + 1 < path.size()) {
          escaped = true;
          ++i;
        }
        ++i;
      }
      if (i >= path.size()) {
        *error = "unterminated quoted key";
        return false;
      }
      key = path.substr(start, i - start);
      ++i;
      if (escaped) {
        std::string &plain = out->unescaped.emplace_back();
        for (size_t j = 0; j < key.size(); ++j) {
          if (key[j] == '\\' && j + 1 < key.size()) ++j;
          plain.push_back(key[j]);
        }
        key = plain;
      }
      if (i < path.size() && !IsBlank(path[i]) && path[i] != '}') {
        *error = "blank or '}' expected after a quoted key";
        return false;
      }
    } else {
      size_t start = i;
      while (i < path.size() && !IsBlank(path[i]) && path[i] != '}' && path[i] != '{') ++i;
      if (i < path.size() && path[i] == '{') {
        *error = "'{' inside keys";
        return false;
      }
      key = path.substr(start, i - start);
    }
    elem->keys[elem->nkeys++] = key;
  }
  *pos = i + 1;  // after '}'
  return true;
}

bool ParseKeyValues(PathElem *elem, std::string *scratch, std::string *error) {
  const SNode *s = elem->s;
  if (static_cast<size_t>(elem->nkeys) != s->keys.size()) {
    *error = "list \"" + s->name + "\" has " + std::to_string(s->keys.size()) + " key" +
             (s->keys.size() == 1 ? "" : "s") + ", " + std::to_string(elem->nkeys) + " given";
    return false;
  }
  for (int k = 0; k < elem->nkeys; ++k) {
    const LeafType &type = s->keys[k]->type;
    std::string why;
    if (!elem->ParseKey(k, type, scratch, &why)) {
      *error = "key \"" + std::string(elem->keys[k]) + "\" of list \"" + s->name +
               "\" is not a valid " + type.name + " (" + why + ")";
      return false;
    }
  }
  return true;
}

}  // namespace

confd_value_t PathElem::KeyValue(int k) const {
  confd_value_t v = kv_[k];
  if (kbytes_at_[k] >= 0)
    v.val.buf.ptr =
        reinterpret_cast<unsigned char *>(const_cast<char *>(kbytes_.data() + kbytes_at_[k]));
  return v;
}

bool PathElem::ParseKey(int k, const LeafType &type, std::string *scratch, std::string *error) {
  if (k == 0) kbytes_.clear();
  kbytes_at_[k] = -1;
  // Kept by offset: the element may be copied, kbytes_ may grow (KeyValue
  // points the value at its bytes).
  return ParseKeptValue(type, keys[k], &kv_[k], scratch, error, [&](std::string_view bytes) {
    kbytes_at_[k] = static_cast<int>(kbytes_.size());
    kbytes_.append(bytes);
    return std::string_view(kbytes_).substr(kbytes_at_[k]);
  });
}

void PathElem::TakeKeys(const DNode &entry) {
  nkeys = static_cast<int>(s->keys.size());
  for (int k = 0; k < nkeys; ++k) {
    const DNode *key = entry.Child(s->keys[k]);
    keys[k] = key->text;
    kv_[k] = key->value;
    kbytes_at_[k] = -1;
  }
}

namespace {

// Byte order of two buffers as CompareValues orders C_BUF values: bytes
// first, then length. Keys are short: a plain loop beats a call of memcmp.
inline int CompareBytes(const unsigned char *a, size_t an, const unsigned char *b, size_t bn) {
  const size_t n = an < bn ? an : bn;
  for (size_t i = 0; i < n; ++i) {
    if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
  }
  return an < bn ? -1 : (an > bn ? 1 : 0);
}

constexpr size_t kNone = static_cast<size_t>(-1);

// Binary search of the entries for the one compare(index) finds equal (0;
// below 0: the entry is before the one sought); kNone when there is none.
// The entry after near is tried first: reads often go through a list in its
// order. compare also receives how many leading bytes the entries at lo - 1
// and hi share with what is sought (buffer keys skip them) and returns how
// many the entry shares.
template <typename Compare>
size_t Search(size_t size, size_t near, Compare compare) {
  size_t lo = 0;
  size_t hi = size;
  size_t lo_common = 0;
  size_t hi_common = 0;
  size_t mid = near != kNone && near + 1 < size ? near + 1 : lo + (hi - lo) / 2;
  while (lo < hi) {
    size_t common = lo_common < hi_common ? lo_common : hi_common;
    const int c = compare(mid, &common);
    if (c == 0) return mid;
    if (c < 0) {
      lo = mid + 1;
      lo_common = common;
    } else {
      hi = mid;
      hi_common = common;
    }
    mid = lo + (hi - lo) / 2;
  }
  return kNone;
}

// The index of the entry of list whose keys are elem's, or kNone; near as
// FindEntry's. A key leaf of type C_BUF holds C_BUF values (checked all the
// same: anything else takes the general comparison).
size_t FindIndex(const ListInst &list, const PathElem &elem, size_t near) {
  const size_t size = list.entries.size();
  if (elem.nkeys == 1 && size > 0) {  // most lists: one key, mostly a string
    const confd_value_t want = elem.KeyValue(0);
    const SNode *key = elem.s->keys[0];
    if (want.type == C_BUF && key->type.vtype == C_BUF) {
      const unsigned char *w = want.val.buf.ptr;
      const size_t wn = want.val.buf.size;
      bool bufs = true;
      const size_t found = Search(size, near, [&](size_t at, size_t *common) {
        const confd_value_t &have = list.entries[at]->Child(key)->value;
        if (have.type != C_BUF) {
          bufs = false;
          return 0;
        }
        const unsigned char *h = have.val.buf.ptr;
        const size_t hn = have.val.buf.size;
        const size_t n = hn < wn ? hn : wn;
        size_t i = *common < n ? *common : n;
        while (i < n && h[i] == w[i]) ++i;
        *common = i;
        if (i < n) return h[i] < w[i] ? -1 : 1;
        return hn < wn ? -1 : (hn > wn ? 1 : 0);
      });
      if (bufs) return found;
    }
  }
  confd_value_t want[MAXKEYLEN];
  for (int k = 0; k < elem.nkeys; ++k) want[k] = elem.KeyValue(k);
  return Search(size, near, [&](size_t at, size_t *) {
    const DNode *entry = list.entries[at];
    for (int k = 0; k < elem.nkeys; ++k) {
      const confd_value_t &have = entry->Key(k);
      const int c = have.type == C_BUF && want[k].type == C_BUF
                        ? CompareBytes(have.val.buf.ptr, have.val.buf.size, want[k].val.buf.ptr,
                                       want[k].val.buf.size)
                        : CompareValues(have, want[k]);
      if (c != 0) return c;
    }
    return 0;
  });
}

}  // namespace

const DNode *FindEntry(const ListInst &list, const PathElem &elem, size_t *near) {
  // Entries are sorted by their key values (EntryLess); no two are equal.
  const size_t at = FindIndex(list, elem, near ? *near : kNone);
  if (at == kNone) return nullptr;
  if (near != nullptr) *near = at;
  return list.entries[at];
}

namespace {

// Length of the common beginning of a and b, compared a word at a time.
size_t CommonPrefix(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= n; i += sizeof(uint64_t)) {
    uint64_t x;
    uint64_t y;
    std::memcpy(&x, a.data() + i, sizeof x);
    std::memcpy(&y, b.data() + i, sizeof y);
    if (x != y) break;
  }
  while (i < n && a[i] == b[i]) ++i;
  return i;
}

// The child of parent whose name (without a module) stands at offset i of
// path, followed by the end, '/', '{' or '['; null when no child's name
// or two children's names (of different modules) stand there.
const SNode *DirectChild(const SNode &parent, std::string_view path, size_t i) {
  const SNode *found = nullptr;
  const size_t rest = path.size() - i;
  const char *p = path.data() + i;
  for (const SNode *c : parent.children) {
    const std::string &name = c->name;
    const size_t n = name.size();
    if (n > rest || p[0] != name[0] || std::memcmp(p, name.data(), n) != 0) continue;
    if (n < rest && p[n] != '/' && p[n] != '{' && p[n] != '[') continue;
    if (found != nullptr) return nullptr;
    found = c;
  }
  return found;
}

// Adds the element s, whose name ends at *pos, with its keys or index;
// *pos moves past them.
bool ParseSelector(std::string_view path, const SNode *s, size_t *pos, ParsedPath *out,
                   std::string *error, bool allow_index) {
  size_t i = *pos;
  PathElem &elem = out->e[out->n++];
  elem.sel_at = i;
  elem.s = s;
  elem.sel = PathElem::kNone;
  elem.nkeys = 0;
  if (i < path.size() && (path[i] == '{' || path[i] == '[')) {
    if (!s->is_list()) {
      *error = "\"" + s->name + "\" is not a list";
      return false;
    }
    if (path[i] == '{') {
      if (!ParseKeys(path, &i, out, &elem, error) || !ParseKeyValues(&elem, &out->scratch, error))
        return false;
      elem.sel = PathElem::kKeys;
    } else {
      if (!allow_index) {
        *error = "\"[N]\" selects entries in CDB paths only; give the keys of \"" + s->name + "\"";
        return false;
      }
      size_t close = path.find(']', i);
      std::string_view digits =
          close == std::string_view::npos ? std::string_view() : path.substr(i + 1, close - i - 1);
      long index = 0;
      bool ok = !digits.empty() && digits.size() < 10;
      for (size_t d = 0; ok && d < digits.size(); ++d) {  // at most 9 digits: no overflow
        ok = digits[d] >= '0' && digits[d] <= '9';
        index = index * 10 + (digits[d] - '0');
      }
      if (!ok) {
        *error = "bad index \"[" + std::string(digits) + "]\"";
        return false;
      }
      elem.sel = PathElem::kIndex;
      elem.index = index;
      i = close + 1;
    }
    if (i < path.size() && path[i] != '/') {
      *error = "'/' expected after the keys of \"" + s->name + "\"";
      return false;
    }
  }
  elem.end = i;
  *pos = i;
  return true;
}

// The keys of elem, a single unquoted key that filled its braces, taken
// from path whose element now ends at new_end, when they are again a single
// unquoted key filling them (as ParseKeys would find it) of a valid value;
// false (elem's keys to be parsed afresh) otherwise.
bool SwapSingleKey(std::string_view path, size_t new_end, PathElem *elem, std::string *scratch) {
  const size_t inside = elem->sel_at + 1;
  if (elem->sel != PathElem::kKeys || elem->nkeys != 1 || new_end <= inside + 1 ||
      elem->keys[0].data() != path.data() + inside ||
      elem->keys[0].size() != elem->end - inside - 1 || path[new_end - 1] != '}' ||
      path[inside] == '"') {
    return false;
  }
  const std::string_view key = path.substr(inside, new_end - 1 - inside);
  for (char c : key) {
    if (IsBlank(c) || c == '{' || c == '}') return false;
  }
  std::string error;
  elem->keys[0] = key;
  if (!elem->ParseKey(0, elem->s->keys[0]->type, scratch, &error)) return false;
  elem->end = new_end;
  return true;
}

// Length of the common end of a and b.
size_t CommonSuffix(std::string_view a, std::string_view b) {
  const size_t n = std::min(a.size(), b.size());
  const char *ae = a.data() + a.size();
  const char *be = b.data() + b.size();
  size_t i = 0;
  for (; i + sizeof(uint64_t) <= n; i += sizeof(uint64_t)) {
    uint64_t x;
    uint64_t y;
    std::memcpy(&x, ae - i - sizeof x, sizeof x);
    std::memcpy(&y, be - i - sizeof y, sizeof y);
    if (x != y) break;
  }
  while (i < n &&
         ae[-1 - static_cast<std::ptrdiff_t>(i)] == be[-1 - static_cast<std::ptrdiff_t>(i)])
    ++i;
  return i;
}

// Parses the elements of path from offset i on (the elements before, if
// any, are out->e[0 .. out->n)).
bool ParseElements(const SchemaIndex &schema, std::string_view path, bool schema_path, size_t i,
                   ParsedPath *out, std::string *error, bool allow_index) {
  const SNode *parent = out->n ? out->e[out->n - 1].s : &schema.root();
  while (i < path.size()) {
    if (path[i] != '/') {
      *error = "'/' expected at offset " + std::to_string(i);
      return false;
    }
    ++i;
    size_t start = i;
    // Most elements are one child's name without a module: matched here
    // directly; anything else takes the general way below.
    const SNode *direct = parent->kind == NodeKind::kLeaf || parent->kind == NodeKind::kLeafList
                              ? nullptr
                              : DirectChild(*parent, path, start);
    if (direct != nullptr && !(out->n > 0 && out->e[out->n - 1].s->is_list() &&
                               out->e[out->n - 1].sel == PathElem::kNone && !schema_path)) {
      i = start + direct->name.size();
      if (out->n == MAXDEPTH) {
        *error = "deeper than " + std::to_string(MAXDEPTH) + " elements";
        return false;
      }
      if (!ParseSelector(path, direct, &i, out, error, allow_index)) return false;
      parent = direct;
      continue;
    }
    size_t colon = std::string_view::npos;
    i = ScanName(path, i, &colon);
    std::string_view name = path.substr(start, i - start);
    std::string_view prefix;
    if (colon != std::string_view::npos) {
      prefix = path.substr(start, colon - start);
      name = path.substr(colon + 1, i - colon - 1);
    }
    if (name.empty()) {
      *error = "empty element at offset " + std::to_string(start);
      return false;
    }
    if (out->n > 0 && out->e[out->n - 1].s->is_list() &&
        out->e[out->n - 1].sel == PathElem::kNone && !schema_path) {
      *error = "list \"" + out->e[out->n - 1].s->name + "\" needs keys or an index";
      return false;
    }
    if (parent->kind == NodeKind::kLeaf || parent->kind == NodeKind::kLeafList) {
      *error = "\"" + parent->name + "\" is a leaf and has no children";
      return false;
    }
    bool ambiguous;
    const SNode *s = parent->Child(name, prefix, &ambiguous);
    if (s == nullptr) {
      *error = ambiguous
                   ? "element \"" + std::string(name) + "\" is ambiguous, give its module's prefix"
                   : "unknown element \"" + (prefix.empty() ? "" : std::string(prefix) + ":") +
                         std::string(name) + "\"";
      return false;
    }
    if (out->n == MAXDEPTH) {
      *error = "deeper than " + std::to_string(MAXDEPTH) + " elements";
      return false;
    }
    if (!ParseSelector(path, s, &i, out, error, allow_index)) return false;
    parent = s;
  }
  if (out->n == 0) {
    *error = "empty path";
    return false;
  }
  if (path.back() == '/') {
    *error = "trailing '/'";
    return false;
  }
  return true;
}

}  // namespace

bool ParsePath(const SchemaIndex &schema, std::string_view path, bool schema_path, ParsedPath *out,
               std::string *error, bool allow_index) {
  out->n = 0;
  out->memo_schema = 0;
  out->res_n = 0;
  if (!out->unescaped.empty()) out->unescaped.clear();
  if (path.empty() || path[0] != '/') {
    *error = "not an absolute path";
    return false;
  }
  return ParseElements(schema, path, schema_path, 0, out, error, allow_index);
}

bool ParsePathAgain(const SchemaIndex &schema, std::string_view path, ParsedPath *out,
                    std::string *text, std::string *error, bool allow_index, bool *whole) {
  const bool memo = out->memo_schema == schema.serial() && out->unescaped.empty();
  if (memo && path == *text) return true;  // the same path again: all stands
  // Elements that end before the first difference from the previous path
  // were parsed from the same text, after the same elements: they stand.
  int keep = 0;
  // When the difference lies inside the keys or index of the next element
  // and the text after them is the same, the elements after it stand as
  // well (moved by the difference in length), unless they hold key texts.
  bool tail = false;
  size_t old_size = text->size();
  if (memo) {
    const size_t common = CommonPrefix(path, *text);
    while (keep < out->n && out->e[keep].end < common) ++keep;
    if (keep < out->n) {
      const PathElem &next = out->e[keep];
      tail = next.sel != PathElem::kNone && common > next.sel_at &&
             old_size - next.end <= CommonSuffix(path, *text);
      for (int j = keep + 1; tail && j < out->n; ++j) tail = out->e[j].sel != PathElem::kKeys;
    }
  }
  if (whole != nullptr && keep == 0 && !tail) {
    *whole = true;
    return false;
  }
  const char *before = text->data();
  text->assign(path);
  if (text->data() != before) {  // key texts pointed into the old buffer
    keep = 0;
    tail = false;
  }
  if (keep == 0 && !tail) {
    if (!ParsePath(schema, *text, false, out, error, allow_index)) return false;
    out->memo_schema = schema.serial();
    return true;
  }
  out->memo_schema = 0;
  out->res_n = std::min(out->res_n, keep);
  if (tail) {
    const int n = out->n;
    const size_t old_end = out->e[keep].end;
    const size_t new_end = text->size() - (old_size - old_end);
    size_t i = out->e[keep].sel_at;
    bool ok = SwapSingleKey(*text, new_end, &out->e[keep], &out->scratch);
    if (!ok) {
      out->n = keep;
      ok = ParseSelector(*text, out->e[keep].s, &i, out, error, allow_index) && i == new_end;
    }
    if (ok) {
      for (int j = keep + 1; j < n; ++j) {
        out->e[j].sel_at = out->e[j].sel_at - old_end + new_end;
        out->e[j].end = out->e[j].end - old_end + new_end;
      }
      out->n = n;
      out->memo_schema = schema.serial();
      return true;
    }
    error->clear();  // whatever was wrong, the full parse says it
  }
  out->n = keep;
  const bool ok = keep == 0 ? ParsePath(schema, *text, false, out, error, allow_index)
                            : ParseElements(schema, *text, false, out->e[keep - 1].end, out, error,
                                            allow_index);
  if (!ok) return false;
  out->memo_schema = schema.serial();
  return true;
}

bool ReparseSelector(std::string_view path, int k, std::ptrdiff_t delta, ParsedPath *out,
                     bool allow_index) {
  const int n = out->n;
  const size_t new_end = out->e[k].end + delta;
  size_t i = out->e[k].sel_at;
  std::string error;
  out->n = k;
  out->res_n = std::min(out->res_n, k);
  if (!ParseSelector(path, out->e[k].s, &i, out, &error, allow_index) || i != new_end) {
    out->memo_schema = 0;
    return false;
  }
  for (int j = k + 1; j < n; ++j) {
    out->e[j].sel_at += delta;
    out->e[j].end += delta;
  }
  out->n = n;
  return true;
}

bool ReplaceNumber(std::string_view path, int k, size_t at, std::string_view digits,
                   std::ptrdiff_t delta, ParsedPath *out) {
  PathElem &elem = out->e[k];
  const size_t inside = elem.sel_at + 1;          // after '{' or '['
  const size_t old_size = elem.end - inside - 1;  // before '}' or ']'
  if (elem.sel == PathElem::kIndex) {
    // A number of 1 to 9 digits without a sign, as ParseSelector takes it.
    if (at != inside || digits.size() != old_size + delta || digits.empty() ||
        digits.size() >= 10 || digits[0] == '-') {
      return false;
    }
    long index = 0;
    for (char d : digits) index = index * 10 + (d - '0');
    elem.index = index;
  } else if (elem.sel == PathElem::kKeys && elem.nkeys == 1) {
    const std::string_view key = elem.keys[0];
    if (key.data() != path.data() + inside || key.size() != old_size) return false;
    // The new key text: no blank, quote or brace came in with the digits.
    const std::string_view text = path.substr(inside, old_size + delta);
    std::string error;
    elem.keys[0] = text;
    if (!elem.ParseKey(0, elem.s->keys[0]->type, &out->scratch, &error)) {
      elem.keys[0] = key;  // left for the full parse to report
      return false;
    }
  } else {
    return false;
  }
  elem.end += delta;
  for (int j = k + 1; j < out->n; ++j) {
    out->e[j].sel_at += delta;
    out->e[j].end += delta;
  }
  out->res_n = std::min(out->res_n, k);
  return true;
}

namespace {

// Where resolving path in tree can start: after the elements resolved last
// time in the same tree, with the node and presence found there. Returns
// the first element still to resolve.
int ResumeResolution(const DataTree &tree, const ParsedPath &path, const DNode **cur,
                     bool *present) {
  if (path.res_tree != tree.serial()) {
    path.res_tree = tree.serial();
    path.res_n = 0;
    return 0;
  }
  const int i = std::min(path.res_n, path.n);
  if (i > 0) {
    *cur = path.res_node[i - 1];
    *present = path.res_present[i - 1];
  }
  return i;
}

// The entry elem selects (by keys or index) in list, or nullptr.
const DNode *SelectedEntry(const ListInst *list, const PathElem &elem, size_t *near) {
  if (list == nullptr) return nullptr;
  if (elem.sel == PathElem::kKeys) return FindEntry(*list, elem, near);
  if (static_cast<size_t>(elem.index) < list->entries.size()) return list->entries[elem.index];
  return nullptr;
}

// Remembers element i's node and presence when it extends what is resolved.
void RememberResolution(const ParsedPath &path, int i, const DNode *cur, bool present) {
  if (i != path.res_n) return;
  path.res_node[i] = cur;
  path.res_present[i] = present;
  path.res_n = i + 1;
}

}  // namespace

Target Resolve(const DataTree &tree, const ParsedPath &path) {
  Target t;
  const DNode *cur = &tree.root();
  bool present = true;
  int i = ResumeResolution(tree, path, &cur, &present);
  if (i > 0) t.s = path.e[i - 1].s;
  for (; i < path.n; ++i) {
    const PathElem &elem = path.e[i];
    const SNode *s = elem.s;
    t.s = s;
    switch (s->kind) {
      case NodeKind::kList:
      case NodeKind::kLeafList: {
        const ListInst *list = cur ? cur->List(s) : nullptr;
        if (elem.sel == PathElem::kNone) {
          t.list_ref = true;
          t.owner = cur;
          t.list = list;
          t.present = present && list != nullptr && !list->entries.empty();
          return t;
        }
        cur = SelectedEntry(list, elem, &path.res_near[i]);
        present = present && cur != nullptr;
        break;
      }
      case NodeKind::kContainer:
        cur = cur ? cur->Child(s) : nullptr;
        break;
      default:
        cur = cur ? cur->Child(s) : nullptr;
        present = present && cur != nullptr;
        break;
    }
    RememberResolution(path, i, cur, present);
  }
  t.node = cur;
  t.present = present;
  return t;
}

const DNode *ResolveNode(const DataTree &tree, const ParsedPath &path, bool *present_out) {
  const DNode *cur = &tree.root();
  bool present = true;
  for (int i = ResumeResolution(tree, path, &cur, &present); i < path.n; ++i) {
    const PathElem &elem = path.e[i];
    const SNode *s = elem.s;
    if (s->kind == NodeKind::kList || s->kind == NodeKind::kLeafList) {
      assert(elem.sel != PathElem::kNone);  // only a path's last element may be a list
      cur = SelectedEntry(cur ? cur->List(s) : nullptr, elem, &path.res_near[i]);
      present = present && cur != nullptr;
    } else {
      cur = cur ? cur->Child(s) : nullptr;
      // A non-presence container exists wherever its parent does.
      if (s->kind != NodeKind::kContainer) present = present && cur != nullptr;
    }
    RememberResolution(path, i, cur, present);
  }
  *present_out = present;
  return cur;
}

void AppendQuotedKey(std::string_view text, std::string *out) {
  bool quote = text.empty();
  for (char c : text) {
    if (IsBlank(c) || c == '{' || c == '}' || c == '"' || c == '\\') quote = true;
  }
  if (!quote) {
    out->append(text);
    return;
  }
  out->push_back('"');
  for (char c : text) {
    if (c == '"' || c == '\\') out->push_back('\\');
    out->push_back(c);
  }
  out->push_back('"');
}

}  // namespace ipapp::store
