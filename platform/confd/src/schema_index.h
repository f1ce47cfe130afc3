// The element's schema as the data store reads it: one SNode per data node
// of the compiled modules, with the value type of every leaf (type map of
// the store), keys, children in schema order and the tag numbers that
// keypaths carry.
#ifndef IPAPP_STORE_SCHEMA_INDEX_H
#define IPAPP_STORE_SCHEMA_INDEX_H

#include <confd_lib.h>
#include <libyang/libyang.h>

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ipapp::store {

enum class NodeKind { kContainer, kPresence, kList, kLeaf, kLeafList };

struct EnumItem {
  std::string name;
  int32_t value;  ///< enumerations: the value; bits: the position
};

/// An identity an identityref may name.
struct IdentItem {
  std::string name;
  std::string module;
  std::string prefix;
  uint32_t ns = 0;
  uint32_t id = 0;
};

/// Value type of a leaf: the ConfD type it maps to (confd_types(3)), and
/// what parsing and printing need to know about it.
struct LeafType {
  confd_vtype vtype = C_BUF;      ///< C_UNION: the value takes a member's type
  std::string name;               ///< YANG type name, for messages ("int32", "hex-string")
  std::vector<EnumItem> enums;    ///< enumeration values, or bit positions
  std::vector<LeafType> members;  ///< union: the member types in order
  std::vector<IdentItem> idents;  ///< identityref: the identities it may name
  const lysc_type *ly = nullptr;  ///< compiled type (finds a union's member)
  uint8_t fraction_digits = 0;    ///< decimal64
  bool base64 = false;            ///< C_BINARY written in base64 (YANG binary)
};

struct SNode {
  const lysc_node *ly = nullptr;
  std::string name;
  std::string module;
  std::string prefix;             ///< the module's YANG prefix, the qualifier paths use
  const SNode *parent = nullptr;  ///< null for top-level nodes and the root
  NodeKind kind = NodeKind::kContainer;
  uint32_t tag = 0;
  uint32_t ns = 0;
  int index = 0;  ///< position among the parent's children
  bool is_key = false;
  std::vector<const SNode *> children;       ///< schema order
  std::vector<const SNode *> keys;           ///< lists: key leaves in key order
  std::vector<const SNode *> object_leaves;  ///< lists: keys, then the other leaf children
  LeafType type;                             ///< leaves and leaf-lists

  bool is_leaf() const { return kind == NodeKind::kLeaf; }
  bool is_list() const { return kind == NodeKind::kList; }
  /// Child by name; prefix (a module's YANG prefix) empty matches any
  /// module. Sets *ambiguous when two modules' children share the name and
  /// no prefix was given.
  const SNode *Child(std::string_view name, std::string_view prefix, bool *ambiguous) const;
  /// Child a keypath element names (its tag and namespace), or null.
  const SNode *ChildByTag(uint32_t tag, uint32_t ns) const;
};

/// Owns the libyang context the index was built from.
class SchemaIndex {
 public:
  /// ctx must have been created with LY_CTX_SET_PRIV_PARSED; modules lists
  /// the implemented modules in the order their top-level nodes are kept.
  /// Throws std::runtime_error on a schema the store cannot serve.
  SchemaIndex(ly_ctx *ctx, const std::vector<const lys_module *> &modules);
  ~SchemaIndex();
  SchemaIndex(const SchemaIndex &) = delete;
  SchemaIndex &operator=(const SchemaIndex &) = delete;

  ly_ctx *ctx() const { return ctx_; }
  /// Distinct for every index a process builds (an address may be reused).
  uint64_t serial() const { return serial_; }
  const SNode &root() const { return nodes_.front(); }
  const SNode *Find(const lysc_node *ly) const;
  /// Schema path in keypath syntax, prefixes where the module changes:
  /// "/config/interface/ipapp:l3".
  static std::string PathOf(const SNode &s);

 private:
  void AddChildren(SNode *parent, const lysc_node *ly_parent, const lys_module *top_module);
  SNode *AddNode(SNode *parent, const lysc_node *ly);

  ly_ctx *ctx_;
  uint64_t serial_;
  std::deque<SNode> nodes_;
  std::unordered_map<const lysc_node *, const SNode *> by_ly_;
};

/// A number never handed out before in this process (1, 2, ...).
uint64_t NextSerial();

/// Tag number of an element name: the fixed numbers of the interface
/// model's names, a stable hash for every other name. Registers the name for
/// TagName(). Throws std::runtime_error if two names would share a number.
uint32_t TagOf(std::string_view name);
/// Name of a registered tag, or null.
const std::string *TagName(uint32_t tag);
/// Namespace hash of a module (its prefix registered for NsPrefix()).
uint32_t NsOf(std::string_view prefix, std::string_view uri);
const std::string *NsPrefix(uint32_t ns);

/// The member of a union type that a stored value matched (type itself
/// when it is no union).
const LeafType &UnionMember(const LeafType &type, const lyd_value &value);

/// One error or warning as libyang's log callback gives it: the message,
/// and its location, also taken apart.
struct LibyangMessage {
  LY_LOG_LEVEL level = LY_LLERR;
  std::string text;
  std::string location;   ///< as libyang wrote it; may be empty
  std::string data_path;  ///< the data node it concerns; empty when not named
  int line = 0;           ///< line of the parsed text; 0 when not named
  /// "text (location)", or the text alone.
  std::string Text() const;
};

/// Routes libyang's messages into a per-thread list instead of stderr
/// (idempotent, process-wide).
void CaptureLibyangLog();
/// This thread's libyang messages since the last call, in order.
std::vector<LibyangMessage> TakeLibyangMessages();

}  // namespace ipapp::store

#endif  // IPAPP_STORE_SCHEMA_INDEX_H
