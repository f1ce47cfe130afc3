// Reads by path: every path form the handlers use, the path modifiers, the
// type map, confd_pp_value, the errors a wrong path or a wrong-typed read
// gives, and the per-thread error state.
#include <arpa/inet.h>
#include <ipapp_ns.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "config_xml.h"
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
      // Interface lists, with and without module prefixes. The text is
      // confd_pp_value's, which knows no schema.
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
      {"/config/interface/ipapp:mgmt{0}/ipv4/address/ip", C_IPV4_AND_PLEN, "192.168.1.10/24"},
      {"/config/interface/ipapp:l3{core1}/name", C_BUF, "core1"},
      // Internal tables.
      {"/shellcfg-internal:internal/shellcfg-internal:vrf-config/indexTOstring{1}/vname", C_BUF,
       "red"},
      {"/internal/ospf-interface-l3{5 0.0.0.1 l3-core1}/ospf-pm-if-name", C_BUF, "l3-core1"},
      {"/internal/ospf-interface-l3{5 0.0.0.1 l3-core1}/area", C_IPV4, "0.0.0.1"},
      {"/internal/ospfv3-interface-l3{ 5 0.0.0.1 l3-core1 }/ospfv3-pm-if-index", C_UINT32, "1100"},
      {"/internal/int-ldp-intf-l3{l3-core1 l3-vlan 100 10.0.0.1/24}/vlan", C_BUF, "100"},
      {"/internal/int-ldp-intf-lo{loopback-0 1.1.1.1/32}/address", C_BUF, "1.1.1.1/32"},
      // Routes.
      {"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}/"
       "rtmStaticRtNextHopAddr",
       C_BINARY, "0A000001"},
      {"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 1 0A:00:00:00 8 ipv4 0a:00:00:01}/"
       "rtmStaticRtNetworkAddrType",
       C_ENUM_VALUE, "enum<1>"},
      {"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}/"
       "rtmStaticRtNetworkPrefixLen",
       C_INT32, "8"},
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
      {"/internal/ospf-interface-l3{1 2 3 4 5 6 7 8 9 10}/area", "too many keys"},
      {"/config/interface/l3/vrf", "list \"l3\" needs keys or an index"},
      // confd_lib_maapi(3) paths name entries by their keys; "[N]" is CDB's.
      {"/config/interface/l3[0]/vrf",
       "\"[N]\" selects entries in CDB paths only; give the keys of \"l3\""},
      {"/config/interface{a}", "\"interface\" is not a list"},
      {"/config/interface/l3{core1}/vrf/x", "\"vrf\" is a leaf and has no children"},
      {"/config/interface/l3{core1}/", "empty element at offset 28"},
      {"/config/interface/l3{core1}x/vrf", "'/' expected after the keys of \"l3\""},
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

TEST_F(StoreReadTest, KeypathsPrintKeysByTheirLeafsTypeBareValuesWithoutSchema) {
  const std::string route =
      "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}";
  EXPECT_EQ(KeypathText(tx_->Keypath(route)), route);
  EXPECT_EQ(tx_->Instances("/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry"),
            std::vector<std::string>{route});
  // The route columns stay C_BINARY through the model's hex-list typedef;
  // the trace keeps their colon-separated text.
  confd_value_t v;
  ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "%s/rtmStaticRtNextHopAddr", route.c_str()), CONFD_OK);
  EXPECT_EQ(v.type, C_BINARY);
  EXPECT_EQ(tx_->Trace().back().detail, "0a:00:00:01");
  // confd_lib_lib(3): confd_pp_value prints C_BINARY as xs:hexBinary text
  // and a bare C_ENUM_VALUE as enum<N>, whatever schema is loaded.
  EXPECT_EQ(Text(v), "0A000001");
  confd_free_value(&v);
  ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "%s/rtmStaticRtNetworkAddrType", route.c_str()),
            CONFD_OK);
  EXPECT_EQ(Text(v), "enum<1>");
  EXPECT_EQ(tx_->Trace().back().detail, "ipv4");
}

// The longest IPv6 text (45 characters, its last 32 bits in IPv4 form) and
// a long canonical one, in every way the store prints a value: confd_pp_value,
// the trace, keypaths, and paths made with %x and %ip6.
TEST_F(StoreReadTest, LongestIpv6TextsPrintInFullEverywhere) {
  const std::string widest = "ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255/128";
  const std::string all_ones = "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/128";
  const std::string mixed = "2001:db8:85a3:1234:5678:8a2e:370:7334/64";
  Load(Interfaces(L3("core3", V6({widest, mixed}))));
  const std::string list = "/config/interface/ipapp:l3{core3}/ipv6/address";
  EXPECT_EQ(tx_->Instances(list),
            (std::vector<std::string>{list + "{" + mixed + "}", list + "{" + all_ones + "}"}));
  for (const auto &[written, printed] : {std::pair(widest, all_ones), std::pair(mixed, mixed)}) {
    SCOPED_TRACE(written);
    const std::string entry = list + "{" + written + "}";
    EXPECT_EQ(Get(entry + "/ip"), printed);
    EXPECT_EQ(tx_->Trace().back().detail, printed);
    EXPECT_EQ(KeypathText(tx_->Keypath(entry)), list + "{" + printed + "}");
  }
  maapi_cursor mc;
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "%s", list.c_str()), CONFD_OK);
  std::vector<std::string> paths;
  for (maapi_get_next(&mc); mc.n != 0; maapi_get_next(&mc)) {
    EXPECT_EQ(maapi_exists(sock_, th_, "%s{%x}/ip", list.c_str(), &mc.keys[0]), 1);
    paths.push_back(tx_->Trace().back().path);
  }
  maapi_destroy_cursor(&mc);
  EXPECT_EQ(paths, (std::vector<std::string>{list + "{" + mixed + "}/ip",
                                             list + "{" + all_ones + "}/ip"}));
  struct in6_addr ones;
  std::memset(&ones, 0xff, sizeof ones);
  EXPECT_EQ(maapi_exists(sock_, th_, "%s{%ip6/128}", list.c_str(), &ones), 1);
  EXPECT_EQ(tx_->Trace().back().path, list + "{" + all_ones + "}");
}

// confd_lib_maapi(3) / confd_lib_cdb(3) PATHS: the modifiers take their
// arguments as documented; the plain ones allocate nothing extra.
TEST_F(StoreReadTest, PathModifiersTakeTheirDocumentedArguments) {
  tx_->ClearTrace();
  confd_value_t keys[3];
  CONFD_SET_UINT32(&keys[0], 5);
  struct in_addr area;
  inet_pton(AF_INET, "0.0.0.1", &area);
  CONFD_SET_IPV4(&keys[1], area);
  CONFD_SET_STR(&keys[2], "l3-core1");
  confd_value_t name;
  CONFD_SET_BUF(&name, "core1", 5);
  confd_hkeypath_t kp = tx_->Keypath("/config/interface/l3{core1}");
  const std::string ospf = "/internal/ospf-interface-l3{5 0.0.0.1 l3-core1}";
  maapi_exists(sock_, th_, "/internal/ospf-interface-l3{%d %ip4 %s}", 5, &area, "l3-core1");
  maapi_exists(sock_, th_, "/internal/ospf-interface-l3{%u %x %x}", 5u, &keys[1], &keys[2]);
  maapi_exists(sock_, th_, "/internal/ospf-interface-l3{%*x}", 3, keys);
  maapi_exists(sock_, th_, "%s{%i 0.0.0.1 l3-core1}", "/internal/ospf-interface-l3", 5);
  maapi_exists(sock_, th_, "/config/interface/l3{%x}/vrf", &name);
  maapi_exists(sock_, th_, "%h/vrf", &kp);
  maapi_exists(sock_, th_, "%*h{core1}/vrf", kp.len - 1, &kp);
  maapi_exists(sock_, th_, "/config/interface/l3{100%%}");
  const std::vector<std::string> paths = {ospf,
                                          ospf,
                                          ospf,
                                          ospf,
                                          "/config/interface/l3{core1}/vrf",
                                          "/config/interface/ipapp:l3{core1}/vrf",
                                          "/config/interface/ipapp:l3{core1}/vrf",
                                          "/config/interface/l3{100%}"};
  std::vector<host::TraceEntry> trace = tx_->Trace();
  ASSERT_EQ(trace.size(), paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    SCOPED_TRACE(paths[i]);
    EXPECT_EQ(trace[i].path, paths[i]);
    EXPECT_EQ(trace[i].result, i + 1 < paths.size() ? 1 : 0);
  }
  // A %x string with a blank is quoted inside keys; an IPv6 address prints
  // in its RFC 5952 text.
  struct in6_addr a6;
  inet_pton(AF_INET6, "2001:0db8::0001", &a6);
  CONFD_SET_BUF(&name, "a b", 3);
  maapi_exists(sock_, th_, "/config/interface/l3{%x}/ipv6/address{%ip6/64}", &name, &a6);
  EXPECT_EQ(tx_->Trace().back().path, "/config/interface/l3{\"a b\"}/ipv6/address{2001:db8::1/64}");

  // A modifier the documentation does not list is a bad path, not a guess.
  EXPECT_EQ(maapi_exists(sock_, th_, "/config/interface/l3{%ld}", 5L), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
  EXPECT_STREQ(confd_lasterr(),
               "maapi_exists: \"/config/interface/l3{%ld}\": bad path: unsupported modifier "
               "\"%l\" in format \"/config/interface/l3{%ld}\"");
}

// confd_lib_maapi(3) / confd_lib_cdb(3): a namespace qualifier in a path is
// the module's prefix; keypaths print it.
TEST(StorePrefixTest, QualifiersAreYangPrefixes) {
  auto tx = host::Transaction::Create(TypesSchema(), host::DataSource::Empty(),
                                      host::DataSource::Xml(Types("<dec>1.5</dec>")));
  confd_trans_ctx *ctx = tx->Context("t");
  const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(ctx->vcb_opaque));
  EXPECT_EQ(maapi_exists(sock, ctx->thandle, "/st:types/st:dec"), 1);
  EXPECT_EQ(maapi_exists(sock, ctx->thandle, "/types/dec"), 1);
  EXPECT_EQ(maapi_exists(sock, ctx->thandle, "/store-types:types/dec"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(),
               "maapi_exists: \"/store-types:types/dec\": bad path: unknown element "
               "\"store-types:types\"");
  EXPECT_EQ(tx->Instances("/st:item"), std::vector<std::string>{});
}

// confd_types(3) "DATA MODEL TYPES": each YANG type arrives as the ConfD
// type the documentation gives it; the trace keeps the text form.
TEST(StoreTypesTest, EachYangTypeHasItsDocumentedConfdType) {
  const std::string leaves =
      "<hex>0A:ff</hex><hexlist>01:02</hexlist><bin>AQID</bin>"
      "<v4prefix>10.0.0.0/8</v4prefix><v6prefix>2001:db8::/32</v6prefix>"
      "<addr4>10.1.1.1</addr4><addr6>2001:db8::1</addr6><num-or-word>42</num-or-word>"
      "<word-or-num>forty</word-or-num><dec>-3.5</dec><flags>a c</flags><wide>high</wide><flag/>"
      "<kind xmlns:st=\"urn:ipapp:store-types\">st:round</kind>"
      "<when>2024-02-29T23:59:58.25-00:00</when><quad>1.2.3.4</quad>"
      "<mac>00:1B:21:aa:bb:cc</mac><ref>-3.5</ref><low>-9223372036854775808</low>";
  auto tx = host::Transaction::Create(
      TypesSchema(), host::DataSource::Empty(),
      host::DataSource::Xml(Types(leaves) + Item("<name>a</name><sub><id>-128</id></sub>")));
  confd_trans_ctx *ctx = tx->Context("t");
  const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(ctx->vcb_opaque));
  const struct {
    const char *leaf;
    confd_vtype type;
    const char *text;  // text form (the trace's detail)
    const char *pp;    // confd_pp_value
  } cases[] = {
      {"hex", C_HEXSTR, "0a:ff", "0a:ff"},
      {"hexlist", C_BINARY, "01:02", "0102"},
      {"bin", C_BINARY, "AQID", "010203"},
      {"v4prefix", C_IPV4PREFIX, "10.0.0.0/8", "10.0.0.0/8"},
      {"v6prefix", C_IPV6PREFIX, "2001:db8::/32", "2001:db8::/32"},
      {"addr4", C_IPV4, "10.1.1.1", "10.1.1.1"},  // a union takes the member that matched
      {"addr6", C_IPV6, "2001:db8::1", "2001:db8::1"},
      {"num-or-word", C_INT32, "42", "42"},
      {"word-or-num", C_BUF, "forty", "forty"},
      {"dec", C_DECIMAL64, "-3.5", "-3.5"},
      {"flags", C_BIT32, "a c", "bits<5>"},
      {"wide", C_BITBIG, "high", "bits<400000000000000000>"},
      {"flag", C_XMLTAG, "", "flag"},
      {"kind", C_IDENTITYREF, "st:round", "round"},
      {"when", C_DATETIME, "2024-02-29T23:59:58.25-00:00", "2024-02-29T23:59:58.25-00:00"},
      {"quad", C_DQUAD, "1.2.3.4", "1.2.3.4"},
      {"mac", C_BINARY, "00:1b:21:aa:bb:cc", "001B21AABBCC"},
      {"ref", C_DECIMAL64, "-3.5", "-3.5"},  // a leafref has its target's type
      {"low", C_INT64, "-9223372036854775808", "-9223372036854775808"},
      {"item{a}/sub{-128}/id", C_INT8, "-128", "-128"},  // the least int8, as a key
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.leaf);
    confd_value_t v;
    const std::string top = std::strchr(c.leaf, '{') ? "" : "/types";
    ASSERT_EQ(maapi_get_elem(sock, ctx->thandle, &v, "%s/%s", top.c_str(), c.leaf), CONFD_OK)
        << confd_lasterr();
    EXPECT_EQ(v.type, c.type);
    EXPECT_EQ(tx->Trace().back().detail, c.text);
    EXPECT_EQ(Text(v), c.pp);
    confd_free_value(&v);
  }
  EXPECT_TRUE(tx->Open().empty());
  EXPECT_EQ(maapi_exists(sock, ctx->thandle, "/item{a}/sub{-129}"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(),
               "maapi_exists: \"/item{a}/sub{-129}\": bad path: key \"-129\" of list \"sub\" is "
               "not a valid int8 (out of range)");
  confd_value_t v;
  ASSERT_EQ(maapi_get_elem(sock, ctx->thandle, &v, "/types/bin"), CONFD_OK);
  ASSERT_EQ(CONFD_GET_BINARY_SIZE(&v), 3u);
  EXPECT_EQ(CONFD_GET_BINARY_PTR(&v)[2], 3);
  confd_free_value(&v);
  ASSERT_EQ(maapi_get_elem(sock, ctx->thandle, &v, "/types/when"), CONFD_OK);
  EXPECT_EQ(CONFD_GET_DATETIME(&v).micro, 250000u);
  EXPECT_EQ(CONFD_GET_DATETIME(&v).timezone, CONFD_TIMEZONE_UNDEF);
  ASSERT_EQ(maapi_get_elem(sock, ctx->thandle, &v, "/types/dec"), CONFD_OK);
  EXPECT_EQ(CONFD_GET_DECIMAL64(&v).value, -350);
  EXPECT_EQ(CONFD_GET_DECIMAL64(&v).fraction_digits, 2);
}

// One read of a value: what a handler can tell about it.
struct ReadBack {
  int result = CONFD_ERR;
  confd_vtype type = C_NOEXISTS;
  std::string pp, detail, bytes;  // bytes: a buffer's own bytes
  bool operator==(const ReadBack &o) const {
    return result == o.result && type == o.type && pp == o.pp && detail == o.detail &&
           bytes == o.bytes;
  }
};

ReadBack Take(int result, confd_value_t *v, const host::Transaction &tx) {
  ReadBack r;
  r.result = result;
  if (result != CONFD_OK) return r;
  r.type = v->type;
  r.pp = Text(*v);
  r.detail = tx.Trace().back().detail;
  if (v->type == C_BUF || v->type == C_BINARY || v->type == C_HEXSTR) {
    r.bytes.assign(reinterpret_cast<const char *>(v->val.buf.ptr), v->val.buf.size);
  }
  confd_free_value(v);
  return r;
}

// The running configuration keeps no libyang data once indexed (only the
// candidate is read by XPath): its values and texts are copies. Read
// through CDB, with nothing else holding libyang's strings, every type
// reads back as the same data does from the candidate through MAAPI; and
// the commit plan, comparing the two, finds no change.
TEST(StoreCopiesTest, RunningReadsBackEveryTypeAsTheCandidateDoes) {
  const std::string name(300, 'n');  // a long string, and a key
  const std::string data =
      Types(
          "<hex>0A:ff</hex><hexlist>01:02</hexlist><bin>AQID</bin>"
          "<v4prefix>10.0.0.0/8</v4prefix><v6prefix>2001:DB8::/32</v6prefix>"
          "<addr4>10.1.1.1</addr4><addr6>2001:db8::1</addr6><num-or-word>42</num-or-word>"
          "<word-or-num>forty</word-or-num><dec>-3.5</dec><flags>a c</flags><wide>high</wide>"
          "<flag/><kind xmlns:st=\"urn:ipapp:store-types\">st:round</kind>"
          "<when>2024-02-29T23:59:58.25-00:00</when><quad>1.2.3.4</quad>"
          "<mac>00:1B:21:aa:bb:cc</mac><ref>-3.5</ref><low>-9223372036854775808</low>") +
      Item("<name>" + name + "</name><size>7</size><inner><depth>-1</depth></inner>" +
           "<box><on>true</on></box><tag>" + name + "x</tag><sub><id>-128</id></sub>" +
           "<color>blue</color>");
  std::vector<std::string> paths;
  for (const char *leaf : {"hex", "hexlist", "bin", "v4prefix", "v6prefix", "addr4", "addr6",
                           "num-or-word", "word-or-num", "dec", "flags", "wide", "flag", "kind",
                           "when", "quad", "mac", "ref", "low"}) {
    paths.push_back(std::string("/types/") + leaf);
  }
  for (const char *leaf : {"name", "size", "inner/depth", "box/on", "sub{-128}/id", "color"}) {
    paths.push_back("/item{" + name + "}/" + leaf);
  }
  std::vector<ReadBack> running;
  {
    auto tx = host::Transaction::Create(TypesSchema(), host::DataSource::Xml(data, "<running>"),
                                        host::DataSource::Empty());
    confd_trans_ctx *ctx = tx->Context("t");
    KxConfdCdbSession session(kxconfd_instance_get(static_cast<kxconfd_t *>(ctx->vcb_opaque)),
                              CDB_RUNNING, true);
    for (const std::string &path : paths) {
      confd_value_t v;
      running.push_back(Take(cdb_get(session.Socket(), &v, "%s", path.c_str()), &v, *tx));
    }
  }
  auto tx = host::Transaction::Create(TypesSchema(), host::DataSource::Xml(data, "<running>"),
                                      host::DataSource::Xml(data, "<candidate>"));
  confd_trans_ctx *ctx = tx->Context("t");
  const int sock = kxconfd_maapi_socket_get(static_cast<kxconfd_t *>(ctx->vcb_opaque));
  for (size_t i = 0; i < paths.size(); ++i) {
    SCOPED_TRACE(paths[i].substr(0, 40));
    confd_value_t v;
    const ReadBack candidate =
        Take(maapi_get_elem(sock, ctx->thandle, &v, "%s", paths[i].c_str()), &v, *tx);
    EXPECT_EQ(candidate.result, CONFD_OK) << confd_lasterr();
    EXPECT_TRUE(running[i] == candidate)
        << running[i].pp << " / " << running[i].detail << " against " << candidate.pp << " / "
        << candidate.detail;
  }
  EXPECT_FALSE(tx->Changed("/types"));
  EXPECT_FALSE(tx->Changed("/item"));
  char *res = nullptr;
  ASSERT_EQ(maapi_xpath_eval_expr(sock, ctx->thandle, "/item/tag", &res, nullptr, "/types"),
            CONFD_OK)
      << confd_lasterr();
  EXPECT_EQ(res, name + "x");
  std::free(res);
}

// confd_lib_lib(3): confd_pp_value prints every type without a schema,
// returns the length it needed like snprintf, and never a negative value.
TEST(ConfdPpValueTest, PrintsEveryTypeAndReportsTheLengthItNeeded) {
  TestSchema();  // element names are known once a schema is loaded
  confd_value_t v;
  const auto pp = [&](auto set) {
    set(&v);
    return Text(v);
  };
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_INT8(x, -8); }), "-8");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_INT64(x, -9000000000LL); }), "-9000000000");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_UINT64(x, 18446744073709551615ULL); }),
            "18446744073709551615");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_UINT16(x, 65535); }), "65535");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_BOOL(x, 1); }), "true");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_ENUM_VALUE(x, 16); }), "enum<16>");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_BIT32(x, 0x1a); }), "bits<1A>");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_BIT64(x, 1ULL << 40); }), "bits<10000000000>");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_XMLTAG(x, ipapp_l3, ipapp__ns); }), "l3");
  EXPECT_EQ(pp([](confd_value_t *x) { CONFD_SET_XMLTAG(x, 12345, 1); }), "tag<12345>");
  EXPECT_EQ(pp([](confd_value_t *x) {
              CONFD_SET_DECIMAL64(x, (confd_decimal64{314, 2}));
            }),
            "3.14");
  EXPECT_EQ(pp([](confd_value_t *x) {
              CONFD_SET_DECIMAL64(x, (confd_decimal64{314, 0}));
            }),
            "invalid64<314>");
  EXPECT_EQ(pp([](confd_value_t *x) {
              CONFD_SET_IDENTITYREF(x, (confd_identityref{1, 99}));
            }),
            "idref<99>");
  struct in6_addr a6;
  inet_pton(AF_INET6, "2001:0db8:0:0:0:0:0:1", &a6);
  CONFD_SET_IPV6(&v, a6);
  EXPECT_EQ(Text(v), "2001:db8::1");
  struct confd_ipv4_prefix p4;
  inet_pton(AF_INET, "10.1.1.1", &p4.ip);
  p4.len = 31;
  CONFD_SET_IPV4_AND_PLEN(&v, p4);
  EXPECT_EQ(Text(v), "10.1.1.1/31");
  static const unsigned char bytes[] = {0x05, 0xab};
  CONFD_SET_BINARY(&v, bytes, 2);
  EXPECT_EQ(Text(v), "05AB");
  CONFD_SET_HEXSTR(&v, bytes, 2);
  EXPECT_EQ(Text(v), "05:ab");
  CONFD_SET_BUF(&v, "a b", 3);
  EXPECT_EQ(Text(v), "a b");
  char small[4];
  // confd_types(3): CONFD_SET_STR makes a C_STR value.
  CONFD_SET_STR(&v, "abcdef");
  EXPECT_EQ(v.type, C_STR);
  EXPECT_EQ(confd_pp_value(small, sizeof small, &v), 6);
  EXPECT_STREQ(small, "abc");
  CONFD_SET_NOEXISTS(&v);
  EXPECT_EQ(confd_pp_value(small, sizeof small, &v), 0);
  EXPECT_STREQ(small, "");
  // An element the schema does not know still prints.
  confd_hkeypath_t kp{};
  kp.len = 2;
  CONFD_SET_XMLTAG(&kp.v[1][0], ipapp_l3, ipapp__ns);
  CONFD_SET_XMLTAG(&kp.v[0][0], 777, ipapp__ns);
  EXPECT_EQ(KeypathText(kp), "/l3/tag<777>");
}

// confd_lib_lib(3) ERRORS: confd_errno and confd_lasterr() are the calling
// thread's own.
TEST_F(StoreReadTest, ErrorStateIsPerThread) {
  EXPECT_EQ(maapi_exists(sock_, th_, "/config/nosuch"), CONFD_ERR);
  ASSERT_EQ(confd_errno, CONFD_ERR_BADPATH);
  const std::string mine = confd_lasterr();
  int other_errno = 0;
  std::string other_text;
  std::thread([&] {
    other_errno = confd_errno;  // nothing failed on this thread yet
    EXPECT_EQ(maapi_exists(sock_, th_ + 1000, "/config"), CONFD_ERR);
    other_text = confd_lasterr();
    EXPECT_EQ(confd_errno, CONFD_ERR_NOSESSION);
  }).join();
  EXPECT_EQ(other_errno, 0);
  EXPECT_NE(other_text, mine);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
  EXPECT_EQ(confd_lasterr(), mine);
}

}  // namespace
}  // namespace ipapp::test
