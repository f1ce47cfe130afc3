// The report's memory: frames the commit process writes into memory it shares
// with the caller's process, without a system call and without waking the
// caller. What the process wrote stays there however it ends, so the caller
// reads the report when it wakes up: when the plug-in's time starts, when the
// report is complete and when the process ends, instead of once a message.
//
// Only the first kCapacity bytes of frames fit; the commit process sends the
// rest on the report pipe, and never writes the journal again, so that the
// journal's frames all come before the pipe's.
#ifndef IPAPP_CHECK_JOURNAL_H
#define IPAPP_CHECK_JOURNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "isolation_protocol.h"

namespace ipapp::check::isolation {

class Journal {
 public:
  static constexpr size_t kCapacity = size_t{1} << 20;

  /// Maps the shared memory: call it before the fork. Without it (the
  /// mapping failed) usable() is false, and the report goes on the pipe.
  Journal();
  ~Journal();
  Journal(const Journal &) = delete;
  Journal &operator=(const Journal &) = delete;

  bool usable() const { return header_ != nullptr; }

  /// Commit process: keeps the journal out of the processes it forks, which
  /// could write into the report long after it ended.
  void KeepFromChildren();
  /// Commit process: adds a frame; false (and nothing written) when it does
  /// not fit.
  bool Append(const std::vector<std::uint8_t> &frame);

  /// Caller: hands the bytes added since the last call to frames (at most
  /// kCapacity in all, whatever size the commit process wrote there).
  void TakeNew(FrameReader *frames);

 private:
  struct Header {
    std::atomic<std::uint64_t> size;  // bytes of whole frames after the header
  };
  Header *header_ = nullptr;
  char *data_ = nullptr;
  size_t taken_ = 0;
};

}  // namespace ipapp::check::isolation

#endif  // IPAPP_CHECK_JOURNAL_H
