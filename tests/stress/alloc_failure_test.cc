// Allocation failure at every allocation that the callbacks of every example
// commit make: the commit ends with the plug-in failing on std::bad_alloc
// (or, where the failure is absorbed, with the report it gives anyway),
// nothing terminates, and the transaction keeps nothing open that the
// commit without the failure would not. With the same counting operator new:
// what a transaction costs does not grow with use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ipapp/check_engine.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include <malloc.h>

#include "config_xml.h"
#include "examples.h"
#include "report_text.h"

namespace {

// Counts the allocations made while armed and fails the one numbered
// fail_at (from 0); -1 fails none. Also keeps the bytes in use.
std::atomic<bool> g_armed{false};
std::atomic<long> g_count{0};
std::atomic<long> g_fail_at{-1};
std::atomic<long> g_live_bytes{0};

}  // namespace

void *operator new(std::size_t size) {
  if (g_armed.load(std::memory_order_relaxed) && g_count.fetch_add(1) == g_fail_at.load()) {
    throw std::bad_alloc();
  }
  void *p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  g_live_bytes += static_cast<long>(malloc_usable_size(p));
  return p;
}
void *operator new[](std::size_t size) {
  return operator new(size);
}
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
  try {
    return operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void *operator new[](std::size_t size, const std::nothrow_t &) noexcept {
  return operator new(size, std::nothrow);
}
void operator delete(void *p) noexcept {
  if (p != nullptr) g_live_bytes -= static_cast<long>(malloc_usable_size(p));
  std::free(p);
}
void operator delete[](void *p) noexcept {
  operator delete(p);
}
void operator delete(void *p, std::size_t) noexcept {
  operator delete(p);
}
void operator delete[](void *p, std::size_t) noexcept {
  operator delete(p);
}

namespace stress_test {
namespace {

// The commit of tx with allocation fail_at failing; armed from just before
// each callback to just after it.
ipapp::check::Report RunInjected(const ipapp::check::Plugin &plugin, ipapp::host::Transaction &tx,
                                 long fail_at, long *allocations) {
  ipapp::check::Options options;
  options.before_each = [](const std::string &, const std::string &) { g_armed = true; };
  options.after_each = [](const ipapp::check::Invocation &) { g_armed = false; };
  g_count = 0;
  g_fail_at = fail_at;
  ipapp::check::Report report =
      ipapp::check::RunCommit(plugin, *ipapp::test::TestSchema(), tx, options);
  g_armed = false;
  g_fail_at = -1;
  if (allocations != nullptr) *allocations = g_count;
  return report;
}

constexpr long kRunsPerCommit = 500;

// Fails each allocation of the commit of tx in turn (evenly spread ones, at
// shifting offsets, where there are more than kRunsPerCommit); the number of
// runs made.
long InjectEverywhere(const ipapp::check::Plugin &plugin, ipapp::host::Transaction &tx) {
  ipapp::host::OpenResources before = tx.Open();
  long allocations = 0;
  const std::string expected = ipapp::test::ReportText(RunInjected(plugin, tx, -1, &allocations));
  // Left open by design: a cursor the OSPFv3 router-id check keeps.
  const int cursors_kept = tx.Open().cursors - before.cursors;
  const long stride = (allocations + kRunsPerCommit - 1) / kRunsPerCommit;
  long runs = 0;
  for (long i = 0, k = 0; k < allocations; ++i, k = i * stride + i % stride, ++runs) {
    SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(allocations));
    before = tx.Open();
    const size_t faults_before = tx.Faults().size();
    ipapp::check::Report report = RunInjected(plugin, tx, k, nullptr);
    // The fault log is the transaction's: earlier runs' faults stay in it.
    report.faults.erase(report.faults.begin(), report.faults.begin() + faults_before);
    if (const ipapp::check::Invocation *failure = report.failure()) {
      EXPECT_EQ(failure->error, "std::bad_alloc");
    } else {
      EXPECT_EQ(ipapp::test::ReportText(report), expected);  // absorbed (a trace record)
    }
    const ipapp::host::OpenResources after = tx.Open();
    EXPECT_EQ(after.dup_values, 0);
    EXPECT_EQ(after.cdb_sessions, 0);
    EXPECT_LE(after.cursors - before.cursors, cursors_kept);
    if (::testing::Test::HasFailure()) break;  // one broken path is enough to read
  }
  return runs;
}

TEST(AllocationFailure, EndsEveryExampleCommitCleanly) {
  const ipapp::check::Plugin plugin(IPAPP_PLUGIN);
  long runs = 0;
  for (const std::string &candidate : Candidates()) {
    SCOPED_TRACE(candidate);
    runs += InjectEverywhere(plugin, *ExampleCommit(candidate));
    if (HasFailure()) return;
  }
  RecordProperty("injected_runs", static_cast<int>(runs));
  EXPECT_GT(runs, 5000);
}

// Names too long for a string's inline buffer: reading them allocates, and
// that may fail while a duplicated value is held.
TEST(AllocationFailure, EndsCleanlyWhereLongNamesAreRead) {
  using namespace ipapp::test;  // NOLINT: the builders read best unqualified
  const std::string vrf = "customer-vrf-with-a-long-name";
  const std::string running =
      Interfaces(L3("uplink-with-a-long-name", V4("10.0.0.1/24") + Vlan(10) + Vrf(vrf))) +
      Internal(VrfName(1, vrf)) + Routes(Route("192.168.0.0", 16, "10.0.0.9", 1)) +
      RouteIntf("192.168.0.0", 16, "10.0.0.9", "l3-uplink-with-a-long-name");
  const std::string candidate =
      Interfaces(L3("uplink-with-a-long-name", V4("10.0.0.2/24") + Vlan(10) + Vrf(vrf))) +
      Internal(VrfName(1, vrf)) + Routes(Route("192.168.0.0", 16, "10.0.0.9", 1)) +
      RouteIntf("192.168.0.0", 16, "10.0.0.9", "l3-uplink-with-a-long-name");
  const ipapp::check::Plugin plugin(IPAPP_PLUGIN);
  EXPECT_GT(InjectEverywhere(plugin, *MakeTransaction(running, candidate)), 100);
}

// Keypaths and contexts handed out again and again cost the transaction
// nothing more after the first time.
TEST(TransactionMemory, StaysPutAcrossConversions) {
  auto tx = ExampleCommit("accept-new-interface.xml");
  const std::vector<std::string> paths = {
      "/config/interface/ipapp:l3{core1}",             // an entry: its own keys
      "/config/interface/ipapp:l3{no-such-entry}",     // none: the key text
      "/QX-RTM-MIB/rtmStaticRtTable/rtmStaticRtEntry"  // a list
      "{1 ipv4 0a:32:00:00 16 ipv4 c0:a8:0a:fe}",      // binary keys
  };
  auto convert = [&](int times) {
    for (int i = 0; i < times; ++i) {
      for (const std::string &path : paths) tx->Keypath(path);
      tx->Context("intf_l3_name_validation");
    }
  };
  convert(1);
  const long before = g_live_bytes;
  convert(100000);
  EXPECT_LT(g_live_bytes - before, 1024);
}

}  // namespace
}  // namespace stress_test
