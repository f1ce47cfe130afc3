// Configuration model: read helpers, the five readers and the aggregate.
#include "config.h"

#include <confd_maapi.h>
#include <id_vrf.h>
#include <ifuid.h>
#include <kxmw_fault.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "confd_assert.h"
#include "ipapp_ns.h"
#include "maapi_cursor_guard.h"
#include "maapi_read.h"
#include "store_paths.h"

namespace ip_application {
namespace config_valid {

namespace {

using store_paths::kL3List;
using store_paths::kLdpL3List;
using store_paths::kLoopbackList;
using store_paths::kMgmtList;
using store_paths::kStaticRouteList;

// Fault records name the source unit without extension.
constexpr char kFaultSource[] = "src/lib/config";
constexpr int kFaultBufSize = 300;
constexpr int kKeyTextSize = 256;

constexpr int32_t kFamilyIPv4 = 1;
constexpr int32_t kFamilyIPv6 = 2;

std::string PrintValue(const confd_value_t &v) {
  char buf[kKeyTextSize] = {0};
  confd_pp_value(buf, sizeof buf, &v);
  return buf;
}

// Paths are built in place: a reader keeps one buffer per path it varies and
// rewrites only its tail, so reading an entry allocates nothing.

template <typename Number>
void AppendNumber(std::string *out, Number n) {
  char digits[24];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, n);
  out->append(digits, end.ptr);
}

// The bytes of a C_BINARY value as lower-case hex pairs joined by ':';
// nothing for any other value.
void AppendHex(std::string *out, const confd_value_t &v) {
  if (v.type != C_BINARY || CONFD_GET_BINARY_PTR(&v) == nullptr) return;
  static constexpr char kDigits[] = "0123456789abcdef";
  const unsigned char *bytes = CONFD_GET_BINARY_PTR(&v);
  const unsigned int size = CONFD_GET_BINARY_SIZE(&v);
  char text[16 * 3];
  unsigned int i = 0;
  while (i < size) {
    size_t n = 0;
    for (; i < size && n + 3 <= sizeof text; ++i) {
      if (i != 0) text[n++] = ':';
      text[n++] = kDigits[bytes[i] >> 4];
      text[n++] = kDigits[bytes[i] & 0xF];
    }
    out->append(text, n);
  }
}

// The path of one list entry, then a tail that changes: the entry's part
// is written once per entry.
class EntryPath {
 public:
  void Enter(std::string_view list, const std::string &key) {
    text_.assign(list);
    text_ += '{';
    text_ += key;
    entry_ = text_.size();
  }
  const std::string &At(const char *tail) {
    text_.resize(entry_);
    text_.append(tail);
    return text_;
  }

 private:
  std::string text_;
  size_t entry_ = 0;
};

}  // namespace

GenericConfig::~GenericConfig() = default;
InterfaceConfig::~InterfaceConfig() = default;
L3Config::~L3Config() = default;
LoConfig::~LoConfig() = default;
MgmtConfig::~MgmtConfig() = default;
StaticRoute::~StaticRoute() = default;
StaticRouteIPv4::~StaticRouteIPv4() = default;
StaticRouteIPv6::~StaticRouteIPv6() = default;
StaticRouteConfig::~StaticRouteConfig() = default;
LdpIf::~LdpIf() = default;
LdpConfig::~LdpConfig() = default;

std::string StaticRouteIPv4::network() const {
  return network_.to_string();
}
std::string StaticRouteIPv6::network() const {
  return network_.to_string();
}

// ---------------------------------------------------------------------------
// Value converters

addrkit::IPv4Addr GenericConfig::get_ipv4_addr(const confd_value_t &v) const {
  addrkit::IPv4Addr addr;
  if (v.type != C_BINARY) return addr;
  // A short value (the model always supplies four bytes) leaves the rest 0.
  uint32_t word = 0;
  const unsigned int size = CONFD_GET_BINARY_SIZE(&v);
  if (CONFD_GET_BINARY_PTR(&v) != nullptr) {
    memcpy(&word, CONFD_GET_BINARY_PTR(&v), size < sizeof word ? size : sizeof word);
  }
  addr.set_word(word);
  return addr;
}

addrkit::IPv6Addr GenericConfig::get_ipv6_addr(const confd_value_t &v) const {
  addrkit::IPv6Addr addr;
  if (v.type != C_BINARY) return addr;
  addrkit::IPv6Addr::Bytes bytes{};
  const unsigned int size = CONFD_GET_BINARY_SIZE(&v);
  if (CONFD_GET_BINARY_PTR(&v) != nullptr) {
    memcpy(bytes.data(), CONFD_GET_BINARY_PTR(&v), size < bytes.size() ? size : bytes.size());
  }
  addr.set_bytes(bytes);
  return addr;
}

addrkit::IPv4AddrMask GenericConfig::get_ipv4_addr_mask(const confd_value_t &addr,
                                                        const confd_value_t &prefix) const {
  addrkit::IPv4AddrMask mask;
  if (addr.type != C_BINARY || prefix.type != C_INT32) return mask;
  mask.addr() = get_ipv4_addr(addr);
  ASSERT_CONFD_TYPE(&prefix, C_INT32);
  // The data model holds the length to the family's range.
  mask.set_prefix_len(CONFD_GET_INT32(&prefix));
  return mask;
}

addrkit::IPv6AddrMask GenericConfig::get_ipv6_addr_mask(const confd_value_t &addr,
                                                        const confd_value_t &prefix) const {
  addrkit::IPv6AddrMask mask;
  if (addr.type != C_BINARY || prefix.type != C_INT32) return mask;
  mask.addr() = get_ipv6_addr(addr);
  ASSERT_CONFD_TYPE(&prefix, C_INT32);
  // The data model holds the length to the family's range.
  mask.set_prefix_len(CONFD_GET_INT32(&prefix));
  return mask;
}

std::string GenericConfig::get_hex_from_bin(const confd_value_t &v) const {
  std::string hex;
  AppendHex(&hex, v);
  return hex;
}

// ---------------------------------------------------------------------------
// Leaf readers

addrkit::IPv4AddrMask ReadIpv4AddrMask(int sock, confd_trans_ctx *tctx, const std::string &path) {
  addrkit::IPv4AddrMask mask;
  struct confd_ipv4_prefix prefix = {};
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) == 1 &&
      maapi_get_ipv4_and_plen_elem(sock, tctx->thandle, &prefix, "%s", path.c_str()) == CONFD_OK) {
    mask.addr() = addrkit::IPv4Addr(prefix.ip);
    mask.set_prefix_len(prefix.len);
  }
  return mask;
}

addrkit::IPv4AddrMask GenericConfig::get_ipv4_addr_mask(const std::string &path) const {
  return ReadIpv4AddrMask(sock, tctx, path);
}

addrkit::IPv6AddrMask GenericConfig::get_ipv6_addr_mask(const std::string &path) const {
  addrkit::IPv6AddrMask mask;
  struct confd_ipv6_prefix prefix = {};
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) == 1 &&
      maapi_get_ipv6_and_plen_elem(sock, tctx->thandle, &prefix, "%s", path.c_str()) == CONFD_OK) {
    mask.addr() = addrkit::IPv6Addr(prefix.ip6, 0);
    mask.set_prefix_len(prefix.len);
  }
  return mask;
}

ifuid_t GenericConfig::get_intf_ifu_id(const std::string &path) const {
  ifuid_t ifu_id = 0;
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) != 1) return ifu_id;
  confd_value_t confd_if_index;
  if (maapi_get_elem(sock, tctx->thandle, &confd_if_index, "%s", path.c_str()) != CONFD_OK) {
    return ifu_id;
  }
  ASSERT_CONFD_TYPE(&confd_if_index, C_INT32);
  ifuid_l3_vlan_from_components(&ifu_id, CONFD_GET_INT32(&confd_if_index));
  return ifu_id;
}

std::string GenericConfig::get_vrf_name(const std::string &path) const {
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) != 1) return "global";
  confd_value_t l3_vrf_name;
  if (maapi_get_elem(sock, tctx->thandle, &l3_vrf_name, "%s", path.c_str()) != CONFD_OK) {
    return std::string();
  }
  ASSERT_CONFD_TYPE(&l3_vrf_name, C_BUF);
  std::string vrf = TakeBufText(&l3_vrf_name);
  return vrf;
}

// ---------------------------------------------------------------------------
// List readers

std::list<std::string> ReadFirstKeys(int sock, confd_trans_ctx *tctx, const std::string &path,
                                     size_t key_text_size) {
  std::list<std::string> keys;
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) != 1) return keys;
  struct maapi_cursor cursor = {};
  maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", path.c_str());
  MaapiCursorGuard guard(&cursor);
  std::string text(key_text_size, '\0');
  maapi_get_next(&cursor);
  while (cursor.n != 0) {
    confd_pp_value(&text[0], static_cast<int>(key_text_size), &cursor.keys[0]);
    keys.emplace_back(text.c_str());
    maapi_get_next(&cursor);
  }
  return keys;
}

std::list<std::string> GenericConfig::get_key_list(const std::string &path) const {
  return ReadFirstKeys(sock, tctx, path, kKeyTextSize);
}

std::list<std::vector<std::string>> GenericConfig::get_key_list(const std::string &path,
                                                                unsigned int n) const {
  std::list<std::vector<std::string>> entries;
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) != 1) return entries;
  struct maapi_cursor cursor = {};
  maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", path.c_str());
  MaapiCursorGuard guard(&cursor);
  maapi_get_next(&cursor);
  while (cursor.n != 0) {
    std::vector<std::string> keys;
    // Keys the entry does not have are not printed.
    for (unsigned int i = 0; i < n && i < static_cast<unsigned int>(cursor.n) && i < MAXKEYLEN;
         ++i) {
      keys.push_back(PrintValue(cursor.keys[i]));
    }
    entries.push_back(std::move(keys));
    maapi_get_next(&cursor);
  }
  return entries;
}

std::list<addrkit::IPv4AddrMask> GenericConfig::get_intf_ipv4_addr_mask_list(
    const std::string &path) const {
  std::list<addrkit::IPv4AddrMask> masks;
  EntryPath entry;
  for (const std::string &key : get_key_list(path)) {
    entry.Enter(path, key);
    addrkit::IPv4AddrMask mask = get_ipv4_addr_mask(entry.At("}/ip"));
    if (mask.IsUnspecified()) {
      char buf[kFaultBufSize] = {0};
      snprintf(buf, sizeof buf, "Unspecified IPv4 address for key '%s'", key.c_str());
      kxmw_gen_fault(0, "get_intf_ipv4_addr_mask_list", kFaultSource, 120, buf);
      continue;
    }
    masks.push_back(mask);
  }
  return masks;
}

std::list<addrkit::IPv6AddrMask> GenericConfig::get_intf_ipv6_addr_mask_list(
    const std::string &path) const {
  std::list<addrkit::IPv6AddrMask> masks;
  EntryPath entry;
  for (const std::string &key : get_key_list(path)) {
    entry.Enter(path, key);
    addrkit::IPv6AddrMask mask = get_ipv6_addr_mask(entry.At("}/ip"));
    if (mask.IsUnspecified()) {
      char buf[kFaultBufSize] = {0};
      snprintf(buf, sizeof buf, "Unspecified IPv6 address for key '%s'", key.c_str());
      kxmw_gen_fault(0, "get_intf_ipv6_addr_mask_list", kFaultSource, 195, buf);
      continue;
    }
    masks.push_back(mask);
  }
  return masks;
}

// ---------------------------------------------------------------------------
// Lookups that build a path

std::string GenericConfig::get_vrf_name_from_id(const confd_value_t &id) const {
  std::string vrf_name = "global";
  if (id.type != C_UINT32) return vrf_name;
  const uint32_t vrf_id = IdVrfFromComponent(CONFD_GET_UINT32(&id));
  std::string path;
  path.reserve(96);
  path.assign("/shellcfg-internal:internal/shellcfg-internal:vrf-config/indexTOstring{");
  AppendNumber(&path, vrf_id);
  path.append("}/vname");
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) != 1) return vrf_name;
  confd_value_t vrf;
  if (maapi_get_elem(sock, tctx->thandle, &vrf, "%s", path.c_str()) == CONFD_ERR) return vrf_name;
  ASSERT_CONFD_TYPE(&vrf, C_BUF);
  vrf_name = TakeBufText(&vrf);
  return vrf_name;
}

std::string GenericConfig::get_intf_name_from_route(maapi_cursor &cursor) const {
  std::string intf_name;
  ASSERT_CONFD_TYPE(&cursor.keys[kNetworkPrefixLenId], C_INT32);
  ASSERT_CONFD_TYPE(&cursor.keys[kFteIndex], C_UINT32);
  std::string path;
  path.reserve(160);
  path.assign("/rtmStaticRtEntry-global{ ");
  AppendNumber(&path, CONFD_GET_UINT32(&cursor.keys[kFteIndex]));
  path.push_back(' ');
  AppendHex(&path, cursor.keys[kNetworkAddr]);
  path.push_back(' ');
  AppendNumber(&path, CONFD_GET_INT32(&cursor.keys[kNetworkPrefixLenId]));
  path.push_back(' ');
  AppendHex(&path, cursor.keys[kNextHopAddr]);
  path.append(" }/interface-name");
  if (maapi_exists(sock, tctx->thandle, "%s", path.c_str()) != 1) return intf_name;
  confd_value_t l3_intf_name;
  if (maapi_get_elem(sock, tctx->thandle, &l3_intf_name, "%s", path.c_str()) == CONFD_ERR) {
    return intf_name;
  }
  ASSERT_CONFD_TYPE(&l3_intf_name, C_BUF);
  intf_name = TakeBufText(&l3_intf_name);
  // The stored form has a separator at index 2 ("l3-core1"); the model's
  // names have a blank there. A two-character name gets the blank appended.
  intf_name.replace(2, 1, " ");
  return intf_name;
}

// ---------------------------------------------------------------------------
// Interface readers

void L3Config::ReadConfig() {
  const std::list<std::string> keys = get_key_list(kL3List);
  interfaces.reserve(keys.size());
  EntryPath path;
  for (const std::string &key : keys) {
    path.Enter(kL3List, key);
    Interface intf;
    if (ip_version == 4) {
      addrkit::IPv4AddrMask primary = get_ipv4_addr_mask(path.At("}/ipv4/address/ip"));
      if (!primary.IsUnspecified()) intf.ipv4.push_back(primary);
      intf.ipv4.splice(intf.ipv4.end(),
                       get_intf_ipv4_addr_mask_list(path.At("}/ipv4/address/secondary")));
    } else if (ip_version == 6) {
      intf.ipv6 = get_intf_ipv6_addr_mask_list(path.At("}/ipv6/address"));
    }
    intf.ifu_id = get_intf_ifu_id(path.At("}/lower-layer-if/vlan"));
    intf.vrf = get_vrf_name(path.At("}/vrf"));
    intf.name = "l3 " + key;
    interfaces.push_back(std::move(intf));
  }
}

void LoConfig::ReadConfig() {
  const std::list<std::string> keys = get_key_list(kLoopbackList);
  interfaces.reserve(keys.size());
  EntryPath path;
  for (const std::string &key : keys) {
    path.Enter(kLoopbackList, key);
    Interface intf;
    if (ip_version == 4) {
      intf.ipv4 = get_intf_ipv4_addr_mask_list(path.At("}/ipv4/address"));
    } else if (ip_version == 6) {
      intf.ipv6 = get_intf_ipv6_addr_mask_list(path.At("}/ipv6/address"));
    }
    intf.vrf = get_vrf_name(path.At("}/vrf"));
    intf.name = "loopback " + key;
    interfaces.push_back(std::move(intf));
  }
}

void MgmtConfig::ReadConfig() {
  const std::list<std::string> keys = get_key_list(kMgmtList);
  interfaces.reserve(keys.size());
  EntryPath path;
  for (const std::string &key : keys) {
    path.Enter(kMgmtList, key);
    Interface intf;
    if (ip_version == 4) {
      addrkit::IPv4AddrMask primary = get_ipv4_addr_mask(path.At("}/ipv4/address/ip"));
      if (primary.IsUnspecified()) {
        // Unlike L3, a management interface without a usable address is a
        // fault worth logging.
        char buf[kFaultBufSize] = {0};
        snprintf(buf, sizeof buf, "Unspecified IPv4 address for key '%s'", key.c_str());
        kxmw_gen_fault(0, "ReadConfig", kFaultSource, 452, buf);
      } else {
        intf.ipv4.push_back(primary);
      }
    } else if (ip_version == 6) {
      intf.ipv6 = get_intf_ipv6_addr_mask_list(path.At("}/ipv6/address"));
    }
    intf.vrf = get_vrf_name(path.At("}/vrf"));
    intf.name = "mgmt " + key;
    interfaces.push_back(std::move(intf));
  }
}

// ---------------------------------------------------------------------------
// Static route and LDP readers

void StaticRouteConfig::ReadConfig() {
  if (maapi_exists(sock, tctx->thandle, "%s", kStaticRouteList) != 1) return;
  struct maapi_cursor cursor = {};
  maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", kStaticRouteList);
  // Reading an entry can throw (a prefix length out of range, a stored
  // interface name too short to rewrite); the cursor is released then too.
  MaapiCursorGuard guard(&cursor);
  maapi_get_next(&cursor);
  while (cursor.n != 0) {
    ASSERT_CONFD_TYPE(&cursor.keys[kNetworkAddrType], C_ENUM_VALUE);
    const int32_t family = CONFD_GET_ENUM_VALUE(&cursor.keys[kNetworkAddrType]);
    if (family == kFamilyIPv4) {
      ++ipv4_count;
      if (ip_version == 4) {
        std::string vrf = get_vrf_name_from_id(cursor.keys[kFteIndex]);
        addrkit::IPv4AddrMask network =
            get_ipv4_addr_mask(cursor.keys[kNetworkAddr], cursor.keys[kNetworkPrefixLenId]);
        addrkit::IPv4Addr next_hop = get_ipv4_addr(cursor.keys[kNextHopAddr]);
        if (!next_hop.is_unspecified()) {
          routes.push_back(std::make_shared<StaticRouteIPv4>(get_intf_name_from_route(cursor),
                                                             std::move(vrf), network, next_hop));
        }
      }
    } else if (family == kFamilyIPv6) {
      ++ipv6_count;
      if (ip_version == 6) {
        std::string vrf = get_vrf_name_from_id(cursor.keys[kFteIndex]);
        addrkit::IPv6AddrMask network =
            get_ipv6_addr_mask(cursor.keys[kNetworkAddr], cursor.keys[kNetworkPrefixLenId]);
        addrkit::IPv6Addr next_hop = get_ipv6_addr(cursor.keys[kNextHopAddr]);
        if (!next_hop.is_unspecified()) {
          routes.push_back(std::make_shared<StaticRouteIPv6>(get_intf_name_from_route(cursor),
                                                             std::move(vrf), network, next_hop));
        }
      }
    }
    maapi_get_next(&cursor);
  }
}

void LdpConfig::ReadConfig() {
  // Keys: stored interface name ("l3-x"), lower layer, VLAN, address/len.
  for (std::vector<std::string> &keys : get_key_list(kLdpL3List, 4)) {
    if (keys.size() < 4) continue;
    std::string name = keys[0];
    const std::string::size_type hyphen = name.find('-');
    if (hyphen == std::string::npos) continue;
    name.replace(hyphen, 1, " ");
    interfaces.push_back(std::make_shared<LdpIf>(name, addrkit::IPv4AddrMask(keys[3])));
  }
}

// ---------------------------------------------------------------------------
// The aggregate

Config::Config(int sock, confd_trans_ctx *tctx, int32_t ip_version)
    : ldp(sock, tctx, ip_version),
      static_routes(sock, tctx, ip_version),
      l3(sock, tctx, ip_version),
      lo(sock, tctx, ip_version),
      mgmt(sock, tctx, ip_version) {
  // The readers' constructors touch nothing; reading happens here, in the
  // order the handlers rely on. IPv6 validation never reads LDP.
  if (ip_version == 4) ldp.ReadConfig();
  static_routes.ReadConfig();
  l3.ReadConfig();
  lo.ReadConfig();
  mgmt.ReadConfig();
  intf_configs = {&mgmt, &l3, &lo};
}

InterfaceConfig *Config::intf_by_type(InterfaceType type) const {
  for (InterfaceConfig *reader : intf_configs) {
    if (reader->type == type) return reader;
  }
  return nullptr;
}

InterfaceType Config::intf_type_from_confd_path(confd_hkeypath_t *keypath) {
  if (keypath->len < 1) return kInterfaceUnknown;
  ASSERT_CONFD_TYPE(&keypath->v[0][0], C_XMLTAG);
  // Only the tag number counts, not its namespace or the rest of the path.
  const uint32_t tag = CONFD_GET_XMLTAG(&keypath->v[0][0]);
  if (tag == ipapp_loopback) return kInterfaceLoopback;
  if (tag == ipapp_l3) return kInterfaceL3;
  if (tag == ipapp_mgmt) return kInterfaceMgmt;
  return kInterfaceUnknown;
}

}  // namespace config_valid
}  // namespace ip_application
