#include "private_dir.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <system_error>

#include <ipapp/tools/whole_io.h>

namespace fs = std::filesystem;

namespace ipapp::netconfd {
namespace {

std::string Errno() {
  return std::strerror(errno);
}

std::string ModeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

// The servers are handed paths, not descriptors: whoever can rename an entry
// on the way to dir can put a directory of theirs in its place under the
// servers' feet. So every directory above dir (symbolic links resolved, as
// the canonical path given back names them) must be root's or this user's
// and writable by nobody else, unless it is sticky (as /tmp is): there only
// an entry's owner can rename it, and every entry on the way is root's or
// this user's. fd is dir, opened; the canonical path must still lead to it.
fs::path CheckWayTo(const fs::path &dir, int fd) {
  std::error_code ec;
  const fs::path canonical = fs::canonical(dir, ec);
  if (ec) throw DirError("cannot resolve " + dir.string() + ": " + ec.message());
  struct stat opened {
  }, found{};
  if (fstat(fd, &opened) != 0 || stat(canonical.c_str(), &found) != 0 ||
      opened.st_dev != found.st_dev || opened.st_ino != found.st_ino) {
    throw DirError(dir.string() + " was replaced while it was being opened");
  }
  for (fs::path above = canonical.parent_path();; above = above.parent_path()) {
    struct stat st {};
    if (stat(above.c_str(), &st) != 0) {
      throw DirError("cannot examine " + above.string() + ": " + Errno());
    }
    if (st.st_uid != 0 && st.st_uid != geteuid()) {
      throw DirError(above.string() + ", above " + dir.string() + ", belongs to user " +
                     std::to_string(st.st_uid) + ", who could put another directory in its place");
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (st.st_mode & S_ISVTX) == 0) {
      throw DirError(above.string() + ", above " + dir.string() + ", is writable by " +
                     ((st.st_mode & S_IWOTH) ? "others" : "its group") + " (mode " +
                     ModeText(st.st_mode) + ") and not sticky: anyone who can write to it " +
                     "could put another directory in its place");
    }
    if (above == above.root_path()) return canonical;
  }
}

}  // namespace

PrivateDir::PrivateDir(const fs::path &dir) : path_(dir) {
  const std::string where = path_.string();
  std::error_code ec;
  fs::create_directories(path_.parent_path(), ec);
  if (mkdir(where.c_str(), 0700) != 0 && errno != EEXIST) {
    throw DirError("cannot create " + where + ": " + Errno());
  }
  struct stat link {};
  if (lstat(where.c_str(), &link) == 0 && S_ISLNK(link.st_mode)) {
    throw DirError(where + " is a symbolic link");
  }
  fd_ = open(where.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd_ < 0) {
    if (errno == ELOOP) throw DirError(where + " is a symbolic link");
    if (errno == ENOTDIR) throw DirError(where + " is not a directory");
    throw DirError("cannot open " + where + ": " + Errno());
  }
  struct stat st {};
  if (fstat(fd_, &st) != 0) throw DirError("cannot examine " + where + ": " + Errno());
  if (st.st_uid != geteuid()) {
    close(fd_);
    throw DirError(where + " belongs to user " + std::to_string(st.st_uid) + ", not to user " +
                   std::to_string(geteuid()) + " who runs ipapp-netconfd");
  }
  if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    close(fd_);
    throw DirError(where + " is writable by " + ((st.st_mode & S_IWOTH) ? "others" : "its group") +
                   " (mode " + ModeText(st.st_mode) + "); make it writable by its owner only");
  }
  try {
    path_ = CheckWayTo(path_, fd_);
  } catch (...) {
    close(fd_);
    throw;
  }

  // The lock entry is kept across runs (removing it would let a second
  // launcher lock a new one while the first holds the old); anything but a
  // plain file of ours there is replaced.
  if (!IsOwnFile("lock")) Remove("lock");
  lock_fd_ = openat(fd_, "lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (lock_fd_ < 0) {
    close(fd_);
    throw DirError("cannot open " + (path_ / "lock").string() + ": " + Errno());
  }
  if (flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
    const int err = errno;
    char pid[32] = {};
    const ssize_t n = pread(lock_fd_, pid, sizeof pid - 1, 0);
    close(lock_fd_);
    close(fd_);
    if (err == EWOULDBLOCK) {
      std::string holder = n > 0 ? std::string(pid, static_cast<size_t>(n)) : std::string();
      while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) holder.pop_back();
      throw DirError(where + " is in use by another ipapp-netconfd" +
                     (holder.empty() ? std::string() : " (process " + holder + ")"));
    }
    throw DirError("cannot lock " + (path_ / "lock").string() + ": " + std::strerror(err));
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(lock_fd_, 0) != 0 || pwrite(lock_fd_, pid.data(), pid.size(), 0) < 0) {
    // Only the message of a second launcher misses the number.
  }
}

PrivateDir::~PrivateDir() {
  if (lock_fd_ >= 0) close(lock_fd_);
  if (fd_ >= 0) close(fd_);
}

void PrivateDir::Remove(const std::string &name) const {
  // remove_all removes a symbolic link itself, never what it points to.
  std::error_code ec;
  fs::remove_all(path_ / name, ec);
  if (ec) throw DirError("cannot remove " + (path_ / name).string() + ": " + ec.message());
}

int PrivateDir::CreateFile(const std::string &name, mode_t mode) const {
  Remove(name);
  int fd = openat(fd_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
  if (fd < 0) throw DirError("cannot create " + (path_ / name).string() + ": " + Errno());
  return fd;
}

void PrivateDir::WriteFile(const std::string &name, const std::string &text, mode_t mode) const {
  const int fd = CreateFile(name, mode);
  if (!tools::WriteAll(fd, text.data(), text.size())) {
    const std::string why = Errno();
    close(fd);
    throw DirError("cannot write " + (path_ / name).string() + ": " + why);
  }
  if (close(fd) != 0) throw DirError("cannot write " + (path_ / name).string() + ": " + Errno());
}

void PrivateDir::CreateDir(const std::string &name, mode_t mode) const {
  Remove(name);
  if (mkdirat(fd_, name.c_str(), mode) != 0) {
    throw DirError("cannot create " + (path_ / name).string() + ": " + Errno());
  }
}

bool PrivateDir::IsOwnFile(const std::string &name) const {
  struct stat st {};
  return fstatat(fd_, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode) &&
         st.st_uid == geteuid() && st.st_nlink == 1;
}

}  // namespace ipapp::netconfd
