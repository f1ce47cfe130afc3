// The least a batch that gives each element's commit a process of its own
// costs on this machine. It starts as ipapp-check --batch does: the modules
// read once, JOBS workers forked from that process, each element's process
// forked from its worker onto a fresh heap. But that process only reads and
// parses the element's two files (or, with --empty, does nothing) and ends:
// no plug-in, no callbacks, no report. A batch that does all of those cannot
// be faster; fleet_bench.py times this beside it.
//
//   process_bound [--empty] JOBS DIR YANG_DIR
//
// DIR holds one sub-directory per element with running.xml and
// candidate.xml. Exits 0 when every element's process ended with status 0.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "commit_heap.h"
#include "report.h"

namespace {

namespace fs = std::filesystem;

// Checks elements[first], elements[first + step], ... one process each; the
// number that failed.
int Work(const std::vector<fs::path> &elements, size_t first, size_t step, bool empty,
         const std::shared_ptr<const ipapp::host::Schema> &schema) {
  int failed = 0;
  for (size_t i = first; i < elements.size(); i += step) {
    const pid_t pid = fork();
    if (pid < 0) return failed + 1;
    if (pid == 0) {
      if (empty) _exit(0);
      ipapp::check::UseFreshHeap(ipapp::check::kBatchHeapReserve);
      try {
        const ipapp::check::CommitFiles files{(elements[i] / "running.xml").string(),
                                              (elements[i] / "candidate.xml").string(),
                                              {},
                                              ipapp::host::DefaultOperation::kMerge};
        // Left to the end of the process, as the batch's commit leaves it.
        new ipapp::check::CommitInput(ipapp::check::LoadCommit(schema, files));
      } catch (const std::exception &e) {
        std::cerr << elements[i].string() << ": " << e.what() << "\n";
        _exit(1);
      }
      _exit(0);
    }
    int status = -1;  // not waited for: a failure
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
  }
  return failed;
}

}  // namespace

int main(int argc, char **argv) {
  const bool empty = argc > 1 && std::strcmp(argv[1], "--empty") == 0;
  if (argc != 4 + (empty ? 1 : 0)) {
    std::cerr << "usage: process_bound [--empty] JOBS DIR YANG_DIR\n";
    return 2;
  }
  char **arg = argv + (empty ? 2 : 1);
  const int jobs = std::atoi(arg[0]);
  if (jobs < 1) {
    std::cerr << "process_bound: JOBS must be a positive number\n";
    return 2;
  }
  std::vector<fs::path> elements;
  try {
    for (const auto &entry : fs::directory_iterator(arg[1])) {
      if (entry.is_directory()) elements.push_back(entry.path());
    }
  } catch (const std::exception &e) {
    std::cerr << "process_bound: " << e.what() << "\n";
    return 2;
  }
  std::sort(elements.begin(), elements.end());
  std::shared_ptr<const ipapp::host::Schema> schema;
  try {
    schema = ipapp::host::Schema::Load(arg[2]);
  } catch (const std::exception &e) {
    std::cerr << "process_bound: " << e.what() << "\n";
    return 2;
  }
  std::vector<pid_t> workers;
  for (int w = 0; w < jobs; ++w) {
    const pid_t pid = fork();
    if (pid < 0) {
      std::cerr << "process_bound: cannot start a worker\n";
      return 1;
    }
    if (pid == 0) {
      // Nothing goes on once the bound has been stopped.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() == 1) _exit(1);
      _exit(Work(elements, w, jobs, empty, schema) == 0 ? 0 : 1);
    }
    workers.push_back(pid);
  }
  int failed = 0;
  for (const pid_t pid : workers) {
    int status = -1;  // not waited for: a failure
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failed;
  }
  return failed == 0 ? 0 : 1;
}
