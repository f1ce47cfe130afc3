#include "journal.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace ipapp::check::isolation {
namespace {

constexpr size_t kHeaderSize = 64;
constexpr size_t kMappingSize = kHeaderSize + Journal::kCapacity;

}  // namespace

Journal::Journal() {
  void *p = mmap(nullptr, kMappingSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return;
  header_ = new (p) Header{};
  data_ = static_cast<char *>(p) + kHeaderSize;
}

Journal::~Journal() {
  if (header_ != nullptr) munmap(header_, kMappingSize);
}

void Journal::KeepFromChildren() {
  if (header_ != nullptr) madvise(header_, kMappingSize, MADV_DONTFORK);
}

bool Journal::Append(const std::vector<std::uint8_t> &frame) {
  if (header_ == nullptr) return false;
  const std::uint64_t size = header_->size.load(std::memory_order_relaxed);
  if (size > kCapacity || frame.size() > kCapacity - size) return false;
  std::memcpy(data_ + size, frame.data(), frame.size());
  // The frame is complete before the caller can see it.
  header_->size.store(size + frame.size(), std::memory_order_release);
  return true;
}

void Journal::TakeNew(FrameReader *frames) {
  if (header_ == nullptr) return;
  const size_t size =
      std::min<std::uint64_t>(header_->size.load(std::memory_order_acquire), kCapacity);
  if (size <= taken_) return;
  frames->Append(data_ + taken_, size - taken_);
  taken_ = size;
}

}  // namespace ipapp::check::isolation
