#include "commit_runner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <thread>
#include <utility>

#include <ipapp/host.h>
#include <ipapp/tools/failure_text.h>
#include <ipapp/tools/whole_io.h>

extern char **environ;

namespace ipapp::netconfd {
namespace {

using tools::ReadAll;
using tools::SendAll;

// Bounds that no configuration text reaches; a frame beyond them is garbage.
constexpr std::uint32_t kMaxStrings = 1 << 16;
constexpr std::uint64_t kMaxString = std::uint64_t{1} << 32;

constexpr const char *kCheck = "check";
constexpr const char *kHugePages = "glibc.malloc.hugetlb=1";
// The server's own GLIBC_TUNABLES, for the runner to put back.
constexpr const char *kServerTunables = "IPAPP_NETCONFD_SERVER_TUNABLES";
constexpr const char *kReady = "ready";
constexpr const char *kError = "error";

bool WriteViews(int fd, const std::vector<std::string_view> &strings) {
  const auto count = static_cast<std::uint32_t>(strings.size());
  if (!SendAll(fd, &count, sizeof count)) return false;
  for (std::string_view s : strings) {
    const std::uint64_t size = s.size();
    if (!SendAll(fd, &size, sizeof size) || !SendAll(fd, s.data(), s.size())) {
      return false;
    }
  }
  return true;
}

std::string EndText(int status) {
  if (WIFSIGNALED(status)) return "was killed (" + ipapp::tools::SignalText(WTERMSIG(status)) + ")";
  return "ended (exit status " + std::to_string(WEXITSTATUS(status)) + ")";
}

// The server's environment, with glibc's malloc told to back its heap with
// huge pages: a commit's process allocates its trees afresh, and page faults
// are a good part of its time. The runner puts the server's own setting back
// before anything else runs (RestoreEnvironment), so that the plug-in sees
// the server's environment.
std::vector<std::string> RunnerEnvironment() {
  constexpr std::string_view kTunables = "GLIBC_TUNABLES=";
  std::vector<std::string> env;
  std::optional<std::string> tunables;
  for (char **e = environ; *e != nullptr; ++e) {
    const std::string_view entry = *e;
    if (entry.substr(0, kTunables.size()) == kTunables) {
      tunables = entry.substr(kTunables.size());
    } else if (entry.substr(0, std::strlen(kServerTunables) + 1) !=
               std::string(kServerTunables) + "=") {
      env.emplace_back(entry);
    }
  }
  std::string ours = std::string(kTunables) + kHugePages;
  if (tunables) {
    ours += ":" + *tunables;  // the server's settings win
    env.push_back(std::string(kServerTunables) + "=" + *tunables);
  }
  env.push_back(ours);
  return env;
}

}  // namespace

void RestoreEnvironment() {
  if (const char *server = std::getenv(kServerTunables)) {
    setenv("GLIBC_TUNABLES", server, 1);
    unsetenv(kServerTunables);
  } else {
    unsetenv("GLIBC_TUNABLES");
  }
}

bool WriteFrame(int fd, const std::vector<std::string> &strings) {
  return WriteViews(fd, std::vector<std::string_view>(strings.begin(), strings.end()));
}

std::optional<std::vector<std::string>> ReadFrame(int fd) {
  std::uint32_t count = 0;
  if (!ReadAll(fd, &count, sizeof count) || count > kMaxStrings) {
    return std::nullopt;
  }
  std::vector<std::string> strings(count);
  for (std::string &s : strings) {
    std::uint64_t size = 0;
    if (!ReadAll(fd, &size, sizeof size) || size > kMaxString) {
      return std::nullopt;
    }
    s.resize(size);
    if (!ReadAll(fd, s.data(), s.size())) return std::nullopt;
  }
  return strings;
}

std::vector<std::string> VerdictFrame(const Verdict &verdict) {
  const char *kind = verdict.kind == Verdict::Kind::kAccepted  ? "accepted"
                     : verdict.kind == Verdict::Kind::kRefused ? "refused"
                                                               : "failed";
  std::vector<std::string> frame = {kind, verdict.message, verdict.keypath, verdict.validation};
  frame.insert(frame.end(), verdict.faults.begin(), verdict.faults.end());
  return frame;
}

std::optional<Verdict> VerdictOf(const std::vector<std::string> &frame) {
  if (frame.size() < 4) return std::nullopt;
  Verdict verdict;
  if (frame[0] == "accepted") {
    verdict.kind = Verdict::Kind::kAccepted;
  } else if (frame[0] == "refused") {
    verdict.kind = Verdict::Kind::kRefused;
  } else if (frame[0] != "failed") {
    return std::nullopt;
  }
  verdict.message = frame[1];
  verdict.keypath = frame[2];
  verdict.validation = frame[3];
  verdict.faults.assign(frame.begin() + 4, frame.end());
  return verdict;
}

// --- The server's end -------------------------------------------------------

CommitRunner::CommitRunner(std::string runner_path, std::string plugin_path, std::string yang_dir,
                           std::chrono::milliseconds timeout)
    : runner_path_(std::move(runner_path)),
      plugin_path_(std::move(plugin_path)),
      yang_dir_(std::move(yang_dir)),
      timeout_(timeout),
      modules_(host::ModuleNames(yang_dir_)) {
  Start();
}

CommitRunner::~CommitRunner() {
  Stop();
}

void CommitRunner::Start() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    throw std::runtime_error(std::string("cannot create the commit runner's socket: ") +
                             std::strerror(errno));
  }
  // dup2 onto the same descriptor would leave it close-on-exec.
  int theirs = fds[1];
  if (theirs == kRunnerFd) {
    theirs = fcntl(fds[1], F_DUPFD_CLOEXEC, kRunnerFd + 1);
    const int err = errno;
    close(fds[1]);
    if (theirs < 0) {
      close(fds[0]);
      throw std::runtime_error(std::string("cannot create the commit runner's socket: ") +
                               std::strerror(err));
    }
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs, kRunnerFd);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  // Nothing of the server's (its listening socket, its sessions) but the
  // standard descriptors, where its log goes.
  posix_spawn_file_actions_addclosefrom_np(&actions, kRunnerFd + 1);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const std::vector<std::string> args = {runner_path_, std::to_string(getpid()), plugin_path_,
                                         yang_dir_, std::to_string(timeout_.count())};
  std::vector<char *> argv;
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  std::vector<std::string> env = RunnerEnvironment();
  std::vector<char *> envp;
  for (std::string &e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  const int rc = posix_spawn(&pid, runner_path_.c_str(), &actions, &attr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(theirs);
  if (rc != 0) {
    close(fds[0]);
    throw std::runtime_error("cannot start the commit runner " + runner_path_ + ": " +
                             std::strerror(rc));
  }
  pid_ = pid;
  fd_ = fds[0];
  std::optional<std::vector<std::string>> hello = ReadFrame(fd_);
  if (hello && hello->size() == 1 && (*hello)[0] == kReady) return;
  if (hello && hello->size() == 2 && (*hello)[0] == kError) {
    Stop();
    throw std::runtime_error((*hello)[1]);
  }
  throw std::runtime_error("the commit runner " + runner_path_ + " " + Stop() +
                           " before it was ready");
}

std::string CommitRunner::Stop() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  if (pid_ < 0) return "had not started";
  // The end of its socket ends a runner that waits for a request; one that
  // does not end at once gets killed, and its commit's process with it.
  int status = 0;
  pid_t got = 0;
  for (int waited = 0; waited < 100; ++waited) {
    got = waitpid(pid_, &status, WNOHANG);
    if (got != 0 && !(got < 0 && errno == EINTR)) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (got == 0) {
    kill(pid_, SIGKILL);
    while ((got = waitpid(pid_, &status, 0)) < 0 && errno == EINTR) {
    }
  }
  pid_ = -1;
  return got < 0 ? "ended" : EndText(status);
}

Verdict CommitRunner::Check(const std::string &running_xml, const std::string &candidate_xml) {
  Verdict verdict;
  if (pid_ < 0) {
    try {
      Start();
    } catch (const std::exception &e) {
      verdict.message = e.what();
      return verdict;
    }
  }
  if (WriteViews(fd_, {kCheck, running_xml, candidate_xml})) {
    if (std::optional<std::vector<std::string>> reply = ReadFrame(fd_)) {
      if (std::optional<Verdict> answer = VerdictOf(*reply)) return std::move(*answer);
    }
  }
  verdict.message = "the commit runner " + Stop() + "; it starts again for the next check";
  return verdict;
}

// --- The runner's end -------------------------------------------------------

int ServeCommits(int fd, const std::string &plugin_path, const std::string &yang_dir,
                 std::chrono::milliseconds timeout) {
  std::optional<CommitHook> hook;
  try {
    hook.emplace(plugin_path, yang_dir, timeout);
  } catch (const std::exception &e) {
    WriteFrame(fd, {kError, e.what()});
    return 1;
  }
  if (!WriteFrame(fd, {kReady})) return 1;
  for (;;) {
    std::optional<std::vector<std::string>> request = ReadFrame(fd);
    if (!request) return 0;  // the server has gone
    if (request->size() != 3 || (*request)[0] != kCheck) return 2;
    Verdict verdict;
    try {
      verdict = hook->Check((*request)[1], (*request)[2]);
    } catch (const std::exception &e) {
      verdict = Verdict{};
      verdict.message = e.what();
    }
    request.reset();
    if (!WriteFrame(fd, VerdictFrame(verdict))) return 0;
  }
}

}  // namespace ipapp::netconfd
