// The test host: what the element's data-model daemon does around a
// validation plug-in, for tests, benchmarks and the commit checker. It loads
// the element's YANG modules, builds a transaction from a running and a
// candidate configuration, hands out the confd_trans_ctx that a validation
// callback receives, and reads back what the plug-in did: the error text, the
// fault log, the data-store call trace and the resources still open.
// Nothing here knows the plug-in's rules.
#ifndef IPAPP_HOST_H
#define IPAPP_HOST_H

#include <confd_lib.h>
#include <ipapp/records.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace ipapp::host {

/// Bad input: a module or data file that cannot be read or does not fit the
/// modules, or a path that names nothing. what() names the source and, where
/// known, the line.
class InputError : public std::runtime_error {
 public:
  InputError(const std::string &source, int line, const std::string &message);
  const std::string &source() const { return source_; }
  int line() const { return line_; }  ///< 0 when unknown
  const std::string &message() const { return message_; }

 private:
  std::string source_;
  int line_;
  std::string message_;
};

/// Configuration data, XML or JSON text.
struct DataSource {
  enum class Format { kXml, kJson };
  Format format = Format::kXml;
  std::string text;  ///< empty text: an empty configuration
  std::string name;  ///< used in messages: the file name, or "<running>" ...

  static DataSource Xml(std::string text, std::string name = "<xml>");
  static DataSource Json(std::string text, std::string name = "<json>");
  /// Reads a file; the format follows the extension (.xml, .json). Throws
  /// InputError for an unreadable file or an unknown extension.
  static DataSource File(const std::string &path);
  static DataSource Empty(std::string name = "<empty>");
};

/// One validation binding of a node, from the ipapp-ext statements.
struct Binding {
  enum class Kind { kOnce, kPerEntry };
  Kind kind = Kind::kOnce;
  std::string opaque;  ///< the validation name, e.g. "ipv4_addr_validation"
};

/// A schema node with validation bindings.
struct BoundNode {
  std::string path;                       ///< e.g. "/config/interface/ipapp:l3"
  std::vector<Binding> bindings;          ///< in statement order
  std::vector<std::string> dependencies;  ///< absolute schema paths
};

/// The names of the modules in dir, as its files NAME.yang and
/// NAME@REVISION.yang name them: sorted, each once however many revisions the
/// directory holds. Empty when dir holds none or cannot be read.
std::vector<std::string> ModuleNames(const std::string &dir);

/// The element's modules, loaded from a directory of .yang files.
class Schema {
 public:
  /// Loads every module of the element from dir. Throws InputError.
  static std::shared_ptr<const Schema> Load(const std::string &dir);
  /// Default module directory of this build (compiled in).
  static std::string DefaultDir();
  virtual ~Schema() = default;
  /// Nodes carrying bindings, in the order the element runs them.
  virtual const std::vector<BoundNode> &bound_nodes() const = 0;
};

/// A transaction under validation: the running store (read through CDB) and
/// the candidate (read through MAAPI), with the host instance and the MAAPI
/// socket attached to it. Ending it (destruction) reclaims whatever is open.
class Transaction {
 public:
  /// Validates both configurations against the schema. Throws InputError
  /// naming the source (and line) of bad data. The texts are taken, and
  /// released as soon as they are parsed: move large ones in.
  static std::unique_ptr<Transaction> Create(std::shared_ptr<const Schema> schema,
                                             DataSource running, DataSource candidate);
  virtual ~Transaction() = default;

  /// A fresh context for one validation callback: thandle of this
  /// transaction, vcb_opaque the host instance, validate_opaque a copy of
  /// opaque. Owned by the transaction, valid until it ends.
  virtual confd_trans_ctx *Context(const std::string &opaque) = 0;

  /// The keypath of an instance or schema path (path syntax of the store).
  /// Throws InputError for a malformed path or one the schema does not know.
  virtual confd_hkeypath_t Keypath(const std::string &path) const = 0;

  /// Error text set with confd_trans_seterr (last one wins); empty if none.
  virtual std::string ErrorText() const = 0;
  virtual bool HasError() const = 0;
  virtual void ClearError() = 0;

  virtual std::vector<Fault> Faults() const = 0;
  virtual std::vector<TraceEntry> Trace() const = 0;
  virtual void ClearTrace() = 0;
  /// Whether data-store calls are recorded for Trace(); they are from the
  /// start. Recording costs about as much as the call itself.
  virtual void RecordTrace(bool on) = 0;
  virtual bool RecordingTrace() const = 0;
  virtual OpenResources Open() const = 0;
  /// What is open, in the order it was opened.
  virtual std::vector<OpenItem> OpenItems() const = 0;

  /// Makes every following CDB session open fail (KxConfdCdbSession throws).
  virtual void FailCdbSessions(bool fail) = 0;
  /// Makes kxconfd_maapi_socket_get answer -1.
  virtual void FailMaapiSocket(bool fail) = 0;

  /// Whether anything under the schema node path (an absolute schema path,
  /// with or without prefixes) differs between running and candidate.
  virtual bool Changed(const std::string &schema_path) const = 0;
  /// Instance paths (confd_pp_kpath form) of the entries of the list at
  /// schema_path in the candidate, in data-store order.
  virtual std::vector<std::string> Instances(const std::string &schema_path) const = 0;
};

}  // namespace ipapp::host

#endif  // IPAPP_HOST_H
