#include "input_text.h"

#include <ipapp/host.h>
#include <ipapp/utf8.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace ipapp::host {
namespace {

constexpr const char *kLimitText = "256 MiB";
static_assert(kMaxConfigBytes == std::size_t{256} << 20, "kLimitText names the limit");

std::string ByteText(unsigned char c) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%02x", c);
  return buf;
}

// Checks text as it arrives, in pieces cut anywhere (a UTF-8 character may
// straddle two reads). Lines are counted only for a message: plain ASCII, by
// far the most of any configuration, is passed over eight bytes at a time.
class TextScanner {
 public:
  static constexpr std::size_t kFine = static_cast<std::size_t>(-1);

  // The offset, counted over everything fed, of the NUL byte or the first
  // byte of the broken character that makes the text bad, or kFine.
  std::size_t Feed(const char *data, std::size_t n) {
    const auto *p = reinterpret_cast<const unsigned char *>(data);
    std::size_t i = 0;
    while (i < n) {
      if (pending_ == 0) {
        // Eight bytes none of which is NUL or above 0x7f.
        constexpr std::uint64_t kOnes = 0x0101010101010101, kHighs = 0x8080808080808080;
        std::uint64_t word;
        while (i + 8 <= n) {
          std::memcpy(&word, p + i, 8);
          if ((((word - kOnes) & ~word) | word) & kHighs) break;
          i += 8;
        }
        if (i == n) break;
        const unsigned char c = p[i];
        if (c >= 0x01 && c < 0x80) {
          ++i;
          continue;
        }
        lead_at_ = seen_ + i;
        if (c == 0 || !Start(c)) return Bad();
        ++i;
        continue;
      }
      // The first continuation byte's range excludes overlong forms,
      // surrogates and code points past U+10FFFF.
      const unsigned char c = p[i];
      if (c < low_ || c > high_) return Bad();
      low_ = 0x80;
      high_ = 0xbf;
      --pending_;
      ++i;
    }
    seen_ += n;
    return kFine;
  }

  // The text has ended: a character must not be cut short.
  std::size_t Finish() const { return pending_ != 0 ? lead_at_ : kFine; }

 private:
  bool Start(unsigned char c) {
    const utf8::Lead lead = utf8::LeadOf(c);
    pending_ = lead.continuations;
    low_ = lead.low;
    high_ = lead.high;
    return pending_ != 0;
  }

  std::size_t Bad() const { return lead_at_; }

  std::size_t seen_ = 0;     // bytes fed before the current piece
  std::size_t lead_at_ = 0;  // where the last character not ASCII began
  int pending_ = 0;          // continuation bytes still expected
  unsigned char low_ = 0x80, high_ = 0xbf;
};

// Throws for the bad byte at offset at of text, all text read so far.
[[noreturn]] void RefuseByte(std::string_view text, std::size_t at, const std::string &source) {
  const int line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + at, '\n'));
  const auto c = static_cast<unsigned char>(text[at]);
  if (c == 0) throw InputError(source, line, "holds a NUL byte");
  throw InputError(source, line, "holds a byte that is not UTF-8 (" + ByteText(c) + ")");
}

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

std::string Unreadable(int err) {
  return std::string("cannot be read: ") + std::strerror(err);
}

}  // namespace

std::string ReadConfigFile(const std::string &path) {
  const Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) throw InputError(path, 0, Unreadable(errno));
  struct stat st {};
  if (fstat(fd.get(), &st) != 0) throw InputError(path, 0, Unreadable(errno));
  if (S_ISDIR(st.st_mode)) throw InputError(path, 0, "is a directory, not a file");
  std::string text;
  if (S_ISREG(st.st_mode)) {
    if (static_cast<unsigned long long>(st.st_size) > kMaxConfigBytes) {
      throw InputError(path, 0,
                       "is larger than " + std::string(kLimitText) + " (" +
                           std::to_string(st.st_size) + " bytes), the limit for a configuration");
    }
    text.reserve(static_cast<std::size_t>(st.st_size));
  }
  // A regular file may still grow while it is read, and a pipe or device
  // has no size: the limit holds for what arrives.
  TextScanner scanner;
  char block[1 << 16];
  for (;;) {
    const ssize_t got = read(fd.get(), block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw InputError(path, 0, Unreadable(errno));
    if (got == 0) break;
    if (text.size() + static_cast<std::size_t>(got) > kMaxConfigBytes) {
      throw InputError(
          path, 0, "goes on past " + std::string(kLimitText) + ", the limit for a configuration");
    }
    text.append(block, static_cast<std::size_t>(got));
    const std::size_t bad = scanner.Feed(block, static_cast<std::size_t>(got));
    if (bad != TextScanner::kFine) RefuseByte(text, bad, path);
  }
  if (const std::size_t bad = scanner.Finish(); bad != TextScanner::kFine) {
    RefuseByte(text, bad, path);
  }
  if (text.compare(0, 3, "\xef\xbb\xbf") == 0) text.erase(0, 3);
  return text;
}

void CheckConfigText(std::string_view text, const std::string &source) {
  TextScanner scanner;
  std::size_t bad = scanner.Feed(text.data(), text.size());
  if (bad == TextScanner::kFine) bad = scanner.Finish();
  if (bad != TextScanner::kFine) RefuseByte(text, bad, source);
}

std::string Abridged(std::string message) {
  constexpr std::size_t kHead = 300, kTail = 100;
  if (message.size() <= kHead + kTail + 40) return message;
  auto continuation = [&](std::size_t at) { return (message[at] & 0xc0) == 0x80; };
  std::size_t head = kHead;
  while (head > 0 && continuation(head)) --head;
  std::size_t tail = message.size() - kTail;
  while (tail < message.size() && continuation(tail)) ++tail;
  const std::string marker = "[... " + std::to_string(tail - head) + " bytes cut ...]";
  return message.substr(0, head) + marker + message.substr(tail);
}

}  // namespace ipapp::host
