#include "schema_index.h"

#include <ipapp_ns.h>

#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>
#include <unordered_map>

namespace ipapp::store {
namespace {

// Names whose tag numbers the interface model's generated header fixes.
const std::map<std::string_view, uint32_t> &FixedTags() {
  static const std::map<std::string_view, uint32_t> tags = {
      {"l3", ipapp_l3},
      {"loopback", ipapp_loopback},
      {"mgmt", ipapp_mgmt},
      {"address", ipapp_address},
      {"lower-layer-if", ipapp_lower_layer_if},
      {"vlan", ipapp_vlan},
      {"vrf", ipapp_vrf},
  };
  return tags;
}

uint32_t Fnv1a(std::string_view text, uint32_t seed) {
  uint32_t h = 2166136261u ^ seed;
  for (unsigned char c : text) {
    h ^= c;
    h *= 16777619u;
  }
  return h;
}

struct Registry {
  std::mutex mu;
  std::unordered_map<std::string, uint32_t> tag_by_name;
  std::unordered_map<uint32_t, std::string> name_by_tag;
  std::unordered_map<uint32_t, std::string> prefix_by_ns;
};

Registry &Reg() {
  static Registry *reg = new Registry;  // outlives every user, never destroyed
  return *reg;
}

bool IsFixedTag(uint32_t tag) {
  for (const auto &[name, value] : FixedTags()) {
    if (value == tag) return true;
  }
  return false;
}

std::string_view Bare(const char *name) {
  std::string_view n(name ? name : "");
  size_t colon = n.find(':');
  return colon == std::string_view::npos ? n : n.substr(colon + 1);
}

// String-derived types with a ConfD type of their own, by typedef name
// (confd_types(3) "DATA MODEL TYPES"). The name nearest the leaf wins:
// "hex-list", the element's typedef of yang:hex-string for its binary
// columns, stands for tailf:hex-list and is C_BINARY.
bool KnownStringType(std::string_view name, confd_vtype *vtype) {
  static const std::map<std::string_view, confd_vtype> known = {
      {"ipv4-address", C_IPV4},
      {"ipv4-address-no-zone", C_IPV4},
      {"ipv6-address", C_IPV6},
      {"ipv6-address-no-zone", C_IPV6},
      {"ipv4-prefix", C_IPV4PREFIX},
      {"ipv6-prefix", C_IPV6PREFIX},
      {"hex-list", C_BINARY},
      {"hex-string", C_HEXSTR},
      {"phys-address", C_BINARY},
      {"mac-address", C_BINARY},
      {"dotted-quad", C_DQUAD},
      {"date-and-time", C_DATETIME},
      {"ipv4-address-and-prefix-length", C_IPV4_AND_PLEN},
      {"ipv6-address-and-prefix-length", C_IPV6_AND_PLEN},
  };
  auto it = known.find(name);
  if (it == known.end()) return false;
  *vtype = it->second;
  return true;
}

const lysp_tpdf *FindTypedef(const lysp_module *pmod, std::string_view name) {
  if (pmod == nullptr) return nullptr;
  LY_ARRAY_COUNT_TYPE i;
  const lysp_tpdf *tpdf;
  LY_ARRAY_FOR(pmod->typedefs, i) {
    tpdf = &pmod->typedefs[i];
    if (name == tpdf->name) return tpdf;
  }
  return nullptr;
}

// The typedef a type statement names, looked up in the module its prefix
// names (the statement's own module without a prefix); null for a built-in
// type or one defined out of reach (inside a node).
const lysp_tpdf *TypedefOf(const lysp_type *pt) {
  std::string_view name(pt->name ? pt->name : "");
  const lysp_module *pmod = pt->pmod;
  size_t colon = name.find(':');
  if (colon != std::string_view::npos && pmod != nullptr) {
    std::string_view prefix = name.substr(0, colon);
    if (pmod->mod == nullptr || pmod->mod->prefix == nullptr || prefix != pmod->mod->prefix) {
      const lysp_module *imported = nullptr;
      LY_ARRAY_COUNT_TYPE i;
      LY_ARRAY_FOR(pt->pmod->imports, i) {
        const lysp_import &imp = pt->pmod->imports[i];
        if (imp.prefix != nullptr && prefix == imp.prefix && imp.module != nullptr) {
          imported = imp.module->parsed;
        }
      }
      pmod = imported;
    }
    name = name.substr(colon + 1);
  }
  return FindTypedef(pmod, name);
}

// YANG's built-in types: their names, and the value type each maps to
// before its statement says more (a string typedef, an enumeration's
// values, a union's members).
struct BuiltIn {
  LY_DATA_TYPE base;
  const char *name;
  confd_vtype vtype;
};

constexpr BuiltIn kBuiltIns[] = {
    {LY_TYPE_BINARY, "binary", C_BINARY},
    {LY_TYPE_UINT8, "uint8", C_UINT8},
    {LY_TYPE_UINT16, "uint16", C_UINT16},
    {LY_TYPE_UINT32, "uint32", C_UINT32},
    {LY_TYPE_UINT64, "uint64", C_UINT64},
    {LY_TYPE_STRING, "string", C_BUF},
    {LY_TYPE_BITS, "bits", C_BIT32},
    {LY_TYPE_BOOL, "boolean", C_BOOL},
    {LY_TYPE_DEC64, "decimal64", C_DECIMAL64},
    {LY_TYPE_EMPTY, "empty", C_EMPTY},
    {LY_TYPE_ENUM, "enumeration", C_ENUM_VALUE},
    {LY_TYPE_IDENT, "identityref", C_IDENTITYREF},
    {LY_TYPE_INST, "instance-identifier", C_BUF},  // its path text
    {LY_TYPE_LEAFREF, "leafref", C_BUF},
    {LY_TYPE_UNION, "union", C_UNION},
    {LY_TYPE_INT8, "int8", C_INT8},
    {LY_TYPE_INT16, "int16", C_INT16},
    {LY_TYPE_INT32, "int32", C_INT32},
    {LY_TYPE_INT64, "int64", C_INT64},
};

const BuiltIn &BuiltInOf(LY_DATA_TYPE base) {
  static constexpr BuiltIn kUnknown = {LY_TYPE_UNKNOWN, "unknown", C_BUF};
  for (const BuiltIn &b : kBuiltIns) {
    if (b.base == base) return b;
  }
  return kUnknown;
}

// The parsed type statement that a chain of typedefs starting at pt ends
// in with member types (a union), or null.
const lysp_type *UnionStatement(const lysp_type *pt) {
  for (int depth = 0; pt != nullptr && depth < 16; ++depth) {
    if (LY_ARRAY_COUNT(pt->types) > 0) return pt;
    const lysp_tpdf *tpdf = TypedefOf(pt);
    pt = tpdf ? &tpdf->type : nullptr;
  }
  return nullptr;
}

void AddIdentities(const lysc_ident *ident, std::vector<IdentItem> *out) {
  for (const IdentItem &seen : *out) {
    if (seen.name == ident->name && seen.module == ident->module->name) return;
  }
  IdentItem item;
  item.name = ident->name;
  item.module = ident->module->name;
  item.prefix = ident->module->prefix ? ident->module->prefix : ident->module->name;
  item.ns = NsOf(item.prefix, ident->module->ns ? ident->module->ns : item.module);
  item.id = TagOf(item.name);
  out->push_back(std::move(item));
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(ident->derived, i) AddIdentities(ident->derived[i], out);
}

LeafType MapTypeOf(const lysc_type *ct, const lysp_type *pt, int depth);

void MapEnum(const lysc_type_enum &en, LeafType *out) {
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(en.enums, i) out->enums.push_back({en.enums[i].name, en.enums[i].value});
}

void MapBits(const lysc_type_bits &bits, LeafType *out) {
  uint32_t highest = 0;
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(bits.bits, i) {
    out->enums.push_back({bits.bits[i].name, static_cast<int32_t>(bits.bits[i].position)});
    if (bits.bits[i].position > highest) highest = bits.bits[i].position;
  }
  out->vtype = highest < 32 ? C_BIT32 : highest < 64 ? C_BIT64 : C_BITBIG;
}

void MapUnion(const lysc_type_union &un, const lysp_type *pt, int depth, LeafType *out) {
  const lysp_type *members = UnionStatement(pt);
  LY_ARRAY_COUNT_TYPE i;
  LY_ARRAY_FOR(un.types, i) {
    const lysp_type *mpt =
        members != nullptr && i < LY_ARRAY_COUNT(members->types) ? &members->types[i] : nullptr;
    out->members.push_back(depth < 16 ? MapTypeOf(un.types[i], mpt, depth + 1) : LeafType());
  }
}

// The compiled type forgets typedef names; the parsed statement keeps them.
void MapStringTypedef(const lysp_type *pt, LeafType *out) {
  for (int d = 0; pt != nullptr && d < 16; ++d) {
    std::string_view bare = Bare(pt->name);
    confd_vtype vt;
    if (KnownStringType(bare, &vt)) {
      out->vtype = vt;
      out->name = std::string(bare);
      return;
    }
    const lysp_tpdf *tpdf = TypedefOf(pt);
    pt = tpdf ? &tpdf->type : nullptr;
  }
}

// ConfD type of a compiled type ct, with pt the parsed type statement it
// came from (typedef names are known only there; may be null).
LeafType MapTypeOf(const lysc_type *ct, const lysp_type *pt, int depth) {
  if (ct->basetype == LY_TYPE_LEAFREF) {
    // The target's typedef names are not reachable from here: the real
    // type's base decides.
    LeafType real =
        MapTypeOf(reinterpret_cast<const lysc_type_leafref *>(ct)->realtype, nullptr, depth + 1);
    real.name = "leafref";
    return real;
  }
  const BuiltIn &builtin = BuiltInOf(ct->basetype);
  LeafType out;
  out.ly = ct;
  out.name = builtin.name;
  out.vtype = builtin.vtype;
  switch (ct->basetype) {
    case LY_TYPE_BINARY:
      out.base64 = true;
      break;
    case LY_TYPE_DEC64:
      out.fraction_digits = reinterpret_cast<const lysc_type_dec *>(ct)->fraction_digits;
      break;
    case LY_TYPE_ENUM:
      MapEnum(*reinterpret_cast<const lysc_type_enum *>(ct), &out);
      break;
    case LY_TYPE_BITS:
      MapBits(*reinterpret_cast<const lysc_type_bits *>(ct), &out);
      break;
    case LY_TYPE_IDENT: {
      auto *idref = reinterpret_cast<const lysc_type_identityref *>(ct);
      LY_ARRAY_COUNT_TYPE i;
      LY_ARRAY_FOR(idref->bases, i) AddIdentities(idref->bases[i], &out.idents);
      break;
    }
    case LY_TYPE_UNION:
      MapUnion(*reinterpret_cast<const lysc_type_union *>(ct), pt, depth, &out);
      break;
    case LY_TYPE_STRING:
      MapStringTypedef(pt, &out);
      break;
    default:
      break;
  }
  return out;
}

LeafType MapType(const lysc_node *ly) {
  const lysc_type *type = ly->nodetype == LYS_LEAF
                              ? reinterpret_cast<const lysc_node_leaf *>(ly)->type
                              : reinterpret_cast<const lysc_node_leaflist *>(ly)->type;
  const lysp_type *pt = nullptr;
  if (ly->priv != nullptr) {
    pt = ly->nodetype == LYS_LEAF ? &static_cast<const lysp_node_leaf *>(ly->priv)->type
                                  : &static_cast<const lysp_node_leaflist *>(ly->priv)->type;
  }
  return MapTypeOf(type, pt, 0);
}

}  // namespace

uint64_t NextSerial() {
  static std::atomic<uint64_t> next{1};
  return next.fetch_add(1, std::memory_order_relaxed);
}

uint32_t TagOf(std::string_view name) {
  Registry &reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mu);
  auto it = reg.tag_by_name.find(std::string(name));
  if (it != reg.tag_by_name.end()) return it->second;
  uint32_t tag;
  auto fixed = FixedTags().find(name);
  if (fixed != FixedTags().end()) {
    tag = fixed->second;
  } else {
    uint32_t seed = 0;
    do {
      tag = Fnv1a(name, seed++) & 0x7FFFFFFFu;
    } while (tag == 0 || IsFixedTag(tag));
  }
  auto [other, added] = reg.name_by_tag.emplace(tag, std::string(name));
  if (!added && other->second != name) {
    throw std::runtime_error("element names '" + other->second + "' and '" + std::string(name) +
                             "' share the tag number " + std::to_string(tag));
  }
  reg.tag_by_name.emplace(std::string(name), tag);
  return tag;
}

const std::string *TagName(uint32_t tag) {
  Registry &reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mu);
  auto it = reg.name_by_tag.find(tag);
  return it == reg.name_by_tag.end() ? nullptr : &it->second;
}

uint32_t NsOf(std::string_view prefix, std::string_view uri) {
  uint32_t ns = uri == ipapp__ns_uri ? uint32_t{ipapp__ns} : Fnv1a(uri, 0) & 0x7FFFFFFFu;
  Registry &reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mu);
  auto [it, added] = reg.prefix_by_ns.emplace(ns, std::string(prefix));
  if (!added && it->second != prefix) {
    throw std::runtime_error("modules with prefixes '" + it->second + "' and '" +
                             std::string(prefix) + "' share the namespace number " +
                             std::to_string(ns));
  }
  return ns;
}

const std::string *NsPrefix(uint32_t ns) {
  Registry &reg = Reg();
  std::lock_guard<std::mutex> lock(reg.mu);
  auto it = reg.prefix_by_ns.find(ns);
  return it == reg.prefix_by_ns.end() ? nullptr : &it->second;
}

const SNode *SNode::Child(std::string_view child_name, std::string_view child_prefix,
                          bool *ambiguous) const {
  const SNode *found = nullptr;
  *ambiguous = false;
  for (const SNode *c : children) {
    if (c->name != child_name) continue;
    if (!child_prefix.empty()) {
      if (c->prefix == child_prefix) return c;
      continue;
    }
    if (found != nullptr) {
      *ambiguous = true;
      return nullptr;
    }
    found = c;
  }
  return found;
}

const LeafType &UnionMember(const LeafType &type, const lyd_value &value) {
  if (type.vtype != C_UNION || value.realtype == nullptr ||
      value.realtype->basetype != LY_TYPE_UNION || value.subvalue == nullptr) {
    return type;
  }
  const lyd_value &inner = value.subvalue->value;
  for (const LeafType &m : type.members) {
    if (m.ly == inner.realtype) return UnionMember(m, inner);
  }
  return type;
}

const SNode *SNode::ChildByTag(uint32_t child_tag, uint32_t child_ns) const {
  for (const SNode *c : children) {
    if (c->tag == child_tag && c->ns == child_ns) return c;
  }
  return nullptr;
}

SchemaIndex::SchemaIndex(ly_ctx *ctx, const std::vector<const lys_module *> &modules)
    : ctx_(ctx), serial_(NextSerial()) {
  nodes_.emplace_back();  // the root
  try {
    for (const lys_module *mod : modules) {
      if (mod->implemented && mod->compiled) AddChildren(&nodes_.front(), nullptr, mod);
    }
  } catch (...) {
    ly_ctx_destroy(ctx_);
    throw;
  }
}

SchemaIndex::~SchemaIndex() {
  ly_ctx_destroy(ctx_);
}

const SNode *SchemaIndex::Find(const lysc_node *ly) const {
  auto it = by_ly_.find(ly);
  return it == by_ly_.end() ? nullptr : it->second;
}

void SchemaIndex::AddChildren(SNode *parent, const lysc_node *ly_parent,
                              const lys_module *top_module) {
  const lysc_node *child = nullptr;
  const lysc_module *cmod = ly_parent ? nullptr : top_module->compiled;
  while ((child = lys_getnext(child, ly_parent, cmod, 0)) != nullptr) {
    if (!(child->nodetype & (LYS_CONTAINER | LYS_LIST | LYS_LEAF | LYS_LEAFLIST))) continue;
    SNode *node = AddNode(parent, child);
    if (child->nodetype & (LYS_CONTAINER | LYS_LIST)) AddChildren(node, child, top_module);
    if (node->is_list()) {
      for (const SNode *c : node->children) {
        if (c->is_key) node->keys.push_back(c);
      }
      if (node->keys.empty() || node->keys.size() >= MAXKEYLEN) {
        throw std::runtime_error("list " + PathOf(*node) + " has " +
                                 std::to_string(node->keys.size()) + " keys");
      }
      node->object_leaves = node->keys;
      for (const SNode *c : node->children) {
        if (c->is_leaf() && !c->is_key) node->object_leaves.push_back(c);
      }
    }
  }
}

SNode *SchemaIndex::AddNode(SNode *parent, const lysc_node *ly) {
  SNode &node = nodes_.emplace_back();
  node.ly = ly;
  node.name = ly->name;
  node.module = ly->module->name;
  node.prefix = ly->module->prefix ? ly->module->prefix : ly->module->name;
  node.parent = parent == &nodes_.front() ? nullptr : parent;
  node.index = static_cast<int>(parent->children.size());
  node.tag = TagOf(node.name);
  node.ns = NsOf(node.prefix, ly->module->ns);
  switch (ly->nodetype) {
    case LYS_CONTAINER:
      node.kind = (ly->flags & LYS_PRESENCE) ? NodeKind::kPresence : NodeKind::kContainer;
      break;
    case LYS_LIST:
      node.kind = NodeKind::kList;
      break;
    case LYS_LEAFLIST:
      node.kind = NodeKind::kLeafList;
      node.type = MapType(ly);
      break;
    default:
      node.kind = NodeKind::kLeaf;
      node.is_key = lysc_is_key(ly);
      node.type = MapType(ly);
      break;
  }
  parent->children.push_back(&node);
  by_ly_.emplace(ly, &node);
  return &node;
}

std::string SchemaIndex::PathOf(const SNode &s) {
  std::vector<const SNode *> chain;
  for (const SNode *n = &s; n != nullptr; n = n->parent) chain.push_back(n);
  std::string out;
  const std::string *prefix = nullptr;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    out += '/';
    if (prefix != nullptr && *prefix != (*it)->prefix) out += (*it)->prefix + ":";
    out += (*it)->name;
    prefix = &(*it)->prefix;
  }
  return out;
}

}  // namespace ipapp::store

namespace ipapp::store {
namespace {

// libyang's log callback takes no argument of ours to say whose parse a
// message belongs to; the thread that made the call libyang is in is the
// only owner there is.
thread_local std::vector<LibyangMessage> libyang_messages;

// The number after marker in text, or 0.
int NumberAfter(std::string_view text, std::string_view marker) {
  size_t at = text.find(marker);
  if (at == std::string_view::npos) return 0;
  at += marker.size();
  int n = 0;
  while (at < text.size() && text[at] >= '0' && text[at] <= '9' && n < 100000000) {
    n = n * 10 + (text[at++] - '0');
  }
  return n;
}

// libyang (2.1) gives the location as one text: 'Schema location "...",
// data location "...", line number N.', each part optional.
void TakeLocationApart(LibyangMessage *m) {
  const std::string &where = m->location;
  static constexpr char kData[] = "Data location \"";
  const size_t start = where.find(kData);
  if (start != std::string::npos) {
    const size_t from = start + sizeof kData - 1;
    const size_t end = where.rfind('"');
    if (end != std::string::npos && end >= from) m->data_path = where.substr(from, end - from);
  }
  m->line = NumberAfter(where, "line number ");
  if (m->line == 0) m->line = NumberAfter(where, "Line number ");
}

void LogToBuffer(LY_LOG_LEVEL level, const char *msg, const char *path) {
  if (level > LY_LLWRN) return;
  LibyangMessage m;
  m.level = level;
  m.text = msg ? msg : "";
  m.location = path ? path : "";
  TakeLocationApart(&m);
  libyang_messages.push_back(std::move(m));
}

}  // namespace

void CaptureLibyangLog() {
  static std::once_flag once;
  std::call_once(once, [] {
    ly_set_log_clb(LogToBuffer, 1);
    ly_log_options(LY_LOLOG | LY_LOSTORE_LAST);
  });
}

std::vector<LibyangMessage> TakeLibyangMessages() {
  std::vector<LibyangMessage> out;
  out.swap(libyang_messages);
  return out;
}

std::string LibyangMessage::Text() const {
  return location.empty() ? text : text + " (" + location + ")";
}

}  // namespace ipapp::store
