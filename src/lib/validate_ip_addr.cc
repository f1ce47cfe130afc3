// Interface address handlers: "ipv4_addr_validation" and
// "ipv6_addr_validation" on the l3, loopback and mgmt lists. The keypath
// names the interface kind being validated; the whole configuration of the
// address family is read and checked.
#include <confd_lib.h>

#include "config.h"
#include "ip_app_validation.h"
#include "validate_config.h"

using ip_application::config_valid::Config;
using ip_application::config_valid::InterfaceType;
using ip_application::config_valid::kInterfaceUnknown;
using ip_application::config_valid::ToHandlerResult;
using ip_application::config_valid::ValidateConfig;

namespace {

constexpr char kInvalidInterface[] = "invalid interface being handled by IP-App validation";

}  // namespace

int validate_ipv4_addr(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                       confd_value_t * /*newval*/) {
  const InterfaceType type = Config::intf_type_from_confd_path(kp);
  if (type == kInterfaceUnknown) {
    confd_trans_seterr(tctx, "%s", kInvalidInterface);
    return CONFD_ERR;
  }
  Config config(sock, tctx, 4);
  ValidateConfig rules;
  int result = rules.ValidateInterfaceIPv4(config, type);
  if (result == 0) result = rules.ValidateLdp(config);
  return ToHandlerResult(tctx, result, rules);
}

int validate_ipv6_addr(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                       confd_value_t * /*newval*/) {
  const InterfaceType type = Config::intf_type_from_confd_path(kp);
  if (type == kInterfaceUnknown) {
    confd_trans_seterr(tctx, "%s", kInvalidInterface);
    return CONFD_ERR;
  }
  Config config(sock, tctx, 6);
  ValidateConfig rules;
  return ToHandlerResult(tctx, rules.ValidateInterfaceIPv6(config, type), rules);
}
