// Static route and LDP handlers:
//   "ipv4_addr_route_validation", "ipv6_addr_route_validation" on
//     /QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry (next hops, route limit);
//   "static_route_l3_intf_validation" on the l3 list (output interfaces
//     that lose their lower layer);
//   "ldp_interface_validation" on /internal/int-ldp-intf-l3.
// None of them looks at the keypath or the new value.
#include <confd_lib.h>

#include "config.h"
#include "ip_app_validation.h"
#include "validate_config.h"

using ip_application::config_valid::Config;
using ip_application::config_valid::ToHandlerResult;
using ip_application::config_valid::ValidateConfig;

namespace {

int validate_addr_route(int32_t sock, confd_trans_ctx *tctx, int32_t ip_version) {
  Config config(sock, tctx, ip_version);
  ValidateConfig rules;
  return ToHandlerResult(tctx, rules.ValidateStaticRoute(config), rules);
}

}  // namespace

int validate_ipv4_addr_route(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t * /*kp*/,
                             confd_value_t * /*newval*/) {
  return validate_addr_route(sock, tctx, 4);
}

int validate_ipv6_addr_route(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t * /*kp*/,
                             confd_value_t * /*newval*/) {
  return validate_addr_route(sock, tctx, 6);
}

int validate_route_l3_intf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t * /*kp*/,
                           confd_value_t * /*newval*/) {
  // Routes of both families are needed; interfaces come from the first.
  Config config_v4(sock, tctx, 4);
  Config config_v6(sock, tctx, 6);
  ValidateConfig rules;
  return ToHandlerResult(tctx, rules.ValidateStaticRouteOutputIntf(config_v4, config_v6), rules);
}

int validate_ldp_intf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t * /*kp*/,
                      confd_value_t * /*newval*/) {
  Config config(sock, tctx, 4);
  ValidateConfig rules;
  return ToHandlerResult(tctx, rules.ValidateLdp(config), rules);
}
