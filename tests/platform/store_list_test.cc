// Lists: the store's entry order, cursors, [N] in CDB paths, bulk reads,
// and the accounting of cursors and duplicated values.
#include <cstring>
#include <vector>

#include "config_xml.h"
#include "platform_fixture.h"

namespace ipapp::test {
namespace {

// Instances 0..entries-1; only the even ones name their interface.
std::string OspfTable(int entries) {
  std::string rows;
  for (int i = 0; i < entries; ++i) {
    const std::string name = "l3-if" + std::to_string(i);
    rows += E("ospf-interface-l3",
              E("instance", std::to_string(i)) + E("area", "0.0.0." + std::to_string(i % 3)) +
                  E("if-name", name) + (i % 2 ? "" : E("ospf-pm-if-name", name)));
  }
  return Internal(rows);
}

std::string Unordered() {
  return Interfaces(L3("b") +
                    L3("a9", V4("", {"10.0.0.9/24", "10.0.0.10/24", "10.0.0.9/16", "9.0.0.1/8"})) +
                    L3("B") + L3("a10")) +
         Internal(E("vrf-config", E("indexTOstring", E("index", "10")) +
                                      E("indexTOstring", E("index", "9")) +
                                      E("indexTOstring", E("index", "100")) +
                                      E("indexTOstring", E("index", "2")))) +
         Routes(Route("1.0.0.0", 8, "1.0.0.1", 1) + Route("::", 0, "2001:db8::1") +
                Route("10.0.0.0", 8, "10.0.0.1") + Route("9.255.0.0", 16, "10.0.0.1"));
}

class StoreListTest : public StoreTest {
 protected:
  /// First keys through a cursor, printed.
  std::vector<std::string> CursorKeys(const std::string &path) {
    std::vector<std::string> keys;
    maapi_cursor mc;
    EXPECT_EQ(maapi_init_cursor(sock_, th_, &mc, "%s", path.c_str()), CONFD_OK) << confd_lasterr();
    for (maapi_get_next(&mc); mc.n != 0; maapi_get_next(&mc)) keys.push_back(Text(mc.keys[0]));
    maapi_destroy_cursor(&mc);
    return keys;
  }
  /// First keys through [N], read from the running store (CDB paths).
  std::vector<std::string> IndexedKeys(const std::string &list, const std::string &key) {
    std::vector<std::string> keys;
    KxConfdCdbSession session(kxconfd_instance_get(host_), CDB_RUNNING, true);
    int n = cdb_num_instances(session.Socket(), "%s", list.c_str());
    for (int i = 0; i < n; ++i) {
      confd_value_t v;
      if (cdb_get(session.Socket(), &v, "%s[%d]/%s", list.c_str(), i, key.c_str()) != CONFD_OK) {
        keys.push_back(std::string("<error> ") + confd_lasterr());
        continue;
      }
      keys.push_back(Text(v));
      confd_free_value(&v);
    }
    return keys;
  }
};

TEST_F(StoreListTest, EntriesAreInKeyOrderWhateverTheInputOrder) {
  Load(Unordered());
  using V = std::vector<std::string>;
  const V names = {"B", "a10", "a9", "b"};  // bytewise
  EXPECT_EQ(CursorKeys("/config/interface/l3"), names);
  EXPECT_EQ(IndexedKeys("/config/interface/l3", "name"), names);
  const V indexes = {"2", "9", "10", "100"};  // numerically
  EXPECT_EQ(CursorKeys("/internal/vrf-config/indexTOstring"), indexes);
  EXPECT_EQ(IndexedKeys("/internal/vrf-config/indexTOstring", "index"), indexes);
  // Addresses by their bytes, then the prefix length.
  EXPECT_EQ(CursorKeys("/config/interface/l3{a9}/ipv4/address/secondary"),
            (V{"9.0.0.1/8", "10.0.0.9/16", "10.0.0.9/24", "10.0.0.10/24"}));
  // Several keys compared key by key: index, then family, then bytes.
  EXPECT_EQ(
      tx_->Instances("/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry"),
      (V{"/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 09:ff:00:00 16 ipv4 0a:00:00:01}",
         "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv4 0a:00:00:00 8 ipv4 0a:00:00:01}",
         "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{0 ipv6 "
         "00:00:00:00:00:00:00:00:00:00:00:00:00:00:00:00 0 ipv6 "
         "20:01:0d:b8:00:00:00:00:00:00:00:00:00:00:00:01}",
         "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry{1 ipv4 01:00:00:00 8 ipv4 01:00:00:01}"}));
}

// The element names interfaces core3, core30, core31: keys that begin
// other keys are found as themselves, through MAAPI and CDB alike, in lists
// of one key and of several.
TEST_F(StoreListTest, KeysThatBeginOtherKeysFindTheirOwnEntry) {
  const std::vector<std::string> names = {"core", "core3", "core30", "core300", "core31"};
  for (size_t n = 1; n <= names.size(); ++n) {
    std::string l3s, ldp;
    for (size_t i = 0; i < n; ++i) {
      l3s += L3(names[i], Vlan(static_cast<int>(i) + 10));
      ldp += LdpL3("l3-" + names[i], 100, "10.0.0.1/24");
    }
    SCOPED_TRACE(n);
    Load(Interfaces(l3s) + Internal(ldp));
    KxConfdCdbSession cdb(kxconfd_instance_get(host_), CDB_RUNNING, true);
    for (size_t i = 0; i < names.size() + 1; ++i) {
      const std::string name = i < names.size() ? names[i] : "core3000";
      SCOPED_TRACE(name);
      const std::string vlan = "/config/interface/l3{" + name + "}/lower-layer-if/vlan";
      const std::string expected = i < n
                                       ? std::to_string(i + 10)
                                       : "<error> maapi_get_elem: \"" + vlan + "\": does not exist";
      EXPECT_EQ(Get(vlan), expected);
      int32_t from_cdb = -1;
      EXPECT_EQ(cdb_get_int32(cdb.Socket(), &from_cdb, "%s", vlan.c_str()),
                i < n ? CONFD_OK : CONFD_ERR);
      EXPECT_EQ(from_cdb, i < n ? static_cast<int32_t>(i + 10) : -1);
      EXPECT_EQ(maapi_exists(sock_, th_, "/internal/int-ldp-intf-l3{l3-%s l3-vlan 100 10.0.0.1/24}",
                             name.c_str()),
                i < n ? 1 : 0);
    }
  }
}

TEST_F(StoreListTest, CursorOnAnEmptyOrMissingListEndsAtOnce) {
  Load("");
  EXPECT_TRUE(CursorKeys("/config/interface/ipapp:l3").empty());
  EXPECT_TRUE(CursorKeys("/config/interface/loopback{x}/ipv4/address").empty());
  EXPECT_EQ(maapi_exists(sock_, th_, "/config/interface/ipapp:l3"), 0);
  EXPECT_EQ(maapi_num_instances(sock_, th_, "/config/interface/ipapp:l3"), 0);
  maapi_cursor mc;
  EXPECT_EQ(maapi_init_cursor(sock_, th_, &mc, "/config/interface/l3{x}/vrf"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
  EXPECT_TRUE(tx_->Open().empty());
}

// confd_lib_maapi(3) maapi_get_objects: entries after the one the cursor
// names, the highest number of values per entry returned, the cursor left
// on the last entry read and n 0 once fewer than *nobj were left.
TEST_F(StoreListTest, GetObjectsReadsBatchesUntilTheListIsExhausted) {
  const struct {
    int entries;
    std::vector<int> batches;
  } cases[] = {
      {40, {32, 8}},
      {33, {32, 1}},  // the last entry alone in a batch of its own
      {32, {32, 0}},  // exactly one batch's worth: the next call reads nothing and ends it
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.entries);
    Load(OspfTable(c.entries));
    const std::vector<std::string> expected = CursorKeys("/internal/ospf-interface-l3");
    ASSERT_EQ(expected.size(), static_cast<size_t>(c.entries));

    maapi_cursor mc;
    ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/internal/ospf-interface-l3"), CONFD_OK);
    std::vector<int> batches;
    std::vector<std::string> instances, pm_names;
    confd_value_t values[32 * 4];
    do {
      int n = 32;
      // Every entry has 4 values (3 keys and ospf-pm-if-name, absent or not).
      const int most = maapi_get_objects(&mc, values, 4, &n);
      ASSERT_EQ(most, n > 0 ? 4 : 0);
      batches.push_back(n);
      for (confd_value_t *obj = values; obj < values + n * 4; obj += 4) {
        instances.push_back(Text(obj[0]));
        pm_names.push_back(obj[3].type == C_NOEXISTS ? "-" : Text(obj[3]));
        for (int j = 0; j < 4; ++j) confd_free_value(&obj[j]);
      }
      if (mc.n != 0) {
        EXPECT_EQ(Text(mc.keys[0]), instances.back());  // the last entry read
      }
    } while (mc.n != 0);
    maapi_destroy_cursor(&mc);
    EXPECT_EQ(batches, c.batches);
    EXPECT_EQ(instances, expected);
    // Values in schema order, keys first; an absent leaf is C_NOEXISTS.
    EXPECT_EQ(pm_names[0] + " " + pm_names[1], "l3-if0 -");
    EXPECT_TRUE(tx_->Open().empty());
  }
  // uint32 keys are not duplicated.
  maapi_cursor mc;
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/internal/ospf-interface-l3"), CONFD_OK);
  confd_value_t values[32];
  int n = 32;
  ASSERT_EQ(maapi_get_objects(&mc, values, 1, &n), 4);
  EXPECT_EQ(tx_->Open().dup_values, 0);
  maapi_destroy_cursor(&mc);
  const std::vector<std::string> expected = CursorKeys("/internal/ospf-interface-l3");

  // Mixed with maapi_get_next: the bulk read starts after the entry read.
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/internal/ospf-interface-l3"), CONFD_OK);
  maapi_get_next(&mc);
  maapi_get_next(&mc);
  n = 1;
  ASSERT_EQ(maapi_get_objects(&mc, values, 1, &n), 4);
  EXPECT_EQ(Text(values[0]), expected[2]);
  maapi_get_next(&mc);
  EXPECT_EQ(Text(mc.keys[0]), expected[3]);
  maapi_destroy_cursor(&mc);
}

// confd_types(3) "Value Array", as maapi_get_objects fills it: depth first,
// containers as C_XMLTAG followed by their children, an absent presence
// container or leaf as one C_NOEXISTS, a list as one C_NOEXISTS, a leaf-list
// as one C_LIST.
TEST_F(StoreListTest, GetObjectsLaysOutTheValueArray) {
  const std::string full =
      "<name>a</name><size>7</size><inner><depth>-1</depth></inner><box><on>true</on></box>"
      "<tag>x</tag><tag>y</tag><sub><id>1</id></sub><sub><id>2</id></sub><color>blue</color>";
  LoadTypes("", Item(full) + Item("<name>b</name>"));
  maapi_cursor mc;
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/st:item"), CONFD_OK) << confd_lasterr();
  confd_value_t v[2 * 9];
  for (confd_value_t &x : v) CONFD_SET_NOEXISTS(&x);
  int n = 5;
  ASSERT_EQ(maapi_get_objects(&mc, v, 9, &n), 9);  // a has 9 values, b 8
  ASSERT_EQ(n, 2);
  auto type_name = [](int t) {
    switch (t) {
      case C_NOEXISTS:
        return "NOEXISTS";
      case C_XMLTAG:
        return "XMLTAG";
      case C_BUF:
        return "BUF";
      case C_UINT16:
        return "UINT16";
      case C_INT8:
        return "INT8";
      case C_BOOL:
        return "BOOL";
      case C_LIST:
        return "LIST";
      case C_ENUM_VALUE:
        return "ENUM_VALUE";
      default:
        return "?";
    }
  };
  std::vector<std::string> got;
  for (const confd_value_t &x : v) got.push_back(std::string(type_name(x.type)) + " " + Text(x));
  EXPECT_EQ(got, (std::vector<std::string>{
                     // a: name, size, inner/depth, box/on, tag, sub, color
                     "BUF a", "UINT16 7", "XMLTAG inner", "INT8 -1", "XMLTAG box", "BOOL true",
                     "LIST x y", "NOEXISTS ", "ENUM_VALUE enum<2>",
                     // b: the non-presence container is there, the absent box is one slot
                     "BUF b", "NOEXISTS ", "XMLTAG inner", "NOEXISTS ", "NOEXISTS ", "NOEXISTS ",
                     "NOEXISTS ", "NOEXISTS ", "NOEXISTS "}));
  ASSERT_EQ(v[6].type, C_LIST);
  ASSERT_EQ(CONFD_GET_LISTSIZE(&v[6]), 2u);
  EXPECT_STREQ(CONFD_GET_CBUFPTR(&CONFD_GET_LIST(&v[6])[1]), "y");
  EXPECT_EQ(tx_->Open().dup_values, 3);  // "a", the leaf-list, "b"
  for (confd_value_t &x : v) confd_free_value(&x);
  EXPECT_TRUE(tx_->Open().cursors == 1 && tx_->Open().dup_values == 0);
  maapi_destroy_cursor(&mc);
}

TEST_F(StoreListTest, AccountingCatchesLeakedCursorsAndUnfreedValues) {
  Load(ExampleConfig());
  maapi_cursor mc;
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/config/interface/l3"), CONFD_OK);
  confd_value_t v1, v2;
  ASSERT_EQ(maapi_get_elem(sock_, th_, &v1, "/config/interface/l3{core1}/vrf"), CONFD_OK);
  ASSERT_EQ(maapi_get_elem(sock_, th_, &v2, "/config/interface/l3{core1}/lower-layer-if/vlan"),
            CONFD_OK);
  host::OpenResources open = tx_->Open();
  EXPECT_EQ(open.cursors, 1);
  EXPECT_EQ(open.dup_values, 1);  // the string; the int32 holds nothing to free
  EXPECT_FALSE(open.empty());

  confd_free_dup_to_value(&v1);
  confd_free_value(&v1);  // a second release is harmless
  maapi_destroy_cursor(&mc);
  EXPECT_TRUE(tx_->Open().empty());

  // Cursor keys point into the store: releasing them frees nothing.
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/config/interface/l3"), CONFD_OK);
  maapi_get_next(&mc);
  confd_free_value(&mc.keys[0]);
  EXPECT_STREQ(CONFD_GET_CBUFPTR(&mc.keys[0]), "core1");
  EXPECT_EQ(tx_->Trace().back().result, CONFD_ERR);

  // Ending the transaction reclaims what was left open; the stale cursor
  // is then refused instead of read.
  std::vector<confd_value_t> left(64);
  for (confd_value_t &v : left) {
    ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "/config/interface/l3{core1}/vrf"), CONFD_OK);
  }
  tx_.reset();
  EXPECT_EQ(maapi_get_next(&mc), CONFD_ERR);
  EXPECT_EQ(mc.n, 0);
  maapi_destroy_cursor(&mc);
  // A host runs transaction after transaction: the next one's values take
  // the memory reclaimed, and are its own to account for and free once.
  Load(ExampleConfig());
  std::vector<confd_value_t> next(left.size());
  for (confd_value_t &v : next) {
    ASSERT_EQ(maapi_get_elem(sock_, th_, &v, "/config/interface/l3{core1}/vrf"), CONFD_OK);
  }
  EXPECT_EQ(tx_->Open().dup_values, static_cast<int>(next.size()));
  for (confd_value_t &v : next) confd_free_value(&v);
  EXPECT_TRUE(tx_->Open().empty());
}

// confd_lib_maapi(3) names entries by their keys; "[N]" (0-based, in
// data-store order) belongs to CDB paths (confd_lib_cdb(3) PATHS).
TEST_F(StoreListTest, IndexesAreForCdbPathsOnly) {
  Load(ExampleConfig());
  EXPECT_EQ(maapi_exists(sock_, th_, "/config/interface/l3[0]"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
  maapi_cursor mc;
  EXPECT_EQ(maapi_init_cursor(sock_, th_, &mc, "/config/interface/l3[0]/ipv4/address/secondary"),
            CONFD_ERR);
  char *res = nullptr;
  EXPECT_EQ(maapi_xpath_eval_expr(sock_, th_, "vrf", &res, nullptr, "/config/interface/l3[0]"),
            CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_BADPATH);
  KxConfdCdbSession session(kxconfd_instance_get(host_), CDB_RUNNING, true);
  EXPECT_EQ(cdb_exists(session.Socket(), "/config/interface/l3[0]"), 1);
  EXPECT_EQ(cdb_exists(session.Socket(), "/config/interface/l3[1]"), 0);  // one past the last
  EXPECT_EQ(cdb_exists(session.Socket(), "/config/interface/l3[5]"), 0);
  confd_value_t v;
  EXPECT_EQ(cdb_get(session.Socket(), &v, "/config/interface/l3[1]/name"), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
  char name[16];
  EXPECT_EQ(cdb_get_str(session.Socket(), name, sizeof name, "/config/interface/l3[0]/name"),
            CONFD_OK);
  EXPECT_STREQ(name, "core1");
  EXPECT_EQ(cdb_exists(session.Socket(), "/config/interface/l3[0]x/vrf"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(),
               "cdb_exists: \"/config/interface/l3[0]x/vrf\": bad path: '/' expected after the "
               "keys of \"l3\"");
  EXPECT_EQ(cdb_exists(session.Socket(), "/config/interface/l3[x]"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(),
               "cdb_exists: \"/config/interface/l3[x]\": bad path: bad index \"[x]\"");
}

// confd_lib_maapi(3) maapi_init_cursor sets secondary_index and xpath_expr
// to NULL; an xpath_expr set afterwards filters the entries.
TEST_F(StoreListTest, CursorFieldsTheCallerMaySet) {
  Load(OspfTable(6));
  maapi_cursor mc;
  std::memset(&mc, 0x5a, sizeof mc);
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/internal/ospf-interface-l3"), CONFD_OK);
  EXPECT_EQ(mc.secondary_index, nullptr);
  EXPECT_EQ(mc.xpath_expr, nullptr);
  char expr[] = "ospf-pm-if-name and instance > 1";
  mc.xpath_expr = expr;
  std::vector<std::string> keys;
  for (maapi_get_next(&mc); mc.n != 0; maapi_get_next(&mc)) keys.push_back(Text(mc.keys[0]));
  EXPECT_EQ(keys, (std::vector<std::string>{"2", "4"}));
  maapi_destroy_cursor(&mc);
  ASSERT_EQ(maapi_init_cursor(sock_, th_, &mc, "/internal/ospf-interface-l3"), CONFD_OK);
  char index[] = "by-name";
  mc.secondary_index = index;
  EXPECT_EQ(maapi_get_next(&mc), CONFD_ERR);
  EXPECT_EQ(confd_errno, CONFD_ERR_NOEXISTS);
  maapi_destroy_cursor(&mc);
}

TEST_F(StoreListTest, NonListsAreRefused) {
  Load(ExampleConfig());
  EXPECT_EQ(maapi_num_instances(sock_, th_, "/config/interface/l3{core1}"), CONFD_ERR);
  EXPECT_STREQ(confd_lasterr(), "maapi_num_instances: \"/config/interface/l3{core1}\": not a list");
  maapi_cursor mc{};
  EXPECT_EQ(maapi_get_next(&mc), CONFD_ERR);  // never initialised
}

}  // namespace
}  // namespace ipapp::test
