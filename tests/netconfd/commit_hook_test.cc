// The commit check netconfd's library runs, without netconfd: what the
// end-to-end tests cannot see (faults for the log, data the store cannot
// take) and a plug-in exception, here under the sanitizers too. The verdicts
// themselves are checked end to end against ipapp-check.
#include <gtest/gtest.h>

#include <commit_hook.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using ipapp::netconfd::CommitHook;
using ipapp::netconfd::Verdict;

std::string Example(const std::string &name) {
  std::stringstream text;
  text << std::ifstream(std::string(IPAPP_SOURCE_DIR) + "/examples/" + name).rdbuf();
  return text.str();
}

class CommitHookTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { hook_ = new CommitHook(IPAPP_PLUGIN, IPAPP_YANG_DIR); }
  static void TearDownTestSuite() {
    delete hook_;
    hook_ = nullptr;
  }
  static CommitHook *hook_;
};
CommitHook *CommitHookTest::hook_ = nullptr;

TEST_F(CommitHookTest, AcceptsWithTheFaultsThePluginRecordedEachOnce) {
  Verdict v = hook_->Check(Example("running.xml"), Example("accept-zero-mgmt-address.xml"));
  EXPECT_EQ(v.kind, Verdict::Kind::kAccepted);
  ASSERT_EQ(v.faults.size(), 1u);
  EXPECT_NE(v.faults[0].find("Unspecified IPv4 address for key '0' (recorded "), std::string::npos)
      << v.faults[0];
}

TEST_F(CommitHookTest, DataTheStoreCannotTakeFailsTheCheckNamingTheSide) {
  const std::string good = Example("running.xml");
  const std::string unknown = "<config xmlns=\"urn:ipapp:shellcfg\"><mtu>1</mtu></config>";
  const std::string broken = "<config xmlns=\"urn:ipapp:shellcfg\"><interface>";
  struct Case {
    const char *name;
    std::string running, candidate;
    const char *side;
  } cases[] = {
      {"unknown node in the candidate", good, unknown, "<candidate>"},
      {"unfinished candidate", good, broken, "<candidate>"},
      {"unknown node in the running store", unknown, good, "<running>"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    Verdict v = hook_->Check(c.running, c.candidate);
    EXPECT_EQ(v.kind, Verdict::Kind::kFailed);
    EXPECT_EQ(v.message.rfind("the configuration cannot be checked: ", 0), 0u) << v.message;
    EXPECT_NE(v.message.find(c.side), std::string::npos) << v.message;
  }
  // The hook still serves after bad data.
  EXPECT_EQ(hook_->Check(good, Example("vrf-ospf.xml")).kind, Verdict::Kind::kRefused);
}

TEST(CommitHookPluginFailureTest, ExceptionFailsTheCheckAndTheNextCheckRuns) {
  CommitHook hook(IPAPP_FAKE_PLUGIN, IPAPP_YANG_DIR);
  const std::string running = Example("running.xml");
  const std::string candidate = Example("vrf-ospf.xml");

  setenv("IPAPP_FAKE_MODE", "throw", 1);
  Verdict failed = hook.Check(running, candidate);
  EXPECT_EQ(failed.kind, Verdict::Kind::kFailed);
  EXPECT_EQ(failed.message,
            "the validation plug-in failed in intf_l3_name_validation on "
            "/config/interface/ipapp:l3: fake failure in intf_l3_name_validation");
  EXPECT_EQ(failed.keypath, "/config/interface/ipapp:l3");
  EXPECT_EQ(failed.validation, "intf_l3_name_validation");

  setenv("IPAPP_FAKE_MODE", "refuse", 1);
  Verdict refused = hook.Check(running, candidate);
  unsetenv("IPAPP_FAKE_MODE");
  EXPECT_EQ(refused.kind, Verdict::Kind::kRefused);
  EXPECT_EQ(refused.message, "intf_l3_name_validation refused");
}

}  // namespace
