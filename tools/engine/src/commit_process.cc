#include "commit_process.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "isolation_protocol.h"

namespace ipapp::check::isolation {
namespace {

// The child's end of the report: the journal while it has room, then the
// pipe. A frame that cannot be written (the parent has gone) ends the child
// at once.
class Channel {
 public:
  Channel(int fd, Journal *journal) : fd_(fd), journal_(journal) {}

  // Everything the parent may need should the process end the next moment
  // is in the journal before Send returns. The parent is woken only when
  // the plug-in's time starts and when the report ends.
  void Send(const Message &message) const {
    const std::vector<std::uint8_t> frame = Frame(message);
    if (!overflowed_ && journal_->Append(frame)) {
      const bool timing = message.kind == Kind::kEnter && message.stage != Stage::kEngine;
      const bool last = message.kind == Kind::kDone || message.kind == Kind::kPluginError ||
                        message.kind == Kind::kInputError || message.kind == Kind::kError;
      if ((timing && !timed_) || last) Write(WakeUpFrame());
      timed_ = timed_ || timing;
      return;
    }
    // The journal is full: this frame and all that follow go on the pipe.
    overflowed_ = true;
    SendOnPipe(message.kind, frame);
  }

 private:
  // Outcomes (an invocation, a fault) wait for the next message: every
  // other one, above all where the child is about to enter, goes out at once
  // with whatever waited, so that the parent always knows where the child is.
  void SendOnPipe(Kind kind, const std::vector<std::uint8_t> &frame) const {
    pending_.append(frame.begin(), frame.end());
    if (kind == Kind::kInvocation || kind == Kind::kFault) return;
    Write(pending_);
    pending_.clear();
  }

  template <typename Bytes>
  void Write(const Bytes &bytes) const {
    for (size_t done = 0; done < bytes.size();) {
      ssize_t n = write(fd_, bytes.data() + done, bytes.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) _exit(kChildLost);
      done += static_cast<size_t>(n);
    }
  }

  int fd_;
  Journal *journal_;
  mutable bool overflowed_ = false;
  mutable bool timed_ = false;
  mutable std::string pending_;
};

// The report pipe's end in the commit's process. Only that process writes
// it: a process the plug-in forks gets it closed (one it execs, through
// O_CLOEXEC), so that nothing else can write into the report.
int report_fd = -1;

void CloseReportPipe() {
  if (report_fd >= 0) close(report_fd);
  report_fd = -1;
}

// Puts fd on target, or /dev/null when fd is not open.
void Redirect(int fd, int target) {
  if (dup2(fd, target) == target) return;
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null == target) fcntl(target, F_SETFD, 0);
  if (null >= 0 && null != target) {
    dup2(null, target);
    close(null);
  }
}

// Makes the child the commit process: a group of its own, the report pipe
// off the standard descriptors, it and the journal out of reach of what the
// plug-in forks. The report pipe's descriptor.
int BecomeCommitProcess(int fd, Journal *journal) {
  // Nobody is left to read the report once the parent has gone.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // Whatever the plug-in starts belongs to this group, which the parent
  // ends as a whole.
  setpgid(0, 0);
  // Standard descriptors are the plug-in's to write: the report goes
  // elsewhere, and what the plug-in prints goes to standard error, never
  // into the caller's output.
  if (fd <= STDERR_FILENO) {
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (moved < 0) _exit(kChildLost);
    close(fd);
    fd = moved;
  }
  Redirect(STDERR_FILENO, STDOUT_FILENO);
  // Out of the terminal's foreground group, a read of it would stop the
  // child until the deadline.
  Redirect(-1, STDIN_FILENO);
  report_fd = fd;
  pthread_atfork(nullptr, nullptr, CloseReportPipe);
  journal->KeepFromChildren();
  return fd;
}

// Loads the plug-in, runs the commit and lets the plug-in finish, each step
// announced before it is entered. What lib_finish threw, or empty.
std::string ReportCommit(const Channel &channel, const std::string &plugin_path,
                         const host::Schema &schema, host::Transaction &tx, Options options) {
  channel.Send(Message::Enter(Stage::kLoad));
  Plugin plugin(plugin_path, [&](Entry entry) { channel.Send(Message::Enter(StageOf(entry))); });
  channel.Send(Message::Enter(Stage::kEngine));
  size_t faults_sent = 0;
  auto send_faults = [&] {
    const std::vector<host::Fault> faults = tx.Faults();
    for (; faults_sent < faults.size(); ++faults_sent) {
      channel.Send(Message::Of(faults[faults_sent]));
    }
  };
  options.before_each = [&](const std::string &validation, const std::string &keypath) {
    channel.Send(Message::EnterValidate(validation, keypath));
  };
  options.after_each = [&](const Invocation &inv) {
    channel.Send(Message::Enter(Stage::kEngine));
    channel.Send(Message::Of(inv));
    send_faults();
  };
  RunCommit(plugin, schema, tx, options);
  send_faults();
  std::string finish_failure = plugin.Finish();
  channel.Send(Message::Enter(Stage::kUnload));
  return finish_failure;
}

}  // namespace

void RunChild(int fd, Journal *journal, const std::string &plugin_path, const WithInput &with_input,
              Options options) {
  const Channel channel(BecomeCommitProcess(fd, journal), journal);
  try {
    std::string finish_failure;
    channel.Send(Message::Enter(Stage::kEngine));
    with_input([&](const host::Schema &schema, host::Transaction &tx) {
      finish_failure = ReportCommit(channel, plugin_path, schema, tx, options);
    });
    if (!finish_failure.empty()) channel.Send(Message::Text(Kind::kFinishFailure, finish_failure));
    channel.Send(Message::Done());
  } catch (const PluginError &e) {
    channel.Send(Message::Text(Kind::kPluginError, e.what()));
  } catch (const host::InputError &e) {
    channel.Send(Message::Of(e));
  } catch (...) {
    channel.Send(Message::Text(Kind::kError, CurrentExceptionText()));
  }
  // What the plug-in printed goes out; nothing of the parent's runs again.
  std::cout.flush();
  std::fflush(nullptr);
  _exit(0);
}

}  // namespace ipapp::check::isolation
