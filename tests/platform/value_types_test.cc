// confd_pp_value for the value types no leaf of the element's modules has
// (they reach the store only as values a caller builds): each is a row of the
// store's value-type table, printed as confd_lib_lib(3) documents.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform_fixture.h"

namespace ipapp::test {
namespace {

TEST(ValueTypesTest, TypesWithoutALeafPrintAsDocumented) {
  static uint32_t oid_words[] = {1, 3, 6, 1};
  static confd_snmp_oid oid;
  oid.len = 4;
  std::memcpy(oid.oid, oid_words, sizeof oid_words);
  static const unsigned char prefix[] = "ns";
  static const unsigned char name[] = "name";
  static const unsigned char bit64[] = {0, 0, 0, 0, 0, 0, 0, 0, 1};
  static confd_value_t list[2];
  CONFD_SET_INT32(&list[0], 5);
  CONFD_SET_BOOL(&list[1], 0);
  struct Case {
    const char *what;
    std::function<void(confd_value_t *)> set;
    const char *text;
  };
  const Case cases[] = {
      {"double", [](confd_value_t *v) { v->type = C_DOUBLE, v->val.d = 3.25; }, "3.25"},
      {"date with a zone",
       [](confd_value_t *v) {
         v->type = C_DATE, v->val.date = {2024, 2, 29, 1, 30};
       },
       "2024-02-29+01:30"},
      {"time without a zone",
       [](confd_value_t *v) {
         v->type = C_TIME;
         v->val.time = {};
         v->val.time.hour = 23, v->val.time.min = 5, v->val.time.sec = 9;
         v->val.time.timezone = CONFD_TIMEZONE_UNDEF;
       },
       "23:05:09-00:00"},
      {"duration",
       [](confd_value_t *v) { v->type = C_DURATION, v->val.duration = {1, 2, 3, 4, 5, 6, 7}; },
       "P1Y2M3DT4H5M6.000007S"},
      {"oid", [](confd_value_t *v) { v->type = C_OID, v->val.oidp = &oid; }, "1.3.6.1"},
      {"qualified name",
       [](confd_value_t *v) {
         v->type = C_QNAME;
         v->val.qname.prefix.ptr = const_cast<unsigned char *>(prefix);
         v->val.qname.prefix.size = 2;
         v->val.qname.name.ptr = const_cast<unsigned char *>(name);
         v->val.qname.name.size = 4;
       },
       "ns:name"},
      {"dotted quad",
       [](confd_value_t *v) {
         CONFD_SET_DQUAD(v, (confd_dotted_quad{{10, 1, 2, 3}}));
       },
       "10.1.2.3"},
      {"date-and-time, fraction and negative zone",
       [](confd_value_t *v) {
         confd_datetime dt = {};
         dt.year = 2024, dt.month = 5, dt.day = 6, dt.hour = 7, dt.min = 8, dt.sec = 9;
         dt.micro = 120000, dt.timezone = -5, dt.timezone_minutes = 30;
         CONFD_SET_DATETIME(v, dt);
       },
       "2024-05-06T07:08:09.12-05:30"},
      {"bits beyond 64", [](confd_value_t *v) { CONFD_SET_BITBIG(v, bit64, 9); },
       "bits<10000000000000000>"},
      {"list", [](confd_value_t *v) { CONFD_SET_LIST(v, list, 2); }, "5 false"},
      {"empty", [](confd_value_t *v) { CONFD_SET_EMPTY(v); }, ""},
      {"a type with no text", [](confd_value_t *v) { v->type = C_SYMBOL; }, ""},
      {"a number the enumeration skips",
       [](confd_value_t *v) { v->type = static_cast<confd_vtype>(21); }, ""},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    confd_value_t v;
    std::memset(&v, 0, sizeof v);
    c.set(&v);
    EXPECT_EQ(Text(v), c.text);
  }
}

// The store prints IPv4 addresses and prefixes itself: as inet_ntop does.
TEST(ValueTypesTest, Ipv4AddressesAndPrefixesPrintAsInetNtop) {
  for (const char *text :
       {"0.0.0.0", "255.255.255.255", "10.0.0.1", "192.168.100.9", "1.20.3.40"}) {
    SCOPED_TRACE(text);
    in_addr addr{};
    ASSERT_EQ(inet_pton(AF_INET, text, &addr), 1);
    char expected[INET_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET, &addr, expected, sizeof expected), nullptr);
    confd_value_t v;
    CONFD_SET_IPV4(&v, addr);
    EXPECT_EQ(Text(v), expected);
    for (int len : {0, 8, 32}) {
      confd_ipv4_prefix prefix{addr, static_cast<u_int8_t>(len)};
      CONFD_SET_IPV4_AND_PLEN(&v, prefix);
      EXPECT_EQ(Text(v), std::string(expected) + "/" + std::to_string(len));
      CONFD_SET_IPV4PREFIX(&v, prefix);
      EXPECT_EQ(Text(v), std::string(expected) + "/" + std::to_string(len));
    }
  }
}

// IPv6 addresses and prefixes too, for every placement of zero words (the
// "::" run, its ties, the dotted quad of mapped and compatible addresses).
TEST(ValueTypesTest, Ipv6AddressesAndPrefixesPrintAsInetNtop) {
  std::vector<in6_addr> addrs;
  for (const char *text : {"::", "::1", "::ffff:10.0.0.1", "::10.0.0.1", "::ffff:0:10.0.0.1",
                           "1::", "2001:db8::ff00:42:8329", "fe80::1:0:0:1", "1:0:0:1:0:0:0:1",
                           "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "0:1:0:1:0:1:0:1"}) {
    in6_addr addr{};
    EXPECT_EQ(inet_pton(AF_INET6, text, &addr), 1) << text;
    addrs.push_back(addr);
  }
  // Each word zero or not (256 patterns), the others of one to four digits.
  for (unsigned zeros = 0; zeros < 256; ++zeros) {
    in6_addr addr{};
    for (int w = 0; w < 8; ++w) {
      if (zeros & (1u << w)) continue;
      const unsigned word =
          (zeros * 2654435761u >> (w * 3)) % 4 == 0 ? 0xffff : 0x1f << (w % 4 * 3);
      addr.s6_addr[2 * w] = static_cast<unsigned char>(word >> 8);
      addr.s6_addr[2 * w + 1] = static_cast<unsigned char>(word);
    }
    addrs.push_back(addr);
  }
  for (const in6_addr &addr : addrs) {
    char expected[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, &addr, expected, sizeof expected), nullptr);
    SCOPED_TRACE(expected);
    confd_value_t v;
    CONFD_SET_IPV6(&v, addr);
    EXPECT_EQ(Text(v), expected);
    confd_ipv6_prefix prefix{addr, 64};
    CONFD_SET_IPV6PREFIX(&v, prefix);
    EXPECT_EQ(Text(v), std::string(expected) + "/64");
    CONFD_SET_IPV6_AND_PLEN(&v, prefix);
    EXPECT_EQ(Text(v), std::string(expected) + "/64");
  }
}

}  // namespace
}  // namespace ipapp::test
