// Entry points of the plug-in and the dispatch of validation callbacks to
// their handlers by the validation point's opaque string.
#include "ip_app_validation.h"

#include <kxconfd.h>

#include <cstdio>
#include <cstring>
#include <iterator>

namespace {

constexpr char kValidationPoint[] = "ip_app_validation";

using Handler = int (*)(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                        confd_value_t *newval);

struct DispatchRow {
  Handler handler;
  const char *name;
};

// Searched in this order; the first row whose name begins the opaque
// string wins.
constexpr DispatchRow kDispatch[] = {
    {validate_intf_l3_name, "intf_l3_name_validation"},
    {validate_intf_vrf, "intf_vrf_validation"},
    {validate_ipv4_addr, "ipv4_addr_validation"},
    {validate_ipv4_addr_cross_prot, "ipv4_addr_prot_cross_validation"},
    {validate_ipv4_addr_route, "ipv4_addr_route_validation"},
    {validate_ipv6_addr, "ipv6_addr_validation"},
    {validate_ipv6_addr_route, "ipv6_addr_route_validation"},
    {validate_route_l3_intf, "static_route_l3_intf_validation"},
    {validate_ldp_intf, "ldp_interface_validation"},
    {validate_lower_layer_cross_prot, "lower_layer_prot_cross_validation"},
};
static_assert(std::size(kDispatch) == 10, "a row for every handler ip_app_validation.h declares");

}  // namespace

extern "C" {

int get_validation_point(char *dst, int n) {
  snprintf(dst, n > 0 ? static_cast<size_t>(n) : 0, "%s", kValidationPoint);
  return 0;
}

int lib_init(void) {
  return 0;
}

int lib_finish(void) {
  return 0;
}

int validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval) {
  if (tctx == nullptr || kp == nullptr || newval == nullptr) return -1;
  const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque));
  if (sock < 0) return -1;
  // A prefix match: text after a row's name is ignored.
  const char *key = tctx->validate_opaque;
  for (const DispatchRow &row : kDispatch) {
    if (strncmp(key, row.name, strlen(row.name)) == 0) {
      return row.handler(sock, tctx, kp, newval);
    }
  }
  // Unknown name: no error text, nothing logged.
  return -1;
}

}  // extern "C"
