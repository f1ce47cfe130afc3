#include "addrkit/ip_addr.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/if.h>

#include <boost/system/system_error.hpp>
#include <random>
#include <typeinfo>

namespace addrkit {
namespace {

IPAddr &Parse(IPv4Addr &v4, IPv6Addr &v6, const std::string &text) {
  IPAddr &a = text.find(':') == std::string::npos ? static_cast<IPAddr &>(v4) : v6;
  a.set_addr(text);
  return a;
}

TEST(IPAddrTest, ClassifiesBothFamilies) {
  struct Case {
    const char *text;
    bool multicast, loopback, unspecified, link_local;
  } cases[] = {
      {"224.0.0.1", 1, 0, 0, 0},   {"239.255.255.255", 1, 0, 0, 0},
      {"240.0.0.1", 0, 0, 0, 0},   {"127.255.255.255", 0, 1, 0, 0},
      {"128.0.0.1", 0, 0, 0, 0},   {"169.254.0.1", 0, 0, 0, 1},
      {"169.255.0.1", 0, 0, 0, 0}, {"0.0.0.0", 0, 0, 1, 0},
      {"ff02::1", 1, 0, 0, 0},     {"::1", 0, 1, 0, 0},
      {"::", 0, 0, 1, 0},          {"::1:0:0:0:1", 0, 0, 0, 0},
      {"fe80::1", 0, 0, 0, 1},     {"febf::1", 0, 0, 0, 1},
      {"fec0::1", 0, 0, 0, 0},     {"1::1", 0, 0, 0, 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    IPv4Addr v4;
    IPv6Addr v6;
    const IPAddr &a = Parse(v4, v6, c.text);
    EXPECT_EQ(a.is_multicast(), c.multicast);
    EXPECT_EQ(a.is_loopback(), c.loopback);
    EXPECT_EQ(a.is_unspecified(), c.unspecified);
    EXPECT_EQ(a.is_link_local(), c.link_local);
  }
}

// Claims IPv4 without being an IPv4Addr.
class FakeV4 : public IPv6Addr {
 public:
  bool is_v4() const override { return true; }
};

TEST(IPAddrTest, ComparisonsStayWithinOneFamily) {
  const IPv4Addr v4;
  const IPv6Addr v6;  // both all zero
  for (auto p : {std::make_pair<const IPAddr *, const IPAddr *>(&v4, &v6), {&v6, &v4}}) {
    EXPECT_FALSE(*p.first == *p.second || *p.first < *p.second || *p.first > *p.second);
  }
  EXPECT_THROW((void)(v4 == FakeV4()), std::bad_cast);

  // Address order, not the order of the raw network-order words.
  EXPECT_TRUE(IPv4Addr("1.0.0.2") < IPv4Addr("2.0.0.1"));
  EXPECT_FALSE(IPv4Addr("1.0.0.2") > IPv4Addr("2.0.0.1"));
  const IPv6Addr::Bytes ll = IPv6Addr("fe80::1").bytes();
  const IPv6Addr s3(ll, 3), s4(ll, 4);
  EXPECT_FALSE(s3 == s4);
  EXPECT_TRUE(s3 < s4 && s4 > s3 && !(s4 < s3) && !(s3 > s4));
  EXPECT_TRUE(s4 < IPv6Addr(IPv6Addr("fe80::2").bytes(), 0));  // bytes decide before scope
  EXPECT_TRUE(IPv6Addr("::1") < IPv6Addr("8000::"));           // unsigned bytes
}

// Seeded so that a failure reproduces; sparse bytes exercise "::" runs and
// the embedded-IPv4 forms.
TEST(IPAddrTest, PrintParseAndSerializeAgreeWithTheSocketLibrary) {
  std::mt19937 rng(20240611);
  char buf[INET6_ADDRSTRLEN];
  for (int i = 0; i < 3000; ++i) {
    const uint32_t word = rng();
    ASSERT_TRUE(inet_ntop(AF_INET, &word, buf, sizeof buf));
    ASSERT_EQ(IPv4Addr(word).to_string(), buf);
    ASSERT_EQ(IPv4Addr(std::string(buf)).addr(), word);
    ASSERT_EQ(IPv4Addr(word).Serialize(), std::string(reinterpret_cast<const char *>(&word), 4));

    in6_addr raw{};
    const uint32_t density = rng() % 4;
    for (auto &b : raw.s6_addr) b = (rng() % 4 < density) ? static_cast<uint8_t>(rng()) : 0;
    ASSERT_TRUE(inet_ntop(AF_INET6, &raw, buf, sizeof buf));
    const IPv6Addr v6(raw, 9);
    ASSERT_EQ(IPv6Addr(raw).to_string(), buf);
    ASSERT_TRUE(IPv6Addr(std::string(buf)) == IPv6Addr(raw)) << buf;
    ASSERT_EQ(v6.Serialize(), std::string(reinterpret_cast<const char *>(raw.s6_addr), 16));
  }
}

TEST(IPAddrTest, BadTextThrowsEinvalAndLeavesAddressAlone) {
  IPv4Addr v4(htonl(0x0a000001));
  IPv6Addr v6(IPv6Addr("2001:db8::1").bytes(), 5);
  const std::string bad[] = {"1.2.3",
                             "256.0.0.1",
                             "01.2.3.4",
                             " 1.2.3.4",
                             "1.2.3.4/8",
                             "1::2::3",
                             "12345::",
                             "fe80::1 ",
                             "g::1",
                             "fe80::1/64",
                             std::string(100, '1') + "%lo"};  // over-long part before the zone
  for (IPAddr *a : {static_cast<IPAddr *>(&v4), static_cast<IPAddr *>(&v6)}) {
    for (const std::string &text : bad) {
      SCOPED_TRACE(text);
      const std::string before = a->to_string();
      try {
        a->set_addr(text);
        ADD_FAILURE() << "accepted";
      } catch (const boost::system::system_error &e) {
        EXPECT_EQ(e.code(), boost::system::error_code(EINVAL, boost::system::system_category()));
      }
      EXPECT_EQ(a->to_string(), before);
    }
  }
}

TEST(IPAddrTest, ZoneNamesAnInterfaceOnlyForLinkLocalScopes) {
  const unsigned lo = if_nametoindex("lo");
  if (lo == 0) GTEST_SKIP() << "no loopback interface";
  struct Case {
    const char *text;
    uint32_t scope;
    const char *printed;
  } cases[] = {
      {"fe80::1%lo", lo, "fe80::1%lo"},
      {"ff02::1%lo", lo, "ff02::1%lo"},
      {"ff12::1%lo", lo, "ff12::1%lo"},
      {"fe80::1%4000000000", 4000000000u, "fe80::1%4000000000"},  // no such interface
      {"fe80::1%no-such-if", 0, "fe80::1"},
      {"2001:db8::1%7", 7, "2001:db8::1%7"},
      {"2001:db8::1%lo", 0, "2001:db8::1"},  // names are not looked up here
      {"ff05::1%lo", 0, "ff05::1"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.text);
    IPv6Addr a(IPv6Addr::Bytes{}, 99);
    a.set_addr(c.text);
    EXPECT_EQ(a.scope(), c.scope);
    EXPECT_EQ(a.to_string(), c.printed);
  }
  EXPECT_EQ(IPv6Addr(IPv6Addr("2001:db8::1").bytes(), lo).to_string(),
            "2001:db8::1%" + std::to_string(lo));
}

}  // namespace
}  // namespace addrkit
