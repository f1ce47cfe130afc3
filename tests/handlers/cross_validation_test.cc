// OSPF, OSPFv3 and LDP cross validation on running and candidate
// configurations, run through the dispatcher the way the host runs it.
#include <kxconfd.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>

#include "plugin_test.h"

namespace plugin_test {
namespace {

constexpr char kAddr[] = "ipv4_addr_prot_cross_validation";
constexpr char kVlan[] = "lower_layer_prot_cross_validation";
constexpr char kCore1[] = "/config/interface/ipapp:l3{core1}";
constexpr char kLo0[] = "/config/interface/ipapp:loopback{0}";

std::string Config(const std::string &interfaces, const std::string &internal) {
  return Interfaces(interfaces) + Internal(internal);
}
// An l3 interface with its primary address and VLAN ("", 0: none).
std::string Intf(const std::string &address, int vlan, const std::string &name = "core1") {
  return L3(name, (address.empty() ? "" : V4(address)) + (vlan ? Vlan(vlan) : ""));
}
std::string Ospfv3(uint32_t if_index) {  // for core1 in router 5, area 0.0.0.1
  return Ospf("l3-core1", "ospfv3", 5, "0.0.0.1",
              E("ospfv3-pm-if-index", std::to_string(if_index)));
}
const std::string kLdpLo = LdpLo("loopback-0", "1.1.1.1/32");
const std::string kLdp = LdpL3("l3-core1", 100, "10.1.1.1/24");

std::string OspfText(const std::string &address, const std::string &router_area) {
  return address + " cannot be modified nor deleted, it is assigned to router ospf " + router_area;
}
const std::string kLsrId = "cannot be deleted, it is assigned to MPLS LDP lsr-id";
const std::string kV3Text =
    "lower-layer-if vlan 100 cannot be changed, it is assigned to router ospfv3 5 area 1 (0.0.0.1)";
std::string LdpText(const std::string &what) {
  return "Cannot be " + what +
         " because lower-layer-if with VLAN-Id 100 is assigned to a MPLS LDP interface";
}

using CrossAddress = PluginTest;
using CrossLowerLayer = PluginTest;

TEST_F(CrossAddress, OspfAndLdpLsrIdProtectRunningAddresses) {
  const std::string ospf =
      Ospf("l3-core1", "ospf", 5, "0.0.0.1") + Ospf("loopback-0", "ospf", 7, "0.0.1.0");
  const std::string l3 = Intf("10.1.1.1/24", 100), lo = Lo("0", LoV4({"1.1.1.1/32"}));
  const std::string running = Config(l3 + lo, ospf);
  const std::string core1 = OspfText("10.1.1.1/24", "5 area 1 (0.0.0.1)");
  RunCases(
      kAddr,
      {
          {"address changed", Config(Intf("10.1.1.2/24", 100) + lo, ospf), kCore1, core1, running},
          {"vlan changed", Config(Intf("10.1.1.1/24", 200) + lo, ospf), kCore1, "", running},
          {"ospf interface of this transaction", Config(Intf("", 100) + lo, ospf), kCore1, "",
           Config(l3, "")},
          {"loopback address deleted", Config(l3 + Lo("0", LoV4({})), ospf), kLo0,
           OspfText("1.1.1.1/32", "7 area 256 (0.0.1.0)"), running},
          {"lsr-id address added",
           Config(l3 + Lo("0", LoV4({"1.1.1.1/32", "1.1.1.2/32"})), ospf + kLdpLo), kLo0, "",
           Config(lo, kLdpLo)},
          // LDP runs second: its refusal text stands, its acceptance keeps -1.
          {"lsr-id deleted, also ospf", Config(l3 + Lo("0", LoV4({})), ospf + kLdpLo), kLo0, kLsrId,
           Config(lo, ospf + kLdpLo)},
          {"ospf refuses, ldp accepts", Config(Intf("", 100) + lo, ospf + kLdpLo), kCore1, core1,
           running},
          // The whole list's changes: the new entry sorts before the OSPF one.
          {"interface added before it",
           Config(Intf("10.0.9.1/24", 900, "access1") + l3 + lo, ospf + kLdpLo), kL3Path, "",
           Config(l3 + lo, ospf + kLdpLo)},
          {"its address changed, whole list", Config(Intf("10.1.1.2/24", 100) + lo, ospf), kL3Path,
           core1, running},
      });
}

TEST_F(CrossAddress, OspfTableWalkedInBatchesOf32) {
  // Instance 0 rows sort before the 40 fillers, instance 9 after them.
  std::string fillers;
  for (int i = 0; i < 40; ++i) fillers += Ospf("l3-f" + std::to_string(100 + i));
  const std::string row0 = Ospf("l3-core1", "ospf", 0, "0.0.0.1");
  const std::string row9 = Ospf("l3-core1", "ospf", 9, "0.0.0.9");
  const struct {
    const char *name;
    std::string rows;
    long objects_seen;  // a CDB session, and one running-list count, per object
  } cases[] = {
      {"match in the second batch", fillers + row9, 41},
      {"later batch overwrites", row0 + fillers + row9, 11},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Expect(Validate(Config(Intf("", 100), c.rows), kAddr, kCore1,
                    Config(Intf("10.1.1.1/24", 100), c.rows)),
           OspfText("10.1.1.1/24", "9 area 9 (0.0.0.9)"));
    const auto trace = tx_->Trace();
    EXPECT_EQ(std::count_if(trace.begin(), trace.end(),
                            [](const auto &e) { return e.call == "cdb_num_instances"; }),
              c.objects_seen);
  }
}

TEST_F(CrossLowerLayer, LdpAndOspfv3ProtectRunningVlan) {
  const auto config = [](int vlan, const std::string &internal) {
    return Config(Intf("10.1.1.1/24", vlan), internal);
  };
  const std::string both = kLdp + Ospfv3(1100), other_v3 = kLdp + Ospfv3(1200);
  RunCases(
      kVlan,
      {
          {"ldp, modified", config(200, kLdp), kCore1, LdpText("modified"), config(100, kLdp)},
          {"ldp, modified downwards", config(7, kLdp), kCore1, LdpText("modified"),
           config(100, kLdp)},
          {"ldp, deleted", config(0, kLdp), kCore1, LdpText("deleted"), config(100, kLdp)},
          {"ldp, unchanged", Config(Intf("10.1.1.2/24", 100), kLdp), kCore1, "", config(100, kLdp)},
          {"ldp, no running vlan", config(200, kLdp), kCore1, "", config(0, kLdp)},
          {"ospfv3, deleted", config(0, Ospfv3(1100)), kCore1, kV3Text, config(100, Ospfv3(1100))},
          // No committed VLAN, no index: not even the one of "no interface".
          {"ospfv3, no running vlan", config(200, Ospfv3(UINT32_MAX)), kCore1, "",
           config(0, Ospfv3(UINT32_MAX))},
          // OSPFv3 runs second: its text stands when both refuse.
          {"both refuse", config(200, both), kCore1, kV3Text, config(100, both)},
          {"ldp refuses, ospfv3 accepts", config(0, other_v3), kCore1, LdpText("deleted"),
           config(100, other_v3)},
      });
}

TEST(CrossValidation, FailedCdbSessionLeavesNothingOpen) {
  // The session fails while the LDP table's cursor and a fetched batch are open.
  auto tx = MakeTransaction(Config(Intf("10.1.1.1/24", 100), kLdp), Config(Intf("", 200), kLdp));
  tx->FailCdbSessions(true);
  EXPECT_THROW(ipapp::test::Run(*tx, validate, kVlan, kCore1), std::runtime_error);
  EXPECT_TRUE(tx->Open().empty());
}

TEST(CheckIntfIpPresence, FindsRouterIdCandidates) {
  const std::string no_vlan =
      "At least one active L3 interface with IPv4 address must be configured to be used as "
      "router-id for OSPFv3. Active L3 interfaces requires a configured lower-layer-if";
  const std::string untouched = "untouched";
  const struct {
    const char *name;
    std::string candidate;
    const char *list;
    std::string err;
    int result;
  } cases[] = {
      {"l3 without vlan", Intf("10.0.0.1/24", 0), kL3Path, no_vlan, -1},
      {"l3 without address", Intf("", 10), kL3Path, untouched, -1},
      {"second l3 qualifies", Intf("10.0.0.1/24", 0) + Intf("10.0.9.1/24", 9, "z"), kL3Path,
       no_vlan, 0},
      {"loopback", Lo("0", LoV4({})) + Lo("1", LoV4({"1.1.1.1/32"})), kLoPath, untouched, 0},
      {"loopback without address", Lo("0", LoV4({})), kLoPath, untouched, -1},
      {"list named without prefix", Intf("10.0.0.1/24", 10), "/config/interface/l3", untouched, -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    auto tx = MakeTransaction("", Interfaces(c.candidate));
    confd_trans_ctx *tctx = tx->Context("");
    std::string err = untouched;
    EXPECT_EQ(
        check_intf_ip_presence(kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque)),
                               tctx, c.list, err),
        c.result);
    EXPECT_EQ(err, c.err);
    // Success keeps its cursor open; nothing else stays open.
    EXPECT_EQ(tx->Open().cursors, c.result == 0 ? 1 : 0);
    EXPECT_EQ(tx->Open().dup_values, 0);
  }
}

TEST(CheckIntfIpPresenceDeathTest, ListWithoutStringKeyAborts) {
  auto tx = MakeTransaction("", Config("", Ospf("l3-a", "ospf", 5, "0.0.0.1")));
  confd_trans_ctx *tctx = tx->Context("");
  const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque));
  std::string err;
  EXPECT_DEATH(check_intf_ip_presence(sock, tctx, "/internal/ospf-interface-l3", err),
               "src/lib/validate_ip_addr_cross_ospf.cc.*\\(&mc_intf.keys\\[0\\]\\)->type == C_BUF");
}

}  // namespace
}  // namespace plugin_test
