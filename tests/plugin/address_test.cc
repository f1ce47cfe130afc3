// "ipv4_addr_validation" and "ipv6_addr_validation" on the interface lists.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <random>
#include <tuple>
#include <utility>

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
          // The longest texts: 39 characters printed, 45 written with an IPv4 tail.
          {"long texts",
           Interfaces(L3("a", V6({"2001:db8:85a3:1234:5678:8a2e:370:7334/64"})) +
                      L3("b", V6({"2001:db8:85a3:1234::1/64"}))),
           kL3Path,
           "l3 a ipv6 address 2001:db8:85a3:1234:5678:8a2e:370:7334/64 overlaps with l3 b ipv6 "
           "address 2001:db8:85a3:1234::1/64."},
          {"longest texts",
           Interfaces(L3("a", V6({"ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255/128"})) +
                      Lo("0", V6({"ffff:ffff:ffff:ffff:ffff:ffff:ffff:0/112"}))),
           kLoPath,
           "loopback 0 ipv6 address ffff:ffff:ffff:ffff:ffff:ffff:ffff:0/112 overlaps with l3 a "
           "ipv6 address ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128."},
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

// Random interfaces whose prefixes often overlap, against the overlap rules
// written out plainly: the first pair of interfaces of the validated kind in
// key order (the later one second), then each interface of the other kinds
// (management, L3, loopback) against those of the validated kind; addresses
// in read order (L3 IPv4: primary, then the secondaries in address order), in
// one routing domain for IPv4 and in any for IPv6. The rules' pairwise walks
// are skipped when nothing can overlap; what they find must not change. Half
// the rounds plant what such a skip gets wrong first: identical /32 and /128
// addresses, nested and adjacent prefixes, and domains whose prefixes
// interleave.
struct RandomPrefix {
  int net;  // third IPv4 octet, third IPv6 group
  int len;
  int host;  // last IPv4 octet, last IPv6 group
  std::string v4() const {
    return "10.0." + std::to_string(net) + "." + std::to_string(host) + "/" + std::to_string(len);
  }
  std::string v6() const {
    char text[64];
    snprintf(text, sizeof text, "2001:db8:%x::%x/%d", net, host, len);
    return text;
  }
  std::tuple<int, int, int> key() const { return {net, host, len}; }
};

struct RandomIntf {
  std::string kind;  // "l3" or "loopback"
  std::string name;
  std::string vrf;               // "" for none
  std::vector<RandomPrefix> v4;  // L3: v4[0] the primary
  std::vector<RandomPrefix> v6;
};

// The first len bits of two addresses, as 128-bit numbers, agree.
bool Overlap(const RandomPrefix &a, const RandomPrefix &b, bool v6) {
  auto words = [&](const RandomPrefix &p) -> std::pair<uint64_t, uint64_t> {
    if (!v6) return {(0x0a000000ULL | p.net << 8 | p.host) << 32, 0};
    return {0x20010db800000000ULL | static_cast<uint64_t>(p.net) << 16,
            static_cast<uint64_t>(p.host)};
  };
  const auto [ah, al] = words(a);
  const auto [bh, bl] = words(b);
  const int len = std::min(a.len, b.len);
  if (len <= 64) return len == 0 || ((ah ^ bh) >> (64 - len)) == 0;
  return ah == bh && ((al ^ bl) >> (128 - len)) == 0;
}

// Sorts an interface's addresses into read order.
void ReadOrder(RandomIntf *intf) {
  auto by_key = [](const RandomPrefix &a, const RandomPrefix &b) { return a.key() < b.key(); };
  const bool primary = intf->kind == "l3" && !intf->v4.empty();
  std::sort(intf->v4.begin() + (primary ? 1 : 0), intf->v4.end(), by_key);
  std::sort(intf->v6.begin(), intf->v6.end(), by_key);
}

// Dense rounds: L3 interfaces only, host part 1.
std::vector<RandomIntf> DenseInterfaces(std::mt19937 *rng) {
  const char *const vrfs[] = {"", "", "red", "mgmt", "blue"};
  const int v4_lens[] = {16, 22, 24, 30, 32};
  const int v6_lens[] = {32, 44, 48, 64, 128};
  std::uniform_int_distribution<int> count(1, 4), pick(0, 4);
  std::vector<RandomIntf> intfs;
  const int n = count(*rng) + 1;
  for (int i = 0; i < n; ++i) {
    RandomIntf intf{"l3", std::string(1, static_cast<char>('a' + i)), vrfs[pick(*rng)], {}, {}};
    // Distinct third octets: no address twice on one interface.
    std::vector<int> nets(16);
    for (int k = 0; k < 16; ++k) nets[k] = k + 1;  // no zero group in IPv6 text
    std::shuffle(nets.begin(), nets.end(), *rng);
    const int v4 = count(*rng) - 1;
    const int v6 = count(*rng) - 1;
    for (int k = 0; k < v4; ++k) intf.v4.push_back({nets[k], v4_lens[pick(*rng)], 1});
    for (int k = 0; k < v6; ++k) intf.v6.push_back({nets[4 + k], v6_lens[pick(*rng)], 1});
    ReadOrder(&intf);
    intfs.push_back(intf);
  }
  return intfs;
}

// Edge rounds: L3 interfaces and loopbacks whose prefixes are mostly apart;
// about one in three repeats, nests in or adjoins one drawn before.
std::vector<RandomIntf> EdgeInterfaces(std::mt19937 *rng) {
  const char *const vrfs[] = {"", "red", "blue", "mgmt"};
  std::uniform_int_distribution<int> l3s(2, 4), loopbacks(0, 3), few(0, 2), pick4(0, 3), net(1, 60),
      half(0, 1), related(0, 2);
  std::vector<RandomPrefix> drawn4, drawn6;
  // A prefix for an interface: loopbacks take host routes only.
  auto draw = [&](bool v6, bool host_route, const std::vector<RandomPrefix> &own) {
    std::vector<RandomPrefix> &drawn = v6 ? drawn6 : drawn4;
    const int full = v6 ? 128 : 32;
    const int lens[] = {v6 ? 46 : 22, v6 ? 48 : 24, v6 ? 64 : 25, full};
    RandomPrefix p{net(*rng), host_route ? full : lens[pick4(*rng)], v6 ? 1 + half(*rng) : 1};
    if (!v6 && half(*rng)) p.host = 129;
    if (!drawn.empty() && related(*rng) == 0) {
      const RandomPrefix &base =
          drawn[std::uniform_int_distribution<size_t>(0, drawn.size() - 1)(*rng)];
      p.net = base.net;
      switch (pick4(*rng)) {
        case 0:  // the same address and length
          p = base;
          if (host_route) p.len = full;
          break;
        case 1:  // inside it
          p.host = base.host;
          p.len = std::max(p.len, base.len);
          break;
        case 2:  // the other half of its /25 (IPv4) or its neighbour (IPv6)
          p.host = v6 ? 3 - base.host : 130 - base.host;
          p.len = host_route ? full : (v6 ? 127 : 25);
          break;
        default:  // only the net in common
          break;
      }
    }
    for (const RandomPrefix &o : own) {
      if (o.net == p.net && o.host == p.host) return false;  // a duplicate, not an overlap
    }
    drawn.push_back(p);
    return true;
  };
  std::vector<RandomIntf> intfs;
  const int n_l3 = l3s(*rng);
  const int n_lo = loopbacks(*rng);
  for (int i = 0; i < n_l3 + n_lo; ++i) {
    const bool lo = i >= n_l3;
    RandomIntf intf{lo ? "loopback" : "l3",
                    lo ? std::to_string(i - n_l3) : std::string(1, static_cast<char>('a' + i)),
                    vrfs[pick4(*rng)],
                    {},
                    {}};
    const int v4 = few(*rng) + 1;
    const int v6 = few(*rng);
    for (int k = 0; k < v4; ++k) {
      if (draw(false, lo, intf.v4)) intf.v4.push_back(drawn4.back());
    }
    for (int k = 0; k < v6; ++k) {
      if (draw(true, lo, intf.v6)) intf.v6.push_back(drawn6.back());
    }
    ReadOrder(&intf);
    intfs.push_back(intf);
  }
  return intfs;
}

std::string RandomConfig(const std::vector<RandomIntf> &intfs) {
  std::string body;
  for (const RandomIntf &intf : intfs) {
    std::string v4;
    if (intf.kind == "l3") {
      for (size_t k = 1; k < intf.v4.size(); ++k) v4 += E("secondary", E("ip", intf.v4[k].v4()));
      if (!intf.v4.empty()) v4 = E("ipv4", E("address", E("ip", intf.v4[0].v4()) + v4));
    } else {
      for (const RandomPrefix &p : intf.v4) v4 += E("address", E("ip", p.v4()));
      if (!v4.empty()) v4 = E("ipv4", v4);
    }
    std::string v6;
    for (const RandomPrefix &p : intf.v6) v6 += E("address", E("ip", p.v6()));
    if (!v6.empty()) v6 = E("ipv6", v6);
    body += Entry(intf.kind, intf.name, v4 + v6 + (intf.vrf.empty() ? "" : Vrf(intf.vrf)));
  }
  return Interfaces(body);
}

// The refusal of IPv4 (v6 false) or IPv6 address validation on kind.
std::string Expected(const std::vector<RandomIntf> &intfs, const std::string &kind, bool v6) {
  auto vrf = [](const RandomIntf &i) { return i.vrf.empty() ? std::string("global") : i.vrf; };
  auto domain = [&](const RandomIntf &i) { return vrf(i) == "mgmt" ? "global" : vrf(i); };
  // a's addresses against b's.
  auto pair = [&](const RandomIntf &a, const RandomIntf &b) -> std::string {
    if (!v6 && domain(a) != domain(b)) return "";
    for (const RandomPrefix &x : v6 ? a.v6 : a.v4) {
      for (const RandomPrefix &y : v6 ? b.v6 : b.v4) {
        if (!Overlap(x, y, v6)) continue;
        const std::string family = v6 ? " ipv6 address " : " ipv4 address ";
        auto side = [&](const RandomIntf &i, const RandomPrefix &p) {
          return i.kind + " " + i.name + (v6 ? "" : " vrf " + vrf(i)) + family +
                 (v6 ? p.v6() : p.v4());
        };
        return side(a, x) + " overlaps with " + side(b, y) + ".";
      }
    }
    return "";
  };
  std::vector<const RandomIntf *> own;
  for (const RandomIntf &i : intfs) {
    if (i.kind == kind) own.push_back(&i);
  }
  for (size_t i = 0; i < own.size(); ++i) {
    for (size_t j = i + 1; j < own.size(); ++j) {
      if (std::string found = pair(*own[i], *own[j]); !found.empty()) return found;
    }
  }
  for (const char *other : {"mgmt", "l3", "loopback"}) {
    if (other == kind) continue;
    for (const RandomIntf &x : intfs) {
      if (x.kind != other) continue;
      for (const RandomIntf *y : own) {
        if (std::string found = pair(*y, x); !found.empty()) return found;
      }
    }
  }
  return "";
}

TEST_F(AddressTest, RandomOverlapsAreFoundAsThePairwiseRulesFindThem) {
  std::mt19937 rng(20240611);
  int refused = 0;
  int checked = 0;
  for (int round = 0; round < 3000; ++round) {
    const bool edge = round % 2 == 1;
    const std::vector<RandomIntf> intfs = edge ? EdgeInterfaces(&rng) : DenseInterfaces(&rng);
    const std::string config = RandomConfig(intfs);
    SCOPED_TRACE(config);
    bool first = true;
    for (const auto &[kind, path] : {std::pair<std::string, const char *>("l3", kL3Path),
                                     std::pair<std::string, const char *>("loopback", kLoPath)}) {
      if (!edge && kind == "loopback") continue;
      for (bool v6 : {false, true}) {
        const std::string expected = Expected(intfs, kind, v6);
        const char *opaque = v6 ? "ipv6_addr_validation" : "ipv4_addr_validation";
        Expect(first ? Validate(config, opaque, path) : Rerun(opaque, path), expected);
        first = false;
        refused += !expected.empty();
        ++checked;
      }
    }
  }
  // Both outcomes are well represented.
  EXPECT_GT(refused, checked / 4);
  EXPECT_LT(refused, checked * 3 / 4);
}

}  // namespace
}  // namespace plugin_test
