// Shared by the plug-in and handler tests: a fixture that runs callbacks
// through validate() the way the host does, checking that no handler leaves
// anything open but the empty XPath results the VRF handler is known to
// leave (each case states how many). Needs the plug-in (or its core
// library) linked in.
#ifndef IPAPP_TESTS_PLUGIN_TEST_H
#define IPAPP_TESTS_PLUGIN_TEST_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "config_xml.h"
#include "host_fixture.h"
#include "ip_app_validation.h"

namespace plugin_test {

using namespace ipapp::test;  // NOLINT: the builders read best unqualified

constexpr char kL3Path[] = "/config/interface/ipapp:l3";
constexpr char kLoPath[] = "/config/interface/ipapp:loopback";
constexpr char kMgmtPath[] = "/config/interface/ipapp:mgmt";
constexpr char kRoutePath[] = "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry";
constexpr char kLdpPath[] = "/internal/int-ldp-intf-l3";

// One callback and its verdict ("" for accepted).
struct Case {
  const char *what;
  std::string candidate;
  const char *path;
  std::string error;
  std::string running = "";
  int xpath_leaks = 0;  ///< empty XPath results the callback leaves unfreed
};

class PluginTest : public ::testing::Test {
 protected:
  Outcome Validate(const std::string &candidate, const std::string &opaque, const std::string &path,
                   const std::string &running = "") {
    tx_ = MakeTransaction(running, candidate);
    return Rerun(opaque, path);
  }

  // Another callback on the same transaction.
  Outcome Rerun(const std::string &opaque, const std::string &path) {
    Outcome out = ipapp::test::Run(*tx_, validate, opaque, path);
    last_open_ = tx_->Open();
    const ipapp::host::OpenResources &open = last_open_;
    EXPECT_TRUE(open.cursors == 0 && open.cdb_sessions == 0 && open.dup_values == 0)
        << opaque << " left open: " << open.cursors << " cursors, " << open.cdb_sessions
        << " sessions, " << open.dup_values << " values";
    return out;
  }

  void Expect(const Outcome &out, const std::string &error) {
    EXPECT_EQ(out.result, error.empty() ? 0 : -1);
    EXPECT_EQ(out.error, error);
  }

  void RunCases(const char *opaque, const std::vector<Case> &cases) {
    for (const Case &c : cases) {
      SCOPED_TRACE(c.what);
      Expect(Validate(c.candidate, opaque, c.path, c.running), c.error);
      EXPECT_EQ(last_open_.xpath_results, c.xpath_leaks) << "empty XPath results left open";
    }
  }

  std::unique_ptr<ipapp::host::Transaction> tx_;
  ipapp::host::OpenResources last_open_;
};

}  // namespace plugin_test

#endif  // IPAPP_TESTS_PLUGIN_TEST_H
