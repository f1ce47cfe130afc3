// Interface data a running OSPF or OSPFv3 instance depends on: the IPv4
// addresses of OSPF interfaces and the lower-layer VLANs of L3 interfaces that
// OSPFv3 interfaces run on. The transaction (MAAPI) is compared with the
// committed configuration (CDB, running store).
#include "ip_app_validation.h"

#include <arpa/inet.h>
#include <confd_cdb.h>
#include <ifuid.h>
#include <kxconfd.h>

#include <boost/asio/ip/address_v4.hpp>
#include <cstring>
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

using ip_application::store_paths::kOspfIntfList;
using ip_application::store_paths::kOspfv3IntfList;

// Values fetched per OSPF interface: instance, area, if-name, ospf-pm-if-name.
constexpr int kOspfIntfValues = 4;

constexpr char kNoActiveL3Intf[] =
    "At least one active L3 interface with IPv4 address must be configured to be used as "
    "router-id for OSPFv3. Active L3 interfaces requires a configured lower-layer-if";

// Area as shown in messages: the number of its four bytes in network order.
// Throws boost::system::system_error for text that is no dotted quad.
uint32_t AreaNumber(const char *area_text) {
  return boost::asio::ip::make_address_v4(area_text).to_uint();
}

// Whether the running store lists name as an OSPF interface
// (ospf-pm-if-name). Every row is read, whatever the rows before held.
bool RunningOspfName(int cdb_sock, const std::string &name) {
  bool listed = false;
  const int count = cdb_num_instances(cdb_sock, "%s", kOspfIntfList);
  for (int i = 0; i < count; ++i) {
    char row_name[8192];
    // name holds no NUL: comparing C strings is comparing the texts. Once
    // listed, the rows are still read but need no comparing.
    if (cdb_get_str(cdb_sock, row_name, sizeof row_name, "%s[%d]/ospf-pm-if-name", kOspfIntfList,
                    i) == CONFD_OK &&
        !listed && std::strcmp(name.c_str(), row_name) == 0) {
      listed = true;
    }
  }
  return listed;
}

// Path of the address an OSPF interface runs on, from its table name: the
// primary address of "l3-<key>", the first address of any other
// ("loopback-<key>").
std::string OspfAddressPath(const std::string &name) {
  const std::string key = name.substr(name.find('-') + 1);
  if (name.compare(0, 3, "l3-") != 0) {
    return ip_application::store_paths::kLoopbackEntryOpen + key + "}/ipv4/address[0]/ip";
  }
  return ip_application::store_paths::kL3EntryOpen + key + "}/ipv4/address/ip";
}

}  // namespace

// Walks list_path in the transaction for an interface that can give OSPFv3 a
// router-id: an L3 interface with an IPv4 address and a VLAN, or a loopback
// with an IPv4 address. 0 when there is one, -1 when not. err receives the
// explanation once an addressed L3 interface without VLAN is met, and is left
// alone otherwise. On success the cursor stays open (it goes with the
// transaction).
int check_intf_ip_presence(int32_t sock, confd_trans_ctx *tctx, std::string list_path,
                           std::string &err) {
  const bool l3_list = list_path.find("ipapp:l3") != std::string::npos;
  const bool loopback_list = list_path.find("ipapp:loopback") != std::string::npos;

  maapi_cursor mc_intf{};
  if (maapi_init_cursor(sock, tctx->thandle, &mc_intf, "%s", list_path.c_str()) != CONFD_OK) {
    return -1;
  }
  MaapiCursorGuard cursor_guard(&mc_intf);

  // The key count decides; maapi_get_next's result is not looked at.
  maapi_get_next(&mc_intf);
  while (mc_intf.n != 0) {
    ASSERT_CONFD_TYPE(&mc_intf.keys[0], C_BUF);
    const std::string name(CONFD_GET_CBUFPTR(&mc_intf.keys[0]));
    const std::string entry = list_path + "{" + name + "}";

    if (l3_list) {
      confd_ipv4_prefix prefix{};
      if (maapi_get_ipv4_and_plen_elem(sock, tctx->thandle, &prefix, "%s",
                                       (entry + "/ipv4/address/ip").c_str()) == CONFD_OK) {
        err = kNoActiveL3Intf;
        confd_value_t vlan{};
        if (maapi_get_elem(sock, tctx->thandle, &vlan, "%s",
                           (entry + "/lower-layer-if/vlan").c_str()) != CONFD_ERR) {
          cursor_guard.Release();
          return 0;
        }
      }
    } else if (loopback_list) {
      if (maapi_num_instances(sock, tctx->thandle, "%s", (entry + "/ipv4/address").c_str()) > 0) {
        cursor_guard.Release();
        return 0;
      }
    }
    maapi_get_next(&mc_intf);
  }
  return -1;
}

// /internal/ospf-interface-l3: an interface address that the transaction
// changes or deletes must not belong to an interface that is an OSPF
// interface in the running store. Every refusal overwrites the error text, so
// the last refused OSPF row stands.
int validate_ipv4_addr_cross_ospf_intf(int32_t sock, confd_trans_ctx *tctx, confd_hkeypath_t *kp,
                                       confd_value_t * /*newval*/) {
  if (!TableInUse(sock, tctx, kOspfIntfList)) return CONFD_OK;

  std::set<std::string> changed;
  CollectChanges(sock, tctx, kp, intf_iter, &changed);
  if (changed.empty()) return CONFD_OK;

  maapi_cursor cursor{};
  if (maapi_init_cursor(sock, tctx->thandle, &cursor, "%s", kOspfIntfList) != CONFD_OK) {
    return CONFD_OK;
  }
  MaapiCursorGuard cursor_guard(&cursor);
  ObjectBatch<kOspfIntfValues> batch;
  int result = CONFD_OK;

  do {
    int n = 0;
    if (batch.Fetch(&cursor, &n) < 0 || n <= 0) break;
    confd_value_t *vl_get = batch.values();

    for (int iter = 0; iter < n; ++iter) {
      ASSERT_CONFD_TYPE(&vl_get[2 + (iter * 4)], C_BUF);
      const std::string name(CONFD_GET_CBUFPTR(&vl_get[2 + (iter * 4)]));

      // One session per object, the running list re-read each time.
      KxConfdCdbSession cdb(HostInterface(tctx), CDB_RUNNING, true);
      const bool running = RunningOspfName(cdb.Socket(), name);
      if (changed.count(name) == 0 || !running) {
        batch.Free(iter);
        continue;
      }

      confd_ipv4_prefix prefix;
      std::memset(&prefix, 0, sizeof prefix);
      cdb_get_ipv4_and_plen(cdb.Socket(), &prefix, "%s", OspfAddressPath(name).c_str());
      char address[16];
      inet_ntop(AF_INET, &prefix.ip, address, sizeof address);

      ASSERT_CONFD_TYPE(&vl_get[1 + (iter * 4)], C_IPV4);
      char area[16];
      inet_ntop(AF_INET, &CONFD_GET_IPV4(&vl_get[1 + (iter * 4)]), area, sizeof area);
      const uint32_t area_number = AreaNumber(area);
      ASSERT_CONFD_TYPE(&vl_get[0 + (iter * 4)], C_UINT32);
      const int router = static_cast<int>(CONFD_GET_UINT32(&vl_get[0 + (iter * 4)]));

      confd_trans_seterr(tctx, "%s",
                         FormatText("%s/%d cannot be modified nor deleted, it is assigned to "
                                    "router ospf %d area %u (%s)",
                                    address, prefix.len, router, area_number, area)
                             .c_str());
      result = CONFD_ERR;
      break;
    }
  } while (cursor.n != 0);

  return result;
}

// /config/interface/l3{key}/lower-layer-if/vlan: the committed VLAN may not be
// changed or deleted while an OSPFv3 interface runs on the system interface
// of that VLAN.
int validate_lower_layer_cross_ospfv3(int32_t sock, confd_trans_ctx *tctx,
                                      confd_hkeypath_t *keypath, confd_value_t * /*newval*/) {
  if (!TableInUse(sock, tctx, kOspfv3IntfList)) return CONFD_OK;

  ASSERT_CONFD_TYPE(&keypath->v[0][0], C_BUF);
  const std::string vlan_path = ip_application::store_paths::kL3EntryOpen +
                                std::string(CONFD_GET_CBUFPTR(&keypath->v[0][0])) +
                                "}/lower-layer-if/vlan";

  int32_t running_vlan = 0;
  {
    KxConfdCdbSession cdb(HostInterface(tctx), CDB_RUNNING, true);
    if (cdb_get_int32(cdb.Socket(), &running_vlan, "%s", vlan_path.c_str()) == CONFD_ERR) {
      return CONFD_OK;  // no committed VLAN: nothing runs on it yet
    }
  }

  // A VLAN that cannot be read from the transaction is being deleted.
  int32_t new_vlan = 0;
  if (maapi_get_int32_elem(sock, tctx->thandle, &new_vlan, "%s", vlan_path.c_str()) == CONFD_OK &&
      new_vlan == running_vlan) {
    return CONFD_OK;
  }

  ifuid_t ifuid = 0;
  ifuid_l3_vlan_from_components(&ifuid, running_vlan);
  const uint32_t ifindex = static_cast<uint32_t>(ifuid_to_ifindex(ifuid));

  maapi_cursor mc_intf{};
  if (maapi_init_cursor(sock, tctx->thandle, &mc_intf, "%s", kOspfv3IntfList) != CONFD_OK) {
    return CONFD_OK;
  }
  MaapiCursorGuard cursor_guard(&mc_intf);

  maapi_get_next(&mc_intf);
  while (mc_intf.n != 0) {
    ASSERT_CONFD_TYPE(&mc_intf.keys[1], C_IPV4);
    ASSERT_CONFD_TYPE(&mc_intf.keys[0], C_UINT32);
    ASSERT_CONFD_TYPE(&mc_intf.keys[2], C_BUF);
    char area[16];
    inet_ntop(AF_INET, &CONFD_GET_IPV4(&mc_intf.keys[1]), area, sizeof area);
    const uint32_t router = CONFD_GET_UINT32(&mc_intf.keys[0]);

    u_int32_t if_index = 0;
    maapi_get_u_int32_elem(sock, tctx->thandle, &if_index, "%s",
                           FormatText("%s{ %u %s %s }/ospfv3-pm-if-index", kOspfv3IntfList, router,
                                      area, CONFD_GET_CBUFPTR(&mc_intf.keys[2]))
                               .c_str());
    if (if_index == ifindex) {
      confd_trans_seterr(tctx, "%s",
                         FormatText("lower-layer-if vlan %d cannot be changed, it is assigned to "
                                    "router ospfv3 %d area %u (%s)",
                                    running_vlan, static_cast<int>(router), AreaNumber(area), area)
                             .c_str());
      return CONFD_ERR;
    }
    maapi_get_next(&mc_intf);
  }
  return CONFD_OK;
}
