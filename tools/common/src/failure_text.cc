#include "ipapp/tools/failure_text.h"

#include <cstring>

namespace ipapp::tools {

std::string CallbackFailureText(const std::string &validation, const std::string &keypath,
                                const std::string &process_end, const std::string &error) {
  const std::string place = "in " + validation + " on " + keypath;
  if (process_end.empty()) return "exception from the plug-in " + place + ": " + error;
  return ProcessEndText(process_end, place, error);
}

std::string FailureTextWithoutPlace(const std::string &process_end, const std::string &error) {
  return process_end.empty() ? error : ProcessEndText(process_end, "", error);
}

std::string ProcessEndText(const std::string &how, const std::string &place,
                           const std::string &detail) {
  return "the plug-in " + how + (place.empty() ? "" : " " + place) + " (" + detail + ")";
}

std::string SignalText(int sig) {
  const char *abbrev = sigabbrev_np(sig);
  const char *description = strsignal(sig);
  std::string text = "signal " + (abbrev ? "SIG" + std::string(abbrev) : std::to_string(sig));
  if (description != nullptr) text += std::string(", ") + description;
  return text;
}

std::string EntryExceptionText(const std::string &entry, const std::string &what) {
  return "exception from " + entry + ": " + what;
}

std::string UncheckedText(const std::string &why) {
  return "the configuration cannot be checked: " + why;
}

}  // namespace ipapp::tools
