// Entry points: the validation point's name and the dispatch by opaque
// string.
#include <cstring>

#include "plugin_test.h"

namespace plugin_test {
namespace {

TEST(EntryTest, ValidationPointNameIsCutToTheBuffer) {
  char buf[8];
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(get_validation_point(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf, sizeof buf), std::string("ip_app_\0", 8));
  char full[32];
  EXPECT_EQ(get_validation_point(full, sizeof full), 0);
  EXPECT_STREQ(full, "ip_app_validation");
  EXPECT_EQ(get_validation_point(buf, 0), 0);
  EXPECT_EQ(buf[0], 'i');
}

class DispatchTest : public PluginTest {
 protected:
  void SetUp() override {
    // Refused by the IPv4 address handler only.
    tx_ = MakeTransaction("", Interfaces(L3("a", V4("10.0.0.0/24"))));
  }
};

TEST_F(DispatchTest, NamesArePrefixMatched) {
  const std::string network =
      "l3 a ipv4 address 10.0.0.0/24 cannot be configured as network address.";
  for (const auto &c : std::vector<std::pair<const char *, std::string>>{
           {"ipv4_addr_validation", network},
           {"ipv4_addr_validation_extra", network},
           {"ipv6_addr_validation", ""},
       }) {
    SCOPED_TRACE(c.first);
    Expect(Rerun(c.first, kL3Path), c.second);
  }
  for (const char *unknown : {"ipv4_addr", "", "no_such_validation"}) {
    SCOPED_TRACE(std::string("'") + unknown + "'");
    Outcome out = Rerun(unknown, kL3Path);
    EXPECT_EQ(out.result, -1);
    EXPECT_EQ(out.error, "");
  }
}

TEST_F(DispatchTest, FailuresOfTheDispatcherLeaveTheErrorText) {
  confd_hkeypath_t kp = tx_->Keypath(kL3Path);
  confd_value_t newval{};
  confd_trans_ctx *tctx = tx_->Context("ipv4_addr_validation");
  confd_trans_seterr(tctx, "%s", "earlier text");
  EXPECT_EQ(validate(nullptr, &kp, &newval), -1);
  EXPECT_EQ(validate(tctx, nullptr, &newval), -1);
  EXPECT_EQ(validate(tctx, &kp, nullptr), -1);
  EXPECT_EQ(validate(tx_->Context("unknown_validation"), &kp, &newval), -1);
  tx_->FailMaapiSocket(true);
  EXPECT_EQ(validate(tctx, &kp, &newval), -1);
  EXPECT_EQ(tx_->ErrorText(), "earlier text");
}

}  // namespace
}  // namespace plugin_test
