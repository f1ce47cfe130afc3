#include "commit_hook.h"

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace ipapp::netconfd {
namespace {

// Module names as the files in dir are named: NAME.yang or NAME@REVISION.yang.
std::vector<std::string> ModuleNames(const std::string &dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const fs::directory_entry &entry : fs::directory_iterator(dir, ec)) {
    if (entry.path().extension() != ".yang") continue;
    std::string stem = entry.path().stem().string();
    names.push_back(stem.substr(0, stem.find('@')));
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

}  // namespace

CommitHook::CommitHook(const std::string &plugin_path, const std::string &yang_dir)
    : modules_(ModuleNames(yang_dir)),
      schema_(host::Schema::Load(yang_dir)),
      plugin_(std::make_unique<check::Plugin>(plugin_path)) {}

Verdict CommitHook::Check(const std::string &running_xml, const std::string &candidate_xml) const {
  Verdict verdict;
  check::Report report;
  try {
    auto tx = host::Transaction::Create(schema_, host::DataSource::Xml(running_xml, "<running>"),
                                        host::DataSource::Xml(candidate_xml, "<candidate>"));
    report = check::RunCommit(*plugin_, *schema_, *tx);
  } catch (const host::InputError &e) {
    verdict.message = std::string("the configuration cannot be checked: ") + e.what();
    return verdict;
  }

  verdict.faults = check::FaultLines(report.faults);
  if (const check::Invocation *failure = report.failure()) {
    verdict.message = "the validation plug-in failed in " + failure->validation + " on " +
                      failure->keypath + ": " + failure->error;
    verdict.keypath = failure->keypath;
    verdict.validation = failure->validation;
  } else if (std::vector<const check::Invocation *> refusals = report.refusals();
             !refusals.empty()) {
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
