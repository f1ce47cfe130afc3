#include "ipapp/tools/whole_io.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace ipapp::tools {
namespace {

template <typename Byte, typename Transfer>
bool Whole(Byte *data, size_t size, Transfer transfer) {
  while (size > 0) {
    const ssize_t n = transfer(data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

bool ReadAll(int fd, void *data, size_t size) {
  return Whole(static_cast<char *>(data), size, [fd](char *p, size_t n) { return read(fd, p, n); });
}

bool WriteAll(int fd, const void *data, size_t size) {
  return Whole(static_cast<const char *>(data), size,
               [fd](const char *p, size_t n) { return write(fd, p, n); });
}

bool SendAll(int fd, const void *data, size_t size) {
  return Whole(static_cast<const char *>(data), size,
               [fd](const char *p, size_t n) { return send(fd, p, n, MSG_NOSIGNAL); });
}

}  // namespace ipapp::tools
