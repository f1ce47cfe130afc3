// A commit's report as one comparable text: every callback with its result,
// error and data-store calls, then the faults.
#ifndef IPAPP_TESTS_REPORT_TEXT_H
#define IPAPP_TESTS_REPORT_TEXT_H

#include <ipapp/check_engine.h>
#include <nlohmann/json.hpp>

#include <string>

namespace ipapp::test {

// A record's fields as " name=value", strings byte for byte (a dump would
// refuse bytes that are not UTF-8).
inline std::string RecordText(const nlohmann::json &record) {
  std::string out;
  for (const auto &field : record.items()) {
    const nlohmann::json &v = field.value();
    out += " " + field.key() + "=" + (v.is_string() ? v.get<std::string>() : v.dump());
  }
  return out;
}

inline std::string ReportText(const check::Report &report) {
  std::string out;
  for (const check::Invocation &inv : report.invocations) {
    out += inv.validation + " " + inv.keypath + " -> " + std::to_string(inv.result) + " " +
           inv.error + (inv.failed ? " failed " + inv.process_end : "") + "\n";
    for (const host::TraceEntry &e : inv.trace) out += " " + RecordText(e) + "\n";
  }
  for (const host::Fault &f : report.faults) out += "fault" + RecordText(f) + "\n";
  return out + report.finish_failure;
}

}  // namespace ipapp::test

#endif  // IPAPP_TESTS_REPORT_TEXT_H
