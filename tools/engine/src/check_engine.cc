#include "ipapp/check_engine.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>
#include <typeinfo>
#include <utility>

#include <nlohmann/json.hpp>

namespace ipapp::check {
namespace {

template <typename Fn>
Fn Symbol(void *handle, const std::string &path, const char *name) {
  dlerror();
  void *sym = dlsym(handle, name);
  if (sym == nullptr) {
    const char *why = dlerror();
    throw PluginError(path + ": no entry point " + name +
                      (why ? std::string(" (") + why + ")" : ""));
  }
  return reinterpret_cast<Fn>(sym);
}

// confd_pp_kpath answers the whole length, as snprintf does: a keypath that
// does not fit (keys of any length) is printed again into a buffer that does.
std::string KeypathText(const confd_hkeypath_t &kp) {
  std::array<char, 8192> buf{};
  int n = confd_pp_kpath(buf.data(), static_cast<int>(buf.size()), &kp);
  if (n < 0) return "<unprintable keypath>";
  if (static_cast<size_t>(n) < buf.size()) return std::string(buf.data());
  std::string text(static_cast<size_t>(n) + 1, '\0');
  n = confd_pp_kpath(text.data(), static_cast<int>(text.size()), &kp);
  if (n < 0) return "<unprintable keypath>";
  text.resize(std::strlen(text.c_str()));
  return text;
}

}  // namespace

Plugin::Plugin(const std::string &path, EntryHook entering)
    : path_(path), entering_(std::move(entering)) {
  if (entering_) entering_("load");
  handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) {
    const char *why = dlerror();
    throw PluginError("cannot load plug-in " + path + ": " + (why ? why : "unknown reason"));
  }
  const char *entry = "";
  std::string failure;
  try {
    auto point = Symbol<int (*)(char *, int)>(handle_, path_, "get_validation_point");
    auto init = Symbol<int (*)()>(handle_, path_, "lib_init");
    validate_ = Symbol<ValidateFn>(handle_, path_, "validate");
    finish_ = Symbol<FinishFn>(handle_, path_, "lib_finish");

    // One byte more than the plug-in is told: a name that fills its buffer
    // ends without a NUL of its own.
    std::array<char, 257> name{};
    entry = "get_validation_point";
    if (entering_) entering_(entry);
    if (point(name.data(), static_cast<int>(name.size() - 1)) != 0) {
      throw PluginError(path_ + ": get_validation_point failed");
    }
    if (std::strcmp(name.data(), kValidationPoint) != 0) {
      throw PluginError(path_ + " serves validation point \"" + name.data() + "\", not \"" +
                        kValidationPoint + "\"");
    }
    entry = "lib_init";
    if (entering_) entering_(entry);
    if (int rc = init(); rc != 0) {
      throw PluginError(path_ + ": lib_init returned " + std::to_string(rc));
    }
  } catch (const PluginError &e) {
    failure = e.what();
  } catch (...) {
    failure = path_ + ": exception from " + entry + ": " + CurrentExceptionText();
  }
  if (!failure.empty()) {
    finish_ = nullptr;
    dlclose(handle_);
    throw PluginError(failure);
  }
}

Plugin::~Plugin() {
  Finish();
  dlclose(handle_);
}

int Plugin::Validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval) const {
  return validate_(tctx, kp, newval);
}

std::string Plugin::Finish() {
  FinishFn finish = std::exchange(finish_, nullptr);
  if (finish == nullptr) return {};
  try {
    if (entering_) entering_("lib_finish");
    finish();
  } catch (...) {
    return "exception from lib_finish: " + CurrentExceptionText();
  }
  return {};
}

std::string CurrentExceptionText() {
  try {
    throw;
  } catch (const std::exception &e) {
    return e.what();
  } catch (...) {
  }
  const std::type_info *type = abi::__cxa_current_exception_type();
  if (type == nullptr) return "unknown exception";
  int status = -1;
  std::unique_ptr<char, void (*)(void *)> name(
      abi::__cxa_demangle(type->name(), nullptr, nullptr, &status), std::free);
  return std::string("exception of type ") + (status == 0 && name ? name.get() : type->name());
}

std::string Invocation::FailureText() const {
  return process_end.empty() ? error : "the plug-in " + process_end + " (" + error + ")";
}

std::string Invocation::FailureTextWithPlace() const {
  const std::string place = validation + " on " + keypath;
  if (process_end.empty()) return "exception from the plug-in in " + place + ": " + error;
  return "the plug-in " + process_end + " in " + place + " (" + error + ")";
}

std::vector<Call> PlanCommit(const host::Schema &schema, const host::Transaction &tx) {
  std::vector<Call> calls;
  for (const host::BoundNode &node : schema.bound_nodes()) {
    bool triggered = tx.Changed(node.path);
    for (auto dep = node.dependencies.begin(); !triggered && dep != node.dependencies.end();
         ++dep) {
      triggered = tx.Changed(*dep);
    }
    if (!triggered) continue;
    for (const host::Binding &binding : node.bindings) {
      if (binding.kind == host::Binding::Kind::kOnce) {
        calls.push_back({binding.opaque, node.path});
        continue;
      }
      for (std::string &entry : tx.Instances(node.path)) {
        calls.push_back({binding.opaque, std::move(entry)});
      }
    }
  }
  return calls;
}

bool Report::accepted() const {
  return failure() == nullptr && refusals().empty();
}

const Invocation *Report::failure() const {
  for (const Invocation &inv : invocations) {
    if (inv.failed) return &inv;
  }
  return nullptr;
}

std::vector<const Invocation *> Report::refusals() const {
  std::vector<const Invocation *> out;
  for (const Invocation &inv : invocations) {
    if (!inv.failed && inv.result != 0) out.push_back(&inv);
  }
  return out;
}

std::vector<std::string> FaultLines(const std::vector<host::Fault> &faults) {
  std::vector<std::pair<std::string, int>> counted;
  for (const host::Fault &f : faults) {
    std::string text =
        f.function + " (" + f.file + ":" + std::to_string(f.line) + "): " + f.message;
    auto same = std::find_if(counted.begin(), counted.end(),
                             [&](const auto &seen) { return seen.first == text; });
    if (same == counted.end()) {
      counted.emplace_back(std::move(text), 1);
    } else {
      ++same->second;
    }
  }
  std::vector<std::string> lines;
  for (auto &[text, count] : counted) {
    lines.push_back(count > 1 ? text + " (recorded " + std::to_string(count) + " times)" : text);
  }
  return lines;
}

namespace {

// What the callback opened and left open: everything opened after opened_before.
void CollectLeaks(host::Transaction &tx, uint64_t opened_before, Invocation *inv) {
  inv->leaks.clear();
  for (host::OpenItem &item : tx.OpenItems()) {
    if (item.id > opened_before) inv->leaks.push_back(std::move(item));
  }
}

}  // namespace

Report RunCommit(const Plugin &plugin, const host::Schema &schema, host::Transaction &tx,
                 const Options &options) {
  // Calls are recorded only for a trace that was asked for; the
  // transaction's setting is given back however the commit ends.
  struct TraceSetting {
    host::Transaction &tx;
    bool before;
    ~TraceSetting() { tx.RecordTrace(before); }
  } restore{tx, tx.RecordingTrace()};
  tx.RecordTrace(options.trace);
  Report report;
  for (const Call &call : PlanCommit(schema, tx)) {
    Invocation inv;
    inv.validation = call.validation;
    // Each callback gets its own keypath and context, as the daemon hands out.
    confd_hkeypath_t kp = tx.Keypath(call.path);
    inv.keypath = KeypathText(kp);
    confd_value_t newval{};
    newval.type = C_NOEXISTS;
    tx.ClearError();
    tx.ClearTrace();
    // Anything open after the callback that was not open before it is its leak.
    uint64_t opened_before = 0;
    for (const host::OpenItem &item : tx.OpenItems()) {
      opened_before = std::max(opened_before, item.id);
    }
    if (options.before_each) options.before_each(inv.validation, inv.keypath);
    try {
      inv.result = plugin.Validate(tx.Context(call.validation), &kp, &newval);
      inv.error = tx.ErrorText();
      CollectLeaks(tx, opened_before, &inv);
    } catch (...) {
      // Turned into text here, while the type's library is still loaded.
      inv.failed = true;
      inv.error = CurrentExceptionText();
      try {
        CollectLeaks(tx, opened_before, &inv);
      } catch (...) {  // out of memory: the report goes without them
      }
    }
    if (options.trace) inv.trace = tx.Trace();
    bool stop = inv.failed || (inv.result != 0 && !options.keep_going);
    if (options.after_each) options.after_each(inv);
    report.invocations.push_back(std::move(inv));
    if (stop) break;
  }
  report.faults = tx.Faults();
  return report;
}

// ---------------------------------------------------------------------------
// Isolation: the commit in a child process.
//
// The child reports through a pipe, one message per frame: a 32-bit length
// in host order, then the message as CBOR (strings travel byte for byte,
// valid UTF-8 or not). Messages, in the order the child sends them:
//   {"enter": "load" | "get_validation_point" | "lib_init" | "lib_finish"}
//   {"enter": "validate", "validation": v, "keypath": k}
//   {"enter": "engine"}          the engine's own work between entry points
//   {"invocation": {...}}        one callback's outcome
//   {"fault": {...}}             a fault recorded since the last message
//   {"plugin_error": text}       loading or starting failed
//   {"input_error": {"source": s, "line": n, "message": m}}
//   {"error": text}              anything else that left the engine
//   {"finish_failure": text}     what lib_finish threw
//   {"done": true}               the report is complete

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;

// The records travel in their own JSON forms (ipapp/records.h).
json ToJson(const host::Fault &f) {
  return f;
}

json ToJson(const Invocation &inv) {
  return {{"validation", inv.validation},
          {"keypath", inv.keypath},
          {"result", inv.result},
          {"error", inv.error},
          {"failed", inv.failed},
          {"trace", inv.trace},
          {"leaks", inv.leaks}};
}

Invocation InvocationFrom(const json &j) {
  Invocation inv;
  j.at("validation").get_to(inv.validation);
  j.at("keypath").get_to(inv.keypath);
  j.at("result").get_to(inv.result);
  j.at("error").get_to(inv.error);
  j.at("failed").get_to(inv.failed);
  j.at("trace").get_to(inv.trace);
  j.at("leaks").get_to(inv.leaks);
  return inv;
}

host::Fault FaultFrom(const json &j) {
  return j.get<host::Fault>();
}

// The child's end of the pipe. A frame that cannot be written (the parent
// has gone) ends the child at once.
class Channel {
 public:
  explicit Channel(int fd) : fd_(fd) {}

  // Outcomes (an invocation, a fault) wait for the next message: every
  // other one, above all where the child is about to enter, goes out at once
  // with whatever waited, so that the parent always knows where the child is.
  void Send(const json &message) const {
    const std::vector<std::uint8_t> body = json::to_cbor(message);
    const auto size = static_cast<std::uint32_t>(body.size());
    pending_.append(reinterpret_cast<const char *>(&size), sizeof size);
    pending_.append(body.begin(), body.end());
    if (message.contains("invocation") || message.contains("fault")) return;
    for (size_t done = 0; done < pending_.size();) {
      ssize_t n = write(fd_, pending_.data() + done, pending_.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) _exit(kChildLost);
      done += static_cast<size_t>(n);
    }
    pending_.clear();
  }

  static constexpr int kChildLost = 125;

 private:
  int fd_;
  mutable std::string pending_;
};

// Hands the commit's schema and transaction to a function.
using WithInput =
    std::function<void(const std::function<void(const host::Schema &, host::Transaction &)> &)>;

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

[[noreturn]] void RunChild(int fd, const std::string &plugin_path, const WithInput &with_input,
                           Options options) {
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
    if (moved < 0) _exit(Channel::kChildLost);
    close(fd);
    fd = moved;
  }
  Redirect(STDERR_FILENO, STDOUT_FILENO);
  // Out of the terminal's foreground group, a read of it would stop the
  // child until the deadline.
  Redirect(-1, STDIN_FILENO);
  report_fd = fd;
  pthread_atfork(nullptr, nullptr, CloseReportPipe);
  const Channel channel(fd);
  try {
    std::string finish_failure;
    channel.Send({{"enter", "engine"}});
    with_input([&](const host::Schema &schema, host::Transaction &tx) {
      channel.Send({{"enter", "load"}});
      Plugin plugin(plugin_path, [&](const char *entry) { channel.Send({{"enter", entry}}); });
      channel.Send({{"enter", "engine"}});
      size_t faults_sent = 0;
      auto send_faults = [&] {
        const std::vector<host::Fault> faults = tx.Faults();
        for (; faults_sent < faults.size(); ++faults_sent) {
          channel.Send({{"fault", ToJson(faults[faults_sent])}});
        }
      };
      options.before_each = [&](const std::string &validation, const std::string &keypath) {
        channel.Send({{"enter", "validate"}, {"validation", validation}, {"keypath", keypath}});
      };
      options.after_each = [&](const Invocation &inv) {
        channel.Send({{"enter", "engine"}});
        channel.Send({{"invocation", ToJson(inv)}});
        send_faults();
      };
      RunCommit(plugin, schema, tx, options);
      send_faults();
      finish_failure = plugin.Finish();
      channel.Send({{"enter", "unload"}});
    });
    if (!finish_failure.empty()) channel.Send({{"finish_failure", finish_failure}});
    channel.Send({{"done", true}});
  } catch (const PluginError &e) {
    channel.Send({{"plugin_error", e.what()}});
  } catch (const host::InputError &e) {
    channel.Send(
        {{"input_error", {{"source", e.source()}, {"line", e.line()}, {"message", e.message()}}}});
  } catch (...) {
    channel.Send({{"error", CurrentExceptionText()}});
  }
  // What the plug-in printed goes out; nothing of the parent's runs again.
  std::cout.flush();
  std::fflush(nullptr);
  _exit(0);
}

// Where the child was, from its last "enter" message.
struct Stage {
  std::string entry = "load";
  std::string validation, keypath;

  std::string Place() const {
    if (entry == "load") return "while loading";
    if (entry == "unload") return "while unloading";
    return "in " + entry;
  }
};

// How a child process ended early: a verb phrase and its detail.
struct Ending {
  std::string how;     // "crashed", "aborted", "ended the process", "did not return"
  std::string detail;  // "signal SIGSEGV, Segmentation fault", "exit status 0"
};

std::string SignalText(int sig) {
  const char *abbrev = sigabbrev_np(sig);
  const char *description = strsignal(sig);
  std::string text = "signal " + (abbrev ? "SIG" + std::string(abbrev) : std::to_string(sig));
  if (description != nullptr) text += std::string(", ") + description;
  return text;
}

std::string Seconds(std::chrono::milliseconds ms) {
  char buf[32];
  if (ms.count() % 1000 == 0) {
    std::snprintf(buf, sizeof buf, "%lld s", static_cast<long long>(ms.count() / 1000));
  } else {
    std::snprintf(buf, sizeof buf, "%.3g s", static_cast<double>(ms.count()) / 1000.0);
  }
  return buf;
}

Ending EndingOf(int status, bool timed_out, std::chrono::milliseconds timeout) {
  if (timed_out) return {"did not return", "stopped after " + Seconds(timeout)};
  if (WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    const bool fault = sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL ||
                       sig == SIGTRAP || sig == SIGSYS;
    return {sig == SIGABRT ? "aborted" : fault ? "crashed" : "was killed", SignalText(sig)};
  }
  return {"ended the process", "exit status " + std::to_string(WEXITSTATUS(status))};
}

// Waits for the child to end until the deadline, without reaping it: while
// it is a zombie its pid, the id of its group, cannot be taken by another
// process. false when it is still running.
bool AwaitEnd(pid_t pid, Clock::time_point deadline) {
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

}  // namespace

namespace {

Report RunIsolated(const std::string &plugin_path, const WithInput &with_input,
                   const Options &options, std::chrono::milliseconds timeout) {
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
    RunChild(fds[1], plugin_path, with_input, options);
  }
  close(fds[1]);
  // Also here: the child may not have got that far yet.
  setpgid(pid, pid);
  // Should anything below throw (a caller's callback, memory), the child
  // must not outlive the call, nor anything it started.
  struct Child {
    pid_t pid;
    int fd;
    bool reaped = false;
    ~Child() {
      if (fd >= 0) close(fd);
      if (reaped) return;
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
  } child{pid, fds[0]};

  Report report;
  Stage stage;
  // The time limit is the plug-in's: it starts once the input is read and
  // parsed, when the child is about to load the plug-in. Input is bounded
  // by its size.
  std::optional<Clock::time_point> deadline;
  bool done = false;
  bool timed_out = false;
  bool garbled = false;
  std::optional<std::string> plugin_error, error, finish_failure;
  std::optional<host::InputError> input_error;
  auto handle = [&](const json &m) {
    if (m.contains("enter")) {
      stage = Stage{m["enter"].get<std::string>(), "", ""};
      if (!deadline && stage.entry != "engine") deadline = Clock::now() + timeout;
      if (stage.entry == "validate") {
        stage.validation = m.at("validation").get<std::string>();
        stage.keypath = m.at("keypath").get<std::string>();
        if (options.before_each) options.before_each(stage.validation, stage.keypath);
      }
    } else if (m.contains("invocation")) {
      report.invocations.push_back(InvocationFrom(m["invocation"]));
      if (options.after_each) options.after_each(report.invocations.back());
    } else if (m.contains("fault")) {
      report.faults.push_back(FaultFrom(m["fault"]));
    } else if (m.contains("plugin_error")) {
      plugin_error = m["plugin_error"].get<std::string>();
    } else if (m.contains("input_error")) {
      const json &e = m["input_error"];
      input_error.emplace(e.at("source").get<std::string>(), e.at("line").get<int>(),
                          e.at("message").get<std::string>());
    } else if (m.contains("error")) {
      error = m["error"].get<std::string>();
    } else if (m.contains("finish_failure")) {
      finish_failure = m["finish_failure"].get<std::string>();
    } else if (m.contains("done")) {
      done = true;
    }
  };

  // Read until the report is complete, not until the pipe ends: the report
  // does not wait for anything the plug-in left running.
  std::string buffer;
  while (!garbled && !done) {
    const auto left =
        deadline ? std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now())
                       .count()
                 : 60000;
    if (left <= 0) {
      timed_out = true;
      break;
    }
    pollfd p{fds[0], POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(std::min<long long>(left + 1, 60000)));
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    char chunk[1 << 16];
    const ssize_t got = read(fds[0], chunk, sizeof chunk);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    buffer.append(chunk, static_cast<size_t>(got));
    size_t at = 0;
    std::uint32_t size = 0;
    while (!garbled && !done && buffer.size() - at >= sizeof size) {
      std::memcpy(&size, buffer.data() + at, sizeof size);
      if (buffer.size() - at - sizeof size < size) break;
      const auto *body = reinterpret_cast<const std::uint8_t *>(buffer.data() + at + sizeof size);
      try {
        handle(json::from_cbor(body, body + size));
      } catch (const json::exception &) {
        garbled = true;  // something else wrote into the pipe
      }
      at += sizeof size + size;
    }
    buffer.erase(0, at);
  }
  close(child.fd);
  child.fd = -1;
  int status = 0;
  const bool ended =
      !timed_out && !garbled && AwaitEnd(pid, deadline.value_or(Clock::now() + timeout));
  if (!ended) {
    timed_out = timed_out || !garbled;
    kill(pid, SIGKILL);
  }
  // Whatever the plug-in started ends with the commit, done or not.
  kill(-pid, SIGKILL);
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  child.reaped = true;

  if (plugin_error) throw PluginError(*plugin_error);
  if (input_error) throw *input_error;
  if (error) throw std::runtime_error(*error);
  const bool clean_exit = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (done && clean_exit && !timed_out && !garbled) {
    if (finish_failure) report.finish_failure = *finish_failure;
    return report;
  }
  Ending ending = EndingOf(status, timed_out, timeout);
  if (garbled) ending = {"garbled its report", "unreadable data on the report pipe"};
  if (stage.entry == "validate") {
    Invocation inv;
    inv.validation = stage.validation;
    inv.keypath = stage.keypath;
    inv.failed = true;
    inv.process_end = ending.how;
    inv.error = ending.detail;
    if (options.after_each) options.after_each(inv);
    report.invocations.push_back(std::move(inv));
    return report;
  }
  const std::string text =
      "the plug-in " + ending.how + " " + stage.Place() + " (" + ending.detail + ")";
  if (stage.entry == "lib_finish" || stage.entry == "unload") {
    report.finish_failure = text;
    return report;
  }
  if (stage.entry == "engine") {
    throw std::runtime_error("the process running the commit " + ending.how + " (" + ending.detail +
                             ")");
  }
  throw PluginError(plugin_path + ": " + text);
}

}  // namespace

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
