// The commit check netconfd's library runs, without netconfd: data the store
// cannot take, which netconfd itself would refuse first, and a plug-in
// exception, here under the sanitizers too. Verdicts and faults are checked
// end to end against ipapp-check.
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

TEST(CommitHookTest, DataTheStoreCannotTakeFailsTheCheckNamingTheSide) {
  CommitHook hook(IPAPP_PLUGIN, IPAPP_YANG_DIR);
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
    Verdict v = hook.Check(c.running, c.candidate);
    EXPECT_EQ(v.kind, Verdict::Kind::kFailed);
    EXPECT_EQ(v.message.rfind("the configuration cannot be checked: ", 0), 0u) << v.message;
    EXPECT_NE(v.message.find(c.side), std::string::npos) << v.message;
  }
  // The hook still serves after bad data.
  EXPECT_EQ(hook.Check(good, Example("vrf-ospf.xml")).kind, Verdict::Kind::kRefused);
}

TEST(CommitHookTest, PluginExceptionFailsTheCheckAndTheNextCheckRuns) {
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
