// The engine's isolated commit, as another host uses it: the same report as
// in-process for a plug-in that behaves, and the caller unharmed and its
// transaction untouched for one that does not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ipapp/check_engine.h>

#include "report_text.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using ipapp::check::Invocation;
using ipapp::check::Report;
using ::testing::HasSubstr;

const std::string kExamples = std::string(IPAPP_SOURCE_DIR) + "/examples/";
constexpr std::chrono::seconds kTimeout(60);

std::shared_ptr<const ipapp::host::Schema> Schema() {
  static auto schema = ipapp::host::Schema::Load(IPAPP_YANG_DIR);
  return schema;
}

std::unique_ptr<ipapp::host::Transaction> Commit(const std::string &candidate) {
  return ipapp::host::Transaction::Create(Schema(),
                                          ipapp::host::DataSource::File(kExamples + "running.xml"),
                                          ipapp::host::DataSource::File(kExamples + candidate));
}

TEST(IsolatedCommit, ReportsWhatAnInProcessCommitReports) {
  ipapp::check::Options options;
  options.keep_going = true;
  options.trace = true;
  for (const char *candidate : {"several-faults.xml", "accept-zero-mgmt-address.xml"}) {
    SCOPED_TRACE(candidate);
    auto tx = Commit(candidate);
    const Report isolated =
        ipapp::check::RunCommitIsolated(IPAPP_PLUGIN, *Schema(), *tx, options, kTimeout);
    Report in_process;
    {
      ipapp::check::Plugin plugin(IPAPP_PLUGIN);
      in_process = ipapp::check::RunCommit(plugin, *Schema(), *tx, options);
    }
    EXPECT_GT(isolated.invocations.size(), 3u);
    EXPECT_EQ(ipapp::test::ReportText(isolated), ipapp::test::ReportText(in_process));
  }
}

TEST(IsolatedCommit, DeathEndsTheReportAndSparesTheCaller) {
  // abort, not a segmentation fault: a sanitizer would catch that one itself.
  setenv("IPAPP_FAKE_MODE", "abort", 1);
  auto tx = Commit("vrf-ospf.xml");
  std::vector<std::string> seen;
  ipapp::check::Options options;
  options.before_each = [&](const std::string &validation, const std::string &keypath) {
    seen.push_back("before " + validation + " " + keypath);
  };
  options.after_each = [&](const Invocation &inv) { seen.push_back("after " + inv.FailureText()); };
  const Report report =
      ipapp::check::RunCommitIsolated(IPAPP_FAKE_PLUGIN, *Schema(), *tx, options, kTimeout);
  ASSERT_NE(report.failure(), nullptr);
  EXPECT_EQ(report.failure()->process_end, "aborted");
  EXPECT_THAT(seen,
              ::testing::ElementsAre("before intf_l3_name_validation /config/interface/ipapp:l3",
                                     "after the plug-in aborted (signal SIGABRT, Aborted)"));
  // The transaction was the child's copy: nothing of the commit shows here.
  EXPECT_TRUE(tx->Trace().empty());
  EXPECT_TRUE(tx->Open().empty());

  setenv("IPAPP_FAKE_MODE", "throw-int@lib_init", 1);
  try {
    ipapp::check::RunCommitIsolated(IPAPP_FAKE_PLUGIN, *Schema(), *tx, {}, kTimeout);
    ADD_FAILURE() << "no PluginError";
  } catch (const ipapp::check::PluginError &e) {
    EXPECT_THAT(e.what(), HasSubstr("exception from lib_init: exception of type int"));
  }
  unsetenv("IPAPP_FAKE_MODE");
}

// What the commit produced before the plug-in's process ended stays in the
// report: the callbacks that ran, the faults they recorded, the verdict.
TEST(IsolatedCommit, WhatCameBeforeTheEndIsKept) {
  ipapp::check::Options options;
  options.keep_going = true;
  auto tx = Commit("vrf-ospf.xml");
  auto run = [&](const char *mode) {
    setenv("IPAPP_FAKE_MODE", mode, 1);
    ipapp::check::Report report =
        ipapp::check::RunCommitIsolated(IPAPP_FAKE_PLUGIN, *Schema(), *tx, options, kTimeout);
    unsetenv("IPAPP_FAKE_MODE");
    return report;
  };
  const Report accepted = run("accept");

  const Report exited = run("exit3");
  ASSERT_NE(exited.failure(), nullptr);
  EXPECT_EQ(exited.failure()->FailureText(), "the plug-in ended the process (exit status 3)");

  const Report faulted = run("fault-then-abort");
  ASSERT_EQ(faulted.invocations.size(), 2u);
  EXPECT_FALSE(faulted.invocations[0].failed);
  EXPECT_EQ(faulted.invocations[1].FailureTextWithPlace(),
            "the plug-in aborted in ipv4_addr_validation on /config/interface/ipapp:l3 (signal "
            "SIGABRT, Aborted)");
  ASSERT_EQ(faulted.faults.size(), 1u);
  EXPECT_EQ(faulted.faults[0].message, "fake fault in intf_l3_name_validation");

  // abort, not a segmentation fault: see above.
  const Report unloaded = run("abort@unload");
  EXPECT_TRUE(unloaded.accepted());
  EXPECT_EQ(unloaded.finish_failure,
            "the plug-in aborted while unloading (signal SIGABRT, Aborted)");
  EXPECT_GT(accepted.invocations.size(), 3u);
  EXPECT_EQ(ipapp::test::ReportText(unloaded),
            ipapp::test::ReportText(accepted) + unloaded.finish_failure);
}

}  // namespace
