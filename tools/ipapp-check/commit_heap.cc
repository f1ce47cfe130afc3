#include "commit_heap.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace ipapp::check {
namespace {

constexpr uintptr_t kHugePage = uintptr_t{2} << 20;

uintptr_t Break() {
  return reinterpret_cast<uintptr_t>(sbrk(0));
}

}  // namespace

void UseFreshHeap(size_t reserve, size_t huge) {
  // Blocks up to this size come from the heap instead of mappings of their
  // own, and nothing is given back: the process ends soon anyway.
  if (mallopt(M_MMAP_THRESHOLD, 32 << 20) == 0 || mallopt(M_TRIM_THRESHOLD, INT32_MAX) == 0) {
    return;
  }
  // One block as large as the reserve and the top together, freed at once,
  // leaves the heap's top reaching reserve bytes past where the heap ended.
  // volatile: the pair must not be optimised away.
  const uintptr_t before = Break();
  void *volatile probe = malloc(reserve + mallinfo2().keepcost);
  free(probe);
  const uintptr_t end = Break();
  if (end < before + reserve) return;  // no room to grow, or not from the heap
  // The top up to the first huge-page boundary past where the heap ended is
  // taken by a block never touched (no memory), so that what follows fills
  // whole huge pages. Not the first boundary past the top's start: the top
  // may hold pages written before (blocks freed into it), and 2 MiB that
  // hold a page already in place never become a huge page.
  const uintptr_t top = end - mallinfo2().keepcost;
  const uintptr_t boundary = (before + kHugePage - 1) & ~(kHugePage - 1);
  const uintptr_t huge_end =
      std::min(end, boundary + std::min<uintptr_t>(huge, end)) & ~(kHugePage - 1);
  if (boundary >= huge_end) return;
  // Advised before anything is written there: a page already in place
  // keeps its 2 MiB from becoming one huge page.
  madvise(reinterpret_cast<void *>(boundary), huge_end - boundary, MADV_HUGEPAGE);
  if (boundary - top >= 4096) {
    // A block's size includes an 8-byte header: this one ends at boundary.
    void *volatile skip = malloc(boundary - top - sizeof(size_t));
    (void)skip;
  }
}

size_t SureHeapOf(const std::vector<std::string> &files) {
  size_t text = 0;
  for (const std::string &file : files) {
    std::error_code ec;
    const auto size = std::filesystem::file_size(file, ec);
    if (!ec) text += static_cast<size_t>(size);
  }
  // Four times the texts, less a fifth for a configuration that packs
  // tighter than most.
  return text / 5 * 16;
}

}  // namespace ipapp::check
