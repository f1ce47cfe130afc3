// OSPF, OSPFv3 and LDP cross validation on running and candidate
// configurations, run through the dispatcher the way the host runs it.
#include <gtest/gtest.h>
#include <host_fixture.h>
#include <ip_app_validation.h>
#include <kxconfd.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using ipapp::test::MakeTransaction;

constexpr char kAddr[] = "ipv4_addr_prot_cross_validation";
constexpr char kVlan[] = "lower_layer_prot_cross_validation";
constexpr char kCore1[] = "/config/interface/ipapp:l3{core1}";
constexpr char kLo0[] = "/config/interface/ipapp:loopback{0}";

std::string E(const std::string &tag, const std::string &content) {
  return "<" + tag + ">" + content + "</" + tag + ">";
}
// The interface lists, then the /internal rows.
std::string Config(const std::string &interfaces, const std::string &internal) {
  return "<config xmlns=\"urn:ipapp:shellcfg\">" + E("interface", interfaces) + "</config>" +
         "<internal xmlns=\"urn:ipapp:shellcfg-internal\">" + internal + "</internal>";
}
std::string L3(const std::string &address, int vlan, const std::string &name = "core1") {
  return "<l3 xmlns=\"urn:ipapp:ipapp\">" + E("name", name) +
         (address.empty() ? "" : E("ipv4", E("address", E("ip", address)))) +
         (vlan ? E("lower-layer-if", E("vlan", std::to_string(vlan))) : "") + "</l3>";
}
std::string Lo(const std::string &name, const std::vector<std::string> &addresses) {
  std::string list;
  for (const std::string &a : addresses) list += E("address", E("ip", a));
  return "<loopback xmlns=\"urn:ipapp:ipapp\">" + E("name", name) + E("ipv4", list) + "</loopback>";
}
std::string Ospf(const std::string &table, int instance, const std::string &area,
                 const std::string &if_name, const std::string &leaf) {
  return E(table, E("instance", std::to_string(instance)) + E("area", area) +
                      E("if-name", if_name) + leaf);
}
std::string Ospf(int instance, const std::string &area, const std::string &if_name) {
  return Ospf("ospf-interface-l3", instance, area, if_name, E("ospf-pm-if-name", if_name));
}
std::string Ospfv3(uint32_t if_index) {  // for core1 in router 5, area 0.0.0.1
  return Ospf("ospfv3-interface-l3", 5, "0.0.0.1", "l3-core1",
              E("ospfv3-pm-if-index", std::to_string(if_index)));
}
std::string LdpL3(const std::string &if_name, const std::string &address) {
  return E("int-ldp-intf-l3", E("if-name", if_name) + E("lower-layer", "l3-vlan") +
                                  E("vlan", "100") + E("address", address));
}
const std::string kLdpLo =
    E("int-ldp-intf-lo", E("if-name", "loopback-0") + E("address", "1.1.1.1/32"));

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

// One callback through the dispatcher (gtest's own Run hides the fixture's).
ipapp::test::Outcome Check(ipapp::host::Transaction &tx, const char *opaque, const char *path) {
  return ipapp::test::Run(tx, validate, opaque, path);
}

struct Case {
  const char *name;
  std::string running, candidate;
  const char *opaque, *path;
  int result;
  std::string error;
};

void RunCases(const std::vector<Case> &cases) {
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    auto tx = MakeTransaction(c.running, c.candidate);
    const ipapp::test::Outcome out = Check(*tx, c.opaque, c.path);
    EXPECT_EQ(out.result, c.result);
    EXPECT_EQ(out.error, c.error);
    EXPECT_TRUE(tx->Open().empty());
  }
}

int CountCalls(const ipapp::host::Transaction &tx, const std::string &call) {
  const auto trace = tx.Trace();
  return std::count_if(trace.begin(), trace.end(),
                       [&](const ipapp::host::TraceEntry &e) { return e.call == call; });
}

TEST(CrossAddress, OspfAndLdpLsrIdProtectRunningAddresses) {
  const std::string ospf = Ospf(5, "0.0.0.1", "l3-core1") + Ospf(7, "0.0.1.0", "loopback-0");
  const std::string running = Config(L3("10.1.1.1/24", 100) + Lo("0", {"1.1.1.1/32"}), ospf);
  const auto candidate = [&](const std::string &l3, const std::vector<std::string> &lo,
                             const std::string &internal) {
    return Config(l3 + Lo("0", lo), internal);
  };
  const std::string core1 = OspfText("10.1.1.1/24", "5 area 1 (0.0.0.1)");
  const std::string lo0 = OspfText("1.1.1.1/32", "7 area 256 (0.0.1.0)");
  const std::string l3 = L3("10.1.1.1/24", 100);
  RunCases({
      {"address changed", running, candidate(L3("10.1.1.2/24", 100), {"1.1.1.1/32"}, ospf), kAddr,
       kCore1, -1, core1},
      {"vlan changed", running, candidate(L3("10.1.1.1/24", 200), {"1.1.1.1/32"}, ospf), kAddr,
       kCore1, 0, ""},
      {"ospf interface of this transaction", Config(l3, ""),
       candidate(L3("", 100), {"1.1.1.1/32"}, ospf), kAddr, kCore1, 0, ""},
      {"loopback address deleted", running, candidate(l3, {}, ospf), kAddr, kLo0, -1, lo0},
      {"lsr-id address added", Config(Lo("0", {"1.1.1.1/32"}), kLdpLo),
       candidate(l3, {"1.1.1.1/32", "1.1.1.2/32"}, ospf + kLdpLo), kAddr, kLo0, 0, ""},
      // LDP runs second: its refusal text stands, its acceptance keeps -1.
      {"lsr-id deleted, also ospf", Config(Lo("0", {"1.1.1.1/32"}), ospf + kLdpLo),
       candidate(l3, {}, ospf + kLdpLo), kAddr, kLo0, -1, kLsrId},
      {"ospf refuses, ldp accepts", running, candidate(L3("", 100), {"1.1.1.1/32"}, ospf + kLdpLo),
       kAddr, kCore1, -1, core1},
  });
}

TEST(CrossAddress, OspfTableWalkedInBatchesOf32) {
  // Instance 0 rows sort before the 40 fillers, instance 9 after them.
  std::string fillers;
  for (int i = 0; i < 40; ++i) fillers += Ospf(1, "0.0.0.0", "l3-f" + std::to_string(100 + i));
  const std::string row0 = Ospf(0, "0.0.0.1", "l3-core1"), row9 = Ospf(9, "0.0.0.9", "l3-core1");
  const struct {
    const char *name;
    std::string rows, router_area;
    int objects_seen;  // a CDB session, and one running-list count, per object
  } cases[] = {
      {"match in the second batch", fillers + row9, "9 area 9 (0.0.0.9)", 41},
      {"later batch overwrites", row0 + fillers + row9, "9 area 9 (0.0.0.9)", 11},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    auto tx = MakeTransaction(Config(L3("10.1.1.1/24", 100), c.rows), Config(L3("", 100), c.rows));
    const ipapp::test::Outcome out = Check(*tx, kAddr, kCore1);
    EXPECT_EQ(out.result, -1);
    EXPECT_EQ(out.error, OspfText("10.1.1.1/24", c.router_area));
    EXPECT_TRUE(tx->Open().empty());
    EXPECT_EQ(CountCalls(*tx, "cdb_num_instances"), c.objects_seen);
  }
}

TEST(CrossLowerLayer, LdpAndOspfv3ProtectRunningVlan) {
  const std::string ldp = LdpL3("l3-core1", "10.1.1.1/24");
  const auto config = [](int vlan, const std::string &internal) {
    return Config(L3("10.1.1.1/24", vlan), internal);
  };
  RunCases({
      {"ldp, modified", config(100, ldp), config(200, ldp), kVlan, kCore1, -1, LdpText("modified")},
      {"ldp, deleted", config(100, ldp), config(0, ldp), kVlan, kCore1, -1, LdpText("deleted")},
      {"ldp, unchanged", config(100, ldp), Config(L3("10.1.1.2/24", 100), ldp), kVlan, kCore1, 0,
       ""},
      {"ldp, no running vlan", config(0, ldp), config(200, ldp), kVlan, kCore1, 0, ""},
      {"ospfv3, deleted", config(100, Ospfv3(1100)), config(0, Ospfv3(1100)), kVlan, kCore1, -1,
       kV3Text},
      // No committed VLAN, no index: not even the one of "no interface".
      {"ospfv3, no running vlan", config(0, Ospfv3(UINT32_MAX)), config(200, Ospfv3(UINT32_MAX)),
       kVlan, kCore1, 0, ""},
      // OSPFv3 runs second: its text stands when both refuse.
      {"both refuse", config(100, ldp + Ospfv3(1100)), config(200, ldp + Ospfv3(1100)), kVlan,
       kCore1, -1, kV3Text},
      {"ldp refuses, ospfv3 accepts", config(100, ldp + Ospfv3(1200)),
       config(0, ldp + Ospfv3(1200)), kVlan, kCore1, -1, LdpText("deleted")},
  });
}

TEST(CrossValidation, FailedCdbSessionLeavesNothingOpen) {
  // The session fails while the LDP table's cursor and a fetched batch are open.
  const std::string ldp = LdpL3("l3-core1", "10.1.1.1/24");
  auto tx = MakeTransaction(Config(L3("10.1.1.1/24", 100), ldp), Config(L3("", 200), ldp));
  tx->FailCdbSessions(true);
  EXPECT_THROW(Check(*tx, kVlan, kCore1), std::runtime_error);
  EXPECT_TRUE(tx->Open().empty());
}

TEST(CheckIntfIpPresence, FindsRouterIdCandidates) {
  const std::string no_vlan =
      "At least one active L3 interface with IPv4 address must be configured to be used as "
      "router-id for OSPFv3. Active L3 interfaces requires a configured lower-layer-if";
  const std::string l3_list = "/config/interface/ipapp:l3", untouched = "untouched";
  const struct {
    const char *name;
    std::string candidate, list, err;
    int result;
  } cases[] = {
      {"l3 without vlan", Config(L3("10.0.0.1/24", 0), ""), l3_list, no_vlan, -1},
      {"l3 without address", Config(L3("", 10), ""), l3_list, untouched, -1},
      {"second l3 qualifies", Config(L3("10.0.0.1/24", 0) + L3("10.0.9.1/24", 9, "z"), ""), l3_list,
       no_vlan, 0},
      {"loopback", Config(Lo("0", {}) + Lo("1", {"1.1.1.1/32"}), ""),
       "/config/interface/ipapp:loopback", untouched, 0},
      {"loopback without address", Config(Lo("0", {}), ""), "/config/interface/ipapp:loopback",
       untouched, -1},
      {"list named without prefix", Config(L3("10.0.0.1/24", 10), ""), "/config/interface/l3",
       untouched, -1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    auto tx = MakeTransaction("", c.candidate);
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
  auto tx = MakeTransaction("", Config("", Ospf(5, "0.0.0.1", "l3-a")));
  confd_trans_ctx *tctx = tx->Context("");
  const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(tctx->vcb_opaque));
  std::string err;
  EXPECT_DEATH(check_intf_ip_presence(sock, tctx, "/internal/ospf-interface-l3", err),
               "src/lib/validate_ip_addr_cross_ospf.cc.*\\(&mc_intf.keys\\[0\\]\\)->type == C_BUF");
}

}  // namespace
