// "intf_vrf_validation" on the l3 and loopback lists: the whole-configuration
// IPv4 check, then, for a call on a whole list, no interface used by OSPF,
// OSPFv3 or MPLS LDP may be put into a VRF.
#include "validate_intf_vrf.h"

#include <confd_lib.h>
#include <confd_maapi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "confd_assert.h"
#include "config.h"
#include "ip_app_validation.h"
#include "ipapp_ns.h"
#include "maapi_read.h"
#include "store_paths.h"
#include "validate_config.h"

using ip_application::config_valid::BufText;
using ip_application::config_valid::Config;
using ip_application::config_valid::InterfaceType;
using ip_application::config_valid::kInterfaceUnknown;
using ip_application::config_valid::ReadFirstKeys;
using ip_application::config_valid::ReadIpv4AddrMask;
using ip_application::config_valid::ValidateConfig;

namespace {

constexpr int kExprSize = 1024;
constexpr int kKeyTextSize = 8192;

// Whether the XPath expression, evaluated below "/internal" in the
// transaction, selects a non-empty value. The call's own result is not
// looked at. Only a non-empty result is freed; an empty one is left to the
// data store, as the element's handlers always did.
bool InternalXpathMatches(int32_t sock, confd_trans_ctx *tctx, const char *format,
                          const std::string &name) {
  char expr[kExprSize];
  snprintf(expr, sizeof expr, format, name.c_str());
  char *result = nullptr;
  maapi_xpath_eval_expr(sock, tctx->thandle, expr, &result, nullptr, "/internal");
  if (result == nullptr || result[0] == '\0') return false;
  free(result);
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------
// ValidateIntfVrf

ValidateIntfVrf::~ValidateIntfVrf() = default;

confd_iter_ret ValidateIntfVrf::Iterate(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                                        confd_value_t *newv, void *state) {
  return static_cast<ValidateIntfVrf *>(state)->IterValidate(kp, op, oldv, newv);
}

int ValidateIntfVrf::RunValidation() {
  maapi_keypath_diff_iterate(sock_, tctx_->thandle, &ValidateIntfVrf::Iterate, 0, this, "%s",
                             list_path_.c_str());
  if (error_.empty()) return 0;
  confd_trans_seterr(tctx_, "%s", error_.c_str());
  return -1;
}

std::list<std::string> ValidateIntfVrf::get_key_list(const std::string &path) const {
  return ReadFirstKeys(sock_, tctx_, path, kKeyTextSize);
}

addrkit::IPv4AddrMask ValidateIntfVrf::get_ipv4_addr_mask(const std::string &path) const {
  return ReadIpv4AddrMask(sock_, tctx_, path);
}

// ---------------------------------------------------------------------------
// L3 interfaces

confd_iter_ret ValidateIntfL3Vrf::IterValidate(confd_hkeypath_t *kp, confd_iter_op op,
                                               confd_value_t * /*oldv*/, confd_value_t * /*newv*/) {
  // Removing an interface from its VRF is always allowed.
  if (op != MOP_VALUE_SET) return ITER_RECURSE;
  ASSERT_CONFD_TYPE(&kp->v[0][0], C_XMLTAG);
  if (CONFD_GET_XMLTAG(&kp->v[0][0]) != ipapp_vrf) return ITER_RECURSE;
  ASSERT_CONFD_TYPE(&kp->v[1][0], C_BUF);
  const std::string name = BufText(kp->v[1][0]);

  if (InternalXpathMatches(sock_, tctx_,
                           "ospf-interface-l3[ospf-pm-if-name='l3-%s']/ospf-pm-if-name", name)) {
    error_ = "l3 " + name + " is configured in OSPF and cannot be associated with a VRF";
    return ITER_STOP;
  }
  if (InternalXpathMatches(
          sock_, tctx_, "ospfv3-interface-l3[ospfv3-pm-if-name='l3-%s']/ospfv3-pm-if-name", name)) {
    error_ = "l3 " + name + " is configured in OSPFv3 and cannot be associated with a VRF";
    return ITER_STOP;
  }

  // MPLS: the LDP interface table is keyed by name, VLAN and address.
  const addrkit::IPv4AddrMask addr =
      get_ipv4_addr_mask(ip_application::store_paths::kL3EntryOpen + name + "}/ipv4/address/ip");
  confd_value_t myval;
  if (maapi_get_elem(sock_, tctx_->thandle, &myval, "/config/interface/l3{%s}/lower-layer-if/vlan",
                     name.c_str()) == CONFD_OK &&
      !addr.IsUnspecified()) {
    ASSERT_CONFD_TYPE(&myval, C_INT32);
    char vlan[16];
    snprintf(vlan, sizeof vlan, "%d", CONFD_GET_INT32(&myval));
    const std::string addr_text = addr.to_string();
    if (maapi_exists(sock_, tctx_->thandle, "/internal/int-ldp-intf-l3{l3-%s l3-vlan %s %s}",
                     name.c_str(), vlan, addr_text.c_str()) == 1) {
      error_ = "l3 " + name + " is configured in MPLS and cannot be associated with a VRF";
      return ITER_STOP;
    }
  }
  return ITER_RECURSE;
}

// ---------------------------------------------------------------------------
// Loopback interfaces

confd_iter_ret ValidateIntfLoVrf::IterValidate(confd_hkeypath_t *kp, confd_iter_op op,
                                               confd_value_t * /*oldv*/, confd_value_t * /*newv*/) {
  if (op != MOP_VALUE_SET) return ITER_RECURSE;
  ASSERT_CONFD_TYPE(&kp->v[0][0], C_XMLTAG);
  if (CONFD_GET_XMLTAG(&kp->v[0][0]) != ipapp_vrf) return ITER_RECURSE;
  ASSERT_CONFD_TYPE(&kp->v[1][0], C_BUF);
  const std::string name = BufText(kp->v[1][0]);

  // Loopbacks are looked up in the l3 OSPF tables, by their "loopback-" name.
  if (InternalXpathMatches(
          sock_, tctx_, "ospf-interface-l3[ospf-pm-if-name='loopback-%s']/ospf-pm-if-name", name)) {
    error_ = "loopback " + name + " is configured in OSPF and cannot be associated with a VRF";
    return ITER_STOP;
  }
  if (InternalXpathMatches(sock_, tctx_,
                           "ospfv3-interface-l3[ospfv3-pm-if-name='loopback-%s']/ospfv3-pm-if-name",
                           name)) {
    error_ = "loopback " + name + " is configured in OSPFv3 and cannot be associated with a VRF";
    return ITER_STOP;
  }

  // MPLS: any of the loopback's addresses in the LDP loopback table.
  const std::string list =
      ip_application::store_paths::kLoopbackEntryOpen + name + "}/ipv4/address";
  for (const std::string &key : get_key_list(list)) {
    const addrkit::IPv4AddrMask addr = get_ipv4_addr_mask(list + "{" + key + "}/ip");
    if (addr.IsUnspecified()) continue;
    const std::string addr_text = addr.to_string();
    if (maapi_exists(sock_, tctx_->thandle, "/internal/int-ldp-intf-lo{loopback-%s %s}",
                     name.c_str(), addr_text.c_str()) == 1) {
      error_ = "loopback " + name + " is configured in MPLS and cannot be associated with a VRF";
      return ITER_STOP;
    }
  }
  return ITER_RECURSE;
}

// ---------------------------------------------------------------------------
// Per-protocol validators: they only check the shape of what they see.

confd_iter_ret ValidateIntfVrfOspf::IterValidate(confd_hkeypath_t *kp, confd_iter_op op,
                                                 confd_value_t * /*oldv*/,
                                                 confd_value_t * /*newv*/) {
  if (op == MOP_VALUE_SET) ASSERT_CONFD_TYPE(&kp->v[0][0], C_XMLTAG);
  return ITER_RECURSE;
}

confd_iter_ret ValidateIntfVrfOspfv3::IterValidate(confd_hkeypath_t *kp, confd_iter_op op,
                                                   confd_value_t * /*oldv*/,
                                                   confd_value_t * /*newv*/) {
  if (op == MOP_VALUE_SET) ASSERT_CONFD_TYPE(&kp->v[0][0], C_XMLTAG);
  return ITER_RECURSE;
}

confd_iter_ret ValidateIntfLoVrfMpls::IterValidate(confd_hkeypath_t *kp, confd_iter_op op,
                                                   confd_value_t * /*oldv*/,
                                                   confd_value_t * /*newv*/) {
  if (op == MOP_VALUE_SET) ASSERT_CONFD_TYPE(&kp->v[0][0], C_XMLTAG);
  return ITER_RECURSE;
}

confd_iter_ret ValidateIntfL3VrfMpls::IterValidate(confd_hkeypath_t *kp, confd_iter_op op,
                                                   confd_value_t * /*oldv*/,
                                                   confd_value_t * /*newv*/) {
  if (op == MOP_VALUE_SET) ASSERT_CONFD_TYPE(&kp->v[0][0], C_XMLTAG);
  return ITER_RECURSE;
}

// ---------------------------------------------------------------------------
// The handler

int validate_intf_vrf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *keypath,
                      confd_value_t * /*newval*/) {
  const InterfaceType type = Config::intf_type_from_confd_path(keypath);
  Config config(sock, tctx, 4);
  if (type != kInterfaceUnknown) {
    ValidateConfig rules;
    if (rules.ValidateInterfaceIPv4(config, type) != 0) {
      confd_trans_seterr(tctx, "%s", rules.error_msg.c_str());
      return -1;
    }
  }

  // The VRF checks run only for a call on a whole interface list; deeper
  // keypaths get the address check alone.
  std::unique_ptr<ValidateIntfVrf> validator;
  switch (keypath->len) {
    case 3:
      ASSERT_CONFD_TYPE(&keypath->v[0][0], C_XMLTAG);
      if (CONFD_GET_XMLTAG(&keypath->v[0][0]) == ipapp_loopback) {
        validator.reset(new ValidateIntfLoVrf(sock, tctx, ip_application::store_paths::kLoopback));
      } else if (CONFD_GET_XMLTAG(&keypath->v[0][0]) == ipapp_l3) {
        validator.reset(new ValidateIntfL3Vrf(sock, tctx, ip_application::store_paths::kL3));
      } else {
        return 0;
      }
      break;
    case 4:
      ASSERT_CONFD_TYPE(&keypath->v[3][0], C_XMLTAG);
      return 0;
    case 6:
      ASSERT_CONFD_TYPE(&keypath->v[4][0], C_XMLTAG);
      ASSERT_CONFD_TYPE(&keypath->v[5][0], C_XMLTAG);
      return 0;
    default:
      return 0;
  }
  return validator->RunValidation();
}
