#include "input_text.h"

#include <ipapp/host.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
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
// straddle two reads), and keeps the line for the message.
class TextScanner {
 public:
  explicit TextScanner(const std::string &source) : source_(source) {}

  void Feed(const char *data, std::size_t n) {
    const auto *p = reinterpret_cast<const unsigned char *>(data);
    for (std::size_t i = 0; i < n; ++i) {
      const unsigned char c = p[i];
      if (pending_ == 0) {
        if (c >= 0x01 && c < 0x80) {
          if (c == '\n') ++line_;
          continue;
        }
        if (c == 0) throw InputError(source_, line_, "holds a NUL byte");
        Start(c);
        continue;
      }
      // The first continuation byte's range excludes overlong forms,
      // surrogates and code points past U+10FFFF.
      if (c < low_ || c > high_) Bad();
      low_ = 0x80;
      high_ = 0xbf;
      --pending_;
    }
  }

  // The text has ended: a character must not be cut short.
  void Finish() const {
    if (pending_ != 0) Bad();
  }

 private:
  void Start(unsigned char c) {
    lead_ = c;
    low_ = 0x80;
    high_ = 0xbf;
    if (c >= 0xc2 && c <= 0xdf) {
      pending_ = 1;
    } else if (c >= 0xe0 && c <= 0xef) {
      pending_ = 2;
      if (c == 0xe0) low_ = 0xa0;
      if (c == 0xed) high_ = 0x9f;
    } else if (c >= 0xf0 && c <= 0xf4) {
      pending_ = 3;
      if (c == 0xf0) low_ = 0x90;
      if (c == 0xf4) high_ = 0x8f;
    } else {
      Bad();
    }
  }

  // The character that lead_ starts is broken: that byte is the one named.
  [[noreturn]] void Bad() const {
    throw InputError(source_, line_, "holds a byte that is not UTF-8 (" + ByteText(lead_) + ")");
  }

  const std::string &source_;
  int line_ = 1;
  int pending_ = 0;  // continuation bytes still expected
  unsigned char lead_ = 0, low_ = 0x80, high_ = 0xbf;
};

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
  TextScanner scanner(path);
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
    scanner.Feed(block, static_cast<std::size_t>(got));
    text.append(block, static_cast<std::size_t>(got));
  }
  scanner.Finish();
  if (text.compare(0, 3, "\xef\xbb\xbf") == 0) text.erase(0, 3);
  return text;
}

void CheckConfigText(std::string_view text, const std::string &source) {
  TextScanner scanner(source);
  scanner.Feed(text.data(), text.size());
  scanner.Finish();
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
