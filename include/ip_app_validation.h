// Exported interface of the ip_app_validation plug-in: the entry points the
// host calls and the handlers (with their building blocks) it reaches through
// the dispatch table. Everything else in the library is hidden.
#ifndef IP_APP_VALIDATION_H
#define IP_APP_VALIDATION_H

#include <confd_lib.h>
#include <confd_maapi.h>

#include <cstdint>
#include <string>

#define IPAPP_EXPORT __attribute__((visibility("default")))

extern "C" {

/// Writes "ip_app_validation" into dst (cut to n, NUL-terminated); 0.
IPAPP_EXPORT int get_validation_point(char *dst, int n);
/// Does nothing; 0.
IPAPP_EXPORT int lib_init(void);
/// Does nothing; 0.
IPAPP_EXPORT int lib_finish(void);
/// Dispatches one validation callback by tctx->validate_opaque; the handler's
/// result, or -1.
IPAPP_EXPORT int validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval);

}  // extern "C"

// Handlers: MAAPI socket, transaction context, keypath, new value; 0 accepts,
// -1 refuses with the error text set.
IPAPP_EXPORT int validate_intf_l3_name(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                       confd_value_t *newval);
IPAPP_EXPORT int validate_intf_vrf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                   confd_value_t *newval);
IPAPP_EXPORT int validate_ipv4_addr(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                    confd_value_t *newval);
IPAPP_EXPORT int validate_ipv6_addr(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                    confd_value_t *newval);
IPAPP_EXPORT int validate_ipv4_addr_route(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                          confd_value_t *newval);
IPAPP_EXPORT int validate_ipv6_addr_route(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                          confd_value_t *newval);
IPAPP_EXPORT int validate_route_l3_intf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                        confd_value_t *newval);
IPAPP_EXPORT int validate_ldp_intf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                   confd_value_t *newval);

// Interface iteration and IP presence.
IPAPP_EXPORT confd_iter_ret intf_iter(confd_hkeypath_t *kp, confd_iter_op op, confd_value_t *oldv,
                                      confd_value_t *newv, void *state);
IPAPP_EXPORT confd_iter_ret intf_iter_oper_lower_layer(confd_hkeypath_t *kp, confd_iter_op op,
                                                       confd_value_t *oldv, confd_value_t *newv,
                                                       void *state);
IPAPP_EXPORT int check_intf_ip_presence(int32_t sock, confd_trans_ctx *tctx, std::string list_path,
                                        std::string &err);

// OSPF and OSPFv3 cross validation.
IPAPP_EXPORT int validate_ipv4_addr_cross_ospf_intf(int32_t sock, confd_trans_ctx *tctx,
                                                    confd_hkeypath_t *kp, confd_value_t *newval);
IPAPP_EXPORT int validate_lower_layer_cross_ospfv3(int32_t sock, confd_trans_ctx *tctx,
                                                   confd_hkeypath_t *kp, confd_value_t *newval);

// LDP cross validation and the two dispatch targets that combine it with
// OSPF/OSPFv3.
IPAPP_EXPORT int validate_ipv4_addr_cross_prot(int32_t sock, confd_trans_ctx *tctx,
                                               confd_hkeypath_t *kp, confd_value_t *newval);
IPAPP_EXPORT int validate_lower_layer_cross_prot(int32_t sock, confd_trans_ctx *tctx,
                                                 confd_hkeypath_t *kp, confd_value_t *newval);
IPAPP_EXPORT int validate_ipv4_addr_cross_ldp_router_id(int32_t sock, confd_trans_ctx *tctx,
                                                        confd_hkeypath_t *kp,
                                                        confd_value_t *newval);
IPAPP_EXPORT int validate_lower_layer_cross_ldp_intf(int32_t sock, confd_trans_ctx *tctx,
                                                     confd_hkeypath_t *kp, confd_value_t *newval);

#endif  // IP_APP_VALIDATION_H
