// The batch: the parent reads the modules once and forks worker processes
// from itself, so that each worker holds them without reading them again. A
// worker takes one element at a time and runs its commit through
// RunCommitIsolated, as a single run does: a process per commit, the
// plug-in loaded only there, the timeout per element. The parent hands out
// elements, prints the reports in the elements' order and never loads the
// plug-in. It is single-threaded, so forking it is safe.
//
// Pipes, per worker: the parent writes an element's index (a 32-bit int in
// host order; -1: no more work), the worker answers with one frame, a 32-bit
// length and the outcome as CBOR (texts travel byte for byte).
#include "batch.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <vector>

#include "commit_heap.h"
#include "ipapp/tools/whole_io.h"
#include "printable.h"
#include "report.h"

namespace ipapp::check {
namespace {

using tools::ReadAll;
using tools::WriteAll;

namespace fs = std::filesystem;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

// One element's outcome: what its single run would have said.
struct Outcome {
  int exit = kPluginFailure;
  std::string line;     // the verdict in one line: "refused: <text>", ...
  std::string message;  // a refusal's text, or what went wrong
  std::string text;     // the single run's text output, then its message
  json object;          // the single run's JSON object, or one saying what went wrong
  double seconds = 0;

  json ToFrame() const {
    return {{"exit", exit}, {"line", line},     {"message", message},
            {"text", text}, {"object", object}, {"seconds", seconds}};
  }
  static Outcome FromFrame(const json &j) {
    Outcome o;
    o.exit = j.at("exit").get<int>();
    o.line = j.at("line").get<std::string>();
    o.message = j.at("message").get<std::string>();
    o.text = j.at("text").get<std::string>();
    o.object = j.at("object");
    o.seconds = j.at("seconds").get<double>();
    return o;
  }
  static Outcome Error(int exit, const std::string &message) {
    Outcome o;
    o.exit = exit;
    o.message = message;
    o.line = (exit == kBadInput ? "bad input: " : "plug-in failure: ") + message;
    o.text = "ipapp-check: " + message + "\n";
    o.object = {{"verdict", exit == kBadInput ? "bad input" : "failed"}, {"error", message}};
    return o;
  }
};

// The files of one element: its running configuration and either a whole
// candidate or an edit.
CommitFiles FindFiles(const fs::path &dir, host::DefaultOperation default_operation) {
  auto present = [&](std::initializer_list<const char *> names) {
    std::vector<std::string> found;
    for (const char *name : names) {
      std::error_code ec;
      if (fs::exists(dir / name, ec)) found.push_back(name);
    }
    if (found.size() > 1) {
      throw host::InputError(dir.string(), 0, "holds both " + found[0] + " and " + found[1]);
    }
    return found.empty() ? std::string() : found[0];
  };
  CommitFiles files;
  files.default_operation = default_operation;
  const std::string running = present({"running.xml", "running.json"});
  if (running.empty()) throw host::InputError(dir.string(), 0, "no running.xml or running.json");
  files.running = (dir / running).string();
  const std::string change = present({"candidate.xml", "candidate.json", "edit.xml"});
  if (change.empty()) {
    throw host::InputError(dir.string(), 0, "no candidate.xml, candidate.json or edit.xml");
  }
  (change == "edit.xml" ? files.edit : files.candidate) = (dir / change).string();
  return files;
}

// One element, checked as a single run checks it.
Outcome CheckElement(const fs::path &dir, const std::shared_ptr<const host::Schema> &schema,
                     const BatchOptions &options) {
  const Clock::time_point start = Clock::now();
  Outcome out;
  try {
    const CommitFiles files = FindFiles(dir, options.default_operation);
    // Files are read in the commit's process, as in a single run; the
    // modules come with it from this one.
    const Report report = RunCommitIsolated(
        options.plugin,
        [&] {
          UseFreshHeap(kBatchHeapReserve);
          return LoadCommit(schema, files);
        },
        options.options, options.timeout);
    std::ostringstream text;
    PrintText(text, report, options.options.trace);
    out.object = ToJson(report, options.options.trace);
    out.exit = ExitOf(report);
    if (out.exit == kPluginFailure) {
      out.message = FailureMessage(report);
      out.line = "plug-in failure: " + out.message;
      text << "ipapp-check: " << out.message << "\n";
    } else if (out.exit == kAccepted) {
      out.line = "accepted";
    } else {
      const std::vector<const Invocation *> refusals = report.refusals();
      out.message = refusals.front()->error;
      out.line = "refused: " + out.message;
      if (refusals.size() > 1) {
        out.line += " (and " + std::to_string(refusals.size() - 1) + " more refusals)";
      }
    }
    out.text = text.str();
  } catch (const host::InputError &e) {
    out = Outcome::Error(kBadInput, e.what());
  } catch (const std::exception &e) {
    out = Outcome::Error(kPluginFailure, e.what());
  }
  out.object["exit"] = out.exit;
  out.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return out;
}

struct Worker {
  pid_t pid = -1;
  int job_fd = -1;     // the parent's end: element indexes
  int result_fd = -1;  // the parent's end: outcomes
  int element = -1;    // being checked, or -1
  std::string buffer;  // outcome bytes read so far
};

[[noreturn]] void WorkerMain(int job_fd, int result_fd, pid_t parent,
                             const std::vector<fs::path> &elements,
                             const std::shared_ptr<const host::Schema> &schema,
                             const BatchOptions &options) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(0);
  // A worker's only children are its commits'.
  AdoptCommitLeftovers();
  // What a plug-in prints must not end up inside the batch's report.
  dup2(STDERR_FILENO, STDOUT_FILENO);
  for (;;) {
    std::int32_t index = -1;
    if (!ReadAll(job_fd, &index, sizeof index) || index < 0 ||
        static_cast<size_t>(index) >= elements.size()) {
      _exit(0);
    }
    const Outcome out = CheckElement(elements[index], schema, options);
    const std::vector<std::uint8_t> body = json::to_cbor(out.ToFrame());
    const auto size = static_cast<std::uint32_t>(body.size());
    if (!WriteAll(result_fd, &size, sizeof size) || !WriteAll(result_fd, body.data(), size)) {
      _exit(1);
    }
  }
}

void CloseFd(int *fd) {
  if (*fd >= 0) close(*fd);
  *fd = -1;
}

// Where the batch stands, on standard error when it is a terminal.
class Progress {
 public:
  explicit Progress(size_t total) : total_(total), on_(isatty(STDERR_FILENO) == 1) {}

  void Update(size_t done, size_t refused, size_t failed) {
    if (!on_) return;
    const double elapsed = std::chrono::duration<double>(Clock::now() - start_).count();
    const double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0;
    char left[32] = "?";
    if (rate > 0) {
      std::snprintf(left, sizeof left, "%.0f s", static_cast<double>(total_ - done) / rate);
    }
    std::fprintf(stderr,
                 "\r\033[K%zu/%zu checked, %zu refused, %zu failed, %.1f elements/s, %s left", done,
                 total_, refused, failed, rate, left);
    std::fflush(stderr);
  }

  void Clear() {
    if (!on_) return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }

 private:
  size_t total_;
  bool on_;
  Clock::time_point start_ = Clock::now();
};

std::string Iso8601Now() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::string Fixed(double seconds) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f", seconds);
  return buf;
}

struct Counts {
  size_t accepted = 0, refused = 0, bad_input = 0, failed = 0;
  void Add(int exit) {
    (exit == kAccepted   ? accepted
     : exit == kRefused  ? refused
     : exit == kBadInput ? bad_input
                         : failed)++;
  }
};

void WriteJUnit(std::ostream &out, const std::string &suite, const std::vector<std::string> &names,
                const std::vector<Outcome> &outcomes, const Counts &counts, double seconds) {
  const size_t errors = counts.bad_input + counts.failed;
  const std::string totals = " tests=\"" + std::to_string(names.size()) + "\" failures=\"" +
                             std::to_string(counts.refused) + "\" errors=\"" +
                             std::to_string(errors) + "\"";
  out << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<testsuites name=\"ipapp-check\"" << totals << " time=\"" << Fixed(seconds) << "\">\n"
      << "  <testsuite name=\"" << EscapeXml(suite) << "\"" << totals << " skipped=\"0\" time=\""
      << Fixed(seconds) << "\" timestamp=\"" << Iso8601Now() << "\">\n";
  for (size_t i = 0; i < names.size(); ++i) {
    const Outcome &o = outcomes[i];
    out << "    <testcase name=\"" << EscapeXml(names[i]) << "\" classname=\"ipapp-check\" time=\""
        << Fixed(o.seconds) << "\"";
    if (o.exit == kAccepted) {
      out << "/>\n";
      continue;
    }
    const char *element = o.exit == kRefused ? "failure" : "error";
    const char *type = o.exit == kRefused    ? "refused"
                       : o.exit == kBadInput ? "bad input"
                                             : "plug-in failure";
    out << ">\n      <" << element << " message=\"" << EscapeXml(o.message) << "\" type=\"" << type
        << "\">" << EscapeXml(o.text, false) << "</" << element << ">\n    </testcase>\n";
  }
  out << "  </testsuite>\n</testsuites>\n";
}

// The character at text[i] as a code point, i moved past it; false for a
// byte that starts no well-formed UTF-8 character.
bool TakeUtf8(const std::string &text, size_t *i, uint32_t *cp) {
  const auto c = static_cast<unsigned char>(text[*i]);
  if (c < 0x80) {
    *cp = c;
    ++*i;
    return true;
  }
  const size_t n = Utf8CharLength(std::string_view(text).substr(*i));
  if (n == 0) return false;
  uint32_t v = c & (0x7f >> n);
  for (size_t k = 1; k < n; ++k) v = (v << 6) | (static_cast<unsigned char>(text[*i + k]) & 0x3f);
  *cp = v;
  *i += n;
  return true;
}

std::string Hex(unsigned char c) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "\\x%02x", c);
  return buf;
}

}  // namespace

std::string EscapeXml(const std::string &text, bool attribute) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size();) {
    const size_t at = i;
    uint32_t cp = 0;
    if (!TakeUtf8(text, &i, &cp)) {
      out += Hex(static_cast<unsigned char>(text[i++]));
      continue;
    }
    switch (cp) {
      case '&':
        out += "&amp;";
        continue;
      case '<':
        out += "&lt;";
        continue;
      case '>':
        out += "&gt;";
        continue;
      case '"':
        out += "&quot;";
        continue;
      case '\'':
        out += "&apos;";
        continue;
      default:
        break;
    }
    if (cp == '\t' || cp == '\n' || cp == '\r') {
      // An attribute value's line breaks would be read as spaces.
      if (attribute) {
        out += "&#" + std::to_string(cp) + ";";
      } else {
        out += static_cast<char>(cp);
      }
      continue;
    }
    const bool allowed = (cp >= 0x20 && cp <= 0xD7FF) || (cp >= 0xE000 && cp <= 0xFFFD) ||
                         (cp >= 0x10000 && cp <= 0x10FFFF);
    if (!allowed) {
      for (size_t k = at; k < i; ++k) out += Hex(static_cast<unsigned char>(text[k]));
      continue;
    }
    out.append(text, at, i - at);
  }
  return out;
}

int RunBatch(const BatchOptions &options) {
  std::error_code ec;
  if (!fs::is_directory(options.dir, ec)) {
    std::cerr << "ipapp-check: " << options.dir << ": not a directory\n";
    return kBadInput;
  }
  std::vector<fs::path> elements;
  for (const fs::directory_entry &entry : fs::directory_iterator(options.dir, ec)) {
    const std::string name = entry.path().filename().string();
    if (name.empty() || name[0] == '.' || !entry.is_directory(ec)) continue;
    elements.push_back(entry.path());
  }
  if (ec) {
    std::cerr << "ipapp-check: " << options.dir << ": " << ec.message() << "\n";
    return kBadInput;
  }
  if (elements.empty()) {
    std::cerr << "ipapp-check: " << options.dir << ": no element directories\n";
    return kBadInput;
  }
  std::sort(elements.begin(), elements.end());
  std::vector<std::string> names;
  for (const fs::path &p : elements) names.push_back(p.filename().string());

  std::shared_ptr<const host::Schema> schema;
  try {
    schema = host::Schema::Load(options.yang);
  } catch (const std::exception &e) {
    std::cerr << "ipapp-check: " << e.what() << "\n";
    return kBadInput;
  }

  const size_t total = elements.size();
  const Clock::time_point start = Clock::now();
  const pid_t self = getpid();
  std::vector<Worker> workers(std::min<size_t>(std::max(options.jobs, 1), total));
  auto start_worker = [&](Worker &w) {
    // Pending output would be written again by the worker's commits.
    std::cout.flush();
    std::fflush(nullptr);
    int jobs[2], results[2];
    if (pipe2(jobs, O_CLOEXEC) != 0) return false;
    if (pipe2(results, O_CLOEXEC) != 0) {
      close(jobs[0]);
      close(jobs[1]);
      return false;
    }
    const pid_t pid = fork();
    if (pid == 0) {
      close(jobs[1]);
      close(results[0]);
      // Other workers' pipes stay with the parent alone, so that each one
      // sees its own end when the parent goes.
      for (Worker &other : workers) {
        CloseFd(&other.job_fd);
        CloseFd(&other.result_fd);
      }
      WorkerMain(jobs[0], results[1], self, elements, schema, options);
    }
    close(jobs[0]);
    close(results[1]);
    if (pid < 0) {
      close(jobs[1]);
      close(results[0]);
      return false;
    }
    w = Worker{pid, jobs[1], results[0], -1, {}};
    return true;
  };

  std::vector<std::optional<Outcome>> outcomes(total);
  size_t next = 0, done = 0, printed = 0;
  Counts counts;
  Progress progress(total);
  std::vector<Outcome> kept;  // JUnit needs them all at the end
  bool output_ok = true;

  auto finish = [&](size_t index, Outcome outcome) {
    counts.Add(outcome.exit);
    outcomes[index] = std::move(outcome);
    ++done;
    // Reports go out in the elements' order, each as soon as it can.
    for (; printed < total && outcomes[printed]; ++printed) {
      Outcome &o = *outcomes[printed];
      if (options.format == "text") {
        std::cout << Printable(names[printed]) << ": " << Printable(o.line) << "\n";
      } else if (options.format == "json") {
        json line = o.object;
        line["element"] = names[printed];
        std::cout << line.dump(-1, ' ', false, json::error_handler_t::replace) << "\n";
      }
      if (options.format != "junit") output_ok = output_ok && Flushed();
      if (options.format == "junit") kept.push_back(std::move(o));
      outcomes[printed]->text.clear();
      outcomes[printed]->object = nullptr;
    }
    progress.Update(done, counts.refused, counts.bad_input + counts.failed);
  };
  // Hands the worker its next element, or tells it that there is none.
  auto assign = [&](Worker &w) {
    const std::int32_t index = next < total ? static_cast<std::int32_t>(next) : -1;
    // A worker that has gone is seen at the end of its result pipe.
    if (!WriteAll(w.job_fd, &index, sizeof index) || index < 0) {
      CloseFd(&w.job_fd);
      return;
    }
    w.element = index;
    ++next;
  };
  auto end_worker = [&](Worker &w) {
    CloseFd(&w.job_fd);
    CloseFd(&w.result_fd);
    int status = 0;
    while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (w.element >= 0) {
      std::string how = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                            : "exit status " + std::to_string(WEXITSTATUS(status));
      finish(
          static_cast<size_t>(w.element),
          Outcome::Error(kPluginFailure, "the process checking the element ended (" + how + ")"));
      w.element = -1;
    }
    w.pid = -1;
  };

  for (Worker &w : workers) {
    if (start_worker(w)) assign(w);
  }
  while (done < total) {
    std::vector<pollfd> fds;
    std::vector<Worker *> polled;
    for (Worker &w : workers) {
      if (w.result_fd < 0) continue;
      fds.push_back({w.result_fd, POLLIN, 0});
      polled.push_back(&w);
    }
    if (fds.empty()) {
      // No worker could be started: what is left cannot be checked.
      while (next < total) {
        finish(next++, Outcome::Error(kPluginFailure, std::string("cannot start a process: ") +
                                                          std::strerror(errno)));
      }
      break;
    }
    if (poll(fds.data(), fds.size(), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (size_t k = 0; k < fds.size(); ++k) {
      if (fds[k].revents == 0) continue;
      Worker &w = *polled[k];
      char chunk[1 << 16];
      const ssize_t got = read(w.result_fd, chunk, sizeof chunk);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        end_worker(w);
        if (next < total && start_worker(w)) assign(w);
        continue;
      }
      w.buffer.append(chunk, static_cast<size_t>(got));
      std::uint32_t size = 0;
      while (w.buffer.size() >= sizeof size) {
        std::memcpy(&size, w.buffer.data(), sizeof size);
        if (w.buffer.size() - sizeof size < size) break;
        const auto *body = reinterpret_cast<const std::uint8_t *>(w.buffer.data() + sizeof size);
        Outcome outcome;
        try {
          outcome = Outcome::FromFrame(json::from_cbor(body, body + size));
        } catch (const json::exception &e) {
          outcome = Outcome::Error(kPluginFailure, std::string("unreadable outcome: ") + e.what());
        }
        w.buffer.erase(0, sizeof size + size);
        const int element = w.element;
        w.element = -1;
        if (element >= 0) finish(static_cast<size_t>(element), std::move(outcome));
        assign(w);
      }
    }
  }
  for (Worker &w : workers) {
    if (w.pid > 0) end_worker(w);
  }
  progress.Clear();

  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (options.format == "junit") {
    WriteJUnit(std::cout, fs::path(options.dir).lexically_normal().filename().string(), names, kept,
               counts, seconds);
    output_ok = Flushed();
  }
  std::ostream &summary = options.format == "text" ? std::cout : std::cerr;
  summary << total << " elements: " << counts.accepted << " accepted, " << counts.refused
          << " refused, " << counts.bad_input << " bad input, " << counts.failed << " failed\n";
  if (options.format == "text") output_ok = output_ok && Flushed();
  if (!output_ok) {
    const int err = errno;
    std::cerr << "ipapp-check: cannot write the report to stdout"
              << (err ? std::string(": ") + std::strerror(err) : std::string()) << "\n";
    return kBadInput;
  }
  if (counts.failed > 0) return kPluginFailure;
  if (counts.bad_input > 0) return kBadInput;
  return counts.refused > 0 ? kRefused : kAccepted;
}

}  // namespace ipapp::check
