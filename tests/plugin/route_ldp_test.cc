// "ipv4_addr_route_validation", "ipv6_addr_route_validation",
// "static_route_l3_intf_validation", "ldp_interface_validation", and what
// the model-based handlers read.
#include <algorithm>
#include <stdexcept>

#include "plugin_test.h"

namespace plugin_test {
namespace {

using RouteTest = PluginTest;

// ipv4 and ipv6 routes without next hop: counted, not kept.
std::string NoHopRoutes(int ipv4, int ipv6) {
  std::string table;
  for (int i = 0; i < ipv4; ++i) {
    table += Route("10." + std::to_string(i / 256) + "." + std::to_string(i % 256) + ".0", 24,
                   "0.0.0.0");
  }
  for (int i = 0; i < ipv6; ++i) {
    char net[32];
    snprintf(net, sizeof net, "2001:db8:%x::", i);
    table += Route(net, 48, "::");
  }
  return table;
}

TEST_F(RouteTest, LimitWeighsIpv6RoutesTwice) {
  const std::string limit = "The maximum number of available static routes was exceeded.";
  struct {
    int ipv4, ipv6;
    bool refused;
  } cases[] = {{1000, 0, false}, {1001, 0, true}, {0, 500, false}, {1, 500, true}, {998, 1, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.ipv4) + " IPv4, " + std::to_string(c.ipv6) + " IPv6");
    // Both readings count the whole table.
    Expect(Validate(Routes(NoHopRoutes(c.ipv4, c.ipv6)), "ipv4_addr_route_validation", kRoutePath),
           c.refused ? limit : "");
    Expect(Rerun("ipv6_addr_route_validation", kRoutePath), c.refused ? limit : "");
  }
  // The limit check runs after a failed next-hop check and its text stands.
  Expect(Validate(Interfaces(L3("a", V4("192.0.2.1/24"))) +
                      Routes(NoHopRoutes(1001, 0) + Route("198.51.100.0", 24, "192.0.2.1")),
                  "ipv4_addr_route_validation", kRoutePath),
         limit);
}

TEST_F(RouteTest, NextHopConflictsInTheSameVrfOnly) {
  const std::string red =
      Internal(VrfName(1, "red")) + Routes(Route("192.168.0.0", 16, "10.0.0.1", 1));
  const std::string global = Routes(Route("192.168.0.0", 16, "10.0.0.1"));
  const std::string conflict =
      "l3 a ipv4 address 10.0.0.1/24 and static route 192.168.0.0/16 next-hop 10.0.0.1 cannot "
      "have address conflict.";
  RunCases(
      "ipv4_addr_route_validation",
      {
          {"both red", Interfaces(L3("a", V4("10.0.0.1/24") + Vrf("red"))) + red, kRoutePath,
           conflict},
          {"route red", Interfaces(L3("a", V4("10.0.0.1/24"))) + red, kRoutePath, ""},
          {"route without VRF name is global", Interfaces(L3("a", V4("10.0.0.1/24"))) + global,
           kRoutePath, conflict},
          {"no mgmt equivalence", Interfaces(L3("a", V4("10.0.0.1/24") + Vrf("mgmt"))) + global,
           kRoutePath, ""},
          {"loopback /32", Interfaces(Lo("0", LoV4({"10.0.0.1/32"}))) + global, kRoutePath,
           "loopback 0 ipv4 address 10.0.0.1/32 and static route 192.168.0.0/16 next-hop "
           "10.0.0.1 cannot have address conflict."},
          // Lengths read as written, up to the family's ends.
          {"host route",
           Interfaces(L3("a", V4("10.0.0.1/24"))) + Routes(Route("192.168.0.7", 32, "10.0.0.1")),
           kRoutePath,
           "l3 a ipv4 address 10.0.0.1/24 and static route 192.168.0.7/32 next-hop 10.0.0.1 "
           "cannot have address conflict."},
      });
  RunCases("ipv6_addr_route_validation",
           {{"ipv6 host route",
             Interfaces(L3("a", V6({"2001:db8::1/64"}))) +
                 Routes(Route("2001:db8:5::7", 128, "2001:db8::1")),
             kRoutePath,
             "l3 a ipv6 address 2001:db8::1/64 and static route 2001:db8:5::7/128 next-hop "
             "2001:db8::1 cannot have address conflict."}});
}

TEST_F(RouteTest, OutputInterfaceKeepsItsLowerLayer) {
  const std::string v4 = Routes(Route("192.168.0.0", 16, "10.0.0.1")) +
                         RouteIntf("192.168.0.0", 16, "10.0.0.1", "l3-a");
  const std::string v6 = Routes(Route("2001:db8:1::", 48, "2001:db8::1")) +
                         RouteIntf("2001:db8:1::", 48, "2001:db8::1", "l3-a");
  const std::string refused =
      "l3 a is being used by a static route. Lower-layer-if cannot be removed from this interface";
  RunCases("static_route_l3_intf_validation",
           {
               {"IPv4 route", Interfaces(L3("a")) + v4, kL3Path, refused},
               {"lower layer kept", Interfaces(L3("a", Vlan(100))) + v4, kL3Path, ""},
               {"IPv6 route", Interfaces(L3("a")) + v6, kL3Path, refused},
               {"other interface", Interfaces(L3("b")) + v4, kL3Path, ""},
           });

  // A stored name too short to rewrite throws; nothing stays open.
  tx_ = MakeTransaction("", Routes(Route("192.168.0.0", 16, "10.0.0.1")) +
                                RouteIntf("192.168.0.0", 16, "10.0.0.1", "x"));
  EXPECT_THROW(ipapp::test::Run(*tx_, validate, "ipv4_addr_route_validation", kRoutePath),
               std::out_of_range);
  EXPECT_TRUE(tx_->Open().empty());
}

TEST_F(RouteTest, LdpAddressAndSecondaries) {
  const std::string ldp = Internal(LdpL3("l3-a", 100, "10.1.1.1/24"));
  const std::string unspecified = Internal(LdpL3("l3-a", 100, "0.0.0.0/0"));
  const std::string changed =
      "IPv4 address 10.1.1.1/24 cannot be modified nor deleted when configured with LDP interface.";
  const std::string secondary =
      "secondary IPv4 address configuration and LDP interface assignment are not supported for "
      "the same interface l3 a.";
  RunCases("ldp_interface_validation",
           {
               {"unchanged", Interfaces(L3("a", V4("10.1.1.1/24"))) + ldp, kLdpPath, ""},
               {"other address", Interfaces(L3("a", V4("10.1.1.2/24"))) + ldp, kLdpPath, changed},
               {"other length", Interfaces(L3("a", V4("10.1.1.1/25"))) + ldp, kLdpPath, changed},
               {"removed", Interfaces(L3("a")) + ldp, kLdpPath, changed},
               {"secondary", Interfaces(L3("a", V4("10.1.1.1/24", {"10.2.2.2/24"}))) + ldp,
                kLdpPath, secondary},
               {"address before secondary",
                Interfaces(L3("a", V4("10.1.1.2/24", {"10.2.2.2/24"}))) + ldp, kLdpPath, changed},
               {"not in LDP", Interfaces(L3("b", V4("10.1.1.2/24", {"10.2.2.2/24"}))) + ldp,
                kLdpPath, ""},
               {"unspecified record", Interfaces(L3("a", V4("10.1.1.2/24"))) + unspecified,
                kLdpPath, ""},
               {"unspecified record, secondary",
                Interfaces(L3("a", V4("10.1.1.2/24", {"10.2.2.2/24"}))) + unspecified, kLdpPath,
                secondary},
               {"stored name without hyphen",
                Interfaces(L3("a", V4("10.1.1.2/24"))) + Internal(LdpL3("a", 100, "10.1.1.1/24")),
                kLdpPath, ""},
           });
}

// Position in the trace of the first data-store call on a path beginning with
// prefix; the trace's length when there is none.
size_t First(const ipapp::host::Transaction &tx, const std::string &prefix) {
  const auto trace = tx.Trace();
  return std::find_if(trace.begin(), trace.end(),
                      [&](const auto &e) { return e.path.rfind(prefix, 0) == 0; }) -
         trace.begin();
}

TEST_F(RouteTest, ReadingOrder) {
  tx_ = MakeTransaction(
      "", Interfaces(L3("a", V4("10.0.0.1/24") + V6({"2001:db8::1/64"}) + Vlan(100)) +
                     Lo("0", LoV4({"1.1.1.1/32"})) + Mgmt("0", V4("192.168.1.10/24"))) +
              Internal(LdpL3("l3-a", 100, "10.0.0.1/24")) +
              Routes(Route("172.16.0.0", 16, "10.0.0.9")));

  Expect(Rerun("ipv4_addr_validation", kL3Path), "");
  EXPECT_LT(First(*tx_, kLdpPath), First(*tx_, kRoutePath));
  EXPECT_LT(First(*tx_, kRoutePath), First(*tx_, kL3Path));

  tx_->ClearTrace();
  Expect(Rerun("ipv6_addr_validation", kL3Path), "");
  EXPECT_EQ(First(*tx_, kLdpPath), tx_->Trace().size());

  // Two readings (IPv4, IPv6) of everything but LDP.
  tx_->ClearTrace();
  Expect(Rerun("static_route_l3_intf_validation", kL3Path), "");
  std::vector<std::string> calls;
  for (const ipapp::host::TraceEntry &e : tx_->Trace()) calls.push_back(e.call + " " + e.path);
  for (const char *list : {kLdpPath, kRoutePath, kL3Path, kLoPath, kMgmtPath}) {
    EXPECT_EQ(std::count(calls.begin(), calls.end(), std::string("maapi_exists ") + list),
              list == kLdpPath ? 1 : 2)
        << list;
  }
}

}  // namespace
}  // namespace plugin_test
