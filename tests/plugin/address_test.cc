// "ipv4_addr_validation" and "ipv6_addr_validation" on the interface lists.
#include "plugin_test.h"

namespace plugin_test {
namespace {

using AddressTest = PluginTest;

TEST_F(AddressTest, Ipv4Addresses) {
  auto two = [](const std::string &vrf1, const std::string &vrf2) {
    return Interfaces(L3("a", V4("10.0.0.1/24") + vrf1) + L3("b", V4("10.0.0.2/24") + vrf2));
  };
  auto overlap = [](const std::string &vrf1, const std::string &vrf2) {
    return "l3 a vrf " + vrf1 + " ipv4 address 10.0.0.1/24 overlaps with l3 b vrf " + vrf2 +
           " ipv4 address 10.0.0.2/24.";
  };
  const std::string mgmt_pair =
      Interfaces(L3("a", V4("192.168.1.1/24")) + Mgmt("0", V4("192.168.1.10/24") + Vrf("mgmt")));
  RunCases(
      "ipv4_addr_validation",
      {
          {"network", Interfaces(L3("a", V4("10.0.0.0/24"))), kL3Path,
           "l3 a ipv4 address 10.0.0.0/24 cannot be configured as network address."},
          {"broadcast, secondary", Interfaces(L3("a", V4("10.0.0.1/24", {"10.0.1.255/24"}))),
           kL3Path, "l3 a ipv4 address 10.0.1.255/24 cannot be configured as broadcast address."},
          {"/31 and /32 exempt",
           Interfaces(L3("a", V4("10.0.0.0/31", {"10.0.1.1/31", "10.0.2.0/32"}))), kL3Path, ""},
          {"one subnet twice on an interface",
           Interfaces(L3("a", V4("10.0.0.1/24", {"10.0.0.2/24"}))), kL3Path, ""},
          {"duplicate, other length", Interfaces(L3("a", V4("10.1.1.1/24", {"10.1.1.1/16"}))),
           kL3Path, "l3 a has duplicated IPv4 address 10.1.1.1"},
          {"overlap, global", two("", ""), kL3Path, overlap("global", "global")},
          {"overlap, red", two(Vrf("red"), Vrf("red")), kL3Path, overlap("red", "red")},
          {"global and mgmt share", two("", Vrf("mgmt")), kL3Path, overlap("global", "mgmt")},
          {"red and global", two(Vrf("red"), ""), kL3Path, ""},
          {"red and blue", two(Vrf("red"), Vrf("blue")), kL3Path, ""},
          // Across kinds the validated kind is named first.
          {"cross-kind on l3", mgmt_pair, kL3Path,
           "l3 a vrf global ipv4 address 192.168.1.1/24 overlaps with mgmt 0 vrf mgmt ipv4 address "
           "192.168.1.10/24."},
          {"cross-kind on mgmt", mgmt_pair, kMgmtPath,
           "mgmt 0 vrf mgmt ipv4 address 192.168.1.10/24 overlaps with l3 a vrf global ipv4 "
           "address 192.168.1.1/24."},
      });
}

TEST_F(AddressTest, Ipv4FirstFaultWins) {
  const std::string ldp = Internal(LdpL3("l3-a", 100, "10.1.1.1/24"));
  RunCases(
      "ipv4_addr_validation",
      {
          {"validity before an earlier duplicate",
           Interfaces(L3("a", V4("10.1.1.1/24", {"10.1.1.1/16", "10.2.0.0/24"}))), kL3Path,
           "l3 a ipv4 address 10.2.0.0/24 cannot be configured as network address."},
          {"a's overlap before b's network address",
           Interfaces(L3("a", V4("10.0.0.1/24")) + L3("b", V4("10.0.0.0/16"))), kL3Path,
           "l3 a vrf global ipv4 address 10.0.0.1/24 overlaps with l3 b vrf global ipv4 address "
           "10.0.0.0/16."},
          {"overlap before next hop",
           Interfaces(L3("a", V4("10.0.0.1/24")) + L3("b", V4("10.0.0.2/24"))) +
               Routes(Route("172.16.0.0", 16, "10.0.0.1")),
           kL3Path,
           "l3 a vrf global ipv4 address 10.0.0.1/24 overlaps with l3 b vrf global ipv4 address "
           "10.0.0.2/24."},
          {"next hop",
           Interfaces(L3("a", V4("10.0.0.1/24"))) + Routes(Route("172.16.0.0", 16, "10.0.0.1")),
           kL3Path,
           "l3 a ipv4 address 10.0.0.1/24 and static route 172.16.0.0/16 next-hop 10.0.0.1 cannot "
           "have address conflict."},
          {"cross-kind last",
           Interfaces(L3("a", V4("192.168.1.1/24")) + L3("b", V4("10.0.0.0/24")) +
                      Mgmt("0", V4("192.168.1.10/24"))),
           kL3Path, "l3 b ipv4 address 10.0.0.0/24 cannot be configured as network address."},
          {"addresses before LDP", Interfaces(L3("a", V4("10.1.1.0/24"))) + ldp, kL3Path,
           "l3 a ipv4 address 10.1.1.0/24 cannot be configured as network address."},
          {"then LDP", Interfaces(L3("a", V4("10.1.1.2/24"))) + ldp, kL3Path,
           "IPv4 address 10.1.1.1/24 cannot be modified nor deleted when configured with LDP "
           "interface."},
      });
}

TEST_F(AddressTest, Ipv6Addresses) {
  RunCases(
      "ipv6_addr_validation",
      {
          {"no network address test", Interfaces(L3("a", V6({"2001:db8::/64"}))), kL3Path, ""},
          {"duplicate, other length", Interfaces(L3("a", V6({"2001:db8::1/64", "2001:db8::1/48"}))),
           kL3Path, "l3 a has duplicated IPv6 address 2001:db8::1"},
          {"overlap across VRFs",
           Interfaces(L3("a", V6({"2001:db8::1/64"}) + Vrf("red")) +
                      L3("b", V6({"2001:db8::2/64"}) + Vrf("blue"))),
           kL3Path,
           "l3 a ipv6 address 2001:db8::1/64 overlaps with l3 b ipv6 address 2001:db8::2/64."},
          {"next hop",
           Interfaces(Lo("0", V6({"2001:db8::1/128"}))) +
               Routes(Route("2001:db8:1::", 48, "2001:db8::1")),
           kLoPath,
           "loopback 0 ipv6 address 2001:db8::1/128 and static route 2001:db8:1::/48 next-hop "
           "2001:db8::1 cannot have address conflict."},
          {"IPv4 not looked at", Interfaces(L3("a", V4("10.0.0.0/24"))), kL3Path, ""},
      });
}

TEST_F(AddressTest, KeypathOfNoInterfaceKindReadsNothing) {
  tx_ = MakeTransaction("", Interfaces(L3("a", V4("10.0.0.0/24"))));
  confd_value_t newval{};
  newval.type = C_NOEXISTS;
  confd_hkeypath_t empty{};
  confd_hkeypath_t container = tx_->Keypath("/config/interface");
  for (const char *opaque : {"ipv4_addr_validation", "ipv6_addr_validation"}) {
    for (confd_hkeypath_t *kp : {&empty, &container}) {
      SCOPED_TRACE(std::string(opaque) + " len " + std::to_string(kp->len));
      tx_->ClearError();
      tx_->ClearTrace();
      EXPECT_EQ(validate(tx_->Context(opaque), kp, &newval), -1);
      EXPECT_EQ(tx_->ErrorText(), "invalid interface being handled by IP-App validation");
      ASSERT_EQ(tx_->Trace().size(), 1u);  // setting the text is the only call
      EXPECT_EQ(tx_->Trace()[0].call, "confd_trans_seterr");
    }
  }
}

TEST_F(AddressTest, UnspecifiedAddressesAreLoggedOrDropped) {
  const char *v4 = "ipv4_addr_validation";
  const struct {
    const char *what, *opaque, *path;
    std::string candidate, fault;  // kind function file line message
  } cases[] = {
      {"L3 primary: silent", v4, kL3Path, Interfaces(L3("a", V4("0.0.0.0/24"))), ""},
      {"mgmt primary", v4, kMgmtPath, Interfaces(Mgmt("0")),
       "0 ReadConfig src/lib/config 452 Unspecified IPv4 address for key '0'"},
      {"loopback list", v4, kLoPath, Interfaces(Lo("0", LoV4({"0.0.0.0/32", "1.1.1.1/32"}))),
       "0 get_intf_ipv4_addr_mask_list src/lib/config 120 Unspecified IPv4 address for key "
       "'0.0.0.0/32'"},
      {"IPv6 list", "ipv6_addr_validation", kL3Path, Interfaces(L3("a", V6({"::/0"}))),
       "0 get_intf_ipv6_addr_mask_list src/lib/config 195 Unspecified IPv6 address for key "
       "'::/0'"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Expect(Validate(c.candidate, c.opaque, c.path), "");  // faults never refuse
    std::string faults;
    for (const ipapp::host::Fault &f : tx_->Faults()) {
      faults += std::to_string(f.kind) + " " + f.function + " " + f.file + " " +
                std::to_string(f.line) + " " + f.message;
    }
    EXPECT_EQ(faults, c.fault);
  }
}

}  // namespace
}  // namespace plugin_test
