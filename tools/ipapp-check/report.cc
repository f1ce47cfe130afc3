#include "report.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "printable.h"

namespace ipapp::check {
namespace {

void PrintTrace(std::ostream &out, const Invocation &inv) {
  out << "trace: " << Printable(inv.validation) << " " << Printable(inv.keypath) << " -> "
      << (inv.failed ? "exception" : std::to_string(inv.result)) << "\n";
  for (const ipapp::host::TraceEntry &e : inv.trace) {
    out << "  " << Printable(e.call);
    if (!e.path.empty()) out << " " << Printable(e.path);
    out << " = " << e.result;
    if (!e.detail.empty()) out << " (" << Printable(e.detail) << ")";
    out << "\n";
  }
}

}  // namespace

void PrintText(std::ostream &out, const Report &report, bool trace) {
  if (const Invocation *failure = report.failure()) {
    out << "plug-in failure: " << Printable(failure->FailureText()) << "\n"
        << "  validation: " << Printable(failure->validation) << "\n"
        << "  keypath: " << Printable(failure->keypath) << "\n";
  } else if (report.accepted()) {
    out << "accepted\n";
  }
  for (const Invocation *r : report.refusals()) {
    out << "refused: " << Printable(r->error) << "\n"
        << "  validation: " << Printable(r->validation) << "\n"
        << "  keypath: " << Printable(r->keypath) << "\n";
  }
  for (const std::string &line : ipapp::check::FaultLines(report.faults)) {
    out << "fault: " << Printable(line) << "\n";
  }
  // What a validation left open, one line per validation: on the element
  // each of these leaks on every commit.
  for (const Invocation &inv : report.invocations) {
    if (inv.leaks.empty()) continue;
    out << "warning: " << Printable(inv.validation) << " " << Printable(inv.keypath)
        << " left open:";
    for (size_t i = 0; i < inv.leaks.size(); ++i) {
      const ipapp::host::OpenItem &leak = inv.leaks[i];
      out << (i ? "; " : " ") << Printable(leak.kind) << " of " << Printable(leak.call) << " "
          << Printable(leak.path);
    }
    out << "\n";
  }
  if (trace) {
    for (const Invocation &inv : report.invocations) PrintTrace(out, inv);
  }
  if (!report.finish_failure.empty()) {
    out << "plug-in failure: " << Printable(report.finish_failure) << "\n";
  }
}

nlohmann::json ToJson(const Report &report, bool trace) {
  nlohmann::json doc;
  const Invocation *failure = report.failure();
  doc["verdict"] = failure ? "failed" : report.accepted() ? "accepted" : "refused";
  doc["refusals"] = nlohmann::json::array();
  for (const Invocation *r : report.refusals()) {
    doc["refusals"].push_back(
        {{"validation", r->validation}, {"keypath", r->keypath}, {"error", r->error}});
  }
  if (failure) {
    doc["failure"] = {{"validation", failure->validation},
                      {"keypath", failure->keypath},
                      {"error", failure->FailureText()}};
  }
  if (!report.finish_failure.empty()) doc["finish_failure"] = report.finish_failure;
  doc["faults"] = nlohmann::json::array();
  // The report leaves out what only the commit process needs: a fault's
  // kind and an open item's id.
  for (const ipapp::host::Fault &f : report.faults) {
    nlohmann::json fault = f;
    fault.erase("kind");
    doc["faults"].push_back(std::move(fault));
  }
  doc["invocations"] = nlohmann::json::array();
  for (const Invocation &inv : report.invocations) {
    nlohmann::json item = {
        {"validation", inv.validation}, {"keypath", inv.keypath}, {"result", inv.result}};
    item["leaks"] = nlohmann::json::array();
    for (const ipapp::host::OpenItem &leak : inv.leaks) {
      nlohmann::json open = leak;
      open.erase("id");
      item["leaks"].push_back(std::move(open));
    }
    if (trace) item["trace"] = inv.trace;
    doc["invocations"].push_back(std::move(item));
  }
  return doc;
}

// Flushes stdout; false (errno set) when the report did not get out: a full
// disk or a reader that has gone must not pass for a verdict.
bool Flushed() {
  errno = 0;
  std::cout.flush();
  return std::fflush(stdout) == 0 && !std::ferror(stdout) && std::cout.good();
}

CommitInput LoadCommit(const std::shared_ptr<const host::Schema> &schema,
                       const CommitFiles &files) {
  CommitInput input;
  input.schema = schema;
  auto running = files.running.empty() ? host::DataSource::Empty("<empty running>")
                                       : host::DataSource::File(files.running);
  auto candidate = files.edit.empty()
                       ? host::DataSource::File(files.candidate)
                       : host::ApplyEdit(schema, running, host::DataSource::File(files.edit),
                                         files.default_operation);
  input.tx = host::Transaction::Create(schema, std::move(running), std::move(candidate));
  return input;
}

int ExitOf(const Report &report) {
  if (!FailureMessage(report).empty()) return kPluginFailure;
  return report.accepted() ? kAccepted : kRefused;
}

std::string FailureMessage(const Report &report) {
  if (const Invocation *failure = report.failure()) return failure->FailureTextWithPlace();
  return report.finish_failure;
}

}  // namespace ipapp::check
