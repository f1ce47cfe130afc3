// ipapp-netconfd-commit: the commit runner of ipapp-netconfd's library
// (commit_runner.h), started by the library inside netconfd, never by hand:
//   ipapp-netconfd-commit PARENT_PID PLUGIN YANG_DIR TIMEOUT_MS
// with its end of the server's socket on descriptor 3.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "commit_runner.h"
#include "ipapp/check_engine.h"

namespace {

// A number of decimal digits only, else -1.
long long Number(const char *text) {
  const std::string s = text;
  if (s.empty() || s.size() > 12 || s.find_first_not_of("0123456789") != std::string::npos) {
    return -1;
  }
  return std::stoll(s);
}

// The commit's process (a fork of this one, where the plug-in runs) must not
// reach the server: the socket is closed there, once, and the descriptor
// number is the plug-in's in whatever that process forks in turn.
int server_fd = ipapp::netconfd::kRunnerFd;

void CloseServerSocket() {
  if (server_fd >= 0) close(server_fd);
  server_fd = -1;
}

}  // namespace

int main(int argc, char **argv) {
  using ipapp::netconfd::kRunnerFd;
  const long long parent = argc == 5 ? Number(argv[1]) : -1;
  const long long timeout_ms = argc == 5 ? Number(argv[4]) : -1;
  struct stat st {};
  if (parent <= 0 || timeout_ms <= 0 || fstat(kRunnerFd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
    std::fprintf(stderr,
                 "%s: started by ipapp-netconfd's library only, as: %s PARENT_PID PLUGIN "
                 "YANG_DIR TIMEOUT_MS, with its socket on descriptor %d\n",
                 argv[0], ipapp::netconfd::kRunnerName, kRunnerFd);
    return 2;
  }
  // Dies with the server; a server that died before this line is no longer
  // the parent.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != static_cast<pid_t>(parent)) return 1;
  ipapp::netconfd::RestoreEnvironment();
  signal(SIGPIPE, SIG_IGN);
  fcntl(kRunnerFd, F_SETFD, FD_CLOEXEC);
  pthread_atfork(nullptr, nullptr, CloseServerSocket);
  // The runner's only children are the commits' processes.
  ipapp::check::AdoptCommitLeftovers();
  return ipapp::netconfd::ServeCommits(kRunnerFd, argv[2], argv[3],
                                       std::chrono::milliseconds(timeout_ms));
}
