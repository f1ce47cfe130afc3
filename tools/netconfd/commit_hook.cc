#include "commit_hook.h"

#include <ipapp/host.h>
#include <ipapp/tools/failure_text.h>

#include <utility>

namespace ipapp::netconfd {
CommitHook::CommitHook(const std::string &plugin_path, const std::string &yang_dir,
                       std::chrono::milliseconds timeout)
    : plugin_path_(plugin_path),
      modules_(host::ModuleNames(yang_dir)),
      schema_(host::Schema::Load(yang_dir)),
      timeout_(timeout) {}

void CommitHook::Probe() const {
  auto load = [this] {
    return check::CommitInput{
        schema_, host::Transaction::Create(schema_, host::DataSource::Empty("<running>"),
                                           host::DataSource::Empty("<candidate>"))};
  };
  check::RunCommitIsolated(plugin_path_, load, {}, timeout_);
}

Verdict CommitHook::Check(const std::string &running_xml, const std::string &candidate_xml) const {
  Verdict verdict;
  check::Report report;
  // The configurations become trees in the commit's process only.
  auto load = [&] {
    return check::CommitInput{
        schema_, host::Transaction::Create(schema_, host::DataSource::Xml(running_xml, "<running>"),
                                           host::DataSource::Xml(candidate_xml, "<candidate>"))};
  };
  try {
    report = check::RunCommitIsolated(plugin_path_, load, {}, timeout_);
  } catch (const host::InputError &e) {
    verdict.message = tools::UncheckedText(e.what());
    return verdict;
  } catch (const std::exception &e) {
    // The plug-in could not be loaded or started this time, or the commit's
    // process could not run.
    verdict.message = e.what();
    return verdict;
  }

  verdict.faults = check::FaultLines(report.faults);
  std::vector<const check::Invocation *> refusals = report.refusals();
  if (const check::Invocation *failure = report.failure()) {
    verdict.message = failure->FailureTextWithPlace();
    verdict.keypath = failure->keypath;
    verdict.validation = failure->validation;
  } else if (!report.finish_failure.empty()) {
    // As ipapp-check: a verdict whose plug-in failed at the end is no verdict.
    verdict.message = report.finish_failure;
  } else if (!refusals.empty()) {
    verdict.kind = Verdict::Kind::kRefused;
    verdict.message = refusals.front()->error;
    verdict.keypath = refusals.front()->keypath;
    verdict.validation = refusals.front()->validation;
  } else {
    verdict.kind = Verdict::Kind::kAccepted;
  }
  return verdict;
}

}  // namespace ipapp::netconfd
