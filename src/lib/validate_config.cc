// Rules of ValidateConfig: interface addresses, static routes, LDP.
#include "validate_config.h"

#include <arpa/inet.h>

#include <algorithm>
#include <string_view>
#include <typeinfo>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace ip_application {
namespace config_valid {

namespace {

constexpr char kInvalidInterface[] = "invalid interface being handled by IP-App validation";
// IPv4 prefixes longer than this have no network or broadcast address.
constexpr unsigned int kMaxCheckedPrefixLen = 30;
// Weight of the route table: an IPv6 route counts twice.
constexpr uint32_t kMaxStaticRouteWeight = 1000;

bool IsDefaultVrf(const std::string &vrf) {
  // The management VRF shares the global address space.
  return vrf == "global" || vrf == "mgmt";
}

bool SameRoutingDomain(const std::string &a, const std::string &b) {
  if (a == b) return true;
  return IsDefaultVrf(a) && IsDefaultVrf(b);
}

// The pairwise rules below are quadratic. A configuration without any
// overlap or next-hop conflict at all is told by the sweeps and lookups
// here in n log n; they answer "maybe" whenever they cannot rule one out,
// and the rules then run as they are. Rules that find nothing change
// nothing, so skipping them changes no result and no message.

// One prefix in one routing domain, ordered by its network address.
template <typename Prefix, typename Key>
struct Span {
  bool default_vrf;
  const std::string *vrf;  // the domain when not the default one
  Key first;               // the network address, as it sorts
  const Prefix *prefix;

  bool operator<(const Span &o) const {
    if (default_vrf != o.default_vrf) return default_vrf;
    if (!default_vrf && *vrf != *o.vrf) return *vrf < *o.vrf;
    return first < o.first;
  }
  bool SameDomain(const Span &o) const {
    return default_vrf == o.default_vrf && (default_vrf || *vrf == *o.vrf);
  }
};

// Whether two of the spans of one domain share an address. Prefix ranges
// nest or are apart: after sorting by their network address, a prefix that
// reaches a later one reaches the one right after it too, so neighbours are
// all that need comparing.
template <typename Prefix, typename Key>
bool AnyOverlap(std::vector<Span<Prefix, Key>> *spans) {
  std::sort(spans->begin(), spans->end());
  for (size_t k = 1; k < spans->size(); ++k) {
    const Span<Prefix, Key> &prev = (*spans)[k - 1];
    const Span<Prefix, Key> &cur = (*spans)[k];
    if (prev.SameDomain(cur) && prev.prefix->Overlap(*cur.prefix)) return true;
  }
  return false;
}

// False only when no two IPv4 prefixes of the readers' interfaces (of one
// interface as well) in one routing domain share an address.
bool MayOverlapIPv4(const std::vector<InterfaceConfig *> &readers) {
  std::vector<Span<addrkit::IPv4AddrMask, uint32_t>> spans;
  for (const InterfaceConfig *reader : readers) {
    for (const Interface &intf : reader->interfaces) {
      for (const addrkit::IPv4AddrMask &p : intf.ipv4) {
        spans.push_back({IsDefaultVrf(intf.vrf), &intf.vrf, ntohl(p.network().addr()), &p});
      }
    }
  }
  return AnyOverlap(&spans);
}

// The same for IPv6 prefixes, which overlap across VRFs.
bool MayOverlapIPv6(const std::vector<InterfaceConfig *> &readers) {
  static const std::string kAll;
  std::vector<Span<addrkit::IPv6AddrMask, addrkit::IPv6Addr::Bytes>> spans;
  for (const InterfaceConfig *reader : readers) {
    for (const Interface &intf : reader->interfaces) {
      for (const addrkit::IPv6AddrMask &p : intf.ipv6) {
        spans.push_back({false, &kAll, p.network().bytes(), &p});
      }
    }
  }
  return AnyOverlap(&spans);
}

// Whether route is exactly of type T.
template <typename T>
bool IsA(const StaticRoute &route) {
  return typeid(route) == typeid(T);
}

// A next hop and an interface address are the same address when their keys
// are equal: IPv4 by the address word, IPv6 by the bytes and the scope.
using Hop4 = uint32_t;
using Hop6 = std::pair<addrkit::IPv6Addr::Bytes, uint32_t>;

Hop4 HopKey(const addrkit::IPv4Addr &addr) {
  return addr.addr();
}

Hop6 HopKey(const addrkit::IPv6Addr &addr) {
  return {addr.bytes(), addr.scope()};
}

// The next-hop keys of routes that all are exactly Route, sorted; empty
// (with *exact false) when one is of another type.
template <typename Route>
auto NextHopKeys(const StaticRouteConfig &routes, bool *exact) {
  std::vector<decltype(HopKey(std::declval<const Route &>().next_hop()))> keys;
  *exact = true;
  for (const std::shared_ptr<StaticRoute> &route : routes.routes) {
    if (!IsA<Route>(*route)) {
      *exact = false;
      keys.clear();
      return keys;
    }
    keys.push_back(HopKey(static_cast<const Route &>(*route).next_hop()));
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

// Whether one of the addresses of prefixes may be a route's next hop.
template <typename Prefixes, typename Key>
bool MayBeNextHop(const Prefixes &prefixes, const std::vector<Key> &hops, bool exact) {
  if (!exact) return true;
  for (const auto &p : prefixes) {
    if (std::binary_search(hops.begin(), hops.end(), HopKey(p.addr()))) return true;
  }
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Interface addresses

int ValidateConfig::ValidateInterfaceIPv4(const Config &config, InterfaceType type) {
  const InterfaceConfig *own = config.intf_by_type(type);
  if (own == nullptr) {
    error_msg = kInvalidInterface;
    return -1;
  }
  const std::vector<Interface> &intfs = own->interfaces;
  const bool overlaps = MayOverlapIPv4(config.intf_configs);
  bool exact_hops;
  const auto hops = NextHopKeys<StaticRouteIPv4>(config.static_routes, &exact_hops);
  for (auto i = intfs.begin(); i != intfs.end(); ++i) {
    if (!InterfaceIPv4IsValid(*i)) return -1;
    if (InterfaceHasDuplicateIpv4(*i)) return -1;
    for (auto j = i + 1; overlaps && j != intfs.end(); ++j) {
      if (InterfaceIPv4Overlap(*i, *j)) return -1;
    }
    if (MayBeNextHop(i->ipv4, hops, exact_hops) &&
        InterfaceIPv4MatchStaticRouteNextHop(*i, config.static_routes)) {
      return -1;
    }
  }
  if (!overlaps) return 0;
  return InterfaceIPv4Overlap(*own, config.intf_configs) == 0 ? 0 : -1;
}

int ValidateConfig::ValidateInterfaceIPv6(const Config &config, InterfaceType type) {
  const InterfaceConfig *own = config.intf_by_type(type);
  if (own == nullptr) {
    error_msg = kInvalidInterface;
    return -1;
  }
  const std::vector<Interface> &intfs = own->interfaces;
  const bool overlaps = MayOverlapIPv6(config.intf_configs);
  bool exact_hops;
  const auto hops = NextHopKeys<StaticRouteIPv6>(config.static_routes, &exact_hops);
  for (auto i = intfs.begin(); i != intfs.end(); ++i) {
    if (InterfaceHasDuplicateIpv6(*i)) return -1;
    for (auto j = i + 1; overlaps && j != intfs.end(); ++j) {
      if (InterfaceIPv6Overlap(*i, *j)) return -1;
    }
    if (MayBeNextHop(i->ipv6, hops, exact_hops) &&
        InterfaceIPv6MatchStaticRouteNextHop(*i, config.static_routes)) {
      return -1;
    }
  }
  if (!overlaps) return 0;
  return InterfaceIPv6Overlap(*own, config.intf_configs) == 0 ? 0 : -1;
}

bool ValidateConfig::InterfaceIPv4IsValid(const Interface &intf) {
  for (const addrkit::IPv4AddrMask &p : intf.ipv4) {
    if (p.prefix_len() > kMaxCheckedPrefixLen) continue;  // /31 and /32
    if (p.IsNetworkAddress()) {
      error_msg = intf.name + " ipv4 address " + p.addr_prefix_len() +
                  " cannot be configured as network address.";
      return false;
    }
    if (p.IsBroadcastAddress()) {
      error_msg = intf.name + " ipv4 address " + p.addr_prefix_len() +
                  " cannot be configured as broadcast address.";
      return false;
    }
  }
  return true;
}

bool ValidateConfig::InterfaceHasDuplicateIpv4(const Interface &intf) {
  for (auto p = intf.ipv4.begin(); p != intf.ipv4.end(); ++p) {
    for (auto q = std::next(p); q != intf.ipv4.end(); ++q) {
      if (p->addr().addr() == q->addr().addr()) {
        error_msg = intf.name + " has duplicated IPv4 address " + p->addr().to_string();
        return true;
      }
    }
  }
  return false;
}

bool ValidateConfig::InterfaceHasDuplicateIpv6(const Interface &intf) {
  for (auto p = intf.ipv6.begin(); p != intf.ipv6.end(); ++p) {
    for (auto q = std::next(p); q != intf.ipv6.end(); ++q) {
      if (p->addr() == q->addr()) {  // bytes and zone
        error_msg = intf.name + " has duplicated IPv6 address " + p->addr().to_string();
        return true;
      }
    }
  }
  return false;
}

bool ValidateConfig::InterfaceIPv4Overlap(const Interface &a, const Interface &b) {
  if (!SameRoutingDomain(a.vrf, b.vrf)) return false;
  for (const addrkit::IPv4AddrMask &x : a.ipv4) {
    for (const addrkit::IPv4AddrMask &y : b.ipv4) {
      if (x.Overlap(y)) {
        error_msg = a.name + " vrf " + a.vrf + " ipv4 address " + x.addr_prefix_len() +
                    " overlaps with " + b.name + " vrf " + b.vrf + " ipv4 address " +
                    y.addr_prefix_len() + ".";
        return true;
      }
    }
  }
  return false;
}

bool ValidateConfig::InterfaceIPv6Overlap(const Interface &a, const Interface &b) {
  // IPv6 prefixes conflict across VRFs as well.
  for (const addrkit::IPv6AddrMask &x : a.ipv6) {
    for (const addrkit::IPv6AddrMask &y : b.ipv6) {
      if (x.Overlap(y)) {
        error_msg = a.name + " ipv6 address " + x.to_string() + " overlaps with " + b.name +
                    " ipv6 address " + y.to_string() + ".";
        return true;
      }
    }
  }
  return false;
}

int ValidateConfig::InterfaceIPv4Overlap(const InterfaceConfig &own,
                                         const std::vector<InterfaceConfig *> &all) {
  for (const InterfaceConfig *other : all) {
    if (other->type == own.type) continue;  // compared pairwise by the driver
    for (const Interface &x : other->interfaces) {
      for (const Interface &y : own.interfaces) {
        if (InterfaceIPv4Overlap(y, x)) return 1;
      }
    }
  }
  return 0;
}

int ValidateConfig::InterfaceIPv6Overlap(const InterfaceConfig &own,
                                         const std::vector<InterfaceConfig *> &all) {
  for (const InterfaceConfig *other : all) {
    if (other->type == own.type) continue;
    for (const Interface &x : other->interfaces) {
      for (const Interface &y : own.interfaces) {
        if (InterfaceIPv6Overlap(y, x)) return 1;
      }
    }
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Static routes

int ValidateConfig::ValidateStaticRoute(const Config &config) {
  // Both run; the limit message overwrites a next-hop message.
  const int next_hop = ValidateStaticRouteNextHop(config);
  const int limit = ValidateStaticRouteLimit(config);
  return next_hop | limit;
}

int ValidateConfig::ValidateStaticRouteLimit(const Config &config) {
  const uint32_t weight = config.static_routes.ipv4_count + 2u * config.static_routes.ipv6_count;
  if (weight <= kMaxStaticRouteWeight) return 0;
  error_msg = "The maximum number of available static routes was exceeded.";
  return -1;
}

int ValidateConfig::ValidateStaticRouteNextHop(const Config &config) {
  const StaticRouteConfig &routes = config.static_routes;
  bool exact4 = false;
  bool exact6 = false;
  std::vector<Hop4> hops4;
  std::vector<Hop6> hops6;
  if (routes.ip_version == 4) hops4 = NextHopKeys<StaticRouteIPv4>(routes, &exact4);
  if (routes.ip_version == 6) hops6 = NextHopKeys<StaticRouteIPv6>(routes, &exact6);
  for (const InterfaceConfig *reader : config.intf_configs) {
    for (const Interface &intf : reader->interfaces) {
      if (routes.ip_version == 4) {
        if (MayBeNextHop(intf.ipv4, hops4, exact4) &&
            InterfaceIPv4MatchStaticRouteNextHop(intf, routes)) {
          return -1;
        }
      } else if (routes.ip_version == 6) {
        if (MayBeNextHop(intf.ipv6, hops6, exact6) &&
            InterfaceIPv6MatchStaticRouteNextHop(intf, routes)) {
          return -1;
        }
      }
    }
  }
  return 0;
}

bool ValidateConfig::InterfaceIPv4MatchStaticRouteNextHop(const Interface &intf,
                                                          const StaticRouteConfig &routes) {
  for (const std::shared_ptr<StaticRoute> &route : routes.routes) {
    // Where the route's type is known, its next hop compares by its key:
    // no virtual call and dynamic_cast per address.
    const auto *v4 =
        IsA<StaticRouteIPv4>(*route) ? static_cast<const StaticRouteIPv4 *>(route.get()) : nullptr;
    for (const addrkit::IPv4AddrMask &p : intf.ipv4) {
      // No default-VRF equivalence here.
      if (v4 ? HopKey(v4->next_hop()) == HopKey(p.addr()) && intf.vrf == route->vrf
             : intf.vrf == route->vrf && route->next_hop() == addrkit::IPv4Addr(p.addr().addr())) {
        error_msg = intf.name + " ipv4 address " + p.addr_prefix_len() + " and static route " +
                    route->network() + " next-hop " + route->next_hop().to_string() +
                    " cannot have address conflict.";
        return true;
      }
    }
  }
  return false;
}

bool ValidateConfig::InterfaceIPv6MatchStaticRouteNextHop(const Interface &intf,
                                                          const StaticRouteConfig &routes) {
  for (const std::shared_ptr<StaticRoute> &route : routes.routes) {
    const addrkit::IPv6Addr *hop = IsA<StaticRouteIPv6>(*route)
                                       ? &static_cast<const StaticRouteIPv6 &>(*route).next_hop()
                                       : nullptr;
    for (const addrkit::IPv6AddrMask &p : intf.ipv6) {
      if (hop ? HopKey(*hop) == HopKey(p.addr()) && intf.vrf == route->vrf
              : intf.vrf == route->vrf &&
                    route->next_hop() == addrkit::IPv6Addr(p.addr().bytes(), p.addr().scope())) {
        error_msg = intf.name + " ipv6 address " + p.to_string() + " and static route " +
                    route->network() + " next-hop " + route->next_hop().to_string() +
                    " cannot have address conflict.";
        return true;
      }
    }
  }
  return false;
}

int ValidateConfig::ValidateStaticRouteOutputIntf(const Config &first, const Config &second) {
  // Only first's interfaces are examined; second contributes its routes. An
  // interface no route names cannot match: the walk over the routes is left
  // to the ones that some route names.
  std::unordered_set<std::string_view> named;
  for (const StaticRouteConfig *routes : {&first.static_routes, &second.static_routes}) {
    for (const std::shared_ptr<StaticRoute> &route : routes->routes) named.insert(route->intf_name);
  }
  for (const InterfaceConfig *reader : first.intf_configs) {
    for (const Interface &intf : reader->interfaces) {
      if (intf.ifu_id != 0 || named.count(intf.name) == 0) continue;
      if (InterfaceMatchStaticRouteOutputIntf(intf, first.static_routes)) return -1;
      if (InterfaceMatchStaticRouteOutputIntf(intf, second.static_routes)) return -1;
    }
  }
  return 0;
}

bool ValidateConfig::InterfaceMatchStaticRouteOutputIntf(const Interface &intf,
                                                         const StaticRouteConfig &routes) {
  for (const std::shared_ptr<StaticRoute> &route : routes.routes) {
    if (route->intf_name == intf.name && intf.ifu_id == 0) {
      // No final full stop: the text is fixed as the operator knows it.
      error_msg = intf.name +
                  " is being used by a static route. Lower-layer-if cannot be removed from this "
                  "interface";
      return true;
    }
  }
  return false;
}

// ---------------------------------------------------------------------------
// LDP

int ValidateConfig::ValidateLdp(const Config &config) {
  return ValidateLdpCrossIfL3(config.l3, config.ldp) ? 0 : -1;
}

bool ValidateConfig::ValidateLdpCrossIfL3(const L3Config &l3, const LdpConfig &ldp) {
  // The L3 interfaces of each name, in their order: each LDP record meets
  // the interfaces of its name in the order a walk over all of them would.
  std::unordered_map<std::string_view, std::vector<const Interface *>> by_name;
  for (const Interface &intf : l3.interfaces) by_name[intf.name].push_back(&intf);
  static const std::vector<const Interface *> kNone;
  for (const std::shared_ptr<LdpIf> &rec : ldp.interfaces) {
    const auto found = by_name.find(rec->name);
    const std::vector<const Interface *> &named = found == by_name.end() ? kNone : found->second;
    for (const Interface *each : named) {
      const Interface &intf = *each;
      if (!rec->address.IsUnspecified() &&
          (intf.ipv4.empty() || intf.ipv4.front() != rec->address)) {
        error_msg = "IPv4 address " + rec->address.to_string() +
                    " cannot be modified nor deleted when configured with LDP interface.";
        return false;
      }
      if (intf.ipv4.size() > 1) {
        error_msg =
            "secondary IPv4 address configuration and LDP interface assignment are not "
            "supported for the same interface " +
            intf.name + ".";
        return false;
      }
    }
  }
  return true;
}

int ToHandlerResult(confd_trans_ctx *tctx, int result, const ValidateConfig &rules) {
  if (result == 0) return CONFD_OK;
  confd_trans_seterr(tctx, "%s", rules.error_msg.c_str());
  return CONFD_ERR;
}

}  // namespace config_valid
}  // namespace ip_application
