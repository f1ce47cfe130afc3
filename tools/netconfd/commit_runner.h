// The commit checks of a NETCONF server, run by a small process of their own.
//
// A check forked from the server itself would share the server's whole heap
// copy-on-write: every page the commit's process writes, and every page the
// server writes afterwards, is copied or faulted once per check, which costs
// more than the check's own parsing. So the server starts the runner
// (ipapp-netconfd-commit) once: a fresh program that loads the modules and
// forks one commit process per request from its own small heap, through
// CommitHook (the plug-in is loaded in that commit process only, never in the
// runner). The server hands over both configurations as XML text and reads
// back the verdict.
//
// The runner is the server's child and stays in its process group: it dies
// with the server (a parent-death signal, and the end of its socket), and a
// signal to the server's group reaches it. The parent-death signal comes
// when the thread that started the runner ends: start it from the server's
// main thread (netconfd has no other). Its one channel is an anonymous
// socket pair; it inherits no other descriptor of the server's but the
// standard ones, and writes no file.
#ifndef IPAPP_NETCONFD_COMMIT_RUNNER_H
#define IPAPP_NETCONFD_COMMIT_RUNNER_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "commit_hook.h"

namespace ipapp::netconfd {

/// The runner's program name, next to the server's library.
inline constexpr const char *kRunnerName = "ipapp-netconfd-commit";

/// The runner's end of the socket, in the runner.
inline constexpr int kRunnerFd = 3;

/// What the server holds of its runner.
class CommitRunner {
 public:
  /// Starts the runner program at runner_path for the plug-in and the modules
  /// in yang_dir, and waits until it has loaded them. Throws
  /// std::runtime_error saying why it cannot run (the modules' error as
  /// CommitHook's constructor words it).
  CommitRunner(std::string runner_path, std::string plugin_path, std::string yang_dir,
               std::chrono::milliseconds timeout);
  /// Ends the runner and whatever commit it runs.
  ~CommitRunner();
  CommitRunner(const CommitRunner &) = delete;
  CommitRunner &operator=(const CommitRunner &) = delete;

  /// Names of the modules in yang_dir (CommitHook::modules()).
  const std::vector<std::string> &modules() const { return modules_; }

  /// CommitHook::Check in the runner. A runner that has gone fails this
  /// check (kFailed, saying how it ended) and is started again for the next.
  Verdict Check(const std::string &running_xml, const std::string &candidate_xml);

  /// The runner's process id, or -1 while none runs.
  pid_t pid() const { return pid_; }

 private:
  void Start();
  /// Closes the socket, waits for the runner (killing it if it does not end
  /// promptly) and says how it ended.
  std::string Stop();
  std::string Ended();

  std::string runner_path_, plugin_path_, yang_dir_;
  std::chrono::milliseconds timeout_;
  std::vector<std::string> modules_;
  pid_t pid_ = -1;
  int fd_ = -1;
};

/// In the runner, first: its environment as the server's (the runner is
/// started with a malloc setting of its own).
void RestoreEnvironment();

/// The runner program's work: serves the requests on fd until it ends.
/// Returns the exit status.
int ServeCommits(int fd, const std::string &plugin_path, const std::string &yang_dir,
                 std::chrono::milliseconds timeout);

// --- The wire: frames of strings --------------------------------------------

/// Writes a frame (a count, then each string's length and bytes) to fd.
/// false when fd is closed or broken.
bool WriteFrame(int fd, const std::vector<std::string> &strings);
/// Reads one frame from fd; nothing at its end, or when it breaks or holds
/// more than a frame can.
std::optional<std::vector<std::string>> ReadFrame(int fd);

/// A verdict as a frame, and back (nothing for a frame that is no verdict).
std::vector<std::string> VerdictFrame(const Verdict &verdict);
std::optional<Verdict> VerdictOf(const std::vector<std::string> &frame);

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_COMMIT_RUNNER_H
