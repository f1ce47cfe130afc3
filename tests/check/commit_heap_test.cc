// The commit process's heap: what it allocates after UseFreshHeap lands on
// huge pages, whatever the heap it started with had written.
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <string>

#include "commit_heap.h"

namespace check_test {
namespace {

bool HugePagesOnAdvice() {
  std::ifstream in("/sys/kernel/mm/transparent_hugepage/enabled");
  std::string modes;
  std::getline(in, modes);
  return modes.find("[always]") != std::string::npos ||
         modes.find("[madvise]") != std::string::npos;
}

// kB of the heap on huge pages, from this process's smaps (the heap is
// as many mappings as its stretches of advice).
long HeapHugeKiB() {
  std::ifstream in("/proc/self/smaps");
  long kib = 0;
  bool heap = false;
  for (std::string line; std::getline(in, line);) {
    const bool field = line.find(':') < line.find(' ');
    if (!field) heap = line.size() >= 7 && line.compare(line.size() - 7, 7, " [heap]") == 0;
    if (heap && line.rfind("AnonHugePages:", 0) == 0) kib += std::stol(line.substr(14));
  }
  return kib;
}

long FallbacksSoFar() {
  std::ifstream in("/proc/vmstat");
  for (std::string name, value; in >> name >> value;) {
    if (name == "thp_fault_fallback") return std::stol(value);
  }
  return 0;
}

// A heap whose free top holds pages written before, past the next huge-page
// boundary (as a forked commit process inherits from its worker): the
// commit's first 2 MiB still go on a huge page.
TEST(CommitHeap, HugePagesPastATopWrittenBefore) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer's allocator keeps no heap of its own to advise";
#endif
  if (!HugePagesOnAdvice()) GTEST_SKIP() << "no transparent huge pages here";
  const long fallbacks = FallbacksSoFar();
  const pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, INT_MAX);
    constexpr size_t kWritten = size_t{3} << 20;
    void *before = malloc(kWritten);
    std::memset(before, 1, kWritten);
    free(before);
    ipapp::check::UseFreshHeap(size_t{8} << 20);
    constexpr size_t kCommit = size_t{2} << 20;
    void *commit = malloc(kCommit);
    std::memset(commit, 1, kCommit);
    _exit(HeapHugeKiB() >= 2048 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) != 0 && FallbacksSoFar() != fallbacks) {
    GTEST_SKIP() << "the system had no huge page to give";
  }
  EXPECT_EQ(WEXITSTATUS(status), 0) << "the commit's heap is on 4 KiB pages only";
}

}  // namespace
}  // namespace check_test
