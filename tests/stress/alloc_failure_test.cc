// Allocation failure at every allocation that the callbacks of every example
// commit make: the commit ends with the plug-in failing on std::bad_alloc
// (or, where the failure is absorbed, with the report it gives anyway),
// nothing terminates, and the transaction keeps nothing open that the
// commit without the failure would not.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ipapp/check_engine.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "examples.h"
#include "report_text.h"

namespace {

// Counts the allocations made while armed and fails the one numbered
// fail_at (from 0); -1 fails none.
std::atomic<bool> g_armed{false};
std::atomic<long> g_count{0};
std::atomic<long> g_fail_at{-1};

}  // namespace

void *operator new(std::size_t size) {
  if (g_armed.load(std::memory_order_relaxed) && g_count.fetch_add(1) == g_fail_at.load()) {
    throw std::bad_alloc();
  }
  void *p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
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
  std::free(p);
}
void operator delete[](void *p) noexcept {
  std::free(p);
}
void operator delete(void *p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void *p, std::size_t) noexcept {
  std::free(p);
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

constexpr long kRunsPerCommit = 1200;

TEST(AllocationFailure, EndsTheCommitCleanlyWhereverItStrikes) {
  const ipapp::check::Plugin plugin(IPAPP_PLUGIN);
  long runs = 0;
  for (const std::string &candidate : Candidates()) {
    SCOPED_TRACE(candidate);
    auto tx = ExampleCommit(candidate);
    ipapp::host::OpenResources before = tx->Open();
    long allocations = 0;
    const std::string expected =
        ipapp::test::ReportText(RunInjected(plugin, *tx, -1, &allocations));
    // Left open by design: a cursor the OSPFv3 router-id check keeps.
    const int cursors_kept = tx->Open().cursors - before.cursors;
    // Every allocation where there are few; evenly spread ones, at shifting
    // offsets, where there are many.
    const long stride = (allocations + kRunsPerCommit - 1) / kRunsPerCommit;
    for (long i = 0, k = 0; k < allocations; ++i, k = i * stride + i % stride, ++runs) {
      SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(allocations));
      before = tx->Open();
      const ipapp::check::Report report = RunInjected(plugin, *tx, k, nullptr);
      const ipapp::check::Invocation *failure = report.failure();
      if (failure != nullptr) {
        EXPECT_EQ(failure->error, "std::bad_alloc");
      } else {
        EXPECT_EQ(ipapp::test::ReportText(report), expected);
      }
      const ipapp::host::OpenResources after = tx->Open();
      EXPECT_EQ(after.dup_values, 0);
      EXPECT_EQ(after.cdb_sessions, 0);
      EXPECT_LE(after.cursors - before.cursors, cursors_kept);
      if (HasFailure()) return;  // one broken path is enough to read
    }
  }
  RecordProperty("injected_runs", static_cast<int>(runs));
  EXPECT_GT(runs, 10000);
}

}  // namespace
}  // namespace stress_test
