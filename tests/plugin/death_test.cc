// A value of the wrong ConfD type aborts with the standard assertion report
// naming the expression and the source unit.
#include "plugin_test.h"

namespace plugin_test {
namespace {

int Call(ipapp::host::Transaction &tx, const char *opaque, confd_hkeypath_t kp) {
  confd_value_t newval{};
  return validate(tx.Context(opaque), &kp, &newval);
}

TEST(AssertionDeathTest, KeypathElementsHaveTheirTypes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto tx = MakeTransaction("", Interfaces(L3("a", V4("10.0.0.1/24"))));
  confd_hkeypath_t kp = tx->Keypath(kL3Path);  // config, interface, l3
  confd_hkeypath_t bad = kp;
  CONFD_SET_CBUF(&bad.v[0][0], "a", 1);
  EXPECT_DEATH(Call(*tx, "ipv4_addr_validation", bad),
               "src/lib/config.*\\(&keypath->v\\[0\\]\\[0\\]\\)->type == C_XMLTAG");

  // Deeper keypaths of the VRF handler: l3 innermost, a key further out.
  bad = kp;
  bad.len = 4;
  bad.v[3][0] = kp.v[2][0];
  CONFD_SET_CBUF(&bad.v[3][0], "a", 1);
  EXPECT_DEATH(Call(*tx, "intf_vrf_validation", bad),
               "src/lib/validate_intf_vrf.*\\(&keypath->v\\[3\\]\\[0\\]\\)->type == C_XMLTAG");
  bad.len = 6;
  bad.v[4][0] = kp.v[2][0];
  CONFD_SET_CBUF(&bad.v[5][0], "a", 1);
  EXPECT_DEATH(Call(*tx, "intf_vrf_validation", bad),
               "src/lib/validate_intf_vrf.*\\(&keypath->v\\[5\\]\\[0\\]\\)->type == C_XMLTAG");
}

}  // namespace
}  // namespace plugin_test
