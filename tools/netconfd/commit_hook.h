// The commit check a NETCONF server runs before it commits the candidate: the
// running and the candidate configuration as XML text, one transaction of the
// platform store, and the validation callbacks the element's daemon would
// make, through a plug-in loaded once. Nothing here knows the server: the
// server glue hands in text and turns the verdict into its own error record.
#ifndef IPAPP_NETCONFD_COMMIT_HOOK_H
#define IPAPP_NETCONFD_COMMIT_HOOK_H

#include <ipapp/check_engine.h>
#include <ipapp/host.h>

#include <memory>
#include <string>
#include <vector>

namespace ipapp::netconfd {

/// What one commit check decided.
struct Verdict {
  enum class Kind {
    kAccepted,  ///< every callback accepted: the server may commit
    kRefused,   ///< a callback refused: message is the operator's text
    kFailed,    ///< the check itself could not be made (bad data, plug-in exception)
  };
  Kind kind = Kind::kFailed;
  std::string message;     ///< refusal text exactly as set, or why the check failed
  std::string keypath;     ///< the refusing or failing callback's keypath; may be empty
  std::string validation;  ///< the refusing or failing validation; may be empty
  /// Faults the plug-in recorded, as "function (file:line): message", each
  /// once, with " (recorded N times)" when N > 1.
  std::vector<std::string> faults;
};

class CommitHook {
 public:
  /// Loads the modules in yang_dir and the plug-in at plugin_path (lib_init
  /// runs here, once). Throws host::InputError or check::PluginError.
  CommitHook(const std::string &plugin_path, const std::string &yang_dir);

  /// Names of the modules in yang_dir: top-level data of any other module
  /// (the server's own, such as access control) must be left out of the text.
  const std::vector<std::string> &modules() const { return modules_; }

  /// Runs the commit that turns running into candidate, both XML text with any
  /// number of top-level elements, until the first refusal. Never throws for
  /// bad data or a plug-in exception: those come back as kFailed.
  Verdict Check(const std::string &running_xml, const std::string &candidate_xml) const;

 private:
  std::vector<std::string> modules_;
  std::shared_ptr<const host::Schema> schema_;
  // Last, so that it is unloaded first.
  std::unique_ptr<check::Plugin> plugin_;
};

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_COMMIT_HOOK_H
