// Interface address handlers ("ipv4_addr_validation" and
// "ipv6_addr_validation" on the l3, loopback and mgmt lists: the keypath names
// the interface kind, the whole configuration of the family is checked), and
// the diff-iteration callbacks that collect the interfaces a transaction
// touches, for the cross-protocol handlers. Both name an interface the way the
// "/internal" protocol tables do ("l3-" + key, "loopback-" + key) and keep the
// first change reported for it: later changes of the same interface in one
// walk never overwrite it.
#include "ip_app_validation.h"

#include <ipapp_ns.h>

#include <map>
#include <set>
#include <sstream>
#include <string>

#include "config.h"
#include "cross_validation_util.h"
#include "validate_config.h"

namespace {

bool IsTag(const confd_value_t *v, uint32_t tag) {
  return v->type == C_XMLTAG && CONFD_GET_XMLTAG(v) == tag;
}

// prefix followed by the key's bytes up to the first NUL. A null buffer
// leaves the bare prefix (the stream refuses the pointer and sets failbit).
std::string InterfaceName(const char *prefix, const confd_value_t *key) {
  std::ostringstream name;
  name << prefix << reinterpret_cast<const char *>(CONFD_GET_BUFPTR(key));
  return name.str();
}

}  // namespace

// Matches <interface list>{key}/<container>/address/<changed node>; state is a
// std::set<std::string>. An L3 address deleted or set is recorded; a loopback
// address only when deleted (setting one is harmless to its protocol users).
confd_iter_ret intf_iter(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t * /*oldv*/,
                         confd_value_t * /*newv*/, void *state) {
  if (kp->v[4][0].type != C_XMLTAG || kp->v[1][0].type != C_XMLTAG) return ITER_RECURSE;
  const bool under_address = CONFD_GET_XMLTAG(&kp->v[1][0]) == ipapp_address;
  auto *changed = static_cast<std::set<std::string> *>(state);

  if (CONFD_GET_XMLTAG(&kp->v[4][0]) == ipapp_l3) {
    if (under_address && (op == MOP_DELETED || op == MOP_VALUE_SET)) {
      ASSERT_CONFD_TYPE(&kp->v[3][0], C_BUF);
      changed->insert(InterfaceName("l3-", &kp->v[3][0]));
    }
  } else if (CONFD_GET_XMLTAG(&kp->v[4][0]) == ipapp_loopback) {
    if (under_address && op == MOP_DELETED) {
      ASSERT_CONFD_TYPE(&kp->v[3][0], C_BUF);
      changed->insert(InterfaceName("loopback-", &kp->v[3][0]));
    }
  }
  return ITER_RECURSE;
}

// Matches l3{key}/lower-layer-if/vlan; state is a std::map<std::string, int>
// from interface name to its new VLAN, 0 when the VLAN is deleted.
confd_iter_ret intf_iter_oper_lower_layer(confd_hkeypath_t *kp, confd_iter_op op,
                                          confd_value_t * /*oldv*/, confd_value_t *newv,
                                          void *state) {
  if (!IsTag(&kp->v[3][0], ipapp_l3) || !IsTag(&kp->v[1][0], ipapp_lower_layer_if) ||
      !IsTag(&kp->v[0][0], ipapp_vlan)) {
    return ITER_RECURSE;
  }
  ASSERT_CONFD_TYPE(&kp->v[2][0], C_BUF);
  const std::string name = InterfaceName("l3-", &kp->v[2][0]);
  auto *vlans = static_cast<std::map<std::string, int> *>(state);

  if (op == MOP_DELETED) {
    vlans->emplace(name, 0);
  } else if (op == MOP_VALUE_SET) {
    ASSERT_CONFD_TYPE(newv, C_INT32);
    vlans->emplace(name, CONFD_GET_INT32(newv));
  }
  return ITER_RECURSE;
}

using ip_application::config_valid::Config;
using ip_application::config_valid::InterfaceType;
using ip_application::config_valid::kInterfaceUnknown;
using ip_application::config_valid::ToHandlerResult;
using ip_application::config_valid::ValidateConfig;

namespace {

constexpr char kInvalidInterface[] = "invalid interface being handled by IP-App validation";

}  // namespace

// ---- /config/interface/ipapp:{l3,loopback,mgmt} addresses ------------------

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
