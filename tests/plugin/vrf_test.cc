// "intf_vrf_validation" on the l3 and loopback lists.
#include "ipapp_ns.h"
#include "plugin_test.h"

namespace plugin_test {
namespace {

using VrfTest = PluginTest;

// L3 interface a on VLAN 100 ("" for none).
std::string A(const std::string &extra, const std::string &addr = "10.0.0.1/24") {
  return Interfaces(L3("a", (addr.empty() ? "" : V4(addr)) + extra));
}

// Each OSPF/OSPFv3 lookup that finds nothing leaves its empty XPath result
// unfreed (the last number of a case): on the element, one leak per lookup.
TEST_F(VrfTest, L3InterfaceUsedByAProtocol) {
  const std::string ldp = Internal(LdpL3("l3-a", 100, "10.0.0.1/24"));
  const std::string all =
      Internal(Ospf("l3-a") + Ospf("l3-a", "ospfv3") + LdpL3("l3-a", 100, "10.0.0.1/24"));
  const std::string vlan = Vlan(100), red = Vlan(100) + Vrf("red");
  auto text = [](const char *protocol) {
    return std::string("l3 a is configured in ") + protocol +
           " and cannot be associated with a VRF";
  };
  RunCases(
      "intf_vrf_validation",
      {
          {"OSPF first", A(red) + all, kL3Path, text("OSPF"), A(vlan) + all},
          {"OSPFv3 before MPLS",
           A(red) + Internal(Ospf("l3-a", "ospfv3") + LdpL3("l3-a", 100, "10.0.0.1/24")), kL3Path,
           text("OSPFv3"), A(vlan), 1},
          {"MPLS", A(red) + ldp, kL3Path, text("MPLS"), A(vlan) + ldp, 2},
          {"created in a VRF", A(red) + ldp, kL3Path, text("MPLS"), "", 2},
          {"LDP on another VLAN", A(red) + Internal(LdpL3("l3-a", 200, "10.0.0.1/24")), kL3Path, "",
           A(vlan), 2},
          {"no lower layer", A(Vrf("red")) + ldp, kL3Path, "", A("") + ldp, 2},
          {"no address", A(red, "") + ldp, kL3Path, "", A(vlan, "") + ldp, 2},
          {"OSPF on another interface", A(red) + Internal(Ospf("l3-b")), kL3Path, "", A(vlan), 2},
          {"leaving a VRF", A(vlan) + all, kL3Path, "", A(red) + all},
          {"address check first", A(red, "10.0.0.0/24") + all, kL3Path,
           "l3 a ipv4 address 10.0.0.0/24 cannot be configured as network address.", A(vlan)},
      });
}

TEST_F(VrfTest, LoopbackUsedByAProtocol) {
  auto lo = [](const std::string &internal) {
    return Interfaces(Lo("0", LoV4({"1.1.1.1/32", "2.2.2.2/32"}) + Vrf("red"))) +
           Internal(internal);
  };
  const std::string before = Interfaces(Lo("0", LoV4({"1.1.1.1/32", "2.2.2.2/32"})));
  auto text = [](const char *protocol) {
    return std::string("loopback 0 is configured in ") + protocol +
           " and cannot be associated with a VRF";
  };
  RunCases(
      "intf_vrf_validation",
      {
          // Found in the l3 OSPF tables under the stored name.
          {"OSPF", lo(Ospf("loopback-0")), kLoPath, text("OSPF"), before},
          {"OSPFv3", lo(Ospf("loopback-0", "ospfv3")), kLoPath, text("OSPFv3"), before, 1},
          {"MPLS, second address", lo(LdpLo("loopback-0", "2.2.2.2/32")), kLoPath, text("MPLS"),
           before, 2},
          {"MPLS, other address", lo(LdpLo("loopback-0", "3.3.3.3/32")), kLoPath, "", before, 2},
      });
}

TEST_F(VrfTest, OnlyAWholeListGetsTheVrfChecks) {
  const std::string ospf = "l3 a is configured in OSPF and cannot be associated with a VRF";
  const std::string network =
      "l3 a ipv4 address 10.0.0.0/24 cannot be configured as network address.";
  struct {
    int len;
    uint32_t tag;  // of the innermost element
    const char *addr;
    std::string error;
  } cases[] = {
      {3, ipapp_l3, "10.0.0.1/24", ospf},    {4, ipapp_l3, "10.0.0.1/24", ""},
      {6, ipapp_l3, "10.0.0.1/24", ""},      {5, ipapp_l3, "10.0.0.1/24", ""},
      {3, ipapp_mgmt, "10.0.0.1/24", ""},    {3, ipapp_vrf, "10.0.0.1/24", ""},
      {4, ipapp_l3, "10.0.0.0/24", network}, {6, ipapp_l3, "10.0.0.0/24", network},
      {4, ipapp_vrf, "10.0.0.0/24", ""},
  };
  confd_value_t newval{};
  newval.type = C_NOEXISTS;
  for (const auto &c : cases) {
    SCOPED_TRACE("len " + std::to_string(c.len) + " tag " + std::to_string(c.tag) + " " + c.addr);
    const std::string internal = Internal(Ospf("l3-a"));
    tx_ = MakeTransaction(A(Vlan(100), c.addr) + internal,
                          A(Vlan(100) + Vrf("red"), c.addr) + internal);
    confd_hkeypath_t kp{};
    kp.len = c.len;
    for (int i = 0; i < c.len; ++i) {
      CONFD_SET_XMLTAG(&kp.v[i][0], i == 0 ? c.tag : ipapp_address, ipapp__ns);
      CONFD_SET_NOEXISTS(&kp.v[i][1]);
    }
    EXPECT_EQ(validate(tx_->Context("intf_vrf_validation"), &kp, &newval),
              c.error.empty() ? 0 : -1);
    EXPECT_EQ(tx_->ErrorText(), c.error);
    EXPECT_TRUE(tx_->Open().empty());
  }
}

}  // namespace
}  // namespace plugin_test
