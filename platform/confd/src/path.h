// Paths as the store accepts them: "/a/prefix:b{k1 k2}/c[3]/leaf", parsed
// against the schema by hand (no libyang per call), then resolved in a
// DataTree by slot and key lookups.
#ifndef IPAPP_STORE_PATH_H
#define IPAPP_STORE_PATH_H

#include <confd_lib.h>

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>

#include "data_tree.h"
#include "schema_index.h"

namespace ipapp::store {

struct PathElem {
  enum Sel { kNone, kKeys, kIndex };
  const SNode *s = nullptr;
  Sel sel = kNone;
  int nkeys = 0;
  std::string_view keys[MAXKEYLEN];  ///< key texts as written (unquoted)
  long index = 0;
  size_t sel_at = 0;  ///< offset in the path text of its keys or index (or end)
  size_t end = 0;     ///< offset in the path text just after the element

  /// Key k as a value of its leaf's type. C_BUF keys point at keys[k];
  /// other buffers into this element or into the tree they were taken from.
  confd_value_t KeyValue(int k) const;
  /// Sets key k from text parsed as a value of type (scratch: room for its
  /// bytes while parsing); false with *error.
  bool ParseKey(int k, const LeafType &type, std::string *scratch, std::string *error);
  /// Sets the keys to those of a list entry (values point into its tree).
  void TakeKeys(const DNode &entry);

 private:
  confd_value_t kv_[MAXKEYLEN];
  int kbytes_at_[MAXKEYLEN];  ///< offset of key k's bytes in kbytes_, or -1
  std::string kbytes_;        ///< bytes of binary keys parsed from text
};

struct ParsedPath {
  int n = 0;
  PathElem e[MAXDEPTH];
  std::deque<std::string> unescaped;  ///< quoted keys that held escapes
  std::string scratch;                ///< bytes of a key being parsed
  /// Set by ParsePathAgain: the serial of the schema the elements were
  /// parsed against (0: none).
  uint64_t memo_schema = 0;
  /// Resolve's memo: in the tree with serial res_tree, the first res_n
  /// elements lead to res_node[i], present or not. Whatever changes an
  /// element resets res_n.
  mutable uint64_t res_tree = 0;
  mutable int res_n = 0;
  mutable const DNode *res_node[MAXDEPTH];
  mutable bool res_present[MAXDEPTH];
  /// Per element: the index of the entry its keys found last (a hint only,
  /// checked before use; in whatever list the element named then).
  mutable size_t res_near[MAXDEPTH] = {};

  const SNode *last() const { return n ? e[n - 1].s : nullptr; }
};

/// The entry of list whose keys are elem's; null when there is none. With
/// near (the index an earlier search of the same element found, in any
/// list), the entry after it is tried first; *near receives the index found.
const DNode *FindEntry(const ListInst &list, const PathElem &elem, size_t *near = nullptr);

/// Parses path against schema into *out. A schema path may name lists
/// without keys anywhere; a data path only at its end. "[N]" entry indexes
/// are accepted only with allow_index (CDB paths; MAAPI paths name entries
/// by their keys). An element's qualifier is its module's YANG prefix.
/// Returns false with *error saying what is wrong (the caller adds the
/// path).
bool ParsePath(const SchemaIndex &schema, std::string_view path, bool schema_path, ParsedPath *out,
               std::string *error, bool allow_index = true);

/// ParsePath of a data path into *out, which holds the last path parsed
/// this way (its text in *text): the elements of their common prefix are
/// kept, the rest is parsed. Afterwards *text is path and the key texts of
/// *out point into it.
/// *out must have been parsed with the same allow_index each time. With
/// whole, a path that would be parsed afresh as a whole is not: *whole is
/// set and false returned, *out and *text unchanged.
bool ParsePathAgain(const SchemaIndex &schema, std::string_view path, ParsedPath *out,
                    std::string *text, std::string *error, bool allow_index, bool *whole = nullptr);

/// Element k's keys or index, whose text in path changed in place (the
/// text before them is the same, the text after them the same but moved by
/// delta), parsed again; the later elements' offsets move with them, and
/// Resolve's memo keeps the elements before k only. The later elements
/// must hold no key texts (those point into the old text). False, with out
/// to be parsed afresh, when they no longer parse or end elsewhere.
bool ReparseSelector(std::string_view path, int k, std::ptrdiff_t delta, ParsedPath *out,
                     bool allow_index);
/// ReparseSelector of a number that changed inside element k's keys or
/// index, from offset at on (its new text is digits), when the element's
/// index or single unquoted key is all its brackets hold: applied without
/// parsing the text again (false when it is not such an element; then
/// nothing changed).
bool ReplaceNumber(std::string_view path, int k, size_t at, std::string_view digits,
                   std::ptrdiff_t delta, ParsedPath *out);

/// Where a data path leads in one tree.
struct Target {
  const SNode *s = nullptr;
  const DNode *node = nullptr;     ///< the node itself, when it is there
  const DNode *owner = nullptr;    ///< list references: the node holding the list
  const ListInst *list = nullptr;  ///< list references: the list, when it has entries
  bool list_ref = false;           ///< the path ends at a list name without keys
  bool present = false;            ///< the node exists (non-presence containers
                                   ///< exist wherever their parent does)
};

Target Resolve(const DataTree &tree, const ParsedPath &path);
/// Resolve's node and presence for a path that names no list without keys
/// or an index (a leaf's, an entry's or a container's).
const DNode *ResolveNode(const DataTree &tree, const ParsedPath &path, bool *present);

/// Key text as the path syntax writes it: quoted when it holds a blank, a
/// brace, a quote or a backslash, or is empty.
void AppendQuotedKey(std::string_view text, std::string *out);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_PATH_H
