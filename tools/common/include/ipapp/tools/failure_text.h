// How every tool words a failure of the plug-in, so that ipapp-check, the
// netconfd host and the engine's own errors tell the same story.
#ifndef IPAPP_TOOLS_FAILURE_TEXT_H
#define IPAPP_TOOLS_FAILURE_TEXT_H

#include <string>

namespace ipapp::tools {

/// A failed validation callback: "exception from the plug-in in V on KP:
/// ERROR" when an exception left it (process_end empty), else "the plug-in
/// HOW in V on KP (ERROR)", e.g. "the plug-in crashed in ... (signal
/// SIGSEGV, Segmentation fault)".
std::string CallbackFailureText(const std::string &validation, const std::string &keypath,
                                const std::string &process_end, const std::string &error);

/// The same without the place: ERROR, or "the plug-in HOW (ERROR)".
std::string FailureTextWithoutPlace(const std::string &process_end, const std::string &error);

/// The plug-in's process ended anywhere else: "the plug-in HOW PLACE
/// (DETAIL)", PLACE as "while loading" or "in lib_init".
std::string ProcessEndText(const std::string &how, const std::string &place,
                           const std::string &detail);

/// How a signal is named in these texts: "signal SIGSEGV, Segmentation
/// fault" (the number where the signal has no name).
std::string SignalText(int sig);

/// An exception that left an entry point around the commit: "exception
/// from ENTRY: WHAT".
std::string EntryExceptionText(const std::string &entry, const std::string &what);

/// A commit that could not be checked at all (the data cannot be read, the
/// server has none to hand): "the configuration cannot be checked: WHY".
std::string UncheckedText(const std::string &why);

}  // namespace ipapp::tools

#endif  // IPAPP_TOOLS_FAILURE_TEXT_H
