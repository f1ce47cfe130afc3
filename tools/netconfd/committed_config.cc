#include "committed_config.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include <ipapp/tools/whole_io.h>

namespace ipapp::netconfd {
namespace {

[[noreturn]] void Fail(const std::string &what, const std::filesystem::path &path) {
  throw std::system_error(errno, std::generic_category(), what + " " + path.string());
}

// Closes a descriptor on every way out.
struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace

std::string StartupText(const std::string &data) {
  return "<config xmlns=\"urn:ietf:params:xml:ns:netconf:base:1.0\">\n" + data + "</config>\n";
}

void ReplaceWhole(const std::filesystem::path &file, const std::string &text) {
  const std::filesystem::path fresh = file.string() + ".new";
  if (unlink(fresh.c_str()) != 0 && errno != ENOENT) Fail("cannot remove", fresh);
  {
    // Once fsync has succeeded the text is on disk: closing can lose nothing.
    Fd out{open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600)};
    if (out.fd < 0) Fail("cannot create", fresh);
    if (!tools::WriteAll(out.fd, text.data(), text.size())) Fail("cannot write", fresh);
    if (fsync(out.fd) != 0) Fail("cannot flush", fresh);
  }
  if (rename(fresh.c_str(), file.c_str()) != 0)
    Fail("cannot rename " + fresh.string() + " to", file);
  const std::filesystem::path dir = file.has_parent_path() ? file.parent_path() : ".";
  Fd parent{open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (parent.fd < 0 || fsync(parent.fd) != 0) Fail("cannot flush", dir);
}

}  // namespace ipapp::netconfd
