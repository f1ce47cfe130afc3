// measured_run: runs a command and prints, on its last line of standard
// error, the command's exit status, CPU time (user and system, seconds) and
// peak resident memory (KiB), from its rusage.
//
// A child inherits its parent's peak resident memory until it calls exec:
// a command started straight from a large process (a Python interpreter)
// would report at least that process's size. Started from this small
// program instead, it reports its own.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: measured_run COMMAND [ARG...]\n");
    return 2;
  }
  const pid_t pid = fork();
  if (pid < 0) {
    std::perror("measured_run: fork");
    return 2;
  }
  if (pid == 0) {
    execvp(argv[1], argv + 1);
    std::perror("measured_run: exec");
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  if (wait4(pid, &status, 0, &usage) != pid) {
    std::perror("measured_run: wait4");
    return 2;
  }
  const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  std::fprintf(stderr, "measured_run: %d %ld.%06ld %ld.%06ld %ld\n", code,
               static_cast<long>(usage.ru_utime.tv_sec), static_cast<long>(usage.ru_utime.tv_usec),
               static_cast<long>(usage.ru_stime.tv_sec), static_cast<long>(usage.ru_stime.tv_usec),
               usage.ru_maxrss);
  return 0;
}
