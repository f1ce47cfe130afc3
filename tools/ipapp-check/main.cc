// ipapp-check: tells whether the element would accept a candidate
// configuration, by running the commit's validation callbacks through the
// plug-in the way the element's data-model daemon does. The plug-in runs in a
// child process, so that whatever it does ends in a report.
//
// Exit status: 0 accepted, 1 refused, 2 bad usage, bad input or a report that
// cannot be written, 3 the plug-in could not be loaded, or it threw, crashed,
// ended the process or overran the time limit.
//
// Text output is one item a line: whatever came from data or from the
// plug-in goes through Printable, so that no name or text can start a line
// of its own.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <ipapp/check_engine.h>
#include <ipapp/edit.h>
#include <ipapp/host.h>
#include <ipapp/tools/install_paths.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "batch.h"
#include "commit_heap.h"
#include "printable.h"
#include "report.h"

namespace fs = std::filesystem;
using ipapp::check::kBadInput;
using ipapp::check::kPluginFailure;
using ipapp::check::Printable;
using ipapp::check::Report;

namespace {

// A single check's heap: address space set aside for it (the most the
// allocator takes from the heap in one block), and the least of it worth
// putting on huge pages (one).
constexpr size_t kSingleHeapReserve = size_t{30} << 20;
constexpr size_t kHugeHeapFrom = size_t{2} << 20;

struct Args {
  std::string running;
  std::string candidate;
  std::string edit;
  std::string default_operation = "merge";
  std::string batch;
  int jobs = 0;  ///< 0: one per core
  std::string plugin;
  std::string yang;
  std::string format = "text";
  bool keep_going = false;
  bool trace = false;
  double timeout = 60;  ///< seconds per commit
};

int Run(const Args &args) {
  const std::string yang = args.yang.empty() ? ipapp::tools::DefaultYangDir().string() : args.yang;
  const std::string plugin_path =
      args.plugin.empty() ? ipapp::tools::DefaultPlugin().string() : args.plugin;
  ipapp::check::Options options;
  options.keep_going = args.keep_going;
  options.trace = args.trace;
  const auto timeout = std::chrono::milliseconds(std::llround(args.timeout * 1000));
  ipapp::check::CommitFiles files{args.running, args.candidate, args.edit,
                                  *ipapp::host::ParseDefaultOperation(args.default_operation)};
  // The modules and both configurations are read in the process that runs
  // the commit: this one keeps none of them.
  auto load = [&] {
    // A large configuration's heap on huge pages: a small fraction of the
    // page faults, for no more memory (commit_heap.h). The edit's candidate
    // is about the running configuration's size.
    const size_t huge = ipapp::check::SureHeapOf(
        {files.running, files.edit.empty() ? files.candidate : files.running});
    if (huge >= kHugeHeapFrom) ipapp::check::UseFreshHeap(kSingleHeapReserve, huge);
    return ipapp::check::LoadCommit(ipapp::host::Schema::Load(yang), files);
  };
  if (!args.batch.empty()) {
    ipapp::check::BatchOptions batch;
    batch.dir = args.batch;
    batch.jobs = args.jobs > 0 ? args.jobs : std::max(1u, std::thread::hardware_concurrency());
    batch.format = args.format;
    batch.yang = yang;
    batch.plugin = plugin_path;
    batch.options = options;
    batch.timeout = timeout;
    batch.default_operation = files.default_operation;
    return ipapp::check::RunBatch(batch);
  }
  // This process's only child is the commit's.
  ipapp::check::AdoptCommitLeftovers();
  Report report;
  try {
    report = ipapp::check::RunCommitIsolated(plugin_path, load, options, timeout);
  } catch (const ipapp::host::InputError &e) {
    std::cerr << "ipapp-check: " << Printable(e.what()) << "\n";
    return kBadInput;
  } catch (const std::exception &e) {
    // A plug-in that cannot be loaded or started, or a commit process that
    // could not run: no verdict.
    std::cerr << "ipapp-check: " << Printable(e.what()) << "\n";
    return kPluginFailure;
  }

  if (args.format == "json") {
    // A text the plug-in set need not be UTF-8: such bytes become U+FFFD
    // rather than costing the report.
    std::cout << ipapp::check::ToJson(report, args.trace)
                     .dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
              << "\n";
  } else {
    ipapp::check::PrintText(std::cout, report, args.trace);
  }
  if (!ipapp::check::Flushed()) {
    const int err = errno;
    std::cerr << "ipapp-check: cannot write the report to stdout"
              << (err ? std::string(": ") + std::strerror(err) : std::string()) << "\n";
    return kBadInput;
  }
  const int exit = ipapp::check::ExitOf(report);
  if (exit == kPluginFailure) {
    std::cerr << "ipapp-check: " << Printable(ipapp::check::FailureMessage(report)) << "\n";
  }
  return exit;
}

// Descriptors 0, 1 and 2 closed at the start would be handed out by the next
// open: a report pipe on 2 would take in whatever the plug-in writes to
// standard error. They are held by /dev/null instead.
void HoldStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    const int null = open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    if (null < 0) std::_Exit(kBadInput);
    if (null != fd) {
      dup2(null, fd);
      close(null);
    }
  }
}

// Seconds as plain decimal digits: the double conversion alone would take
// "nan" (which passes any range), "inf" and "1e9".
// Digits with an optional fraction ("60", "0.5", "60."), or a fraction
// alone (".5"): nothing else, not even a sign or blanks.
bool IsDecimalSeconds(const std::string &text) {
  auto digits = [](std::string_view s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  const size_t dot = text.find('.');
  if (dot == std::string::npos) return !text.empty() && digits(text);
  const std::string_view whole(text.data(), dot);
  const std::string_view fraction = std::string_view(text).substr(dot + 1);
  return digits(whole) && digits(fraction) && !(whole.empty() && fraction.empty());
}

const CLI::Validator kDecimalSeconds(
    [](std::string &text) -> std::string {
      return IsDecimalSeconds(text) ? "" : "not a decimal number of seconds: " + text;
    },
    "SECONDS", "decimal seconds");

}  // namespace

int main(int argc, char **argv) {
  HoldStandardDescriptors();
  // A reader that has gone makes writes fail (checked) instead of killing us.
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app{"Tells whether the element would accept a candidate configuration."};
  Args args;
  app.add_option("--running", args.running, "running configuration (.xml or .json); default empty");
  auto *candidate =
      app.add_option("--candidate", args.candidate, "candidate configuration (.xml or .json)");
  auto *edit = app.add_option("--edit", args.edit,
                              "an <edit-config>'s <config> content (.xml) applied to the running "
                              "configuration to make the candidate");
  app.add_option("--default-operation", args.default_operation,
                 "the edit's default operation (default merge)")
      ->check(CLI::IsMember({"merge", "replace", "none"}));
  auto *batch = app.add_option("--batch", args.batch,
                               "directory of elements, each a directory with running.xml or "
                               "running.json and candidate.xml, candidate.json or edit.xml");
  app.add_option("-j,--jobs", args.jobs, "elements checked at a time (default: one per core)")
      ->check(CLI::Range(1, 1024));
  candidate->excludes(edit)->excludes(batch);
  edit->excludes(batch);
  batch->excludes(app.get_option("--running"));
  app.add_option("--plugin", args.plugin,
                 "validation plug-in (default: the one installed or built)");
  app.add_option("--yang", args.yang, "directory of the element's YANG modules");
  app.add_option("--format", args.format, "output format")
      ->check(CLI::IsMember({"text", "json", "junit"}));
  app.add_flag("--keep-going", args.keep_going, "run every validation instead of stopping");
  app.add_flag("--trace", args.trace, "show every data-store call of each validation");
  app.add_option("--timeout", args.timeout,
                 "seconds the plug-in may take for the whole commit (default 60)")
      ->check(kDecimalSeconds)
      ->check(CLI::Range(0.001, 86400.0));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    int rc = app.exit(e);
    return rc == 0 ? 0 : kBadInput;
  }
  if (args.candidate.empty() && args.edit.empty() && args.batch.empty()) {
    std::cerr << "ipapp-check: one of --candidate, --edit and --batch is required\n"
              << "Run with --help for more information.\n";
    return kBadInput;
  }
  if (args.format == "junit" && args.batch.empty()) {
    std::cerr << "ipapp-check: --format junit reports a batch (--batch)\n";
    return kBadInput;
  }
  try {
    return Run(args);
  } catch (const std::exception &e) {
    std::cerr << "ipapp-check: " << Printable(e.what()) << "\n";
    return kBadInput;
  }
}
