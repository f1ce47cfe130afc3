// Commit validation the way the element's data-model daemon runs it: a
// validation plug-in loaded with dlopen, and the validation callbacks that one
// commit makes, derived from the modules' ipapp-ext bindings and from what
// differs between the running store and the candidate. A host that must
// survive a broken plug-in runs the commit in a child process
// (RunCommitIsolated).
#ifndef IPAPP_CHECK_ENGINE_H
#define IPAPP_CHECK_ENGINE_H

#include <confd_lib.h>
#include <ipapp/host.h>

#include <chrono>
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

/// The plug-in's entry points around the commit, in the order they run
/// (kLoad: the library's own initialisation while it loads).
enum class Entry { kLoad, kGetValidationPoint, kLibInit, kLibFinish };

/// The entry point's name: "load", "get_validation_point", ...
const char *EntryName(Entry entry);

/// A validation plug-in, loaded and started: lib_init has been called once.
/// Destruction calls lib_finish once (unless Finish did) and unloads the
/// library. Whatever an entry point throws is turned into text while the
/// library is still loaded: exception types defined in the plug-in die with it.
class Plugin {
 public:
  /// Called with each entry point just before it runs.
  using EntryHook = std::function<void(Entry entry)>;

  /// Loads the library at path, checks that get_validation_point answers
  /// kValidationPoint and calls lib_init. Throws PluginError, naming the
  /// entry point that failed.
  explicit Plugin(const std::string &path, EntryHook entering = nullptr);
  ~Plugin();
  Plugin(const Plugin &) = delete;
  Plugin &operator=(const Plugin &) = delete;

  const std::string &path() const { return path_; }
  /// One validation callback; whatever validate throws passes through, so
  /// it must be caught before the plug-in is destroyed.
  int Validate(confd_trans_ctx *tctx, confd_hkeypath_t *kp, confd_value_t *newval) const;
  /// Calls lib_finish; the text of what it threw, or empty. Once only:
  /// later calls and the destructor do nothing more.
  std::string Finish();

 private:
  using ValidateFn = int (*)(confd_trans_ctx *, confd_hkeypath_t *, confd_value_t *);
  using FinishFn = int (*)();

  std::string path_;
  EntryHook entering_;
  void *handle_ = nullptr;
  ValidateFn validate_ = nullptr;
  FinishFn finish_ = nullptr;
};

/// The text of the exception being handled: what() of a std::exception, else
/// the name of its type. Call it only inside a catch block.
std::string CurrentExceptionText();

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
  bool failed = false;  ///< an exception left validate, or its process ended
  /// Isolated runs: how the process running validate ended instead of
  /// returning ("crashed", "aborted", "was killed", "ended the process",
  /// "did not return", "garbled its report"); error then says why ("signal
  /// SIGSEGV, Segmentation fault"). Empty when an exception left validate.
  std::string process_end;
  std::vector<host::TraceEntry> trace;  ///< data-store calls, when asked for
  /// What the callback opened and left open (a cursor not destroyed, a value
  /// not freed, an empty XPath result): on the element each one leaks.
  std::vector<host::OpenItem> leaks;

  /// What failed, in one line without the place: the exception's text, or
  /// "the plug-in crashed (signal SIGSEGV, Segmentation fault)".
  std::string FailureText() const;
  /// The same with the validation and keypath it happened in.
  std::string FailureTextWithPlace() const;
};

struct Options {
  bool keep_going = false;  ///< run every callback instead of stopping at a refusal
  bool trace = false;       ///< keep each callback's data-store calls
  /// Called before each callback with its validation name and keypath text.
  std::function<void(const std::string &, const std::string &)> before_each;
  /// Called after each callback with what it did.
  std::function<void(const Invocation &)> after_each;
};

/// The outcome of one commit.
struct Report {
  std::vector<Invocation> invocations;  ///< in the order they ran
  std::vector<host::Fault> faults;      ///< recorded by the plug-in meanwhile
  /// Isolated runs: how lib_finish failed after the commit ran; empty when
  /// it did not.
  std::string finish_failure;

  /// No callback refused or failed.
  bool accepted() const;
  /// The callback that failed (an exception left it or its process ended),
  /// or null.
  const Invocation *failure() const;
  /// The callbacks that returned non-zero, in order.
  std::vector<const Invocation *> refusals() const;
};

/// The faults as an operator reads them: every validation that reads the same
/// bad item records the same fault, so each text stands once, in the order
/// first recorded, followed by " (recorded N times)" where N > 1.
std::vector<std::string> FaultLines(const std::vector<host::Fault> &faults);

/// Runs the commit of tx through plugin. The first refusal or failure ends
/// the commit unless options.keep_going (a failure always ends it). Throws
/// host::InputError when a bound path is unknown to the store.
Report RunCommit(const Plugin &plugin, const host::Schema &schema, host::Transaction &tx,
                 const Options &options = {});

/// The commit of tx in a child process that loads the plug-in at
/// plugin_path, runs the commit as RunCommit does, calls lib_finish and sends
/// the report back; tx itself is left as it was. Whatever the plug-in does
/// cannot take the caller with it:
/// - an exception, a crash, an abort, another deadly signal, a call that ends
///   the process, no result within timeout or bytes on the report pipe that
///   are no report, while loading, in get_validation_point or in lib_init:
///   throws PluginError naming the entry point and, for a signal, the signal;
/// - the same in validate: the report ends with that callback, failed, with
///   process_end saying how (an exception: as RunCommit reports it);
/// - the same in lib_finish or while unloading: the report is complete,
///   finish_failure says it;
/// - the same in the engine's own work between entry points: throws
///   std::runtime_error saying how the commit's process ended.
/// The timeout counts from loading the plug-in to the complete report.
/// The child runs in a process group of its own, ended with it: whatever the
/// plug-in starts does not outlive the call, and a process it leaves running
/// does not hold up the report. The plug-in's standard output goes to
/// standard error, its standard input is /dev/null; the report travels in shared memory and on a
/// pipe that is never a standard descriptor, neither of which processes the plug-in forks
/// inherit. before_each and after_each are called in the caller's process, in order, as the
/// report is read: mostly once the commit has ended. Throws host::InputError as
/// RunCommit does. Call it while no other thread of the caller uses the data store: the child
/// inherits the store's lock in whatever state fork found it.
Report RunCommitIsolated(const std::string &plugin_path, const host::Schema &schema,
                         host::Transaction &tx, const Options &options,
                         std::chrono::milliseconds timeout);

/// Makes this process the one that a commit's left-over processes come back
/// to when their parents end, even those that left the commit's process
/// group (setsid) (a child subreaper). RunCommitIsolated then ends and reaps
/// them with the commit, and those that come back in turn, until this
/// process has no child left. Only for a process whose children are all
/// commit processes: any other child would be ended with them. Call it
/// before the first commit; false where the system cannot.
bool AdoptCommitLeftovers();

/// The schema and the transaction of one commit.
struct CommitInput {
  std::shared_ptr<const host::Schema> schema;
  std::unique_ptr<host::Transaction> tx;
};

/// RunCommitIsolated with the schema and the transaction built by load in the
/// child process, so that the caller's process holds none of them (starting
/// the child then copies nothing of the trees, and nothing is torn down).
/// What load throws comes back as RunCommit's exceptions do (host::InputError
/// as it stands); the timeout does not include load, whose input the host
/// bounds.
Report RunCommitIsolated(const std::string &plugin_path, const std::function<CommitInput()> &load,
                         const Options &options, std::chrono::milliseconds timeout);

}  // namespace ipapp::check

#endif  // IPAPP_CHECK_ENGINE_H
