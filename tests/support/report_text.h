// A commit's report as one comparable text: every callback with its result,
// error and data-store calls, then the faults.
#ifndef IPAPP_TESTS_REPORT_TEXT_H
#define IPAPP_TESTS_REPORT_TEXT_H

#include <ipapp/check_engine.h>

#include <string>

namespace ipapp::test {

inline std::string ReportText(const check::Report &report) {
  std::string out;
  for (const check::Invocation &inv : report.invocations) {
    out += inv.validation + " " + inv.keypath + " -> " + std::to_string(inv.result) + " " +
           inv.error + (inv.failed ? " failed " + inv.process_end : "") + "\n";
    for (const host::TraceEntry &e : inv.trace) {
      out +=
          "  " + e.call + " " + e.path + " = " + std::to_string(e.result) + " " + e.detail + "\n";
    }
  }
  for (const host::Fault &f : report.faults) {
    out += "fault " + std::to_string(f.kind) + " " + f.function + " " + f.file + ":" +
           std::to_string(f.line) + " " + f.message + "\n";
  }
  return out + report.finish_failure;
}

}  // namespace ipapp::test

#endif  // IPAPP_TESTS_REPORT_TEXT_H
