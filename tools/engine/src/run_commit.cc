// The commit in this process: the callbacks one after the other, and what
// each of them did.
#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "ipapp/check_engine.h"
#include "ipapp/tools/failure_text.h"

namespace ipapp::check {
namespace {

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

// What the callback opened and left open: everything opened after opened_before.
void CollectLeaks(host::Transaction &tx, uint64_t opened_before, Invocation *inv) {
  inv->leaks.clear();
  for (host::OpenItem &item : tx.OpenItems()) {
    if (item.id > opened_before) inv->leaks.push_back(std::move(item));
  }
}

}  // namespace

std::string Invocation::FailureText() const {
  return tools::FailureTextWithoutPlace(process_end, error);
}

std::string Invocation::FailureTextWithPlace() const {
  return tools::CallbackFailureText(validation, keypath, process_end, error);
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

}  // namespace ipapp::check
