// Plug-ins that misbehave in every entry point: ipapp-check survives them
// all, exits 3 and says where the plug-in was and what it did. The fake
// plug-in of this folder plays each part.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "run_tool.h"

namespace check_test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// The sanitizers would turn a crash or an exit into a report of their own.
const char kSanitizers[] = "ASAN_OPTIONS=handle_segv=0:detect_leaks=0";

ToolResult RunFake(const std::string &mode, std::vector<std::string> more = {}) {
  std::vector<std::string> args = {"--running",   Example("running.xml"),
                                   "--candidate", Example("vrf-ospf.xml"),
                                   "--plugin",    IPAPP_FAKE_PLUGIN};
  args.insert(args.end(), more.begin(), more.end());
  return RunTool(args, {kSanitizers, "IPAPP_FAKE_MODE=" + mode});
}

constexpr char kFirstCall[] = "intf_l3_name_validation on /config/interface/ipapp:l3";

TEST(HostilePlugin, FailingInValidateEndsTheCommitWithExitThree) {
  const std::string in = std::string(" in ") + kFirstCall;
  struct Case {
    std::string mode;
    std::string failure;  // first line of the report, after "plug-in failure: "
    std::string message;  // on stderr
  };
  const std::vector<Case> cases = {
      {"throw", "fake failure in intf_l3_name_validation",
       "exception from the plug-in" + in + ": fake failure in intf_l3_name_validation"},
      // Types defined in the plug-in are read before it is unloaded.
      {"throw-own", "fake own failure", "exception from the plug-in" + in + ": fake own failure"},
      {"throw-int", "exception of type int",
       "exception from the plug-in" + in + ": exception of type int"},
      {"segv", "the plug-in crashed (signal SIGSEGV, Segmentation fault)",
       "the plug-in crashed" + in + " (signal SIGSEGV, Segmentation fault)"},
      {"abort", "the plug-in aborted (signal SIGABRT, Aborted)",
       "the plug-in aborted" + in + " (signal SIGABRT, Aborted)"},
      {"exit0", "the plug-in ended the process (exit status 0)",
       "the plug-in ended the process" + in + " (exit status 0)"},
      {"exit3", "the plug-in ended the process (exit status 3)",
       "the plug-in ended the process" + in + " (exit status 3)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    // --keep-going does not go past a failure.
    const ToolResult r = RunFake(c.mode, {"--keep-going"});
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "plug-in failure: " + c.failure +
                         "\n  validation: intf_l3_name_validation\n"
                         "  keypath: /config/interface/ipapp:l3\n");
    EXPECT_THAT(r.err, HasSubstr("ipapp-check: " + c.message + "\n"));
  }
}

TEST(HostilePlugin, FailingToStartGivesNoVerdict) {
  const std::string plugin = IPAPP_FAKE_PLUGIN;
  struct Case {
    std::string mode;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"throw@lib_init", plugin + ": exception from lib_init: fake failure in lib_init"},
      {"throw-own@lib_init", plugin + ": exception from lib_init: fake own failure"},
      {"throw-int@lib_init", plugin + ": exception from lib_init: exception of type int"},
      {"segv@lib_init", plugin + ": the plug-in crashed in lib_init (signal SIGSEGV"},
      {"exit0@lib_init", plugin + ": the plug-in ended the process in lib_init (exit status 0)"},
      {"exit3@lib_init", plugin + ": the plug-in ended the process in lib_init (exit status 3)"},
      {"throw@get_validation_point",
       plugin + ": exception from get_validation_point: fake failure in get_validation_point"},
      {"abort@get_validation_point",
       plugin + ": the plug-in aborted in get_validation_point (signal SIGABRT"},
      // A name as long as the buffer, without a NUL: read to the buffer's end.
      {"no-nul@get_validation_point",
       plugin + " serves validation point \"" + std::string(256, 'x') + "\", not"},
      {"segv@load", plugin + ": the plug-in crashed while loading (signal SIGSEGV"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.mode);
    const ToolResult r = RunFake(c.mode);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, StartsWith("ipapp-check: " + c.message));
  }
}

TEST(HostilePlugin, FailingToFinishFollowsTheVerdict) {
  const struct {
    std::string mode, failure;
  } cases[] = {
      {"throw@lib_finish", "exception from lib_finish: fake failure in lib_finish"},
      {"segv@lib_finish", "the plug-in crashed in lib_finish (signal SIGSEGV"},
      {"segv@unload", "the plug-in crashed while unloading (signal SIGSEGV"},
  };
  for (const auto &[mode, failure] : cases) {
    SCOPED_TRACE(mode);
    const ToolResult r = RunFake(mode);
    EXPECT_EQ(r.status, 3);
    EXPECT_EQ(r.FirstLine(), "accepted");
    EXPECT_THAT(r.out, HasSubstr("\nplug-in failure: " + failure));
    EXPECT_THAT(r.err, StartsWith("ipapp-check: " + failure));
  }
}

TEST(HostilePlugin, FaultsRecordedBeforeAFailureAreReported) {
  const ToolResult r = RunFake("fault-then-abort", {"--keep-going"});
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.out,
            "plug-in failure: the plug-in aborted (signal SIGABRT, Aborted)\n"
            "  validation: ipv4_addr_validation\n"
            "  keypath: /config/interface/ipapp:l3\n"
            "fault: validate (fake_plugin:1): fake fault in intf_l3_name_validation\n");
}

TEST(HostilePlugin, OneThatNeverReturnsIsStoppedAtTheTimeout) {
  const auto start = std::chrono::steady_clock::now();
  const ToolResult r = RunFake("hang", {"--timeout", "0.5"});
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(r.status, 3);
  EXPECT_EQ(r.FirstLine(), "plug-in failure: the plug-in did not return (stopped after 0.5 s)");
  EXPECT_THAT(r.err, HasSubstr(std::string("the plug-in did not return in ") + kFirstCall));
  EXPECT_LT(took, std::chrono::seconds(20));  // stopped, not waited for

  const ToolResult init = RunFake("hang@lib_init", {"--timeout", "0.5"});
  EXPECT_EQ(init.status, 3);
  EXPECT_THAT(init.err, HasSubstr("the plug-in did not return in lib_init (stopped after 0.5 s)"));
}

}  // namespace
}  // namespace check_test
