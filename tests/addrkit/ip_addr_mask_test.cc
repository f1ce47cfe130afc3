#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <random>
#include <stdexcept>

#include "addrkit/ip_addr.h"

namespace addrkit {
namespace {

TEST(AddrMaskTest, TextRoundTripsAndKeepsHostBits) {
  for (const char *t : {"10.1.1.1/24", "0.0.0.0/0", "255.255.255.255/32"}) {
    EXPECT_EQ(IPv4AddrMask(t).to_string(), t);
    EXPECT_EQ(IPv4AddrMask(t).addr_prefix_len(), t);
  }
  for (const char *t : {"2001:db8::1/64", "::/0", "ff02::1/128", "2001:db8::1%7/48"}) {
    EXPECT_EQ(IPv6AddrMask(t).to_string(), t);
  }
  std::mt19937 rng(7);
  for (int i = 0; i < 500; ++i) {
    const IPv4AddrMask m4(IPv4Addr(static_cast<uint32_t>(rng())), rng() % 33);
    ASSERT_TRUE(IPv4AddrMask(m4.to_string()) == m4) << m4.to_string();
    IPv6Addr::Bytes b;
    for (auto &x : b) x = static_cast<uint8_t>(rng() % 3 ? 0 : rng());
    const IPv6AddrMask m6(IPv6Addr(b, rng() % 3), rng() % 129);
    ASSERT_TRUE(IPv6AddrMask(m6.to_string()) == m6) << m6.to_string();
  }
  EXPECT_TRUE(IPv4AddrMask().IsUnspecified());
  EXPECT_TRUE(IPv6AddrMask("::%3/0").IsUnspecified());
  EXPECT_FALSE(IPv6AddrMask("fe80::1%3/64") == IPv6AddrMask("fe80::1%4/64"));
}

TEST(AddrMaskTest, RejectsMalformedTextNamingIt) {
  for (const char *t : {"10.0.0.1", "10.0.0.1/", "10.0.0.1/33", "10.0.0.1/280", "10.0.0.1/-1",
                        "10.0.0.1/+8", "10.0.0.1/ 8", "10.0.0.1/8 ", " 10.0.0.1/8", "10.0.0/8",
                        "10.0.0.1/8/8", "/8", "::1/8", "10.0.0.1/99999999999999999999"}) {
    SCOPED_TRACE(t);
    try {
      ADD_FAILURE() << "accepted as " << IPv4AddrMask(t).to_string();
    } catch (const std::invalid_argument &e) {
      EXPECT_NE(std::string(e.what()).find('"' + std::string(t) + '"'), std::string::npos);
    }
  }
  for (const char *t :
       {"::1", "::1/129", "::1/384", "10.0.0.1/8", "::1/64x", "::1 /64", "fe80::1%lo/64/64"}) {
    EXPECT_THROW(IPv6AddrMask{t}, std::invalid_argument) << t;
  }
  EXPECT_EQ(IPv4AddrMask("10.0.0.1/08").prefix_len(), 8u);
  EXPECT_EQ(IPv6AddrMask("::1/128").prefix_len(), 128u);

  IPv4AddrMask m("10.1.1.1/24");
  EXPECT_THROW(m.set_prefix_len(33), std::invalid_argument);
  EXPECT_EQ(m.to_string(), "10.1.1.1/24");
  EXPECT_THROW(IPv6AddrMask(IPv6Addr(), 256 + 64), std::invalid_argument);
}

TEST(AddrMaskTest, NetworkAndBroadcastAtEveryLength) {
  const uint32_t host_word = 0xC0A85A7Bu;  // 192.168.90.123
  for (unsigned len = 0; len <= 32; ++len) {
    SCOPED_TRACE(len);
    const uint32_t mask = static_cast<uint32_t>(~uint64_t{0} << (32 - len));
    const IPv4AddrMask m(IPv4Addr(htonl(host_word)), len);
    const IPv4AddrMask net(IPv4Addr(htonl(host_word & mask)), len);
    const IPv4AddrMask bcast(IPv4Addr(htonl(host_word | ~mask)), len);
    EXPECT_EQ(m.prefix_len(), len);
    EXPECT_EQ(ntohl(m.mask().addr()), mask);
    EXPECT_TRUE(m.network() == net.addr() && m.broadcast() == bcast.addr());
    EXPECT_TRUE(net.IsNetworkAddress() && bcast.IsBroadcastAddress());
    EXPECT_EQ(m.IsNetworkAddress(), m == net);
    EXPECT_EQ(m.IsBroadcastAddress(), m == bcast);
    // Only a /32 (no host bits) is both at once.
    EXPECT_EQ(net.IsBroadcastAddress(), len == 32);
    EXPECT_EQ(bcast.IsNetworkAddress(), len == 32);
  }
  const IPv6AddrMask m6("2001:db8:ffff::1%2/33");
  EXPECT_TRUE(m6.network() == IPv6Addr(IPv6Addr("2001:db8:8000::").bytes(), 2));
}

template <class Mask>
void ExpectOverlap(const char *a, const char *b, bool want) {
  SCOPED_TRACE(std::string(a) + " " + b);
  EXPECT_EQ(Mask(a).Overlap(Mask(b)), want);
  EXPECT_EQ(Mask(b).Overlap(Mask(a)), want);
}

TEST(AddrMaskTest, OverlapMeansSharedAddresses) {
  ExpectOverlap<IPv4AddrMask>("10.0.0.0/8", "10.1.0.0/16", true);
  ExpectOverlap<IPv4AddrMask>("10.0.0.0/16", "10.1.0.0/16", false);
  ExpectOverlap<IPv4AddrMask>("10.1.1.1/24", "10.1.1.200/24", true);
  ExpectOverlap<IPv4AddrMask>("0.0.0.0/0", "203.0.113.9/32", true);
  ExpectOverlap<IPv6AddrMask>("2001:db8::/32", "2001:db8:1::1/64", true);
  ExpectOverlap<IPv6AddrMask>("2001:db8::/33", "2001:db8:8000::/33", false);
  ExpectOverlap<IPv6AddrMask>("fe80::1%3/64", "fe80::2%4/64", true);  // zones not compared
  ExpectOverlap<IPv6AddrMask>("2001:db8::1/127", "2001:db8::/128", true);
  ExpectOverlap<IPv6AddrMask>("2001:db8::1/128", "2001:db8::/128", false);
  // Random pairs within one /24, so that both outcomes occur.
  std::mt19937 rng(99);
  for (int i = 0; i < 1000; ++i) {
    const uint32_t base = rng() & 0xFFFFFF00u;
    const IPv4AddrMask x(IPv4Addr(htonl(base | (rng() & 0xFF))), 20 + rng() % 13);
    const IPv4AddrMask y(IPv4Addr(htonl(base | (rng() & 0xFF))), 20 + rng() % 13);
    ASSERT_TRUE(x.Overlap(x));
    ASSERT_EQ(x.Overlap(y), x.Contains(y.network()) || y.Contains(x.network()))
        << x.to_string() << " " << y.to_string();
    ASSERT_EQ(x.Overlap(y), y.Overlap(x));
  }
}

}  // namespace
}  // namespace addrkit
