// A single run's report: how ipapp-check prints it, in text or JSON, and
// what it makes of it as an exit status. A batch reports each element the
// same way.
#ifndef IPAPP_CHECK_REPORT_H
#define IPAPP_CHECK_REPORT_H

#include <ipapp/check_engine.h>
#include <ipapp/edit.h>
#include <ipapp/host.h>

#include <nlohmann/json.hpp>

#include <memory>
#include <ostream>
#include <string>

namespace ipapp::check {

enum ExitCode { kAccepted = 0, kRefused = 1, kBadInput = 2, kPluginFailure = 3 };

/// The files of one commit: the running configuration (empty: an empty
/// running store) and either a whole candidate or an edit of the running one.
struct CommitFiles {
  std::string running, candidate, edit;
  host::DefaultOperation default_operation = host::DefaultOperation::kMerge;
};

/// The commit of files over schema, read as a single run reads it. Throws
/// host::InputError.
CommitInput LoadCommit(const std::shared_ptr<const host::Schema> &schema, const CommitFiles &files);

/// The text report: the verdict line first; trace adds every data-store call.
void PrintText(std::ostream &out, const Report &report, bool trace);
/// The JSON report (the trace only when asked for).
nlohmann::json ToJson(const Report &report, bool trace);

/// kAccepted, kRefused or, when the plug-in failed, kPluginFailure.
int ExitOf(const Report &report);
/// How the plug-in failed, with the validation and keypath or the stage it
/// failed in; empty when it did not.
std::string FailureMessage(const Report &report);

/// Flushes stdout; false (errno set) when the report did not get out: a full
/// disk or a reader that has gone must not pass for a verdict.
bool Flushed();

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_REPORT_H
