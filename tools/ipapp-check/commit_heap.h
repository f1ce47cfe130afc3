// The memory of a batch's commit process. The process is forked from a
// worker that holds the modules, so that every page of the heap it first
// writes costs a page fault, one per 4 KiB: on a virtual machine the largest
// single cost of a small element's commit.
#ifndef IPAPP_CHECK_COMMIT_HEAP_H
#define IPAPP_CHECK_COMMIT_HEAP_H

#include <cstddef>

namespace ipapp::check {

/// Call first thing in a freshly forked commit process, before it reads its
/// input: what it allocates next comes from a stretch of heap that the
/// parent never touched, backed by transparent huge pages where the system
/// offers them (a fault then fills 2 MiB). reserve bytes of address space
/// are set aside (only what is touched takes memory; at most one huge page
/// more than a heap of 4 KiB pages). Nothing changes where the heap cannot
/// grow or the system has no huge pages; allocation works as before either
/// way. Not for a process that goes on living: it stops the heap from being
/// given back to the system.
void UseFreshHeap(size_t reserve);

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_COMMIT_HEAP_H
