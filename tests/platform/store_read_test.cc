// Reads by path: every path form the handlers use, the type map, and the
// errors a wrong path or a wrong-typed read gives.
#include <arpa/inet.h>
#include <ipapp_ns.h>

#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "platform_fixture.h"

namespace ipapp::test {
namespace {

class StoreReadTest : public StoreTest {
 protected:
  void SetUp() override { Load(ExampleConfig()); }
};

TEST_F(StoreReadTest, ReadsEveryPathFormTheHandlersBuildWithItsConfdType) {
  const struct {
    const char *path;
    confd_vtype type;
    const char *text;
  } cases[] = {
      // Interface lists, with and without module prefixes.
      {"/config/interface/ipapp:l3{core1}/ipv4/address/ip", C_IPV4_AND_PLEN, "10.0.0.1/24"},
      {"/config/interface/l3{core1}/ipv4/address/ip", C_IPV4_AND_PLEN, "10.0.0.1/24"},
      {"/shellcfg:config/shellcfg:interface/ipapp:l3{core1}/ipapp:vrf", C_BUF, "red"},
      {"/config/interface/ipapp:l3{core1}/ipv4/address/secondary{10.0.1.1/24}/ip", C_IPV4_AND_PLEN,
       "10.0.1.1/24"},
      {"/config/interface/ipapp:l3{core1}/ipv6/address{2001:db8::1/64}/ip", C_IPV6_AND_PLEN,
       "2001:db8::1/64"},
      {"/config/interface/ipapp:l3{ core1 }/lower-layer-if/vlan", C_INT32, "100"},
      {"/config/interface/l3{\"core1\"}/vrf", C_BUF, "red"},
      {"/config/interface/ipapp:loopback{0}/ipv4/address{1.1.1.1/32}/ip", C_IPV4_AND_PLEN,
       "1.1.1.1/32"},
      {"/config/interface/loopback{0}/ipv4/address[0]/ip", C_IPV4_AND_PLEN, "1.1.1.1/32"},
      {"/config/interface/ipapp:mgmt{0}/ipv4/address/ip", C_IPV4_AND_PLEN, "192.168.1.10/24"},
      {"/config/interface/ipapp:l3[0]/name", C_BUF, "core1"},
      // Internal tables.
      {"/shellcfg-internal:internal/shellcfg-internal:vrf-config/indexTOstring{1}/vname", C_BUF,
       "red"},
      {"/internal/ospf-interface-l3[0]/ospf-pm-if-name", C_BUF, "l3-core1"},
      {"/internal/ospf-interface-l3{5 0.0.0.1 l3-core1}/area", C_IPV4, "0.0.0.1"},
      {"/internal/ospfv3-interface-l3{ 5 0.0.0.1 l3-core1 }/ospfv3-pm-if-index", C_UINT32, "1100"},
      {"/internal/int-ldp-intf-l3{l3-core1 l3-vlan 100 10.0.0.1/24}/vlan", C_BUF, "100"},
      {"/internal/int-ldp-intf-lo{loopback-0 1.1.1.1/32}/address", C_BUF, "1.1.1.1/32"},
      // Routes.
      {"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}/"
       "rtmStaticRtNextHopAddr",
       C_BINARY, "0a:00:00:01"},
      {"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 1 0A:00:00:00 8 ipv4 0a:00:00:01}/"
       "rtmStaticRtNetworkAddrType",
       C_ENUM_VALUE, "ipv4"},
      {"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry[0]/rtmStaticRtNetworkPrefixLen", C_INT32,
       "8"},
      {"/rtmStaticRtEntry-global{ 0 0a:00:00:00 8 0a:00:00:01 }/interface-name", C_BUF, "l3-core1"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.path);
    confd_value_t v;
    v.type = C_NOEXISTS;
    ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "%s", c.path), CONFD_OK) << confd_lasterr();
    EXPECT_EQ(v.type, c.type);
    EXPECT_EQ(Text(v), c.text);
    confd_free_value(&v);
    EXPECT_EQ(maapi_exists(sock_, th_, "%s", c.path), 1);
  }
  // Strings are duplicated and NUL-terminated.
  confd_value_t v;
  ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "/config/interface/l3{core1}/vrf"), CONFD_OK);
  EXPECT_STREQ(CONFD_GET_CBUFPTR(&v), "red");
  EXPECT_EQ(CONFD_GET_BUFSIZE(&v), 3u);
  confd_free_value(&v);
  EXPECT_TRUE(tx_->Open().empty());
}

TEST_F(StoreReadTest, ExistenceOfEntriesListsAndContainers) {
  struct Case {
    const char *path;
    int exists;
  };
  const Case cases[] = {
      {"/internal/int-ldp-intf-l3{l3-core1 l3-vlan 100 10.0.0.1/24}", 1},
      {"/internal/int-ldp-intf-l3{l3-core1 l3-vlan 200 10.0.0.1/24}", 0},
      {"/internal/int-ldp-intf-lo{loopback-0 1.1.1.1/32}", 1},
      {"/internal/ospf-interface-l3", 1},  // a list with entries
      {"/internal/int-ldp-intf-l3", 1},
      {"/config/interface/loopback{0}/ipv6/address", 0},
      {"/internal/ospf-interface-l3[1]", 0},
      {"/config/interface/l3{core1}/ipv4", 1},  // non-presence container
      {"/config/interface/l3{nosuch}/ipv4", 0},
      {"/config/interface/mgmt{1}/ipv4", 0},
      {"/config/interface/loopback{0}/vrf", 0},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(maapi_exists(sock_, th_, "%s", c.path), c.exists);
  }
  EXPECT_EQ(maapi_num_instances(sock_, th_, "/config/interface/ipapp:l3"), 1);
  EXPECT_EQ(maapi_num_instances(sock_, th_, "/config/interface/l3{core1}/ipv6/address"), 1);
  EXPECT_EQ(maapi_num_instances(sock_, th_, "/config/interface/mgmt{9}/ipv6/address"), 0);
}

TEST_F(StoreReadTest, TypedReadsMatchTheirType) {
  int32_t vlan = -7;
  EXPECT_EQ(maapi_get_int32_elem(sock_, th_, &vlan, "/config/interface/l3{%s}/lower-layer-if/vlan",
                                 "core1"),
            CONFD_OK);
  EXPECT_EQ(vlan, 100);
  // A wrong-typed read fails clearly and leaves the output alone.
  vlan = -7;
  EXPECT_EQ(maapi_get_int32_elem(sock_, th_, &vlan, "/config/interface/l3{core1}/vrf"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
  EXPECT_STREQ(confd_lasterr(),
               "maapi_get_int32_elem: \"/config/interface/l3{core1}/vrf\": is of type string "
               "(C_BUF), not C_INT32");
  EXPECT_EQ(vlan, -7);
}

TEST_F(StoreReadTest, BadPathsFailWithTheirReason) {
  struct Case {
    const char *path;
    const char *reason;
  };
  const Case cases[] = {
      {"config/interface", "not an absolute path"},
      {"/config/nosuch/x", "unknown element \"nosuch\""},
      {"/config/interface/other:l3{a}/vrf", "unknown element \"other:l3\""},
      {"/config/interface/l3{core1", "missing '}'"},
      {"/config/interface/l3{a b}/vrf", "list \"l3\" has 1 key, 2 given"},
      {"/config/interface/l3/vrf", "list \"l3\" needs keys or an index"},
      {"/config/interface/l3[x]/vrf", "bad index \"[x]\""},
      {"/config/interface/l3[99999999999999999999]/vrf",  // no overflow on the way
       "bad index \"[99999999999999999999]\""},
      {"/config/interface{a}", "\"interface\" is not a list"},
      {"/config/interface/l3{core1}/vrf/x", "\"vrf\" is a leaf and has no children"},
      {"/config/interface/l3{core1}/", "empty element at offset 28"},
      {"/config/interface/l3{core1}x/vrf", "'/' expected after the keys of \"l3\""},
      {"/config/interface/l3[0]x/vrf", "'/' expected after the keys of \"l3\""},
      {"/internal/ospf-interface-l3{x 0.0.0.1 a}/ospf-pm-if-name",
       "key \"x\" of list \"ospf-interface-l3\" is not a valid uint32 (not a number)"},
      {"/internal/ospf-interface-l3{1 0.0.0.300 a}/ospf-pm-if-name",
       "key \"0.0.0.300\" of list \"ospf-interface-l3\" is not a valid ipv4-address-no-zone "
       "(not an IPv4 address)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.path);
    confd_value_t v;
    v.type = C_NOEXISTS;
    EXPECT_EQ(maapi_get_elem(sock_, th_, &v, "%s", c.path), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
    EXPECT_EQ(std::string(confd_lasterr()),
              std::string("maapi_get_elem: \"") + c.path + "\": bad path: " + c.reason);
    EXPECT_EQ(v.type, C_NOEXISTS);
    EXPECT_EQ(maapi_exists(sock_, th_, "%s", c.path), CONFD_ERR);
  }
  // An absent node is not an error of the path.
  EXPECT_EQ(Get("/config/interface/l3{core2}/vrf"),
            "<error> maapi_get_elem: \"/config/interface/l3{core2}/vrf\": does not exist");
  EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
  EXPECT_EQ(Get("/config/interface/l3{core1}"),
            "<error> maapi_get_elem: \"/config/interface/l3{core1}\": not a leaf");
  // Calls outside the transaction.
  EXPECT_EQ(maapi_exists(sock_ + 1000, th_, "/config"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_NOSESSION);
  EXPECT_EQ(maapi_exists(sock_, th_ + 1000, "/config"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_NOSESSION);
}

TEST_F(StoreReadTest, KeypathsCarryTagsAndTypedKeys) {
  confd_hkeypath_t kp = tx_->Keypath("/config/interface/l3{core1}/ipv4/address/ip");
  ASSERT_EQ(kp.len, 7);
  EXPECT_EQ(CONFD_GET_XMLTAG(&kp.v[1][0]), static_cast<uint32_t>(ipapp_address));
  EXPECT_STREQ(CONFD_GET_CBUFPTR(&kp.v[3][0]), "core1");
  EXPECT_EQ(kp.v[3][1].type, C_NOEXISTS);
  EXPECT_EQ(CONFD_GET_XMLTAG(&kp.v[4][0]), static_cast<uint32_t>(ipapp_l3));
  EXPECT_EQ(CONFD_GET_XMLTAG_NS(&kp.v[4][0]), static_cast<uint32_t>(ipapp__ns));
  EXPECT_EQ(KeypathText(kp), "/config/interface/ipapp:l3{core1}/ipv4/address/ip");

  // Tags belong to names: both "address" nodes share one; every other name
  // gets a number of its own.
  auto tag = [&](const char *path) {
    confd_hkeypath_t k = tx_->Keypath(path);
    return CONFD_GET_XMLTAG(&k.v[0][0]);
  };
  EXPECT_EQ(tag("/config/interface/loopback{0}/ipv4/address"),
            static_cast<uint32_t>(ipapp_address));
  EXPECT_EQ(tag("/config/interface/loopback{0}/ipv4"), tag("/config/interface/l3{x}/ipv4"));
  EXPECT_NE(tag("/config"), tag("/config/interface"));
  EXPECT_NE(tag("/internal/int-ldp-intf-l3{a b c d}/vlan"), 0u);

  // Printed keypaths are accepted back, typed keys included.
  for (const char *path : {
           "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}",
           "/internal/ospf-interface-l3{5 0.0.0.1 \"l3 with blank\"}/ospf-pm-if-name",
           "/internal/int-ldp-intf-lo{\"\" \"a\\\"b\"}",
           "/shellcfg-internal:internal/vrf-config/indexTOstring{4294967295}",
       }) {
    SCOPED_TRACE(path);
    std::string printed = KeypathText(tx_->Keypath(path));
    std::string expected = path;
    if (expected.rfind("/shellcfg-internal:", 0) == 0) expected.erase(1, 18);
    EXPECT_EQ(printed, expected);
    EXPECT_EQ(KeypathText(tx_->Keypath(printed)), printed);
  }
  kp = tx_->Keypath(
      "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}");
  EXPECT_EQ(kp.v[0][0].type, C_UINT32);
  EXPECT_EQ(kp.v[0][1].type, C_ENUM_VALUE);
  EXPECT_EQ(kp.v[0][2].type, C_BINARY);
  EXPECT_EQ(kp.v[0][3].type, C_INT32);
  EXPECT_EQ(kp.v[0][6].type, C_NOEXISTS);

  EXPECT_THROW(tx_->Keypath("/config/nosuch"), host::InputError);
}

TEST_F(StoreReadTest, EnumNamesComeFromTheLeafsOwnType) {
  // Another schema in the process names value 1 differently.
  namespace fs = std::filesystem;
  fs::path dir = fs::temp_directory_path() / ("platform_test_enum_" + std::to_string(getpid()));
  fs::create_directories(dir);
  std::ofstream(dir / "enum-clash.yang")
      << "module enum-clash { yang-version 1.1; namespace \"urn:ipapp:enum-clash\"; prefix ec;\n"
         "  container clash { leaf kind { type enumeration { enum one { value 1; } } } } }\n";
  std::shared_ptr<const host::Schema> other = host::Schema::Load(dir.string());
  fs::remove_all(dir);
  auto other_tx = host::Transaction::Create(
      other, host::DataSource::Empty(),
      host::DataSource::Xml("<clash xmlns=\"urn:ipapp:enum-clash\"><kind>one</kind></clash>"));
  confd_trans_ctx *other_ctx = other_tx->Context("t");
  int other_sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(other_ctx->vcb_opaque));

  const std::string route =
      "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}";
  EXPECT_EQ(Get(route + "/rtmStaticRtNextHopAddr"), "0a:00:00:01");
  EXPECT_EQ(KeypathText(tx_->Keypath(route)), route);
  EXPECT_EQ(tx_->Instances("/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry"),
            std::vector<std::string>{route});
  // A bare value takes its name from the schema of the thread's last call.
  EXPECT_EQ(Get(route + "/rtmStaticRtNetworkAddrType"), "ipv4");
  confd_value_t v;
  ASSERT_EQ(maapi_get_elem(other_sock, other_ctx->thandle, &v, "/clash/kind"), CONFD_OK);
  EXPECT_EQ(Text(v), "one");
  EXPECT_EQ(Get(route + "/rtmStaticRtNextHopAddrType"), "ipv4");
}

TEST(ConfdPpValueTest, PrintsEveryTypeAndReportsTheLengthItNeeded) {
  confd_value_t v;
  CONFD_SET_INT8(&v, -8);
  EXPECT_EQ(Text(v), "-8");
  CONFD_SET_INT64(&v, -9000000000LL);
  EXPECT_EQ(Text(v), "-9000000000");
  CONFD_SET_UINT64(&v, 18446744073709551615ULL);
  EXPECT_EQ(Text(v), "18446744073709551615");
  CONFD_SET_UINT16(&v, 65535);
  EXPECT_EQ(Text(v), "65535");
  CONFD_SET_BOOL(&v, 1);
  EXPECT_EQ(Text(v), "true");
  struct in6_addr a6;
  inet_pton(AF_INET6, "2001:0db8:0:0:0:0:0:1", &a6);
  CONFD_SET_IPV6(&v, a6);
  EXPECT_EQ(Text(v), "2001:db8::1");
  struct confd_ipv4_prefix p4;
  inet_pton(AF_INET, "10.1.1.1", &p4.ip);
  p4.len = 31;
  CONFD_SET_IPV4_AND_PLEN(&v, p4);
  EXPECT_EQ(Text(v), "10.1.1.1/31");
  static const unsigned char bytes[] = {0x05};
  CONFD_SET_BINARY(&v, bytes, 1);
  EXPECT_EQ(Text(v), "05");
  CONFD_SET_BUF(&v, "a b", 3);
  EXPECT_EQ(Text(v), "a b");
  char small[4];
  CONFD_SET_STR(&v, "abcdef");
  EXPECT_EQ(confd_pp_value(small, sizeof small, &v), 6);
  EXPECT_STREQ(small, "abc");
  CONFD_SET_NOEXISTS(&v);
  EXPECT_EQ(confd_pp_value(small, sizeof small, &v), CONFD_ERR);
}

}  // namespace
}  // namespace ipapp::test
