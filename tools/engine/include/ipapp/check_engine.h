// Commit validation the way the element's data-model daemon runs it: a
// validation plug-in loaded with dlopen, and the validation callbacks that one
// commit makes, derived from the modules' ipapp-ext bindings and from what
// differs between the running store and the candidate.
#ifndef IPAPP_CHECK_ENGINE_H
#define IPAPP_CHECK_ENGINE_H

#include <confd_lib.h>
#include <ipapp/host.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ipapp::check {

/// The validation point every binding of the modules names.
inline constexpr const char *kValidationPoint = "ip_app_validation";

/// The plug-in cannot be used: it does not load, lacks an entry point, serves
/// another validation point or refuses to start. what() names the file.
class PluginError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A validation plug-in, loaded and started: lib_init has been called once.
/// Destruction calls lib_finish once and unloads the library.
class Plugin {
 public:
  /// Loads the library at path, checks that get_validation_point answers
  /// kValidationPoint and calls lib_init. Throws PluginError.
  explicit Plugin(const std::string &path);
  ~Plugin();
  Plugin(const Plugin &) = delete;
  Plugin &operator=(const Plugin &) = delete;

  const std::string &path() const { return path_; }
  /// One validation callback; whatever validate throws passes through.
  int Validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval) const;

 private:
  using ValidateFn = int (*)(confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *);
  using FinishFn = int (*)();

  std::string path_;
  void *handle_ = nullptr;
  ValidateFn validate_ = nullptr;
  FinishFn finish_ = nullptr;
};

/// One validation callback of a commit.
struct Call {
  std::string validation;  ///< the binding's opaque string
  std::string path;        ///< instance path (per entry) or schema path (once)
};

/// The callbacks a commit of tx makes, in the order the element makes them: a
/// node whose subtree or one of whose dependencies changed runs its bindings
/// in statement order; a once-binding gets the node's path, a per-entry
/// binding every entry of the candidate. Nodes run in bound_nodes() order.
std::vector<Call> PlanCommit(const host::Schema &schema, const host::Transaction &tx);

/// What one callback did.
struct Invocation {
  std::string validation;
  std::string keypath;  ///< the keypath handed to validate, as confd_pp_kpath prints it
  int result = 0;       ///< validate's result; 0 accepts (meaningless when failed)
  std::string error;    ///< the transaction's error text, or the exception's text
  bool failed = false;  ///< an exception left validate
  std::vector<host::TraceEntry> trace;  ///< data-store calls, when asked for
  /// What the callback opened and left open (a cursor not destroyed, a value
  /// not freed, an empty XPath result): on the element each one leaks.
  std::vector<host::OpenItem> leaks;
};

struct Options {
  bool keep_going = false;  ///< run every callback instead of stopping at a refusal
  bool trace = false;       ///< keep each callback's data-store calls
  /// Called before each callback with its validation name and keypath text.
  std::function<void(const std::string &, const std::string &)> before_each;
};

/// The outcome of one commit.
struct Report {
  std::vector<Invocation> invocations;  ///< in the order they ran
  std::vector<host::Fault> faults;      ///< recorded by the plug-in meanwhile

  /// No callback refused or failed.
  bool accepted() const;
  /// The callback an exception left, or null.
  const Invocation *failure() const;
  /// The callbacks that returned non-zero, in order.
  std::vector<const Invocation *> refusals() const;
};

/// Runs the commit of tx through plugin. The first refusal or failure ends
/// the commit unless options.keep_going (a failure always ends it). Throws
/// host::InputError when a bound path is unknown to the store.
Report RunCommit(const Plugin &plugin, const host::Schema &schema, host::Transaction &tx,
                 const Options &options = {});

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_ENGINE_H
