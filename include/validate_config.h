// Whole-configuration rules over a Config. A failing rule replaces
// error_msg with one message and returns its failure value; a passing rule
// leaves error_msg alone. Handlers stop at the first failure, so the
// operator sees exactly one message.
#ifndef IPAPP_VALIDATE_CONFIG_H
#define IPAPP_VALIDATE_CONFIG_H

#include <string>
#include <vector>

#include "config.h"

namespace ip_application {
namespace config_valid {

class ValidateConfig {
 public:
  // Interface addresses.

  /// Per interface of the kind: validity, duplicates, overlap with the
  /// later interfaces, next-hop conflicts; then overlaps with the other
  /// kinds. 0, or -1 with the message of the first fault.
  int ValidateInterfaceIPv4(const Config &config, InterfaceType type);
  /// As the IPv4 driver, without the validity step.
  int ValidateInterfaceIPv6(const Config &config, InterfaceType type);
  /// False (message set) for a network or broadcast address; prefixes
  /// longer than /30 are exempt.
  bool InterfaceIPv4IsValid(const Interface &intf);
  /// True (message set) when one address appears twice, whatever the
  /// prefix lengths.
  bool InterfaceHasDuplicateIpv4(const Interface &intf);
  /// True (message set) for equal bytes and zone; prefix length ignored.
  bool InterfaceHasDuplicateIpv6(const Interface &intf);
  /// True (message set) when prefixes of a and b overlap in one routing
  /// domain: equal VRF names, or both of "global" and "mgmt".
  bool InterfaceIPv4Overlap(const Interface &a, const Interface &b);
  /// True (message set) when prefixes of a and b overlap; VRFs are not
  /// looked at for IPv6.
  bool InterfaceIPv6Overlap(const Interface &a, const Interface &b);
  /// Non-zero (message set) when an interface of own overlaps one of
  /// another kind in all; own's interface is named first.
  int InterfaceIPv4Overlap(const InterfaceConfig &own, const std::vector<InterfaceConfig *> &all);
  int InterfaceIPv6Overlap(const InterfaceConfig &own, const std::vector<InterfaceConfig *> &all);

  // Static routes.

  /// Next-hop check, then the limit check, both always; when both fail the
  /// limit message stands.
  int ValidateStaticRoute(const Config &config);
  /// IPv4 routes weigh 1, IPv6 routes 2; at most 1000 in all.
  int ValidateStaticRouteLimit(const Config &config);
  /// Every interface of every kind against the routes of the reader's
  /// family.
  int ValidateStaticRouteNextHop(const Config &config);
  /// True (message set) when a route in the interface's VRF (exact name)
  /// has one of its addresses as next hop.
  bool InterfaceIPv4MatchStaticRouteNextHop(const Interface &intf, const StaticRouteConfig &routes);
  bool InterfaceIPv6MatchStaticRouteNextHop(const Interface &intf, const StaticRouteConfig &routes);
  /// Interfaces of first without lower layer against the routes of first
  /// and then of second (the IPv4 and the IPv6 reading).
  int ValidateStaticRouteOutputIntf(const Config &first, const Config &second);
  /// True (message set) when a route leaves through the interface and it
  /// has no lower layer.
  bool InterfaceMatchStaticRouteOutputIntf(const Interface &intf, const StaticRouteConfig &routes);

  // LDP.

  /// ValidateLdpCrossIfL3 as 0 / -1.
  int ValidateLdp(const Config &config);
  /// False (message set) when an LDP interface's primary address differs
  /// from the recorded one, or when it has secondary addresses.
  bool ValidateLdpCrossIfL3(const L3Config &l3, const LdpConfig &ldp);

  std::string error_msg;
};

/// A handler's result for a rule result: CONFD_OK for 0; otherwise the
/// rule object's message, as it stands, becomes the transaction's error
/// text and the result is CONFD_ERR.
int ToHandlerResult(confd_trans_ctx *tctx, int result, const ValidateConfig &rules);

}  // namespace config_valid
}  // namespace ip_application

#endif  // IPAPP_VALIDATE_CONFIG_H
