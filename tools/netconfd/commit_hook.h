// The commit check a NETCONF server runs before it commits the candidate: the
// running and the candidate configuration as XML text, one transaction of the
// platform store, and the validation callbacks the element's daemon would
// make, through the plug-in in a child process of its own (the engine's
// isolated commit), so that a plug-in that crashes or hangs costs one
// operation, never the server. Nothing here knows the server: the server
// glue hands in text and turns the verdict into its own error record.
#ifndef IPAPP_NETCONFD_COMMIT_HOOK_H
#define IPAPP_NETCONFD_COMMIT_HOOK_H

#include <ipapp/check_engine.h>
#include <ipapp/host.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace ipapp::netconfd {

/// What one commit check decided.
struct Verdict {
  enum class Kind {
    kAccepted,  ///< every callback accepted: the server may commit
    kRefused,   ///< a callback refused: message is the operator's text
    kFailed,    ///< the check itself could not be made (bad data, a failing plug-in)
  };
  Kind kind = Kind::kFailed;
  /// The refusal text exactly as set, or why the check failed in the words
  /// ipapp-check uses on its standard error.
  std::string message;
  std::string keypath;     ///< the refusing or failing callback's keypath; may be empty
  std::string validation;  ///< the refusing or failing validation; may be empty
  /// Faults the plug-in recorded, as "function (file:line): message", each
  /// once, with " (recorded N times)" when N > 1.
  std::vector<std::string> faults;
};

class CommitHook {
 public:
  /// Loads the modules in yang_dir; the plug-in at plugin_path is loaded and
  /// started afresh for each check, in its own process, which may take at
  /// most timeout. Throws host::InputError.
  CommitHook(const std::string &plugin_path, const std::string &yang_dir,
             std::chrono::milliseconds timeout);

  /// Names of the modules in yang_dir: top-level data of any other module
  /// (the server's own, such as access control) must be left out of the text.
  const std::vector<std::string> &modules() const { return modules_; }

  /// Loads and starts the plug-in in a child process and lets it finish, as a
  /// commit without changes does. Throws check::PluginError saying why it
  /// cannot be used.
  void Probe() const;

  /// Runs the commit that turns running into candidate, both XML text with any
  /// number of top-level elements, until the first refusal. Never throws for
  /// bad data or a failing plug-in: those come back as kFailed.
  Verdict Check(const std::string &running_xml, const std::string &candidate_xml) const;

 private:
  std::string plugin_path_;
  std::vector<std::string> modules_;
  std::shared_ptr<const host::Schema> schema_;
  std::chrono::milliseconds timeout_;
};

}  // namespace ipapp::netconfd

#endif  // IPAPP_NETCONFD_COMMIT_HOOK_H
