// Configuration model of one validation call: the interface, static-route
// and LDP configuration of the transaction under validation, read through
// the handler's MAAPI socket into plain records. Readers fill the model;
// the rules of ValidateConfig only read it.
#ifndef IPAPP_CONFIG_H
#define IPAPP_CONFIG_H

#include <addrkit/ip_addr.h>
#include <confd_lib.h>
#include <confd_maapi.h>
#include <ifuid.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace ip_application {
namespace config_valid {

/// Interface kinds the plug-in handles; 3 is everything else.
enum InterfaceType : int32_t {
  kInterfaceMgmt = 0,
  kInterfaceL3 = 1,
  kInterfaceLoopback = 2,
  kInterfaceUnknown = 3,
};

/// Key positions of an entry of the routing-table MIB's static route list.
enum StaticRouteKey : int {
  kFteIndex = 0,            // C_UINT32, the VRF (forwarding table) index
  kNetworkAddrType = 1,     // C_ENUM_VALUE, 1 IPv4, 2 IPv6
  kNetworkAddr = 2,         // C_BINARY, 4 or 16 bytes
  kNetworkPrefixLenId = 3,  // C_INT32
  kNextHopAddrType = 4,     // not used
  kNextHopAddr = 5,         // C_BINARY, 4 or 16 bytes
};

/// One configured interface.
struct Interface {
  /// Display name used by every check and message: "l3 ", "loopback " or
  /// "mgmt " followed by the list key.
  std::string name;
  /// IPv4 addresses in read order; for L3 the primary comes first.
  std::list<addrkit::IPv4AddrMask> ipv4;
  std::list<addrkit::IPv6AddrMask> ipv6;
  /// VRF name; "global" when the leaf is absent.
  std::string vrf;
  /// Identifier built from the lower-layer VLAN; 0 when there is none, and
  /// always 0 for loopback and management interfaces.
  ifuid_t ifu_id = 0;
};

/// Base of every reader: the MAAPI socket and transaction of the call, the
/// address family to collect, and the read helpers. Missing or unreadable
/// data gives each helper's empty result; a value of the wrong ConfD type
/// fails an assertion.
class GenericConfig {
 public:
  GenericConfig(int sock, confd_trans_ctx *tctx, int32_t ip_version)
      : sock(sock), tctx(tctx), ip_version(ip_version) {}
  virtual ~GenericConfig();
  GenericConfig(const GenericConfig &) = delete;
  GenericConfig &operator=(const GenericConfig &) = delete;

  /// Fills the reader from the transaction; called once after construction.
  virtual void ReadConfig() = 0;

  // Value converters; no data-store access.

  /// The first 4 bytes of a C_BINARY value; 0.0.0.0 for any other type.
  addrkit::IPv4Addr get_ipv4_addr(const confd_value_t &v) const;
  /// The first 16 bytes of a C_BINARY value; :: for any other type.
  addrkit::IPv6Addr get_ipv6_addr(const confd_value_t &v) const;
  /// C_BINARY address and C_INT32 prefix length; the default mask when
  /// either has another type.
  addrkit::IPv4AddrMask get_ipv4_addr_mask(const confd_value_t &addr,
                                           const confd_value_t &prefix) const;
  addrkit::IPv6AddrMask get_ipv6_addr_mask(const confd_value_t &addr,
                                           const confd_value_t &prefix) const;
  /// Bytes of a C_BINARY value as lower-case hex pairs joined by ":"
  /// (0a:00:00:01), the form route entries are addressed by; "" otherwise.
  std::string get_hex_from_bin(const confd_value_t &v) const;

  // Leaf readers by complete path.

  /// The default mask when the leaf is absent or unreadable.
  addrkit::IPv4AddrMask get_ipv4_addr_mask(const std::string &path) const;
  addrkit::IPv6AddrMask get_ipv6_addr_mask(const std::string &path) const;
  /// Identifier of the L3 interface on the VLAN at path; 0 when absent.
  ifuid_t get_intf_ifu_id(const std::string &path) const;
  /// "global" when the leaf is absent, "" when it exists but cannot be
  /// read: callers rely on the difference.
  std::string get_vrf_name(const std::string &path) const;

  // List readers.

  /// First key of every entry, printed, in data-store order.
  std::list<std::string> get_key_list(const std::string &path) const;
  /// The first n keys of every entry, printed; n == 0 still gives one
  /// (empty) vector per entry.
  std::list<std::vector<std::string>> get_key_list(const std::string &path, unsigned int n) const;
  /// Addresses of an address list (path + "{key}/ip" per entry) in key
  /// order; an unspecified address is reported as a fault and skipped.
  std::list<addrkit::IPv4AddrMask> get_intf_ipv4_addr_mask_list(const std::string &path) const;
  std::list<addrkit::IPv6AddrMask> get_intf_ipv6_addr_mask_list(const std::string &path) const;

  // Lookups that build their own path.

  /// Name of the VRF with a route table's FTE index; "global" when the
  /// value is not C_UINT32 or the VRF table has no readable name for it.
  std::string get_vrf_name_from_id(const confd_value_t &id) const;
  /// Output interface of the route entry the cursor stands on, rewritten
  /// into the model's name form (character 2 becomes a blank: l3-x gives
  /// "l3 x"); "" when the route has none. A stored name shorter than two
  /// characters throws std::out_of_range.
  std::string get_intf_name_from_route(maapi_cursor &cursor) const;

  int sock;
  confd_trans_ctx *tctx;  // not owned
  int32_t ip_version;     // 4 or 6
};

/// A reader of one interface list.
class InterfaceConfig : public GenericConfig {
 public:
  InterfaceConfig(int sock, confd_trans_ctx *tctx, int32_t ip_version, InterfaceType type)
      : GenericConfig(sock, tctx, ip_version), type(type) {}
  ~InterfaceConfig() override;

  std::vector<Interface> interfaces;
  InterfaceType type;
};

/// "/config/interface/ipapp:l3": primary and secondary IPv4 addresses (an
/// unspecified primary is dropped silently), lower-layer VLAN.
class L3Config : public InterfaceConfig {
 public:
  L3Config(int sock, confd_trans_ctx *tctx, int32_t ip_version)
      : InterfaceConfig(sock, tctx, ip_version, kInterfaceL3) {}
  ~L3Config() override;
  void ReadConfig() override;
};

/// "/config/interface/ipapp:loopback": a list of IPv4 addresses.
class LoConfig : public InterfaceConfig {
 public:
  LoConfig(int sock, confd_trans_ctx *tctx, int32_t ip_version)
      : InterfaceConfig(sock, tctx, ip_version, kInterfaceLoopback) {}
  ~LoConfig() override;
  void ReadConfig() override;
};

/// "/config/interface/ipapp:mgmt": one IPv4 address; an unspecified or
/// absent one is reported as a fault (unlike L3).
class MgmtConfig : public InterfaceConfig {
 public:
  MgmtConfig(int sock, confd_trans_ctx *tctx, int32_t ip_version)
      : InterfaceConfig(sock, tctx, ip_version, kInterfaceMgmt) {}
  ~MgmtConfig() override;
  void ReadConfig() override;
};

/// A static route with a next hop.
class StaticRoute {
 public:
  StaticRoute(std::string intf_name, std::string vrf)
      : intf_name(std::move(intf_name)), vrf(std::move(vrf)) {}
  virtual ~StaticRoute();

  /// Text form of the destination prefix, as messages show it. (The two
  /// families' prefix types share no base, so the base exposes the text.)
  virtual std::string network() const = 0;
  virtual const addrkit::IPAddr &next_hop() const = 0;

  /// Output interface in Interface::name form; "" when none.
  std::string intf_name;
  std::string vrf;
};

class StaticRouteIPv4 : public StaticRoute {
 public:
  StaticRouteIPv4(std::string intf_name, std::string vrf, const addrkit::IPv4AddrMask &network,
                  const addrkit::IPv4Addr &next_hop)
      : StaticRoute(std::move(intf_name), std::move(vrf)), network_(network), next_hop_(next_hop) {}
  ~StaticRouteIPv4() override;

  std::string network() const override;
  const addrkit::IPv4Addr &next_hop() const override { return next_hop_; }
  const addrkit::IPv4AddrMask &prefix() const { return network_; }

 private:
  addrkit::IPv4AddrMask network_;
  addrkit::IPv4Addr next_hop_;
};

class StaticRouteIPv6 : public StaticRoute {
 public:
  StaticRouteIPv6(std::string intf_name, std::string vrf, const addrkit::IPv6AddrMask &network,
                  const addrkit::IPv6Addr &next_hop)
      : StaticRoute(std::move(intf_name), std::move(vrf)), network_(network), next_hop_(next_hop) {}
  ~StaticRouteIPv6() override;

  std::string network() const override;
  const addrkit::IPv6Addr &next_hop() const override { return next_hop_; }
  const addrkit::IPv6AddrMask &prefix() const { return network_; }

 private:
  addrkit::IPv6AddrMask network_;
  addrkit::IPv6Addr next_hop_;
};

/// Static routes of the routing-table MIB. The counts cover the whole
/// table (both families, entries without next hop included); routes holds
/// only entries of the reader's family that have a next hop. The route
/// limit relies on that asymmetry.
class StaticRouteConfig : public GenericConfig {
 public:
  using GenericConfig::GenericConfig;
  ~StaticRouteConfig() override;
  void ReadConfig() override;

  uint32_t ipv4_count = 0;
  uint32_t ipv6_count = 0;
  std::list<std::shared_ptr<StaticRoute>> routes;
};

/// An L3 interface LDP is enabled on, with the address LDP recorded.
class LdpIf {
 public:
  LdpIf(std::string name, const addrkit::IPv4AddrMask &address)
      : name(std::move(name)), address(address) {}
  virtual ~LdpIf();

  std::string name;  // Interface::name form, "l3 " + key
  addrkit::IPv4AddrMask address;
};

/// "/internal/int-ldp-intf-l3"; ignores ip_version.
class LdpConfig : public GenericConfig {
 public:
  using GenericConfig::GenericConfig;
  ~LdpConfig() override;
  void ReadConfig() override;

  std::list<std::shared_ptr<LdpIf>> interfaces;
};

/// The configuration of one transaction for one IP version. Construction
/// reads everything, in the order LDP (version 4 only), static routes, L3,
/// loopback, management; intf_configs then lists mgmt, l3, lo.
class Config {
 public:
  Config(int sock, confd_trans_ctx *tctx, int32_t ip_version);
  Config(const Config &) = delete;
  Config &operator=(const Config &) = delete;

  /// The first interface reader of that type; null for 3.
  InterfaceConfig *intf_by_type(InterfaceType type) const;
  /// Interface kind named by the innermost element of a validation
  /// keypath (a list tag); 3 for an empty keypath or another tag.
  static InterfaceType intf_type_from_confd_path(confd_hkeypath_t *keypath);

  LdpConfig ldp;
  StaticRouteConfig static_routes;
  L3Config l3;
  LoConfig lo;
  MgmtConfig mgmt;
  std::vector<InterfaceConfig *> intf_configs;  // not owning
};

}  // namespace config_valid
}  // namespace ip_application

#endif  // IPAPP_CONFIG_H
