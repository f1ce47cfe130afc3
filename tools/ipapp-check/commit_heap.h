// The memory of a batch's commit process. The process is forked from a
// worker that holds the modules, so that every page of the heap it first
// writes costs a page fault, one per 4 KiB: on a virtual machine the largest
// single cost of a small element's commit.
#ifndef IPAPP_CHECK_COMMIT_HEAP_H
#define IPAPP_CHECK_COMMIT_HEAP_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ipapp::check {

/// Call first thing in a freshly forked commit process, before it reads its
/// input: what it allocates next comes from a stretch of heap that the
/// parent never touched, backed by transparent huge pages where the system
/// offers them (a fault then fills 2 MiB). reserve bytes of address space
/// are set aside past where the heap ends (with the heap's free top, at
/// most 32 MiB; only what is touched takes memory). Of them, the first huge
/// bytes (rounded down to whole huge pages) go on huge pages: at most one
/// huge page more memory than a heap of 4 KiB pages, and none more when the
/// heap outgrows them. Nothing changes where the heap cannot grow or the
/// system has no huge pages; allocation works as before either way. Not for
/// a process that goes on living: it stops the heap from being given back
/// to the system.
void UseFreshHeap(size_t reserve, size_t huge = SIZE_MAX);

/// The reserve of a batch's commit: a commit at the element's limits fills
/// about 12 MiB, a small element's 1 MiB.
inline constexpr size_t kBatchHeapReserve = size_t{8} << 20;

/// How much of a single check's heap can go on huge pages without taking
/// more memory than 4 KiB pages would: the part the commit is sure to fill,
/// judged from its files' sizes (parsed and indexed, a running
/// configuration and a candidate take about four times their texts
/// together). Files whose size is unknown count nothing.
size_t SureHeapOf(const std::vector<std::string> &files);

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_COMMIT_HEAP_H
