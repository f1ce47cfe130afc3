// MPLS LDP cross validation, and the two handlers that run it together with
// the OSPF/OSPFv3 checks. Both checks of a handler always run; when both
// refuse, the second one's text is what the operator reads.
#include "ip_app_validation.h"

#include <confd_cdb.h>
#include <kxconfd.h>

#include <map>
#include <set>
#include <string>

#include "cross_validation_util.h"
#include "store_paths.h"

using ip_application::cross_valid::CollectChanges;
using ip_application::cross_valid::FormatText;
using ip_application::cross_valid::HostInterface;
using ip_application::cross_valid::ObjectBatch;
using ip_application::cross_valid::TableInUse;

namespace {

using ip_application::store_paths::kLdpL3List;
using ip_application::store_paths::kLdpLoopbackList;

}  // namespace

// Committed VLAN of the L3 interface whose key ends kp; 0 when it has none.
static int get_lower_layer_vlan(confd_trans_ctx *tctx, confd_hkeypath_t *kp) {
  KxConfdCdbSession cdb(HostInterface(tctx), CDB_RUNNING, true);
  ASSERT_CONFD_TYPE(&kp->v[0][0], C_BUF);
  int32_t vlan = 0;
  if (cdb_get_int32(cdb.Socket(), &vlan, "%s",
                    (ip_application::store_paths::kL3EntryOpen +
                     std::string(CONFD_GET_CBUFPTR(&kp->v[0][0])) + "}/lower-layer-if/vlan")
                        .c_str()) != CONFD_OK) {
    vlan = 0;
  }
  return vlan;
}

// /internal/int-ldp-intf-lo: the address of a loopback that serves as the LDP
// LSR-id may not be deleted (intf_iter records loopbacks only on deletion).
static int validate_loopback_cross_ldp_router_id(int32_t sock, confd_trans_ctx *tctx,
                                                 confd_hkeypath_t *kp) {
  std::set<std::string> changed;
  CollectChanges(sock, tctx, kp, intf_iter, &changed);
  if (changed.empty()) return CONFD_OK;

  maapi_cursor cursor{};
  if (maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", kLdpLoopbackList) != CONFD_OK) {
    return CONFD_OK;
  }
  MaapiCursorGuard cursor_guard(&cursor);
  ObjectBatch<1> batch;
  int result = CONFD_OK;

  // Later batches are still walked after a refusal; the text is only set again.
  do {
    int n = 0;
    if (batch.Fetch(&cursor, &n) < 0 || n <= 0) break;
    confd_value_t *vl_get = batch.values();
    for (int iter = 0; iter < n; ++iter) {
      ASSERT_CONFD_TYPE(&vl_get[0 + (iter * 1)], C_BUF);
      const std::string name(CONFD_GET_CBUFPTR(&vl_get[0 + (iter * 1)]));
      if (changed.count(name) != 0) {
        confd_trans_seterr(tctx, "%s", "cannot be deleted, it is assigned to MPLS LDP lsr-id");
        result = CONFD_ERR;
        break;
      }
      batch.Free(iter);
    }
  } while (cursor.n != 0);

  return result;
}

// /internal/int-ldp-intf-l3: the committed VLAN of an L3 interface that LDP
// runs on may be neither changed nor deleted.
static int validate_l3_interface_cross_ldp_interface_lower_layer(int32_t sock,
                                                                 confd_trans_ctx *tctx,
                                                                 confd_hkeypath_t *kp) {
  std::map<std::string, int> new_vlans;
  CollectChanges(sock, tctx, kp, intf_iter_oper_lower_layer, &new_vlans);
  if (new_vlans.empty()) return CONFD_OK;

  maapi_cursor cursor{};
  if (maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", kLdpL3List) != CONFD_OK) {
    return CONFD_OK;
  }
  MaapiCursorGuard cursor_guard(&cursor);
  ObjectBatch<1> batch;

  do {
    int n = 0;
    if (batch.Fetch(&cursor, &n) < 0 || n <= 0) break;
    confd_value_t *v = batch.values();
    for (int iter = 0; iter < n; ++iter) {
      ASSERT_CONFD_TYPE(&v[0 + (iter * 1)], C_BUF);
      const auto changed = new_vlans.find(std::string(CONFD_GET_CBUFPTR(&v[0 + (iter * 1)])));
      if (changed != new_vlans.end()) {
        // The committed VLAN is that of the interface kp names, not of this LDP
        // row; on a per-entry call the two are the same interface.
        const int old_vlan = get_lower_layer_vlan(tctx, kp);
        if (old_vlan != 0 && changed->second != old_vlan) {
          confd_trans_seterr(tctx, "%s",
                             FormatText("Cannot be %s because lower-layer-if with VLAN-Id %d is "
                                        "assigned to a MPLS LDP interface",
                                        changed->second != 0 ? "modified" : "deleted", old_vlan)
                                 .c_str());
          return CONFD_ERR;
        }
      }
      batch.Free(iter);
    }
  } while (cursor.n != 0);

  return CONFD_OK;
}

int validate_ipv4_addr_cross_ldp_router_id(int32_t sock, confd_trans_ctx *tctx,
                                           confd_hkeypath_t *kp, confd_value_t * /*newval*/) {
  if (!TableInUse(sock, tctx, kLdpLoopbackList)) return CONFD_OK;
  return validate_loopback_cross_ldp_router_id(sock, tctx, kp);
}

int validate_lower_layer_cross_ldp_intf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                        confd_value_t * /*newval*/) {
  if (!TableInUse(sock, tctx, kLdpL3List)) return CONFD_OK;
  return validate_l3_interface_cross_ldp_interface_lower_layer(sock, tctx, kp);
}

// Interface IPv4 addresses: OSPF first, then the LDP LSR-id.
int validate_ipv4_addr_cross_prot(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                  confd_value_t *newval) {
  const int ospf = validate_ipv4_addr_cross_ospf_intf(sock, tctx, kp, newval);
  const int ldp = validate_ipv4_addr_cross_ldp_router_id(sock, tctx, kp, newval);
  return (ospf == CONFD_ERR || ldp == CONFD_ERR) ? CONFD_ERR : CONFD_OK;
}

// L3 lower-layer VLANs: LDP first, then OSPFv3.
int validate_lower_layer_cross_prot(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                    confd_value_t *newval) {
  const int ldp = validate_lower_layer_cross_ldp_intf(sock, tctx, kp, newval);
  const int ospfv3 = validate_lower_layer_cross_ospfv3(sock, tctx, kp, newval);
  return (ldp == CONFD_ERR || ospfv3 == CONFD_ERR) ? CONFD_ERR : CONFD_OK;
}
