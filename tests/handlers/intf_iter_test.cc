// The diff-iteration callbacks on single reported changes, including
// sequences a real walk never produces (the first change of an interface wins).
#include <gtest/gtest.h>
#include <host_fixture.h>
#include <ip_app_validation.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

struct Change {
  const char *path;
  confd_iter_op op;
  int vlan = 0;  // new value of a VLAN that is set
};

constexpr char kLoIp[] = "/config/interface/ipapp:loopback{0}/ipv4/address{1.1.1.1/32}";
constexpr char kVlan[] = "/config/interface/ipapp:l3{core1}/lower-layer-if/vlan";

TEST(IntfIter, RecordsAddressesAndVlansFirstChangeWins) {
  const struct {
    const char *name;
    std::vector<Change> changes;
    std::string recorded;  // by intf_iter, then by intf_iter_oper_lower_layer
  } cases[] = {
      {"loopback address set", {{kLoIp, MOP_VALUE_SET}, {kLoIp, MOP_CREATED}}, ""},
      {"l3 address created", {{"/config/interface/ipapp:l3{a}/ipv4/address/ip", MOP_CREATED}}, ""},
      {"secondary and mgmt addresses",
       {{"/config/interface/ipapp:l3{a}/ipv4/address/secondary{10.0.1.1/24}", MOP_DELETED},
        {"/config/interface/ipapp:mgmt{0}/ipv4/address/ip", MOP_DELETED}},
       ""},
      {"vlan set twice",
       {{kVlan, MOP_VALUE_SET, 200}, {kVlan, MOP_VALUE_SET, 300}},
       "l3-core1=200"},
      {"vlan deleted then set", {{kVlan, MOP_DELETED}, {kVlan, MOP_VALUE_SET, 300}}, "l3-core1=0"},
      {"vlan set then deleted",
       {{kVlan, MOP_VALUE_SET, 300}, {kVlan, MOP_DELETED}},
       "l3-core1=300"},
      {"vlan created or modified", {{kVlan, MOP_CREATED}, {kVlan, MOP_MODIFIED}}, ""},
      {"vrf", {{"/config/interface/ipapp:l3{a}/vrf", MOP_VALUE_SET, 5}}, ""},
  };
  auto tx = ipapp::test::MakeTransaction("", "");
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    std::set<std::string> addresses;
    std::map<std::string, int> vlans;
    for (const Change &change : c.changes) {
      confd_hkeypath_t kp = tx->Keypath(change.path);
      confd_value_t newv{};
      CONFD_SET_INT32(&newv, change.vlan);
      EXPECT_EQ(intf_iter(&kp, change.op, nullptr, &newv, &addresses), ITER_RECURSE);
      EXPECT_EQ(intf_iter_oper_lower_layer(&kp, change.op, nullptr, &newv, &vlans), ITER_RECURSE);
    }
    std::string recorded;
    for (const auto &a : addresses) recorded += a;
    for (const auto &v : vlans) recorded += v.first + "=" + std::to_string(v.second);
    EXPECT_EQ(recorded, c.recorded);
  }
}

}  // namespace
