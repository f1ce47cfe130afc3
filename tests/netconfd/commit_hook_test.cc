// The commit check netconfd's library runs, without netconfd: data the store
// cannot take, which netconfd itself would refuse first, and a plug-in that
// fails in every way a process can, here under the sanitizers too. Verdicts
// and faults are checked end to end against ipapp-check.
#include <gtest/gtest.h>

#include <commit_hook.h>
#include <keypath.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using ipapp::netconfd::CommitHook;
using ipapp::netconfd::Verdict;
using namespace std::chrono_literals;

std::string Example(const std::string &name) {
  std::stringstream text;
  text << std::ifstream(std::string(IPAPP_SOURCE_DIR) + "/examples/" + name).rdbuf();
  return text.str();
}

TEST(CommitHookTest, DataTheStoreCannotTakeFailsTheCheckNamingTheSide) {
  CommitHook hook(IPAPP_PLUGIN, IPAPP_YANG_DIR, 60s);
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

// Whatever the plug-in does in its own process costs the one check, named in
// ipapp-check's words, and the next check runs.
TEST(CommitHookTest, FailingPluginFailsTheCheckAndTheNextCheckRuns) {
  CommitHook hook(IPAPP_FAKE_PLUGIN, IPAPP_YANG_DIR, 2s);
  const std::string running = Example("running.xml");
  const std::string candidate = Example("vrf-ospf.xml");
  const std::string place = "intf_l3_name_validation on /config/interface/ipapp:l3";
  struct Case {
    const char *mode;
    std::string message;
  } cases[] = {
      {"throw",
       "exception from the plug-in in " + place + ": fake failure in intf_l3_name_validation"},
      {"abort", "the plug-in aborted in " + place + " (signal SIGABRT, Aborted)"},
      {"exit0", "the plug-in ended the process in " + place + " (exit status 0)"},
      {"hang", "the plug-in did not return in " + place + " (stopped after 2 s)"},
      {"abort@lib_init", std::string(IPAPP_FAKE_PLUGIN) +
                             ": the plug-in aborted in lib_init (signal SIGABRT, Aborted)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    setenv("IPAPP_FAKE_MODE", c.mode, 1);
    Verdict failed = hook.Check(running, candidate);
    EXPECT_EQ(failed.kind, Verdict::Kind::kFailed);
    EXPECT_EQ(failed.message, c.message);
    if (std::string(c.mode).find('@') == std::string::npos) {
      EXPECT_EQ(failed.keypath, "/config/interface/ipapp:l3");
      EXPECT_EQ(failed.validation, "intf_l3_name_validation");
    }
  }

  setenv("IPAPP_FAKE_MODE", "refuse", 1);
  Verdict refused = hook.Check(running, candidate);
  EXPECT_EQ(refused.kind, Verdict::Kind::kRefused);
  EXPECT_EQ(refused.message, "intf_l3_name_validation refused");

  setenv("IPAPP_FAKE_MODE", "abort@lib_init", 1);
  EXPECT_THROW(hook.Probe(), ipapp::check::PluginError);
  unsetenv("IPAPP_FAKE_MODE");
  EXPECT_NO_THROW(hook.Probe());
}

}  // namespace

namespace {

using ipapp::netconfd::ParseKeypath;
using ipapp::netconfd::XPathLiteral;

// Keypaths read back step by step, keys unquoted; what is not a keypath
// reads as nothing, so that no error-path names the wrong node.
TEST(KeypathTest, StepsAndKeysReadBackAsTheStorePrintsThem) {
  struct Case {
    const char *keypath;
    std::vector<std::vector<std::string>> steps;  // name, then keys; "{}" marks an entry
  } cases[] = {
      {"/config/interface/ipapp:l3", {{"config"}, {"interface"}, {"l3"}}},
      {"/config/interface/ipapp:l3{core1}/ipv4",
       {{"config"}, {"interface"}, {"l3", "{}", "core1"}, {"ipv4"}}},
      {"/QX-RTM-MIB/rtm:rtmStaticRtEntry-global{0 2001:db8::/32 32 fe80::1}",
       {{"QX-RTM-MIB"}, {"rtmStaticRtEntry-global", "{}", "0", "2001:db8::/32", "32", "fe80::1"}}},
      {"/a/b{\"two words\" \"a \\\"quote\\\" and \\\\\" \"\" \"{\"}",
       {{"a"}, {"b", "{}", "two words", "a \"quote\" and \\", "", "{"}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.keypath);
    auto steps = ParseKeypath(c.keypath);
    ASSERT_EQ(steps.size(), c.steps.size());
    for (size_t i = 0; i < steps.size(); ++i) {
      std::vector<std::string> got = {steps[i].name};
      if (steps[i].entry) got.push_back("{}");
      got.insert(got.end(), steps[i].keys.begin(), steps[i].keys.end());
      EXPECT_EQ(got, c.steps[i]);
    }
  }
  for (const char *bad : {"", "config", "/a//b", "/a{x", "/a{\"x}", "/a{}", "/a:"}) {
    SCOPED_TRACE(bad);
    EXPECT_TRUE(ParseKeypath(bad).empty());
  }
}

TEST(KeypathTest, XPathLiteralsQuoteAnyText) {
  EXPECT_EQ(XPathLiteral("core1"), "'core1'");
  EXPECT_EQ(XPathLiteral("it's"), "\"it's\"");
  EXPECT_EQ(XPathLiteral("a'b\"c'"), "concat('a', \"'\", 'b\"c', \"'\", '')");
}

}  // namespace
