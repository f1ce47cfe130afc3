// What the commit process tells the caller's process: frames in shared
// memory (journal.h), then, should that fill up, on a pipe of their own.
//
// A frame is a 32-bit length in host order, then the message: its kind, then
// its fields, in a fixed binary layout that both ends share (they are one
// program); strings travel byte for byte, valid UTF-8 or not. A frame that
// does not read to its end exactly is garbled. The messages, in the order
// the commit process sends them:
//   kEnter          it is about to enter a stage (Stage below); for
//                   kValidate, with the validation and the keypath
//   kInvocation     one callback's outcome
//   kFault          a fault the plug-in recorded since the last message
//   kPluginError    loading or starting the plug-in failed (text)
//   kInputError     the input could not be read (source, line, message)
//   kError          anything else that left the engine (text)
//   kFinishFailure  what lib_finish threw (text)
//   kDone           the report is complete
// The first kEnter other than kEngine starts the plug-in's time limit.
// A frame of length 0 carries no message: it wakes the caller up to read
// the messages the commit process left in shared memory (journal.h).
//
// How the commit process can end, as the caller tells it (EndingOf):
//   - kDone, then exit status 0: the report stands as sent;
//   - no result by the deadline: "did not return";
//   - SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP or SIGSYS: "crashed";
//   - SIGABRT: "aborted";
//   - any other signal: "was killed";
//   - an exit before kDone, or with a status other than 0: "ended the process";
//   - bytes on the pipe that are no frame: "garbled its report".
// A kPluginError, kInputError or kError stands for itself, however the
// process then ends. Otherwise an ending other than the first is placed by
// the last kEnter: in kValidate the callback fails; in kLibFinish or kUnload
// the report is complete and its finish failure says so; in kEngine the
// commit could not run; anywhere else the plug-in cannot be used.
#ifndef IPAPP_CHECK_ISOLATION_PROTOCOL_H
#define IPAPP_CHECK_ISOLATION_PROTOCOL_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "ipapp/check_engine.h"

namespace ipapp::check::isolation {

enum class Kind {
  kEnter,
  kInvocation,
  kFault,
  kPluginError,
  kInputError,
  kError,
  kFinishFailure,
  kDone,
};

/// Where the commit process is: the engine's own work, or one of the
/// plug-in's entry points ("load" is its own initialisation while it loads,
/// "unload" its finalisation while it is unloaded).
enum class Stage {
  kEngine,
  kLoad,
  kGetValidationPoint,
  kLibInit,
  kValidate,
  kLibFinish,
  kUnload,
};

/// The stage's name: "engine", "load", "get_validation_point", ...
const char *StageName(Stage stage);
/// The stage an entry point of the plug-in belongs to.
Stage StageOf(Entry entry);
/// Where the plug-in was, as a failure report words it: "while loading",
/// "while unloading", "in lib_init".
std::string PlaceText(Stage stage);

/// One message. Only the fields of its kind are meaningful.
struct Message {
  Kind kind = Kind::kDone;
  Stage stage = Stage::kEngine;     ///< kEnter
  std::string validation, keypath;  ///< kEnter at kValidate
  Invocation invocation;            ///< kInvocation
  host::Fault fault;                ///< kFault
  std::string text;                 ///< kPluginError, kError, kFinishFailure
  std::string source;               ///< kInputError, with line and text
  int line = 0;

  static Message Enter(Stage stage);
  static Message EnterValidate(const std::string &validation, const std::string &keypath);
  static Message Of(const Invocation &invocation);
  static Message Of(const host::Fault &fault);
  static Message Of(const host::InputError &error);
  static Message Text(Kind kind, const std::string &text);
  static Message Done();

  /// kInputError as the exception it stands for.
  host::InputError AsInputError() const;
};

/// The frame of a message: length, then the body.
std::vector<std::uint8_t> Frame(const Message &message);
/// The frame that carries no message, only a wake-up call.
std::vector<std::uint8_t> WakeUpFrame();

/// Bytes that are no frame of a message.
class Garbled : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Cuts messages out of the bytes read from the pipe, however they were
/// split by the reads.
class FrameReader {
 public:
  void Append(const char *data, size_t size) { buffer_.append(data, size); }
  /// The next complete message, or nothing until more bytes come; frames
  /// without a message are passed over. Throws Garbled.
  std::optional<Message> Next();

 private:
  std::string buffer_;
  size_t at_ = 0;
};

}  // namespace ipapp::check::isolation

#endif  // IPAPP_CHECK_ISOLATION_PROTOCOL_H
