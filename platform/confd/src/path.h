// Paths as the store accepts them: "/a/prefix:b{k1 k2}/c[3]/leaf", parsed
// against the schema by hand (no libyang per call), then resolved in a
// DataTree by slot and key lookups.
#ifndef IPAPP_STORE_PATH_H
#define IPAPP_STORE_PATH_H

#include <confd_lib.h>

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
  std::string keystr;                ///< canonical, as DNode::keystr
  long index = 0;
};

struct ParsedPath {
  int n = 0;
  PathElem e[MAXDEPTH];
  std::deque<std::string> unescaped;  ///< quoted keys that held escapes

  const SNode *last() const { return n ? e[n - 1].s : nullptr; }
};

/// Parses path against schema into *out. A schema path may name lists
/// without keys anywhere; a data path only at its end. "[N]" entry indexes
/// are accepted only with allow_index (CDB paths; MAAPI paths name entries
/// by their keys). An element's qualifier is its module's YANG prefix.
/// Returns false with *error saying what is wrong (the caller adds the
/// path).
bool ParsePath(const SchemaIndex &schema, std::string_view path, bool schema_path, ParsedPath *out,
               std::string *error, bool allow_index = true);

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

/// Key text as the path syntax writes it: quoted when it holds a blank, a
/// brace, a quote or a backslash, or is empty.
void AppendQuotedKey(std::string_view text, std::string *out);

}  // namespace ipapp::store

#endif  // IPAPP_STORE_PATH_H
