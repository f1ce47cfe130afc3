// Commits in parallel threads: one schema, one plug-in, a transaction of its
// own per commit. Each gives the report the same commit gives alone, data
// store calls included.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ipapp/check_engine.h>

#include <map>
#include <mutex>
#include <thread>

#include "examples.h"
#include "report_text.h"

namespace stress_test {
namespace {

TEST(ConcurrentCommits, EachGivesTheReportItGivesAlone) {
  const ipapp::check::Plugin plugin(IPAPP_PLUGIN);
  const auto schema = ipapp::test::TestSchema();
  ipapp::check::Options options;
  options.keep_going = true;
  options.trace = true;
  auto run = [&](const std::string &candidate) {
    auto tx = ExampleCommit(candidate);
    return ipapp::test::ReportText(ipapp::check::RunCommit(plugin, *schema, *tx, options));
  };

  // route-limit.json alone takes longer than all others together.
  std::vector<std::string> candidates = Candidates();
  candidates.erase(std::remove(candidates.begin(), candidates.end(), "route-limit.json"),
                   candidates.end());
  std::map<std::string, std::string> alone;
  for (const std::string &c : candidates) alone[c] = run(c);

  constexpr int kThreads = 4;
  constexpr int kRounds = 2;
  std::mutex mu;
  std::vector<std::string> differing;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      // Each thread its own order, so that different commits overlap.
      const size_t n = candidates.size();
      for (size_t i = 0; i < kRounds * n; ++i) {
        const size_t at = (i + t * n / kThreads) % n;
        const std::string &c = candidates[t % 2 == 0 ? at : n - 1 - at];
        if (run(c) != alone.at(c)) {
          std::lock_guard<std::mutex> lock(mu);
          differing.push_back(c + " in thread " + std::to_string(t));
        }
      }
    });
  }
  for (std::thread &t : threads) t.join();
  EXPECT_THAT(differing, ::testing::IsEmpty());
}

}  // namespace
}  // namespace stress_test
