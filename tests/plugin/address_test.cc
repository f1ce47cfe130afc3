// "ipv4_addr_validation" and "ipv6_addr_validation" on the interface lists.
#include <algorithm>
#include <cstdio>
#include <random>
#include <tuple>

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

// Random L3 interfaces whose prefixes often overlap, against the overlap
// rules written out plainly: the first pair of interfaces in key order (the
// later one second), their addresses in read order (IPv4: primary, then the
// secondaries in address order), in one routing domain for IPv4 and in any
// for IPv6. The rules' pairwise walks are skipped when nothing can overlap;
// what they find must not change.
struct RandomPrefix {
  int net;  // third IPv4 octet, third IPv6 group; 1..16
  int len;
  std::string v4() const { return "10.0." + std::to_string(net) + ".1/" + std::to_string(len); }
  std::string v6() const {
    char text[48];
    snprintf(text, sizeof text, "2001:db8:%x::1/%d", net, len);
    return text;
  }
  std::tuple<int, int> key() const { return {net, len}; }
};

struct RandomIntf {
  std::string name;
  std::string vrf;               // "" for none
  std::vector<RandomPrefix> v4;  // v4[0] the primary
  std::vector<RandomPrefix> v6;
};

std::vector<RandomIntf> RandomInterfaces(std::mt19937 *rng) {
  const char *const vrfs[] = {"", "", "red", "mgmt", "blue"};
  const int v4_lens[] = {16, 22, 24, 30, 32};
  const int v6_lens[] = {32, 44, 48, 64, 128};
  std::uniform_int_distribution<int> count(1, 4), pick(0, 4), net(0, 15);
  std::vector<RandomIntf> intfs;
  const int n = count(*rng) + 1;
  for (int i = 0; i < n; ++i) {
    RandomIntf intf;
    intf.name = std::string(1, static_cast<char>('a' + i));
    intf.vrf = vrfs[pick(*rng)];
    // Distinct third octets: no address twice on one interface.
    std::vector<int> nets(16);
    for (int k = 0; k < 16; ++k) nets[k] = k + 1;  // no zero group in IPv6 text
    std::shuffle(nets.begin(), nets.end(), *rng);
    const int v4 = count(*rng) - 1;
    const int v6 = count(*rng) - 1;
    for (int k = 0; k < v4; ++k) intf.v4.push_back({nets[k], v4_lens[pick(*rng)]});
    for (int k = 0; k < v6; ++k) intf.v6.push_back({nets[4 + k], v6_lens[pick(*rng)]});
    auto by_key = [](const RandomPrefix &a, const RandomPrefix &b) { return a.key() < b.key(); };
    if (!intf.v4.empty()) std::sort(intf.v4.begin() + 1, intf.v4.end(), by_key);
    std::sort(intf.v6.begin(), intf.v6.end(), by_key);
    intfs.push_back(intf);
  }
  return intfs;
}

std::string RandomConfig(const std::vector<RandomIntf> &intfs) {
  std::string body;
  for (const RandomIntf &intf : intfs) {
    std::string v4;
    for (size_t k = 1; k < intf.v4.size(); ++k) v4 += E("secondary", E("ip", intf.v4[k].v4()));
    if (!intf.v4.empty()) v4 = E("ipv4", E("address", E("ip", intf.v4[0].v4()) + v4));
    std::string v6;
    for (const RandomPrefix &p : intf.v6) v6 += E("address", E("ip", p.v6()));
    if (!v6.empty()) v6 = E("ipv6", v6);
    body += L3(intf.name, v4 + v6 + (intf.vrf.empty() ? "" : Vrf(intf.vrf)));
  }
  return Interfaces(body);
}

bool Overlap(const RandomPrefix &a, const RandomPrefix &b, int bits, int net_shift) {
  const int len = std::min(a.len, b.len);
  // Addresses differ only in the net field, which starts net_shift bits
  // below the top; everything after it is equal.
  if (len <= net_shift) return true;
  const int net_bits = std::min(len - net_shift, bits);
  return (a.net >> (bits - net_bits)) == (b.net >> (bits - net_bits));
}

std::string ExpectedV4(const std::vector<RandomIntf> &intfs) {
  auto domain = [](const std::string &vrf) {
    return vrf.empty() || vrf == "mgmt" ? std::string("global") : vrf;
  };
  for (size_t i = 0; i < intfs.size(); ++i) {
    for (size_t j = i + 1; j < intfs.size(); ++j) {
      const RandomIntf &a = intfs[i];
      const RandomIntf &b = intfs[j];
      if (domain(a.vrf) != domain(b.vrf)) continue;
      for (const RandomPrefix &x : a.v4) {
        for (const RandomPrefix &y : b.v4) {
          if (!Overlap(x, y, 8, 16)) continue;
          const std::string va = a.vrf.empty() ? "global" : a.vrf;
          const std::string vb = b.vrf.empty() ? "global" : b.vrf;
          return "l3 " + a.name + " vrf " + va + " ipv4 address " + x.v4() + " overlaps with l3 " +
                 b.name + " vrf " + vb + " ipv4 address " + y.v4() + ".";
        }
      }
    }
  }
  return "";
}

std::string ExpectedV6(const std::vector<RandomIntf> &intfs) {
  for (size_t i = 0; i < intfs.size(); ++i) {
    for (size_t j = i + 1; j < intfs.size(); ++j) {
      for (const RandomPrefix &x : intfs[i].v6) {
        for (const RandomPrefix &y : intfs[j].v6) {
          if (!Overlap(x, y, 16, 32)) continue;
          return "l3 " + intfs[i].name + " ipv6 address " + x.v6() + " overlaps with l3 " +
                 intfs[j].name + " ipv6 address " + y.v6() + ".";
        }
      }
    }
  }
  return "";
}

TEST_F(AddressTest, RandomOverlapsAreFoundAsThePairwiseRulesFindThem) {
  std::mt19937 rng(20240611);
  int refused = 0;
  for (int round = 0; round < 150; ++round) {
    const std::vector<RandomIntf> intfs = RandomInterfaces(&rng);
    const std::string config = RandomConfig(intfs);
    SCOPED_TRACE(config);
    const std::string v4 = ExpectedV4(intfs);
    const std::string v6 = ExpectedV6(intfs);
    Expect(Validate(config, "ipv4_addr_validation", kL3Path), v4);
    Expect(Rerun("ipv6_addr_validation", kL3Path), v6);
    refused += !v4.empty() + !v6.empty();
  }
  // Both outcomes are well represented.
  EXPECT_GT(refused, 60);
  EXPECT_LT(refused, 240);
}

}  // namespace
}  // namespace plugin_test
