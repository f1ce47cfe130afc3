// The commit in a child process: starting it, reading its report until the
// report is complete or the time is up, and ending it with everything it
// started.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <thread>
#include <utility>

#include "commit_process.h"
#include "ipapp/check_engine.h"
#include "ipapp/tools/failure_text.h"
#include "isolation_protocol.h"
#include "journal.h"

namespace ipapp::check {
namespace {

using isolation::Kind;
using isolation::Message;
using isolation::Stage;
using Clock = std::chrono::steady_clock;

// This process's children, where the system lists them (/proc).
std::vector<pid_t> Children() {
  std::vector<pid_t> pids;
  std::error_code ec;
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task", ec)) {
    std::ifstream list(task.path() / "children");
    for (pid_t pid = 0; list >> pid;) pids.push_back(pid);
  }
  return pids;
}

// What came back to this process (AdoptCommitLeftovers) from the tree of a
// commit's process that has been reaped: each is ended and reaped, and the
// children it leaves come back in turn, until none is left.
void EndLeftovers() {
  int adopting = 0;
  if (prctl(PR_GET_CHILD_SUBREAPER, &adopting) != 0 || adopting == 0) return;
  // Mostly nothing came back: no child at all, running or ended, is told
  // without reading /proc.
  siginfo_t info{};
  if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD) return;
  // A tree that forks as fast as it is ended still runs out of processes;
  // the bound only keeps a failing /proc from looping for ever.
  for (int round = 0; round < 100000; ++round) {
    const std::vector<pid_t> children = Children();
    if (children.empty()) return;
    for (const pid_t pid : children) kill(pid, SIGKILL);
    for (const pid_t pid : children) {
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  }
}

// The commit process as the caller holds it. Should anything throw before it
// has been waited for (a caller's callback, memory), it must not outlive
// the call, nor anything it started.
struct Child {
  pid_t pid;
  int fd;  // the report pipe's reading end
  // Readable once the process has ended (not reaped); -1 where the system
  // has none.
  int pidfd;
  bool reaped = false;

  Child(pid_t p, int f) : pid(p), fd(f), pidfd(static_cast<int>(syscall(SYS_pidfd_open, p, 0))) {}
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  ~Child() {
    if (fd >= 0) close(fd);
    if (pidfd >= 0) close(pidfd);
    if (reaped) return;
    kill(-pid, SIGKILL);
    kill(pid, SIGKILL);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    EndLeftovers();
  }
};

std::unique_ptr<Child> StartChild(const std::string &plugin_path, isolation::Journal *journal,
                                  const isolation::WithInput &with_input, const Options &options) {
  // A plug-in that calls exit() flushes the stdio buffers it inherited:
  // they must be empty, or the caller's pending output appears twice.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("cannot create a pipe: ") + std::strerror(errno));
  }
  const pid_t pid = fork();
  if (pid < 0) {
    const int err = errno;
    close(fds[0]);
    close(fds[1]);
    throw std::runtime_error(std::string("cannot start a process: ") + std::strerror(err));
  }
  if (pid == 0) {
    close(fds[0]);
    isolation::RunChild(fds[1], journal, plugin_path, with_input, options);
  }
  close(fds[1]);
  // Also here: the child may not have got that far yet.
  setpgid(pid, pid);
  return std::make_unique<Child>(pid, fds[0]);
}

// What the caller learns from the messages.
struct Received {
  Report report;
  Stage stage = Stage::kLoad;  // from the last kEnter
  std::string validation, keypath;
  // The plug-in's time limit starts once the input is read and parsed, when
  // the child is about to load the plug-in. Input is bounded by its size.
  std::optional<Clock::time_point> deadline;
  bool done = false;
  bool garbled = false;
  bool timed_out = false;
  std::optional<Message> failure;  // kPluginError, kInputError or kError
  std::optional<std::string> finish_failure;

  void Take(Message &&m, const Options &options, std::chrono::milliseconds timeout) {
    switch (m.kind) {
      case Kind::kEnter:
        stage = m.stage;
        validation = m.validation;
        keypath = m.keypath;
        if (!deadline && stage != Stage::kEngine) deadline = Clock::now() + timeout;
        if (stage == Stage::kValidate && options.before_each) {
          options.before_each(validation, keypath);
        }
        break;
      case Kind::kInvocation:
        report.invocations.push_back(std::move(m.invocation));
        if (options.after_each) options.after_each(report.invocations.back());
        break;
      case Kind::kFault:
        report.faults.push_back(std::move(m.fault));
        break;
      case Kind::kPluginError:
      case Kind::kInputError:
      case Kind::kError:
        failure = std::move(m);
        break;
      case Kind::kFinishFailure:
        finish_failure = std::move(m.text);
        break;
      case Kind::kDone:
        done = true;
        break;
    }
  }
};

// Takes the messages that have come, the journal's before the pipe's.
void Deliver(isolation::FrameReader &frames, const Options &options,
             std::chrono::milliseconds timeout, Received &in) {
  while (!in.done) {
    std::optional<Message> m = frames.Next();
    if (!m) break;
    in.Take(std::move(*m), options, timeout);
  }
}

// Reads until the report is complete, not until the pipe ends: the report
// does not wait for anything the plug-in left running. The commit process
// wakes this one up (a frame on the pipe) when the plug-in's time starts and
// when the report is complete; its end wakes it up too.
void ReadReport(const Child &child, isolation::Journal &journal, const Options &options,
                std::chrono::milliseconds timeout, Received &in) {
  isolation::FrameReader journal_frames, pipe_frames;
  auto deliver = [&] {
    journal.TakeNew(&journal_frames);
    try {
      Deliver(journal_frames, options, timeout, in);
      Deliver(pipe_frames, options, timeout, in);
    } catch (const isolation::Garbled &) {
      in.garbled = true;  // something else wrote into the report
    }
  };
  bool ended = false;  // the pipe's end, or the process's
  while (!in.garbled && !in.done && !ended) {
    const auto left =
        in.deadline
            ? std::chrono::duration_cast<std::chrono::milliseconds>(*in.deadline - Clock::now())
                  .count()
            : 60000;
    if (left <= 0) {
      // Where the process stands is in the journal, unread.
      deliver();
      in.timed_out = !in.done;
      break;
    }
    pollfd p[2] = {{child.fd, POLLIN, 0}, {child.pidfd, POLLIN, 0}};
    const nfds_t n = child.pidfd >= 0 ? 2 : 1;
    const int ready = poll(p, n, static_cast<int>(std::min<long long>(left + 1, 60000)));
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    // A process that has ended wrote all it will: what is in the pipe is
    // read without waiting (something it started may hold the pipe open).
    const bool exited = n == 2 && p[1].revents != 0;
    for (int reads = 0; p[0].revents != 0 && reads < 64; ++reads) {
      char chunk[1 << 16];
      const ssize_t got = read(child.fd, chunk, sizeof chunk);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        ended = true;
        break;
      }
      pipe_frames.Append(chunk, static_cast<size_t>(got));
      if (!exited) break;
      pollfd again{child.fd, POLLIN, 0};
      if (poll(&again, 1, 0) <= 0) break;
    }
    ended = ended || exited;
    deliver();
  }
}

// Waits for the child to end until the deadline, without reaping it: while
// it is a zombie its pid, the id of its group, cannot be taken by another
// process. false when it is still running.
bool AwaitEnd(pid_t pid, int pidfd, Clock::time_point deadline) {
  while (pidfd >= 0) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    pollfd p{pidfd, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(std::clamp<long long>(left + 1, 0, 60000)));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) break;  // asked the other way below
    if (ready == 0 && Clock::now() >= deadline) return false;
  }
  auto pause = std::chrono::microseconds(200);
  for (;;) {
    siginfo_t info{};
    const int rc = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    if (rc == 0 && info.si_pid == pid) return true;
    if (rc < 0 && errno != EINTR) return true;  // not ours to wait for any more
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
    pause = std::min<std::chrono::microseconds>(pause * 2, std::chrono::milliseconds(20));
  }
}

// Ends the child and whatever it started, done or not; its wait status.
int EndChild(Child &child, std::chrono::milliseconds timeout, Received &in) {
  close(child.fd);
  child.fd = -1;
  const bool ended = !in.timed_out && !in.garbled &&
                     AwaitEnd(child.pid, child.pidfd, in.deadline.value_or(Clock::now() + timeout));
  if (!ended) {
    in.timed_out = in.timed_out || !in.garbled;
    kill(child.pid, SIGKILL);
  }
  kill(-child.pid, SIGKILL);
  int status = 0;
  while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
  }
  child.reaped = true;
  EndLeftovers();
  return status;
}

// How a commit process ended early: a verb phrase and its detail.
struct Ending {
  std::string how;     // "crashed", "aborted", "ended the process", ...
  std::string detail;  // "signal SIGSEGV, Segmentation fault", "exit status 0"
};

std::string Seconds(std::chrono::milliseconds ms) {
  char buf[32];
  if (ms.count() % 1000 == 0) {
    std::snprintf(buf, sizeof buf, "%lld s", static_cast<long long>(ms.count() / 1000));
  } else {
    std::snprintf(buf, sizeof buf, "%.3g s", static_cast<double>(ms.count()) / 1000.0);
  }
  return buf;
}

// Every way but the complete report (isolation_protocol.h lists them).
Ending EndingOf(int status, const Received &in, std::chrono::milliseconds timeout) {
  if (in.garbled) return {"garbled its report", "unreadable data on the report pipe"};
  if (in.timed_out) return {"did not return", "stopped after " + Seconds(timeout)};
  if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    const bool fault = sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL ||
                       sig == SIGTRAP || sig == SIGSYS;
    return {sig == SIGABRT ? "aborted" : fault ? "crashed" : "was killed", tools::SignalText(sig)};
  }
  return {"ended the process", "exit status " + std::to_string(WEXITSTATUS(status))};
}

// The report, or the exception, that the messages and the wait status make.
Report Conclude(const std::string &plugin_path, int status, Received &in, const Options &options,
                std::chrono::milliseconds timeout) {
  if (in.failure) {
    if (in.failure->kind == Kind::kPluginError) throw PluginError(in.failure->text);
    if (in.failure->kind == Kind::kInputError) throw in.failure->AsInputError();
    throw std::runtime_error(in.failure->text);
  }
  const bool clean_exit = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (in.done && clean_exit && !in.timed_out && !in.garbled) {
    if (in.finish_failure) in.report.finish_failure = *in.finish_failure;
    return std::move(in.report);
  }
  const Ending ending = EndingOf(status, in, timeout);
  if (in.stage == Stage::kValidate) {
    Invocation inv;
    inv.validation = in.validation;
    inv.keypath = in.keypath;
    inv.failed = true;
    inv.process_end = ending.how;
    inv.error = ending.detail;
    if (options.after_each) options.after_each(inv);
    in.report.invocations.push_back(std::move(inv));
    return std::move(in.report);
  }
  const std::string text =
      tools::ProcessEndText(ending.how, isolation::PlaceText(in.stage), ending.detail);
  if (in.stage == Stage::kLibFinish || in.stage == Stage::kUnload) {
    in.report.finish_failure = text;
    return std::move(in.report);
  }
  if (in.stage == Stage::kEngine) {
    throw std::runtime_error("the process running the commit " + ending.how + " (" + ending.detail +
                             ")");
  }
  throw PluginError(plugin_path + ": " + text);
}

Report RunIsolated(const std::string &plugin_path, const isolation::WithInput &with_input,
                   const Options &options, std::chrono::milliseconds timeout) {
  isolation::Journal journal;
  const std::unique_ptr<Child> child = StartChild(plugin_path, &journal, with_input, options);
  Received in;
  ReadReport(*child, journal, options, timeout, in);
  const int status = EndChild(*child, timeout, in);
  return Conclude(plugin_path, status, in, options, timeout);
}

}  // namespace

bool AdoptCommitLeftovers() {
  return prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
}

Report RunCommitIsolated(const std::string &plugin_path, const host::Schema &schema,
                         host::Transaction &tx, const Options &options,
                         std::chrono::milliseconds timeout) {
  return RunIsolated(
      plugin_path, [&](const auto &commit) { commit(schema, tx); }, options, timeout);
}

Report RunCommitIsolated(const std::string &plugin_path, const std::function<CommitInput()> &load,
                         const Options &options, std::chrono::milliseconds timeout) {
  return RunIsolated(
      plugin_path,
      [&](const auto &commit) {
        // The child ends right after the commit: its trees are left to the
        // end of the process instead of being torn down one node at a time.
        const auto *input = new CommitInput(load());
        commit(*input->schema, *input->tx);
      },
      options, timeout);
}

}  // namespace ipapp::check
