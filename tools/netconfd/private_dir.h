// The directory ipapp-netconfd keeps everything in, held for one launcher.
//
// Run as root, the launcher writes keys, an sshd configuration and logs that
// decide who gets in: a directory that someone else prepared or can write
// to, or an entry planted in it (a symbolic link to a file of root's), must
// not turn into a way in. So the directory must belong to the effective user
// and be writable by nobody else, nobody else may be able to put another
// directory in its place (the servers open paths), and every entry the launcher writes is
// made afresh: whatever stood there (a file, a link, a tree) is removed
// without being followed, and the new file is created exclusively. Nobody
// else can add entries while the launcher runs.
#ifndef IPAPP_NETCONFD_PRIVATE_DIR_H
#define IPAPP_NETCONFD_PRIVATE_DIR_H

#include <sys/types.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace ipapp::netconfd {

/// The directory cannot be used; what() says why. The launcher takes it for
/// bad usage.
class DirError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class PrivateDir {
 public:
  /// Opens dir, an absolute path, creating it (mode 0700) when missing, and
  /// takes its lock (the entry "lock", held until destruction). Throws
  /// DirError when dir is a symbolic link or not a directory, belongs to
  /// another user, is writable by group or others, sits in a directory that
  /// someone else could rename it in (a parent that is another user's, or
  /// writable by others and not sticky), or another launcher holds it.
  /// path() is then dir's canonical path.
  explicit PrivateDir(const std::filesystem::path &dir);
  ~PrivateDir();
  PrivateDir(const PrivateDir &) = delete;
  PrivateDir &operator=(const PrivateDir &) = delete;

  const std::filesystem::path &path() const { return path_; }
  std::filesystem::path operator/(const std::string &name) const { return path_ / name; }

  /// Removes the entry name (relative; a file, a link or a whole tree) if
  /// there is one, following no symbolic link. Throws DirError.
  void Remove(const std::string &name) const;
  /// name as a new empty file of the given mode; returns its descriptor
  /// (close-on-exec). Throws DirError.
  int CreateFile(const std::string &name, mode_t mode) const;
  /// name as a new file holding text. Throws DirError.
  void WriteFile(const std::string &name, const std::string &text, mode_t mode) const;
  /// name as a new empty directory of the given mode. Throws DirError.
  void CreateDir(const std::string &name, mode_t mode) const;
  /// Whether name is a regular file of this user with no other link to it:
  /// one the launcher or its servers wrote.
  bool IsOwnFile(const std::string &name) const;

 private:
  std::filesystem::path path_;
  int fd_ = -1;
  int lock_fd_ = -1;
};

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_PRIVATE_DIR_H
